#pragma once

#include <string>
#include <vector>

namespace Fleet {

// `watchpost fleet ...`, by what stands behind; docs/fleet.md tells of it. Speaks with the servers
// of fleet.servers as whom the configuration says. The exit status; throws what Module::RunCommand
// may.
int RunFleetCommand(const std::vector<std::string>& arguments);

}  // namespace Fleet
