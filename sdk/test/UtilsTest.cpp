#include <gtest/gtest.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>
#include <vector>

#include "sdk/BoundedString.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"

namespace {

int Parse(const std::string& text, Json::Value& value, std::string* why = nullptr) {
    return SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value, why);
}

TEST(JsonUtils, WhatIsParsedIsWrittenCompactSortedAndInAscii) {
    const std::string deep = std::string(1000, '[') + std::string(1000, ']');
    const std::string cases[][2] = {
        {"\xEF\xBB\xBF {\"b\":[1,2.5,-0],\"B\":{}}\n", R"({"B":{},"b":[1,2.5,0]})"},
        {"{\"y\xF0\x9F\x98tail\":\"\xE2\x82xyz\xFF\xC3\"}",
         R"({"y\ufffdtail":"\ufffdxyz\ufffd\ufffd"})"},
        {deep, deep},
    };
    for (const auto& [text, written] : cases) {
        Json::Value value;
        EXPECT_EQ(Parse(text, value), 0) << text;
        EXPECT_EQ(SDK::JsonUtils::JsonToString(value), written);
    }
    // '?' stands for U+FFFD, one for each maximal piece of a character.
    const std::string texts[][2] = {
        {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF",
         R"(\u0080\u07ff\u0800\ud7ff\ue000\uffff)"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", R"(\ud800\udc00\udbff\udfff)"},
        {"\x80\xBF\xC0\xC1\xF5\x80\xFF", "???????"},
        {"\xC0\xAF\xE0\x80\xAF\xF0\x80\x80\xAF", "?????????"},
        {"\xED\xA0\x80\xED\xBF\xBF\xF4\x90\x80\x80", "??????????"},
        {"\xC3x\xE2\x82x\xF0\x9F\x98x\xF0\x9Fx\xE2\x82\xC3\xA9\xF0", R"(?x?x?x?x?\u00e9?)"},
    };
    for (const auto& [bytes, pattern] : texts) {
        std::string written;
        for (const char each : pattern) {
            written += each == '?' ? std::string(R"(\ufffd)") : std::string(1, each);
        }
        EXPECT_EQ(SDK::JsonUtils::JsonToString(bytes), '"' + written + '"');
    }
}

TEST(JsonUtils, RefusesWhatIsNotStrictJson) {
    std::vector<std::string> cases = {std::string("{}\0", 3), std::string(100000, '['),
                                      std::string(1001, '[') + std::string(1001, ']')};
    std::istringstream more(
        R"(|1]|1,2|{} x|{}{}|"a|{"a":1,}|{a:1}|/**/1|1e999|"\x"|{"a":1,"a":2}|[1;])");
    for (std::string text; std::getline(more, text, '|');) {
        cases.push_back(text);
    }
    Json::Value value = "kept";
    std::string why;
    for (const std::string& text : cases) {
        EXPECT_EQ(Parse(text, value, &why), EINVAL) << text.substr(0, 60);
    }
    EXPECT_EQ(value, "kept");
    EXPECT_EQ(why.find("line 1, column 3: "), 0U) << why;
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

double Ms(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

TEST(InnerCpuCtrlUtils, HoldsAThreadToItsShareAndIdleTimeIsNoCredit) {
    using namespace SDK::InnerCpuCtrlUtils;
    SetLimit(20);
    // In a thread of its own, whose account starts empty.
    std::thread([] {
        const auto adjust = [] { AdjustThreadCpu("Some.cpp", 7, "module_x", 0, 0); };
        adjust();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        const double wall = Ms(CLOCK_MONOTONIC);
        adjust();
        const double cpu = Ms(CLOCK_THREAD_CPUTIME_ID);
        for (int turn = 1; turn < 20; ++turn) {
            while (Ms(CLOCK_THREAD_CPUTIME_ID) < cpu + 10 * turn) {
            }
            adjust();
        }
        const double share =
            100 * (Ms(CLOCK_THREAD_CPUTIME_ID) - cpu) / (Ms(CLOCK_MONOTONIC) - wall);
        // Above only by rounding; below by what a busy machine oversleeps and takes away.
        EXPECT_LE(share, 21);
        EXPECT_GE(share, 6);
    }).join();
    SetLimit(0);
}

}  // namespace
