#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <future>

#include "agent/PolicyDirectory.h"
#include "agent/ReportTask.h"
#include "sdk/JsonUtils.h"
#include "sdk/test/TempDir.h"
#include "test/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Framework::DataMessage;
using TestSupport::Await;
using TestSupport::LogCapture;
using TestSupport::ReadText;
using TestSupport::WriteText;
using Strings = std::vector<std::string>;

// Made before anything logs: an application that comes into being redirects all loggers.
Framework::Engine& engine = TestSupport::TestEngine();

// The contents of a file's reports; "?" and the line for what is no report.
Strings Contents(const std::string& path) {
    std::ifstream file(path);
    Strings contents;
    for (std::string line; std::getline(file, line);) {
        Json::Value report;
        SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), report);
        contents.push_back(SDK::JsonUtils::GetStringValue(report, "content", "?" + line));
    }
    return contents;
}

TEST(FormatReport, IsOneLineOfAsciiJsonWhateverCameIn) {
    const std::string deep = std::string(998, '[') + std::string(998, ']');
    const std::string cases[][2] = {
        {"\n{ \"b\" : [ 1,\n{} ] }\r\n", R"({"b":[1,{}]})"},
        {"{\"a\":\"\xff\"}", R"({"a":"\ufffd"})"},
        {R"({"a":)", R"("{\"a\":")"},
        {"[1,2]", R"("[1,2]")"},
        {std::string("\0\r\x1b[2J", 6), R"("\u0000\r\u001b[2J")"},
        {"\xc3\xbc\xe2\x80\xa8 \xed\xa0\x80\xe2\x82", R"("\u00fc\u2028 \ufffd\ufffd\ufffd\ufffd")"},
        {"{\"a\":" + deep + "}", "{\"a\":" + deep + "}"},
        {"{\"a\":[[" + deep + "]]}", R"("{\"a\":[[)" + deep + R"(]]}")"},
    };
    for (const auto& [text, content] : cases) {
        const std::string line = FormatReport(DataMessage("ty\"pe\xff", text), "ho\nst");
        EXPECT_EQ(R"("host":"ho\nst","task":"","type":"ty\"pe\ufffd","content":)" + content + "}",
                  line.substr(line.find(',') + 1));
        Json::Value parsed;
        EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), parsed));
    }
}

TEST(ReportTask, TriesAgainWhileTheDiskIsFullLeavesNoTornLineAndFollowsARotation) {
    const TempDir folder;
    ASSERT_EQ(0, mount("small", (folder / "").c_str(), "tmpfs", 0, "size=64k"));
    const auto fill = [&] { WriteText(folder / "filler", std::string(65536, 'x')); };
    const LogCapture log("watchpost");
    const std::string path = folder / "report";
    // Each line is more than is left of its last page of the disk, so that a part of it fits.
    const std::string a(3000, 'a');
    const std::string b(3000, 'b');
    // A crash has left half a line.
    WriteText(path, "half");
    Poco::AutoPtr<ReportTask> task(new ReportTask(path));
    ASSERT_TRUE(task->Open());
    ASSERT_TRUE(engine.StartTask(task));
    const auto report = [&](const std::string& text) {
        std::shared_ptr<Framework::Message> message = std::make_shared<DataMessage>("", text);
        task->EnqueueMsg(message);
    };
    const auto becomes = [&](const Strings& expected) {
        return Await([&] { return Contents(path) == expected; });
    };
    report(a);
    EXPECT_TRUE(becomes({"?half", a}));
    fill();
    report(b);
    report(a);
    EXPECT_TRUE(Await([&] { return log.Holding("cannot be written, trying again") == 1; }));
    EXPECT_TRUE(becomes({"?half", a}));
    fs::remove(folder / "filler");
    EXPECT_TRUE(becomes({"?half", a, b, a}));
    fs::rename(path, path + ".1");
    task->Reopen();
    report(b);
    EXPECT_TRUE(becomes({b}));
    fill();
    report(a);
    report(b);
    EXPECT_TRUE(Await([&] { return log.Holding("cannot be written, trying again") == 2; }));
    engine.StopTask(ReportTask::kName);
    EXPECT_EQ(Strings{b}, Contents(path));
    EXPECT_EQ((Strings{"?half", a, b, a}), Contents(path + ".1"));
    EXPECT_EQ(1, log.Holding(": 2 reports lost at the stop"));
    EXPECT_EQ(0, umount2((folder / "").c_str(), MNT_DETACH));
}

