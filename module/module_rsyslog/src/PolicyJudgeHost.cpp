#include <glob.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <system_error>

#include "framework/Engine.h"
#include "module/module_rsyslog/src/MarkedBlock.h"
#include "module/module_rsyslog/src/PolicyJudge.h"
#include "module/module_rsyslog/src/RsyslogInclude.h"
#include "module/module_rsyslog/src/RsyslogWait.h"
#include "module/module_rsyslog/src/SyslogRules.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{3};
constexpr std::chrono::seconds kSilence{30};
constexpr int kIncludePathSize = 1024;

// In place of the key for what concerns all files.
const char* const kFiles = "content.log_path";

std::string Describe(const ConfPlace& place) {
    return place.file + ", line " + std::to_string(place.line) + " (" + place.text + ")";
}

void JudgeRsyslog(const RsyslogRules& rules, Findings& findings) {
    const std::string conf = kRsyslogConf;
    char directory[kIncludePathSize] = {};
    switch (FindIncludeDirectory(directory, kIncludePathSize)) {
        case Include::kUnreadable:
            findings.Fail(
                kFiles,
                conf + " cannot be read (" + std::strerror(errno) + "): nothing is forwarded",
                "mend that");
            return;
        case Include::kFound:
            break;
        default:
            findings.Fail(kFiles, conf + " includes no directory: nothing is forwarded",
                          "begin a line of it with $IncludeConfig /etc/rsyslog.d/*.conf");
            return;
    }
    const std::string own = std::string(directory) + kRsyslogIncludeFile;
    std::error_code error;
    if (!std::filesystem::is_directory(std::filesystem::path(own).parent_path(), error)) {
        findings.Fail(kFiles,
                      "the directory of " + own + ", by the first include line of " + conf +
                          ", is missing: nothing is forwarded",
                      "make it");
    } else if (rules.other_default.line > 0) {
        findings.Fail(kFiles,
                      Describe(rules.other_default) +
                          " leads what is read past the rules that forward it: nothing is "
                          "forwarded",
                      "bind the inputs that need that ruleset to it, each by itself");
    } else if (!rules.reads_own && rules.whole) {
        findings.Fail(kFiles,
                      "no include line of " + conf + " takes " + own + ": nothing is forwarded",
                      "include /etc/rsyslog.d/*.conf in the first of them");
    }
}

void JudgeSyslogng(Findings& findings) {
    std::string text;
    if (const int error = SDK::FileUtils::ReadFile(kSyslogngConf.path, text, kMaxConfSize);
        error != 0) {
        findings.Fail(kFiles,
                      kSyslogngConf.path + " cannot be read (" + std::strerror(error) +
                          "): nothing is forwarded",
                      "mend that");
        return;
    }
    const int error = SDK::FileUtils::ReadFile(kSyslogngProfile.path, text, kMaxConfSize);
    if (error != 0 || text.find('}') == std::string::npos) {
        findings.Warn(kFiles,
                      "the daemon has no AppArmor profile " + kSyslogngProfile.path +
                          ": it is configured, and not restarted",
                      "restart it yourself once the policy is in force");
    }
}

// Directories are walked for it, and braces multiply.
bool IsCheapPattern(const std::string& pattern) {
    constexpr std::ptrdiff_t kMostBraces = 2;
    constexpr std::ptrdiff_t kMostCommas = 20;
    return pattern.find_first_of("*?[{") > pattern.rfind('/') &&
           std::count(pattern.begin(), pattern.end(), '{') <= kMostBraces &&
           std::count(pattern.begin(), pattern.end(), ',') <= kMostCommas;
}

bool Matches(const std::string& pattern) {
    glob_t found = {};
    const bool some = glob(pattern.c_str(), GLOB_BRACE | GLOB_NOSORT, nullptr, &found) == 0;
    globfree(&found);
    return some;
}

void JudgeFile(const WantedForwarding::File& file, DaemonKind kind, Findings& findings) {
    struct stat status = {};
    const char* const wildcards = kind == DaemonKind::kSyslogng ? "*?" : "*?[{";
    if (file.path.front() != '/') {
        return;
    }
    if (file.path.find_first_of(wildcards) != std::string::npos) {
        if (IsCheapPattern(file.path) && !Matches(file.path)) {
            findings.Warn(file.place.key, "no file matches " + file.path,
                          "nothing is forwarded until one does");
        }
    } else if (stat(file.path.c_str(), &status) != 0) {
        findings.Warn(file.place.key, file.path + ": " + std::strerror(errno),
                      "nothing is forwarded until the file is there");
    } else if (S_ISDIR(status.st_mode)) {
        findings.Fail(file.place.key,
                      file.path + " is a directory: nothing is forwarded" +
                          (kind == DaemonKind::kSyslogng
                               ? ", and the daemon fills its own logs with complaints"
                               : ""),
                      "name the files in it");
    } else if (!S_ISREG(status.st_mode)) {
        findings.Fail(file.place.key, file.path + " is no regular file", "name a file");
    }
}

// True in three seconds, or at a stop.
std::function<bool()> Deadline() {
    return [end = Clock::now() + kPatience] {
        return Clock::now() >= end || Framework::Engine::Instance().IsStopping();
    };
}

