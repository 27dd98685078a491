#pragma once

#include <string>
#include <vector>

// Going to the background. The caller's process waits until the agent has started, so that a bad
// start is its standard error and its exit status.
namespace Daemon {

// Takes "--daemon" out of `arguments`. When it was there, returns in a new session only; the
// caller's process ends once that has called Started (status 0) or ended itself (its status).
// Before the first thread.
void Enter(std::vector<std::string>& arguments);

// Lets the caller's process end and drops the terminal; nothing when not in the background.
void Started();

}  // namespace Daemon
