#pragma once

#include <map>
#include <memory>

namespace Engine {

// The messages of the collection modules. Each module defines its own in full; a receiver that
// only passes them on needs no more than the names.
class FileNotifyMessage;
class FtraceMessage;
struct ProcsMessage {
    struct procInfo;
};
struct AssetMessage {
    struct assetInfo;
};

// Handlers for what the collection modules publish. A task overrides those it cares for; the
// others ignore the message. Called on the receiving task's thread.
class AbstractMessageReceiver {
public:
    virtual void FileNotifyMessageAction(FileNotifyMessage* /*message*/) {}
    virtual void ProcsMessageAction(int /*action*/, unsigned int /*sequence*/,
                                    // NOLINTNEXTLINE(performance-unnecessary-value-param)
                                    std::shared_ptr<ProcsMessage::procInfo> /*process*/) {}
    virtual void AssetMessageAction(
        unsigned int /*sequence*/,
        const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>& /*assets*/) {}
    virtual void FtraceMessageAction(const FtraceMessage* /*message*/) {}
    virtual ~AbstractMessageReceiver() = default;
};

}  // namespace Engine
