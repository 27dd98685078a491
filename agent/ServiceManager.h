#pragma once

#include <Poco/Timestamp.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "framework/State.h"

// Tells the service manager that started the agent how it fares, as sd_notify(3) has it. Started by
// something else it tells nobody.
class ServiceManager {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::minutes kMaxStill{10};

    static void Ready();
    static void Stopping();

    // A line for people, and a sign of life, which is left out, with an error line, as long as a
    // task that has something to do has used no processor time for more than kMaxStill. One thread.
    void Tell(const std::string& status, const std::vector<Framework::TaskStatus>& tasks,
              Clock::time_point now = Clock::now());

private:
    struct Seen {
        Poco::Timestamp began;
        std::chrono::nanoseconds processor;
        Clock::time_point moved;
    };

    // The name of a task that stands still; empty when all move.
    std::string FindStill(const std::vector<Framework::TaskStatus>& tasks, Clock::time_point now);

    std::map<std::string, Seen> seen_;  // by the task's name
    std::string still_;
};
