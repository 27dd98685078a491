#include "module/module_rsyslog/src/SyslogDaemon.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>

#include "framework/Engine.h"
#include "module/module_procs/src/ProcsFullTask.h"
#include "module/module_rsyslog/src/MarkedBlock.h"
#include "module/module_rsyslog/src/RsyslogInclude.h"
#include "module/module_rsyslog/src/RsyslogWait.h"
#include "sdk/PrivateFolder.h"

namespace Engine {

namespace {

namespace fs = std::filesystem;

// Of a trial, besides 0.
constexpr int kRejected = 100;
constexpr int kNoSuchCommand = 127;

const char* const kAskRsyslog = "rsyslogd -N1";
const char* const kAskSyslogng = "syslog-ng --syntax-only";
const char* const kAskAppArmor = "apparmor_parser -Q -K /etc/apparmor.d/sbin.syslog-ng";
// What the daemons live by may not be in the agent's path.
const char* const kPath = "PATH=$PATH:/usr/sbin:/sbin; export PATH; ";

std::vector<const char*> CommandsOf(DaemonKind kind) {
    if (kind == DaemonKind::kRsyslog) {
        return {kAskRsyslog};
    }
    std::error_code error;
    if (!fs::exists(kSyslogngProfile.path, error)) {
        return {kAskSyslogng};
    }
    return {kAskSyslogng, kAskAppArmor};
}

// What a daemon says to every configuration, or of our part of it without harm: each is the pieces
// that such a line holds.
const std::vector<std::string> kUsualWords[] = {
    {"config validation run"},
    {"'statefile' deprecated but accepted"},
    {"module 'imfile' already in this config"},  // the files are read all the same
    {kRsyslogIncludeFile, "'PollingInterval' not known"},
    {"imfile: no working or state file directory set"},
    {"capability management disabled"},
    {"Cache read/write disabled"},  // AppArmor's compiler, where the kernel has none
};

// The program's words less those.
std::string OwnWords(const std::string& output) {
    std::istringstream lines(output);
    std::string words;
    for (std::string line; std::getline(lines, line);) {
        const bool usual = std::any_of(
            std::begin(kUsualWords), std::end(kUsualWords), [&line](const auto& pieces) {
                return std::all_of(pieces.begin(), pieces.end(), [&line](const auto& piece) {
                    return boost::icontains(line, piece);
                });
            });
        if (!usual && line.find_first_not_of(" \t") != std::string::npos &&
            words.find(line) == std::string::npos) {
            words += line + "\n";
        }
    }
    return words;
}

std::string Quoted(const std::string& text) {
    return "'" + boost::replace_all_copy(text, "'", R"('\'')") + "'";
}

// Commands of the shell that put the files as changed in the place of the host's. A new file needs
// its directory as a whole; `folder` takes copies.
std::string PutInPlace(const std::vector<Framework::FileChange>& changes,
                       const SDK::PrivateFolder& folder) {
    std::string script;
    int number = 0;
    for (const auto& change : changes) {
        const std::string name = std::to_string(number++);
        const std::string after = change.remains ? Quoted(folder.Write(name, change.after)) : "";
        if (change.existed && change.remains) {
            script += "mount --bind " + after + " " + Quoted(change.path) + " && ";
            continue;
        }
        const fs::path path = change.path;
        const std::string directory = Quoted(path.parent_path().string());
        const std::string copy = Quoted(folder.Path() + "/" + name + ".d");
        const std::string file = copy + "/" + Quoted(path.filename().string());
        script += "cp -RP " + directory + " " + copy + " && " +
                  (change.remains ? "cp " + after + " " + file : "rm -f " + file) +
                  " && mount --bind " + copy + " " + directory + " && ";
    }
    return script;
}

Framework::Verdict Try(const char* command, const std::string& put_in_place) {
    const std::string script = put_in_place + "{ " + command +
                               "; status=$?; [ $status = " + std::to_string(kNoSuchCommand) +
                               " ] && exit $status; [ $status = 0 ] || exit " +
                               std::to_string(kRejected) + "; }";
    Framework::Verdict verdict;
    verdict.command = command;
    const std::string unshare =
        std::string("unshare --mount ") + (geteuid() == 0 ? "" : "--user --map-root-user ");
    int status = 0;
    std::string output;
    const Outcome outcome = RunCommand(
        kPath + unshare + "sh -c " + Quoted(script),
        [] { return Framework::Engine::Instance().IsStopping(); }, status, output);
    verdict.asked = outcome == Outcome::kDone && (status == 0 || status == kRejected);
    verdict.words = OwnWords(output);
    verdict.accepted = verdict.asked && (status == 0 || verdict.words.empty());
    return verdict;
}

// What /proc tells of a process behind its name, which may hold anything: its state, its parent and
// so on. Empty when it is gone.
std::string StatusOf(int process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name_end = text.rfind(')');
    return name_end == std::string::npos ? "" : text.substr(name_end + 1);
}

// Of root or a system's account, and not ended: any user may give a process of his a daemon's name.
bool MayBeDaemon(int process) {
    constexpr uid_t kFirstUser = 1000;
    constexpr uid_t kNobody = 65534;
    struct stat status = {};
    const std::string state = boost::trim_left_copy(StatusOf(process)).substr(0, 1);
    return stat(("/proc/" + std::to_string(process)).c_str(), &status) == 0 &&
           (status.st_uid < kFirstUser || status.st_uid == kNobody) && state != "Z" && state != "X";
}

}  // namespace

const char* Name(DaemonKind kind) {
    switch (kind) {
        case DaemonKind::kRsyslog:
            return "rsyslog";
        case DaemonKind::kSyslogng:
            return "syslog-ng";
        default:
            return "no syslog daemon";
    }
}

DaemonKind KindOf(const std::string& process_name) {
    if (boost::contains(process_name, "rsyslog")) {
        return DaemonKind::kRsyslog;
    }
    return boost::contains(process_name, "syslog-ng") ? DaemonKind::kSyslogng : DaemonKind::kNone;
}

SyslogDaemon FindDaemon() {
    Poco::AutoPtr<Framework::Task> task = Framework::Engine::Instance().FindTask("procs_full_task");
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> processes;
    if (task) {
        // As in RsyslogTask::CheckSyslogRunning.
        static_cast<ProcsFullTask*>(task.get())->GetProcsMap(processes);
    }
    SyslogDaemon daemon;
    for (const auto& [pid, process] : processes) {
        const DaemonKind kind = KindOf(process->name);
        if (daemon.kind == DaemonKind::kNone) {
            daemon.kind = kind;
        }
        if (kind == daemon.kind && kind != DaemonKind::kNone && MayBeDaemon(pid)) {
            daemon.processes.push_back(pid);
        }
    }
    daemon.process = daemon.processes.empty() ? 0 : daemon.processes.front();
    return daemon;
}

std::int64_t SyslogDaemon::Started() const {
    constexpr int kStartTime = 19;
    std::istringstream fields(MayBeDaemon(process) ? StatusOf(process) : "");
    std::string field;
    for (int i = 0; i < kStartTime; ++i) {
        fields >> field;
    }
    std::int64_t ticks = -1;
    return fields >> ticks ? ticks * 100 / sysconf(_SC_CLK_TCK) : -1;
}

std::int64_t SinceBoot() {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 100 + now.tv_nsec / 10'000'000;
}

std::vector<Framework::Verdict> AskDaemon(DaemonKind kind, const std::function<bool()>& stopping) {
    std::vector<Framework::Verdict> verdicts;
    for (const char* command : CommandsOf(kind)) {
        Framework::Verdict verdict;
        verdict.command = command;
        int status = 0;
        std::string output;
        verdict.asked =
            RunCommand(kPath + verdict.command, stopping, status, output) == Outcome::kDone &&
            status != kNoSuchCommand;
        verdict.words = OwnWords(output);
        verdict.accepted = verdict.asked && (status == 0 || verdict.words.empty());
        verdicts.push_back(verdict);
    }
    return verdicts;
}

std::vector<Framework::Verdict> AskAbout(DaemonKind kind,
                                         const std::vector<Framework::FileChange>& changes) {
    const SDK::PrivateFolder folder;
    std::vector<Framework::Verdict> verdicts;
    for (const char* command : CommandsOf(kind)) {
        verdicts.push_back(Try(command, PutInPlace(changes, folder)));
    }
    return verdicts;
}

}  // namespace Engine
