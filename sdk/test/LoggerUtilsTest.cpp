#include <Poco/Exception.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "sdk/LoggerUtils.h"
#include "sdk/test/TempDir.h"

namespace {

TEST(LoggerUtils, EveryMessageIsOneLineAndAFailedOpenChangesNothing) {
    const TempDir dir;
    SDK::LoggerUtils* const logs = SDK::LoggerUtils::GetInstance();
    Poco::Logger* early = logs->GetModuleLogger("ea\nrly", false);
    logs->Open(dir / ".", "debug");
    dir.Run("mkfifo fifo && mkdir bad && ln -s ../fifo bad/watchpost.log");
    EXPECT_THROW(logs->Open(dir / "bad", "trace"), Poco::OpenFileException);
    EXPECT_THROW(logs->Open(dir / "", "loud"), Poco::InvalidArgumentException);
    const std::string cases[][2] = {
        {"plain \ttab é € %s %t %%", "plain \ttab é € %s %t %%"},
        {"a\r\n2024-01-01 [Error] forged", R"(a\r\n2024-01-01 [Error] forged)"},
        {std::string("\x1B[2J\x07\x7F\x0B\0", 8), R"(\x1B[2J\x07\x7F\x0B\x00)"},
        {"\xC2\x85\xC2\x9Bm\xC2\xA0", "\\xC2\\x85\\xC2\\x9Bm\xC2\xA0"},
        {"\u2027\u2028\u202E\u202F", "\u2027\\xE2\\x80\\xA8\\xE2\\x80\\xAE\u202F"},
        {"\u2065\u2066\u2069\u206A", "\u2065\\xE2\\x81\\xA6\\xE2\\x81\\xA9\u206A"},
        {"\x9Bm \xE2\x82\n", R"(\x9Bm \xE2\x82\n)"},
    };
    std::ifstream log(dir / "watchpost.log");
    for (const auto& [text, shown] : cases) {
        early->trace("below the level");
        early->debug(text, "Some.cpp", 12);
        std::string line;
        std::getline(log, line);
        EXPECT_EQ(line.erase(0, line.find('[')), "[Debug] ea\\nrly Some.cpp:12 " + shown);
    }
    Poco::Logger::setChannel("", nullptr);
}

// The texts of the lines of a log and its old files, the oldest first.
std::vector<std::string> Logged(const std::string& path) {
    std::vector<std::string> texts;
    for (const char* old : {".4", ".3", ".2", ".1", ".0", ""}) {
        std::ifstream file(path + old);
        for (std::string line; std::getline(file, line);) {
            texts.push_back(line.substr(line.find_last_of(" :") + 1));
        }
    }
    return texts;
}

TEST(LoggerUtils, AFullDiskCostsNoOldLineAndIsToldOnceThereIsRoom) {
    const TempDir dir;
    ASSERT_EQ(mount("small", (dir / "").c_str(), "tmpfs", 0, "size=44m"), 0);
    const std::string path = dir / "watchpost.log";
    dir.Run("printf torn >watchpost.log; echo left by a crash >watchpost.log.new");
    SDK::LoggerUtils::GetInstance()->Open(dir / "", "debug");
    Poco::Logger& log = Poco::Logger::get("full");
    std::vector<std::string> expected = {"torn"};
    const std::string large(1 << 20, 'x');
    for (int i = 0; i < 30; ++i) {
        if (i == 27) {  // where a rotation is due: it cannot be
            dir.Run("mkdir -p watchpost.log.new/x");
        }
        expected.push_back(std::to_string(i) + large);
        log.error(expected.back());
    }
    dir.Run("test -e watchpost.log.1 -a ! -e watchpost.log.2");
    // The rest of the disk, to the last byte; the file's last page takes a few bytes more.
    std::ofstream(dir / "filler") << std::string(44 << 20, 'x') << std::flush;
    for (int i = 0; i < 100; ++i) {
        log.error(large);  // also where a rotation is due
    }
    EXPECT_TRUE(Logged(path) == expected);
    dir.Run("rm -r filler watchpost.log.new");
    expected.emplace_back("device");  // 100 messages not written: No space left on device
    expected.emplace_back("a");
    log.error("a");
    dir.Run("grep -q ' 100 messages not written: No space' watchpost.log");
    EXPECT_TRUE(Logged(path) == expected);
    std::filesystem::rename(path, dir / "moved");
    log.error("b");
    EXPECT_EQ(Logged(dir / "moved").back() + Logged(path).back(), "ab");
    std::filesystem::rename(dir / "moved", path);
    log.error("c");
    EXPECT_EQ(Logged(path).back(), "c");
    // A FIFO there neither holds anybody nor gets a line, nor does a file that has a lease on it.
    dir.Run("rm watchpost.log && mkfifo watchpost.log");
    log.error("d");
    dir.Run("rm watchpost.log && touch watchpost.log");
    signal(SIGIO, SIG_IGN);
    const int leased = open(path.c_str(), O_RDONLY);
    ASSERT_EQ(fcntl(leased, F_SETLEASE, F_RDLCK), 0);
    const Poco::Timestamp start;
    log.error("e");
    EXPECT_LT(start.elapsed(), 20'000'000);
    close(leased);
    Poco::Logger::setChannel("", nullptr);
    EXPECT_EQ(umount2((dir / "").c_str(), MNT_DETACH), 0);
}

TEST(LoggerUtils, WarningsAndErrorsReachStandardErrorAndNobodyWaitsForIt) {
    const TempDir dir;
    SDK::LoggerUtils& logs = *SDK::LoggerUtils::GetInstance();
    Poco::Logger& log = Poco::Logger::get("watchpost");
    const int usual = dup(STDERR_FILENO);
    int ends[2];
    int pipes[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends) + pipe(pipes));
    struct stat status = {};
    ASSERT_EQ(0, fstat(ends[0], &status));
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    const struct {
        std::string journal, error, warning;
    } cases[] = {{"1:1", "watchpost: error: ", "watchpost: warning: "}, {stream, "<3>", "<4>"}};
    dup2(ends[0], STDERR_FILENO);
    for (const auto& c : cases) {
        setenv("JOURNAL_STREAM", c.journal.c_str(), 1);
        logs.Open(dir / ".", "information");
        Poco::Timestamp time;
        std::string last;
        EXPECT_FALSE(logs.GetLastError(time, last));
        log.information("i");
        log.error("e\n" + std::string(5000, 'x'));
        log.warning("w");
        char text[8192];
        const ssize_t length = recv(ends[1], text, sizeof(text), MSG_DONTWAIT);
        EXPECT_EQ(c.error + "e\\n" + std::string(4095 - c.error.size() - 3, 'x') + "\n" +
                      c.warning + "w\n",
                  std::string(text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))));
        EXPECT_TRUE(logs.GetLastError(time, last));
        EXPECT_EQ("e\n" + std::string(1022, 'x'), last);
        EXPECT_GT(60'000'000, time.elapsed());
    }
    unsetenv("JOURNAL_STREAM");
    signal(SIGPIPE, SIG_IGN);
    for (const bool readable : {true, false}) {  // while nobody reads, and when nobody can
        for (const int fd : {pipes[1], ends[0], open("/dev/full", O_WRONLY)}) {
            dup2(fd, STDERR_FILENO);
            for (int i = 0; i < 500; ++i) {
                log.error(std::string(1000, 'x'));
            }
        }
        close(readable ? pipes[0] : pipes[1]);
        close(readable ? ends[1] : ends[0]);
    }
    close(STDERR_FILENO);
    log.error("gone");
    dup2(usual, STDERR_FILENO);
    close(usual);
    EXPECT_EQ("gone", Logged(dir / "watchpost.log").back());
    Poco::Logger::setChannel("", nullptr);
}

}  // namespace
