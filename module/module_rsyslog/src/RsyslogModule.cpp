#include "module/module_rsyslog/src/RsyslogModule.h"

#include <memory>
#include <new>

#include "framework/PolicyCallback.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogPolicy.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

const char* const kPolicyType = "10001";
const char* const kModuleName = "rsyslog_module";
const char* const kFeatureName = "rsyslog_feature";

}  // namespace

RsyslogModule::RsyslogModule() : Framework::Module(kModuleName) {}

int RsyslogModule::Init() {
    RSYSLOG_LOG(PRIO_INFORMATION, "init module rsyslog");
    RegisterPolicyCallback(kPolicyType, new (std::nothrow) Framework::PolicyCallback<RsyslogModule>(
                                            this, &RsyslogModule::RefreshFeaturePolicy));
    Framework::Module::Init();
    return 0;
}

void RsyslogModule::UnInit() {
    UnRegisterPolicyCallback(kPolicyType);
    Framework::Module::UnInit();
}

Framework::Policy* RsyslogModule::RefreshFeaturePolicy(const std::string& /*key*/,
                                                       const std::string& text,
                                                       Framework::Policy*& current) {
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), document) != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "Parse Policy Failed");
        return nullptr;
    }
    RSYSLOG_LOG(PRIO_DEBUG, "policy is [%s]", text);
    const std::string module_name = SDK::JsonUtils::GetStringValue(document, "module_name", "");
    if (module_name != kModuleName) {
        RSYSLOG_LOG(PRIO_ERROR,
                    "The policy content(moduleName=%s) does not belong to module_rsyslog",
                    module_name);
        return nullptr;
    }

    RegisterTask(new RsyslogTask, false);

    const std::string feature_name = SDK::JsonUtils::GetStringValue(document, "feature_name", "");
    std::unique_ptr<RsyslogPolicy> policy;
    if (feature_name == kFeatureName) {
        policy = std::make_unique<RsyslogPolicy>(kFeatureName);
        policy->SetName(feature_name);
        policy->SetHash(SDK::JsonUtils::GetStringValue(document, "feature_hash", ""));
        policy->SetEnabled(SDK::JsonUtils::GetStringValue(document, "enable", "") == "enable");
        // A document whose content cannot be parsed still gives a policy, with what was read; the
        // framework judges whether a task can run under it.
        policy->Parse(text);
    } else {
        RSYSLOG_LOG(PRIO_ERROR, "unknown feature name");
    }
    if (current != nullptr) {
        current->SetChanged(true);
    }
    return policy.release();
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new Engine::RsyslogModule);
}
