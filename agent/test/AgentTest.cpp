#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <regex>
#include <set>

#include "agent/PolicyDirectory.h"
#include "agent/ReportTask.h"
#include "agent/Signals.h"
#include "module/module_procs/src/ProcsFullTask.h"
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

// The contents of a file's reports.
Strings Contents(const std::string& path) {
    std::ifstream file(path);
    Strings contents;
    for (std::string line; std::getline(file, line);) {
        Json::Value report;
        SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), report);
        contents.push_back(SDK::JsonUtils::GetStringValue(report, "content", line));
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
        const std::string line = FormatReport(DataMessage("ty\"pe\xff", text), "ho\nst", "1f-7");
        EXPECT_EQ(R"("host":"ho\nst","task":"","type":"ty\"pe\ufffd","content":)" + content +
                      R"(,"id":"ho\nst-1f-7"})",
                  line.substr(line.find(',') + 1));
        Json::Value parsed;
        EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), parsed));
    }
}

TEST(ReportTask, TriesAgainWhileTheFileCannotBeWrittenAndCountsWhatItDoes) {
    const TempDir folder;
    ASSERT_EQ(0, mount("small", (folder / "").c_str(), "tmpfs", 0, "size=64k"));
    const auto fill = [&] { WriteText(folder / "filler", std::string(65536, 'x')); };
    const LogCapture log("watchpost");
    const std::string path = folder / "report";
    // Each line is more than is left of its last page of the disk, so that a part of it fits.
    const std::string a(3000, 'a');
    const std::string b(3000, 'b');
    Signals::Install();
    Poco::AutoPtr<ReportTask> task(new ReportTask(path));
    ASSERT_EQ(0, task->Open());
    ASSERT_TRUE(engine.StartTask(task));
    const auto report = [&](const std::string& text, const std::string& type = "") {
        std::shared_ptr<Framework::Message> message = std::make_shared<DataMessage>(type, text);
        task->EnqueueMsg(message);
    };
    const auto becomes = [&](const Strings& expected) {
        return Await([&] { return Contents(path) == expected; });
    };
    report(a);
    EXPECT_TRUE(becomes({a}));
    fill();
    report(b);
    EXPECT_TRUE(
        Await([&] { return log.Holding("cannot be written, trying again: No space") == 1; }));
    EXPECT_TRUE(becomes({a}));
    EXPECT_TRUE(task->Counts().failing);
    fs::remove(folder / "filler");
    EXPECT_TRUE(becomes({a, b}));
    // A limit of the size that files may have.
    struct rlimit usual = {};
    getrlimit(RLIMIT_FSIZE, &usual);
    const struct rlimit tight = {fs::file_size(path), usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tight);
    report(a);
    EXPECT_TRUE(Await([&] { return log.Holding("trying again: File too large") == 1; }));
    setrlimit(RLIMIT_FSIZE, &usual);
    EXPECT_TRUE(becomes({a, b, a}));
    ReportCounts counts = task->Counts();
    EXPECT_EQ(3U, counts.lines);
    EXPECT_EQ(fs::file_size(path), counts.bytes);
    EXPECT_LT(1U, counts.failures);
    EXPECT_FALSE(counts.failing);
    for (int i = 1; i < 102; ++i) {
        report("", std::to_string(i));
    }
    EXPECT_TRUE(Await([&] { return task->Counts().lines == 104; }));
    counts = task->Counts();
    EXPECT_EQ(101U, counts.by_type.size());
    EXPECT_EQ(2U, counts.by_type["other"]);
    std::ifstream lines(path);
    std::set<std::string> ids;
    for (std::string line; std::getline(lines, line);) {
        ids.insert(line.substr(line.rfind(':')));
    }
    EXPECT_EQ(104U, ids.size());
    // A stop tries what may still fit, and does not spend its time on what cannot.
    fill();
    report(a);
    EXPECT_TRUE(Await([&] { return log.Holding("cannot be written, trying again: No sp") == 2; }));
    for (int i = 0; i < 6; ++i) {
        report(std::string(10000, 'x'));
    }
    report("c");
    counts = task->Counts();
    engine.StopTask(ReportTask::kName);
    EXPECT_GE(counts.failures + 2, task->Counts().failures) << "of the first one alone";
    EXPECT_EQ("c", Contents(path).back());
    EXPECT_EQ(1, log.Holding(": 7 reports lost at the stop"));
    EXPECT_EQ(0, umount2((folder / "").c_str(), MNT_DETACH));
}