void JudgeFiles(const std::vector<WantedForwarding::File>& files, DaemonKind kind,
                Findings& findings) {
    const auto stopping = Deadline();
    for (const auto& file : files) {
        if (stopping()) {
            findings.Warn(file.place.key,
                          "this file and those behind it could not be looked at in time",
                          "name fewer files");
            return;
        }
        JudgeFile(file, kind, findings);
    }
}

// Many documents that come together wait for silent name servers once.
void JudgeNames(const std::vector<Placed>& servers, Findings& findings) {
    static std::atomic<Clock::time_point> silent_until{Clock::time_point::min()};
    const auto in_time = Deadline();
    const auto stopping = [&] { return Clock::now() < silent_until.load() || in_time(); };
    for (const Placed& server : servers) {
        if (!MayBeName(server.text)) {
            continue;
        }
        const Outcome outcome = stopping() ? Outcome::kStopped : LookUpHost(server.text, stopping);
        if (outcome == Outcome::kFailed) {
            findings.Warn(server.key, "the name " + server.text + " has no address here",
                          "nothing arrives there until it has one");
        } else if (outcome == Outcome::kStopped) {
            findings.Warn(server.key, "the name " + server.text + " could not be looked up in time",
                          "see to the name servers of this host: the daemon waits for them too");
            if (in_time()) {
                silent_until = Clock::now() + kSilence;
            }
            return;
        }
    }
}

void JudgeReturn(const WantedForwarding::File& file, const Return& found, Findings& findings) {
    const std::string rule =
        found.rule == nullptr ? "" : ", by the rule in " + Describe(found.rule->place);
    const std::string writes = "the daemon writes this file itself" + rule;
    const char* const advice =
        "forward what the daemon gets by a rule of its own, or stop local1 to local7 before that "
        "rule";
    if (found.kind == Return::kLoops) {
        findings.Fail(file.place.key,
                      writes +
                          ", which takes what is forwarded: every line comes around again, "
                          "longer each time, until the disk is full",
                      advice);
    } else if (found.kind == Return::kPerhaps) {
        findings.Warn(file.place.key, writes + ": lines may come around again, without end",
                      advice);
    } else if (found.kind == Return::kCopied) {
        findings.Warn(file.place.key,
                      writes +
                          ": each of its lines enters the daemon a second time, and goes "
                          "where its rules put local1 to local7",
                      "forward what the daemon gets by a rule of its own");
    }
}

std::set<std::string> WrittenFiles(const SyslogDaemon& daemon) {
    std::set<std::string> files;
    for (const int process : daemon.processes) {
        files.merge(FilesWrittenBy(process));
    }
    return files;
}

// Forwarded lines enter rsyslog's own rules.
void JudgeReturns(const WantedForwarding& wanted, const RsyslogRules& rules,
                  const SyslogDaemon& daemon, Findings& findings) {
    std::vector<std::string> paths;
    for (const auto& file : wanted.files) {
        paths.push_back(file.path);
    }
    const std::vector<Return> returns = FindReturns(rules, paths, WrittenFiles(daemon));
    for (std::size_t i = 0; i < returns.size(); ++i) {
        JudgeReturn(wanted.files[i], returns[i], findings);
        if (i + 1 < rules.stopped_before.size() && rules.stopped_before[i + 1].line > 0) {
            findings.Warn(wanted.files[i].place.key,
                          Describe(rules.stopped_before[i + 1]) + " ends local" +
                              std::to_string(i + 1) +
                              ", as which the file is forwarded, before it is sent",
                          "nothing is forwarded until that stands in a file behind " +
                              std::string(kRsyslogIncludeFile));
        }
    }
    for (const ConfPlace& place : rules.imfile_loads) {
        findings.Warn(kFiles,
                      Describe(place) +
                          " loads imfile too: the daemon says so at each start, and "
                          "only the first one's parameters count",
                      "leave it so, unless you need those of both");
    }
}

// They enter syslog-ng's log statements only where those take every source.
void JudgeCatchAll(const WantedForwarding& wanted, const SyslogDaemon& daemon, Findings& findings) {
    if (!HasCatchAll(kSyslogngConf.path)) {
        return;
    }
    const std::set<std::string> open = WrittenFiles(daemon);
    for (const auto& file : wanted.files) {
        if (open.count(CanonicalPath(file.path)) != 0) {
            findings.Warn(file.place.key,
                          "the daemon writes this file itself, and has a log statement with the "
                          "flag catchall: lines may come around again, without end",
                          "leave the file out, or take that flag away");
        }
    }
}

}  // namespace

void JudgeHost(const Json::Value& document, const SyslogDaemon& daemon, Findings& findings) {
    const WantedForwarding wanted = GetForwarding(document);
    if (wanted.files.empty()) {
        return;
    }
    if (daemon.process == 0) {
        findings.Fail(kFiles, "neither rsyslog nor syslog-ng runs: nothing is forwarded",
                      "start one of them");
    } else if (daemon.kind == DaemonKind::kRsyslog) {
        const RsyslogRules rules = RsyslogRules::Read(kRsyslogConf);
        JudgeRsyslog(rules, findings);
        JudgeReturns(wanted, rules, daemon, findings);
    } else {
        JudgeSyslogng(findings);
        JudgeCatchAll(wanted, daemon, findings);
    }
    JudgeFiles(wanted.files, daemon.kind, findings);
    JudgeNames(wanted.servers, findings);
}

}  // namespace Engine
