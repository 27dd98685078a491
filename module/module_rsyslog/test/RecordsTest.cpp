// Time strings, the record logs, and login records: reading the accounting file, closing sessions,
// record lines and reports.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <csignal>
#include <future>
#include <random>
#include <set>

#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/JsonUtils.h"

namespace {

using namespace TestSupport;
using Engine::utmp_info;

const char* const kLog = "/tmp/records.log";
const char* const kBackup = "/tmp/records.log.0";

TEST(TimeStrings, LocalTimesDurationsAndStamps) {
    const std::numeric_limits<std::int64_t> limits;
    OpenTaskPtr task = NewTask();
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ("2023-11-14 22:13:20 ", task->GetLocalTimeStr(1700000000));
    EXPECT_EQ("1969-12-31 23:59:59 ", task->GetLocalTimeStr(-1));
    EXPECT_EQ("2106-02-07 06:28:16 ", task->GetLocalTimeStr(1LL << 32));
    EXPECT_EQ("0", task->GetLocalTimeStr(limits.max()));
    setenv("TZ", "KTM-5:45", 1);  // a change of zone is seen
    EXPECT_EQ("2023-11-15 03:58:20 ", task->GetLocalTimeStr(1700000000));

    for (const auto& [seconds, text] :
         {std::pair(-1LL, "0"), std::pair(0LL, "0"), std::pair(59LL, "00:00:59"),
          std::pair(3661LL, "01:01:01"), std::pair(86399LL, "23:59:59"),
          std::pair(86400LL, "1+00:00:00"), std::pair(1LL << 32, "49710+06:28:16")}) {
        EXPECT_EQ(text, task->GetSplittimeStr(-5 + seconds, -5)) << seconds;
    }
    EXPECT_EQ("213503982334601+07:00:15", task->GetSplittimeStr(limits.max(), limits.min()));

    for (const auto& [stamp, milliseconds] :
         {std::pair("", 0LL), std::pair("1234", 0LL), std::pair("12345", 12345000LL),
          std::pair("#1234", 1234000LL), std::pair("#abcd", 0LL), std::pair("12 45", 12000LL),
          std::pair("##123", 0LL), std::pair("#1700000000", 1700000000000LL),
          std::pair("1700000000", 1700000000000LL), std::pair("#17000000001", 17000000001LL)}) {
        EXPECT_EQ(milliseconds, task->LogtimeToInt(stamp)) << stamp;
    }
}

TEST(RecordLog, RotatesBeforeTheWriteThatReachesTheLimit) {
    constexpr std::size_t kMebi = 1 << 20;
    OpenTaskPtr task = NewTask();
    // The limit in MiB, the size of the file, the length of the text with its newline.
    for (const auto& [mebibytes, size, length, rotated] :
         {std::tuple(1, kMebi - 10, 9U, false), std::tuple(1, kMebi - 10, 10U, true),
          std::tuple(1, 0UL, 1U << 20, true), std::tuple(2, kMebi, 10U, false),
          std::tuple(0, 2 * kMebi, 10U, false), std::tuple(2047, 10UL, 10U, false),
          std::tuple(2048, 2 * kMebi, 10U, false), std::tuple(4096, 1UL, 10U, true),
          std::tuple(-1, 2 * kMebi, 10U, false)}) {
        SCOPED_TRACE(std::to_string(mebibytes) + " MiB, " + std::to_string(length));
        WriteText(kLog, size == 0 ? "" : std::string(size - 1, 'x') + "\n");
        WriteText(kBackup, "earlier");
        task->rsyslog_policy.history_size = mebibytes;
        const LogCapture log("module_rsyslog");
        EXPECT_TRUE(task->HistoryWriteLog(std::string(length - 1, 't'), kLog));
        EXPECT_EQ(length + (rotated ? 0 : size), fs::file_size(kLog));
        EXPECT_EQ(rotated ? size : 7, fs::file_size(kBackup));
        const Strings lines = Split(
            "8 remove log ok: /tmp/records.log.0|8 backup_log [/tmp/records.log.0]|"
            "8 remove log failed: /tmp/records.log");
        EXPECT_EQ(rotated ? lines : Strings(), log.Lines());
    }
    const LogCapture log("module_rsyslog");
    task->HistoryBackupLog("/tmp/none");
    task->HistoryBackupLog(std::string(4094, 'x'));
    EXPECT_EQ((Strings{"8 remove log failed: /tmp/none.0", "8 backup /tmp/none failed.",
                       "3 snprintf failed"}),
              log.Lines());
}

TEST(RecordLog, WhatCannotBeWritten) {
    OpenTaskPtr task = NewTask();
    ASSERT_EQ(0, mkfifo("/tmp/fifo", 0600));
    for (const auto& [path, lines] :
         {std::pair(""s, Strings{"3 log path or log empty."}),
          std::pair("/tmp/no/directory"s, Strings()),
          std::pair("/tmp/" + std::string(PATH_MAX, '/') + "x", Strings()),
          std::pair("/tmp"s, Strings{"3 open log [/tmp] failed."}),
          std::pair("/tmp/fifo"s, Strings{"3 open log [/tmp/fifo] failed."})}) {
        const LogCapture log("module_rsyslog");
        EXPECT_FALSE(task->HistoryWriteLog("a", path)) << path;
        EXPECT_EQ(lines, log.Lines()) << path;
    }
    EXPECT_FALSE(task->HistoryWriteLog("", "/tmp/empty.log"));
    EXPECT_FALSE(fs::exists("/tmp/empty.log"));
}

// One newline each, and no piece of a record gets in the way or stays.
TEST(RecordLog, HoldsWholeLines) {
    OpenTaskPtr task = NewTask();
    WriteText(kLog, "whole\nhal");
    for (const char* text : {"a", "b\n", "c\n\n", "d\ne", "\n"}) {
        EXPECT_TRUE(task->HistoryWriteLog(text, kLog));
    }
    const std::string before = "whole\nhal\na\nb\nc\n\nd\ne\n\n";
    EXPECT_EQ(before, ReadText(kLog));
    std::signal(SIGXFSZ, SIG_IGN);
    // Bytes a file may have: room for a part.
    const rlimit limit = {before.size() + 3, RLIM_INFINITY};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    EXPECT_FALSE(task->HistoryWriteLog("record", kLog));
    EXPECT_TRUE(task->HistoryWriteLog("ok", kLog));
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &none));
    EXPECT_EQ(before + "ok\n", ReadText(kLog));
}

