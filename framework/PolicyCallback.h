#pragma once

#include <string>

#include "framework/Policy.h"

namespace Framework {

// What a module registers for one policy type.
class AbstractPolicyCallback {
public:
    virtual ~AbstractPolicyCallback() = default;

    // Called on the policy thread with each document. `key` names where it came from, `current` is
    // the policy in force or null; the callee may flag it, not replace it. Returns the new policy,
    // which the caller then owns, or null when the document is refused.
    virtual Policy* invoke(const std::string& key, const std::string& text,
                           Policy*& current) const = 0;
};

// Calls a member operation of a module.
template <typename ModuleType>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Operation = Policy* (ModuleType::*)(const std::string&, const std::string&, Policy*&);

    // `module` must outlive the callback.
    PolicyCallback(ModuleType* module, Operation operation)
        : module_(module), operation_(operation) {}

    Policy* invoke(const std::string& key, const std::string& text,
                   Policy*& current) const override {
        return (module_->*operation_)(key, text, current);
    }

private:
    ModuleType* module_;
    Operation operation_;

public:
    bool flag = false;  // for whoever holds the callback; not read here
};

}  // namespace Framework
