#pragma once

#include <map>
#include <mutex>
#include <string>

#include "framework/State.h"

namespace Engine {

constexpr const char* kForwarding = "forwarding";
constexpr const char* kHistory = "history";
constexpr const char* kLogins = "logins";

constexpr const char* kDaemonRestart = "daemon_restart";  // asked for, whatever became of it
constexpr const char* kHistoryCut = "history_cut";        // commands lost or put off

// What the module's work came to. One for the process, as a task ends with its policy and what it
// has counted goes on. Any thread.
class WorkRecord {
public:
    static WorkRecord& Instance();

    // What a new task is to do, of which nothing has succeeded yet. No task: nothing.
    void Begin(const std::map<std::string, bool>& wanted);
    // Of something that no task is to do this is not noted.
    void Succeeded(const std::string& work);
    void Count(const std::string& event);

    Framework::Figures Get() const;

private:
    mutable std::mutex mutex_;  // guards the rest
    Framework::Figures figures_{{{kDaemonRestart, 0}, {kHistoryCut, 0}}, {}};
};

}  // namespace Engine
