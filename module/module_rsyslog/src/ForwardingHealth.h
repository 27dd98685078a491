#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "framework/HostChange.h"
#include "module/module_rsyslog/src/SyslogDaemon.h"
#include "sdk/FileStamp.h"

namespace Engine {

// Whether the host's syslog daemon runs, and under the configuration that was last written for it.
// One for the process, as there is one daemon. Any thread.
class ForwardingHealth {
public:
    static ForwardingHealth& Instance();

    // A full pass has found that daemon, or none. `wanted`: the policy forwards something.
    void Saw(DaemonKind kind, bool wanted);
    // The file has been written for the daemon; what was written before no longer counts.
    void Wrote(const std::string& path);
    // What fault the daemon finds with it; empty when none.
    void Judged(const std::string& faults);
    // No task looks after the forwarding any more.
    void Forget();

    // The daemon runs under what the agent has written for it.
    bool Forwards();
    // Nothing before the first full pass. Looks for the daemon's process again, once in ten seconds
    // at most, when the one known is gone.
    std::vector<Framework::Condition> Conditions();

private:
    bool Holds(std::string& why_not) const;
    void Look();

    std::mutex mutex_;  // guards the rest
    bool known_ = false;
    DaemonKind kind_ = DaemonKind::kNone;
    bool wanted_ = false;
    SyslogDaemon daemon_;
    std::int64_t started_ = -1;  // of daemon_'s process
    std::int64_t looked_ = 0;    // since boot, in hundredths of a second, as the next
    std::int64_t written_ = -1;
    std::string path_;  // empty: nothing written
    SDK::FileStamp stamp_;
    std::string faults_;
};

}  // namespace Engine
