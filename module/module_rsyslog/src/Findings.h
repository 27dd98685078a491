#pragma once

#include <string>
#include <utility>
#include <vector>

#include "framework/Finding.h"

namespace Engine {

// Collects what a judge finds, a hundred of each weight at most: of what a document repeats a
// thousand times the first tell enough, and they hide nothing that weighs more. What they quote is
// cut, too.
class Findings {
public:
    explicit Findings(std::vector<Framework::Finding>& list) : list_(list) {}

    void Warn(const std::string& key, const std::string& problem, const std::string& advice) {
        Add(warnings_, {Framework::Severity::kWarning, key, problem, advice, false});
    }
    void Fail(const std::string& key, const std::string& problem, const std::string& advice) {
        Add(errors_, {Framework::Severity::kError, key, problem, advice, false});
    }
    void Refuse(const std::string& key, const std::string& problem, const std::string& advice) {
        Add(refusals_, {Framework::Severity::kError, key, problem, advice, true});
    }
    // Whether further warnings are left out.
    bool Full() const { return warnings_ >= kMost; }

private:
    static constexpr std::size_t kMost = 100;
    static constexpr std::size_t kMaxProblem = 1000;  // bytes

    void Add(std::size_t& count, Framework::Finding finding) {
        if (count < kMost) {
            ++count;
            if (finding.problem.size() > kMaxProblem) {
                finding.problem.resize(kMaxProblem);
                finding.problem += "...";
            }
            list_.push_back(std::move(finding));
        }
    }

    std::vector<Framework::Finding>& list_;
    std::size_t warnings_ = 0;
    std::size_t errors_ = 0;
    std::size_t refusals_ = 0;
};

}  // namespace Engine
