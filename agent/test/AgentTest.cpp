#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <map>
#include <regex>

#include "agent/PolicyDirectory.h"
#include "agent/ReportTask.h"
#include "sdk/JsonUtils.h"
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

// An empty directory while it lives.
class Folder {
public:
    Folder() { path_ = mkdtemp(path_.data()); }
    ~Folder() { fs::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& Path() const { return path_; }

private:
    std::string path_ = "/tmp/agent_test.XXXXXX";
};

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
    using std::string_literals::operator""s;
    struct Case {
        const char* label;
        std::string text;
        std::string content;
    };
    const std::string deep = std::string(998, '[') + std::string(998, ']');
    const std::vector<Case> kCases = {
        {"object", R"({"a":1})", R"({"a":1})"},
        {"object over several lines", "\n{ \"b\" : [ 1,\n{} ] }\r\n", R"({"b":[1,{}]})"},
        {"object with bytes that are not UTF-8", "{\"a\":\"\xff\"}", R"({"a":"\ufffd"})"},
        {"object cut short", R"({"a":)", R"("{\"a\":")"},
        {"array", "[1,2]", R"("[1,2]")"},
        {"nothing", "", R"("")"},
        {"text, newline at the end", "a \"b\" \\\n", R"("a \"b\" \\\n")"},
        {"control bytes", "\0\x01\r\t\x1b[2J"s, R"("\u0000\u0001\r\t\u001b[2J")"},
        {"UTF-8", "\xc3\xbc\xe2\x80\xa8\xf0\x9f\x98\x80", R"("\u00fc\u2028\ud83d\ude00")"},
        {"not UTF-8", "\xc3(\xff \xed\xa0\x80", R"("\ufffd(\ufffd \ufffd\ufffd\ufffd")"},
        {"cut off in a character", "x\xe2\x82", R"("x\ufffd")"},
        {"nested", "{\"a\":" + deep + "}", "{\"a\":" + deep + "}"},
        {"nested too deep", "{\"a\":[[" + deep + "]]}", R"("{\"a\":[[)" + deep + R"(]]}")"},
    };
    const std::regex kTime(R"(\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z",)");
    for (const Case& each : kCases) {
        SCOPED_TRACE(each.label);
        const std::string line = FormatReport(DataMessage("ty\"pe\xff", each.text), "ho\nst");
        const std::size_t rest = line.find(',') + 1;
        EXPECT_TRUE(std::regex_match(line.substr(0, rest), kTime)) << line.substr(0, rest);
        EXPECT_EQ(
            R"("host":"ho\nst","task":"","type":"ty\"pe\ufffd","content":)" + each.content + "}",
            line.substr(rest));
        Json::Value parsed;
        EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), parsed));
    }
}

TEST(ReportTask, AppendsAndFollowsARotation) {
    const Folder folder;
    const std::string path = folder / "report";
    WriteText(path, FormatReport(DataMessage("", "before"), "") + "\n");
    Poco::AutoPtr<ReportTask> task(new ReportTask(path));
    ASSERT_TRUE(task->Open());
    const auto report = [&](const std::string& text) {
        const DataMessage message("type", text);
        task->HandleMsg(&message);
    };
    report("1");
    fs::rename(path, path + ".1");
    report("2");
    task->Reopen();
    report("3");
    EXPECT_EQ((Strings{"before", "1", "2"}), Contents(path + ".1"));
    EXPECT_EQ(Strings{"3"}, Contents(path));
    ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
    for (const std::string bad : {"fifo", "no/such/folder", "."}) {
        EXPECT_FALSE(Poco::AutoPtr<ReportTask>(new ReportTask(folder / bad))->Open()) << bad;
    }
}

