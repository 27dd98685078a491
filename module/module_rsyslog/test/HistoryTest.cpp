// Shell history: users, start-up files, tailing, parsing, pacing, reports; and users who mean harm.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <random>
#include <set>

#include "module/module_rsyslog/src/WorkRecord.h"
#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/JsonUtils.h"

namespace {

using namespace TestSupport;

const char* const kHistory = "/home/ann/.bash_history";
const char* const kStartUp = "/home/ann/.bashrc";

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
    return CollectingTask();
}

// Runs one cycle; one that hangs ends the program.
void Cycle(OpenTaskPtr& task) {
    alarm(20);
    task->BuildHistoryLog();
    task->CheckHistoryReport();
    alarm(0);
}

// The "cmd:" part of each line of the record log.
Strings RecordedCommands() {
    Strings commands = LinesOf(kCommandLog);
    for (std::string& line : commands) {
        line.erase(0, line.find(" cmd:") + 5);
    }
    return commands;
}

// One list over many versions of the password file: `watched` is what each adds to it.
TEST(Users, WhoIsWatched) {
    OpenTaskPtr task = NewTask();
    const LogCapture log("module_rsyslog");
    Strings expected;
    for (const auto& [accounts, watched] :
         {std::pair(Account("a") + Account("a2", "/bin/sh") + Account("a"), "a|a2"),
          std::pair(Account("b", "/sbin/nologin") + Account("c", "/bin/false"), ""),
          std::pair(Account("b", "/sbin/nologin2") + Account("c", "/bin/falsehood"), ""),
          std::pair(Account("d", "/usr/sbin/nologin") + Account("e", ""), "d|e"),
          std::pair(Account("f", "/bin/fals") + "+\n-g\nnonsense\n" + Account("g"), "f|+|-g|g"),
          std::pair(Account("h") + Account("i", std::string(4096, 's')) + Account("j"), "h"),
          std::pair(""s, ""), std::pair("a:x:7:8:Ann:/srv/a:/bin/sh\n"s, "a")}) {  // moved
        WriteText("/etc/passwd", accounts);
        task->SyslogGetUserList();
        fs::rename("/etc/passwd", "/tmp/passwd");
        task->SyslogGetUserList();
        const Strings more = Split(watched);
        expected.insert(expected.end(), more.begin(), more.end());
        Strings names;
        for (const auto& user : task->rsyslog_policy.user_list) {
            names.push_back(user.name);
        }
        EXPECT_EQ(expected, names) << accounts.substr(0, 200);
        EXPECT_EQ(expected.size(), log.Lines().size());
    }
    EXPECT_EQ("8 new name=a, uid=7, gid=8, realname=Ann, dir=/srv/a, shell=/bin/sh",
              log.Lines().back());
}

TEST(StartUpFile, WhatIsQuoted) {
    const Strings quoted = Split(
        "HISTSIZE=4999|export HISTSIZE=1000|HISTFILESIZE=0|HIST|HISTSIZE|HISTSIZE= =|"
        "HISTSIZE=\t 6000|HISTSIZE=\"10000\"|HISTSIZE=-1|HISTSIZE=2147483648|HISTSIZE+=9000|"
        "HISTSIZE=99999999999999999999|echo $HISTFILE HISTSIZE=9000|a\0HISTFILE"s);
    const Strings passed = Split(
        "|HISTSIZE=5000|#HISTSIZE=0|# HISTFILE=|histsize=1|HIS|HISTSIZE=9000 # HISTFILE|"
        "HISTSIZE = 6000|HISTSIZE=5000x|HISTSIZE=4294972296|MYHISTSIZE=9000; "
        "HISTFILE=x|x\nHI\nST=1");
    Engine::user_info user;
    user.name = "ann";
    for (const Strings* lines : {&quoted, &passed}) {
        for (const std::string& line : *lines) {
            for (const auto& [before, behind] :
                 {std::pair("\n", ""), std::pair("\r", "\r\n"), std::pair("\n \t", " \v\n")}) {
                SCOPED_TRACE(before + line + behind);
                OpenTaskPtr task = NewHistoryTask();
                WriteText(kStartUp, "HISTSIZE=1" + (before + line) + behind);
                task->CheckHistoryProfile(user, kStartUp);
                const std::string text = lines == &quoted ? line + ";" : "";
                EXPECT_EQ(1U, task->alarm_time_map.count(std::string("user:ann path:") + kStartUp +
                                                         " hist_conf:[HISTSIZE=1;" + text + "]"));
            }
        }
    }
}

