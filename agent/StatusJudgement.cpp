#include "agent/StatusJudgement.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeParser.h>

#include <cstdlib>

#include "sdk/JsonUtils.h"

namespace {

using Seconds = Poco::Timestamp::TimeDiff;
using SDK::JsonUtils::GetArrayValue;
using SDK::JsonUtils::GetBoolValue;
using SDK::JsonUtils::GetIntValue;
using SDK::JsonUtils::GetStringValue;

constexpr Seconds kMaxAge = 30;
constexpr Seconds kMaxDelay = 60;  // besides a period
constexpr Seconds kMaxCycle = 600;

Json::Value Entries(const Json::Value& status, const char* key) {
    Json::Value entries(Json::arrayValue);
    GetArrayValue(status, key, entries);
    return entries;
}

Seconds Between(const Poco::Timestamp& from, const Poco::Timestamp& to) {
    return (to - from) / Poco::Timestamp::resolution();
}

void JudgeTask(const Json::Value& task, const Poco::Timestamp& written,
               std::vector<std::string>& reasons) {
    const std::string name = "task " + GetStringValue(task, "name", "") + ": ";
    const Poco::Timestamp due = GetTime(task, "due");
    if (GetBoolValue(task, "running", false)) {
        const Seconds lasted = Between(GetTime(task, "began"), written);
        if (lasted > kMaxCycle) {
            reasons.push_back(name + "its cycle has been running for " + DescribeSeconds(lasted));
        }
    } else if (due != 0) {
        const Seconds late = Between(due, written);
        if (late > kMaxDelay + GetIntValue(task, "period_s", 0)) {
            reasons.push_back(name + "its next cycle is overdue by " + DescribeSeconds(late));
        }
    }
}

}  // namespace

const char* StatusJudgement::Name() const {
    return state == kHealthy ? "healthy" : state == kWrong ? "wrong" : "not running";
}

StatusJudgement JudgeStatus(const Json::Value& status, const Poco::Timestamp& now, bool alive) {
    const Poco::Timestamp written = GetTime(status, "written");
    const Seconds age = Between(written, now);
    if (!alive) {
        return {StatusJudgement::kNotRunning,
                {"process " + std::to_string(GetIntValue(status, "pid", 0)) +
                 " ended without a stop, its status file is " + DescribeSeconds(age) + " old"}};
    }
    StatusJudgement judgement;
    std::vector<std::string>& reasons = judgement.reasons;
    if (std::abs(age) > kMaxAge) {
        reasons.push_back("the status file, to be written every few seconds, is " +
                          DescribeSeconds(age) + " old");
    }
    for (const Json::Value& condition : Entries(status, "conditions")) {
        if (!GetBoolValue(condition, "good", false)) {
            reasons.push_back(GetStringValue(condition, "subject", "") + ": " +
                              GetStringValue(condition, "text", ""));
        }
    }
    for (const Json::Value& refused : Entries(status, "refused")) {
        reasons.push_back("policy " + GetStringValue(refused, "key", "") +
                          " refused: " + GetStringValue(refused, "why", ""));
    }
    for (const Json::Value& task : Entries(status, "tasks")) {
        JudgeTask(task, written, reasons);
    }
    Json::Value reports;
    SDK::JsonUtils::GetSubobjectValue(status, "reports", reports);
    if (GetBoolValue(reports, "failing", false)) {
        reasons.emplace_back("the report file cannot be written");
    }
    judgement.state = reasons.empty() ? StatusJudgement::kHealthy : StatusJudgement::kWrong;
    return judgement;
}

Poco::Timestamp GetTime(const Json::Value& value, const std::string& key) {
    Poco::DateTime time;
    int zone = 0;
    return Poco::DateTimeParser::tryParse("%Y-%m-%dT%H:%M:%s%z", GetStringValue(value, key, ""),
                                          time, zone)
               ? time.timestamp()
               : Poco::Timestamp(0);
}

std::string DescribeSeconds(Seconds seconds) {
    constexpr Seconds kMinute = 60;
    constexpr Seconds kHour = 60 * kMinute;
    constexpr Seconds kDay = 24 * kHour;
    if (seconds < 2 * kMinute) {
        return std::to_string(seconds) + " s";
    }
    if (seconds < 2 * kHour) {
        return std::to_string(seconds / kMinute) + " min";
    }
    return seconds < 2 * kDay ? std::to_string(seconds / kHour) + " h"
                              : std::to_string(seconds / kDay) + " d";
}
