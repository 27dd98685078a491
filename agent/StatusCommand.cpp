#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>
#include <Poco/Timestamp.h>
#include <sysexits.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "agent/Commands.h"
#include "agent/Settings.h"
#include "agent/StartError.h"
#include "agent/StatusFile.h"
#include "agent/StatusJudgement.h"
#include "framework/Finding.h"
#include "sdk/JsonUtils.h"
#include "sdk/StringUtils.h"

namespace {

using SDK::JsonUtils::GetBoolValue;
using SDK::JsonUtils::GetIntValue;
using SDK::JsonUtils::GetStringValue;

// A whole number of any size.
std::string Number(const Json::Value& value, const char* key) {
    return value[key].isIntegral() ? value[key].asString() : "0";
}

// Writes a line, the label in a column of its own.
void Print(std::ostream& out, const std::string& label, const std::string& text) {
    out << std::left << std::setw(12) << label << SDK::StringUtils::ToPrintable(text) << '\n';
}

// Prints the lines under one label.
void Print(std::ostream& out, const std::string& label, const std::vector<std::string>& lines) {
    for (std::size_t i = 0; i < lines.size(); ++i) {
        Print(out, i == 0 ? label : "", lines[i]);
    }
}

std::vector<Json::Value> Entries(const Json::Value& value, const char* key) {
    Json::Value entries(Json::arrayValue);
    SDK::JsonUtils::GetArrayValue(value, key, entries);
    return {entries.begin(), entries.end()};
}

// "3 min ago" or "in 7 s".
std::string FromNow(const Poco::Timestamp& time, const Poco::Timestamp& now = {}) {
    const auto seconds = (now - time) / Poco::Timestamp::resolution();
    return time <= now ? DescribeSeconds(seconds) + " ago" : "in " + DescribeSeconds(-seconds);
}

std::string Since(const Json::Value& value) {
    const Poco::Timestamp time = GetTime(value, "since");
    return "since " +
           Poco::DateTimeFormatter::format(Poco::LocalDateTime(time), "%Y-%m-%d %H:%M:%S") + ", " +
           FromNow(time);
}

// ", id web-servers", or nothing.
std::string Named(const Json::Value& policy, const std::string& key) {
    const std::string text = GetStringValue(policy, key, "");
    return text.empty() ? "" : ", " + key + " " + text;
}

std::vector<std::string> Policies(const Json::Value& status) {
    std::vector<std::string> lines;
    for (const Json::Value& policy : Entries(status, "policies")) {
        lines.push_back(
            GetStringValue(policy, "key", "") + ": " + GetStringValue(policy, "name", "") + " of " +
            GetStringValue(policy, "module", "") + Named(policy, "id") + Named(policy, "hash") +
            (GetBoolValue(policy, "enabled", false) ? ", " : ", switched off, ") + Since(policy));
        for (const Json::Value& finding : Entries(policy, "findings")) {
            lines.push_back("  " + GetStringValue(finding, "severity", "") + ": " +
                            Framework::Describe({{},
                                                 GetStringValue(finding, "key", ""),
                                                 GetStringValue(finding, "problem", ""),
                                                 GetStringValue(finding, "advice", "")}));
        }
    }
    return lines.empty() ? std::vector<std::string>{"none"} : lines;
}

// As of the moment when the file was written, so that it is one picture.
std::string Cycles(const Json::Value& task, const Poco::Timestamp& written) {
    if (GetIntValue(task, "period_s", 0) == 0) {
        return "works when asked";
    }
    std::string text = "every " + Number(task, "period_s") + " s";
    const Poco::Timestamp began = GetTime(task, "began");
    if (began != 0) {
        text += GetBoolValue(task, "running", false)
                    ? ", in a cycle that began " + FromNow(began, written)
                    : ", last cycle " + FromNow(began, written) + " for " +
                          Number(task, "lasted_ms") + " ms, next " +
                          FromNow(GetTime(task, "due"), written);
    }
    return text;
}

std::vector<std::string> Tasks(const Json::Value& status) {
    std::vector<std::string> lines;
    std::size_t width = 0;
    for (const Json::Value& task : Entries(status, "tasks")) {
        width = std::max(width, GetStringValue(task, "name", "").size());
    }
    for (const Json::Value& task : Entries(status, "tasks")) {
        std::string name = GetStringValue(task, "name", "");
        name.resize(width, ' ');
        const std::string waiting = Number(task, "waiting_messages");
        lines.push_back(name + "  " + Cycles(task, GetTime(status, "written")) +
                        (waiting == "0" ? "" : ", " + waiting + " messages wait"));
    }
    return lines.empty() ? std::vector<std::string>{"none"} : lines;
}

std::string Reports(const Json::Value& reports) {
    std::string text = Number(reports, "lines") + " written";
    std::string before = ": ";
    for (const std::string& type : reports["by_type"].getMemberNames()) {
        text += before + Number(reports["by_type"], type.c_str()) + " " + type;
        before = ", ";
    }
    const std::string waiting = Number(reports, "waiting_messages");
    return text + (waiting == "0"
                       ? "; none waits"
                       : "; " + waiting + " wait, " + Number(reports, "waiting_bytes") + " bytes");
}

void PrintStatus(std::ostream& out, const Json::Value& status) {
    Print(out, "process",
          Number(status, "pid") + ", watchpost " + GetStringValue(status, "version", "") + ", " +
              Since(status));
    Print(out, "policies", Policies(status));
    Print(out, "tasks", Tasks(status));
    Json::Value reports(Json::objectValue);
    SDK::JsonUtils::GetSubobjectValue(status, "reports", reports);
    Print(out, "reports", Reports(reports));
    std::vector<std::string> conditions;
    for (const Json::Value& condition : Entries(status, "conditions")) {
        conditions.push_back((GetBoolValue(condition, "good", false) ? "good  " : "BAD   ") +
                             GetStringValue(condition, "subject", "") + ": " +
                             GetStringValue(condition, "text", ""));
    }
    Print(out, "conditions", conditions);
    Json::Value error;
    if (SDK::JsonUtils::GetSubobjectValue(status, "last_error", error)) {
        Print(out, "last error",
              FromNow(GetTime(error, "time")) + ": " + GetStringValue(error, "text", ""));
    }
}

StatusJudgement Judge(const std::string& path, const Json::Value& status) {
    return status.empty()
               ? StatusJudgement{StatusJudgement::kNotRunning, {"there is no status file " + path}}
               : JudgeStatus(status, Poco::Timestamp(), IsAlive(status));
}

int PrintJson(std::ostream& out, const std::string& path, Json::Value status) {
    const StatusJudgement judgement = Judge(path, status);
    status["state"] = judgement.Name();
    status["reasons"] = Json::Value(Json::arrayValue);
    for (const std::string& reason : judgement.reasons) {
        status["reasons"].append(reason);
    }
    out << SDK::JsonUtils::JsonToString(status) << '\n';
    return judgement.state;
}

int PrintText(std::ostream& out, const std::string& path, const Json::Value& status) {
    const StatusJudgement judgement = Judge(path, status);
    Print(out, "state", judgement.Name());
    for (const std::string& reason : judgement.reasons) {
        Print(out, "", "- " + reason);
    }
    if (judgement.state != StatusJudgement::kNotRunning) {
        PrintStatus(out, status);
    }
    return judgement.state;
}

}  // namespace

int Commands::Status(Watchpost& /*engine*/, const Settings& settings,
                     const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        throw StartError{EX_USAGE, "unexpected argument " + arguments.front()};
    }
    const std::string path = settings.Get("status.file");
    const Json::Value status = ReadStatusFile(path);
    try {
        std::ostringstream text;
        const int state =
            settings.IsSet("json") ? PrintJson(text, path, status) : PrintText(text, path, status);
        std::cout << text.str();
        return state;
    } catch (const Json::Exception&) {
        throw StartError{kNoStatusFile, "status file " + path + " is none"};
    }
}
