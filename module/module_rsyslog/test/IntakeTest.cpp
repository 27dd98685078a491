// From a policy document to the settings: module entry, envelope, content, task policies.

#include <gtest/gtest.h>

#include "module/module_rsyslog/src/RsyslogModule.h"
#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using Engine::RsyslogPolicy;
using TestSupport::LogCapture;

std::string Document(const std::string& content, const std::string& more = "") {
    return R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature",)" + more +
           R"("feature_hash":"fh","hash":"h","policy_id":"p1","content":)" + content + "}";
}

class OpenModule : public Engine::RsyslogModule {
public:
    using RsyslogModule::RefreshFeaturePolicy;
};

// One delivery straight to the callback's operation.
struct Delivery {
    explicit Delivery(const std::string& text, Framework::Policy* current = nullptr) {
        Poco::AutoPtr<OpenModule> module(new OpenModule);
        policy.reset(module->RefreshFeaturePolicy("key", text, current));
    }
    const RsyslogPolicy* Parsed() const { return dynamic_cast<RsyslogPolicy*>(policy.get()); }

    LogCapture log{"module_rsyslog"};
    std::unique_ptr<Framework::Policy> policy;
};

TEST(Intake, RefusesAndFlags) {
    struct Case {
        const char* text;
        bool policy;
        bool flags;
        const char* logged;
    };
    const Case cases[] = {
        {"", false, false, "3 Parse Policy Failed"},
        {"{\"module_name\":", false, false, "3 Parse Policy Failed"},
        {"[1]", false, false,
         "3 The policy content(moduleName=) does not belong to module_rsyslog"},
        {R"({"module_name":7})", false, false,
         "3 The policy content(moduleName=) does not belong to module_rsyslog"},
        {R"({"module_name":"other"})", false, false,
         "3 The policy content(moduleName=other) does not belong to module_rsyslog"},
        {R"({"module_name":"rsyslog_module","feature_name":"x"})", false, true,
         "3 unknown feature name"},
        {R"({"module_name":"rsyslog_module","feature_name":["rsyslog_feature"]})", false, true,
         "3 unknown feature name"},
        {R"({"module_name":"rsyslog_module","feature_name":"rsyslog_feature"})", true, true, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        TestSupport::TestEngine();
        RsyslogPolicy current("rsyslog_feature");
        const Delivery delivery(c.text, &current);
        EXPECT_EQ(c.policy, delivery.policy != nullptr);
        EXPECT_EQ(c.flags, current.Changed());
        EXPECT_EQ(*c.logged != '\0' ? 1 : 0, delivery.log.Errors());
        EXPECT_EQ(*c.logged != '\0' ? 1 : 0, delivery.log.Count(c.logged));
    }
}

TEST(Intake, EnvelopeFieldsAndTheirOverwriting) {
    struct Case {
        const char* enable;
        bool enabled;
    };
    for (const Case& c :
         {Case{"", true}, Case{R"("enable":true,)", true}, Case{R"("enable":false,)", false},
          Case{R"("enable":"enable",)", true}, Case{R"("enable":"disable",)", true}}) {
        SCOPED_TRACE(c.enable);
        const Delivery delivery(Document("{}", c.enable));
        ASSERT_NE(nullptr, delivery.policy);
        EXPECT_EQ(c.enabled, delivery.policy->Enabled());
        EXPECT_EQ("rsyslog_feature", delivery.policy->Name());
        EXPECT_EQ("h", delivery.policy->Hash());
        EXPECT_EQ("p1", delivery.policy->Id());
    }
}

TEST(Intake, EmptyContentGivesDefaults) {
    const Delivery delivery(Document("{}"));
    ASSERT_NE(nullptr, delivery.Parsed());
    const auto& settings = delivery.Parsed()->Settings();
    EXPECT_EQ(10, settings.check_period_s);
    EXPECT_EQ(10, settings.history_size);
    EXPECT_EQ(10000, settings.his_count);
    EXPECT_EQ(10000, settings.his_interval);
    EXPECT_TRUE(settings.server_balance && settings.tchar_filter && settings.need_rewrite);
    EXPECT_FALSE(settings.get_history || settings.up_history || settings.get_lastlog ||
                 settings.up_lastlog || settings.is_rsyslog || settings.is_syslogng);
    EXPECT_TRUE(settings.server.empty() && settings.log_path.empty() &&
                settings.white_list.empty());
    EXPECT_EQ("/usr/local/watchpost/log/watchpost_bash_history.log", settings.history_log_path);
    EXPECT_EQ("/usr/local/watchpost/log/watchpost_last_login.log", settings.last_login_log_path);

    const Framework::TaskPolicy* child = delivery.Parsed()->FindTaskPolicy("rsyslog_task");
    ASSERT_NE(nullptr, child);
    EXPECT_EQ(180, child->ClassCode());
    EXPECT_EQ(10, child->Condition().kind);
    EXPECT_EQ(10, child->Condition().value);
    EXPECT_EQ(0, child->Condition().extra);
}

TEST(Intake, WrongKindsEverywhereReadAsAbsent) {
    const Delivery delivery(Document(
        R"({"check_period_s":"5","history_size":[],"his_count":1e99,"his_interval":3000000000,
            "server_balance":"no","tchar_filter":0,"get_history":"yes","server_type":1,
            "server":"10.0.0.1","log_path":{},"white_list":[1,null,"ls",["x"]]})"));
    ASSERT_NE(nullptr, delivery.Parsed());
    const auto& settings = delivery.Parsed()->Settings();
    EXPECT_EQ(10, settings.check_period_s);
    EXPECT_EQ(10, settings.history_size);
    EXPECT_EQ(10000, settings.his_count);
    EXPECT_EQ(10000, settings.his_interval);
    EXPECT_TRUE(settings.server_balance && settings.tchar_filter);
    EXPECT_FALSE(settings.get_history);
    EXPECT_TRUE(settings.server_type.empty() && settings.server.empty());
    EXPECT_EQ(std::list<std::string>{"ls"}, settings.white_list);
    EXPECT_EQ(0, delivery.log.Errors());
}

TEST(Intake, ForwardedPathsSplitAtTheLastColon) {
    struct Case {
        const char* entry;
        const char* path;  // null: refused
        const char* port;
    };
    for (const Case& c : {Case{"/var/log/messages:514", "/var/log/messages", "514"},
                          Case{"a:b:601", "a:b", "601"}, Case{"/var/log/x:", "/var/log/x", ""},
                          Case{"/var/log/x", nullptr, ""}, Case{":514", nullptr, ""},
                          Case{"", nullptr, ""}, Case{"/x:no number", "/x", "no number"}}) {
        SCOPED_TRACE(c.entry);
        const Delivery delivery(
            Document(std::string(R"({"log_path":[3,")") + c.entry + R"(","/last:1"]})"));
        ASSERT_NE(nullptr, delivery.Parsed());
        const auto& paths = delivery.Parsed()->Settings().log_path;
        EXPECT_EQ("/last", paths.back().path);
        EXPECT_EQ(c.path == nullptr ? 1U : 2U, paths.size());
        EXPECT_EQ(
            c.path == nullptr ? 1 : 0,
            delivery.log.Count(std::string("3 invalid parameter : ") + c.entry + ". no port"));
        if (c.path != nullptr) {
            EXPECT_EQ(c.path, paths.front().path);
            EXPECT_EQ(c.port, paths.front().port);
            EXPECT_TRUE(paths.front().servers.empty());
            EXPECT_EQ(1, delivery.log.Count(std::string("8 log_path_list ") + c.path + " port " +
                                            c.port));
        }
    }
}

TEST(Intake, StandaloneTaskPolicy) {
    struct Case {
        const char* text;
        bool result;
        int errors;
    };
    for (const Case& c : {Case{"not json", true, 0}, Case{"{}", false, 1},
                          Case{R"({"task_condition":5})", false, 1},
                          Case{R"({"task_condition":{"kind":10,"value":30}})", true, 0},
                          Case{R"({"task_condition":{"kind":10,"value":0}})", false, 0}}) {
        SCOPED_TRACE(c.text);
        const LogCapture log("module_rsyslog");
        Engine::RsyslogTaskPolicy policy("t");
        EXPECT_EQ(180, policy.ClassCode());
        EXPECT_EQ(c.result, policy.Parse(c.text));
        EXPECT_EQ(c.errors, log.Count("3 has no task_condition item"));
    }
    Engine::RsyslogTaskPolicy policy("t");
    policy.Parse(R"({"task_condition":{"kind":10,"value":30}})");
    EXPECT_EQ(30, policy.Condition().value);
}

TEST(Intake, ModuleRegistersAndWithdrawsItsCallback) {
    TestSupport::TestEngine();
    const LogCapture log("module_rsyslog");
    Poco::AutoPtr<Framework::Module> module(static_cast<Framework::Module*>(CreateModule()));
    Framework::Policy* none = nullptr;
    EXPECT_EQ(nullptr, module->RefreshPolicy("10001", "k", Document("{}"), none));
    EXPECT_EQ(0, module->Init());
    EXPECT_EQ(1, log.Count("6 init module rsyslog"));
    const std::unique_ptr<Framework::Policy> policy(
        module->RefreshPolicy("10001", "k", Document("{}"), none));
    EXPECT_NE(nullptr, policy);
    EXPECT_EQ(nullptr, module->RefreshPolicy("10002", "k", Document("{}"), none));
    module->UnInit();
    EXPECT_EQ(nullptr, module->RefreshPolicy("10001", "k", Document("{}"), none));
}

}  // namespace
