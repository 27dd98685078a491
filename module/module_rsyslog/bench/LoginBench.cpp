// What reading and pairing login records costs beside a bare reading of the same file. See
// README.md.

#include <benchmark/benchmark.h>
#include <utmp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "module/module_rsyslog/test/ModuleSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

const char* const kFile = "/var/log/wtmp";

// Logins and logouts on `terminals` in use at the same time, a boot now and then. With 0 terminals
// each login has one of its own, and there are no boots. With `disorder` a hundred records at a
// time are in the reverse order of their times. `first`: the number of the first record, which
// tells it from others.
void WriteRecords(std::int64_t count, std::int64_t terminals, bool disorder = false,
                  std::int64_t first = 0, const char* mode = "w") {
    std::FILE* const file = std::fopen(kFile, mode);
    for (std::int64_t i = first; i < first + count; ++i) {
        const bool login = terminals == 0 ? i % 2 == 0 : i / terminals % 2 == 0;
        const std::int64_t terminal = terminals == 0 ? i / 2 : i % terminals;
        utmp entry = {};
        entry.ut_type = static_cast<short>(login ? USER_PROCESS : DEAD_PROCESS);
        entry.ut_pid = static_cast<pid_t>(1000 + i);
        const std::int64_t seconds = disorder ? i / 100 * 100 + 99 - i % 100 : i / 2;
        entry.ut_tv.tv_sec = static_cast<std::int32_t>(1500000000 + seconds);
        std::snprintf(entry.ut_line, sizeof(entry.ut_line), "pts/%d", static_cast<int>(terminal));
        if (login) {
            std::snprintf(entry.ut_user, sizeof(entry.ut_user), "user%d", static_cast<int>(i % 99));
            std::snprintf(entry.ut_host, sizeof(entry.ut_host), "2001:db8::%x:%x",
                          static_cast<unsigned>(i % 65536), static_cast<unsigned>(i % 251));
        }
        if (terminals != 0 && i % 5000 == 4999) {
            entry.ut_type = BOOT_TIME;
        }
        std::fwrite(&entry, sizeof(entry), 1, file);
    }
    std::fclose(file);
}

// A login stamped ten years ahead of all others.
void WriteFutureRecord() {
    utmp entry = {};
    entry.ut_type = USER_PROCESS;
    entry.ut_tv.tv_sec = 1815000000;
    std::FILE* const file = std::fopen(kFile, "a");
    std::fwrite(&entry, sizeof(entry), 1, file);
    std::fclose(file);
}

double BareLoop() {
    const auto start = Clock::now();
    utmpname(kFile);
    setutent();
    utmp buffer = {};
    utmp* entry = nullptr;
    while (getutent_r(&buffer, &entry) == 0) {
        benchmark::DoNotOptimize(entry);
    }
    endutent();
    return Seconds(Clock::now() - start).count();
}

// One pass; seconds, and the number of records that were new.
double Pass(TestSupport::OpenTask& task, std::size_t& fresh_count) {
    const auto start = Clock::now();
    std::vector<Engine::utmp_info> fresh;
    task.ReadLastAllinfo(fresh);
    task.ParseEveryUtmp(fresh);
    fresh_count = fresh.size();
    return Seconds(Clock::now() - start).count();
}

// Arguments: records, terminals, kind of pass. The bare loop runs before and after each pass, so
// that both see the machine alike.
enum Kind {
    kFirst,
    kFirstDisordered,
    kUnchanged,  // the file is as it was read
    kTouched,    // it has changed times, and nothing new
    kRotated,    // 20 new records in a file begun anew; `records` are known
    kFuture,     // 8 new records behind one stamped in the future
};
void PassBesideBareLoop(benchmark::State& state) {
    const std::int64_t count = state.range(0);
    const std::int64_t terminals = state.range(1);
    const std::int64_t kind = state.range(2);
    const bool first = kind == kFirst || kind == kFirstDisordered;
    double bare = 0;
    double passes = 0;
    std::size_t fresh = 0;
    std::size_t expected = first ? static_cast<std::size_t>(count) : 0;
    std::int64_t written = count;
    WriteRecords(count, terminals, kind == kFirstDisordered);
    TestSupport::OpenTaskPtr known = TestSupport::NewTask();
    if (kind == kFuture) {
        WriteFutureRecord();
    }
    if (!first) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // no longer just changed
        Pass(*known, fresh);
    }
    for ([[maybe_unused]] const auto iteration : state) {
        TestSupport::OpenTaskPtr task = first ? TestSupport::NewTask() : known;
        if (kind == kTouched) {
            std::filesystem::last_write_time(kFile, std::filesystem::file_time_type::clock::now());
        } else if (kind == kRotated || kind == kFuture) {
            expected = kind == kRotated ? 20 : 8;
            WriteRecords(static_cast<std::int64_t>(expected), terminals, false, written,
                         kind == kRotated ? "w" : "a");
            written += static_cast<std::int64_t>(expected);
        }
        const double before = BareLoop();
        const double pass = Pass(*task, fresh);
        bare += (before + BareLoop()) / 2;
        passes += pass;
        state.SetIterationTime(pass);
        if (fresh != expected) {
            state.SkipWithError("records lost or doubled");
        }
    }
    state.counters["times_bare_loop"] = passes / bare;
    std::remove(kFile);
}
BENCHMARK(PassBesideBareLoop)
    ->ArgNames({"records", "terminals", "kind"})
    ->ArgsProduct({{10000, 100000, 1000000},
                   {50},
                   {kFirst, kFirstDisordered, kUnchanged, kTouched}})
    ->ArgsProduct({{20000, 40000, 80000, 1000000}, {0}, {kFirst}})
    ->ArgsProduct({{400000}, {50}, {kRotated, kFuture}})
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// The system's tool over a file whose logins are each on a terminal of their own.
void Last(benchmark::State& state) {
    WriteRecords(state.range(0), 0);
    for ([[maybe_unused]] const auto iteration : state) {
        const auto start = Clock::now();
        if (std::system("last -F -f /var/log/wtmp >/dev/null") != 0) {
            state.SkipWithError("last failed");
        }
        state.SetIterationTime(Seconds(Clock::now() - start).count());
    }
    std::remove(kFile);
}
BENCHMARK(Last)
    ->ArgName("records")
    ->Arg(20000)
    ->Arg(40000)
    ->Arg(80000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
