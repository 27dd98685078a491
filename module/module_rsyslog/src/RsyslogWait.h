#pragma once

#include <netinet/in.h>

#include <functional>
#include <string>

namespace Engine {

// Waits for others that a stop ends: both return within a tenth of a second once `stopping` does
// true. What was waited for goes on alone. One thread at a time.

enum class Outcome { kDone, kFailed, kStopped };

// Runs a command in a shell, in a process group of its own, with no signal blocked, once those that
// earlier stops have left running have ended; a stop meanwhile starts none. kFailed: it could not
// be started, or was killed as it had not ended after a minute. Its exit status is not of interest.
Outcome RunCommand(const std::string& command, const std::function<bool()>& stopping);

// Sets `out` to the first IPv4 address that the system's resolver knows for the name `host`.
Outcome LookUpHost(const std::string& host, in_addr& out, const std::function<bool()>& stopping);

}  // namespace Engine
