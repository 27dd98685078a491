#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "framework/HostChange.h"

namespace Engine {

constexpr const char* kRestartRsyslog = "service rsyslog restart";
constexpr const char* kRestartAppArmor = "rcapparmor restart";
constexpr const char* kRestartSyslog = "service syslog restart";

enum class DaemonKind { kNone, kRsyslog, kSyslogng };

// "rsyslog", "syslog-ng" or "no syslog daemon".
const char* Name(DaemonKind kind);

// What the name of a process makes of it.
DaemonKind KindOf(const std::string& process_name);

// The daemon that is configured: of the kind that the first process, by number, whose name tells
// makes it.
struct SyslogDaemon {
    DaemonKind kind = DaemonKind::kNone;
    int process = 0;             // the first that may be the daemon; 0 when none may
    std::vector<int> processes;  // all of them

    // Hundredths of a second from the system's boot to the start of the process, whatever becomes
    // of the clock; -1 when it is gone.
    std::int64_t Started() const;
};

// Of the processes as they are now; none where module_procs is not loaded. Any thread.
SyslogDaemon FindDaemon();

// Hundredths of a second since the system's boot.
std::int64_t SinceBoot();

// What the daemon says of its configuration as it stands, and AppArmor's compiler of the profile of
// syslog-ng. Waits for each answer, a minute at most; a stop ends that, and it then counts as not
// asked.
std::vector<Framework::Verdict> AskDaemon(DaemonKind kind, const std::function<bool()>& stopping);

// The same, once `changes` were made: they are in
// place for the programs asked and nobody else. Needs the right to have mounts of one's own, as
// root or as anybody whom the system allows a user namespace.
std::vector<Framework::Verdict> AskAbout(DaemonKind kind,
                                         const std::vector<Framework::FileChange>& changes);

}  // namespace Engine
