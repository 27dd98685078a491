#pragma once

#include <string>
#include <vector>

#include "module/module_fleet/src/Nats.h"

namespace Fleet {

// What the configuration says of the cluster and of this host's place in the fleet.
struct Settings {
    std::vector<std::string> servers;  // URLs; empty: this host is in no fleet
    std::string name;                  // of this host
    std::vector<std::string> groups;   // the first goes before the next
    // Paths, empty when not set.
    std::string ca;  // authorities that sign the servers' certificates
    std::string certificate;
    std::string key;
    std::string credentials;
};

// The configuration's keys that these are read from.
std::vector<std::string> SettingKeys();
// From the running application's configuration. Throws Poco::Exception for a value that will not
// do.
Settings ReadSettings();

// A connection that ends for good when it fails. May wait long, for a name server for instance.
// Throws Poco::IOException.
Nats::Connection Connect(const Settings& settings);

// Makes the stream of reports and the buckets of policies and hosts where they are not there yet,
// or gives them so many replicas. Throws Poco::IOException.
void InitFleet(natsConnection* connection, int replicas);

}  // namespace Fleet
