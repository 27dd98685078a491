// The task's life, its cycle, daemon detection and alarms.

#include <sys/inotify.h>
#include <unistd.h>

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
unsigned long run_tick = 0;  // how many milliseconds a thread may work before it asks for one
Strings running;             // names of the process table, in the order of their process ids

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
    using Found = std::optional<bool>;  // without a value: left as it was
    auto& policy = task_->rsyslog_policy;
    for (const auto& [names, is_rsyslog, is_syslogng] :
         {std::tuple("cron|sh", Found(false), Found(false)),
          std::tuple("init|rsyslogd", Found(true), Found(false)),
          std::tuple("syslog-ng|rsyslogd", Found(false), Found(true)),
          std::tuple("init|my-rsyslog-run|syslog-ng", Found(true), Found(false)),
          std::tuple("rsyslogd|syslog-ng", Found(true), Found()),
          std::tuple("", Found(), Found())}) {
        running = Split(names);
        for (const bool before : {false, true}) {
            policy.is_rsyslog = policy.is_syslogng = before;
            task_->CheckSyslogRunning();
            EXPECT_EQ(is_rsyslog.value_or(before), policy.is_rsyslog) << names;
            EXPECT_EQ(is_syslogng.value_or(before), policy.is_syslogng) << names;
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
    const auto restarted = [] {
        return Engine::WorkRecord::Instance().Get().events.at(Engine::kDaemonRestart);
    };
    const std::uint64_t before = restarted();
    for (const auto& [daemon, conf, restarts, expected] :
         {std::tuple("init", include, "", Reports{kNoDaemon, kNoDaemon}),
          std::tuple("rsyslogd", include, "rsyslog restart\n", Reports()),
          std::tuple("rsyslogd", "# none\n"s, "", Reports{kNoInclude}),
          std::tuple("syslog-ng", ""s, "syslog restart\n", Reports())}) {
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
        const LogCapture told("watchpost");
        task->Run();
        task->cycle_count = 50;
        task->Run();  // nothing changed: a second full pass does nothing but warn
        EXPECT_EQ(restarts, ReadText("/run/service.log"));
        EXPECT_EQ(*restarts == '\0' ? 0 : 1,
                  told.Count(std::string("6 ") + (daemon == "syslog-ng"s ? daemon : "rsyslog") +
                             " is to forward /var/log/a to 10.0.0.1:514 over udp"));
        EXPECT_EQ(expected, reports.Finish());
    }
    const std::string written = ReadText("/etc/rsyslog.d/watchpost_rsyslog.conf");
    EXPECT_NE("", written);
    EXPECT_EQ(1, log_.Count("8 all msg: " + written));
    EXPECT_EQ(before + 2, restarted());
}

TEST_F(Forwarding, AlarmsOnceForACodeAndHistoryAlarmsOnceInFourHours) {
    RunningReceiver reports;
    EXPECT_FALSE(task_->SendRsyslogAlarm(0) || task_->SendRsyslogAlarm(3));
    EXPECT_TRUE(task_->SendRsyslogAlarm(2) && task_->SendRsyslogAlarm(1));
    Reports expected = {kNoInclude, kNoDaemon};
    std::map<std::string, std::int64_t> times;
    auto found = times.begin();
    Engine::user_info user;
    user.name = "al\xff";
    for (const auto& [content, now, known, sent] :
         {std::tuple("SIZE=1;"s, 100000, false, true), std::tuple("SIZE=1;"s, 114400, true, false),
          std::tuple("SIZE=2;"s, 114400, false, true), std::tuple("SIZE=1;"s, 5, true, false),
          std::tuple("SIZE=1;"s, 114401, true, true),
          std::tuple("SIZE=1;"s, 128801, true, false)}) {
        SCOPED_TRACE(std::to_string(now) + content);
        if (sent) {
            times["user:al\xff path:/.bashrc hist_conf:[" + content + "]"] = now;
            expected.emplace_back(
                "rsyslog_3", R"({"content":")" + content +
                                 R"(","path":"/.bashrc","type":"hist_conf","user":"al\ufffd"})" +
                                 "\n");
        }
        task_->SendRsyslogAlarm(user, "/.bashrc", content, found, now);
        EXPECT_EQ(known, found != task_->alarm_time_map.end());
        EXPECT_EQ(times, task_->alarm_time_map);
        EXPECT_LE(1, log_.Count("8 syslog alarm message is [" + expected.back().second + "]"));
    }
    EXPECT_EQ(expected, reports.Finish());
    // What cannot suppress anything any more is forgotten.
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
    auto& record = Engine::WorkRecord::Instance();
    WriteText("/etc/passwd", "");
    OpenTaskPtr task = CollectingTask();
    for (const auto& [wanted, file, stopped, expected] :
         {std::tuple(true, false, false, "history;"),
          std::tuple(true, true, false, "history;logins;"), std::tuple(false, true, false, ""),
          std::tuple(true, true, true, "")}) {
        record.Begin(
            {{Engine::kForwarding, wanted}, {Engine::kHistory, wanted}, {Engine::kLogins, wanted}});
        if (file) {
            WriteText(kLoginFile, "");
        }
        if (stopped) {
            task->RequestStop();
        }
        task->cycle_count = 0;
        task->Run();
        task->Run();
        std::string succeeded;
        for (const auto& [work, time] : record.Get().successes) {
            succeeded += time > 0 ? work + ";" : "";
        }
        EXPECT_EQ(expected, succeeded);
    }
    task->UnInit();
    EXPECT_TRUE(record.Get().successes.empty());
}

