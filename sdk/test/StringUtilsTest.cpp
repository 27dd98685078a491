#include <gtest/gtest.h>

#include <cerrno>

#include "sdk/BoundedString.h"
#include "sdk/PathUtils.h"
#include "sdk/StringUtils.h"

namespace {

TEST(StringUtils, ToUtf8ReplacesMaximalIllFormedPieces) {
    // '?' stands for U+FFFD in what is expected.
    const std::string ranges =
        "\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80"
        "\xF4\x8F\xBF\xBF";
    const struct {
        const char* label;
        std::string bytes;
        std::string expected;
    } cases[] = {
        {"zero byte", std::string("a\0b", 3), std::string("a\0b", 3)},
        {"first and last of each range", ranges, ranges},
        {"lone tails", "\x80\xBF", "??"},
        {"never a lead", "\xC0\xC1\xF5\xFF", "????"},
        {"overlong '/'", "\xC0\xAF\xE0\x80\xAF\xF0\x80\x80\xAF", "?????????"},
        {"surrogates", "\xED\xA0\x80\xED\xBF\xBF", "??????"},
        {"beyond U+10FFFF", "\xF4\x90\x80\x80", "????"},
        {"truncated", "\xC3x\xE2\x82x\xF0\x9F\x98x\xF0\x9Fx\xF0", "?x?x?x?x?"},
        {"truncated before a character", "\xE2\x82\xC3\xA9", "?\xC3\xA9"},
        {"mixed", "x\xF1\x80\x80\xE1\x80\xC2y\x80z\x80\xBFx", "x???y?z??x"},
    };
    for (const auto& c : cases) {
        std::string expected;
        for (const char byte : c.expected) {
            expected += byte == '?' ? std::string("\xEF\xBF\xBD") : std::string(1, byte);
        }
        EXPECT_EQ(SDK::StringUtils::ToUtf8(c.bytes), expected) << c.label;
    }
}

TEST(BoundedString, IsWholeOrNotThere) {
    const struct {
        size_t dest_max;
        size_t count;
        int result;
    } cases[] = {{6, 5, 5}, {9, 6, 5}, {5, 4, -1}, {9, 4, -1}, {5, 5, -1}, {1, 0, -1}, {0, 0, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dest_max * 100 + c.count);
        char dest[10] = "#########";
        EXPECT_EQ(SDK::snprintf_s(dest, c.dest_max, c.count, "%s-%d", "abc", 1), c.result);
        EXPECT_STREQ(dest, c.result == 5 ? "abc-1" : c.dest_max == 0 ? "#########" : "");
        EXPECT_STREQ(dest + 6, "###");
    }
    char dest[] = "1234";
    EXPECT_EQ(SDK::memcpy_s(dest, 4, "abcde", 5), ERANGE);
    EXPECT_EQ(SDK::memcpy_s(dest, 4, nullptr, 1), EINVAL);
    EXPECT_STREQ(dest, "1234");
    EXPECT_EQ(SDK::memcpy_s(dest, 4, "abcd", 4), 0);
    EXPECT_STREQ(dest, "abcd");
}

TEST(PathUtils, FileNameIsWhatFollowsTheLastSlash) {
    const std::string cases[][2] = {{"/a/b.c", "b.c"}, {"b", "b"}, {"/", ""}, {"a/", ""}, {"", ""}};
    for (const auto& [path, name] : cases) {
        EXPECT_EQ(SDK::PathUtils::GetFileNameFromPath(path), name) << path;
    }
}

}  // namespace
