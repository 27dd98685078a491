// The task's life, its cycle, daemon detection and alarms.

#include <gtest/gtest.h>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using TestSupport::LogCapture;
using TestSupport::NamedProcess;
using TestSupport::NewTask;
using TestSupport::OpenTaskPtr;
using TestSupport::RunningProcs;
using TestSupport::RunningReceiver;
using Reports = std::vector<std::pair<std::string, std::string>>;

const std::pair<std::string, std::string> kNoDaemon = {
    "rsyslog_3", R"({"message":"rsyslog or syslog-ng status is not running."})"};
const std::pair<std::string, std::string> kNoInclude = {
    "rsyslog_3", R"({"message":"rsyslog IncludeConfig is not exist."})"};

class OtherPolicy : public Framework::FeaturePolicy {
public:
    using FeaturePolicy::FeaturePolicy;
    bool Parse(const std::string& /*text*/) override { return true; }
};

TEST(Task, InitTakesTheSettingsOfItsPolicyOnly) {
    const LogCapture log("module_rsyslog");
    const Framework::TaskPolicy period("rsyslog_task");
    OpenTaskPtr task = NewTask();
    EXPECT_EQ(0, task->Init());
    EXPECT_EQ(1, log.Count("3 get feature policy failed"));

    OtherPolicy other("rsyslog_feature");
    task->Attach(&other, period);
    EXPECT_EQ(0, task->Init());
    EXPECT_EQ(1, log.Count("3 get policy failed"));

    Engine::RsyslogPolicy policy("rsyslog_feature");
    policy.Parse(R"({"content":{"server":["a"],"server_type":"udp","log_path":["/x:1"]}})");
    task->Attach(&policy, period);
    task->rsyslog_policy.server = {"left", "over"};
    task->rsyslog_policy.is_rsyslog = true;
    EXPECT_NE(0, task->Init());
    EXPECT_EQ(std::list<std::string>{"a"}, task->rsyslog_policy.server);
    EXPECT_EQ("udp", task->rsyslog_policy.server_type);
    EXPECT_EQ("/x", task->rsyslog_policy.log_path.front().path);
    EXPECT_FALSE(task->rsyslog_policy.is_rsyslog);
    EXPECT_TRUE(task->rsyslog_policy.need_rewrite);
    task->UnInit();
    EXPECT_EQ(1, log.Count("7 UnInit  rsyslog task"));
}

// A full pass shows in its alarm: no daemon runs here.
TEST(Cycle, FullPassFirstAndEvery50th) {
    const RunningProcs procs;
    RunningReceiver reports;
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = NewTask();
    for (int run = 1; run <= 101; ++run) {
        EXPECT_EQ(0, task->Run());
        EXPECT_EQ((run - 1) % 50 + 1, task->cycle_count) << run;
        EXPECT_EQ((run - 1) / 50 + 1, log.Holding("8 syslog alarm message is")) << run;
    }
    EXPECT_EQ(101, log.Count("8 rsyslog task Start"));
    EXPECT_EQ((Reports{kNoDaemon, kNoDaemon, kNoDaemon}), reports.Finish());
}

TEST(Cycle, AStoppingTaskDoesNoFullPass) {
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = NewTask();
    task->cycle_count = 50;
    task->RequestStop();
    task->Run();
    task->Run();
    EXPECT_EQ(52, task->cycle_count);
    EXPECT_EQ(0, log.Errors());
}

TEST(Detection, FirstDaemonByProcessIdDecides) {
    struct Case {
        std::vector<std::string> names;
        bool is_rsyslog;
        bool is_syslogng;
    };
    const RunningProcs procs;
    for (const Case& c :
         {Case{{}, false, false}, Case{{"cron"}, false, false}, Case{{"rsyslogd"}, true, false},
          Case{{"syslog-ng"}, false, true}, Case{{"syslog-ng", "rsyslogd"}, false, true},
          Case{{"rsyslogd", "syslog-ng"}, true, false}, Case{{"my-rsyslog-run"}, true, false}}) {
        SCOPED_TRACE(c.names.empty() ? "none" : c.names.front());
        std::list<NamedProcess> processes;
        for (const auto& name : c.names) {
            processes.emplace_back(name);
        }
        OpenTaskPtr task = NewTask();
        task->rsyslog_policy.is_rsyslog = !c.is_rsyslog;
        task->rsyslog_policy.is_syslogng = !c.is_syslogng;
        task->CheckSyslogRunning();
        EXPECT_EQ(c.is_rsyslog, task->rsyslog_policy.is_rsyslog);
        EXPECT_EQ(c.is_syslogng, task->rsyslog_policy.is_syslogng);
    }
}

// Tables that a test cannot bring about with real processes.
class FixedProcs : public Engine::ProcsFullTask {
public:
    using Table = std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>>;
    explicit FixedProcs(const std::vector<std::string>& names) : names_(names) {}
    void GetProcsMap(Table& processes) override {
        processes.clear();
        for (const auto& name : names_) {
            const int pid = static_cast<int>(processes.size()) + 1;
            processes[pid] = std::make_shared<Engine::ProcsMessage::procInfo>();
            processes[pid]->name = name;
        }
    }

private:
    std::vector<std::string> names_;
};

