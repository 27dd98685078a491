// The task's life, its cycle, daemon detection and alarms.

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <thread>

#include "module/module_procs/src/ProcsFullTask.h"
#include "module/module_rsyslog/src/ForwardingHealth.h"
#include "module/module_rsyslog/src/WorkRecord.h"
#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/InnerCpuCtrlUtils.h"

namespace {

using namespace TestSupport;

const std::pair<std::string, std::string> kNoDaemon = {
    "rsyslog_3", R"({"message":"rsyslog or syslog-ng status is not running."})"};
const std::pair<std::string, std::string> kNoInclude = {
    "rsyslog_3", R"({"message":"rsyslog IncludeConfig is not exist."})"};

std::map<std::pair<std::string, int>, int> throttled;  // file and line to pauses asked for
Strings running;  // names of the process table, in the order of their process ids

class FixedProcs : public Engine::ProcsFullTask {
public:
    using Table = std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>>;
    void GetProcsMap(Table& processes) override {
        for (const auto& name : running) {
            auto& process = processes[static_cast<int>(processes.size()) + 1];
            process = std::make_shared<Engine::ProcsMessage::procInfo>();
            process->name = name;
        }
    }
};

class Forwarding : public testing::Test {
protected:
    Forwarding() { engine_.StartTask(new FixedProcs); }
    ~Forwarding() override { engine_.StopTask("procs_full_task"); }

    Framework::Engine& engine_ = TestEngine();
    const LogCapture log_{"module_rsyslog"};
    OpenTaskPtr task_ = NewTask();
};

// A full pass shows in its alarm: no daemon runs here.
TEST_F(Forwarding, FullPassFirstAndEvery50thUnlessStoppingAndLoginsEveryOtherCycle) {
    running = {"init"};
    RunningReceiver reports;
    EXPECT_EQ(0, task_->Init());  // no policy attached
    EXPECT_EQ(1, log_.Count("3 get feature policy failed"));
    task_->rsyslog_policy.get_lastlog = true;
    for (int run = 1; run <= 101; ++run) {
        Log(LoginEntry(7, "tty1", run));
        EXPECT_EQ(0, task_->Run());
        EXPECT_EQ((run - 1) % 50 + 1, task_->cycle_count) << run;
        EXPECT_EQ((run - 1) / 50 + 1, log_.Holding("8 syslog alarm message is")) << run;
        EXPECT_EQ(run - run % 2, task_->utmp_list.size()) << run;
    }
    fs::remove(kLoginFile);
    task_->cycle_count = 50;
    task_->RequestStop();
    task_->Run();
    EXPECT_EQ(51, task_->cycle_count);
    EXPECT_EQ(Reports(3, kNoDaemon), reports.Finish());
}

TEST_F(Forwarding, FirstDaemonByProcessIdDecides) {
    struct Case {
        Strings names;
        std::optional<bool> is_rsyslog, is_syslogng;  // without a value: left as it was
    };
    auto& policy = task_->rsyslog_policy;
    for (const Case& c :
         {Case{{"cron", "sh"}, false, false}, Case{{"init", "rsyslogd"}, true, false},
          Case{{"syslog-ng", "rsyslogd"}, false, true},
          Case{{"init", "my-rsyslog-run", "syslog-ng"}, true, false},
          Case{{"rsyslogd", "syslog-ng"}, true, {}}, Case{{}, {}, {}}}) {
        running = c.names;
        for (const bool before : {false, true}) {
            policy.is_rsyslog = policy.is_syslogng = before;
            task_->CheckSyslogRunning();
            EXPECT_EQ(c.is_rsyslog.value_or(before), policy.is_rsyslog);
            EXPECT_EQ(c.is_syslogng.value_or(before), policy.is_syslogng);
        }
    }
    EXPECT_EQ(4, log_.Count("8 find rsyslog pid 2."));
    EXPECT_EQ(2, log_.Count("8 find syslog-ng pid 1."));
    EXPECT_EQ(2, log_.Count("3 proc map is empty"));
    engine_.StopTask("procs_full_task");
    task_->CheckSyslogRunning();
    EXPECT_TRUE(policy.is_rsyslog && policy.is_syslogng);
    EXPECT_EQ(1, log_.Count("3 Get full proc failed"));
}

TEST_F(Forwarding, WhatAFullPassDoes) {
    const std::string include = "$IncludeConfig /etc/rsyslog.d/*.conf\n";
    for (const auto& [daemon, conf, restarts, expected] :
         {std::tuple("init", include, "", Reports{kNoDaemon, kNoDaemon}),
          std::tuple("rsyslogd", include, "rsyslog restart\n", Reports()),
          std::tuple("rsyslogd", std::string("# none\n"), "", Reports{kNoInclude}),
          std::tuple("syslog-ng", std::string(), "syslog restart\n", Reports())}) {
        SCOPED_TRACE(conf + daemon);
        running = {daemon};
        WriteText("/etc/rsyslog.conf", conf);
        WriteText("/run/service.log", "");
        OpenTaskPtr task = NewTask();
        task->rsyslog_policy.server_type = "udp";
        task->rsyslog_policy.is_syslogng = true;  // rsyslog goes before
        task->rsyslog_policy.server = {"10.0.0.1"};
        task->rsyslog_policy.log_path = {{"514", "/var/log/a", {}}};
        RunningReceiver reports;
        task->Run();
        task->cycle_count = 50;
        task->Run();  // nothing changed: a second full pass does nothing but warn
        EXPECT_EQ(restarts, ReadText("/run/service.log"));
        EXPECT_EQ(expected, reports.Finish());
    }
    EXPECT_NE("", ReadText("/etc/rsyslog.d/watchpost_rsyslog.conf"));
}

TEST_F(Forwarding, AlarmsOnceForACodeAndHistoryAlarmsOnceInFourHours) {
    struct Step {
        const char* content;
        std::int64_t now;
        bool known, sent;
    };
    RunningReceiver reports;
    EXPECT_FALSE(task_->SendRsyslogAlarm(0) || task_->SendRsyslogAlarm(3));
    EXPECT_TRUE(task_->SendRsyslogAlarm(2) && task_->SendRsyslogAlarm(1));
    Reports expected = {kNoInclude, kNoDaemon};
    std::map<std::string, std::int64_t> times;
    Engine::user_info user;
    user.name = "al\xff";
    for (const Step& s :
         {Step{"SIZE=1;", 100000, false, true}, Step{"SIZE=1;", 114400, true, false},
          Step{"SIZE=2;", 114400, false, true}, Step{"SIZE=1;", 5, true, false},
          Step{"SIZE=1;", 114401, true, true}, Step{"SIZE=1;", 128801, true, false}}) {
        SCOPED_TRACE(std::to_string(s.now) + s.content);
        if (s.sent) {
            times[std::string("user:al\xff path:/.bashrc hist_conf:[") + s.content + "]"] = s.now;
            expected.emplace_back(
                "rsyslog_3", std::string(R"({"content":")") + s.content +
                                 R"(","path":"/.bashrc","type":"hist_conf","user":"al\ufffd"})" +
                                 "\n");
        }
        auto found = task_->alarm_time_map.begin();
        task_->SendRsyslogAlarm(user, "/.bashrc", s.content, found, s.now);
        EXPECT_EQ(s.known, found != task_->alarm_time_map.end());
        EXPECT_EQ(times, task_->alarm_time_map);
    }
    EXPECT_EQ(expected, reports.Finish());
    // What cannot suppress anything any more is forgotten.
    auto found = task_->alarm_time_map.end();
    for (std::int64_t now = 300000; now < 400000; now += 10) {
        task_->SendRsyslogAlarm(user, "/.bashrc", std::to_string(now), found, now);
        const std::string earlier = std::to_string(std::max<std::int64_t>(now - 14400, 300000));
        task_->SendRsyslogAlarm(user, "/.bashrc", earlier, found, now);
        ASSERT_NE(task_->alarm_time_map.end(), found) << now;
    }
    EXPECT_LT(task_->alarm_time_map.size(), 3000U);
}

