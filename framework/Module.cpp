#include "framework/Module.h"

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
    if (found == features_.end() || found->second.callback == nullptr ||
        found->second.callback->withdrawn) {
        return nullptr;
    }
    return found->second.callback->invoke(key, text, current);
}

void Module::DeliverPolicy(const std::string& type, const std::string& key,
                           const std::string& text) {
    const auto found = features_.find(type);
    if (found == features_.end()) {
        return;
    }
    Feature& feature = found->second;

    registered_.clear();
    std::unique_ptr<FeaturePolicy> accepted;
    try {
        accepted = Accepted(type, key, text, feature.policy.get());
    } catch (...) {
        KeepInForce(feature);
        throw;
    }
    if (accepted == nullptr) {
        KeepInForce(feature);
        return;
    }

    StopTasks(feature.tasks);
    accepted->Dispatch(feature.policy.get());
    feature.policy = std::move(accepted);
    std::vector<Poco::AutoPtr<Task>> tasks;
    tasks.swap(registered_);
    if (!feature.policy->Enabled()) {
        Log().information("feature " + feature.policy->Name() + " is switched off by policy " +
                          key);
        return;
    }
    Log().information("feature " + feature.policy->Name() + " follows policy " + key);
    for (auto& task : tasks) {
        task->Attach(feature.policy.get(), *feature.policy->FindTaskPolicy(task->name()));
        if (Engine::Instance().StartTask(task)) {
            feature.tasks.push_back(task->name());
        }
    }
}

std::unique_ptr<FeaturePolicy> Module::Accepted(const std::string& type, const std::string& key,
                                                const std::string& text, Policy* current) {
    std::unique_ptr<Policy> delivered(RefreshPolicy(type, key, text, current));
    if (delivered == nullptr) {
        return nullptr;
    }
    std::unique_ptr<FeaturePolicy> accepted(dynamic_cast<FeaturePolicy*>(delivered.get()));
    if (accepted != nullptr) {
        static_cast<void>(delivered.release());
    }
    const std::string refusal =
        accepted == nullptr ? "it is not a feature policy" : Refusal(*accepted);
    if (!refusal.empty()) {
        Log().error("module " + name_ + ": policy " + key + " refused: " + refusal);
        return nullptr;
    }
    return accepted;
}

void Module::KeepInForce(Feature& feature) {
    registered_.clear();
    if (feature.policy != nullptr) {
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

void Module::RegisterPolicyCallback(const std::string& type, AbstractPolicyCallback* callback) {
    features_[type].callback.reset(callback);
}

void Module::UnRegisterPolicyCallback(const std::string& type) {
    const auto found = features_.find(type);
    if (found != features_.end() && found->second.callback != nullptr) {
        found->second.callback->withdrawn = true;
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
