#include <gtest/gtest.h>

#include "sdk/StringUtils.h"

namespace {

TEST(StringUtils, ToUtf8ReplacesMaximalIllFormedPieces) {
    // '?' stands for U+FFFD in what is expected.
    const std::string ranges =
        "\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80"
        "\xF4\x8F\xBF\xBF";
    const std::string cases[][2] = {
        {ranges, ranges},
        {"\x80\xBF\xC0\xC1\xF5\xFF", "??????"},
        {"\xC0\xAF\xE0\x80\xAF\xF0\x80\x80\xAF", "?????????"},
        {"\xED\xA0\x80\xED\xBF\xBF\xF4\x90\x80\x80", "??????????"},
        {"\xC3x\xE2\x82x\xF0\x9F\x98x\xF0\x9Fx\xE2\x82\xC3\xA9\xF0", "?x?x?x?x?\xC3\xA9?"},
    };
    for (const auto& [bytes, pattern] : cases) {
        std::string expected;
        for (const char byte : pattern) {
            expected += byte == '?' ? std::string("\xEF\xBF\xBD") : std::string(1, byte);
        }
        EXPECT_EQ(SDK::StringUtils::ToUtf8(bytes), expected) << pattern;
    }
}

}  // namespace