// What was cut short, or could not be looked at, is no success.
TEST_F(Forwarding, WorkSucceedsWhenItIsDoneInFullOnly) {
    running = {"init"};
    RunningReceiver reports;
    auto& record = Engine::WorkRecord::Instance();
    const auto succeeded = [&] {
        std::string names;
        for (const auto& [work, time] : record.Get().successes) {
            names += time > 0 ? work + ";" : "";
        }
        return names;
    };
    WriteText("/etc/passwd", "");
    OpenTaskPtr task = CollectingTask();
    task->cycle_count = 0;
    for (const auto& [wanted, with_file, expected] :
         {std::tuple(true, false, "history;"), std::tuple(true, true, "history;logins;"),
          std::tuple(false, true, "")}) {
        record.Begin(
            {{Engine::kForwarding, wanted}, {Engine::kHistory, wanted}, {Engine::kLogins, wanted}});
        if (with_file) {
            WriteText(kLoginFile, "");
        }
        task->Run();
        task->Run();
        EXPECT_EQ(expected, succeeded());
    }
    record.Begin({{Engine::kHistory, true}});
    task->RequestStop();
    task->Run();
    EXPECT_EQ("", succeeded());
    task->UnInit();
    EXPECT_TRUE(record.Get().successes.empty());
}

