#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"
#include "sdk/test/TempDir.h"

using namespace SDK::InnerCpuCtrlUtils;
using SDK::TimeUtils::GetCurrentSystemTickUsed;

namespace {

double ThreadCpuMs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void BurnCpu(double ms) {
    for (const double end = ThreadCpuMs() + ms; ThreadCpuMs() < end;) {
    }
}

// How many milliseconds the call took.
uint64_t Adjust(unsigned long elapsed = 0) {
    const uint64_t start = GetCurrentSystemTickUsed();
    AdjustThreadCpu("Some.cpp", 7, "module_x", start, elapsed);
    return GetCurrentSystemTickUsed() - start;
}

// The share of one processor that the thread got since this was made, in percent. An upper bound on
// it holds however busy the machine is, one on the length of a sleep does not.
struct Window {
    double Share() const { return 100 * (ThreadCpuMs() - cpu) / static_cast<double>(Passed()); }
    uint64_t Passed() const { return GetCurrentSystemTickUsed() - wall; }

    double cpu = ThreadCpuMs();
    uint64_t wall = GetCurrentSystemTickUsed();
};

// Every case in a thread of its own, whose account starts empty.
template <typename Body>
void InThread(int percent, Body body) {
    SetLimit(percent);
    std::thread(body).join();
    SetLimit(0);
}

TEST(InnerCpuCtrlUtils, HoldsAThreadToItsShare) {
    for (const int percent : {10, 50}) {
        InThread(percent, [percent] {
            Adjust();
            const Window window;
            while (ThreadCpuMs() - window.cpu < 150) {
                BurnCpu(static_cast<double>(GetSuggestedRunTick()));
                Adjust();
            }
            // Above only by rounding; below by what a busy machine oversleeps and takes away.
            EXPECT_LE(window.Share(), percent * 1.05);
            EXPECT_GE(window.Share(), percent * 0.3);
        });
    }
}

TEST(InnerCpuCtrlUtils, IdleTimeCountsForItsWindowOnly) {
    InThread(50, [] {
        const Window first;
        BurnCpu(100);
        Adjust(first.Passed());
        EXPECT_LE(first.Share(), 52) << "on the first call by what the caller tells";
        BurnCpu(100);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_LT(Adjust(), 90U) << "the pause was longer than what was owed";
        const Window last;
        BurnCpu(100);
        Adjust();
        EXPECT_LE(last.Share(), 52) << "the rest of that pause must not pay for this";
        BurnCpu(100);
        SetLimit(40);
        EXPECT_LT(Adjust(), 90U) << "a new limit forgets what was owed";
    });
}

TEST(InnerCpuCtrlUtils, ASleepIsBoundedAndTheRestStaysOwed) {
    InThread(2, [] {
        Adjust();
        const Window window;
        BurnCpu(40);
        const uint64_t slept = Adjust();
        EXPECT_GE(slept, 990U);
        EXPECT_LT(slept, 1400U);
        Adjust();
        EXPECT_LE(window.Share(), 2.1);
        EXPECT_LT(Adjust(), 90U);
    });
}

TEST(InnerCpuCtrlUtils, OffAndOutOfRange) {
    struct Case {
        int percent;
        bool enabled;
        bool sleeps;
    };
    for (const Case& c : {Case{-1, false, false},
                          {0, false, false},
                          {1, true, true},
                          {100, true, false},
                          {1000, true, false}}) {
        InThread(c.percent, [&c] {
            EXPECT_EQ(IsEnabled(), c.enabled) << c.percent;
            Adjust();
            BurnCpu(20);
            EXPECT_EQ(Adjust(20) > 500, c.sleeps) << c.percent;
        });
    }
}

TEST(InnerCpuCtrlUtils, ASleepIsLoggedAtTraceLevel) {
    const TempDir dir;
    for (const char* level : {"debug", "trace"}) {
        SDK::LoggerUtils::GetInstance()->Open(dir / ".", level);
        InThread(5, [] {
            Adjust();
            BurnCpu(20);
            Adjust();
        });
        const bool found =
            dir.Read("watchpost.log").find("module_x at Some.cpp:7 slept ") != std::string::npos;
        EXPECT_EQ(found, level == std::string("trace"));
    }
    Poco::Logger::setChannel("", nullptr);
}

}  // namespace
