#pragma once

#include <netinet/in.h>

#include <functional>
#include <string>

namespace Engine {

// Waits for others that a stop ends: both return within a tenth of a second once `stopping` does
// true. What was waited for goes on alone. Commands and restarts are for one thread at a time.

enum class Outcome { kDone, kFailed, kStopped };

// Runs a command in a shell, in a process group of its own, with no signal blocked, once those that
// earlier stops have left running have ended; a stop meanwhile starts none. kFailed: it could not
// be started, or was killed as it had not ended after a minute. `status`, set
// when it is done: its exit status, -1 when a signal ended it.
Outcome RunCommand(const std::string& command, const std::function<bool()>& stopping, int& status);
// The same for a command that leaves nothing running: a stop ends it, within a second, and it can
// write 1 MiB at most, of which `output` gets the first 16 KiB.
Outcome RunCommand(const std::string& command, const std::function<bool()>& stopping, int& status,
                   std::string& output);

// Waits until a restart is the daemon's third in ten seconds at most: from five on systemd gives up
// on a service. False when a stop came first.
bool AwaitRestartTurn(const std::function<bool()>& stopping);
// To be called when a restart has come to its end.
void NoteRestart();

// Sets `out` to the first IPv4 address that the system's resolver knows for the name `host`.
Outcome LookUpHost(const std::string& host, in_addr& out, const std::function<bool()>& stopping);
// Whether the resolver knows an address of any kind for it.
Outcome LookUpHost(const std::string& host, const std::function<bool()>& stopping);

}  // namespace Engine