const std::size_t kStampLength = 20;
const std::string kWritten = "write last : ";

// The rules once more, as plain as they can be told: every end is held against every login.
// Stops when it has logged `stop_after` lines.
struct Model {
    void Pass(const std::vector<utmp>& file) {
        std::size_t fresh = list.size();
        for (const utmp& entry : file) {
            utmp_info record;
            record.type = entry.ut_type;
            record.pid = entry.ut_pid;
            record.line = Text(entry.ut_line);
            record.user = Text(entry.ut_user);
            record.host = Text(entry.ut_host);
            record.session = entry.ut_session;
            record.login_time = entry.ut_tv.tv_sec;
            const bool kept = record.type == 7 || record.type == 8 || record.type == 2;
            if (kept && !Stopped() && known.insert(Typed(record)).second) {
                list.push_back(record);
            }
        }
        for (; fresh < list.size() && !Stopped(); ++fresh) {
            log.push_back("newlast type " + Typed(list[fresh]));
            Close(utmp_info(list[fresh]));
        }
        for (utmp_info& login : list) {
            if (!Stopped() && login.type == 7 && login.pending) {
                Report(login);
                login.pending = false;
            }
        }
    }

    static Strings State(const std::vector<utmp_info>& list) {
        Strings state;
        for (const utmp_info& r : list) {
            state.push_back(Typed(r) + "," + std::to_string(r.logout_time) +
                            (r.pending ? "!" : ""));
        }
        return state;
    }
    template <std::size_t Size>
    static std::string Text(const char (&field)[Size]) {
        return std::string(field, strnlen(field, Size));
    }
    static std::string Typed(const utmp_info& r) { return std::to_string(r.type) + " " + Named(r); }
    static std::string Named(const utmp_info& r) {
        return "pid:" + std::to_string(r.pid) + "," + r.line + "," + r.user + "," + r.host + "," +
               std::to_string(r.session) + "," + std::to_string(r.login_time);
    }
    bool Stopped() const { return log.size() >= stop_after; }

