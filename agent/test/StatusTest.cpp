#include <Poco/DateTime.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "agent/MetricsTask.h"
#include "agent/ServiceManager.h"
#include "agent/StatusFile.h"
#include "agent/StatusJudgement.h"
#include "agent/StatusTask.h"
#include "sdk/JsonUtils.h"
#include "sdk/test/TempDir.h"
#include "test/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Framework::Severity;

Json::Value Parsed(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value)) << text;
    return value;
}

// A task of ten seconds, running or not, with times of this hour and the next.
std::string Task(const char* running, const std::string& began, const std::string& due) {
    return std::string(R"(,"tasks":[{"name":"t","period_s":10,"running":)") + running +
           R"(,"began":"2026-01-01T)" + began + R"(Z","due":"2026-01-01T)" + due + R"(Z"}])";
}

TEST(JudgeStatus, TellsHealthyFromWrongFromNotRunning) {
    const std::string ended = "process 7 ended without a stop, its status file is ";
    const struct {
        std::string members;  // besides what every file has
        std::string reasons;  // each with a ";" behind it
        int age = 2;          // seconds
        bool alive = true;
    } cases[] = {
        {"", ended + "3 min old;", 185, false},
        {"", ended + "119 min old;", 7199, false},
        {"", ended + "2 h old;", 7200, false},
        {"", "", 30},
        {"", "", -30},
        {"", "the status file, to be written every few seconds, is 31 s old;", 31},
        {"", "the status file, to be written every few seconds, is -31 s old;", -31},
        {R"(,"conditions":[{"subject":"a","good":true,"text":"b"}])", ""},
        {R"(,"conditions":[{"subject":"a","good":true},{"subject":"b","good":false,"text":"c"}],
            "refused":[{"key":"x.json","why":"odd"},{"key":"y.json","why":"bad"}])",
         "b: c;policy x.json refused: odd;policy y.json refused: bad;"},
        // Written at 12:00:00.
        {Task("false", "11:58:40.500", "11:58:50.000"), ""},
        {Task("false", "11:58:38.500", "11:58:48.999"),
         "task t: its next cycle is overdue by 71 s;"},
        {Task("true", "11:50:00", "11:50:00"), ""},
        {Task("true", "11:49:58", "11:49:58"), "task t: its cycle has been running for 10 min;"},
        {R"(,"tasks":[{"name":"t","period_s":0,"running":false,"began":null,"due":null}])", ""},
        {R"(,"reports":{"failing":false})", ""},
        {R"(,"reports":{"failing":true})", "the report file cannot be written;"},
    };
    for (const auto& c : cases) {
        const Json::Value status =
            Parsed(R"({"written":"2026-01-01T12:00:00.000Z","pid":7)" + c.members + "}");
        const Poco::Timestamp written = Poco::DateTime(2026, 1, 1, 12).timestamp();
        const auto judgement = JudgeStatus(status, written + Poco::Timespan(c.age, 0), c.alive);
        std::string reasons;
        for (const std::string& reason : judgement.reasons) {
            reasons += reason + ";";
        }
        EXPECT_EQ(c.reasons, reasons);
        EXPECT_EQ(!c.alive            ? StatusJudgement::kNotRunning
                  : c.reasons.empty() ? StatusJudgement::kHealthy
                                      : StatusJudgement::kWrong,
                  judgement.state);
    }
}

TEST(StatusTask, WritesAWholeReadableFileTriesAgainAndRemovesIt) {
    const TempDir folder;
    const TestSupport::LogCapture log("watchpost");
    const std::string directory = folder / "run";
    const std::string path = directory + "/status.json";
    Poco::AutoPtr<ReportTask> report(new ReportTask(folder / "report"));
    Poco::AutoPtr<StatusTask> task(new StatusTask(path, report));
    const mode_t usual = umask(027);
    task->Run();
    umask(usual);
    EXPECT_EQ(0755, static_cast<int>(fs::status(directory).permissions()));
    EXPECT_EQ(0640, static_cast<int>(fs::status(path).permissions()));
    Json::Value status = Parsed(TestSupport::ReadText(path));
    EXPECT_EQ(getpid(), status["pid"].asInt());
    EXPECT_EQ(ProcessStart(getpid()), status["process_start"].asUInt64());
    EXPECT_EQ(StatusJudgement::kHealthy, JudgeStatus(status, Poco::Timestamp(), true).state);
    EXPECT_TRUE(IsAlive(status));
    status["process_start"] = Json::UInt64(1);
    EXPECT_FALSE(IsAlive(status)) << "its number is another's now";
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t ended;
    waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
    EXPECT_EQ(0U, ProcessStart(child)) << "nobody has waited for it";
    waitpid(child, nullptr, 0);
    EXPECT_EQ(0U, ProcessStart(child));

    folder.Run("mv run away; echo in the way >run");
    task->Run();
    task->Run();
    EXPECT_EQ(1, log.Holding("3 status file " + path + " cannot be written, trying again: Not a"));
    folder.Run("rm run; mv away run; echo left by a crash >run/status.json.new");
    task->Run();
    EXPECT_EQ(1, log.Holding("6 status file " + path + " is written again"));
    task->UnInit();
    EXPECT_TRUE(fs::is_empty(directory));
}

