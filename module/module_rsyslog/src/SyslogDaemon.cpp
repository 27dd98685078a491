#include "module/module_rsyslog/src/SyslogDaemon.h"

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>

#include "framework/Engine.h"
#include "module/module_procs/src/ProcsFullTask.h"
#include "module/module_rsyslog/src/RsyslogInclude.h"
#include "module/module_rsyslog/src/RsyslogWait.h"
#include "sdk/PrivateFolder.h"

namespace Engine {

namespace {

namespace fs = std::filesystem;

// Of a trial, besides 0.
constexpr int kRejected = 100;

const char* const kAskRsyslog = "rsyslogd -N1";
const char* const kAskSyslogng = "syslog-ng --syntax-only";
const char* const kAskAppArmor = "apparmor_parser -Q -K /etc/apparmor.d/sbin.syslog-ng";
// What the daemons live by may not be in the agent's path.
const char* const kPath = "PATH=$PATH:/usr/sbin:/sbin; export PATH; ";

std::vector<const char*> CommandsOf(DaemonKind kind) {
    return kind == DaemonKind::kRsyslog ? std::vector<const char*>{kAskRsyslog}
                                        : std::vector<const char*>{kAskSyslogng, kAskAppArmor};
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
                       const std::string& folder) {
    std::string script;
    int number = 0;
    for (const auto& change : changes) {
        const std::string copy = folder + "/" + std::to_string(number++);
        if (change.existed && change.remains) {
            std::ofstream(copy, std::ios::binary) << change.after;
            script += "mount --bind " + Quoted(copy) + " " + Quoted(change.path) + " && ";
            continue;
        }
        const fs::path directory = fs::path(change.path).parent_path();
        fs::create_directory(copy);
        std::error_code error;
        fs::copy(directory, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
                 error);
        const std::string file = copy + "/" + fs::path(change.path).filename().string();
        if (change.remains) {
            std::ofstream(file, std::ios::binary | std::ios::trunc) << change.after;
        } else {
            fs::remove(file, error);
        }
        script += "mount --bind " + Quoted(copy) + " " + Quoted(directory.string()) + " && ";
    }
    return script;
}

Framework::Verdict Try(const char* command, const std::string& put_in_place) {
    const std::string script = put_in_place + "{ " + command +
                               "; status=$?; [ $status = 0 ] || exit " + std::to_string(kRejected) +
                               "; }";
    Framework::Verdict verdict;
    verdict.command = command;
    const std::string unshare =
        std::string("unshare --mount ") + (geteuid() == 0 ? "" : "--user --map-root-user ");
    int status = 0;
    std::string output;
    const Outcome outcome = RunCommand(
        kPath + unshare + "sh -c " + Quoted(script), [] { return false; }, status, output);
    verdict.asked = outcome == Outcome::kDone && (status == 0 || status == kRejected);
    verdict.words = OwnWords(output);
    verdict.accepted = verdict.asked && (status == 0 || verdict.words.empty());
    return verdict;
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
        if (daemon.kind == DaemonKind::kNone && kind != DaemonKind::kNone) {
            daemon.kind = kind;
            daemon.process = pid;
        }
        if (kind == daemon.kind && kind != DaemonKind::kNone) {
            daemon.processes.push_back(pid);
        }
    }
    return daemon;
}

std::int64_t SyslogDaemon::Started() const {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    // Behind the name, which may hold anything, the 20th field.
    const std::size_t name_end = text.rfind(')');
    if (name_end == std::string::npos) {
        return -1;
    }
    std::istringstream fields(text.substr(name_end + 1));
    std::string field;
    for (int i = 0; i < 19; ++i) {
        fields >> field;
    }
    std::int64_t ticks = -1;
    return fields >> ticks ? ticks * 10 / sysconf(_SC_CLK_TCK) : -1;
}

std::int64_t SinceBoot() {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 10 + now.tv_nsec / 100'000'000;
}

std::vector<Framework::Verdict> AskDaemon(DaemonKind kind, const std::function<bool()>& stopping) {
    constexpr int kNoSuchCommand = 127;
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
    const std::string put_in_place = PutInPlace(changes, folder.Path());
    std::vector<Framework::Verdict> verdicts;
    for (const char* command : CommandsOf(kind)) {
        verdicts.push_back(Try(command, put_in_place));
    }
    return verdicts;
}

}  // namespace Engine
