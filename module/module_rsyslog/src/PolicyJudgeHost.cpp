#include <arpa/inet.h>
#include <glob.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>

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
constexpr int kIncludePathSize = 1024;

// In place of the key for what concerns all files.
const char* const kFiles = "content.log_path";

void JudgeRsyslog(Findings& findings) {
    char directory[kIncludePathSize] = {};
    struct stat status = {};
    switch (FindIncludeDirectory(directory, kIncludePathSize)) {
        case Include::kUnreadable:
            findings.Fail(kFiles,
                          std::string(kRsyslogConf) + " cannot be read (" + std::strerror(errno) +
                              "): nothing is forwarded",
                          "mend that");
            return;
        case Include::kFound:
            if (stat(directory, &status) != 0 || !S_ISDIR(status.st_mode)) {
                findings.Fail(kFiles,
                              std::string("the directory that ") + kRsyslogConf + " includes, " +
                                  directory + ", is missing: nothing is forwarded",
                              "make it");
            }
            return;
        default:
            findings.Fail(
                kFiles, std::string(kRsyslogConf) + " includes no directory: nothing is forwarded",
                "begin a line of it with $IncludeConfig /etc/rsyslog.d/*.conf");
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
    if (const std::size_t wildcard = file.path.find_first_of(wildcards);
        wildcard != std::string::npos) {
        // Patterns of directories may take a walk through the whole file system.
        if (wildcard > file.path.rfind('/') && !Matches(file.path)) {
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

void JudgeNames(const std::vector<Placed>& servers, Findings& findings) {
    const auto end = Clock::now() + kPatience;
    const auto stopping = [end] {
        return Clock::now() >= end || Framework::Engine::Instance().IsStopping();
    };
    for (const Placed& server : servers) {
        in_addr address = {};
        in6_addr address6 = {};
        std::string name = server.text;
        if (name.empty() || name.find_first_of(":[]") != std::string::npos ||
            inet_aton(name.c_str(), &address) != 0 ||
            inet_pton(AF_INET6, name.c_str(), &address6) == 1) {
            continue;
        }
        const Outcome outcome =
            stopping() ? Outcome::kStopped : LookUpHost(name, address, stopping);
        if (outcome == Outcome::kFailed) {
            findings.Warn(server.key, "the name " + name + " has no IPv4 address here",
                          "nothing arrives there until it has one");
        } else if (outcome == Outcome::kStopped) {
            findings.Warn(server.key, "the name " + name + " could not be looked up in time",
                          "see to the name servers of this host");
            return;
        }
    }
}

std::string Describe(const ConfPlace& place) {
    return place.file + ", line " + std::to_string(place.line) + " (" + place.text + ")";
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

// Forwarded lines enter rsyslog's own rules; syslog-ng's only where they take every source.
void JudgeReturns(const WantedForwarding& wanted, const SyslogDaemon& daemon, Findings& findings) {
    RsyslogRules rules;
    std::set<std::string> open = FilesWrittenBy(daemon.process);
    if (daemon.kind == DaemonKind::kRsyslog) {
        rules = RsyslogRules::Read(kRsyslogConf);
    } else if (!HasCatchAll(kSyslogngConf.path)) {
        open.clear();
    }
    std::vector<std::string> paths;
    for (const auto& file : wanted.files) {
        paths.push_back(file.path);
    }
    const std::vector<Return> returns = FindReturns(rules, paths, open);
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
                      "nothing, unless you need those of both");
    }
}

}  // namespace

void JudgeHost(const Json::Value& document, const SyslogDaemon& daemon, Findings& findings) {
    const WantedForwarding wanted = GetForwarding(document);
    if (wanted.files.empty()) {
        return;
    }
    if (daemon.kind == DaemonKind::kNone) {
        findings.Fail(kFiles, "neither rsyslog nor syslog-ng runs: nothing is forwarded",
                      "start one of them");
    } else if (daemon.kind == DaemonKind::kRsyslog) {
        JudgeRsyslog(findings);
    } else {
        JudgeSyslogng(findings);
    }
    for (const auto& file : wanted.files) {
        JudgeFile(file, daemon.kind, findings);
    }
    if (daemon.kind != DaemonKind::kNone) {
        JudgeReturns(wanted, daemon, findings);
    }
    JudgeNames(wanted.servers, findings);
}

}  // namespace Engine
