#pragma once

#include <json/value.h>

#include <chrono>
#include <random>
#include <string>

#include "module/module_fleet/src/Backoff.h"
#include "module/module_fleet/src/Nats.h"

namespace Fleet {

// Puts into the bucket of hosts what this one runs, as docs/fleet.md tells: when that has changed,
// looked at every few seconds, and as a heartbeat. Readers judge by the time of the last one who
// has gone silent.
//
// One thread at a time.
class HostState {
public:
    // Between two heartbeats, less up to a fifth of it.
    static constexpr int kHeartbeat = 30;  // seconds

    explicit HostState(const std::string& host);

    // As ReportPublisher has it.
    void Connect(natsConnection* connection);
    // Tells what there is to tell, and waits for the bucket to have it. Throws Poco::IOException
    // when the connection is of no use.
    void Work(const Json::Value& policy);
    // Looks at once and often for a while, as something is changing.
    void Hurry();

    const std::string& Trouble() const { return trouble_; }

private:
    using Clock = std::chrono::steady_clock;

    void Put(const Json::Value& value);

    const std::string host_;
    const std::string since_;
    natsConnection* connection_ = nullptr;
    Nats::JetStream stream_;
    Clock::time_point next_look_;
    Clock::time_point hurry_end_;
    Clock::time_point heartbeat_;
    std::string told_;  // without what changes all the time
    std::mt19937 random_{std::random_device()()};
    Backoff backoff_;
    std::string trouble_;
};

}  // namespace Fleet
