#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Framework {

// When a task runs.
struct TaskCondition {
    // What starts a run. Periodic is the only trigger there is.
    enum TaskType { kPeriodic = 0 };
    // Kinds of condition; the value of kPeriodSeconds is a number of seconds, at least 1.
    enum Kind { kNone = 0, kPeriodSeconds = 10 };

    // The three condition words; the third belongs to kinds that need a second value.
    std::int64_t kind = kNone;
    std::int64_t value = 0;
    std::int64_t extra = 0;
};

// One accepted document, or a piece of one. Built, parsed and destroyed on the policy thread; not
// changed while a task runs under it.
class Policy {
public:
    explicit Policy(std::string name) : name_(std::move(name)) {}
    virtual ~Policy() = default;
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    // Reads the document; false when it is refused. The fields read before the fault stay set.
    virtual bool Parse(const std::string& text) = 0;

    const std::string& Name() const { return name_; }
    void SetName(const std::string& name) { name_ = name; }
    const std::string& Id() const { return id_; }
    void SetId(const std::string& id) { id_ = id; }
    const std::string& Hash() const { return hash_; }
    void SetHash(const std::string& hash) { hash_ = hash; }
    bool Enabled() const { return enabled_; }
    void SetEnabled(bool enabled) { enabled_ = enabled; }
    // True once a later document has superseded this one.
    bool Changed() const { return changed_; }
    void SetChanged(bool changed) { changed_ = changed; }

private:
    std::string name_;
    std::string id_;
    std::string hash_;
    bool enabled_ = true;
    bool changed_ = false;
};

// Class codes tell kinds of policy apart where they travel as numbers.
constexpr int kTaskPolicyClass = 180;

// Tells the framework when to run the task of the same name.
class TaskPolicy : public Policy {
public:
    explicit TaskPolicy(const std::string& name, int class_code = kTaskPolicyClass)
        : Policy(name), class_code_(class_code) {}

    // The text is a condition object: see ParseCondition.
    bool Parse(const std::string& text) override;

    // Reads {"kind": 10, "value": SECONDS}. False, with an error line, for text that is not JSON,
    // another kind, or a period below 1; the condition then stays as it was.
    bool ParseCondition(const std::string& text);

    int ClassCode() const { return class_code_; }
    const TaskCondition& Condition() const { return condition_; }
    void SetCondition(std::int64_t kind, std::int64_t value);

private:
    int class_code_;
    TaskCondition condition_;
};

// A policy that holds others.
class CompositePolicy : public Policy {
public:
    using Policy::Policy;

    // Takes ownership.
    void Add(Policy* child);

    // The first child task policy of that name, or null. Owned by this policy.
    const TaskPolicy* FindTaskPolicy(const std::string& name) const;

private:
    std::vector<std::unique_ptr<Policy>> children_;
};

// The policy of one feature of a module.
class FeaturePolicy : public CompositePolicy {
public:
    using CompositePolicy::CompositePolicy;

    // Called on an accepted policy before its task starts. `previous` is the policy it takes over
    // from, or null; it is destroyed afterwards.
    virtual void Dispatch(Policy* previous);

    // Called by Dispatch when there was a previous policy, with the hashes of both; logs them.
    virtual void PolicyChanged(const std::string& old_hash, const std::string& new_hash);
};

}  // namespace Framework
