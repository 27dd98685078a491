// Time strings and the record logs.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <csignal>
#include <limits>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using namespace TestSupport;

const char* const kLog = "/tmp/records.log";
const char* const kBackup = "/tmp/records.log.0";

TEST(TimeStrings, LocalTime) {
    OpenTaskPtr task = NewTask();
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ("2023-11-14 22:13:20 ", task->GetLocalTimeStr(1700000000));
    EXPECT_EQ("1969-12-31 23:59:59 ", task->GetLocalTimeStr(-1));
    EXPECT_EQ("2106-02-07 06:28:16 ", task->GetLocalTimeStr(std::int64_t{1} << 32));
    EXPECT_EQ("0", task->GetLocalTimeStr(std::numeric_limits<std::int64_t>::max()));
    setenv("TZ", "KTM-5:45", 1);  // a change of zone is seen
    EXPECT_EQ("2023-11-15 03:58:20 ", task->GetLocalTimeStr(1700000000));
}

TEST(TimeStrings, Durations) {
    OpenTaskPtr task = NewTask();
    const std::pair<std::int64_t, std::string> cases[] = {{-1, "0"},
                                                          {0, "0"},
                                                          {59, "00:00:59"},
                                                          {3661, "01:01:01"},
                                                          {86399, "23:59:59"},
                                                          {86400, "1+00:00:00"},
                                                          {864000, "10+00:00:00"},
                                                          {1LL << 32, "49710+06:28:16"}};
    for (const auto& [seconds, text] : cases) {
        EXPECT_EQ(text, task->GetSplittimeStr(-5 + seconds, -5)) << seconds;
    }
    const std::numeric_limits<std::int64_t> limits;
    EXPECT_EQ("213503982334601+07:00:15", task->GetSplittimeStr(limits.max(), limits.min()));
}

TEST(TimeStrings, ShellStamps) {
    OpenTaskPtr task = NewTask();
    const std::pair<std::string, std::int64_t> cases[] = {{"", 0},
                                                          {"1234", 0},
                                                          {"12345", 12345000},
                                                          {"#1234", 1234000},
                                                          {"#abcd", 0},
                                                          {"12 45", 12000},
                                                          {"##123", 0},
                                                          {"#1700000000", 1700000000000},
                                                          {"1700000000", 1700000000000},
                                                          {"#17000000001", 17000000001}};
    for (const auto& [stamp, milliseconds] : cases) {
        EXPECT_EQ(milliseconds, task->LogtimeToInt(stamp)) << stamp;
    }
}

TEST(RecordLog, OneNewlineEach) {
    std::remove(kLog);
    OpenTaskPtr task = NewTask();
    for (const char* text : {"a", "b\n", "c\n\n", "d\ne", "\n"}) {
        EXPECT_TRUE(task->HistoryWriteLog(text, kLog));
    }
    EXPECT_EQ("a\nb\nc\n\nd\ne\n\n", ReadText(kLog));
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
        const Strings lines = {std::string("8 remove log ok: ") + kBackup,
                               std::string("8 backup_log [") + kBackup + "]",
                               std::string("8 remove log failed: ") + kLog};
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
    const std::pair<std::string, Strings> cases[] = {
        {"", {"3 log path or log empty."}},
        {"/tmp/no/directory", {}},
        {"/tmp/" + std::string(PATH_MAX, '/') + "x", {}},
        {"/tmp", {"3 open log [/tmp] failed."}},
        {"/tmp/fifo", {"3 open log [/tmp/fifo] failed."}},
    };
    for (const auto& [path, lines] : cases) {
        const LogCapture log("module_rsyslog");
        EXPECT_FALSE(task->HistoryWriteLog("a", path)) << path;
        EXPECT_EQ(lines, log.Lines()) << path;
    }
    EXPECT_FALSE(task->HistoryWriteLog("", "/tmp/empty.log"));
    EXPECT_FALSE(fs::exists("/tmp/empty.log"));
}

TEST(RecordLog, NoPieceOfARecordGetsInTheWayOrStays) {
    OpenTaskPtr task = NewTask();
    WriteText(kLog, "whole\nhal");
    EXPECT_TRUE(task->HistoryWriteLog("record", kLog));
    EXPECT_TRUE(task->HistoryWriteLog("next", kLog));
    const std::string before = "whole\nhal\nrecord\nnext\n";
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
