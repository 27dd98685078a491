// From a policy document to the settings, and what is said of it on paper: policies.json has the
// cases, of which each is also held against the schema.

#include "module/module_rsyslog/src/RsyslogModule.h"
#include "module/module_rsyslog/test/ModuleSupport.h"
#include "sdk/JsonUtils.h"

namespace {

using namespace TestSupport;
using Engine::RsyslogPolicy;

std::string Document(const std::string& content, const std::string& more = "") {
    return R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature",)" + more +
           R"("feature_hash":"fh","hash":"h","policy_id":"p1","content":)" + content + "}";
}

Poco::AutoPtr<Framework::Module> NewModule() {
    TestEngine();
    return Poco::AutoPtr<Framework::Module>(static_cast<Framework::Module*>(CreateModule()));
}

// One delivery to a fresh module, which takes documents of its type only, and none once it ended.
struct Delivery {
    explicit Delivery(const std::string& text, Framework::Policy* current = nullptr) {
        EXPECT_EQ(0, module->Init());
        policy.reset(module->RefreshPolicy("10001", "key", text, current));
        EXPECT_EQ(nullptr, module->RefreshPolicy("10002", "key", text, current));
        module->UnInit();
        EXPECT_EQ(nullptr, module->RefreshPolicy("10001", "key", text, current));
    }

    Poco::AutoPtr<Framework::Module> module = NewModule();
    LogCapture log{"module_rsyslog"};
    std::unique_ptr<Framework::Policy> policy;
};

TEST(Intake, RefusesAndFlags) {
    for (const auto& [text, accepts, flags, logged] :
         {std::tuple("", false, false, "Parse Policy Failed"),
          std::tuple(R"({"module_name":)", false, false, "Parse Policy Failed"),
          std::tuple("[1]", false, false, "(moduleName=) does not belong"),
          std::tuple(R"({"module_name":"other"})", false, false,
                     "(moduleName=other) does not belong"),
          std::tuple(R"({"module_name":"rsyslog_module","feature_name":["rsyslog_feature"]})",
                     false, true, "unknown feature name"),
          std::tuple(R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature"})", true,
                     true, "")}) {
        SCOPED_TRACE(text);
        RsyslogPolicy current("rsyslog_feature");
        const Delivery delivery(text, &current);
        EXPECT_EQ(accepts, delivery.policy != nullptr);
        EXPECT_EQ(flags, current.Changed());
        EXPECT_EQ(*logged == '\0' ? 0 : 1, delivery.log.Errors());
        EXPECT_LE(delivery.log.Errors(), delivery.log.Holding(logged));
    }
}

// What a policy holds: its envelope, numbers, flags and texts.
std::string Describe(const RsyslogPolicy& policy) {
    const RsyslogPolicy::RSYSLOG_POLICY& s = policy.Settings();
    const Framework::TaskCondition& period = policy.FindTaskPolicy("rsyslog_task")->Condition();
    std::ostringstream out;
    out << policy.Name() << " " << policy.Hash() << " " << policy.Id() << " " << policy.Enabled()
        << " period " << period.kind << ":" << period.value << " " << s.check_period_s << " sizes "
        << s.history_size << " " << s.his_count << " " << s.his_interval << " flags "
        << s.server_balance << s.tchar_filter << s.get_history << s.up_history << s.get_lastlog
        << s.up_lastlog << s.need_rewrite << s.is_rsyslog << s.is_syslogng << " " << s.server_type;
    for (const auto* list : {&s.server, &s.white_list}) {
        for (const std::string& text : *list) {
            out << "," << text;
        }
    }
    for (const auto& entry : s.log_path) {
        out << "[" << entry.path << "|" << entry.port << "]" << entry.servers.size();
    }
    return out.str();
}

// Absent values and those of a wrong kind give defaults; paths are split at their last colon.
TEST(Intake, EveryKeyHasItsValue) {
    const std::string defaults =
        "rsyslog_feature h p1 1 period 10:10 10 sizes 10 10000 10000 flags ";
    const std::string log_dir = "/usr/local/watchpost/log/watchpost_";
    for (const auto& [text, described, errors] :
         {std::tuple(Document("{}"), defaults + "110000100 ", 0),
          std::tuple(
              Document(
                  R"({"check_period_s":"5","history_size":[],"his_count":1e99,"server_balance":"no",
                      "his_interval":3000000000,"tchar_filter":0,"get_history":"yes",
                      "server_type":1,"server":"10.0.0.1","log_path":{},
                      "white_list":[1,null,"ls",["x"]]})",
                  R"("enable":"disable",)"),
              defaults + "110000100 ,ls", 0),
          std::tuple(Document(R"({"up_history":true,"get_lastlog":true})"), defaults + "110110100 ",
                     0),
          std::tuple(Document(R"({"check_period_s":5,"history_size":6,"his_count":7,
                      "his_interval":8,"server_balance":false,"tchar_filter":false,
                      "get_history":true,"up_lastlog":true,"server_type":"udp",
                      "server":["a","b"],"white_list":["c"],
                      "log_path":[3,"/d:514","a:b:601","/x",":514","","/y:","/z:no number"]})",
                              R"("enable":false,)"),
                     "rsyslog_feature h p1 0 period 10:5 5 sizes 6 7 8 flags 001001100 udp,a,b,c"
                     "[/d|514]0[a:b|601]0[/y|]0[/z|no number]0"s,
                     3)}) {
        const Delivery delivery(text);
        const auto& policy = dynamic_cast<const RsyslogPolicy&>(*delivery.policy);
        EXPECT_EQ(described, Describe(policy));
        EXPECT_EQ(log_dir + "bash_history.log", policy.Settings().history_log_path);
        EXPECT_EQ(log_dir + "last_login.log", policy.Settings().last_login_log_path);
        EXPECT_EQ(errors, delivery.log.Errors());
        EXPECT_EQ(errors, delivery.log.Holding("3 invalid parameter : "));
    }
}

