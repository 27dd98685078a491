#include "module/module_rsyslog/src/RsyslogModule.h"

#include <memory>
#include <new>

#include "framework/PolicyCallback.h"
#include "module/module_rsyslog/src/ForwardingHealth.h"
#include "module/module_rsyslog/src/ForwardingPlan.h"
#include "module/module_rsyslog/src/PolicyJudge.h"
#include "module/module_rsyslog/src/PolicyShape.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogPolicy.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "module/module_rsyslog/src/WorkRecord.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

const char* const kPolicyType = "10001";
const char* const kModuleName = "rsyslog_module";
const char* const kFeatureName = "rsyslog_feature";

bool IsOurs(const Json::Value& document) {
    return SDK::JsonUtils::GetStringValue(document, "module_name", "") == kModuleName &&
           SDK::JsonUtils::GetStringValue(document, "feature_name", "") == kFeatureName;
}

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

bool RsyslogModule::JudgePolicy(const std::string& type, const std::string& text, bool host,
                                std::vector<Framework::Finding>& findings) {
    if (type != kPolicyType) {
        return false;
    }
    Findings list(findings);
    Json::Value document;
    if (!JudgeSyntax(text, document, list)) {
        return true;
    }
    JudgeShape(document, list);
    if (!IsOurs(document)) {
        return true;  // no more is read of it
    }
    const SyslogDaemon daemon = host ? FindDaemon() : SyslogDaemon();
    JudgeSettings(document, daemon.kind, list);
    if (host) {
        JudgeHost(document, daemon, list);
    }
    return true;
}

Framework::HostChange RsyslogModule::PreviewPolicy(const std::string& type,
                                                   const std::string& text) {
    Json::Value document;
    RsyslogPolicy policy(kFeatureName);
    const bool takes = type == kPolicyType &&
                       SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), document) == 0 &&
                       IsOurs(document) && policy.Parse(text) && policy.Enabled() &&
                       policy.Settings().check_period_s > 0;
    return takes ? PlanForwarding(policy.Settings()) : Framework::HostChange();
}

std::vector<Framework::Condition> RsyslogModule::Conditions() {
    return ForwardingHealth::Instance().Conditions();
}

Framework::Figures RsyslogModule::GetFigures() {
    return WorkRecord::Instance().Get();
}

Framework::HostChange RsyslogModule::Restore(bool planned_only) {
    return RestoreForwarding(planned_only);
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new Engine::RsyslogModule);
}