    void Close(const utmp_info& end) {
        for (utmp_info& login : list) {
            const bool open = login.type == 7 && login.logout_time == 0;
            const bool ended = end.type == 2 || (end.type == 8 && login.line == end.line);
            if (Stopped() || !open || !ended || login.login_time > end.login_time) {
                continue;
            }
            login.logout_time = end.login_time;
            login.pending = true;
            log.push_back((end.type == 8 ? "finddeadok " : "findfindbootok ") + Named(login) +
                          ", " + std::to_string(login.logout_time));
            if (end.type == 8) {
                return;
            }
        }
    }

    void Report(const utmp_info& login) {
        const bool open = login.logout_time == 0;
        const std::string start = text->GetLocalTimeStr(login.login_time);
        const std::string end = open ? "0" : text->GetLocalTimeStr(login.logout_time);
        const std::string duration =
            open ? "0" : text->GetSplittimeStr(login.logout_time, login.login_time);
        records.push_back("sandbox " + login.user + " " + login.line + " " + login.host + " " +
                          start + " " + end + " " + duration);
        log.push_back(kWritten + records.back());
        Json::Value report;
        report["user"] = login.user;
        report["dev"] = login.line;
        report["loginip"] = login.host;
        report["start_time"] = start;
        report["end_time"] = end;
        report["duration"] = duration;
        reports.emplace_back("rsyslog_2", SDK::JsonUtils::JsonToString(report));
        log.push_back("last_log message is [" + reports.back().second + "]");
    }

    std::size_t stop_after = 0;
    std::vector<utmp_info> list;
    std::set<std::string> known;
    Strings log, records;
    Reports reports;
    OpenTaskPtr text = NewTask();
};

utmp RandomEntry(std::mt19937& random) {
    const auto any = [&random](int count) { return static_cast<int>(random() % count); };
    if (any(20) == 0) {  // noise, with fields that do not end
        utmp entry;
        for (std::size_t at = 0; at < sizeof(entry); ++at) {
            // Newlines would make lines of the record log hard to tell apart.
            reinterpret_cast<char*>(&entry)[at] = static_cast<char>(any(240) + 11);
        }
        entry.ut_type = any(2) == 0 ? 7 : 8;
        return entry;
    }
    const int kinds[] = {7, 7, 7, 7, 8, 8, 8, 2, 1, 6};
    const char* const lines[] = {"pts/0", "pts/1", "tty1"};
    utmp entry = LoginEntry(kinds[any(10)], lines[any(3)], any(9) - 3);
    entry.ut_pid = any(2);
    std::strncpy(entry.ut_user, any(2) == 0 ? "root" : "al", sizeof(entry.ut_user));
    std::strncpy(entry.ut_host, any(2) == 0 ? "" : "h", sizeof(entry.ut_host));
    entry.ut_session = any(8) == 0 ? -1 : 0;
    return entry;
}

