#pragma once

#include <string>
#include <vector>

#include "framework/Finding.h"

namespace Engine {

// Collects what a judge finds, a hundred of each weight at most: of what a document repeats a
// thousand times the first tell enough, and they hide nothing that weighs more.
class Findings {
public:
    explicit Findings(std::vector<Framework::Finding>& list) : list_(list) {}

    void Warn(const std::string& key, const std::string& problem, const std::string& advice) {
        if (warnings_ < kMost) {
            ++warnings_;
            list_.push_back({Framework::Severity::kWarning, key, problem, advice, false});
        }
    }
    void Fail(const std::string& key, const std::string& problem, const std::string& advice) {
        if (errors_ < kMost) {
            ++errors_;
            list_.push_back({Framework::Severity::kError, key, problem, advice, false});
        }
    }
    void Refuse(const std::string& key, const std::string& problem, const std::string& advice) {
        if (refusals_ < kMost) {
            ++refusals_;
            list_.push_back({Framework::Severity::kError, key, problem, advice, true});
        }
    }
    // Whether further warnings are left out.
    bool Full() const { return warnings_ >= kMost; }

private:
    static constexpr std::size_t kMost = 100;

    std::vector<Framework::Finding>& list_;
    std::size_t warnings_ = 0;
    std::size_t errors_ = 0;
    std::size_t refusals_ = 0;
};

}  // namespace Engine
