#include "module/module_rsyslog/src/RsyslogTask.h"

#include <json/writer.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <iterator>
#include <memory>
#include <utility>

#include "framework/Engine.h"
#include "framework/Message.h"
#include "module/module_procs/src/ProcsFullTask.h"
#include "module/module_rsyslog/src/ForwardingHealth.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogThrottle.h"
#include "module/module_rsyslog/src/RsyslogWait.h"
#include "module/module_rsyslog/src/SyslogDaemon.h"
#include "module/module_rsyslog/src/WorkRecord.h"
#include "sdk/BoundedString.h"
#include "sdk/JsonUtils.h"
#include "sdk/StringUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kQueueCapacity = 1024;
constexpr std::int32_t kFullPassCycles = 50;
constexpr int kIncludePathSize = 1024;
constexpr std::size_t kAlarmTextSize = 1024;
constexpr std::int64_t kAlarmPauseSeconds = 14400;
constexpr std::size_t kLongestKeyText = 256;
constexpr std::size_t kFewAlarms = 64;

const char* const kReportTask = "data_comm_report_task";
const char* const kAlarmType = "rsyslog_3";
const std::string kAlarmKeyStart = "user:";

enum AlarmCode { kNoDaemon = 1, kNoIncludeDirectory = 2 };

// The history alarm ends in the newline that this writer adds; its receivers rely on that.
std::string WriteLine(const Json::Value& value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::FastWriter writer;
#pragma GCC diagnostic pop
    return writer.write(value);
}

}  // namespace

RsyslogTask::RsyslogTask()
    : Framework::Task("rsyslog_task", "rsyslog_feature", Framework::TaskCondition::kPeriodic,
                      kQueueCapacity) {}

int RsyslogTask::Init() {
    RSYSLOG_LOG(PRIO_INFORMATION, "rsyslog task Init");
    const Framework::FeaturePolicy* attached = AttachedPolicy();
    if (attached == nullptr) {
        RSYSLOG_LOG(PRIO_ERROR, "get feature policy failed");
        return 0;
    }
    const auto* policy = dynamic_cast<const RsyslogPolicy*>(attached);
    if (policy == nullptr) {
        RSYSLOG_LOG(PRIO_ERROR, "get policy failed");
        return 0;
    }
    rsyslog_policy = policy->Settings();
    WorkRecord::Instance().Begin({{kForwarding, !rsyslog_policy.log_path.empty()},
                                  {kHistory, rsyslog_policy.get_history},
                                  {kLogins, rsyslog_policy.get_lastlog}});
    return Framework::Task::Init();
}

int RsyslogTask::Run() {
    RSYSLOG_LOG(PRIO_TRACE, "rsyslog task Start");
    RunSyslogConf();
    return 0;
}

void RsyslogTask::UnInit() {
    RSYSLOG_LOG(PRIO_DEBUG, "UnInit  rsyslog task");
    ForwardingHealth::Instance().Forget();
    WorkRecord::Instance().Begin({});
    Framework::Task::UnInit();
}

void RsyslogTask::RunSyslogConf() {
    if (rsyslog_policy.get_history) {
        history_whole = true;
        // Each for itself: the second frees the memory that the first one may lack.
        for (const auto step : {&RsyslogTask::BuildHistoryLog, &RsyslogTask::CheckHistoryReport}) {
            try {
                (this->*step)();
            } catch (const std::exception& e) {
                RSYSLOG_LOG(PRIO_ERROR, "shell history cut short: %s", std::string(e.what()));
                CutHistory();
            }
        }
        if (history_whole && state() != TASK_CANCELLING) {
            WorkRecord::Instance().Succeeded(kHistory);
        }
    }
    const bool light = cycle_count >= 1 && cycle_count < kFullPassCycles;
    if (light || state() == TASK_CANCELLING) {
        ++cycle_count;
    } else {
        cycle_count = 1;
        MaintainForwarding();
        if (ForwardingHealth::Instance().Forwards()) {
            WorkRecord::Instance().Succeeded(kForwarding);
        }
    }
    if (rsyslog_policy.get_lastlog && cycle_count % 2 == 0) {
        BuildLastInfo();
    }
}

void RsyslogTask::MaintainForwarding() {
    CheckSyslogRunning();
    ForwardingHealth::Instance().Saw(
        ChosenDaemon(), !rsyslog_policy.log_path.empty() && !rsyslog_policy.server.empty());
    if (ChosenDaemon() == DaemonKind::kNone) {
        SendDaemonAlarm(kNoDaemon);
        return;
    }
    rsyslog_policy.need_rewrite = false;
    rsyslog_policy.need_rewrite = CheckSyslogNeedRewrite();
    if (!rsyslog_policy.need_rewrite) {
        return;
    }
    char include_dir[kIncludePathSize] = {};
    if (rsyslog_policy.is_rsyslog && !GetIncludeConfigPath(include_dir, kIncludePathSize)) {
        SendDaemonAlarm(kNoIncludeDirectory);
        return;
    }
    // Before anything is written: what a stop prevents is prevented as a whole.
    if (!AwaitRestartTurn([this] { return isCancelled(); })) {
        return;
    }
    rsyslog_policy.is_rsyslog ? RsyslogConfRewrite(include_dir) : SyslogServiceManage();
    ConfirmForwarding();
}

