#pragma once

#include <Poco/AutoPtr.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "module/module_procs/src/ProcsFullTask.h"
#include "module/module_rsyslog/src/RsyslogPolicy.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "test/support/TestSupport.h"

namespace TestSupport {

// The task with its operations and state open to tests.
class OpenTask : public Engine::RsyslogTask {
public:
    using RsyslogTask::alarm_time_map;
    using RsyslogTask::BuildHistoryLog;
    using RsyslogTask::BuildLastInfo;
    using RsyslogTask::CheckHistoryProfile;
    using RsyslogTask::CheckHistoryReport;
    using RsyslogTask::CheckIpReachable;
    using RsyslogTask::CheckSyslogNeedRewrite;
    using RsyslogTask::CheckSyslogRunning;
    using RsyslogTask::CreatAndWriteRsyslogConf;
    using RsyslogTask::cycle_count;
    using RsyslogTask::DoConnect;
    using RsyslogTask::GenerateRsyslogConfContent;
    using RsyslogTask::GetIncludeConfigPath;
    using RsyslogTask::GetLocalIpList;
    using RsyslogTask::GetLocalTimeStr;
    using RsyslogTask::GetServiceBalanceCount;
    using RsyslogTask::GetSplittimeStr;
    using RsyslogTask::history_list;
    using RsyslogTask::HistoryBackupLog;
    using RsyslogTask::HistoryFindTimestamp;
    using RsyslogTask::HistoryFindWhiteCmd;
    using RsyslogTask::HistorySetLogPath;
    using RsyslogTask::HistoryTailLogs;
    using RsyslogTask::HistoryWriteLog;
    using RsyslogTask::LogtimeToInt;
    using RsyslogTask::OverWriteSyslogngConf;
    using RsyslogTask::OverWriteSyslogngReadAuditConf;
    using RsyslogTask::ParseEveryUtmp;
    using RsyslogTask::ParseHistoryLog;
    using RsyslogTask::ReadLastAllinfo;
    using RsyslogTask::rsyslog_conf_file;
    using RsyslogTask::rsyslog_policy;
    using RsyslogTask::RsyslogConfRewrite;
    using RsyslogTask::SendLastLogInfo;
    using RsyslogTask::SendRsyslogAlarm;
    using RsyslogTask::SyslogGetUserList;
    using RsyslogTask::SyslogServiceManage;
    using RsyslogTask::utmp_list;
    using RsyslogTask::utmp_mutex;
    using RsyslogTask::UtmpEndutent;
    using RsyslogTask::UtmpSetutent;
};

using OpenTaskPtr = Poco::AutoPtr<OpenTask>;

inline OpenTaskPtr NewTask() {
    return OpenTaskPtr(new OpenTask);
}

// A process that does nothing, under a name of the test's choice, while this lives.
class NamedProcess {
public:
    explicit NamedProcess(const std::string& name) {
        int ready[2] = {-1, -1};
        if (pipe(ready) != 0) {
            throw std::runtime_error("pipe");
        }
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, name.c_str());
            [[maybe_unused]] const ssize_t told = write(ready[1], "x", 1);
            for (;;) {
                pause();
            }
        }
        char byte = 0;
        [[maybe_unused]] const ssize_t heard = read(ready[0], &byte, 1);
        close(ready[0]);
        close(ready[1]);
    }
    ~NamedProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;

private:
    pid_t pid_ = -1;
};

// The real process table under its name, while this lives.
class RunningProcs {
public:
    RunningProcs() { TestEngine().StartTask(new Engine::ProcsFullTask); }
    ~RunningProcs() { TestEngine().StopTask("procs_full_task"); }
    RunningProcs(const RunningProcs&) = delete;
    RunningProcs& operator=(const RunningProcs&) = delete;
};

}  // namespace TestSupport
