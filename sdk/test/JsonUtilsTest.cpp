#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <vector>

#include "sdk/JsonUtils.h"

using namespace SDK::JsonUtils;

namespace {

int Parse(const std::string& text, Json::Value& value) {
    return ParseJsonStr(text.data(), text.size(), value);
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
        EXPECT_EQ(JsonToString(value), written);
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
}

TEST(JsonUtils, GettersFallBackOnAnythingUnexpected) {
    Json::Value value;
    Json::Value out;
    ASSERT_EQ(Parse(R"({"a":[1],"b":true,"i":-5,"over":2147483648,"o":{"k":1}})", value), 0);
    for (const std::string key : {"a", "b", "i", "over", "o", "absent"}) {
        EXPECT_EQ(GetStringValue(value, key, "d"), "d") << key;
        EXPECT_EQ(GetIntValue(value, key, 9), key == "i" ? -5 : 9) << key;
        EXPECT_EQ(GetBoolValue(value, key, false), key == "b") << key;
        EXPECT_EQ(GetArrayValue(value, key, out), key == "a") << key;
        EXPECT_EQ(GetSubobjectValue(value, key, out), key == "o") << key;
    }
}

}  // namespace