TEST(Login, AgreesWithAPlainReading) {
    setenv("TZ", "KTM-5:45", 1);
    for (unsigned seed = 0; seed < 2000 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool traced = seed % 3 != 0;
        const std::size_t stop_after = traced && seed % 4 == 0 ? random() % 60 + 1 : 100000;
        OpenTaskPtr task = CollectingTask();
        Model model;
        model.stop_after = stop_after;
        RunningReceiver receiver;
        const StoppingCapture log(task, stop_after, traced ? 8 : 6);
        std::vector<utmp> file;
        for (int pass = 0; pass < 4; ++pass) {
            if (random() % 6 == 0) {
                file.clear();  // rotated
            }
            // Now and then so many that they are looked up in an index.
            for (unsigned left = random() % (seed % 400 == 0 ? 2000 : 24); left > 0; --left) {
                file.push_back(RandomEntry(random));
            }
            std::string bytes(reinterpret_cast<const char*>(file.data()),
                              file.size() * sizeof(utmp));
            bytes += bytes.substr(0, random() % 100);  // torn
            WriteText(kLoginFile, bytes);
            task->BuildLastInfo();
            model.Pass(file);
        }
        Strings lines = log.Lines();
        for (std::string& line : lines) {
            if (line.rfind(kWritten, 0) == 0) {
                line.erase(kWritten.size(), kStampLength);  // of its writing
            }
        }
        EXPECT_EQ(traced ? model.log : Strings(), lines);
        EXPECT_EQ(model.records, LinesOf(kLoginLog, kStampLength));
        EXPECT_EQ(model.reports, receiver.Finish());
        EXPECT_EQ(Model::State(model.list), Model::State(task->utmp_list));
    }
}

TEST(Login, WhatIsNoAccountingFile) {
    for (const std::string& command :
         Strings{"true", ": >$F", "mkdir $F", "mkfifo $F", "ln -s /dev/zero $F", "ln -s wtmp $F",
                 "printf 7 >$F", "mkfifo ${F}x; : >$F"}) {  // the C library reads that in its place
        SCOPED_TRACE(command);
        Shell("F=/var/log/wtmp; rm -rf $F; " + command);
        OpenTaskPtr task = NewTask();
        std::vector<utmp_info> fresh(1);
        task->ReadLastAllinfo(fresh);
        EXPECT_TRUE(fresh.empty() && task->utmp_list.empty());
        Shell("rm -rf /var/log/wtmp /var/log/wtmpx");
        Log(LoginEntry(7, "tty1", 5));
        task->ReadLastAllinfo(fresh);  // the next pass finds what has come
        EXPECT_EQ(1U, fresh.size());
    }
}

// Each reader works on a thread of its own, as it does in the agent.
TEST(Login, ALockedFileIsLeftForLater) {
    fs::remove(kLoginFile);
    fs::create_symlink("wtmp", "/var/log/wtmpx");  // under this name, too, it is looked at
    OpenTaskPtr task = NewTask();
    OpenTaskPtr stopped = NewTask();
    std::vector<utmp_info> fresh, none;
    Log(LoginEntry(7, "tty1", 5));
    task->ReadLastAllinfo(fresh);
    Log(LoginEntry(8, "tty1", 9));
    // No longer just changed: a whole reading would not be repeated.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    const int holder = open(kLoginFile, O_RDWR);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(0, fcntl(holder, F_OFD_SETLK, &lock));
    auto read = std::async(std::launch::async, [&] { task->ReadLastAllinfo(fresh); });
    EXPECT_EQ(std::future_status::ready, read.wait_for(std::chrono::seconds(20)));  // not for ever
    EXPECT_TRUE(fresh.empty());
    read = std::async(std::launch::async, [&] { stopped->ReadLastAllinfo(none); });
    while (stopped->utmp_mutex.tryLock()) {  // free: the reading has not begun
        stopped->utmp_mutex.unlock();
    }
    stopped->RequestStop();
    EXPECT_EQ(std::future_status::ready, read.wait_for(std::chrono::seconds(5)));
    EXPECT_TRUE(none.empty());
    close(holder);
    task->ReadLastAllinfo(fresh);
    EXPECT_EQ(1U, fresh.size());
    fs::remove("/var/log/wtmpx");
}

}  // namespace
