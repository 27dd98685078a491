// What is said of policy documents, on paper: policies.json has the cases, of which each is also
// held against the schema. "refused" stands for an error that refuses.

#include <gtest/gtest.h>

#include "framework/Module.h"
#include "module/module_rsyslog/src/RsyslogModule.h"
#include "sdk/JsonUtils.h"
#include "test/support/TestSupport.h"

namespace {

using Strings = std::vector<std::string>;

Json::Value ReadCases() {
    Json::Value cases;
    const std::string text = TestSupport::ReadText(POLICY_CASES);
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), cases));
    return cases;
}

std::string TextOf(const Json::Value& c) {
    if (c.isMember("text")) {
        return c["text"].asString();
    }
    Json::Value document = c["document"];
    if (document.isNull()) {
        document = c.isMember("envelope") ? c["envelope"] : Json::Value(Json::objectValue);
        document["module_name"] = "rsyslog_module";
        document["feature_name"] = "rsyslog_feature";
        document["content"] = c.isMember("content") ? c["content"] : Json::Value(Json::objectValue);
    }
    return SDK::JsonUtils::JsonToString(document);
}

Strings Judged(const std::string& text) {
    Poco::AutoPtr<Framework::Module> module(static_cast<Framework::Module*>(CreateModule()));
    std::vector<Framework::Finding> findings;
    EXPECT_FALSE(module->JudgePolicy("10002", text, false, findings));
    EXPECT_TRUE(module->JudgePolicy("10001", text, false, findings));
    Strings lines;
    for (const auto& finding : findings) {
        lines.push_back((finding.refuses ? "refused" : Framework::Name(finding.severity)) +
                        std::string(" ") + finding.key + ": " + finding.problem + "; " +
                        finding.advice);
    }
    return lines;
}

TEST(Judge, SaysOfEachDocumentWhatIsWrongAndNoMore) {
    TestSupport::TestEngine();
    const Json::Value cases = ReadCases();
    ASSERT_LT(30U, cases.size());
    for (const Json::Value& c : cases) {
        SCOPED_TRACE(TextOf(c));
        Strings found = Judged(TextOf(c));
        Strings expected;
        for (const Json::Value& finding : c["findings"]) {
            expected.push_back(finding.asString());
        }
        // Each expectation is the start of a line.
        for (std::size_t i = 0; i < found.size() && i < expected.size(); ++i) {
            found[i].resize(std::min(found[i].size(), expected[i].size()));
        }
        EXPECT_EQ(expected, found);
    }
}

// Of what is wrong a thousand times a part is told, and a refusal is never left out.
TEST(Judge, IsBoundedWhateverTheDocumentHolds) {
    std::string unknown;
    for (int i = 0; i < 20000; ++i) {
        unknown += "\"key" + std::to_string(i) + "\":1,";
    }
    const auto start = std::chrono::steady_clock::now();
    const Strings found =
        Judged(R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature",)" + unknown +
               R"("content":{"log_path":["/a\nb:1"]}})");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(102U, found.size());
    EXPECT_EQ(1, std::count_if(found.begin(), found.end(), [](const std::string& line) {
                  return line.find("refused content.log_path[0]: holds a control") == 0;
              }));
}

}  // namespace
