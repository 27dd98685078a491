// Shell history: users, start-up files, tailing, parsing, pacing, reports; and users who mean harm.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <random>
#include <sstream>
#include <thread>

#include "module/module_rsyslog/src/WorkRecord.h"
#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/JsonUtils.h"

namespace {

namespace fs = std::filesystem;

using Engine::WorkRecord;
using TestSupport::LogCapture;
using TestSupport::NewTask;
using TestSupport::OpenTaskPtr;
using TestSupport::ReadText;
using TestSupport::RunningReceiver;
using TestSupport::WriteText;
using Reports = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;

const char* const kRecordLog = "/var/log/history.log";
const char* const kHistory = "/home/ann/.bash_history";

std::string Account(const std::string& name, const std::string& shell = "/bin/bash") {
    return name + ":x:1000:1000:A user:/home/" + name + ":" + shell + "\n";
}

// A task that collects and reports, on a machine with these users and no history of theirs.
OpenTaskPtr NewHistoryTask(const Strings& users = {"ann"}) {
    std::string accounts;
    for (const auto& user : users) {
        fs::remove_all("/home/" + user);
        fs::create_directories("/home/" + user);
        accounts += Account(user);
    }
    WriteText("/etc/passwd", accounts);
    fs::remove(kRecordLog);
    TestSupport::TestEngine();
    OpenTaskPtr task = NewTask();
    task->cycle_count = 1;  // light cycles
    task->rsyslog_policy.get_history = true;
    task->rsyslog_policy.up_history = true;
    task->rsyslog_policy.history_size = 10;
    task->rsyslog_policy.his_count = 10000;
    task->rsyslog_policy.his_interval = 10000;
    task->rsyslog_policy.history_log_path = kRecordLog;
    return task;
}

std::string Filled(std::size_t length, char byte) {
    return std::string(length, byte);
}

// Runs `work` on a thread of its own; whoever hangs ends the program instead of its deadline.
template <typename Work>
void Within(std::chrono::seconds deadline, const std::string& what, Work work) {
    auto done = std::async(std::launch::async, work);
    if (done.wait_for(deadline) != std::future_status::ready) {
        ADD_FAILURE() << what << " hangs";
        std::_Exit(1);
    }
    done.get();
}

// The "cmd:" part of each line of the record log.
Strings RecordedCommands() {
    Strings commands;
    std::istringstream lines(ReadText(kRecordLog));
    for (std::string line; std::getline(lines, line);) {
        commands.push_back(line.substr(line.find(" cmd:") + 5));
    }
    return commands;
}

// One list over many versions of the password file: `watched` is what each adds to it.
TEST(Users, WhoIsWatched) {
    const std::pair<std::string, Strings> versions[] = {
        {Account("a") + Account("a2", "/bin/sh"), {"a", "a2"}},
        {Account("b", "/sbin/nologin") + Account("c", "/bin/false"), {}},
        {Account("b", "/sbin/nologin2") + Account("c", "/bin/falsehood"), {}},
        {Account("d", "/usr/sbin/nologin") + Account("e", "") + Account("f", "/bin/fals"),
         {"d", "e", "f"}},
        {"+\n-g\nnonsense\n" + Account("g"), {"+", "-g", "g"}},
        {Account("h") + Account("i", "/" + std::string(4096, 's')) + Account("j"), {"h"}},
        {"", {}},
        {"a:x:7:8:Ann:/srv/a:/bin/sh\n", {"a"}},  // moved
    };
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = NewTask();
    Strings expected;
    for (const auto& [accounts, watched] : versions) {
        WriteText("/etc/passwd", accounts);
        task->SyslogGetUserList();
        task->SyslogGetUserList();
        expected.insert(expected.end(), watched.begin(), watched.end());
        Strings names;
        for (const auto& user : task->rsyslog_policy.user_list) {
            names.push_back(user.name);
        }
        EXPECT_EQ(expected, names) << accounts.substr(0, 200);
        EXPECT_EQ(expected.size(), log.Lines().size());
    }
    EXPECT_EQ("8 new name=a, uid=7, gid=8, realname=Ann, dir=/srv/a, shell=/bin/sh",
              log.Lines().back());
    fs::remove("/etc/passwd");
    task->SyslogGetUserList();
    EXPECT_EQ(expected.size(), task->rsyslog_policy.user_list.size());
}

TEST(Profile, WhatIsQuoted) {
    const std::pair<std::string, std::string> cases[] = {
        {"HISTSIZE=4999", "HISTSIZE=4999;"},
        {"HISTSIZE=5000\n", ""},
        {"export HISTSIZE=1000\r\nexport HISTSIZE=10000", "export HISTSIZE=1000;"},
        {"\t HISTFILESIZE=0 \v\n\n\nHISTSIZE=100", "HISTFILESIZE=0;HISTSIZE=100;"},
        {"#HISTSIZE=0\n  # HISTFILE=\nx\n", ""},
        {"HISTSIZE=9000 # HISTFILE", ""},
        {"HISTSIZE", "HISTSIZE;"},
        {"HISTSIZE= = ", "HISTSIZE= =;"},
        {"HISTSIZE = 6000", ""},
        {"HISTSIZE=\t 6000", "HISTSIZE=\t 6000;"},
        {"HISTSIZE=\"10000\"", "HISTSIZE=\"10000\";"},
        {"HISTSIZE=5000x", ""},
        {"HISTSIZE=-1", "HISTSIZE=-1;"},
        {"HISTSIZE=2147483647", ""},
        {"HISTSIZE=2147483648", "HISTSIZE=2147483648;"},
        {"HISTSIZE=4294972296", ""},
        {"HISTSIZE=99999999999999999999", "HISTSIZE=99999999999999999999;"},
        {"HISTSIZE+=9000", "HISTSIZE+=9000;"},
        {"MYHISTSIZE=9000; HISTFILE=x", ""},
        {"echo $HISTFILE HISTSIZE=9000", "echo $HISTFILE HISTSIZE=9000;"},
        {"histsize=1\nHIS\nHI\nST=1", ""},
        {std::string("a\0HISTFILE", 10), std::string("a\0HISTFILE;", 11)},
    };
    const std::string path = "/home/ann/.bashrc";
    const std::string alarm = "user:ann path:" + path + " hist_conf:[";
    for (const auto& [content, quoted] : cases) {
        SCOPED_TRACE(content);
        OpenTaskPtr task = NewHistoryTask();
        WriteText(path, content);
        Engine::user_info user;
        user.name = "ann";
        task->CheckHistoryProfile(user, path);
        EXPECT_EQ(quoted.empty() ? 1U : 2U, task->alarm_time_map.size());
        EXPECT_EQ(quoted.empty() ? 0U : 1U, task->alarm_time_map.count(alarm + quoted + "]"));
    }
}

TEST(Profile, ReadAgainOnlyWhenTouched) {
    OpenTaskPtr task = NewHistoryTask({"root", "ann"});
    const LogCapture log("module_rsyslog");
    const std::string path = "/home/ann/.bashrc";
    const auto cycle = [&](const char* content, std::time_t changed, int alarms) {
        SCOPED_TRACE(content);
        WriteText(path, content);
        const timespec times[2] = {{changed, 0}, {changed, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
        task->BuildHistoryLog();
        EXPECT_EQ(alarms, log.Holding("\"path\":\"/home/ann/.bashrc\""));
    };
    WriteText("/etc/profile", "HISTFILE=\n");
    cycle("HISTSIZE=1", 1000, 1);
    cycle("HISTSIZE=2", 1000, 1);
    cycle("HISTSIZE=3", 999, 2);
    cycle("HISTSIZE=3", 998, 2);
    cycle(Filled(10485761, '=').c_str(), 997, 2);
    cycle("HISTSIZE=4", 997, 3);  // what could not be read is not held against it
    EXPECT_EQ(1, log.Holding(R"("path":"/etc/profile","type":"hist_conf","user":"root")"));
    EXPECT_EQ(6, log.Count("8 file [/home/ann/.bash_profile] no stat."));
}

// The file's state as it is to be remembered, and what a cycle is to find new, with the file's
// content in the place of its hash.
struct TailModel {
    bool ready = false;
    std::string seen;
    std::string tail;

    void Renew(const std::string& content) {
        tail = content.substr(content.size() - std::min<std::size_t>(1024, content.size()));
        tail.resize(std::strlen(tail.c_str()));
        ready = true;
    }
    bool Cycle(const std::string& content, bool exists, Strings& lines) {
        if (!exists) {
            return false;
        }
        if (!ready) {
            Renew(content);
            seen = content;
        }
        if (content == seen || content.empty()) {
            return false;
        }
        std::string kept = content;
        const std::string half = tail.substr(tail.size() / 2);
        if (const auto at = content.find(tail); at != std::string::npos) {
            kept = content.substr(at + tail.size());
        } else if (const auto half_at = content.find(half);
                   half.size() > 20 && half_at != std::string::npos) {
            kept = content.substr(half_at + half.size());
        }
        std::istringstream text(kept);
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        seen = content;
        Renew(content);
        return true;
    }
};

TEST(Tailing, AgreesWithTheModel) {
    std::mt19937 random(20240522);
    const auto below = [&random](std::size_t bound) { return random() % bound; };
    const Strings words = {"ls\n",
                           "\n",
                           "#1700000000\n",
                           "make -j2 all && make install\n",
                           std::string("a\0b\n", 4),
                           "x",
                           std::string(700, 'y') + "\n"};
    int fresh_cycles = 0;
    for (int run = 0; run < 150; ++run) {
        OpenTaskPtr task = NewHistoryTask();
        Engine::user_info user;
        user.history_path = kHistory;
        TailModel model;
        std::string content;
        bool exists = false;
        for (int step = 0; step < 30; ++step) {
            const std::string trace =
                "run " + std::to_string(run) + " step " + std::to_string(step);
            std::string more;
            for (std::size_t i = below(4); i > 0; --i) {
                more += words[below(words.size())];
            }
            const std::size_t action = below(8);
            switch (action) {
                case 0:  // cut at any byte
                    content.resize(below(content.size() + 1));
                    break;
                case 1:  // the last bytes, from a line's start, and more
                    content = content.substr(content.size() / 2);
                    content.erase(0, content.find('\n') + 1).append(more);
                    break;
                case 2:
                    content = more;
                    break;
                case 3:
                    content.insert(0, more);
                    break;
                default:
                    content += more;
            }
            exists = step < 2 ? exists || action > 4 : action != 3 || !more.empty();
            fs::remove(kHistory);
            if (exists) {
                WriteText(kHistory, content);
            }
            Strings expected;
            const bool fresh = model.Cycle(content, exists, expected);
            if (!user.tail_ready) {
                user.tail_ready =
                    task->HistorySetLogPath(user.history_hash, true, user.history_tail, kHistory);
            }
            Strings lines;
            ASSERT_EQ(fresh, task->HistoryTailLogs(lines, user)) << trace;
            ASSERT_EQ(expected, lines) << trace;
            ASSERT_EQ(model.ready, user.tail_ready) << trace;
            ASSERT_EQ(model.tail, user.history_tail) << trace;
            fresh_cycles += fresh ? 1 : 0;
        }
    }
    EXPECT_GT(fresh_cycles, 1000);
}

// A shell that appends all the time to a file that takes long to read.
TEST(Tailing, WhatIsAppendedMeanwhileArrivesOnce) {
    OpenTaskPtr task = NewHistoryTask();
    task->rsyslog_policy.up_history = false;
    std::string old;
    while (old.size() < 8000000) {
        old += "old " + std::to_string(old.size()) + "\n";
    }
    WriteText(kHistory, old);
    task->BuildHistoryLog();
    std::atomic<bool> typing{true};
    Strings typed;
    std::thread shell([&] {
        for (int i = 0; i < 700; ++i) {
            typed.push_back("command " + std::to_string(i));
            const int file = open(kHistory, O_WRONLY | O_APPEND);
            const std::string line = typed.back() + "\n";
            EXPECT_EQ(static_cast<ssize_t>(line.size()), write(file, line.data(), line.size()));
            close(file);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        typing = false;
    });
    while (typing) {
        task->BuildHistoryLog();
    }
    shell.join();
    task->BuildHistoryLog();
    EXPECT_EQ(typed, RecordedCommands());
}

TEST(Tailing, Bounds) {
    struct Case {
        std::size_t size;
        std::int32_t limit;
        bool read;
    };
    constexpr std::size_t kMebi = 1 << 20;
    OpenTaskPtr task = NewHistoryTask();
    for (const Case& c :
         {Case{kMebi, 1, true}, Case{kMebi + 1, 1, false}, Case{0, 1, false}, Case{1, 0, false},
          Case{10 * kMebi, 2047, true}, Case{10 * kMebi + 1, 2047, false}, Case{1, 4096, false},
          Case{1, 2048, true}}) {
        SCOPED_TRACE(std::to_string(c.size) + " in " + std::to_string(c.limit));
        const LogCapture log("module_rsyslog");
        WriteText(kHistory, std::string(c.size, 'x'));
        task->rsyslog_policy.history_size = c.limit;
        Engine::user_info user;
        user.history_path = kHistory;
        Strings lines;
        EXPECT_EQ(c.read, task->HistoryTailLogs(lines, user));  // no baseline: all is new
        EXPECT_EQ(c.read ? 1U : 0U, lines.size());
        EXPECT_EQ(c.read, !user.history_hash.empty());
        EXPECT_FALSE(task->HistoryTailLogs(lines, user));
        EXPECT_EQ(c.read ? 1 : 0,
                  log.Count("8 history file [/home/ann/.bash_history] not change."));
    }
}

TEST(Tailing, WhatCannotBeRead) {
    const LogCapture log("module_rsyslog");
    OpenTaskPtr task = NewHistoryTask();
    Engine::user_info user;
    Strings lines;
    EXPECT_FALSE(task->HistoryTailLogs(lines, user));
    for (const char* path : {static_cast<const char*>(nullptr), "", "/nowhere"}) {
        EXPECT_FALSE(task->HistorySetLogPath(user.history_hash, true, user.history_tail, path));
    }
    user.history_path = "/nowhere";
    EXPECT_FALSE(task->HistoryTailLogs(lines, user));
    const std::string empty = "3 file path is null or length is 0.";
    EXPECT_EQ((Strings{empty, empty, empty, "8 history file no hash /nowhere",
                       "8 history file no hash /nowhere."}),
              log.Lines());
}

TEST(Commands, TimeStampLines) {
    OpenTaskPtr task = NewTask();
    for (const char* yes : {"#1600000000", "#1600000000123", "#16000000001234", "#1600000000 ls"}) {
        EXPECT_TRUE(task->HistoryFindTimestamp(yes)) << yes;
    }
    for (const char* no : {"", "#", "#160000000", "#0600000000", "# 1600000000", "1600000000",
                           " #1600000000", "##1600000000", "#160000000x", "#-1600000000"}) {
        EXPECT_FALSE(task->HistoryFindTimestamp(no)) << no;
    }
    EXPECT_FALSE(
        task->HistoryFindTimestamp(std::string("#16000\0"
                                               "00000",
                                               12)));
    EXPECT_TRUE(
        task->HistoryFindTimestamp(std::string("#1600000000\0"
                                               "x",
                                               13)));
}

// Lines in, and out come the queue as "stamp cmd" and the commands recorded at once.
TEST(Commands, Parsing) {
    struct Case {
        Strings lines;
        Strings queued;
        Strings recorded;
        std::size_t reports;
    };
    for (const Case& c : {
             Case{{"ls -l", "pwd"}, {}, {"ls -l", "pwd"}, 2},
             Case{{"#1700000000", "pwd"}, {"#1700000000 pwd"}, {}, 0},
             Case{
                 {"#1700000000", "#1700000001", "pwd"}, {"#1700000000 ", "#1700000001 pwd"}, {}, 0},
             Case{{"pwd", "#1700000000"}, {"#1700000000 "}, {"pwd"}, 1},
             Case{{"ls", "#1700000000", "ls", "", "lsx"}, {}, {"", "lsx"}, 1},
             Case{{"#1700000000", "", " a "}, {"#1700000000 "}, {" a "}, 1},
             Case{{"a\t\t\t", "\t\t\t", "a\t\t", "a\t\t\t "}, {}, {"a\t\t", "a\t\t\t "}, 2},
             Case{{"#1700000000", "a\t\t\t", "#12"}, {}, {"#12"}, 1},
             Case{{}, {}, {}, 0},
         }) {
        SCOPED_TRACE(testing::PrintToString(c.lines));
        RunningReceiver reports;
        const LogCapture log("module_rsyslog");
        OpenTaskPtr task = NewHistoryTask();
        task->rsyslog_policy.white_list = {"l", "ls"};
        task->rsyslog_policy.tchar_filter = true;
        task->SyslogGetUserList();
        task->ParseHistoryLog(task->rsyslog_policy.user_list.begin(), "web", "now ", c.lines);
        Strings queued;
        for (const auto& record : task->history_list) {
            EXPECT_EQ("now ann", record.time + record.user);
            queued.push_back(record.stamp + " " + record.cmd);
            EXPECT_EQ(1, log.Count("8 recordtext is : now web ann " + record.stamp +
                                   " cmd:" + record.cmd));
        }
        EXPECT_EQ(c.queued, queued);
        std::string recorded;
        for (const auto& command : c.recorded) {
            recorded += "now web ann #0000011471 cmd:" + command + "\n";
        }
        EXPECT_EQ(recorded, ReadText(kRecordLog));
        EXPECT_EQ(c.reports, reports.Finish().size());
    }
    OpenTaskPtr task = NewTask();
    task->rsyslog_policy.tchar_filter = false;
    EXPECT_FALSE(task->HistoryFindWhiteCmd("a\t\t\t"));
}

void Queue(OpenTaskPtr& task, const Strings& stamps) {
    for (std::size_t i = 0; i < stamps.size(); ++i) {
        task->history_list.push_back({"now ", stamps[i], "c" + std::to_string(i), "ann", true});
    }
}

TEST(Pacing, WorkedExample) {
    const Strings stamps = {"#1700000000", "#1700000005", "#1700000100"};
    RunningReceiver reports;
    OpenTaskPtr task = NewHistoryTask();
    task->rsyslog_policy.his_count = 3;
    task->rsyslog_policy.his_interval = 60000;
    Queue(task, stamps);
    task->CheckHistoryReport();
    EXPECT_TRUE(task->history_list.empty());
    EXPECT_EQ("now sandbox ann #1700000000 cmd:c0\nnow sandbox ann #1700000100 cmd:c2\n",
              ReadText(kRecordLog));
    const LogCapture log("module_rsyslog");
    Queue(task, stamps);
    task->rsyslog_policy.up_history = false;
    task->rsyslog_policy.his_interval = 5001;
    task->CheckHistoryReport();
    EXPECT_EQ((Strings{"8 ithis_time 1700000000000 ,next_time 1700000005000 ,split_time 5000",
                       "8 not report cmd c1",
                       "8 ithis_time 1700000000000 ,next_time 1700000100000 ,split_time 100000",
                       "8 ithis_time 1700000005000 ,next_time 1700000100000 ,split_time 95000"}),
              log.Lines());
    EXPECT_EQ((Reports{{"rsyslog_1", R"({"cmd":"c0","time":1700000000,"user":"ann"})"},
                       {"rsyslog_1", R"({"cmd":"c2","time":1700000100,"user":"ann"})"}}),
              reports.Finish());
}

// Every pair compared, as the rule has it; differences in 128 bits, so that none can overflow.
Strings SurvivorsByRule(OpenTaskPtr& task, const Strings& stamps) {
    std::vector<bool> report(stamps.size(), true);
    const std::uint32_t interval = static_cast<std::uint32_t>(task->rsyslog_policy.his_interval);
    Strings commands;
    for (std::size_t a = 0; a < stamps.size(); ++a) {
        for (std::size_t b = a + 1; b < stamps.size(); ++b) {
            __extension__ const __int128 split =
                static_cast<__int128>(task->LogtimeToInt(stamps[a])) -
                task->LogtimeToInt(stamps[b]);
            if ((split < 0 ? -split : split) < interval) {
                report[b] = false;
            }
        }
        if (report[a]) {
            commands.push_back("c" + std::to_string(a));
        }
    }
    return commands;
}

TEST(Pacing, AgreesWithEveryPairCompared) {
    std::mt19937_64 random(4711);
    OpenTaskPtr task = NewHistoryTask();
    task->rsyslog_policy.up_history = false;
    const Strings odd = {
        "#0000011471",           "#9223372036854775807", "#99999999999999999999", "", "#abcd",
        "#-9223372036854775808", "#-99999999",           "#1700000000 rest"};
    const std::int32_t intervals[] = {0, 1, 999, 1000, 1001, 3000, 10000, 2147483647, -1};
    std::size_t suppressed = 0;
    for (int run = 0; run < 4000; ++run) {
        Strings stamps;
        std::uint64_t time = 1700000000000;
        const std::size_t kind = random() % 5;
        for (std::size_t i = random() % 30; i > 0; --i) {
            const std::uint64_t step = random() % 4 * (random() % 2 == 0 ? 1000 : 1);
            time = kind == 0 ? time + step : kind == 1 ? time - step : 1700000000000 + 2 * step;
            const bool seconds = kind == 2 || random() % 2 == 0;
            stamps.push_back(kind == 3 && random() % 3 == 0
                                 ? odd[random() % odd.size()]
                                 : "#" + std::to_string(seconds ? time / 1000 : time));
        }
        task->rsyslog_policy.his_interval = intervals[random() % std::size(intervals)];
        task->rsyslog_policy.his_count = static_cast<std::int32_t>(random() % 12) - 2;
        Strings expected;
        if (static_cast<std::int32_t>(stamps.size()) >= task->rsyslog_policy.his_count) {
            expected = SurvivorsByRule(task, stamps);
        } else {
            for (std::size_t i = 0; i < stamps.size(); ++i) {
                expected.push_back("c" + std::to_string(i));
            }
        }
        suppressed += stamps.size() - expected.size();
        for (const bool trace : {false, true}) {
            fs::remove(kRecordLog);
            Queue(task, stamps);
            const LogCapture log("module_rsyslog",
                                 trace ? Poco::Message::PRIO_TRACE : Poco::Message::PRIO_DEBUG);
            task->CheckHistoryReport();
            ASSERT_EQ(expected, RecordedCommands())
                << run << (trace ? " by pairs " : " ") << task->rsyslog_policy.his_interval << " "
                << testing::PrintToString(stamps);
        }
    }
    EXPECT_GT(suppressed, 10000U);
}

// Types lines into a real interactive bash of ann's.
void TypeIntoBash(const std::string& lines) {
    WriteText("/tmp/typed", lines + "\nexit\n");
    ASSERT_EQ(0, std::system("HOME=/home/ann bash --norc -i </tmp/typed >/dev/null 2>&1"));
}

TEST(Bash, WhatIsTypedArrives) {
    RunningReceiver reports;
    OpenTaskPtr task = NewHistoryTask();
    TypeIntoBash("echo before");
    task->Run();
    TypeIntoBash("echo one\necho 'two  words' | cat");
    task->Run();
    EXPECT_EQ((Strings{"echo one", "echo 'two  words' | cat", "exit"}), RecordedCommands());
    task->Run();
    TypeIntoBash("HISTTIMEFORMAT=%s\necho stamped\nHISTSIZE=2");  // also trims the file
    task->Run();
    const Strings commands = RecordedCommands();
    EXPECT_EQ((Strings{"HISTSIZE=2", "exit"}), Strings(commands.end() - 2, commands.end()));
    EXPECT_NE(std::string::npos,
              ReadText(kRecordLog).find(" ann #" + std::to_string(std::time(nullptr) / 1000)));
    const auto sent = reports.Finish();
    ASSERT_EQ(commands.size(), sent.size());
    EXPECT_EQ(R"({"cmd":"echo one","time":11471,"user":"ann"})", sent[0].second);
    Json::Value last;
    ASSERT_EQ(0, SDK::JsonUtils::ParseJsonStr(sent.back().second.data(), sent.back().second.size(),
                                              last));
    EXPECT_NEAR(static_cast<double>(std::time(nullptr)), last["time"].asDouble(), 60);
}

TEST(Hostile, BytesOfAnyKind) {
    RunningReceiver reports;
    OpenTaskPtr task = NewHistoryTask();
    WriteText(kHistory, "seen\n");
    task->BuildHistoryLog();
    const Strings lines = {"\xff\xfe\xc3(", "\x1b[2J\x1b]0;x\x07", std::string("a\0b", 3), "\r",
                           "\"\\/",         "\xed\xa0\x80",        Filled(9 << 20, '\xe9')};
    std::string text;
    for (const auto& line : lines) {
        text.append(line).append("\n#1700000000\n").append(line).append("\n");
    }
    WriteText(kHistory, "seen\n" + text.substr(0, 10485760 - 5));
    task->BuildHistoryLog();
    const std::string bare = ReadText(kRecordLog);
    std::size_t at = 0;
    for (const auto& line : lines) {
        at = bare.find("cmd:" + line + "\n", at);
        EXPECT_NE(std::string::npos, at) << line.substr(0, 20);
    }
    task->CheckHistoryReport();
    EXPECT_NE(std::string::npos, ReadText(kRecordLog).find("#1700000000 cmd:" + lines[2] + "\n"));
    const auto sent = reports.Finish();
    EXPECT_EQ(lines.size() * 2, sent.size());
    for (const auto& [type, report] : sent) {
        Json::Value parsed;
        EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(report.data(), report.size(), parsed));
        EXPECT_EQ(std::string::npos, report.find('\n'));
    }
}

TEST(Hostile, FilesOfAnyKind) {
    const std::pair<const char*, std::function<void(const char*)>> kinds[] = {
        {"fifo", [](const char* path) { mkfifo(path, 0666); }},
        {"socket", [](const char* path) { mknod(path, S_IFSOCK | 0666, 0); }},
        {"device", [](const char* path) { mknod(path, S_IFCHR | 0666, makedev(1, 5)); }},
        {"link to a device", [](const char* path) { fs::create_symlink("/dev/zero", path); }},
        {"terminal", [](const char* path) { fs::create_symlink("/dev/ptmx", path); }},
        {"directory", [](const char* path) { fs::create_directory(path); }},
        {"dangling link", [](const char* path) { fs::create_symlink("/nowhere", path); }},
        {"circular link", [](const char* path) { fs::create_symlink(path, path); }},
        {"sparse",
         [](const char* path) {
             WriteText(path, "");
             fs::resize_file(path, 10ULL << 40);
         }},
        {"kernel's", [](const char* path) { fs::create_symlink("/proc/self/mem", path); }},
        {"link to root's",
         [](const char* path) {
             WriteText("/root/secret", "HISTFILE=\n");
             fs::create_symlink("/root/secret", path);
             EXPECT_EQ(0, lchown(path, 1000, 1000));
         }},
        {"leased",
         [](const char* path) {  // others wait at their open, for 45 seconds
             fcntl(creat(path, 0666), F_SETLEASE, F_WRLCK);
         }},
    };
    std::signal(SIGIO, SIG_IGN);  // of the broken lease
    for (const auto& [kind, create] : kinds) {
        SCOPED_TRACE(kind);
        OpenTaskPtr task = NewHistoryTask({"eve", "ann"});
        WriteText("/home/eve/.bash_history", "old\n");
        WriteText(kHistory, "old\n");
        Within(std::chrono::seconds(20), kind, [&task] { task->BuildHistoryLog(); });
        for (const char* name : {".bash_history", ".bashrc", ".bash_profile"}) {
            fs::remove(std::string("/home/eve/") + name);
            create((std::string("/home/eve/") + name).c_str());
        }
        WriteText(kHistory, "old\nnew\n");
        Within(std::chrono::seconds(20), kind, [&task] { task->BuildHistoryLog(); });
        EXPECT_EQ(Strings{"new"}, RecordedCommands());
        EXPECT_EQ(0U, task->alarm_time_map.count("/home/eve/.bashrc"));
    }
}

TEST(Hostile, FilesThatChangeKindMeanwhile) {
    const LogCapture log("module_rsyslog",
                         Poco::Message::PRIO_FATAL);  // there is much to complain of
    OpenTaskPtr task = NewHistoryTask({"eve", "ann"});
    const char* const path = "/home/eve/.bash_history";
    WriteText(kHistory, "old\n");
    WriteText(path, "a\n");
    WriteText("/home/eve/.bashrc", "HISTSIZE=1\n");
    WriteText("/home/eve/two", "a\nb\n");
    mkfifo("/home/eve/fifo", 0666);
    fs::create_symlink("/dev/tty", "/home/eve/tty");
    task->BuildHistoryLog();
    std::atomic<bool> done{false};
    std::thread eve([&done, path] {
        const auto swap = [](const char* one, const char* other) {
            renameat2(AT_FDCWD, one, AT_FDCWD, other, RENAME_EXCHANGE);
        };
        while (!done) {
            for (const char* other : {"/home/eve/fifo", "/home/eve/two", "/home/eve/tty"}) {
                swap(path, other);
                swap("/home/eve/.bashrc", other);
            }
        }
    });
    std::string content = "old\n";
    for (int cycle = 0; cycle < 1000; ++cycle) {
        content += "new " + std::to_string(cycle) + "\n";
        WriteText(kHistory, content);
        Within(std::chrono::seconds(20), "a cycle", [&task, path] {
            task->BuildHistoryLog();
            for (int i = 0; i < 50; ++i) {
                Engine::user_info user;
                task->HistorySetLogPath(user.history_hash, false, user.history_tail, path);
            }
        });
    }
    done = true;
    eve.join();
    const Strings commands = RecordedCommands();
    EXPECT_EQ(1000, std::count_if(commands.begin(), commands.end(), [](const std::string& command) {
                  return command.compare(0, 4, "new ") == 0;
              }));
}

// Compared pair by pair, or with a pattern compiled for each line, these would take minutes to
// hours.
TEST(Hostile, ShapesThatCouldHoldTheCycleUp) {
    OpenTaskPtr task = NewHistoryTask();
    task->rsyslog_policy.up_history = false;
    task->rsyslog_policy.his_count = 1;
    task->rsyslog_policy.white_list = {"", "#"};
    std::string stamped;
    for (int i = 0; stamped.size() + 24 < 10485760; ++i) {
        stamped += "#" + std::to_string(1700000000 + i * 7919LL % 1000003) + "\nx\n";
    }
    std::string hashes;
    for (int i = 0; i < 5000000; ++i) {
        hashes += "#\n";
    }
    for (const std::string& text : {Filled(5000000, '\n'), stamped, hashes}) {
        SCOPED_TRACE(text.substr(0, 20));
        fs::remove(kRecordLog);
        task->rsyslog_policy.user_list.clear();
        WriteText(kHistory, "");
        task->BuildHistoryLog();
        WriteText(kHistory, text);
        Within(std::chrono::seconds(100), "a large file", [&task] {
            task->BuildHistoryLog();
            task->CheckHistoryReport();
        });
        EXPECT_EQ(text == stamped, fs::exists(kRecordLog));
    }
}

// Takes reports, but for so many that hold "bad": memory runs out over them.
class FaultyReceiver : public Framework::Task {
public:
    explicit FaultyReceiver(int faults)
        : Task("data_comm_report_task", "", Framework::TaskCondition::kPeriodic, 1024),
          faults_(faults) {}
    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto& report = dynamic_cast<const Framework::DataMessage&>(*message).Content();
        if (report.find("bad") != std::string::npos && faults_-- > 0) {
            throw std::bad_alloc();
        }
        const std::size_t at = report.find("\":\"") + 3;
        received.push_back(report.substr(at, report.find('"', at) - at));
        return true;
    }
    Strings received;

private:
    int faults_;
};

std::uint64_t Cuts() {
    return WorkRecord::Instance().Get().events[Engine::kHistoryCut];
}

TEST(Faults, CostNobodyElseHisTurnAndNothingIsSentTwice) {
    for (const std::string stamp : {"", "#1700000000\n"}) {
        for (const int faults : {0, 1, 2}) {
            SCOPED_TRACE(stamp + std::to_string(faults));
            const LogCapture log("module_rsyslog", Poco::Message::PRIO_ERROR);
            Poco::AutoPtr<FaultyReceiver> reports(new FaultyReceiver(faults));
            ASSERT_TRUE(TestSupport::TestEngine().StartTask(reports));
            OpenTaskPtr task = NewHistoryTask({"eve", "ann"});
            WriteText("/home/eve/.bash_history", "old\n");
            WriteText(kHistory, "old\n");
            WorkRecord::Instance().Begin({{Engine::kHistory, true}});
            const std::uint64_t cut_before = Cuts();
            task->Run();
            EXPECT_TRUE(WorkRecord::Instance().Get().successes[Engine::kHistory] > 0);
            WriteText("/home/eve/.bash_history",
                      "old\n" + stamp + "one\n" + stamp + "bad\n" + stamp + "two\n");
            WriteText(kHistory, "old\nann's\n");
            for (int cycle = 0; cycle < 4; ++cycle) {
                task->Run();
            }
            TestSupport::TestEngine().StopTask("data_comm_report_task");
            Strings expected = {"one", "bad", "two"};
            if (faults == 2) {
                expected.erase(expected.begin() + 1);  // it failed even when it came first
            }
            // ann's is reported in the same cycle as eve's first one.
            expected.insert(expected.begin() + (stamp.empty() && faults == 0 ? 3
                                                : stamp.empty()              ? 1
                                                                             : 0),
                            "ann's");
            EXPECT_EQ(expected, reports->received);
            EXPECT_EQ(faults, log.Errors());
            EXPECT_EQ(static_cast<std::uint64_t>(faults), Cuts() - cut_before);
            Strings recorded = RecordedCommands();
            EXPECT_EQ(stamp.empty() || faults < 2 ? 4U : 3U, recorded.size());
            std::sort(recorded.begin(), recorded.end());
            EXPECT_EQ(recorded.end(), std::unique(recorded.begin(), recorded.end()));
        }
    }
}

// A start-up file is left alone until it changes; the user's history is read all the same.
TEST(Faults, AFileThatFailedIsNotTriedAgainUntilItChanges) {
    const LogCapture log("module_rsyslog", Poco::Message::PRIO_ERROR);
    Poco::AutoPtr<FaultyReceiver> reports(new FaultyReceiver(1));
    ASSERT_TRUE(TestSupport::TestEngine().StartTask(reports));
    OpenTaskPtr task = NewHistoryTask();
    WriteText(kHistory, "old\n");
    WriteText("/home/ann/.bashrc", "HISTFILE=bad");
    task->Run();
    WriteText(kHistory, "old\nnew\n");
    task->Run();
    task->Run();
    EXPECT_EQ(Strings{"new"}, reports->received);
    EXPECT_EQ(1, log.Holding("/home/ann/.bashrc is passed over until it changes: "));
    WriteText("/home/ann/.bashrc", "HISTFILE=bad2");
    const timespec later[2] = {{2000, 0}, {2000, 0}};
    utimensat(AT_FDCWD, "/home/ann/.bashrc", later, 0);
    task->Run();
    EXPECT_EQ((Strings{"new", "HISTFILE=bad2;"}), reports->received);
    TestSupport::TestEngine().StopTask("data_comm_report_task");
}

// Each loop has a cycle's worth of minutes before it when the stop comes.
TEST(Stop, EndsEveryLoop) {
    for (const std::string loop : {"parsing", "reporting", "pairs"}) {
        SCOPED_TRACE(loop);
        RunningReceiver reports("data_comm_report_task", 1);  // full at once
        const std::lock_guard<std::mutex> gate(reports.Task().Gate());
        const LogCapture log("module_rsyslog", loop == "pairs" ? Poco::Message::PRIO_TRACE
                                                               : Poco::Message::PRIO_DEBUG);
        OpenTaskPtr task = NewHistoryTask();
        task->rsyslog_policy.his_count = 0;
        task->rsyslog_policy.his_interval = 0;
        WriteText(kHistory, "");
        task->BuildHistoryLog();
        if (loop == "parsing") {
            WriteText(kHistory, std::string(5000000, '\n'));
        } else {
            Queue(task, Strings(loop == "pairs" ? 20000 : 500000, "#1700000000"));
        }
        auto cycle = std::async(std::launch::async, [&task] {
            task->BuildHistoryLog();
            task->CheckHistoryReport();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        task->RequestStop();
        EXPECT_EQ(std::future_status::ready, cycle.wait_for(std::chrono::seconds(10)));
        cycle.get();
        EXPECT_TRUE(task->history_list.empty());
        EXPECT_LT(RecordedCommands().size(), loop == "pairs" ? 1U : 500000U);
        task->rsyslog_policy.user_list.front().tail_ready = false;
        task->BuildHistoryLog();  // looks at nobody any more
        EXPECT_FALSE(task->rsyslog_policy.user_list.front().tail_ready);
    }
}

}  // namespace
