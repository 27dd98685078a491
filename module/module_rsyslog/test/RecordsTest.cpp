// Time strings and the record logs.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <limits>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using TestSupport::LogCapture;
using TestSupport::NewTask;
using TestSupport::OpenTaskPtr;
using TestSupport::ReadText;
using TestSupport::WriteText;

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
    for (const auto& [seconds, text] : std::vector<std::pair<std::int64_t, std::string>>{
             {-1, "0"},
             {0, "0"},
             {1, "00:00:01"},
             {59, "00:00:59"},
             {60, "00:01:00"},
             {3599, "00:59:59"},
             {3661, "01:01:01"},
             {86399, "23:59:59"},
             {86400, "1+00:00:00"},
             {90061, "1+01:01:01"},
             {864000, "10+00:00:00"},
             {std::int64_t{1} << 32, "49710+06:28:16"}}) {
        EXPECT_EQ(text, task->GetSplittimeStr(-5 + seconds, -5)) << seconds;
    }
    const std::numeric_limits<std::int64_t> limits;
    EXPECT_EQ("213503982334601+07:00:15", task->GetSplittimeStr(limits.max(), limits.min()));
}

TEST(TimeStrings, ShellStamps) {
    OpenTaskPtr task = NewTask();
    for (const auto& [stamp, milliseconds] :
         std::vector<std::pair<std::string, std::int64_t>>{{"", 0},
                                                           {"#12", 0},
                                                           {"1234", 0},
                                                           {"12345", 12345000},
                                                           {"#1234", 1234000},
                                                           {"#abcd", 0},
                                                           {"12 45", 12000},
                                                           {"##123", 0},
                                                           {"#1700000000", 1700000000000},
                                                           {"1700000000", 1700000000000},
                                                           {"#17000000001", 17000000001},
                                                           {"#1700000000123", 1700000000123}}) {
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
    struct Case {
        std::int32_t mebibytes;
        std::size_t size;    // of the file
        std::size_t length;  // of the text with its newline
        bool rotated;
    };
    const std::size_t mebibyte = 1 << 20;
    for (const Case& c : {Case{1, mebibyte - 10, 9, false}, Case{1, mebibyte - 10, 10, true},
                          Case{1, mebibyte - 10, 11, true}, Case{1, 0, mebibyte, true},
                          Case{2, mebibyte, 10, false}, Case{0, 2 * mebibyte, 10, false},
                          Case{2047, 10, 10, false}, Case{2048, 2 * mebibyte, 10, false},
                          Case{4096, 1, 10, true}, Case{-1, 2 * mebibyte, 10, false}}) {
        SCOPED_TRACE(std::to_string(c.mebibytes) + " MiB, " + std::to_string(c.length));
        WriteText(kLog, c.size == 0 ? "" : std::string(c.size - 1, 'x') + "\n");
        WriteText(kBackup, "earlier");
        OpenTaskPtr task = NewTask();
        task->rsyslog_policy.history_size = c.mebibytes;
        const LogCapture log("module_rsyslog");
        EXPECT_TRUE(task->HistoryWriteLog(std::string(c.length - 1, 't'), kLog));
        EXPECT_EQ(c.length + (c.rotated ? 0 : c.size), std::filesystem::file_size(kLog));
        EXPECT_EQ(c.rotated ? c.size : 7, std::filesystem::file_size(kBackup));
        const std::vector<std::string> lines = {std::string("8 remove log ok: ") + kBackup,
                                                std::string("8 backup_log [") + kBackup + "]",
                                                std::string("8 remove log failed: ") + kLog};
        EXPECT_EQ(c.rotated ? lines : std::vector<std::string>(), log.Lines());
    }
    const LogCapture log("module_rsyslog");
    NewTask()->HistoryBackupLog("/tmp/none");
    EXPECT_EQ((std::vector<std::string>{"8 remove log failed: /tmp/none.0",
                                        "8 backup /tmp/none failed."}),
              log.Lines());
    NewTask()->HistoryBackupLog(std::string(4094, 'x'));
    EXPECT_EQ(1, log.Count("3 snprintf failed"));
}

TEST(RecordLog, WhatCannotBeWritten) {
    struct Case {
        std::string text;
        std::string path;
        std::vector<std::string> lines;
    };
    for (const Case& c :
         {Case{"", "/tmp/empty.log", {"3 log path or log empty."}},
          Case{"a", "", {"3 log path or log empty."}}, Case{"a", "/tmp/no/directory", {}},
          Case{"a", "/tmp/" + std::string(PATH_MAX, '/') + "x", {}},
          Case{"a", "/tmp", {"3 open log [/tmp] failed."}}}) {
        const LogCapture log("module_rsyslog");
        EXPECT_FALSE(NewTask()->HistoryWriteLog(c.text, c.path)) << c.path;
        EXPECT_EQ(c.lines, log.Lines()) << c.path;
    }
    EXPECT_NE(0, access("/tmp/empty.log", F_OK));
}

TEST(RecordLog, NeitherAFifoNorHalfARecordGetsInTheWay) {
    std::remove(kLog);
    ASSERT_EQ(0, mkfifo(kLog, 0600));
    const LogCapture log("module_rsyslog");
    EXPECT_FALSE(NewTask()->HistoryWriteLog("record", kLog));
    EXPECT_EQ(1, log.Count(std::string("3 open log [") + kLog + "] failed."));
    std::remove(kLog);
    WriteText(kLog, "whole\nhal");
    EXPECT_TRUE(NewTask()->HistoryWriteLog("record", kLog));
    EXPECT_TRUE(NewTask()->HistoryWriteLog("next", kLog));
    EXPECT_EQ("whole\nhal\nrecord\nnext\n", ReadText(kLog));
}

TEST(RecordLog, NoPieceOfARecordStays) {
    WriteText(kLog, "before\n");
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {10, RLIM_INFINITY};  // bytes a file may have: room for a part
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    EXPECT_FALSE(NewTask()->HistoryWriteLog("record", kLog));
    EXPECT_TRUE(NewTask()->HistoryWriteLog("ok", kLog));
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &none));
    EXPECT_EQ("before\nok\n", ReadText(kLog));
}

}  // namespace
