#include <Poco/StringTokenizer.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "sdk/JsonUtils.h"

using namespace SDK::JsonUtils;

namespace {

std::string Nested(size_t levels, const std::string& inner) {
    return std::string(levels, '[') + inner + std::string(levels, ']');
}

TEST(JsonUtils, WhatIsParsedIsWrittenCompactSortedAndInAscii) {
    const std::string cases[][2] = {
        {R"( {"b":[1,2.5,-0],"a":{"":null},"B":{}} )", R"({"B":{},"a":{"":null},"b":[1,2.5,0]})"},
        {"\xEF\xBB\xBF\r\n[true]\t", "[true]"},
        {"18446744073709551615", "18446744073709551615"},
        {"-1e2", "-100.0"},
        {R"("\u00e9\u20ac\ud83d\ude00\u0000\/\"]")", R"("\u00e9\u20ac\ud83d\ude00\u0000/\"]")"},
        {"\"é€😀\xF4\x8F\xBF\xBF\"", R"("\u00e9\u20ac\ud83d\ude00\udbff\udfff")"},
        {"{\"y\xF0\x9F\x98tail\":\"\xE2\x82xyz\xFF\xC3\"}",
         R"({"y\ufffdtail":"\ufffdxyz\ufffd\ufffd"})"},
        {Nested(1000, ""), Nested(1000, "")},
    };
    for (const auto& [text, written] : cases) {
        Json::Value value;
        EXPECT_EQ(ParseJsonStr(text.data(), text.size(), value), 0) << text;
        EXPECT_EQ(JsonToString(value), written);
    }
}

TEST(JsonUtils, RefusesWhatIsNotStrictJson) {
    // Separated by '|'.
    const Poco::StringTokenizer lines(
        R"(| |{|[1|]|],[|1,2|{} x|{}@|{}{}|"a|"a\|{"a":1,}|[1,]|[,1]|{a:1}|{1:1}|'a'|/* c */ 1|#1)"
        R"(|{"a":/**/1}|1e999|NaN|nul|True|"\x"|"\u12"|{"a":1,"a":2})"
        R"(|{"x":{"a":1,"\u0061":2}})",
        "|");
    std::vector<std::string> cases(lines.begin(), lines.end());
    cases.insert(cases.end(),
                 {"//\n1", "\f1", "\xFE\xFF", std::string("{}\0", 3), std::string("\0{}", 3),
                  Nested(1001, ""), std::string(100000, '['), Nested(100000, "1")});
    Json::Value value = "kept";
    for (const std::string& text : cases) {
        EXPECT_EQ(ParseJsonStr(text.data(), text.size(), value), EINVAL) << text.substr(0, 60);
    }
    EXPECT_EQ(ParseJsonStr(nullptr, 0, value), EINVAL);
    EXPECT_EQ(value, "kept");
}

TEST(JsonUtils, GettersFallBackOnAnythingUnexpected) {
    const std::string text =
        R"({"s":"x","b":true,"i":-5,"r":1.0,"half":1.5,"max":2147483647,"over":2147483648,
            "min":-2147483648,"under":-2147483649,"n":null,"a":[1],"o":{"k":1},"digits":"7"})";
    Json::Value value;
    ASSERT_EQ(ParseJsonStr(text.data(), text.size(), value), 0);
    const struct {
        std::string key;
        const char* string;
        int32_t number;
        bool truth;
    } cases[] = {
        {"s", "x", 9, false},      {"b", "d", 9, true},
        {"i", "d", -5, false},     {"r", "d", 1, false},
        {"half", "d", 9, false},   {"max", "d", INT32_MAX, false},
        {"over", "d", 9, false},   {"min", "d", INT32_MIN, false},
        {"under", "d", 9, false},  {"n", "d", 9, false},
        {"a", "d", 9, false},      {"o", "d", 9, false},
        {"digits", "7", 9, false}, {"absent", "d", 9, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(GetStringValue(value, c.key, "d"), c.string);
        EXPECT_EQ(GetIntValue(value, c.key, 9), c.number);
        EXPECT_EQ(GetBoolValue(value, c.key, false), c.truth);
        Json::Value out = "kept";
        EXPECT_EQ(GetArrayValue(value, c.key, out), c.key == "a");
        EXPECT_EQ(GetSubobjectValue(value, c.key, out), c.key == "o");
        EXPECT_EQ(out.isString(), c.key != "a" && c.key != "o");
    }
    EXPECT_EQ(GetStringValue(Json::Value("s"), "s", "d"), "d");
    EXPECT_EQ(GetIntValue(Json::Value(Json::arrayValue), "s", 9), 9);
    ASSERT_TRUE(GetSubobjectValue(value, "o", value)) << "out may be the value itself";
    EXPECT_EQ(JsonToString(value), R"({"k":1})");
}

}  // namespace