TEST(ReportTask, TriesAgainWhileTheDiskIsFullAndLeavesNoTornLine) {
    const Folder folder;
    ASSERT_EQ(0, mount("small", folder.Path().c_str(), "tmpfs", 0, "size=64k"));
    const auto fill = [&] { WriteText(folder / "filler", std::string(65536, 'x')); };
    const LogCapture log("watchpost");
    const std::string path = folder / "report";
    // Each line is more than is left of its last page of the disk, so that a part of it fits.
    const std::string a(3000, 'a');
    const std::string b(3000, 'b');
    const std::string c(3000, 'c');
    Poco::AutoPtr<ReportTask> task(new ReportTask(path));
    ASSERT_TRUE(task->Open());
    ASSERT_TRUE(engine.StartTask(task));
    const auto report = [&](const std::string& text) {
        std::shared_ptr<Framework::Message> message = std::make_shared<DataMessage>("", text);
        EXPECT_EQ(Framework::EnqueueResult::kQueued, task->EnqueueMsg(message));
    };
    const auto becomes = [&](const Strings& expected) {
        return Await([&] { return Contents(path) == expected; });
    };
    report(a);
    EXPECT_TRUE(becomes({a}));
    fill();
    report(b);
    report(c);
    EXPECT_TRUE(Await([&] { return log.Holding("3 report file " + path) == 1; }));
    EXPECT_TRUE(becomes({a}));
    fs::remove(folder / "filler");
    EXPECT_TRUE(becomes({a, b, c}));
    EXPECT_TRUE(Await([&] { return log.Holding("is written again") == 1; }));

    fill();
    report(a);
    report(b);
    EXPECT_TRUE(Await([&] { return log.Holding("cannot be written, trying again") == 2; }));
    engine.StopTask(ReportTask::kName);
    EXPECT_EQ((Strings{a, b, c}), Contents(path));
    EXPECT_EQ(1, log.Count("3 report file " + path + ": 2 reports lost at the stop"));
    EXPECT_EQ(0, umount2(folder.Path().c_str(), MNT_DETACH));
}

// Watches a directory; keeps what is delivered as "NAME CONTENT".
class WatchedFolder : public Folder {
public:
    void Watch() {
        watcher_ = std::make_unique<PolicyDirectory>(
            Path(), [this](const std::string& name, const std::string& content) {
                const std::lock_guard<std::mutex> lock(mutex_);
                delivered_.push_back(name + " " + content.substr(0, 100));
            });
    }
    Strings Delivered() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return delivered_;
    }
    bool Becomes(const Strings& expected) const {
        return Await([&] { return Delivered().size() >= expected.size(); }) &&
               Delivered() == expected;
    }
    void Move(const std::string& name, const std::string& content) const {
        WriteText(*this / "moving", content);
        fs::rename(*this / "moving", *this / name);
    }

private:
    mutable std::mutex mutex_;
    Strings delivered_;
    std::unique_ptr<PolicyDirectory> watcher_;
};

TEST(PolicyDirectory, DeliversInNameOrderAndStepsOverWhatItCannotRead) {
    constexpr std::uintmax_t kLimit = 1048576;
    WatchedFolder folder;
    WriteText(folder / "z.json", "last");
    WriteText(folder / "a.json", "first");
    WriteText(folder / "b.txt", "no policy");
    WriteText(folder / "m.json", "largest");
    fs::resize_file(folder / "m.json", kLimit);
    WriteText(folder / "large.json", "too large");
    fs::resize_file(folder / "large.json", kLimit + 1);
    fs::create_directory(folder / "directory.json");
    fs::create_symlink("nowhere", folder / "dangling.json");
    ASSERT_EQ(0, mkfifo((folder / "fifo.json").c_str(), 0600));
    const LogCapture log("watchpost");
    folder.Watch();
    Strings expected{"a.json first", "m.json largest" + std::string(93, '\0'), "z.json last"};
    EXPECT_TRUE(folder.Becomes(expected));
    folder.Move("zz.json", "later");
    expected.emplace_back("zz.json later");
    EXPECT_TRUE(folder.Becomes(expected)) << testing::PrintToString(folder.Delivered());
    for (const std::string name : {"large", "directory", "dangling", "fifo"}) {
        EXPECT_EQ(1, log.Holding("3 policy file " + folder / name + ".json cannot be read: "))
            << name;
    }
    EXPECT_EQ(4U, log.Lines().size());
}