TEST(StartUpFile, ReadAgainOnlyWhenTouched) {
    OpenTaskPtr task = NewHistoryTask({"root", "ann"});
    const LogCapture log("module_rsyslog");
    const auto cycle = [&](const std::string& content, int changed, int alarms) {
        SCOPED_TRACE(changed);
        WriteText(kStartUp, content);
        Shell("touch -d @" + std::to_string(changed) + " " + kStartUp);
        task->BuildHistoryLog();
        EXPECT_EQ(alarms, log.Holding("\"path\":\"/home/ann/.bashrc\""));
    };
    WriteText("/etc/profile", "HISTFILE=\n");
    cycle("HISTSIZE=1", 1000, 1);
    cycle("HISTSIZE=2", 1000, 1);
    cycle("HISTSIZE=3", 999, 2);
    cycle("HISTSIZE=3", 998, 2);
    cycle(std::string((10 << 20) + 1, '='), 997, 2);
    cycle("HISTSIZE=4", 997, 3);  // what could not be read is not held against it
    EXPECT_EQ(1, log.Holding(R"("path":"/etc/profile","type":"hist_conf","user":"root")"));
    EXPECT_EQ(6, log.Count("8 file [/home/ann/.bash_profile] no stat."));
}

// What a cycle is to find new in the file, by what the one before has seen of it.
struct TailModel {
    void Renew(const std::string& content) {
        ready = true;
        seen = content;
        tail = content.substr(content.size() - std::min<std::size_t>(1024, content.size()));
        tail.resize(std::strlen(tail.c_str()));
    }
    std::string Cycle(const std::string& content) {
        if (!ready || content == seen || content.empty()) {
            ready ? void() : Renew(content);
            return "";
        }
        std::string fresh = content;
        const std::string half = tail.substr(tail.size() / 2);
        const auto at = content.find(tail), half_at = content.find(half);
        if (at != std::string::npos) {
            fresh.erase(0, at + tail.size());
        } else if (half.size() > 20 && half_at != std::string::npos) {
            fresh.erase(0, half_at + half.size());
        }
        Renew(content);
        return fresh.empty() || fresh.back() == '\n' ? fresh : fresh + "\n";
    }
    bool ready = false;
    std::string seen, tail;
};

TEST(Tailing, AgreesWithTheModel) {
    std::mt19937 random(20240522);
    Strings words = Split("ls\n|\n|make -j2 all && make install\n|x|a\0b\n"s);
    words.push_back(std::string(700, 'y') + "\n");
    std::size_t found = 0;
    for (int run = 0; run < 150; ++run) {
        OpenTaskPtr task = NewHistoryTask();
        task->rsyslog_policy.up_history = false;
        TailModel model;
        std::string content;
        for (int step = 0; step < 30; ++step) {
            SCOPED_TRACE("run " + std::to_string(run) + " step " + std::to_string(step));
            std::string more;
            for (std::size_t i = random() % 4; i > 0; --i) {
                more += words[random() % words.size()];
            }
            const std::size_t action = random() % 8;
            if (action == 0) {  // cut at any byte
                content.resize(random() % (content.size() + 1));
            } else if (action == 1) {  // the last bytes, from a line's start, and more
                content = content.substr(content.size() / 2);
                content.erase(0, content.find('\n') + 1).append(more);
            } else if (action == 2) {
                content = more;
            } else {
                content.insert(action == 3 ? 0 : content.size(), more);
            }
            fs::remove(kHistory);
            fs::remove(kCommandLog);
            std::string fresh;
            if (random() % 8 != 0) {
                WriteText(kHistory, content);
                fresh = model.Cycle(content);
            }
            task->BuildHistoryLog();
            std::string recorded;
            for (const auto& command : RecordedCommands()) {
                recorded += command + "\n";
            }
            ASSERT_EQ(fresh, recorded);
            found += fresh.empty() ? 0 : 1;
        }
    }
    EXPECT_GT(found, 1000U);
}

