#pragma once

#include <Poco/Timestamp.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "framework/Finding.h"
#include "framework/HostChange.h"

// How the running agent fares, as it was at one moment. A time of 0 is none.
namespace Framework {

// A task, its cycles and the queue of messages that wait for it.
struct TaskStatus {
    std::string name;
    std::chrono::seconds period{0};       // 0: it has no cycles
    bool running = false;                 // in a cycle now
    Poco::Timestamp began{0};             // the last cycle
    std::chrono::milliseconds lasted{0};  // that cycle, so far when it is running
    Poco::Timestamp due{0};               // the next cycle; when one is running, that one
    std::size_t waiting_messages = 0;
    std::size_t waiting_bytes = 0;
};

// A policy in force.
struct PolicyState {
    std::string module;
    std::string key;  // the name of its file
    std::string name;
    std::string id;
    std::string hash;
    bool enabled = true;
    Poco::Timestamp since{0};
    std::vector<Finding> findings;
};

// A document that no module has accepted. Another one of its key may be in force.
struct RefusedPolicy {
    std::string key;
    Poco::Timestamp when{0};
    std::string why;
};

struct ModuleCondition {
    std::string module;
    Condition condition;
};

struct State {
    std::vector<TaskStatus> tasks;
    std::vector<PolicyState> policies;
    std::vector<RefusedPolicy> refused;
    std::vector<ModuleCondition> conditions;
};

}  // namespace Framework