TEST(PolicyDirectory, DeliversInNameOrderWhatIsReadableWholeAndChanged) {
    const TempDir folder;
    const LogCapture log("watchpost");
    const LogCapture delivered("delivered");
    for (const std::string name : {"z.json", "a.json", "b.txt", "large.json"}) {
        WriteText(folder / name, "first");
    }
    fs::resize_file(folder / "large.json", 1048577);
    ASSERT_EQ(0, mkfifo((folder / "fifo.json").c_str(), 0600));
    const PolicyDirectory watcher(folder / ".", [](const auto& name, const auto& content) {
        Poco::Logger::get("delivered").information(name + " " + content);
    });
    Strings expected{"6 a.json first"};
    const auto delivers = [&](const std::string& line) {
        expected.push_back("6 " + line);
        return Await([&] { return delivered.Lines().size() >= expected.size(); });
    };
    EXPECT_TRUE(delivers("z.json first"));
    // Written again with the same content: only the file beside it is delivered.
    WriteText(folder / "a.json", "first");
    WriteText(folder / "moving", "2");
    fs::rename(folder / "moving", folder / "z.json");
    EXPECT_TRUE(delivers("z.json 2"));
    fs::remove(folder / "a.json");
    WriteText(folder / "b.json", "1");
    EXPECT_TRUE(delivers("b.json 1"));
    WriteText(folder / "a.json", "first");
    EXPECT_TRUE(delivers("a.json first"));
    // A writer that pauses. On a busy machine the pause may pass for the end of the writing.
    const auto start = std::chrono::steady_clock::now();
    std::ofstream file(folder / "half.json");
    file << "1" << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    file << "2" << std::flush;
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(delivers("half.json 12"));
    EXPECT_TRUE(delivered.Lines() == expected || taken > std::chrono::milliseconds(150))
        << testing::PrintToString(delivered.Lines());
    EXPECT_EQ(1, log.Holding("/large.json cannot be read: "));
    EXPECT_EQ(1, log.Holding("/fifo.json cannot be read: "));
}

// Runs the agent, a minute at most, its output in the file "out". Its exit status.
int RunAgent(const std::string& options) {
    const std::string program =
        "timeout -s KILL 60 '" WATCHPOST_PROGRAM "' --policy-dir=/tmp/policy ";
    const int status = std::system((program + options + " >/tmp/out 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Program, ABadStartIsOneLineAndAStatusAndAGoodOneStopsInOrder) {
    const std::string home = "/usr/local/watchpost/";
    const std::string report = "/tmp/report";
    for (const std::string& path : {home + "module", home + "conf", home + "log"}) {
        fs::create_directories(path);
    }
    fs::create_directory("/tmp/policy");
    fs::copy_file(SOUND_MODULE, home + "module/sound.so");
    WriteText("/tmp/101", "cpu.limit.percent=101\n");
    // Options go before the file.
    WriteText(home + "conf/watchpost.properties", "policy.dir=/none\nreport.file=" + report);
    const struct {
        std::string options;
        int status;
        std::string piece;
    } cases[] = {
        {"--bogus", 78, "bogus"},
        {"stray", 64, "stray"},
        {"--config=/none", 78, "/none"},
        {"--config=/tmp", 78, "not a regular file"},
        {"--config=/tmp/101", 78, "not 101"},
        {"--module-dir=/dev/null", 72, "Not a directory"},
        {"--log-dir=/none", 72, "/none"},
        {"--report=/dev/null", 73, "Invalid argument"},
        {"--daemon --log-level=loud", 64, "loud"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(each.status, RunAgent(each.options)) << each.options;
        const std::string out = ReadText("/tmp/out");
        EXPECT_EQ(out.size() - 1, out.find('\n')) << out;
        EXPECT_NE(std::string::npos, out.find(each.piece)) << out;
    }

    WriteText("/tmp/policy/p.json", "0");
    auto status = std::async(std::launch::async, [] { return RunAgent("--pidfile=/tmp/pid"); });
    EXPECT_TRUE(Await([&] { return Contents(report) == Strings{"start", "0"}; }));
    const int process = std::atoi(ReadText("/tmp/pid").c_str());
    ASSERT_LT(1, process);
    EXPECT_EQ(75, RunAgent("")) << "a second one";
    fs::rename(report, report + ".1");
    kill(process, SIGHUP);
    // The signal takes its time: reports may go to the old file for a while, but never to none.
    const auto reports = [&] { return Contents(report + ".1").size() + Contents(report).size(); };
    std::size_t tasks = 2;
    for (; tasks < 20 && !fs::exists(report); ++tasks) {
        WriteText("/tmp/policy/p.json", std::to_string(tasks));
        ASSERT_TRUE(Await([&] { return reports() == tasks + 1; }));
    }
    kill(process, SIGTERM);
    EXPECT_EQ(0, status.get());
    // What the tasks send while they end is in the file as well.
    EXPECT_EQ(2 * tasks, reports());
    EXPECT_EQ("end", Contents(report).back());
}

}  // namespace
