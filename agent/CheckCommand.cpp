#include <sysexits.h>

#include <algorithm>
#include <cstring>
#include <iostream>

#include "agent/Commands.h"
#include "agent/Describe.h"
#include "agent/PolicyDirectory.h"
#include "agent/Settings.h"
#include "agent/Signals.h"
#include "agent/StartError.h"
#include "agent/Watchpost.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/StringUtils.h"

namespace {

using Framework::Finding;
using Framework::HostChange;
using Framework::Severity;

// Also exit statuses; the worst file's is that of the command.
enum Result { kClean, kWarnings, kErrors };
const char* const kResults[] = {"clean", "warnings", "errors"};

struct Report {
    std::string file;
    std::vector<Finding> findings;
    HostChange change;
    Result result = kClean;
};

bool Refused(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.refuses; });
}

// The daemon's own verdict is a finding like another.
void AddVerdicts(Report& report) {
    for (const auto& verdict : report.change.verdicts) {
        if (verdict.asked && !verdict.accepted) {
            report.findings.push_back({Severity::kError, "",
                                       verdict.command + " finds fault with the configuration",
                                       "see its words below", false});
        }
    }
}

Report CheckFile(Watchpost& engine, const std::string& file, bool host) {
    Report report;
    report.file = file;
    std::string text;
    const int error = SDK::FileUtils::ReadFile(file, text, PolicyDirectory::kMaxPolicySize);
    if (error != 0) {
        report.findings.push_back({Severity::kError, "",
                                   std::string("cannot be read: ") + std::strerror(error), "",
                                   false});
    } else {
        bool judged = false;
        for (auto& module : engine.Modules()) {
            judged |= module->JudgePolicy(Watchpost::kPolicyType, text, host, report.findings);
        }
        if (!judged) {
            throw StartError{EX_UNAVAILABLE, "no module takes policies"};
        }
        if (host && !Refused(report.findings)) {
            for (auto& module : engine.Modules()) {
                HostChange change = module->PreviewPolicy(Watchpost::kPolicyType, text);
                const auto append = [](auto& to, auto& from) {
                    to.insert(to.end(), from.begin(), from.end());
                };
                append(report.change.files, change.files);
                append(report.change.commands, change.commands);
                append(report.change.verdicts, change.verdicts);
            }
            AddVerdicts(report);
        }
    }
    for (const Finding& finding : report.findings) {
        report.result =
            std::max(report.result, finding.severity == Severity::kError ? kErrors : kWarnings);
    }
    return report;
}

Json::Value ToJson(const Report& report, bool host) {
    Json::Value value(Json::objectValue);
    value["file"] = report.file;
    value["result"] = kResults[report.result];
    value["findings"] = Json::Value(Json::arrayValue);
    for (const Finding& finding : report.findings) {
        value["findings"].append(Describe::ToJson(finding));
    }
    if (host) {
        value["preview"] = Describe::ToJson(report.change);
    }
    return value;
}

void Print(const Report& report, bool host) {
    std::cout << SDK::StringUtils::ToPrintable(report.file) << ": " << kResults[report.result]
              << '\n';
    for (const Finding& finding : report.findings) {
        std::cout << Describe::ToText(finding);
    }
    if (host && !Refused(report.findings)) {
        const std::string change = Describe::ToText(report.change, true);
        std::cout << (change.empty() ? "  would write nothing on this host\n" : change);
    }
}

}  // namespace

int Commands::Check(Watchpost& engine, const Settings& settings,
                    const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        throw StartError{EX_USAGE, "no file to check"};
    }
    const bool host = settings.IsSet("host");
    engine.LoadModules(engine.TrustedDirectory("module.dir"), host);
    if (host) {  // which has temporary files, and asks programs
        Signals::StopBy([] { Framework::Engine::Instance().RefuseTasks(); });
    }
    Result worst = kClean;
    Json::Value files(Json::arrayValue);
    for (const std::string& file : arguments) {
        const Report report = CheckFile(engine, file, host);
        if (engine.IsStopping()) {
            throw StartError{EX_TEMPFAIL, "stopped by a signal"};
        }
        worst = std::max(worst, report.result);
        if (settings.IsSet("json")) {
            files.append(ToJson(report, host));
        } else {
            Print(report, host);
        }
    }
    if (settings.IsSet("json")) {
        std::cout << SDK::JsonUtils::JsonToString(files) << '\n';
    }
    engine.StopModules();
    return worst;
}