TEST(Detection, FlagsThatAPassLeavesAlone) {
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = NewTask();
    const auto check = [&task](const std::vector<std::string>& names) {
        TestSupport::TestEngine().StartTask(new FixedProcs(names));
        task->rsyslog_policy.is_rsyslog = false;
        task->rsyslog_policy.is_syslogng = true;
        task->CheckSyslogRunning();
        TestSupport::TestEngine().StopTask("procs_full_task");
    };
    check({"rsyslogd", "init"});  // the very first process: syslog-ng's flag is not looked at
    EXPECT_TRUE(task->rsyslog_policy.is_rsyslog && task->rsyslog_policy.is_syslogng);
    EXPECT_EQ(1, log.Count("8 find rsyslog pid 1."));
    check({"init", "rsyslogd"});
    EXPECT_TRUE(task->rsyslog_policy.is_rsyslog);
    EXPECT_FALSE(task->rsyslog_policy.is_syslogng);
    check({});
    EXPECT_TRUE(task->rsyslog_policy.is_syslogng);
    EXPECT_EQ(1, log.Count("3 proc map is empty"));
    task->CheckSyslogRunning();
    EXPECT_TRUE(task->rsyslog_policy.is_syslogng);
    EXPECT_EQ(1, log.Count("3 Get full proc failed"));
}

TEST(Cycle, WhatAFullPassDoes) {
    struct Case {
        std::vector<std::string> daemons;
        std::string rsyslog_conf;
        bool written;
        Reports reports;
    };
    const std::string include = "$IncludeConfig /etc/rsyslog.d/*.conf\n";
    const RunningProcs procs;
    for (const Case& c :
         {Case{{}, include, false, {kNoDaemon}}, Case{{"rsyslogd"}, include, true, {}},
          Case{{"rsyslogd", "syslog-ng"}, include, true, {}},
          Case{{"rsyslogd"}, "# nothing\n", false, {kNoInclude}}}) {
        SCOPED_TRACE(c.rsyslog_conf + std::to_string(c.daemons.size()));
        std::list<NamedProcess> processes;
        for (const auto& name : c.daemons) {
            processes.emplace_back(name);
        }
        RunningReceiver reports;
        TestSupport::WriteText("/etc/rsyslog.conf", c.rsyslog_conf);
        const char* file = "/etc/rsyslog.d/watchpost_rsyslog.conf";
        std::remove(file);
        OpenTaskPtr task = NewTask();
        task->rsyslog_policy.server_type = "udp";
        task->rsyslog_policy.server = {"10.0.0.1"};
        task->rsyslog_policy.log_path = {{"514", "/var/log/a", {}}};
        task->Run();
        EXPECT_EQ(c.written, access(file, F_OK) == 0);
        EXPECT_EQ(c.reports, reports.Finish());

        // Nothing changed: a second full pass writes nothing.
        std::remove(file);
        task->cycle_count = 50;
        const RunningReceiver again;
        task->Run();
        EXPECT_NE(0, access(file, F_OK));
    }
}

TEST(Alarm, CodesKnownAndUnknown) {
    RunningReceiver reports;
    OpenTaskPtr task = NewTask();
    for (const int code : {-1, 0, 3}) {
        EXPECT_FALSE(task->SendRsyslogAlarm(code));
    }
    EXPECT_TRUE(task->SendRsyslogAlarm(2));
    EXPECT_TRUE(task->SendRsyslogAlarm(1));
    EXPECT_EQ((Reports{kNoInclude, kNoDaemon}), reports.Finish());
}

TEST(Alarm, HistoryAlarmPausesForFourHours) {
    RunningReceiver reports;
    OpenTaskPtr task = NewTask();
    Engine::user_info user;
    user.name = "al\xff";
    struct Step {
        const char* content;
        std::int64_t now;
        bool known;
        std::size_t sent;  // so far
    };
    std::size_t sent = 0;
    for (const Step& s :
         {Step{"HISTSIZE=1;", 100000, false, 1}, Step{"HISTSIZE=1;", 100000 + 14400, true, 1},
          Step{"HISTSIZE=2;", 100000 + 14400, false, 2}, Step{"HISTSIZE=1;", 5, true, 2},
          Step{"HISTSIZE=1;", 100000 + 14401, true, 3},
          Step{"HISTSIZE=1;", 100000 + 14401 + 14400, true, 3}}) {
        SCOPED_TRACE(std::to_string(s.now) + s.content);
        const auto before = task->alarm_time_map;
        auto found = task->alarm_time_map.begin();
        task->SendRsyslogAlarm(user, "/home/al/.bashrc", s.content, found, s.now);
        EXPECT_EQ(s.known, found != task->alarm_time_map.end());
        const std::string key =
            std::string("user:al\xff path:/home/al/.bashrc hist_conf:[") + s.content + "]";
        if (s.sent > sent) {
            EXPECT_EQ(s.now, task->alarm_time_map[key]);
        } else {
            EXPECT_EQ(before, task->alarm_time_map);
        }
        sent = s.sent;
    }
    const Reports received = reports.Finish();
    ASSERT_EQ(3U, received.size());
    EXPECT_EQ("rsyslog_3", received[0].first);
    EXPECT_EQ(
        "{\"content\":\"HISTSIZE=1;\",\"path\":\"/home/al/.bashrc\",\"type\":\"hist_conf\","
        "\"user\":\"al\\ufffd\"}\n",
        received[0].second);
}

}  // namespace