// Ann's shell appends all the time to a file that takes long to read.
TEST(Tailing, WhatIsAppendedMeanwhileArrivesOnce) {
    OpenTaskPtr task = NewHistoryTask();
    WriteText(kHistory, std::string(8000000, 'x') + "\n");
    Cycle(task);
    Strings typed;
    auto ann = std::async(std::launch::async, [&typed] {
        for (int i = 0; i < 700; ++i) {
            typed.push_back("command " + std::to_string(i));
            std::ofstream(kHistory, std::ios::app) << typed.back() + "\n";
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    while (ann.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        Cycle(task);
    }
    Cycle(task);
    EXPECT_EQ(typed, RecordedCommands());
}

// Without a baseline all is new. Megabytes are 2^20 bytes, counted in 32 bits.
TEST(Tailing, WhatIsRead) {
    OpenTaskPtr task = NewHistoryTask();
    const std::string unchanged = "8 history file [/home/ann/.bash_history] not change.";
    const std::string unread = "8 history file no hash /home/ann/.bash_history.";
    for (const auto& [command, limit, read, lines] :
         {std::tuple("truncate -s 1M $F", 1, true, Strings{unchanged}),
          std::tuple("truncate -s 1048577 $F", 1, false, Strings()),
          std::tuple(": >$F", 1, false, Strings()),
          std::tuple("truncate -s 10M $F", 11, true, Strings{unchanged}),
          std::tuple("truncate -s 10485761 $F", 11, false, Strings{unread, unread}),
          std::tuple("echo >$F", 4096, false, Strings()),
          std::tuple("rm $F", 10, false, Strings{unread, unread})}) {
        SCOPED_TRACE(command);
        const LogCapture log("module_rsyslog");
        Shell(std::string("F=") + kHistory + "; " + command);
        task->rsyslog_policy.history_size = limit;
        Engine::user_info user;
        user.history_path = kHistory;
        Strings fresh;
        EXPECT_EQ(read, task->HistoryTailLogs(fresh, user));
        EXPECT_EQ(read, user.tail_ready);
        EXPECT_FALSE(task->HistoryTailLogs(fresh, user));
        EXPECT_EQ(lines, log.Lines());
    }
}

TEST(Tailing, Baselines) {
    OpenTaskPtr task = NewHistoryTask();
    WriteText(kHistory, std::string(2000, 'x') + "last");
    Shell("ln -s /home/ann/.bash_history /tmp/link; chown -h 1000 /tmp/link");  // to another's
    Engine::user_info user;
    for (const auto& [with_hash, path, taken, line] :
         {std::tuple(false, kHistory, true, ""), std::tuple(false, "/nowhere", true, ""),
          std::tuple(true, static_cast<const char*>(nullptr), false,
                     "3 file path is null or length is 0."),
          std::tuple(true, "", false, "3 file path is null or length is 0."),
          std::tuple(true, "/nowhere", false, "8 history file no hash /nowhere"),
          std::tuple(true, "/tmp/link", false, "8 history file no hash /tmp/link"),
          std::tuple(false, "/tmp/link", false, "3 open log file [/tmp/link] failed")}) {
        const LogCapture log("module_rsyslog");
        EXPECT_EQ(taken,
                  task->HistorySetLogPath(user.history_hash, with_hash, user.history_tail, path));
        EXPECT_EQ(path == kHistory ? std::string(1020, 'x') + "last" : "", user.history_tail);
        EXPECT_EQ(Split(line), log.Lines());
    }
    Strings fresh;
    EXPECT_FALSE(task->HistoryTailLogs(fresh, user));  // no path
}

// The commands of ann's from these lines, in one cycle.
void Parse(OpenTaskPtr& task, const Strings& lines) {
    task->rsyslog_policy.white_list = {"l", "ls"};
    task->SyslogGetUserList();
    task->ParseHistoryLog(task->rsyslog_policy.user_list.begin(), "web", "now ", lines);
}

// Lines in, and out come the queue as "stamp cmd" and the commands recorded and sent at once.
TEST(Commands, Parsing) {
    const std::string no_stamps =
        "#|#160000000|#0600000000|# 1600000000|1600000000|x1600000000| #1600000000|##1600000000|"
        "#160000000x|#-1600000000|#16000"s +
        std::string(1, 0) + "x00000";
    for (const auto& [lines, queued, recorded] :
         {std::tuple("ls -l|pwd"s, ""s, "ls -l|pwd"s),
          std::tuple("#1700000000|pwd"s, "#1700000000 pwd"s, ""s),
          std::tuple("#1700000000|#1700000001|pwd"s, "#1700000000 |#1700000001 pwd"s, ""s),
          std::tuple("pwd|#1700000000"s, "#1700000000 "s, "pwd"s),
          std::tuple("ls|#1700000000|ls||lsx"s, ""s, "|lsx"s),
          std::tuple("#1700000000|| a "s, "#1700000000 "s, " a "s),
          std::tuple("a\t\t\t|\t\t\t|a\t\t|a\t\t\t "s, ""s, "a\t\t|a\t\t\t "s),
          std::tuple("#1700000000|a\t\t\t|#12"s, ""s, "#12"s),
          std::tuple("#1600000000 ls|#1600000000\0x|#1600000000123|#16000000001234"s,
                     "#1600000000 ls |#1600000000\0x |#1600000000123 |#16000000001234 "s, ""s),
          std::tuple(no_stamps, ""s, no_stamps), std::tuple(""s, ""s, ""s)}) {
        SCOPED_TRACE(lines);
        RunningReceiver reports;
        OpenTaskPtr task = NewHistoryTask();
        Parse(task, Split(lines));
        Strings queue, records;
        Reports sent;
        for (const auto& record : task->history_list) {
            EXPECT_EQ("now ann", record.time + record.user);
            queue.push_back(record.stamp + " " + record.cmd);
        }
        for (const auto& command : Split(recorded)) {
            records.push_back("now web ann #0000011471 cmd:" + command);
            Json::Value report;
            report["user"] = "ann";
            report["time"] = 11471;
            report["cmd"] = command;
            if (!command.empty()) {
                sent.emplace_back("rsyslog_1", SDK::JsonUtils::JsonToString(report));
            }
        }
        EXPECT_EQ(Split(queued), queue);
        EXPECT_EQ(records, LinesOf(kCommandLog));
        EXPECT_EQ(sent, reports.Finish());
    }
}

TEST(Commands, AreTraced) {
    OpenTaskPtr task = NewHistoryTask();
    Parse(task, {});
    const LogCapture log("module_rsyslog");
    Parse(task, {"ls", "a\t\t\t", "#1700000000", "x", "y"});
    task->rsyslog_policy.tchar_filter = task->rsyslog_policy.up_history = false;
    Parse(task, {"b\t\t\t"});
    EXPECT_EQ(Split("8 log_text is [ls]|8 white cmd [ls]|8 log_text is [a\t\t\t]|"
                    "8 tchar_filter cmd [a\t\t\t]|8 log_text is [#1700000000]|"
                    "8 recordtext is : now web ann #1700000000 cmd:x|8 log_text is [y]|"
                    "8 history message is [{\"cmd\":\"y\",\"time\":11471,\"user\":\"ann\"}]|"
                    "8 recordtext is : now web ann #0000011471 cmd:y|8 log_text is [b\t\t\t]|"
                    "8 recordtext is : now web ann #0000011471 cmd:b\t\t\t"),
              log.Lines());
}

// What is recorded when every pair is compared, as the rule has it, and what that traces.
std::pair<Strings, Strings> PaceByPairs(OpenTaskPtr& task, const Strings& stamps) {
    const auto& policy = task->rsyslog_policy;
    const bool paces = static_cast<std::int32_t>(stamps.size()) >= policy.his_count;
    const auto text = [](std::int64_t time) {
        return std::to_string(static_cast<std::uint64_t>(time));
    };
    Strings lines, trace;
    std::vector<bool> report(stamps.size(), true);
    for (std::size_t a = 0; a < stamps.size(); ++a) {
        const std::int64_t earlier = task->LogtimeToInt(stamps[a]);
        for (std::size_t b = a + 1; paces && b < stamps.size(); ++b) {
            const std::int64_t later = task->LogtimeToInt(stamps[b]);
            // In 128 bits, so that none can overflow.
            __extension__ const __int128 split = static_cast<__int128>(earlier) - later;
            const auto distance = static_cast<std::uint64_t>(split < 0 ? -split : split);
            if (report[b]) {
                trace.push_back("8 ithis_time " + text(earlier) + " ,next_time " + text(later) +
                                " ,split_time " + std::to_string(distance));
            }
            if (report[b] && distance < static_cast<std::uint32_t>(policy.his_interval)) {
                report[b] = false;
                trace.push_back("8 not report cmd c" + std::to_string(b));
            }
        }
        if (report[a]) {
            lines.push_back("now sandbox ann " + stamps[a] + " cmd:c" + std::to_string(a));
        }
    }
    return {lines, trace};
}

TEST(Pacing, AgreesWithEveryPairCompared) {
    std::mt19937 random(4711);
    OpenTaskPtr task = NewHistoryTask();
    task->rsyslog_policy.up_history = false;
    const Strings odd = Split(
        "#0000011471|#9223372036854775807|#99999999999999999999||#abcd|#-9223372036854775808|"
        "#-99999999|#1700000000 rest");
    const std::int32_t intervals[] = {0, 1, 999, 1000, 1001, 3000, 10000, 2147483647, -1};
    std::size_t suppressed = 0;
    for (int run = 0; run < 4000; ++run) {
        Strings stamps;
        const unsigned unit = random() % 2 == 0 ? 1 : 500;
        for (unsigned left = random() % 30; left > 0; --left) {
            const std::uint64_t time = 1700000000000 + random() % 32 * unit;
            const bool seconds = random() % 2 == 0;
            stamps.push_back(random() % 8 == 0
                                 ? odd[random() % odd.size()]
                                 : "#" + std::to_string(seconds ? time / 1000 : time));
        }
        task->rsyslog_policy.his_interval = intervals[random() % std::size(intervals)];
        task->rsyslog_policy.his_count = static_cast<std::int32_t>(random() % 12) - 2;
        const auto [lines, trace] = PaceByPairs(task, stamps);
        suppressed += stamps.size() - lines.size();
        for (const int level : {Poco::Message::PRIO_DEBUG, Poco::Message::PRIO_TRACE}) {
            fs::remove(kCommandLog);
            for (std::size_t i = 0; i < stamps.size(); ++i) {
                const std::string command = "c" + std::to_string(i);
                task->history_list.push_back({"now ", stamps[i], command, "ann", true});
            }
            const LogCapture log("module_rsyslog", level);
            task->CheckHistoryReport();
            ASSERT_EQ(lines, LinesOf(kCommandLog))
                << level << " " << task->rsyslog_policy.his_interval << " "
                << testing::PrintToString(stamps);
            ASSERT_EQ(level == Poco::Message::PRIO_TRACE ? trace : Strings(), log.Lines());
        }
    }
    EXPECT_GT(suppressed, 10000U);
}

TEST(Hostile, FilesOfAnyKind) {
    std::signal(SIGIO, SIG_IGN);  // of a broken lease
    for (const std::string& kind : Strings{
             "mkfifo $F", "mkdir $F", "mknod $F c 1 5", "ln -s /dev/zero $F", "ln -s /dev/ptmx $F",
             "ln -s /nowhere $F", "ln -s $F $F", "ln -s /proc/self/mem $F", "truncate -s 10T $F",
             "echo HISTFILE= >/root/a; ln -s /root/a $F; chown -h 1000 $F",
             ": >$F; echo leased"}) {  // others wait at their open, for 45 seconds
        SCOPED_TRACE(kind);
        OpenTaskPtr task = NewHistoryTask({"eve", "ann"});
        WriteText("/home/eve/.bash_history", "old\n");
        WriteText(kHistory, "old\n");
        Cycle(task);
        for (const char* name : {".bash_history", ".bashrc", ".bash_profile"}) {
            const std::string path = std::string("/home/eve/") + name;
            Shell("F=" + path + "; rm -f $F; " + kind);
            if (kind == ": >$F; echo leased") {
                fcntl(open(path.c_str(), O_WRONLY), F_SETLEASE, F_WRLCK);
            }
        }
        WriteText(kHistory, "old\nnew\n");
        Cycle(task);
        EXPECT_EQ(Strings{"new"}, RecordedCommands());
        EXPECT_EQ(0U, task->alarm_time_map.count("/home/eve/.bashrc"));
    }
}

// Compared pair by pair, or with a pattern compiled for each line, they would take minutes.
TEST(Hostile, ShapesThatCouldHoldTheCycleUp) {
    std::string stamps, hashes;
    for (int i = 0; i < 700000; ++i) {
        stamps += "#" + std::to_string(1700000000 + i * 7919LL % 1000003) + "\nx\n";
        hashes += "#\n#\n#\n#\n#\n#\n#\n";
    }
    for (const std::string* text : {&stamps, &hashes}) {
        OpenTaskPtr task = NewHistoryTask();
        task->rsyslog_policy.up_history = false;
        task->rsyslog_policy.his_count = 1;
        task->rsyslog_policy.white_list = {"#"};
        WriteText(kHistory, "");
        Cycle(task);
        WriteText(kHistory, *text);
        Cycle(task);
        EXPECT_EQ(text == &stamps, fs::exists(kCommandLog));
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

TEST(Faults, CostNobodyElseHisTurnAndNothingIsSentTwice) {
    auto& record = Engine::WorkRecord::Instance();
    const auto cuts = [&record] { return record.Get().events[Engine::kHistoryCut]; };
    const std::string stamp = "#1700000000\n";
    for (const auto& [before, faults, order] :
         {std::tuple(""s, 0, "one|bad|two|ann's"), std::tuple(""s, 1, "one|ann's|bad|two"),
          std::tuple(""s, 2, "one|ann's|two"),  // it failed even when it came first
          std::tuple(stamp, 0, "ann's|one|bad|two"), std::tuple(stamp, 1, "ann's|one|bad|two"),
          std::tuple(stamp, 2, "ann's|one|two")}) {
        SCOPED_TRACE(before + std::to_string(faults));
        const LogCapture log("module_rsyslog", Poco::Message::PRIO_ERROR);
        Poco::AutoPtr<FaultyReceiver> reports(new FaultyReceiver(faults));
        ASSERT_TRUE(TestEngine().StartTask(reports));
        OpenTaskPtr task = NewHistoryTask({"eve", "ann"});
        WriteText("/home/eve/.bash_history", "old\n");
        WriteText(kHistory, "old\n");
        const std::uint64_t cut_before = cuts();
        task->Run();
        WriteText("/home/eve/.bash_history",
                  "old\n" + before + "one\n" + before + "bad\n" + before + "two\n");
        WriteText(kHistory, "old\nann's\n");
        record.Begin({{Engine::kHistory, true}});
        task->Run();
        EXPECT_EQ(faults == 0, record.Get().successes[Engine::kHistory] > 0);
        for (int cycle = 0; cycle < 3; ++cycle) {
            task->Run();
        }
        TestEngine().StopTask("data_comm_report_task");
        const Strings expected = Split(order);
        EXPECT_EQ(expected, reports->received);
        EXPECT_EQ(faults, log.Errors());
        EXPECT_EQ(static_cast<std::uint64_t>(faults), cuts() - cut_before);
        std::multiset<std::string> all(expected.begin(), expected.end());
        if (faults == 2 && before.empty()) {
            all.insert("bad");  // what has no stamp is recorded before it is sent
        }
        const Strings recorded = RecordedCommands();
        EXPECT_EQ(all, std::multiset<std::string>(recorded.begin(), recorded.end()));
    }
}

// A start-up file is left alone until it changes; the user's history is read all the same.
TEST(Faults, AFileThatFailedIsNotTriedAgainUntilItChanges) {
    const LogCapture log("module_rsyslog", Poco::Message::PRIO_ERROR);
    Poco::AutoPtr<FaultyReceiver> reports(new FaultyReceiver(1));
    ASSERT_TRUE(TestEngine().StartTask(reports));
    OpenTaskPtr task = NewHistoryTask();
    WriteText(kHistory, "old\n");
    WriteText(kStartUp, "HISTFILE=bad");
    task->Run();
    WriteText(kHistory, "old\nnew\n");
    task->Run();
    task->Run();
    EXPECT_EQ(Strings{"new"}, reports->received);
    EXPECT_EQ(1, log.Holding("/home/ann/.bashrc is passed over until it changes: "));
    WriteText(kStartUp, "HISTFILE=bad2");
    Shell("touch -d @2000 " + std::string(kStartUp));
    task->Run();
    EXPECT_EQ((Strings{"new", "HISTFILE=bad2;"}), reports->received);
    TestEngine().StopTask("data_comm_report_task");
}

// Stopped at any of its trace lines, a cycle adds no more than those of the same command.
TEST(Stop, EndsEveryLoop) {
    Strings lines(20, "x");
    for (int i = 0; i < 10; ++i) {
        lines.insert(lines.end(), {"#1700000000", "y"});
    }
    for (std::size_t after = 1; after < 131; ++after) {
        OpenTaskPtr task = NewHistoryTask();
        task->rsyslog_policy.his_count = task->rsyslog_policy.his_interval = 0;
        StoppingCapture log(task, after);
        Parse(task, lines);
        task->CheckHistoryReport();
        ASSERT_LE(after, log.Lines().size());
        ASSERT_GE(after + 2, log.Lines().size());
        EXPECT_TRUE(task->history_list.empty());
        WriteText(kHistory, "old\n");
        task->BuildHistoryLog();  // looks at nobody any more
        EXPECT_FALSE(task->rsyslog_policy.user_list.front().tail_ready);
    }
}

}  // namespace
