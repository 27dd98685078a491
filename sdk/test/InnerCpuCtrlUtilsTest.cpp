#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "sdk/InnerCpuCtrlUtils.h"

using namespace SDK::InnerCpuCtrlUtils;

namespace {

double Ms(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

TEST(InnerCpuCtrlUtils, HoldsAThreadToItsShareAndIdleTimeIsNoCredit) {
    SetLimit(20);
    // In a thread of its own, whose account starts empty.
    std::thread([] {
        const auto adjust = [] { AdjustThreadCpu("Some.cpp", 7, "module_x", 0, 0); };
        adjust();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        const double wall = Ms(CLOCK_MONOTONIC);
        adjust();
        const double cpu = Ms(CLOCK_THREAD_CPUTIME_ID);
        for (int turn = 1; turn < 20; ++turn) {
            while (Ms(CLOCK_THREAD_CPUTIME_ID) < cpu + 10 * turn) {
            }
            adjust();
        }
        const double share =
            100 * (Ms(CLOCK_THREAD_CPUTIME_ID) - cpu) / (Ms(CLOCK_MONOTONIC) - wall);
        // Above only by rounding; below by what a busy machine oversleeps and takes away.
        EXPECT_LE(share, 21);
        EXPECT_GE(share, 6);
    }).join();
    SetLimit(0);
}

}  // namespace
