#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "sdk/LoggerUtils.h"
#include "sdk/test/TempDir.h"

namespace {

class LoggerUtilsTest : public testing::Test {
protected:
    ~LoggerUtilsTest() override { Poco::Logger::setChannel("", nullptr); }

    SDK::LoggerUtils* logs_ = SDK::LoggerUtils::GetInstance();
    TempDir dir_;
};

TEST_F(LoggerUtilsTest, EveryMessageIsOneLineWithoutControls) {
    EXPECT_EQ(logs_->GetModuleLogger("early", true), nullptr);
    Poco::Logger* early = logs_->GetModuleLogger("early", false);
    EXPECT_EQ(logs_->GetModuleLogger("early", true), early);
    logs_->Open(dir_ / ".", "debug");
    EXPECT_EQ(logs_->GetLogPath(), dir_ / ".");
    const std::string cases[][2] = {
        {"plain \ttab é € %s %t %%", "plain \ttab é € %s %t %%"},
        {"a\r\n2024-01-01 [Error] forged", R"(a\r\n2024-01-01 [Error] forged)"},
        {std::string("\x1B[2J\x07\x7F\x0B\0", 8), R"(\x1B[2J\x07\x7F\x0B\x00)"},
        {"\xC2\x85\xC2\x9Bm\xC2\xA0", "\\xC2\\x85\\xC2\\x9Bm\xC2\xA0"},
        {"\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAA", "\\xE2\\x80\\xA8\\xE2\\x80\\xA9\xE2\x80\xAA"},
        {"\x9Bm \xE2\x82\n", R"(\x9Bm \xE2\x82\n)"},
    };
    std::string expected;
    for (const auto& [text, shown] : cases) {
        early->debug(text, "Some.cpp", 12);
        expected.append("TIME [Debug] early Some.cpp:12 ").append(shown).append("\n");
    }
    early->trace("below the level");
    logs_->GetModuleLogger("x\ny", false)->error("name");
    expected += "TIME [Error] x\\ny :0 name\n";
    std::string log = dir_.Read("watchpost.log");
    Poco::RegularExpression(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )",
                            Poco::RegularExpression::RE_MULTILINE)
        .subst(log, "TIME ", Poco::RegularExpression::RE_GLOBAL);
    EXPECT_EQ(log, expected);
}

TEST_F(LoggerUtilsTest, RotatesAndKeepsFiveOldFiles) {
    // Without any logger at first, as in a process that just started.
    Poco::Logger::shutdown();
    logs_->Open(dir_ / ".", "information");
    const std::string message(1 << 20, 'x');
    for (int i = 0; i < 80; ++i) {
        logs_->GetModuleLogger("big", false)->information(message);
    }
    EXPECT_EQ(dir_.List().size(), 6U);
    for (const std::string& name : dir_.List()) {
        EXPECT_LE(std::filesystem::file_size(dir_ / name), 12U << 20U) << name;
    }
}

TEST_F(LoggerUtilsTest, FailuresNameThePathAndChangeNothing) {
    logs_->Open(dir_ / ".", "error");
    ASSERT_EQ(mkdir((dir_ / "fifo").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((dir_ / "fifo/watchpost.log").c_str(), 0600), 0);
    for (const std::string& bad : {dir_ / "none", dir_ / "fifo", dir_ / "watchpost.log"}) {
        try {
            logs_->Open(bad, "debug");
            ADD_FAILURE() << bad;
        } catch (const Poco::Exception& e) {
            const std::string text = e.displayText();
            EXPECT_NE(text.find(bad + "/watchpost.log"), std::string::npos) << text;
        }
    }
    EXPECT_THROW(logs_->Open(dir_ / "", "loud"), Poco::InvalidArgumentException);
    EXPECT_EQ(logs_->GetLogPath(), dir_ / ".");
    EXPECT_EQ(Poco::Logger::root().getLevel(), Poco::Message::PRIO_ERROR);
}

}  // namespace
