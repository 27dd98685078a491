// From a policy document to the settings: module entry, envelope, content, task policies.

#include "module/module_rsyslog/src/RsyslogModule.h"
#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using Engine::RsyslogPolicy;

std::string Document(const std::string& content, const std::string& more = "") {
    return R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature",)" + more +
           R"("feature_hash":"fh","hash":"h","policy_id":"p1","content":)" + content + "}";
}

// One delivery to a fresh module, which takes documents of its type only, and none once it ended.
struct Delivery {
    explicit Delivery(const std::string& text, Framework::Policy* current = nullptr) {
        Poco::AutoPtr<Framework::Module> module(static_cast<Framework::Module*>(CreateModule()));
        EXPECT_EQ(0, module->Init());
        policy.reset(module->RefreshPolicy("10001", "key", text, current));
        EXPECT_EQ(nullptr, module->RefreshPolicy("10002", "key", text, current));
        module->UnInit();
        EXPECT_EQ(nullptr, module->RefreshPolicy("10001", "key", text, current));
    }
    const RsyslogPolicy& Parsed() const { return dynamic_cast<RsyslogPolicy&>(*policy); }

    Framework::Engine& engine = TestSupport::TestEngine();
    TestSupport::LogCapture log{"module_rsyslog"};
    std::unique_ptr<Framework::Policy> policy;
};

TEST(Intake, RefusesAndFlags) {
    struct Case {
        const char* text;
        bool policy, flags;
        const char* logged;
    };
    for (const Case& c :
         {Case{"", false, false, "Parse Policy Failed"},
          Case{R"({"module_name":)", false, false, "Parse Policy Failed"},
          Case{"[1]", false, false, "(moduleName=) does not belong"},
          Case{R"({"module_name":"other"})", false, false, "(moduleName=other) does not belong"},
          Case{R"({"module_name":"rsyslog_module","feature_name":["rsyslog_feature"]})", false,
               true, "unknown feature name"},
          Case{R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature"})", true, true,
               nullptr}}) {
        SCOPED_TRACE(c.text);
        RsyslogPolicy current("rsyslog_feature");
        const Delivery delivery(c.text, &current);
        EXPECT_EQ(c.policy, delivery.policy != nullptr);
        EXPECT_EQ(c.flags, current.Changed());
        EXPECT_EQ(c.logged == nullptr ? 0 : 1, delivery.log.Errors());
        EXPECT_TRUE(c.logged == nullptr || delivery.log.Holding(c.logged) == 1);
    }
}

TEST(Intake, AbsentValuesAndWrongKindsGiveDefaults) {
    const std::string absent = Document("{}");
    const std::string wrong = Document(
        R"({"check_period_s":"5","history_size":[],"his_count":1e99,"his_interval":3000000000,
            "server_balance":"no","tchar_filter":0,"get_history":"yes","server_type":1,
            "server":"10.0.0.1","log_path":{},"white_list":[1,null,"ls",["x"]]})",
        R"("enable":"disable",)");
    for (const auto& text : {absent, wrong}) {
        const Delivery delivery(text);
        const RsyslogPolicy& policy = delivery.Parsed();
        EXPECT_EQ("rsyslog_feature h p1", policy.Name() + " " + policy.Hash() + " " + policy.Id());
        EXPECT_TRUE(policy.Enabled());
        const auto& settings = policy.Settings();
        EXPECT_EQ(10, settings.check_period_s);
        EXPECT_EQ(10, settings.history_size);
        EXPECT_EQ(10000, settings.his_count);
        EXPECT_EQ(10000, settings.his_interval);
        EXPECT_TRUE(settings.server_balance && settings.tchar_filter && settings.need_rewrite);
        EXPECT_FALSE(settings.get_history || settings.up_history || settings.get_lastlog ||
                     settings.up_lastlog || settings.is_rsyslog || settings.is_syslogng);
        EXPECT_TRUE(settings.server_type.empty() && settings.server.empty() &&
                    settings.log_path.empty());
        EXPECT_EQ(std::list<std::string>(text == wrong ? 1 : 0, "ls"), settings.white_list);
        const std::string log_dir = "/usr/local/watchpost/log/watchpost_";
        EXPECT_EQ(log_dir + "bash_history.log", settings.history_log_path);
        EXPECT_EQ(log_dir + "last_login.log", settings.last_login_log_path);

        const Framework::TaskPolicy* child = policy.FindTaskPolicy("rsyslog_task");
        ASSERT_NE(nullptr, child);
        EXPECT_EQ(10, child->Condition().kind);
        EXPECT_EQ(10, child->Condition().value);
        EXPECT_EQ(0, delivery.log.Errors());
    }
}

TEST(Intake, ForwardedPathsSplitAtTheLastColon) {
    const Delivery delivery(Document(R"({"log_path":[3,"/var/log/messages:514","a:b:601","/x",
        ":514","","/y:","/z:no number"]})",
                                     R"("enable":false,)"));
    std::string paths;
    for (const auto& entry : delivery.Parsed().Settings().log_path) {
        paths += "[" + entry.path + "|" + entry.port + "]";
        EXPECT_TRUE(entry.servers.empty());
    }
    EXPECT_EQ("[/var/log/messages|514][a:b|601][/y|][/z|no number]", paths);
    for (const char* entry : {"/x", ":514", ""}) {
        EXPECT_EQ(1,
                  delivery.log.Count(std::string("3 invalid parameter : ") + entry + ". no port"));
    }
    EXPECT_FALSE(delivery.policy->Enabled());
}

TEST(Intake, StandaloneTaskPolicy) {
    Engine::RsyslogTaskPolicy policy("t");
    EXPECT_TRUE(policy.Parse("not json"));
    EXPECT_FALSE(policy.Parse(R"({"task_condition":5})"));
    EXPECT_FALSE(policy.Parse(R"({"task_condition":{"kind":10,"value":0}})"));
    EXPECT_TRUE(policy.Parse(R"({"task_condition":{"kind":10,"value":30}})"));
    EXPECT_EQ(30, policy.Condition().value);
}

}  // namespace