TEST(Intake, StandaloneTaskPolicy) {
    Engine::RsyslogTaskPolicy policy("t");
    EXPECT_TRUE(policy.Parse("not json"));
    const LogCapture log("module_rsyslog");
    EXPECT_FALSE(policy.Parse(R"({"task_condition":5})"));
    EXPECT_EQ(Strings{"3 has no task_condition item"}, log.Lines());
    EXPECT_FALSE(policy.Parse(R"({"task_condition":{"kind":10,"value":0}})"));
    EXPECT_TRUE(policy.Parse(R"({"task_condition":{"kind":10,"value":30}})"));
    EXPECT_EQ(30, policy.Condition().value);
}

// "refused" stands for an error that refuses.
Strings Judged(const std::string& text) {
    Poco::AutoPtr<Framework::Module> module = NewModule();
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
    Json::Value cases;
    const std::string file = ReadText(POLICY_CASES);
    ASSERT_EQ(0, SDK::JsonUtils::ParseJsonStr(file.data(), file.size(), cases));
    ASSERT_LT(30U, cases.size());
    for (const Json::Value& c : cases) {
        Json::Value document = c.get("document", c.get("envelope", Json::objectValue));
        if (!c.isMember("document")) {
            document["module_name"] = "rsyslog_module";
            document["feature_name"] = "rsyslog_feature";
            document["content"] = c.get("content", Json::objectValue);
        }
        const std::string text =
            c.isMember("text") ? c["text"].asString() : SDK::JsonUtils::JsonToString(document);
        Strings found = Judged(text);
        Strings expected;
        for (const Json::Value& finding : c["findings"]) {
            expected.push_back(finding.asString());
        }
        // Each expectation is the start of a line.
        for (std::size_t i = 0; i < found.size() && i < expected.size(); ++i) {
            found[i].resize(std::min(found[i].size(), expected[i].size()));
        }
        EXPECT_EQ(expected, found) << text;
    }
}

// Of what is wrong a thousand times a part is told, and a refusal is never left out.
TEST(Judge, IsBoundedWhateverTheDocumentHolds) {
    std::string unknown;
    for (int i = 0; i < 20000; ++i) {
        unknown += "\"key" + std::to_string(i) + "\":1,";
    }
    const auto start = std::chrono::steady_clock::now();
    const Strings found = Judged(Document(R"({"log_path":["/a\nb:1"]})", unknown));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(102U, found.size());
    EXPECT_EQ(1, std::count_if(found.begin(), found.end(), [](const std::string& line) {
                  return line.find("refused content.log_path[0]: holds a control") == 0;
              }));
}

}  // namespace
