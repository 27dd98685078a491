#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <vector>

#include "sdk/BoundedString.h"
#include "sdk/JsonUtils.h"
#include "sdk/StringUtils.h"

namespace {

int Parse(const std::string& text, Json::Value& value) {
    return SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value);
}

TEST(JsonUtils, WhatIsParsedIsWrittenCompactSortedAndInAscii) {
    const std::string deep = std::string(1000, '[') + std::string(1000, ']');
    const std::string cases[][2] = {
        {"\xEF\xBB\xBF {\"b\":[1,2.5,-0],\"B\":{}}\n", R"({"B":{},"b":[1,2.5,0]})"},
        {"\"é€😀\xF4\x8F\xBF\xBF\"", R"("\u00e9\u20ac\ud83d\ude00\udbff\udfff")"},
        {"{\"y\xF0\x9F\x98tail\":\"\xE2\x82xyz\xFF\xC3\"}",
         R"({"y\ufffdtail":"\ufffdxyz\ufffd\ufffd"})"},
        {deep, deep},
    };
    for (const auto& [text, written] : cases) {
        Json::Value value;
        EXPECT_EQ(Parse(text, value), 0) << text;
        EXPECT_EQ(SDK::JsonUtils::JsonToString(value), written);
    }
}

TEST(JsonUtils, RefusesWhatIsNotStrictJson) {
    std::vector<std::string> cases = {std::string("{}\0", 3), std::string(100000, '['),
                                      std::string(1001, '[') + std::string(1001, ']')};
    std::istringstream more(
        R"(|1]|1,2|{} x|{}{}|"a|{"a":1,}|{a:1}|/**/1|1e999|"\x"|{"a":1,"a":2})");
    for (std::string text; std::getline(more, text, '|');) {
        cases.push_back(text);
    }
    Json::Value value = "kept";
    for (const std::string& text : cases) {
        EXPECT_EQ(Parse(text, value), EINVAL) << text.substr(0, 60);
    }
    EXPECT_EQ(value, "kept");
    std::string why;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr("[1;]", 4, value, &why), EINVAL);
    EXPECT_EQ(why.find("line 1, column 3: "), 0U) << why;
}

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

TEST(BoundedString, KeepsItsBounds) {
    const struct {
        size_t size, count;
        const char* text;
        int length;
    } cases[] = {
        {4, 3, "abc", 3}, {4, 3, "abcd", -1}, {4, 4, "abc", -1}, {1, 0, "", 0}, {0, 0, "", -1}};
    for (const auto& c : cases) {
        std::string room(8, '.');
        EXPECT_EQ(SDK::snprintf_s(room.data(), c.size, c.count, "%s", c.text), c.length);
        EXPECT_EQ(room.substr(c.size), std::string(8 - c.size, '.'));
        EXPECT_STREQ(room.c_str(), c.size == 0 ? "........" : c.length < 0 ? "" : c.text);
    }
    char room[] = "....";
    EXPECT_EQ(SDK::memcpy_s(room, 3, "abcd", 4), ERANGE);
    EXPECT_EQ(SDK::memcpy_s(room, 3, "abc", 3), 0);
    EXPECT_STREQ(room, "abc.");
}

}  // namespace
