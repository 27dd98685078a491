#include <Poco/Exception.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "sdk/LoggerUtils.h"
#include "sdk/test/TempDir.h"

namespace {

TEST(LoggerUtils, EveryMessageIsOneLineAndAFailedOpenChangesNothing) {
    const TempDir dir;
    SDK::LoggerUtils* const logs = SDK::LoggerUtils::GetInstance();
    Poco::Logger* early = logs->GetModuleLogger("ea\nrly", false);
    logs->Open(dir / ".", "debug");
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir((dir / "bad").c_str(), 0700), 0);
    ASSERT_EQ(symlink("../fifo", (dir / "bad/watchpost.log").c_str()), 0);
    EXPECT_THROW(logs->Open(dir / "bad", "trace"), Poco::OpenFileException);
    EXPECT_THROW(logs->Open(dir / "", "loud"), Poco::InvalidArgumentException);
    const std::string cases[][2] = {
        {"plain \ttab é € %s %t %%", "plain \ttab é € %s %t %%"},
        {"a\r\n2024-01-01 [Error] forged", R"(a\r\n2024-01-01 [Error] forged)"},
        {std::string("\x1B[2J\x07\x7F\x0B\0", 8), R"(\x1B[2J\x07\x7F\x0B\x00)"},
        {"\xC2\x85\xC2\x9Bm\xC2\xA0", "\\xC2\\x85\\xC2\\x9Bm\xC2\xA0"},
        {"\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAA", "\\xE2\\x80\\xA8\\xE2\\x80\\xA9\xE2\x80\xAA"},
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

}  // namespace
