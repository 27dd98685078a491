// Time strings and the record logs.

#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <csignal>
#include <limits>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using namespace TestSupport;
using namespace std::string_literals;

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

}  // namespace