TEST(PolicyDirectory, DeliversWhatHasChangedAndNothingElse) {
    WatchedFolder folder;
    folder.Watch();
    Strings expected;
    const auto delivers = [&](const std::string& line) {
        expected.push_back(line);
        return folder.Becomes(expected);
    };
    folder.Move("a.json", "1");
    EXPECT_TRUE(delivers("a.json 1"));
    WriteText(folder / "a.json", "2");
    EXPECT_TRUE(delivers("a.json 2"));
    // Written again with the same content, by both ways: only the file beside it is delivered.
    WriteText(folder / "a.json", "2");
    folder.Move("b.json", "1");
    EXPECT_TRUE(delivers("b.json 1"));
    folder.Move("a.json", "2");
    fs::remove(folder / "b.json");
    folder.Move("c.json", "1");
    EXPECT_TRUE(delivers("c.json 1"));
    folder.Move("b.json", "1");
    EXPECT_TRUE(delivers("b.json 1"));
    EXPECT_EQ(expected, folder.Delivered());
}

TEST(PolicyDirectory, WaitsForAWriterThatPauses) {
    WatchedFolder folder;
    WriteText(folder / "a.json", "");
    folder.Watch();
    EXPECT_TRUE(folder.Becomes({"a.json "}));
    // A busy machine may stretch the pause to what passes for the end of the writing; only a short
    // one counts.
    for (int attempt = 0; attempt < 50; ++attempt) {
        const std::string name = std::to_string(attempt) + ".json";
        const Strings before = folder.Delivered();
        const auto start = std::chrono::steady_clock::now();
        std::ofstream file(folder / name);
        file << "first " << std::flush;
        std::this_thread::sleep_for(std::chrono::milliseconds(80));
        file << "second" << std::flush;
        const auto taken = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(Await([&] { return folder.Delivered().back() == name + " first second"; }));
        if (taken < std::chrono::milliseconds(150)) {
            EXPECT_EQ(before.size() + 1, folder.Delivered().size());
            return;
        }
    }
    FAIL() << "no pause was short enough";
}

