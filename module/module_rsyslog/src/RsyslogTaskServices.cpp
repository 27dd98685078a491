#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <chrono>
#include <thread>
#include <utility>

#include "framework/Log.h"
#include "module/module_rsyslog/src/ForwardingHealth.h"
#include "module/module_rsyslog/src/MarkedBlock.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "module/module_rsyslog/src/RsyslogWait.h"
#include "module/module_rsyslog/src/WorkRecord.h"

namespace Engine {

namespace {

constexpr std::size_t kNamedServers = 8;
// How long a daemon may take to show after its restart.
constexpr int kLooks = 50;
constexpr std::chrono::milliseconds kLookPause{100};

// "/var/log/app.log to 10.0.0.1:514, 10.0.0.2:514"
std::string DescribeForwarding(const path_port& entry) {
    std::string text = entry.path + " to ";
    for (std::size_t i = 0; i < entry.servers.size() && i < kNamedServers; ++i) {
        text += (i > 0 ? ", " : "") + entry.servers[i] + ":" + entry.port;
    }
    if (entry.servers.size() > kNamedServers) {
        text += " and " + std::to_string(entry.servers.size() - kNamedServers) + " more";
    }
    return text;
}

}  // namespace

void RsyslogTask::Restart(std::list<std::string> commands) {
    WorkRecord::Instance().Count(kDaemonRestart);
    // A daemon must not keep the agent's log or sockets open, nor take over its tight umask.
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    for (; !commands.empty(); commands.pop_front()) {
        // In one shell, to which a stop leaves them in their order.
        const std::string line = boost::algorithm::join(commands, "; ");
        int status = 0;
        const Outcome outcome = RunCommand(
            "umask 022; " + line, [this] { return isCancelled(); }, status);
        NoteRestart();
        restarted = outcome != Outcome::kStopped;
        if (outcome == Outcome::kDone && status == 0) {
            Framework::Log().information("the daemon was restarted: " + line);
        } else if (outcome == Outcome::kDone) {
            Framework::Log().warning("[" + line + "] ended with exit status " +
                                     std::to_string(status));
        }
        if (outcome != Outcome::kFailed) {
            return;
        }
        RSYSLOG_LOG(PRIO_ERROR, "[%s] could not be run to its end", line);
    }
}

void RsyslogTask::SyslogServiceManage() {
    if (!OverWriteSyslogngConf() || !OverWriteSyslogngReadAuditConf()) {
        return;
    }
    Restart({kRestartAppArmor, kRestartSyslog});
    RSYSLOG_LOG(PRIO_TRACE, "run cmd: rcapparmor restart & service syslog restart");
}

void RsyslogTask::ConfirmForwarding() {
    if (!std::exchange(restarted, false)) {
        return;
    }
    const auto stopping = [this] { return isCancelled(); };
    const DaemonKind kind = ChosenDaemon();
    const std::string name = Name(kind);
    bool runs = false;
    for (int look = 0; look < kLooks && !runs; ++look) {
        if (stopping()) {
            return;
        }
        if (look > 0) {
            std::this_thread::sleep_for(kLookPause);
        }
        const SyslogDaemon daemon = FindDaemon();
        runs = daemon.kind == kind && daemon.process != 0;
    }
    std::string faults;
    for (const Framework::Verdict& verdict : AskDaemon(kind, stopping)) {
        if (verdict.asked && !verdict.accepted) {
            faults += verdict.command + " says: " + verdict.words;
        }
    }
    boost::trim(faults);
    ForwardingHealth::Instance().Judged(faults);
    if (stopping()) {
        return;
    }
    if (!runs) {
        Framework::Log().error(
            name + " does not run after its restart; " +
            (faults.empty() ? "it finds no fault with its configuration, see the journal for what "
                              "its start has said"
                            : faults));
    } else if (!faults.empty()) {
        Framework::Log().error(name + " finds fault with its configuration; " + faults);
    }
    for (const path_port& entry : rsyslog_policy.log_path) {
        if (runs && !entry.servers.empty()) {
            Framework::Log().information(name + " is to forward " + DescribeForwarding(entry) +
                                         " over " + rsyslog_policy.server_type);
        }
    }
}

}  // namespace Engine