void RsyslogTask::SendDaemonAlarm(int code) {
    if (!SendRsyslogAlarm(code)) {
        RSYSLOG_LOG(PRIO_ERROR, "Failed to send syslog alarm.");
    }
}

void RsyslogTask::CheckSyslogRunning() {
    Poco::AutoPtr<Framework::Task> task = Framework::Engine::Instance().FindTask("procs_full_task");
    if (!task) {
        RSYSLOG_LOG(PRIO_ERROR, "Get full proc failed");
        return;
    }
    // The name is the promise of the class; a checked cast would need the other module's library.
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> processes;
    static_cast<ProcsFullTask*>(task.get())->GetProcsMap(processes);
    if (processes.empty()) {
        RSYSLOG_LOG(PRIO_ERROR, "proc map is empty");
        return;
    }
    for (const auto& [pid, process] : processes) {
        RSYSLOG_THROTTLE();
        const DaemonKind kind = KindOf(process->name);
        if (kind == DaemonKind::kRsyslog) {
            RSYSLOG_LOG(PRIO_TRACE, "find rsyslog pid %s.", std::to_string(pid));
            rsyslog_policy.is_rsyslog = true;
            return;  // is_syslogng keeps what an earlier pass found
        }
        rsyslog_policy.is_rsyslog = false;
        if (kind == DaemonKind::kSyslogng) {
            RSYSLOG_LOG(PRIO_TRACE, "find syslog-ng pid %s.", std::to_string(pid));
            rsyslog_policy.is_syslogng = true;
            return;
        }
        rsyslog_policy.is_syslogng = false;
    }
}

DaemonKind RsyslogTask::ChosenDaemon() const {
    if (rsyslog_policy.is_rsyslog) {
        return DaemonKind::kRsyslog;
    }
    return rsyslog_policy.is_syslogng ? DaemonKind::kSyslogng : DaemonKind::kNone;
}

bool RsyslogTask::SendRsyslogAlarm(int code) {
    Json::Value alarm;
    char text[kAlarmTextSize] = {};
    int length = 0;
    switch (code) {
        case kNoDaemon:
            length = SDK::snprintf_s(text, sizeof(text), sizeof(text) - 1, "%s",
                                     "rsyslog or syslog-ng status is not running.");
            break;
        case kNoIncludeDirectory:
            length = SDK::snprintf_s(text, sizeof(text), sizeof(text) - 1, "%s",
                                     "rsyslog IncludeConfig is not exist.");
            break;
        default:
            return false;
    }
    if (length == -1) {
        RSYSLOG_LOG(PRIO_ERROR, "snprintf failed");
        return false;
    }
    alarm["message"] = text;
    std::string message = SDK::JsonUtils::JsonToString(alarm);
    RSYSLOG_LOG(PRIO_TRACE, "syslog alarm message is [%s]", message);
    SendDirectMsg(kReportTask,
                  std::make_shared<Framework::DataMessage>(kAlarmType, std::move(message)));
    return true;
}

void RsyslogTask::SendRsyslogAlarm(const user_info& user, const std::string& path,
                                   const std::string& hist_conf,
                                   std::map<std::string, std::int64_t>::iterator& found,
                                   std::int64_t now) {
    // Users write up to 10 MiB, and each entry stays for hours: a long text stands as its digest.
    const std::string digest =
        hist_conf.size() > kLongestKeyText ? SDK::StringUtils::Sha256(hist_conf) : "";
    const std::string key = kAlarmKeyStart + user.name + " path:" + path + " hist_conf:[" +
                            (digest.empty() ? hist_conf : digest) + "]";
    found = alarm_time_map.find(key);
    // A stored time in the future, the clock having been set back, counts as just now.
    if (found != alarm_time_map.end() && now - std::min(found->second, now) <= kAlarmPauseSeconds) {
        return;
    }
    Json::Value alarm(Json::objectValue);
    alarm["type"] = "hist_conf";
    alarm["user"] = SDK::StringUtils::ToUtf8(user.name);
    alarm["path"] = SDK::StringUtils::ToUtf8(path);
    alarm["content"] = SDK::StringUtils::ToUtf8(hist_conf);
    std::string message = WriteLine(alarm);
    RSYSLOG_LOG(PRIO_TRACE, "syslog alarm message is [%s]", message);
    SendDirectMsg(kReportTask,
                  std::make_shared<Framework::DataMessage>(kAlarmType, std::move(message)));
    alarm_time_map[key] = now;
    ForgetOldAlarms(key, now);
}

void RsyslogTask::ForgetOldAlarms(const std::string& latest, std::int64_t now) {
    // Seldom enough to cost each alarm little.
    if (alarm_time_map.size() < forget_alarms_at) {
        return;
    }
    for (auto entry = alarm_time_map.begin(); entry != alarm_time_map.end();) {
        const bool old = boost::starts_with(entry->first, kAlarmKeyStart) &&
                         entry->first != latest && now - kAlarmPauseSeconds > entry->second;
        entry = old ? alarm_time_map.erase(entry) : std::next(entry);
    }
    forget_alarms_at = 2 * alarm_time_map.size() + kFewAlarms;
}

}  // namespace Engine
