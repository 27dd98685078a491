#pragma once

// The signals of the agent. Handlers rather than a blocked mask: commands that a task starts
// would inherit the mask, and a daemon restarted with SIGTERM blocked could not be stopped.
namespace Signals {

// From here on SIGTERM and SIGINT ask for a stop. SIGHUP asks for nothing: files that were moved
// are followed anyway. A write to a closed pipe is an error of that write alone, as is what
// OutliveFileLimit tells. Call before the first thread is made.
void Install();

// SIGTERM and SIGINT call that instead, which may do only what a handler may.
void StopBy(void (*call)());

// A write past the limit of a file's size is an error of that write alone.
void OutliveFileLimit();

// Waits until a stop is asked for; main thread only.
void AwaitStop();

}  // namespace Signals
