#pragma once

#include <Poco/Timestamp.h>
#include <json/value.h>

#include <string>
#include <vector>

// What there is to say of a status file.
struct StatusJudgement {
    // The exit statuses of `watchpost status`.
    enum State { kHealthy = 0, kWrong = 1, kNotRunning = 3 };

    State state = kHealthy;
    std::vector<std::string> reasons;  // none when healthy

    // "healthy", "wrong" or "not running".
    const char* Name() const;
};

// Judges what stands in a status file. `alive`: whether the process that wrote it runs.
StatusJudgement JudgeStatus(const Json::Value& status, const Poco::Timestamp& now, bool alive);

// The time that a member tells; 0 when it tells none.
Poco::Timestamp GetTime(const Json::Value& value, const std::string& key);

// "45 s", "12 min", "3 h" or "4 d".
std::string DescribeSeconds(Poco::Timestamp::TimeDiff seconds);
