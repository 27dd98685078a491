#pragma once

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>
#include <utmp.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "module/module_rsyslog/src/RsyslogPolicy.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "test/support/TestSupport.h"

namespace TestSupport {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Strings = std::vector<std::string>;
using Reports = std::vector<std::pair<std::string, std::string>>;

// The task with its operations and state open to tests.
class OpenTask : public Engine::RsyslogTask {
    using Base = RsyslogTask;

public:
    using Base::alarm_time_map, Base::cycle_count, Base::history_list, Base::rsyslog_policy,
        Base::utmp_list, Base::utmp_mutex;
    using Base::BuildHistoryLog, Base::CheckHistoryProfile, Base::CheckHistoryReport,
        Base::HistoryBackupLog, Base::HistorySetLogPath, Base::HistoryTailLogs,
        Base::HistoryWriteLog, Base::ParseHistoryLog, Base::SyslogGetUserList;
    using Base::BuildLastInfo, Base::GetLocalTimeStr, Base::GetSplittimeStr, Base::LogtimeToInt,
        Base::ParseEveryUtmp, Base::ReadLastAllinfo;
    using Base::CheckSyslogNeedRewrite, Base::CheckSyslogRunning, Base::GenerateRsyslogConfContent,
        Base::GetIncludeConfigPath, Base::OverWriteSyslogngConf, Base::RsyslogConfRewrite,
        Base::OverWriteSyslogngReadAuditConf, Base::SendRsyslogAlarm, Base::SyslogServiceManage;
};

using OpenTaskPtr = Poco::AutoPtr<OpenTask>;

inline OpenTaskPtr NewTask() {
    TestEngine();
    return OpenTaskPtr(new OpenTask);
}

const char* const kCommandLog = "/tmp/commands.log";
const char* const kLoginLog = "/tmp/logins.log";

const char* const kLoginFile = "/var/log/wtmp";

// A task in light cycles that records and reports all there is, in logs begun anew.
inline OpenTaskPtr CollectingTask() {
    fs::remove(kCommandLog);
    fs::remove(kLoginLog);
    OpenTaskPtr task = NewTask();
    task->cycle_count = 1;
    auto& policy = task->rsyslog_policy;
    policy.get_history = policy.up_history = policy.get_lastlog = policy.up_lastlog = true;
    policy.tchar_filter = true;
    policy.history_size = 10;
    policy.his_count = policy.his_interval = 10000;
    policy.history_log_path = kCommandLog;
    policy.last_login_log_path = kLoginLog;
    return task;
}

inline Strings Split(const std::string& text, char end = '|') {
    std::istringstream rest(text);
    Strings pieces;
    for (std::string piece; std::getline(rest, piece, end);) {
        pieces.push_back(piece);
    }
    return pieces;
}

// The lines of a file, each from behind its first `skipped` bytes.
inline Strings LinesOf(const std::string& path, std::size_t skipped = 0) {
    Strings lines = Split(ReadText(path), '\n');
    for (std::string& line : lines) {
        line.erase(0, skipped);
    }
    return lines;
}

inline utmp LoginEntry(int type, const char* line, int time) {
    utmp entry = {};
    entry.ut_type = static_cast<short>(type);
    std::strncpy(entry.ut_line, line, sizeof(entry.ut_line) - 1);
    entry.ut_tv.tv_sec = time;
    return entry;
}

// Adds a record to the accounting file.
inline void Log(const utmp& entry) {
    std::ofstream(kLoginFile, std::ios::app | std::ios::binary)
        .write(reinterpret_cast<const char*>(&entry), sizeof(entry));
}

// Collects a task's lines without their levels, and stops it at the line of that number.
class StoppingCapture {
public:
    StoppingCapture(OpenTaskPtr task, std::size_t stop_after, int level = Poco::Message::PRIO_TRACE)
        : channel_(new Channel) {
        channel_->task = std::move(task);
        channel_->stop_after = stop_after;
        logger_.setLevel(level);
        logger_.setChannel(channel_);
    }
    ~StoppingCapture() { logger_.setChannel(nullptr); }
    const Strings& Lines() const { return channel_->lines; }

private:
    struct Channel : Poco::Channel {
        void log(const Poco::Message& message) override {
            lines.push_back(message.getText());
            if (lines.size() == stop_after) {
                task->RequestStop();
            }
        }
        OpenTaskPtr task;
        std::size_t stop_after = 0;
        Strings lines;
    };
    Poco::Logger& logger_ = Poco::Logger::get("module_rsyslog");
    Poco::AutoPtr<Channel> channel_;
};

inline void Shell(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error(command + " failed");
    }
}

}  // namespace TestSupport
