#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace Fleet {

// How long to wait before another try: any time up to two seconds after the first failure, up to
// twice as long after each further one, `most` at most. Thousands of hosts that have lost the same
// server so spread their tries; how far is for `most` to say, by what a try costs the servers.
class Backoff {
public:
    explicit Backoff(std::chrono::seconds most = std::chrono::seconds(60))
        : most_(static_cast<int>(most.count()) * 1000) {}

    std::chrono::milliseconds Next() {
        const auto wait = std::uniform_int_distribution<int>(kLeast, limit_)(random_);
        limit_ = std::min(2 * limit_, most_);
        return std::chrono::milliseconds(wait);
    }
    // All is well again.
    void Reset() { limit_ = kFirst; }

private:
    static constexpr int kLeast = 50;  // milliseconds, as the next
    static constexpr int kFirst = 2000;
    const int most_;
    std::mt19937 random_{std::random_device()()};
    int limit_ = kFirst;
};

}  // namespace Fleet
