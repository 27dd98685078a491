#pragma once

#include <Poco/Event.h>
#include <Poco/Thread.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "framework/State.h"
#include "module/module_fleet/src/Cluster.h"
#include "module/module_fleet/src/HostState.h"
#include "module/module_fleet/src/PolicyFollower.h"
#include "module/module_fleet/src/ReportPublisher.h"

namespace Fleet {

// This host as one of the fleet: on a thread of its own it keeps a connection to the cluster, and
// through it moves reports, follows policies and tells its state. Nobody else waits for any of it.
class FleetMember {
public:
    struct Files {
        std::string reports;
        std::string checkpoint;
        std::string policy;
    };

    FleetMember(Settings settings, const Files& files);
    // Ends every wait, the one for a connection too, and the thread.
    ~FleetMember();

    // Any thread.
    std::vector<Framework::Condition> Conditions() const;
    PublisherCounts Counts() const;

private:
    void Run();
    // Waits for a connection and works with it until it fails, which throws Poco::Exception.
    void Serve();
    Nats::Connection AwaitConnection();
    void Work();
    void Note(const std::string& trouble);
    static bool Judge(const std::string& text, std::vector<Framework::Finding>& findings);

    const Settings settings_;
    ReportPublisher reports_;
    PolicyFollower policies_;
    HostState state_;
    Backoff backoff_;
    std::atomic<bool> stopping_{false};
    Poco::Event stop_{false};
    mutable std::mutex mutex_;  // guards what follows
    natsConnection* connection_ = nullptr;
    std::string trouble_ = "not connected yet";
    PublisherCounts counts_;
    Poco::Thread thread_;
};

}  // namespace Fleet