TEST(PolicyDirectory, DeliversWhatIsReadableWholeAndChangedAndSettlesEachTime) {
    const TempDir folder;
    const LogCapture log("watchpost");
    const auto start = std::chrono::steady_clock::now();
    folder.Run(
        "mkdir policy; cd policy; printf 1 | tee z.json a.json b.txt >half.json;"
        "mkfifo fifo.json; truncate -s 1048577 large.json");
    std::mutex mutex;
    std::string told;
    std::string settled;
    std::atomic<int> scans{0};
    const std::string path = folder / "policy";
    std::optional<PolicyDirectory> watcher(
        std::in_place, path,
        [&](const auto& name, const auto& content) { told += name + " " + content + ";"; },
        [&] {
            const std::lock_guard<std::mutex> lock(mutex);
            settled = told;
            ++scans;
        },
        [&](const auto& name, const auto& why) { told += "- " + name + " " + why + ";"; });
    // A writer that pauses. On a busy machine the pause may pass for the end of the writing.
    folder.Run("sleep 0.08; printf 2 >>policy/half.json");
    const bool slow = std::chrono::steady_clock::now() - start > std::chrono::milliseconds(150);
    const std::regex half(slow ? "half[^;]*;" : "never");
    std::string expected;
    const std::pair<std::string, std::string> steps[] = {
        {"true", std::string("a.json 1;- fifo.json Invalid argument;") +
                     (slow ? "" : "half.json 12;") + "- large.json File too large;z.json 1;"},
        {"printf 1 >a.json; printf 2 >z.json", "z.json 2;"},
        {"rm a.json", "- a.json ;"},
        {"printf 1 >a.json", "a.json 1;"},
        {"printf 3 >../moving; mv ../moving z.json", "z.json 3;"},
        {"printf 4 >../moving; chmod 664 ../moving; mv ../moving others.json",
         "- others.json others than its owner may write it (mode 0664);"},
        {"chown 1000 others.json; touch new.txt",
         "- others.json it belongs to user 1000, not to root;"},
        {"chown 0 others.json; chmod 644 others.json; printf 5 >others.json", "others.json 5;"},
        {"mv others.json ..", "- others.json ;"},
        {"mkdir ../user; chown 1000 ../user; printf 6 >../user/file; ln -s ../user/file link.json",
         "- link.json it stands in " + (folder / "user") +
             ", and it belongs to user 1000, not to root;"},
    };
    for (const auto& [commands, news] : steps) {
        folder.Run("cd policy; " + commands);
        expected += news;
        const auto as_expected = [&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return std::regex_replace(settled, half, "") == expected;
        };
        // Sooner than the scan that needs no event, where the machine has the time.
        EXPECT_TRUE(Await(as_expected, std::chrono::seconds(slow ? 30 : 4))) << commands << "\n"
                                                                             << settled;
    }
    EXPECT_EQ(5, log.Holding("3 policy file " + path));
    // The watcher follows the directory, so that a file in it is the event for a scan.
    const auto scan = [&](const std::string& commands) {
        const int already = scans;
        folder.Run(commands);
        EXPECT_TRUE(Await([&] { return scans > already; }));
    };
    scan("mv policy away; touch away/one.txt");
    scan("touch away/two.txt");
    EXPECT_EQ(1, log.Holding(path + " cannot be read: "));
    scan("mv away policy; touch policy/three.txt");
    EXPECT_EQ(1, log.Holding("6 policy directory " + path + " is read again"));
    scan("chmod 777 policy; touch policy/four.txt");
    EXPECT_EQ(1, log.Holding(path + " cannot be read: others than its owner may write it"));
    const auto end = std::chrono::steady_clock::now();
    watcher.reset();
    EXPECT_GT(std::chrono::seconds(3), std::chrono::steady_clock::now() - end)
        << "no wait for a scan";
}

