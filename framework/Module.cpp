#include "framework/Module.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <utility>

#include "framework/Engine.h"
#include "framework/Log.h"

namespace Framework {

Module::Module(const std::string& name) : name_(name) {}

const char* Module::name() const {
    return name_.c_str();
}

int Module::Init() {
    return 0;
}

void Module::UnInit() {
    for (auto& [type, feature] : features_) {
        StopTasks(feature.tasks);
    }
    StopTasks(own_tasks_);
}

Policy* Module::RefreshPolicy(const std::string& type, const std::string& key,
                              const std::string& text, Policy*& current) {
    const auto found = features_.find(type);
    if (found == features_.end() || found->second.callback == nullptr || found->second.withdrawn) {
        return nullptr;
    }
    return found->second.callback->invoke(key, text, current);
}

std::vector<std::string> Module::ConfigurationKeys() const {
    return {};
}

std::string Module::CommandName() const {
    return {};
}

int Module::RunCommand(const std::vector<std::string>& /*arguments*/) {
    return 0;
}

bool Module::JudgePolicy(const std::string& /*type*/, const std::string& /*text*/, bool /*host*/,
                         std::vector<Finding>& /*findings*/) {
    return false;
}

bool Module::JudgeInTurn(const std::string& type, const std::string& text, bool host,
                         std::vector<Finding>& findings) {
    const std::lock_guard<std::mutex> lock(judge_mutex_);
    return JudgePolicy(type, text, host, findings);
}

HostChange Module::PreviewPolicy(const std::string& /*type*/, const std::string& /*text*/) {
    return {};
}

std::vector<Condition> Module::Conditions() {
    return {};
}

Figures Module::GetFigures() {
    return {};
}

HostChange Module::Restore(bool /*planned_only*/) {
    return {};
}

Delivery Module::DeliverPolicy(const std::string& type, const std::string& key,
                               const std::string& text) {
    const auto found = features_.find(type);
    if (found == features_.end()) {
        return {};
    }
    Feature& feature = found->second;

    std::vector<Finding> findings = Judged(type, key, text);
    const auto refusing = std::find_if(findings.begin(), findings.end(),
                                       [](const Finding& finding) { return finding.refuses; });
    if (refusing != findings.end()) {
        LogRefusal(key, Describe(*refusing));
        return {false, Describe(*refusing)};
    }

    registered_.clear();
    std::unique_ptr<FeaturePolicy> accepted;
    std::string refusal;
    try {
        accepted = Accepted(type, key, text, feature.policy.get(), refusal);
    } catch (...) {
        Refuse(feature);
        throw;
    }
    if (accepted == nullptr) {
        Refuse(feature);
        return {false, refusal};
    }
    if (feature.next.policy != nullptr) {
        Log().information("policy " + feature.next.key + " gives way to policy " + key);
    }
    feature.next = {key, std::move(accepted), std::move(registered_), std::move(findings)};
    registered_.clear();
    return {true, ""};
}

std::vector<Finding> Module::Judged(const std::string& type, const std::string& key,
                                    const std::string& text) {
    std::vector<Finding> findings;
    try {
        JudgeInTurn(type, text, true, findings);
    } catch (...) {
        LogException({"policy ", key, " not judged by module ", name_});
    }
    for (const Finding& finding : findings) {
        const std::string line = "policy " + key + ": " + Describe(finding);
        finding.severity == Severity::kError ? Log().error(line) : Log().warning(line);
    }
    return findings;
}

void Module::EnforcePolicies() {
    for (auto& [type, feature] : features_) {
        if (feature.next.policy != nullptr) {
            Enforce(type, feature);
        }
    }
}

void Module::Enforce(const std::string& type, Feature& feature) {
    Candidate& next = feature.next;
    std::vector<std::shared_ptr<TaskThread>> threads;
    try {
        for (auto& task : next.tasks) {
            if (next.policy->Enabled()) {
                task->Attach(next.policy.get(), *next.policy->FindTaskPolicy(task->name()));
                threads.push_back(std::make_shared<TaskThread>(task));
            }
        }
    } catch (const Poco::SystemException&) {
        if (!std::exchange(next.failed, true)) {
            LogException({"policy ", next.key, " has to wait, to be tried again"});
        }
        return;
    }

    StopTasks(feature.tasks);
    next.policy->Dispatch(feature.policy.get());
    feature.policy = std::move(next.policy);
    Log().information(
        "feature " + feature.policy->Name() +
        (feature.policy->Enabled() ? " follows policy " : " is switched off by policy ") +
        next.key);
    {
        const FeaturePolicy& policy = *feature.policy;
        const std::lock_guard<std::mutex> lock(state_mutex_);
        in_force_[type] = {
            name_,         next.key,         policy.Name(),     policy.Id(),
            policy.Hash(), policy.Enabled(), Poco::Timestamp(), std::move(next.findings)};
    }
    next = {};
    for (const auto& thread : threads) {
        if (Engine::Instance().StartTask(thread)) {
            feature.tasks.push_back(thread->GetTask()->name());
        }
    }
}

std::unique_ptr<FeaturePolicy> Module::Accepted(const std::string& type, const std::string& key,
                                                const std::string& text, Policy* current,
                                                std::string& refusal) {
    std::unique_ptr<Policy> delivered(RefreshPolicy(type, key, text, current));
    if (delivered == nullptr) {
        refusal = "module " + name_ + " does not take it, as its log lines tell";
        return nullptr;
    }
    std::unique_ptr<FeaturePolicy> accepted(dynamic_cast<FeaturePolicy*>(delivered.get()));
    if (accepted != nullptr) {
        static_cast<void>(delivered.release());
    }
    refusal = accepted == nullptr ? "it is not a feature policy" : Refusal(*accepted);
    if (!refusal.empty()) {
        LogRefusal(key, refusal);
        return nullptr;
    }
    return accepted;
}

void Module::LogRefusal(const std::string& key, const std::string& refusal) const {
    Log().error("module " + name_ + ": policy " + key + " refused: " + refusal);
}

void Module::Refuse(Feature& feature) {
    registered_.clear();
    if (feature.policy != nullptr && feature.next.policy == nullptr) {
        feature.policy->SetChanged(false);
    }
}

std::string Module::Refusal(const FeaturePolicy& policy) const {
    for (const auto& task : registered_) {
        const TaskPolicy* task_policy = policy.FindTaskPolicy(task->name());
        if (task_policy == nullptr) {
            return "it has no task policy for the task " + task->name();
        }
        const TaskCondition& condition = task_policy->Condition();
        if (condition.kind != TaskCondition::kPeriodSeconds || condition.value < 1) {
            return "the task " + task->name() + " needs a period of at least 1 s, not " +
                   std::to_string(condition.value);
        }
    }
    return {};
}

std::vector<PolicyState> Module::PoliciesInForce() const {
    const std::lock_guard<std::mutex> lock(state_mutex_);
    std::vector<PolicyState> states;
    for (const auto& [type, state] : in_force_) {
        states.push_back(state);
    }
    return states;
}

void Module::RegisterPolicyCallback(const std::string& type, AbstractPolicyCallback* callback) {
    features_[type].callback.reset(callback);
    features_[type].withdrawn = false;
}

void Module::UnRegisterPolicyCallback(const std::string& type) {
    const auto found = features_.find(type);
    if (found != features_.end()) {
        found->second.withdrawn = true;
    }
}

void Module::RegisterTask(Task* task, bool start_now) {
    Poco::AutoPtr<Task> owned(task);
    if (!start_now) {
        registered_.push_back(owned);
    } else if (Engine::Instance().StartTask(owned)) {
        own_tasks_.push_back(owned->name());
    }
}

void Module::initialize(Poco::Util::Application& /*app*/) {
    Init();
}

void Module::uninitialize() {
    UnInit();
}

void Module::StopTasks(std::vector<std::string>& names) {
    for (const auto& name : names) {
        Engine::Instance().StopTask(name);
    }
    names.clear();
}

}  // namespace Framework
