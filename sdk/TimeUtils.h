#pragma once

#include <chrono>
#include <cstdint>

namespace SDK::TimeUtils {

// Milliseconds of the monotonic clock: for intervals only, its origin means nothing.
inline uint64_t GetCurrentSystemTickUsed() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

}  // namespace SDK::TimeUtils