// A cycle in which nothing changed opens no file that it has read.
TEST_F(Forwarding, WhatIsUnchangedIsNotReadAgain) {
    const std::string history = "/tmp/.bash_history";
    OpenTaskPtr task = CollectingTask();
    WriteText("/etc/passwd", "al:x:7:8:Al:/tmp:/bin/sh\nbo:x:7:8:Bo:/run:/bin/sh\n");
    WriteText(history, "old\n");
    WriteText("/run/.bash_history", "old\n");
    WriteText(kLoginFile, "");
    task->Run();
    WriteText("/run/.bash_history", "");  // out of bounds, which is another thing than unchanged
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // no longer just changed
    task->Run();
    task->Run();
    const int opened = inotify_init1(IN_NONBLOCK);
    for (const std::string& path :
         Strings{history, "/run/.bash_history", "/etc/passwd", kLoginFile}) {
        ASSERT_LT(0, inotify_add_watch(opened, path.c_str(), IN_OPEN | IN_ACCESS));
    }
    const int unchanged = log_.Holding("not change.");
    task->Run();
    task->Run();
    EXPECT_EQ(unchanged + 2, log_.Holding("not change."));
    char event[1024];
    EXPECT_EQ(-1, read(opened, event, sizeof(event)));
    // Of the same length, with its times set back.
    const auto time = fs::last_write_time(history);
    WriteText(history, "new\n");
    fs::last_write_time(history, time);
    task->Run();
    EXPECT_EQ(1, log_.Holding("8 recordtext is :"));
    EXPECT_LT(0, read(opened, event, sizeof(event)));
    close(opened);
}

// Two cycles over a login, its end and a hundred thousand commands pass each throttle point.
TEST_F(Forwarding, EveryLongLoopHasItsThrottlePoint) {
    running = {"init"};
    OpenTaskPtr task = CollectingTask();
    task->cycle_count = 0;
    task->rsyslog_policy.white_list = {"x"};
    WriteText("/etc/passwd", "al:x:7:8:Al:/tmp:/bin/sh\n");
    WriteText("/tmp/.bash_history", "");
    fs::remove(kLoginFile);
    Log(LoginEntry(7, "tty1", 0));
    Log(LoginEntry(8, "tty1", 0));
    const LogCapture log("module_rsyslog", Poco::Message::PRIO_ERROR);
    throttled.clear();
    task->Run();
    EXPECT_TRUE(throttled.empty());  // without a limit
    std::string commands = "x\n";
    for (int i = 0; i < 100000; ++i) {
        commands += "x\n";
    }
    task->cycle_count = 0;
    SDK::InnerCpuCtrlUtils::SetLimit(50);
    task->Run();
    WriteText("/tmp/.bash_history", commands);
    task->Run();
    SDK::InnerCpuCtrlUtils::SetLimit(0);
    std::map<std::string, int> points;
    for (const auto& [point, pauses] : throttled) {
        ++points[point.first.substr(point.first.rfind('/') + 1)];
        EXPECT_LT(pauses, 10000) << point.first << point.second;  // one in ten milliseconds
    }
    EXPECT_EQ((std::map<std::string, int>{{"RsyslogTask.cpp", 1},
                                          {"RsyslogTaskCommands.cpp", 1},
                                          {"RsyslogTaskHistory.cpp", 2},
                                          {"RsyslogTaskLogin.cpp", 5}}),
              points);
}

TEST(ForwardingHealth, IsThatOfTheDaemonUnderWhatWasWrittenLast) {
    const Poco::AutoPtr<Framework::Task> procs(new Engine::ProcsFullTask);
    ASSERT_TRUE(TestEngine().StartTask(procs));
    Engine::ForwardingHealth health;
    const auto becomes = [&](bool good, const std::string& piece) {
        const auto conditions = health.Conditions();
        ASSERT_EQ(1U, conditions.size());
        EXPECT_EQ(good, conditions.front().good);
        EXPECT_NE(std::string::npos, conditions.front().text.find(piece))
            << conditions.front().text;
    };
    EXPECT_TRUE(health.Conditions().empty());
    health.Saw(Engine::DaemonKind::kRsyslog, true);
    becomes(false, "does not run");
    const std::string path = "/run/written.conf";
    WriteText("/run/r.conf", "*.* /run/r.log\n");
    const auto pid = [] { return std::atoi(ReadText("/run/r.pid").c_str()); };
    const auto start = [&] {
        EXPECT_EQ(0, std::system("rsyslogd -f /run/r.conf -i /run/r.pid 2>/dev/null"));
        EXPECT_TRUE(Await([&] { return pid() > 0; }));
    };
    const auto stop = [&] {
        const int process = pid();
        ASSERT_LT(0, process);
        kill(process, SIGTERM);
        EXPECT_TRUE(Await([&] { return kill(process, 0) != 0; }));
    };
    start();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    health.Judged("");
    becomes(false, "has not been told what the policy forwards");
    WriteText(path, "1");
    health.Wrote(path);
    becomes(false, "has not been restarted since /run/written.conf was written");
    stop();
    becomes(false, "does not run");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    start();
    health.Judged("");
    becomes(true, "holds the configuration");
    health.Judged("bad words");
    becomes(false, "finds fault with its configuration: bad words");
    health.Wrote(path);
    WriteText(path, "2 by somebody else");
    becomes(false, "has been changed or removed since the agent wrote it");
    health.Forget();
    EXPECT_TRUE(health.Conditions().empty());
    stop();
    TestEngine().StopTask("procs_full_task");
}

}  // namespace

// In the place of the library's own: the points that ask for a pause.
void SDK::InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* module,
                                             unsigned long /*now*/, unsigned long elapsed) {
    EXPECT_STREQ("rsyslog_module", module);
    EXPECT_LT(GetSuggestedRunTick(), elapsed);
    ++throttled[{file, line}];
}
