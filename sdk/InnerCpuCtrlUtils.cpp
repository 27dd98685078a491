#include "sdk/InnerCpuCtrlUtils.h"

#include <Poco/Logger.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "sdk/LoggerUtils.h"

namespace SDK::InnerCpuCtrlUtils {

std::atomic<int> limit_percent{0};

namespace {

constexpr int64_t kNsPerMs = 1'000'000;
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kMaxSleepNs = kNsPerSecond;
constexpr unsigned long kRunTickMs = 10;

// Changes with every SetLimit; 0 is what a new thread's account says.
std::atomic<unsigned> limit_epoch{1};

struct ThreadAccount {
    unsigned epoch = 0;
    int64_t cpu_ns = 0;
    int64_t wall_ns = 0;
    int64_t owed_ns = 0;
};

thread_local ThreadAccount account;

int64_t ReadClock(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec;
}

void LogSleep(const char* file, int line, const char* module, int64_t slept_ns) {
    const std::string name = module == nullptr ? "" : module;
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger(name, false);
    if (logger->trace()) {
        const std::string place = file == nullptr ? "?" : file;
        logger->trace(name + " at " + place + ":" + std::to_string(line) + " slept " +
                          std::to_string(slept_ns / kNsPerMs) + " ms",
                      __FILE__, __LINE__);
    }
}

}  // namespace

void SetLimit(int percent) {
    limit_percent.store(std::clamp(percent, 0, 100), std::memory_order_relaxed);
    limit_epoch.fetch_add(1, std::memory_order_relaxed);
}

unsigned long GetSuggestedRunTick() {
    return kRunTickMs;
}

void AdjustThreadCpu(const char* file, int line, const char* module, unsigned long /*now*/,
                     unsigned long elapsed) {
    const int64_t percent = limit_percent.load(std::memory_order_relaxed);
    if (percent <= 0) {
        return;
    }
    const int64_t cpu_ns = ReadClock(CLOCK_THREAD_CPUTIME_ID);
    const int64_t wall_ns = ReadClock(CLOCK_MONOTONIC);
    const unsigned epoch = limit_epoch.load(std::memory_order_relaxed);
    int64_t used_ns = cpu_ns - account.cpu_ns;
    int64_t passed_ns = wall_ns - account.wall_ns;
    if (account.epoch != epoch) {
        // Bounded, so that a tick that went backwards does not overflow.
        constexpr unsigned long kMaxElapsedMs = 3'600'000;
        passed_ns = static_cast<int64_t>(std::min(elapsed, kMaxElapsedMs)) * kNsPerMs;
        used_ns = std::min(cpu_ns, passed_ns);
        account.epoch = epoch;
        account.owed_ns = 0;
    }
    account.cpu_ns = cpu_ns;
    account.wall_ns = wall_ns;
    account.owed_ns = std::max<int64_t>(0, account.owed_ns + used_ns * 100 / percent - passed_ns);
    if (account.owed_ns == 0) {
        return;
    }
    const int64_t until_ns = wall_ns + std::min(account.owed_ns, kMaxSleepNs);
    timespec until{};
    until.tv_sec = until_ns / kNsPerSecond;
    until.tv_nsec = until_ns % kNsPerSecond;
    // A signal ends the sleep early on purpose, the rest stays owed.
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    account.wall_ns = ReadClock(CLOCK_MONOTONIC);
    const int64_t slept_ns = account.wall_ns - wall_ns;
    account.owed_ns = std::max<int64_t>(0, account.owed_ns - slept_ns);
    LogSleep(file, line, module, slept_ns);
}

}  // namespace SDK::InnerCpuCtrlUtils
