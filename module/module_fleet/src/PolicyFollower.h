#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "framework/Finding.h"
#include "module/module_fleet/src/Backoff.h"
#include "module/module_fleet/src/Nats.h"

namespace Fleet {

// Keeps one file of the policy directory as the bucket of policies has it for this host: of the
// keys host.HOST, group.GROUP in the order of the groups, and all, the first that has a value. What
// the judge refuses is not written, and the file stays as it is. The file is removed when the last
// of these keys was removed; a bucket that never had one, or lies in ruins, removes nothing.
//
// One thread at a time.
class PolicyFollower {
public:
    // What there is to say of a policy; true when it must not be put to work.
    using Judge = std::function<bool(const std::string& text, std::vector<Framework::Finding>&)>;

    PolicyFollower(const std::string& host, const std::vector<std::string>& groups,
                   std::string file, Judge judge);

    // As ReportPublisher has it.
    void Connect(natsConnection* connection);
    // Takes what news there is, without waiting for any. A bucket that cannot be read is tried
    // again by itself, and Trouble() tells of it. Throws Poco::IOException when the connection is
    // of no use.
    void Work();

    // The keys that are looked at, the first one first; what is followed; what is refused in its
    // favour: {"keys","file","source","revision","hash",
    // "refused":{"source","revision","hash","findings"}}.
    const Json::Value& Followed() const { return followed_; }
    // Another number when that is something else.
    std::uint64_t Version() const { return version_; }
    const std::string& Trouble() const { return trouble_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Source {
        std::string key;
        Nats::Subscription news;
        std::uint64_t revision = 0;  // 0: nothing known of it
        bool exists = false;
        std::string text;
    };

    // Reads what there is news of. The news itself is not believed: any host can have the servers
    // deliver what it likes on the subject of another's, and as much of it.
    bool TakeNews();
    void Read(Source& source);
    void Decide();
    void Remove();
    void SetFollowed(Json::Value followed);

    const std::string file_;
    const Judge judge_;
    std::vector<Source> sources_;
    natsConnection* connection_ = nullptr;
    Nats::JetStream stream_;
    Clock::time_point due_;         // all is to be read again
    std::chrono::seconds wait_{0};  // from then on to the next time
    Backoff backoff_;
    std::string judged_;  // which one was judged last
    Json::Value followed_{Json::objectValue};
    std::uint64_t version_ = 0;
    std::string trouble_;
};

}  // namespace Fleet
