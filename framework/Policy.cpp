#include "framework/Policy.h"

#include "framework/Log.h"
#include "sdk/JsonUtils.h"

namespace Framework {

bool TaskPolicy::Parse(const std::string& text) {
    return ParseCondition(text);
}

bool TaskPolicy::ParseCondition(const std::string& text) {
    Json::Value condition;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), condition) != 0) {
        Log().error("task policy " + Name() + ": the condition is not JSON");
        return false;
    }
    const int kind = SDK::JsonUtils::GetIntValue(condition, "kind", TaskCondition::kNone);
    const int value = SDK::JsonUtils::GetIntValue(condition, "value", 0);
    if (kind != TaskCondition::kPeriodSeconds || value < 1) {
        Log().error("task policy " + Name() + ": a period of at least 1 s is required, not kind " +
                    std::to_string(kind) + " value " + std::to_string(value));
        return false;
    }
    SetCondition(kind, value);
    return true;
}

void TaskPolicy::SetCondition(std::int64_t kind, std::int64_t value) {
    condition_.kind = kind;
    condition_.value = value;
}

void CompositePolicy::Add(Policy* child) {
    children_.emplace_back(child);
}

const TaskPolicy* CompositePolicy::FindTaskPolicy(const std::string& name) const {
    for (const auto& child : children_) {
        const auto* task_policy = dynamic_cast<const TaskPolicy*>(child.get());
        if (task_policy != nullptr && task_policy->Name() == name) {
            return task_policy;
        }
    }
    return nullptr;
}

void FeaturePolicy::Dispatch(Policy* previous) {
    if (previous != nullptr) {
        PolicyChanged(previous->Hash(), Hash());
    }
}

void FeaturePolicy::PolicyChanged(const std::string& old_hash, const std::string& new_hash) {
    Log().information("feature " + Name() + ": policy with hash [" + new_hash +
                      "] takes over from hash [" + old_hash + "]");
}

}  // namespace Framework