// A cycle in which nothing changed opens no file that it has read.
TEST_F(Forwarding, WhatIsUnchangedIsNotReadAgain) {
    const Strings files = Split("/tmp/.bash_history|/run/.bash_history|/etc/passwd|/var/log/wtmp");
    OpenTaskPtr task = CollectingTask();
    WriteText("/etc/passwd", "al:x:7:8:Al:/tmp:/bin/sh\nbo:x:7:8:Bo:/run:/bin/sh\n");
    WriteText(kLoginFile, "");
    WriteText(files[0], "old\n");
    WriteText(files[1], "old\n");
    task->Run();
    WriteText(files[1], "");  // out of bounds, which is another thing than unchanged
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // no longer just changed
    task->Run();
    task->Run();
    const int opened = inotify_init1(IN_NONBLOCK);
    for (const std::string& path : files) {
        ASSERT_LT(0, inotify_add_watch(opened, path.c_str(), IN_OPEN | IN_ACCESS));
    }
    const int unchanged = log_.Holding("not change.");
    task->Run();
    task->Run();
    EXPECT_EQ(unchanged + 2, log_.Holding("not change."));
    char event[1024];
    EXPECT_EQ(-1, read(opened, event, sizeof(event)));
    // Of the same length, with its time set back.
    Shell(
        "cd /tmp; touch -r .bash_history time; echo new >.bash_history; touch -r time "
        ".bash_history");
    task->Run();
    EXPECT_EQ(1, log_.Holding("8 recordtext is :"));
    EXPECT_LT(0, read(opened, event, sizeof(event)));
}

// Each pass of a throttle point asks for a pause, until there is no limit or a long time to go.
TEST_F(Forwarding, EveryLongLoopHasItsThrottlePoint) {
    running = {"init", "cron"};
    WriteText("/etc/passwd", "al:x:7:8:Al:/tmp:/bin/sh\nbo:x:7:8:Bo:/run:/bin/sh\n");
    fs::remove(kLoginFile);
    for (const auto& [type, time] :
         {std::pair(7, 1), std::pair(8, 2), std::pair(7, 3), std::pair(6, 4)}) {
        Log(LoginEntry(type, "tty1", time));
    }
    const auto points = [&](int limit, unsigned long tick) {
        OpenTaskPtr task = CollectingTask();
        throttled.clear();
        run_tick = tick;
        SDK::InnerCpuCtrlUtils::SetLimit(limit);
        WriteText("/tmp/.bash_history", "");
        task->cycle_count = 0;
        task->Run();
        WriteText("/tmp/.bash_history", "x\n#1700000000\nx\ny\n");
        task->Run();
        SDK::InnerCpuCtrlUtils::SetLimit(0);
        Strings passes;
        for (const auto& [point, pauses] : throttled) {
            const std::string& file = point.first;
            passes.push_back(file.substr(file.rfind("Task") + 4) + " " + std::to_string(pauses));
        }
        return passes;
    };
    EXPECT_EQ(Strings(), points(0, 0));
    EXPECT_EQ(Split(".cpp 2|Commands.cpp 3|History.cpp 2|History.cpp 4|"
                    "Login.cpp 4|Login.cpp 4|Login.cpp 4|Login.cpp 1|Login.cpp 3"),
              points(50, 0));
    EXPECT_EQ(Strings(), points(50, 60000));
}

TEST(ForwardingHealth, IsThatOfTheDaemonUnderWhatWasWrittenLast) {
    const Poco::AutoPtr<Framework::Task> procs(new Engine::ProcsFullTask);
    ASSERT_TRUE(TestEngine().StartTask(procs));
    Engine::ForwardingHealth health;
    const auto becomes = [&](bool good, const std::string& piece) {
        const auto conditions = health.Conditions();
        ASSERT_EQ(1U, conditions.size());
        EXPECT_EQ(good, conditions.front().good && health.Forwards());
        EXPECT_NE(std::string::npos, conditions.front().text.find(piece))
            << conditions.front().text;
    };
    // Times are hundredths of a second.
    const std::string start =
        "sleep 0.1; rsyslogd -f /run/r.conf -i /run/r.pid 2>&-; until [ -s /run/r.pid ]; do sleep "
        "0.01; done; sleep 0.1";
    const std::string stop =
        "P=$(cat /run/r.pid) && kill $P && while [ -e /proc/$P ]; do sleep 0.01; done";
    const std::string path = "/run/written.conf";
    WriteText("/run/r.conf", "*.* /run/r.log\n");
    EXPECT_TRUE(health.Conditions().empty());
    health.Saw(Engine::DaemonKind::kRsyslog, true);
    becomes(false, "does not run");
    Shell(start);
    health.Judged("");
    becomes(false, "has not been told what the policy forwards");
    WriteText(path, "1");
    health.Wrote(path);
    becomes(false, "has not been restarted since /run/written.conf was written");
    Shell(stop);
    becomes(false, "does not run");
    Shell(start);
    health.Judged("");
    becomes(true, "holds the configuration");
    health.Judged("bad words");
    becomes(false, "finds fault with its configuration: bad words");
    health.Wrote(path);
    WriteText(path, "2 by somebody else");
    becomes(false, "has been changed or removed since the agent wrote it");
    health.Forget();
    EXPECT_TRUE(health.Conditions().empty());
    Shell(stop);
    TestEngine().StopTask("procs_full_task");
}

}  // namespace

// In the place of the library's own: the points that ask for a pause, at each of their passes.
unsigned long SDK::InnerCpuCtrlUtils::GetSuggestedRunTick() {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return run_tick;
}
void SDK::InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* module,
                                             unsigned long /*now*/, unsigned long elapsed) {
    EXPECT_STREQ("rsyslog_module", module);
    EXPECT_LT(run_tick, elapsed);
    ++throttled[{file, line}];
}
