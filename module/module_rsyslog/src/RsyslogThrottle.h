#pragma once

#include <cstdint>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

// Lets the SDK slow the calling thread down when it has run for longer than suggested since
// `last_adjust`, the tick of this point's last adjustment.
inline void ThrottlePoint(const char* file, int line, std::uint64_t& last_adjust) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const std::uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const std::uint64_t elapsed = now > last_adjust ? now - last_adjust : last_adjust - now;
    if (elapsed > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu(file, line, "rsyslog_module", now, elapsed);
        last_adjust = now;
    }
}

}  // namespace Engine

// A point in a long loop; its last adjustment is shared by all who pass it.
#define RSYSLOG_THROTTLE()                                      \
    do {                                                        \
        static std::uint64_t last_adjust = 0;                   \
        Engine::ThrottlePoint(__FILE__, __LINE__, last_adjust); \
    } while (false)
