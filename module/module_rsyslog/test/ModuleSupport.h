#pragma once

#include <Poco/AutoPtr.h>

#include <csignal>

#include "module/module_rsyslog/src/RsyslogPolicy.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "test/support/TestSupport.h"

namespace TestSupport {

// The task with its operations and state open to tests.
class OpenTask : public Engine::RsyslogTask {
public:
    using RsyslogTask::alarm_time_map, RsyslogTask::cycle_count, RsyslogTask::history_list,
        RsyslogTask::rsyslog_conf_file, RsyslogTask::rsyslog_policy, RsyslogTask::utmp_list,
        RsyslogTask::utmp_mutex;
    using RsyslogTask::BuildHistoryLog, RsyslogTask::CheckHistoryProfile,
        RsyslogTask::CheckHistoryReport, RsyslogTask::HistoryBackupLog,
        RsyslogTask::HistoryFindTimestamp, RsyslogTask::HistoryFindWhiteCmd,
        RsyslogTask::HistorySetLogPath, RsyslogTask::HistoryTailLogs, RsyslogTask::HistoryWriteLog,
        RsyslogTask::ParseHistoryLog, RsyslogTask::SyslogGetUserList;
    using RsyslogTask::BuildLastInfo, RsyslogTask::GetLocalTimeStr, RsyslogTask::GetSplittimeStr,
        RsyslogTask::LogtimeToInt, RsyslogTask::ParseEveryUtmp, RsyslogTask::ReadLastAllinfo,
        RsyslogTask::SendLastLogInfo, RsyslogTask::UtmpEndutent, RsyslogTask::UtmpSetutent;
    using RsyslogTask::CheckSyslogNeedRewrite, RsyslogTask::CheckSyslogRunning,
        RsyslogTask::GenerateRsyslogConfContent, RsyslogTask::GetIncludeConfigPath,
        RsyslogTask::OverWriteSyslogngConf, RsyslogTask::OverWriteSyslogngReadAuditConf,
        RsyslogTask::RsyslogConfRewrite, RsyslogTask::SendRsyslogAlarm,
        RsyslogTask::SyslogServiceManage;
};

using OpenTaskPtr = Poco::AutoPtr<OpenTask>;

inline OpenTaskPtr NewTask() {
    return OpenTaskPtr(new OpenTask);
}

}  // namespace TestSupport
