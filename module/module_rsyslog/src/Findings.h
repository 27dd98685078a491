#pragma once

#include <string>
#include <vector>

#include "framework/Finding.h"

namespace Engine {

// Collects what a judge finds, in a bounded number: of what a document repeats a thousand times,
// the first tell enough. A refusal is always kept.
class Findings {
public:
    explicit Findings(std::vector<Framework::Finding>& list) : list_(list) {}

    void Warn(const std::string& key, const std::string& problem, const std::string& advice) {
        Add({Framework::Severity::kWarning, key, problem, advice, false});
    }
    void Fail(const std::string& key, const std::string& problem, const std::string& advice) {
        Add({Framework::Severity::kError, key, problem, advice, false});
    }
    void Refuse(const std::string& key, const std::string& problem, const std::string& advice) {
        if (!refused_ || !Full()) {
            refused_ = true;
            list_.push_back({Framework::Severity::kError, key, problem, advice, true});
        }
    }
    // Whether more would be left out.
    bool Full() const { return list_.size() >= kMost; }

private:
    static constexpr std::size_t kMost = 100;

    void Add(Framework::Finding finding) {
        if (!Full()) {
            list_.push_back(std::move(finding));
        }
    }

    std::vector<Framework::Finding>& list_;
    bool refused_ = false;
};

}  // namespace Engine
