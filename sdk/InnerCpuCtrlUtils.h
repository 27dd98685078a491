#pragma once

#include <atomic>

// Keeps each working thread at or under a share of one processor by having it sleep now and then.
// The thread asks IsEnabled, works for about GetSuggestedRunTick and calls AdjustThreadCpu,
// repeatedly.
namespace SDK::InnerCpuCtrlUtils {

extern std::atomic<int> limit_percent;

// Percent of one processor for each thread, 0 = no limit; values outside 0..100 are clamped. From
// any thread; what threads owe at that moment is forgotten.
void SetLimit(int percent);

inline bool IsEnabled() {
    return limit_percent.load(std::memory_order_relaxed) > 0;
}

// How many milliseconds a thread should work between two calls of AdjustThreadCpu.
unsigned long GetSuggestedRunTick();

// Sleeps until the processor time that the calling thread took since its previous call is within
// the limit, at most 1 s and not past a signal: what is owed beyond that is left to the next call.
// Time spent idle is no credit for later. `elapsed`, the milliseconds the caller has worked, stands
// in for the time since the previous call on the first one of a thread; `now` (the caller's tick)
// is not used. A sleep is logged at trace level under `module` with `file`, `line` and its length.
void AdjustThreadCpu(const char* file, int line, const char* module, unsigned long now,
                     unsigned long elapsed);

}  // namespace SDK::InnerCpuCtrlUtils
