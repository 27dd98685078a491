#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace Fleet {

// How long to wait before another try: any time up to two seconds after the first failure, up to
// twice as long after each further one, a minute at most. Thousands of hosts that have lost the
// same server so spread their tries.
class Backoff {
public:
    std::chrono::milliseconds Next() {
        const auto wait = std::uniform_int_distribution<int>(kLeast, limit_)(random_);
        limit_ = std::min(2 * limit_, kMost);
        return std::chrono::milliseconds(wait);
    }
    // All is well again.
    void Reset() { limit_ = kFirst; }

private:
    static constexpr int kLeast = 50;  // milliseconds, as the next
    static constexpr int kFirst = 2000;
    static constexpr int kMost = 60000;
    std::mt19937 random_{std::random_device()()};
    int limit_ = kFirst;
};

}  // namespace Fleet
