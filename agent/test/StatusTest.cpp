#include <Poco/DateTime.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "agent/ServiceManager.h"
#include "agent/StatusFile.h"
#include "agent/StatusJudgement.h"
#include "agent/StatusTask.h"
#include "sdk/JsonUtils.h"
#include "sdk/test/TempDir.h"
#include "test/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

Json::Value Parsed(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value)) << text;
    return value;
}

std::string Task(const std::string& running, const std::string& began, const std::string& due) {
    return R"("tasks":[{"name":"t","period_s":10,"running":)" + running +
           R"(,"began":"2026-01-01T)" + began + R"(Z","due":"2026-01-01T)" + due + R"(Z"}])";
}

TEST(JudgeStatus, TellsHealthyFromWrongFromNotRunning) {
    using State = StatusJudgement;
    const struct {
        std::string member;  // besides what every file has
        State::State state;
        std::string reasons;  // each with a ";" behind it
        int age = 2;          // seconds
        bool alive = true;
    } cases[] = {
        {R"("pid":7)", State::kNotRunning,
         "process 7 ended without a stop, its status file is 3 min old;", 185, false},
        {R"("pid":7)", State::kNotRunning,
         "process 7 ended without a stop, its status file is 119 min old;", 7199, false},
        {R"("pid":7)", State::kNotRunning,
         "process 7 ended without a stop, its status file is 2 h old;", 7200, false},
        {"\"pid\":7", State::kHealthy, "", 30},
        {"\"pid\":7", State::kHealthy, "", -30},
        {"\"pid\":7", State::kWrong,
         "the status file, to be written every few seconds, is 31 s old;", 31},
        {R"("conditions":[{"subject":"a","good":true,"text":"b"}])", State::kHealthy, ""},
        {R"("conditions":[{"subject":"a","good":true},{"subject":"b","good":false,"text":"c"}],
            "refused":[{"key":"x.json","why":"odd"},{"key":"y.json","why":"bad"}])",
         State::kWrong, "b: c;policy x.json refused: odd;policy y.json refused: bad;"},
        // Written at 12:00:00.
        {Task("false", "11:58:40.500", "11:58:50.000"), State::kHealthy, ""},
        {Task("false", "11:58:38.500", "11:58:48.999"), State::kWrong,
         "task t: its next cycle is overdue by 71 s;"},
        {Task("true", "11:50:00", "11:50:00"), State::kHealthy, ""},
        {Task("true", "11:49:58", "11:49:58"), State::kWrong,
         "task t: its cycle has been running for 10 min;"},
        {R"("tasks":[{"name":"t","period_s":0,"running":false,"began":null,"due":null}])",
         State::kHealthy, ""},
        {R"("reports":{"failing":false})", State::kHealthy, ""},
        {R"("reports":{"failing":true})", State::kWrong, "the report file cannot be written;"},
    };
    for (const auto& c : cases) {
        const Json::Value status =
            Parsed(R"({"written":"2026-01-01T12:00:00.000Z",)" + c.member + "}");
        const Poco::Timestamp now =
            Poco::DateTime(2026, 1, 1, 12).timestamp() + Poco::Timespan(c.age, 0);
        const StatusJudgement judgement = JudgeStatus(status, now, c.alive);
        std::string reasons;
        for (const std::string& reason : judgement.reasons) {
            reasons += reason + ";";
        }
        EXPECT_EQ(c.state, judgement.state) << c.member;
        EXPECT_EQ(c.reasons, reasons);
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

    ASSERT_EQ(0, folder.Run("mv run away; echo in the way >run"));
    task->Run();
    task->Run();
    EXPECT_EQ(1, log.Holding("3 status file " + path + " cannot be written, trying again: Not a"));
    ASSERT_EQ(0, folder.Run("rm run; mv away run; echo left by a crash >run/status.json.new"));
    task->Run();
    EXPECT_EQ(1, log.Holding("6 status file " + path + " is written again"));
    task->UnInit();
    EXPECT_TRUE(fs::is_empty(directory));
}

TEST(ProcessStart, TellsTheLivingFromTheDead) {
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    EXPECT_LT(0U, ProcessStart(child));
    kill(child, SIGKILL);
    siginfo_t ended;
    waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
    EXPECT_EQ(0U, ProcessStart(child)) << "nobody has waited for it";
    waitpid(child, nullptr, 0);
    EXPECT_EQ(0U, ProcessStart(child));
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
