#pragma once

#include <Poco/DirectoryWatcher.h>
#include <Poco/Event.h>
#include <Poco/Thread.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "sdk/ReadMark.h"

// The policy files of a directory. On a thread of its own, the policy thread, every `*.json` is
// delivered once in name order, and again whenever its content has changed or it has reappeared.
// A removed file is forgotten, nothing else. A writer that does not rename its file into place is
// given time to finish: the directory must have been quiet for a moment. Apart from events it is
// scanned every five seconds. What cannot be read, file or directory, or is not to be obeyed as
// others may have written it (sdk/Trust.h), is an error line once for each reason.
class PolicyDirectory {
public:
    static constexpr std::size_t kMaxPolicySize = 1 << 20;  // bytes

    // Called on the policy thread with the file's name and its whole content.
    using Deliver = std::function<void(const std::string& name, const std::string& content)>;
    // Called on the policy thread after each scan, when all that changed has been delivered.
    using Settle = std::function<void()>;

    // Called on the policy thread when a file has become unreadable, `why` telling the reason, or,
    // with none, is gone.
    using Lose = std::function<void(const std::string& name, const std::string& why)>;

    // Throws Poco::Exception when the directory cannot be watched or no thread can be had.
    PolicyDirectory(const std::string& path, Deliver deliver, Settle settle, Lose lose);
    // Ends the policy thread; a call in progress is finished first.
    ~PolicyDirectory();

private:
    void OnEvent(const Poco::DirectoryWatcher::DirectoryEvent& event);
    void OnError(const Poco::Exception& error);
    void Run();
    void WaitUntilQuiet();
    void Scan();
    // The policy files by name; false when the directory cannot be read.
    bool List(std::set<std::string>& names);
    void Read(const std::string& name);

    const std::string path_;
    const Deliver deliver_;
    const Settle settle_;
    const Lose lose_;
    struct Seen {
        std::string what;  // was last delivered, as a digest, or why the file could not be read
        SDK::ReadMark mark;
    };
    std::map<std::string, Seen> seen_;  // by file name
    std::string trouble_;               // why the directory could not be read
    Poco::Event changed_{true};
    std::atomic<bool> stopping_{false};
    std::unique_ptr<Poco::DirectoryWatcher> watcher_;
    Poco::Thread thread_;
};