// The process table that modules get is the kernel's, whatever a process calls itself.
TEST(ProcsFullTask, TellsTheNamesThatTheKernelKnows) {
    const TempDir folder;
    Poco::AutoPtr<Engine::ProcsFullTask> task(new Engine::ProcsFullTask);
    ASSERT_TRUE(engine.StartTask(task));
    folder.Run("cp /bin/sleep 'a) longer name' && './a) longer name' 60 &");
    std::map<int, std::shared_ptr<Engine::ProcsMessage::procInfo>> processes;
    EXPECT_TRUE(Await([&] {
        task->GetProcsMap(processes);
        return std::any_of(processes.begin(), processes.end(), [](const auto& process) {
            return process.second->name == "a) longer name";
        });
    }));
    EXPECT_EQ("agent_test", processes.at(getpid())->name);
    EXPECT_EQ(getpid(), processes.at(getpid())->pid);
    engine.StopTask("procs_full_task");
}

// Runs the agent, or the command that the options begin with, a minute at most and after `first`,
// its output in the file "out". Its exit status.
int RunAgent(const std::string& options, const std::string& first = "") {
    const std::string program = first + "timeout -s KILL 60 '" WATCHPOST_PROGRAM "' ";
    const int status = std::system((program + options + " >/tmp/out 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Program, ABadStartIsOneLineAndAStatusAndADaemonStopsInOrder) {
    const std::string home = "/usr/local/watchpost/";
    const std::string report = "/tmp/watchpost_report.jsonl";
    for (const std::string& path : {home + "module", home + "conf", home + "log"}) {
        fs::create_directories(path);
    }
    fs::create_directory("/tmp/policy");
    fs::copy_file(SOUND_MODULE, home + "module/sound.so");
    fs::create_directory("/run/user");
    WriteText("/run/user/conf", "");
    WriteText("/run/others", "");
    EXPECT_EQ(0, chown("/run/user", 1000, 0) + chmod("/run/others", 0646));
    WriteText(home + "conf/watchpost.properties", "policy.dir=/tmp/policy\nreport.file=/none/r");
    const struct {
        std::string options;
        int status;
        std::string piece;
        std::string configuration = {};
    } cases[] = {
        {"--bogus", 64, "bogus"},
        {"--umask=000", 64, "umask"},
        {"--log=/tmp", 64, "Ambiguous"},
        {"--report", 64, "requires FILE"},
        {"stray", 64, "unknown command stray"},
        {"status stray", 64, "stray; see watchpost status --help"},
        {"status --daemon", 64, "daemon"},
        {"check /run/others", 69, "no module takes policies"},
        {"status --config=/none", 78, "/none"},
        {"--log-level='loud\ner'", 64, "--log-level must be error, warning, notice"},
        {"--config=/none", 78, "/none"},
        {"--config=/run/user/conf", 77, "it stands in /run/user, and it belongs to user 1000"},
        {"--config=/run/others", 77, "others than its owner may write it (mode 0646)"},
        {"", 77, "module.dir /run/user: it belongs to user 1000, not to root",
         "module.dir = /run/user"},
        {"--module-dir=/tmp", 77,
         "module.dir /tmp: others than its owner may write it (mode 1777)"},
        {"--policy-dir=/run/user", 77, "policy.dir /run/user: it belongs to user 1000"},
        {"--config=/tmp", 78, "Is a directory"},
        {"", 78, "line 2: cpu.limit.percent must be a number", "\ncpu.limit.percent=101"},
        {"", 78, "line 2: unknown key x", "cpu.limit.percent=100\nx=1"},
        {"", 78, "line 1: log.level must be error, warning", "log.level = loud"},
        {"", 78, "line 2: unknown key log.lvel", "# log.lvl\nlog.lvel = debug"},
        {"", 78, "line 1: unknown key pidfile", "pidfile = /tmp/pid"},
        {"", 78, "line 2: unknown key sound.volumes", "policy.dir=/tmp/policy\nsound.volumes=1"},
        {"", 78, "line 2: sound.volume is set a second time", "sound.volume=1\nsound.volume=1"},
        {"", 78, "line 2: not KEY = VALUE: log.dir", "! =\n log.dir"},
        {"", 78, "line 2: log.dir is set a second time", "log.dir=/tmp\nlog.dir=/tmp"},
        {"--module-dir=/dev/null", 72, "Not a directory"},
        {"--log-dir=/none", 72, "/none"},
        {"--report=/dev/null", 73, "Invalid argument"},
        {"--pidfile=/none/pid", 73, "/none/pid"},
        {"--pidfile=/tmp/pid", 73, "/none/r"},
        {"--daemon", 73, "/none/r"},
    };
    for (const auto& each : cases) {
        WriteText("/tmp/conf", each.configuration);
        const std::string options =
            each.configuration.empty() ? each.options : "--config=/tmp/conf";
        EXPECT_EQ(each.status, RunAgent(options)) << options;
        const std::string out = ReadText("/tmp/out");
        EXPECT_EQ(0U, out.find("watchpost: ")) << out;
        EXPECT_EQ(out.size() - 1, out.find('\n')) << out;
        EXPECT_NE(std::string::npos, out.find(each.piece)) << out;
        EXPECT_EQ(each.status == 64, out.find("--help") != std::string::npos) << out;
    }
#ifndef __SANITIZE_THREAD__  // which starts again with a limit of its own
    EXPECT_EQ(71, RunAgent("--report=/tmp/r", "ulimit -s 100000000000 && "))
        << "no room for a thread's stack";
#endif
    RunAgent("--help | grep -o '^--[a-z-]*' | sort | tr '\\n' ' '");
    EXPECT_EQ(
        "--config --daemon --help --log-dir --log-level --module-dir --pidfile --policy-dir "
        "--report --version ",
        ReadText("/tmp/out"));

    EXPECT_FALSE(fs::exists("/tmp/pid")) << "of the starts that failed";
    EXPECT_EQ(2, RunAgent("sing a --module-dir=" + home + "module b")) << "two arguments";

    // Options go before the file. A daemon takes paths from the directory of its start, and opens
    // the most of them later.
    WriteText("/tmp/policy/p.json", "0");
    WriteText("/tmp/conf", "policy.dir=/none\nlog.dir=.\nsound.volume=1");
    fs::current_path("/tmp");
    EXPECT_EQ(0, RunAgent("--daemon --config=conf --policy-dir=policy --pidfile=pid"));
    fs::current_path("/");
    EXPECT_TRUE(Await([&] { return Contents(report) == Strings{"start1", "0"}; }));
    const int process = std::atoi(ReadText("/tmp/pid").c_str());
    ASSERT_LT(1, process);
    EXPECT_EQ(process, getsid(process));
    EXPECT_EQ("/dev/null", fs::read_symlink("/proc/" + std::to_string(process) + "/fd/2"));
    EXPECT_EQ("/", fs::read_symlink("/proc/" + std::to_string(process) + "/cwd"));
    EXPECT_EQ(75, RunAgent("--log-dir=/tmp --pidfile=/tmp/pid")) << "a second one";
    EXPECT_EQ(process, std::atoi(ReadText("/tmp/pid").c_str()));
    fs::rename(report, report + ".1");
    kill(process, SIGHUP);
    WriteText("/tmp/policy/p.json", "1");
    EXPECT_TRUE(Await([&] { return fs::exists(report); }));
    WriteText("/tmp/pid", "1\n");
    kill(process, SIGTERM);
    EXPECT_TRUE(Await([&] { return kill(process, 0) != 0; }));
    EXPECT_EQ("1\n", ReadText("/tmp/pid")) << "another's by now";
    // What the tasks send while they end is in the file as well.
    EXPECT_EQ(6U, Contents(report + ".1").size() + Contents(report).size());
    EXPECT_EQ("end", Contents(report).back());
    const std::string log = ReadText("/tmp/watchpost.log");
    EXPECT_NE(std::string::npos, log.find("watchpost has stopped"));
    EXPECT_EQ(std::string::npos, log.find("[Debug]"));
}

}  // namespace
