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
    ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
    EXPECT_FALSE(Poco::AutoPtr<ReportTask>(new ReportTask(folder / "fifo"))->Open());
    EXPECT_EQ(0, umount2((folder / "").c_str(), MNT_DETACH));
}

TEST(PolicyDirectory, DeliversInNameOrderWhatIsReadableWholeAndChanged) {
    const TempDir folder;
    const LogCapture log("watchpost");
    WriteText(folder / "z.json", "last");
    WriteText(folder / "a.json", "first");
    WriteText(folder / "b.txt", "no policy");
    WriteText(folder / "large.json", "too large");
    fs::resize_file(folder / "large.json", 1048577);
    ASSERT_EQ(0, mkfifo((folder / "fifo.json").c_str(), 0600));
    std::mutex mutex;
    Strings delivered;
    const PolicyDirectory watcher(folder / ".",
                                  [&](const std::string& name, const std::string& content) {
                                      const std::lock_guard<std::mutex> lock(mutex);
                                      delivered.push_back(name + " " + content);
                                  });
    Strings expected{"a.json first"};
    const auto delivers = [&](const std::string& line) {
        expected.push_back(line);
        return Await([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return delivered.size() >= expected.size();
        });
    };
    EXPECT_TRUE(delivers("z.json last"));
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
    // A writer that pauses. A busy machine may stretch the pause to what passes for the end of the
    // writing; only a short one counts.
    std::ofstream file(folder / "half.json");
    auto pause = std::chrono::steady_clock::now().time_since_epoch();
    file << "first " << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    file << "second" << std::flush;
    pause = std::chrono::steady_clock::now().time_since_epoch() - pause;
    EXPECT_TRUE(delivers("half.json first second"));
    for (const std::string name : {"large", "fifo"}) {
        EXPECT_EQ(1, log.Holding("3 policy file " + (folder / ".") + "/" + name +
                                 ".json cannot be read: "));
    }
    const std::lock_guard<std::mutex> lock(mutex);
    EXPECT_TRUE(delivered == expected || pause > std::chrono::milliseconds(150))
        << testing::PrintToString(delivered);
}

// A place for the agent's executable to run in, with the sound module.
class Program : public testing::Test {
protected:
    Program() {
        for (const char* const name : {"module", "policy", "log"}) {
            fs::create_directory(home_ / name);
        }
        fs::copy_file(SOUND_MODULE, home_ / "module/sound.so");
        // Options go before the file.
        WriteText(home_ / "w.properties", "policy.dir=/none\nreport.file=" + report_ + "\n");
    }
    // Runs the agent, a minute at most. `options` come after those of a good start, less `without`.
    // Its exit status; its output is then in the file "out".
    int Run(const std::string& options, const std::string& without = "") const {
        std::string command = "timeout -s KILL 60 " WATCHPOST_PROGRAM " " + options;
        for (const std::string name : {"config", "module-dir", "policy-dir", "log-dir"}) {
            const std::string path =
                name == "config" ? "w.properties" : name.substr(0, name.find('-'));
            command += name == without ? "" : " --" + name + "=" + home_ / path;
        }
        const int status = std::system((command + " >" + home_ / "out" + " 2>&1").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    const TempDir home_;
    const std::string report_ = home_ / "report";
};

TEST_F(Program, ABadStartIsOneLineAndAStatus) {
    WriteText(home_ / "101.properties", "cpu.limit.percent=101\n");
    WriteText(home_ / "half.properties", "cpu.limit.percent=half\n");
    const struct {
        std::string option;
        std::string value;
        int status;
        std::string piece;
    } cases[] = {
        {"bogus", "", 78, "bogus"},
        {"config", "none", 78, "none"},
        {"config", ".", 78, "not a regular file"},
        {"config", "101.properties", 78, "not 101"},
        {"config", "half.properties", 78, "not half"},
        {"module-dir", "none", 72, "none"},
        {"policy-dir", "w.properties", 72, "Not a directory"},
        {"log-dir", "none", 72, "none"},
        {"report", ".", 73, "Is a directory"},
        {"log-level", "loud", 64, "loud"},
        {"daemon --log-level", "loud", 64, "loud"},
    };
    for (const auto& each : cases) {
        const std::string option =
            "--" + each.option + (each.value.empty() ? "" : "=" + home_ / each.value);
        EXPECT_EQ(each.status, Run(option, each.option)) << option;
        const std::string out = ReadText(home_ / "out");
        EXPECT_EQ(out.size() - 1, out.find('\n')) << out;
        EXPECT_NE(std::string::npos, out.find(each.piece)) << out;
    }
}

TEST_F(Program, DeliversReopensAndStopsInOrder) {
    WriteText(home_ / "policy/p.json", "0");
    auto status = std::async(std::launch::async, [&] { return Run("--pidfile=" + home_ / "pid"); });
    Strings expected{"start", "0"};
    EXPECT_TRUE(Await([&] { return Contents(report_) == expected; }));
    const int process = std::atoi(ReadText(home_ / "pid").c_str());
    ASSERT_LT(1, process);
    EXPECT_EQ(75, Run(""));
    fs::rename(report_, report_ + ".1");
    kill(process, SIGHUP);
    // The signal takes its time: reports may go to the old file for a while, but never to none.
    const auto all = [&] {
        Strings contents = Contents(report_ + ".1");
        const Strings newer = Contents(report_);
        contents.insert(contents.end(), newer.begin(), newer.end());
        return contents;
    };
    for (int i = 1; i < 20 && !fs::exists(report_); ++i) {
        expected.push_back(std::to_string(i));
        WriteText(home_ / "policy/p.json", expected.back());
        ASSERT_TRUE(Await([&] { return all() == expected; })) << testing::PrintToString(all());
    }
    EXPECT_TRUE(fs::exists(report_));
    kill(process, SIGTERM);
    EXPECT_EQ(0, status.get());
    // What the tasks send while they end is in the file as well.
    expected.insert(expected.end(), expected.size(), "end");
    EXPECT_EQ(expected, all());
}

}  // namespace
