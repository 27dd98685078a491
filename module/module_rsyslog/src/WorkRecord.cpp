#include "module/module_rsyslog/src/WorkRecord.h"

namespace Engine {

WorkRecord& WorkRecord::Instance() {
    static WorkRecord record;
    return record;
}

void WorkRecord::Begin(const std::map<std::string, bool>& wanted) {
    const std::lock_guard<std::mutex> lock(mutex_);
    figures_.successes.clear();
    for (const auto& [work, is_wanted] : wanted) {
        if (is_wanted) {
            figures_.successes.emplace(work, 0);
        }
    }
}

void WorkRecord::Succeeded(const std::string& work) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = figures_.successes.find(work);
    if (found != figures_.successes.end()) {
        found->second.update();
    }
}

void WorkRecord::Count(const std::string& event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++figures_.events[event];
}

Framework::Figures WorkRecord::Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return figures_;
}

}  // namespace Engine