// A place for the agent's executable to run in, with the sound module.
class Program : public testing::Test {
protected:
    Program() {
        for (const char* const name : {"module", "policy", "log"}) {
            fs::create_directory(home_ / name);
        }
        fs::copy_file(SOUND_MODULE, home_ / "module/sound.so");
        WriteText(home_ / "w.properties", "");
    }
    // Runs the agent, a minute at most, its output in the files "out" and "err". Its exit status.
    int Run(const std::string& words) const {
        const int status = std::system(("timeout -s KILL 60 " WATCHPOST_PROGRAM " " + words + " >" +
                                        home_ / "out" + " 2>" + home_ / "err")
                                           .c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // The options of a good start but for those replaced.
    std::string Options(std::map<std::string, std::string> options) const {
        options.insert({{"config", home_ / "w.properties"},
                        {"module-dir", home_ / "module"},
                        {"policy-dir", home_ / "policy"},
                        {"log-dir", home_ / "log"}});
        std::string words;
        for (const auto& [name, value] : options) {
            words += " --" + name + "=" + value;
        }
        return words;
    }
    std::string Out() const { return ReadText(home_ / "out"); }
    std::string Err() const { return ReadText(home_ / "err"); }

    const Folder home_;
};

TEST_F(Program, ABadStartIsOneLineAndAStatus) {
    WriteText(home_ / "half.properties", "cpu.limit.percent=half\n");
    WriteText(home_ / "101.properties", "cpu.limit.percent=101\n");
    const std::string none = home_ / "none";
    struct Case {
        const char* label;
        std::map<std::string, std::string> replaced;
        const char* more;
        int status;
        std::string piece;
    };
    const std::vector<Case> kCases = {
        {"unknown option", {}, "--bogus", 78, "bogus"},
        {"option without argument", {}, "--report", 78, "report"},
        {"option twice", {}, "--log-dir=/tmp", 78, "log-dir"},
        {"stray argument", {}, "stray", 64, "stray"},
        {"no configuration file", {{"config", none}}, "", 78, none},
        {"configuration a directory", {{"config", home_.Path()}}, "", 78, home_.Path()},
        {"configuration without a name", {{"config", ""}}, "", 78, ""},
        {"no module directory", {{"module-dir", none}}, "", 72, none},
        {"module directory a file", {{"module-dir", home_ / "w.properties"}}, "", 72, "Not a dir"},
        {"no policy directory", {{"policy-dir", none}}, "", 72, none},
        {"no log directory", {{"log-dir", none}}, "", 72, none},
        {"report file a directory", {{"report", home_.Path()}}, "", 73, "Is a directory"},
        {"bad log level", {{"log-level", "loud"}}, "", 64, "loud"},
        {"bad log level, in the background", {{"log-level", "loud"}}, "--daemon", 64, "loud"},
        {"limit no number", {{"config", home_ / "half.properties"}}, "", 78, "not half"},
        {"limit 101", {{"config", home_ / "101.properties"}}, "", 78, "not 101"},
    };
    for (const Case& each : kCases) {
        SCOPED_TRACE(each.label);
        EXPECT_EQ(each.status, Run(Options(each.replaced) + " " + each.more));
        EXPECT_EQ(Err().size() - 1, Err().find('\n')) << Err();
        EXPECT_NE(std::string::npos, Err().find(each.piece)) << Err();
        EXPECT_EQ("", Out());
    }
    for (const char* const option : {"--help", "--version"}) {
        EXPECT_EQ(0, Run(option)) << option;
        EXPECT_NE(std::string::npos, Out().find("watchpost"));
        EXPECT_EQ("", Err());
    }
}

TEST_F(Program, DeliversReopensAndStopsInOrder) {
    const std::string path = home_ / "report";
    // Options go before the file.
    WriteText(home_ / "w.properties", "policy.dir=/none\nreport.file=" + path + "\n");
    WriteText(home_ / "policy/p.json", "0");
    auto status = std::async(std::launch::async, [&] {
        return Run(Options({{"pidfile", home_ / "pid"}}));
    });
    Strings expected{"start", "0"};
    EXPECT_TRUE(Await([&] { return Contents(path) == expected; })) << Err();
    const int process = std::atoi(ReadText(home_ / "pid").c_str());
    ASSERT_LT(1, process);
    const std::string line = ReadText(path);
    EXPECT_NE(std::string::npos,
              line.find(R"("task":"start","type":"fixture","content":"start"})"));
    EXPECT_EQ(75, Run(Options({})));
    const std::string refusal = Err();
    EXPECT_NE(std::string::npos, refusal.find("another watchpost runs")) << refusal;

    fs::rename(path, path + ".1");
    kill(process, SIGHUP);
    // The signal takes its time: reports may go to the old file for a while, but never to none.
    const auto all = [&] {
        Strings contents = Contents(path + ".1");
        const Strings newer = Contents(path);
        contents.insert(contents.end(), newer.begin(), newer.end());
        return contents;
    };
    for (int i = 1; i < 20 && !fs::exists(path); ++i) {
        expected.push_back(std::to_string(i));
        WriteText(home_ / "policy/p.json", expected.back());
        ASSERT_TRUE(Await([&] { return all() == expected; })) << testing::PrintToString(all());
    }
    EXPECT_TRUE(fs::exists(path));
    kill(process, SIGTERM);
    EXPECT_EQ(0, status.get());
    // What the tasks send while they end is in the file as well.
    expected.insert(expected.end(), expected.size(), "end");
    EXPECT_EQ(expected, all());
    EXPECT_EQ(refusal, Out() + Err());
}

}  // namespace
