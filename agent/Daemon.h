#pragma once

// Going to the background. The caller's process waits until the agent has started, so that a bad
// start is its standard error and its exit status.
namespace Daemon {

// Returns in a new session only; the caller's process ends once that has called Started (status 0)
// or ended itself (its status). Before the first thread. Throws StartError, EX_OSERR.
void Enter();

// Lets the caller's process end, drops the terminal and moves to "/"; nothing when not in the
// background.
void Started();

}  // namespace Daemon
