#pragma once

#include <json/value.h>

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "framework/Policy.h"

namespace Engine {

struct user_info;  // RsyslogTask.h, which whoever makes or copies settings must include

// One forwarded log file.
struct path_port {
    std::string port;                  // of its servers, decimal; not checked
    std::string path;                  // the file
    std::vector<std::string> servers;  // chosen by the task; empty after parsing
};

// Splits FILE:PORT at the last colon, for a path may hold some itself. False, with `out` unchanged,
// when there is none, or nothing before it.
bool SplitLogPath(const std::string& entry, path_port& out);

// A standalone task-policy document, {"task_condition": {...}}.
class RsyslogTaskPolicy : public Framework::TaskPolicy {
public:
    explicit RsyslogTaskPolicy(const std::string& name);

    // False, with an error line, without a condition or with one that the framework refuses.
    // Text that is not JSON gives true: callers rely on that.
    bool Parse(const std::string& text) override;
};

// The policy of the feature "rsyslog_feature": one document, parsed once into the settings and the
// child task policy "rsyslog_task". Policy thread only; the task copies the settings in its Init.
class RsyslogPolicy : public Framework::FeaturePolicy {
public:
    struct RSYSLOG_POLICY {
        std::int32_t check_period_s = 0;  // seconds
        std::int32_t history_size = 0;    // MiB; 0: no rotation of records, no history collected
        std::int32_t his_interval = 0;    // milliseconds
        std::int32_t his_count = 0;       // queued commands from which on reports are paced
        bool server_balance = false;      // one server for each file instead of all
        bool is_rsyslog = false;          // run time: rsyslog was found running
        bool is_syslogng = false;         // run time: syslog-ng was found running
        bool reserved_flag = false;
        bool get_history = false;
        bool need_rewrite = false;  // run time: the daemon's configuration must be written
        bool get_lastlog = false;
        bool up_lastlog = false;
        bool up_history = false;
        bool tchar_filter = false;  // drop commands that end in three tabs
        std::string server_type;    // "tcp" or "udp"
        std::string history_log_path;
        std::string last_login_log_path;
        std::list<path_port> log_path;
        std::list<std::string> server;
        std::list<user_info> user_list;  // run time
        std::list<std::string> white_list;
    };

    explicit RsyslogPolicy(const std::string& feature_name);
    ~RsyslogPolicy() override;

    // False for text that is not JSON and for a document without "content"; the fields read until
    // then are set. Bad elements of lists are skipped, bad scalars read as absent.
    bool Parse(const std::string& text) override;

    const RSYSLOG_POLICY& Settings() const { return settings_; }

private:
    // Each reads its keys of the "content" object and returns true.
    bool ParseServerInfo(const Json::Value& content);
    bool ParseLogInfo(const Json::Value& content);
    bool ParseHistoryInfo(const Json::Value& content);
    bool ParseLastInfo(const Json::Value& content);

    RSYSLOG_POLICY settings_;
};

}  // namespace Engine
