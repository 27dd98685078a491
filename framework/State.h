#pragma once

#include <Poco/Timestamp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "framework/Finding.h"
#include "framework/HostChange.h"

// How the running agent fares, as it was at one moment. A time of 0 is none.
namespace Framework {

// How long cycles took: how many up to each bound, and behind these how many longer ones.
struct CycleCounts {
    static constexpr std::array<double, 7> kBounds{0.001, 0.01, 0.1, 1, 10, 60, 600};  // seconds
    std::array<std::uint64_t, kBounds.size() + 1> counts{};
    std::chrono::duration<double> sum{0};

    void Add(std::chrono::duration<double> lasted) {
        const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(), lasted.count());
        ++counts[static_cast<std::size_t>(bound - kBounds.begin())];
        sum += lasted;
    }
};

// A task, its cycles and the queue of messages that wait for it.
struct TaskStatus {
    std::string name;
    std::chrono::seconds period{0};         // 0: it has no cycles
    bool running = false;                   // in a cycle now
    Poco::Timestamp began{0};               // the last cycle
    std::chrono::milliseconds lasted{0};    // that cycle, so far when it is running
    Poco::Timestamp due{0};                 // the next cycle; when one is running, that one
    CycleCounts cycles;                     // those that have ended
    std::chrono::nanoseconds processor{0};  // time that its thread has used
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

// Documents handed to the modules so far, by what became of them.
struct Deliveries {
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;
};

// What a module tells of its work, each under a name of the module's choice.
struct Figures {
    std::map<std::string, std::uint64_t> events;       // how often, since the agent's start
    std::map<std::string, Poco::Timestamp> successes;  // of what it is to do: when last, 0 not yet
};

struct ModuleFigures {
    std::string module;
    Figures figures;
};

struct State {
    std::vector<TaskStatus> tasks;
    std::vector<PolicyState> policies;
    std::vector<RefusedPolicy> refused;
    std::vector<ModuleCondition> conditions;
    Deliveries deliveries;
    std::vector<ModuleFigures> figures;
};

}  // namespace Framework
