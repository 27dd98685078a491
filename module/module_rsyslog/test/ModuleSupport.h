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
using Strings = std::vector<std::string>;
using Reports = std::vector<std::pair<std::string, std::string>>;

// The task with its operations and state open to tests.
class OpenTask : public Engine::RsyslogTask {
public:
    using RsyslogTask::alarm_time_map, RsyslogTask::cycle_count, RsyslogTask::history_list,
        RsyslogTask::rsyslog_conf_file, RsyslogTask::rsyslog_policy, RsyslogTask::utmp_list,
        RsyslogTask::utmp_mutex;
    using RsyslogTask::BuildHistoryLog, RsyslogTask::CheckHistoryProfile,
        RsyslogTask::CheckHistoryReport, RsyslogTask::HistoryBackupLog,
        RsyslogTask::HistorySetLogPath, RsyslogTask::HistoryTailLogs, RsyslogTask::HistoryWriteLog,
        RsyslogTask::ParseHistoryLog, RsyslogTask::SyslogGetUserList;
    using RsyslogTask::BuildLastInfo, RsyslogTask::GetLocalTimeStr, RsyslogTask::GetSplittimeStr,
        RsyslogTask::LogtimeToInt, RsyslogTask::ParseEveryUtmp, RsyslogTask::ReadLastAllinfo;
    using RsyslogTask::CheckSyslogNeedRewrite, RsyslogTask::CheckSyslogRunning,
        RsyslogTask::GenerateRsyslogConfContent, RsyslogTask::GetIncludeConfigPath,
        RsyslogTask::OverWriteSyslogngConf, RsyslogTask::OverWriteSyslogngReadAuditConf,
        RsyslogTask::RsyslogConfRewrite, RsyslogTask::SendRsyslogAlarm,
        RsyslogTask::SyslogServiceManage;
};

using OpenTaskPtr = Poco::AutoPtr<OpenTask>;

inline OpenTaskPtr NewTask() {
    TestEngine();
    return OpenTaskPtr(new OpenTask);
}

const char* const kCommandLog = "/tmp/commands.log";
const char* const kLoginLog = "/tmp/logins.log";

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

const char* const kLoginFile = "/var/log/wtmp";

inline utmp LoginEntry(int type, const char* line, int time) {
    utmp entry = {};
    entry.ut_type = static_cast<short>(type);
    std::strcpy(entry.ut_line, line);
    entry.ut_tv.tv_sec = time;
    return entry;
}

// Adds a record to the accounting file.
inline void Log(const utmp& entry) {
    std::ofstream(kLoginFile, std::ios::app | std::ios::binary)
        .write(reinterpret_cast<const char*>(&entry), sizeof(entry));
}

// Collects the task's lines as LogCapture does, but without their levels, and stops the task at the
// line of that number.
class StoppingCapture {
public:
    StoppingCapture(OpenTaskPtr task, std::size_t stop_after, int level = Poco::Message::PRIO_TRACE)
        : collector_(new Collector) {
        collector_->task = std::move(task);
        collector_->stop_after = stop_after;
        logger_.setLevel(level);
        logger_.setChannel(collector_);
    }
    ~StoppingCapture() { logger_.setChannel(nullptr); }
    const Strings& Lines() const { return collector_->lines; }

private:
    struct Collector : Poco::Channel {
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
    Poco::AutoPtr<Collector> collector_;
};

inline void Shell(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error(command + " failed");
    }
}

}  // namespace TestSupport
