#include "module/module_rsyslog/src/ForwardingPlan.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <list>
#include <system_error>
#include <utility>

#include "module/module_rsyslog/src/MarkedBlock.h"
#include "module/module_rsyslog/src/RsyslogInclude.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "module/module_rsyslog/src/RsyslogWait.h"
#include "module/module_rsyslog/src/SyslogDaemon.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

using Framework::FileChange;
using Framework::HostChange;

constexpr int kIncludePathSize = 1024;
const std::string kDebianDirectory = "/etc/rsyslog.d/";

// The file as it is.
FileChange Read(const std::string& path) {
    FileChange file;
    file.path = path;
    const int error = SDK::FileUtils::ReadFile(path, file.before, kMaxConfSize);
    file.existed = error == 0;
    if (error != 0 && error != ENOENT && error != ENOTDIR) {
        throw Poco::FileException(path + ": " + std::strerror(error));
    }
    file.after = file.before;
    return file;
}

// The very task, to be asked for the texts that it writes.
class Planner : public RsyslogTask {
public:
    explicit Planner(const RsyslogPolicy::RSYSLOG_POLICY& settings) { rsyslog_policy = settings; }

    HostChange Plan() {
        CheckSyslogRunning();
        // Over TCP servers are probed, for seconds each, and none is ever taken.
        if (boost::starts_with(rsyslog_policy.server_type, "tcp") || !CheckSyslogNeedRewrite()) {
            return {};
        }
        if (rsyslog_policy.is_rsyslog) {
            return PlanRsyslog();
        }
        return rsyslog_policy.is_syslogng ? PlanSyslogng() : HostChange();
    }

protected:
    ~Planner() override = default;

private:
    HostChange PlanRsyslog() {
        char include_dir[kIncludePathSize] = {};
        if (FindIncludeDirectory(include_dir, kIncludePathSize) != Include::kFound) {
            return {};
        }
        HostChange plan;
        FileChange file = Read(std::string(include_dir) + kRsyslogIncludeFile);
        file.remains = BuildRsyslogConf(file.after);
        if (file.existed || file.remains) {
            plan.files.push_back(file);
        }
        if (file.remains) {
            plan.commands = {kRestartRsyslog};
            plan.verdicts = AskAbout(DaemonKind::kRsyslog, plan.files);
        }
        return plan;
    }

    HostChange PlanSyslogng() {
        HostChange plan;
        if (!BuildSyslogngBlock(plan)) {
            return plan;
        }
        FileChange profile = Read(kSyslogngProfile.path);
        CutBlock(profile.after);
        if (AddProfileBlock(rsyslog_policy.log_path, profile.after)) {
            plan.files.push_back(profile);
            plan.commands = {kRestartAppArmor, kRestartSyslog};
        }
        plan.verdicts = AskAbout(DaemonKind::kSyslogng, plan.files);
        return plan;
    }

    bool BuildSyslogngBlock(HostChange& plan) {
        FileChange conf = Read(kSyslogngConf.path);
        std::string unused;
        if (!conf.existed || !BuildRsyslogConf(unused)) {  // the same server types
            return false;
        }
        std::string block;
        GenerateSyslogngConfContent(0, 0, block);
        CutBlock(conf.after);
        conf.after += block;
        plan.files.push_back(conf);
        return true;
    }
};

// The block taken out, if that can be done without a loss.
void AddCut(const MarkedFile& marked, std::vector<FileChange>& files) {
    FileChange file = Read(marked.path);
    const std::size_t begin = file.after.find(kBlockBegin);
    const std::size_t end = file.after.rfind(kBlockEnd);
    const bool whole = begin != std::string::npos && end != std::string::npos && begin < end;
    if (whole) {
        CutBlock(file.after);
    }
    // The line of a marker may be left without the blank one behind it.
    if (boost::contains(file.after, boost::trim_copy(kBlockBegin)) ||
        boost::contains(file.after, boost::trim_copy(kBlockEnd))) {
        throw Poco::DataException(marked.path +
                                  " holds one marker of our part without the other, or a changed "
                                  "one: take out by hand what is left of it");
    }
    if (whole) {
        files.push_back(file);
    }
}

// Empty, or why the file is as it was.
std::string Apply(const FileChange& file) {
    const int error = file.remains ? SDK::FileUtils::WriteFile(file.path, file.after, false)
                                   : (unlink(file.path.c_str()) == 0 ? 0 : errno);
    return error == 0 ? "" : file.path + " was left as it is (" + std::strerror(error) + "); ";
}

}  // namespace

HostChange PlanForwarding(const RsyslogPolicy::RSYSLOG_POLICY& settings) {
    Poco::AutoPtr<Planner> planner(new Planner(settings));
    return planner->Plan();
}

HostChange RestoreForwarding(bool planned_only) {
    HostChange change;
    std::vector<std::string> directories = FindIncludeDirectories();
    if (std::find(directories.begin(), directories.end(), kDebianDirectory) == directories.end()) {
        directories.push_back(kDebianDirectory);  // rsyslog may be gone with its configuration
    }
    for (const auto& directory : directories) {
        FileChange file = Read(directory + kRsyslogIncludeFile);
        file.remains = false;
        file.after.clear();
        std::error_code error;
        file.existed |= std::filesystem::is_symlink(file.path, error);  // to nothing
        if (file.existed) {
            change.files.push_back(file);
        }
    }
    const std::size_t of_rsyslog = change.files.size();
    AddCut(kSyslogngConf, change.files);
    AddCut(kSyslogngProfile, change.files);
    const bool of_syslogng = change.files.size() > of_rsyslog;

    const DaemonKind running = FindDaemon().kind;
    if (running == DaemonKind::kRsyslog && of_rsyslog > 0) {
        change.commands = {kRestartRsyslog};
    } else if (running == DaemonKind::kSyslogng && of_syslogng) {
        change.commands = {kRestartAppArmor, kRestartSyslog};
    }
    if (planned_only) {
        return change;
    }
    std::string failures;
    for (const FileChange& file : change.files) {
        failures += Apply(file);
    }
    if (!change.commands.empty()) {
        int status = 0;
        const std::string line = boost::algorithm::join(change.commands, "; ");
        if (RunCommand(
                "umask 022; " + line, [] { return false; }, status) != Outcome::kDone ||
            status != 0) {
            failures += "[" + line + "] failed, restart the daemon yourself; ";
        }
    }
    if (!failures.empty()) {
        throw Poco::RuntimeException(failures + "the rest was done");
    }
    return change;
}

}  // namespace Engine