TEST(FormatMetrics, TellsTheStateInLinesThatAnyReaderTakes) {
    Framework::State state;
    state.policies = {{"m",
                       "a\xff\"\n.json",
                       "f",
                       std::string(400, 'i'),
                       "",
                       false,
                       Poco::Timestamp(1'500'000),
                       {{Severity::kError, "", "", ""},
                        {Severity::kError, "", "", ""},
                        {Severity::kWarning, "", "", ""}}}};
    state.refused = {{"x", {}, ""}, {"y", {}, ""}};
    state.deliveries = {3, 4};
    Framework::TaskStatus task;
    task.name = "t";
    task.waiting_messages = 5;
    task.waiting_bytes = 6;
    state.tasks.push_back(task);
    task.name = "cyclic";
    task.period = std::chrono::seconds(10);
    task.due = Poco::Timestamp(1'795'000'000'250'000);
    for (const double lasted : {0.001, 0.0011, 0.5, 1.0, 600.0, 601.0}) {
        task.cycles.Add(std::chrono::duration<double>(lasted));
    }
    state.tasks.push_back(task);
    state.conditions = {{"m", {"bad", false, ""}}, {"m", {"well", true, ""}}};
    state.figures = {{"m", {{{"e", 7}}, {{"never", 0}, {"once", Poco::Timestamp(2'000'000)}}}}};
    ReportCounts reports;
    reports.by_type = {{"r", 8}};
    reports.bytes = 1ULL << 52;
    reports.failures = 9;

    const std::string text = "\n" + FormatMetrics(state, reports);
    std::istringstream expected(
        "watchpost_policy_info{feature=\"f\",file=\"a\xef\xbf\xbd\\\"\\n.json\",hash=\"\",id=\"" +
        std::string(300, 'i') + "\",module=\"m\"} 1" + R"(
watchpost_policy_enabled{feature="f",module="m"} 0
watchpost_policy_since_timestamp_seconds{feature="f",module="m"} 1.5
watchpost_policy_findings{feature="f",module="m",severity="error"} 2
watchpost_policy_findings{feature="f",module="m",severity="warning"} 1
watchpost_policy_files_refused 2
watchpost_policy_deliveries_total{result="accepted"} 3
watchpost_policy_deliveries_total{result="refused"} 4
watchpost_queue_messages{task="t"} 5
watchpost_queue_bytes{task="t"} 6
watchpost_task_period_seconds{task="cyclic"} 10
watchpost_task_due_timestamp_seconds{task="cyclic"} 1795000000.25
watchpost_condition_good{module="m",subject="bad"} 0
watchpost_condition_good{module="m",subject="well"} 1
watchpost_events_total{event="e",module="m"} 7
watchpost_last_success_timestamp_seconds{module="m",work="never"} 0
watchpost_last_success_timestamp_seconds{module="m",work="once"} 2
watchpost_reports_total{type="r"} 8
watchpost_report_bytes_total 4503599627370496
watchpost_report_write_failures_total 9)");
    for (std::string line; std::getline(expected, line);) {
        EXPECT_NE(std::string::npos, text.find("\n" + line + "\n")) << line << text;
    }
    // Cumulative, a cycle of just that length included, and of a task with cycles only.
    std::string buckets;
    const std::string start = "watchpost_task_cycle_duration_seconds";
    for (std::size_t at = text.find("\n" + start); at != std::string::npos;
         at = text.find("\n" + start, at + 1)) {
        buckets += text.substr(text.find(' ', at), text.find('\n', at + 1) - text.find(' ', at));
    }
    EXPECT_EQ(" 6 1202.5021 1 2 2 4 4 4 5 6", buckets);
}

TEST(ServiceManager, HearsOfLifeUnlessATaskStandsStill) {
    const TempDir folder;
    const TestSupport::LogCapture log("watchpost");
    sockaddr_un address{AF_UNIX, {}};
    (folder / "notify").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int heard = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(0, bind(heard, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    ServiceManager manager;
    const auto start = ServiceManager::Clock::now();
    Framework::TaskStatus task;
    task.name = "t";
    const struct {
        int minute;
        bool running;
        long due;  // in seconds from now; 0: none
        std::size_t waiting;
        int processor;  // used so far
        bool fed;
    } steps[] = {
        {0, true, 0, 0, 1, true},      {10, true, 0, 0, 1, true},     {11, true, 0, 0, 1, false},
        {12, true, 0, 0, 1, false},    {13, true, 0, 0, 2, true},     {23, true, 0, 0, 2, true},
        {24, false, 60, 0, 2, true},   {90, false, 60, 0, 2, true},   {91, false, -1, 0, 2, true},
        {101, false, -1, 0, 2, false}, {102, false, 60, 1, 2, false}, {103, false, 60, 0, 2, true},
    };
    for (const auto& step : steps) {
        task.running = step.running;
        task.due = step.due == 0 ? Poco::Timestamp(0)
                                 : Poco::Timestamp() + step.due * Poco::Timestamp::resolution();
        task.waiting_messages = step.waiting;
        task.processor = std::chrono::nanoseconds(step.processor);
        manager.Tell("well?\nREADY=1", {task}, start + std::chrono::minutes(step.minute));
        char text[4096] = {};
        EXPECT_LT(0, recv(heard, text, sizeof(text) - 1, MSG_DONTWAIT));
        EXPECT_EQ(std::string("STATUS=well?\\nREADY=1") + (step.fed ? "\nWATCHDOG=1" : ""), text)
            << step.minute;
    }
    EXPECT_EQ(2, log.Holding("3 task t stands still"));
    unsetenv("NOTIFY_SOCKET");
    close(heard);
}

}  // namespace
