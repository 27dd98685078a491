// What the shell history costs. Each benchmark measures beside itself, in the same run, what its
// cost is to be judged by; the counter "ratio" is the one over the other, in elapsed time.

#include <Poco/AutoPtr.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include "agent/ReportTask.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "test/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMebi = 1 << 20;
const char* const kReportFile = "/var/log/reports.jsonl";
const char* const kRecordLog = "/var/log/history.log";

class BenchTask : public Engine::RsyslogTask {
public:
    BenchTask() {
        rsyslog_policy.up_history = true;
        rsyslog_policy.history_size = 100;
        rsyslog_policy.his_count = 10000000;
        rsyslog_policy.his_interval = 10000;
        rsyslog_policy.history_log_path = kRecordLog;
    }
    void Cycle() {
        BuildHistoryLog();
        CheckHistoryReport();
    }
    using RsyslogTask::CheckHistoryReport;
    using RsyslogTask::history_list;
    using RsyslogTask::rsyslog_policy;
};

using BenchTaskPtr = Poco::AutoPtr<BenchTask>;

double Seconds(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Shell(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        std::abort();
    }
}

// Users user0, user1, ... with this history each.
void MakeUsers(int count, const std::function<std::string(int)>& history) {
    fs::remove_all("/home");
    std::string accounts;
    for (int i = 0; i < count; ++i) {
        const std::string name = "user" + std::to_string(i);
        const std::string home = "/home/" + name;
        fs::create_directories(home);
        TestSupport::WriteText(home + "/.bash_history", history(i));
        accounts.append(name).append(":x:1000:1000::").append(home).append(":/bin/bash\n");
    }
    TestSupport::WriteText("/etc/passwd", accounts);
}

std::string StampedCommands(std::size_t bytes) {
    std::string text;
    for (int i = 0; text.size() + 32 < bytes; ++i) {
        text += "#" + std::to_string(1700000000 + i) + "\nx\n";
    }
    return text;
}

// A cycle in which no file has changed, against the hashing of the same files by openssl.
void SteadyCycle(benchmark::State& state) {
    MakeUsers(1000, [](int i) {
        std::string text;
        for (int line = 0; text.size() < kMebi; ++line) {
            text.append("command " + std::to_string(i)).append("-" + std::to_string(line) + "\n");
        }
        text.resize(kMebi);
        return text;
    });
    BenchTaskPtr task(new BenchTask);
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // no longer just changed
    task->Cycle();
    double cycles = 0;
    double openssl = 0;
    while (state.KeepRunning()) {
        const double cycle = Seconds([&task] { task->Cycle(); });
        state.SetIterationTime(cycle);
        cycles += cycle;
        openssl += Seconds([] { Shell("openssl dgst -sha256 /home/*/.bash_history >/dev/null"); });
    }
    state.counters["ratio"] = cycles / openssl;
    fs::remove_all("/home");
}
BENCHMARK(SteadyCycle)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// One write for each line of the file.
void WriteEachLine(const std::string& from, const std::string& to) {
    Shell("cat " + from + " >/dev/null");
    const std::string text = TestSupport::ReadText(from);
    const int file = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at) + 1;
        if (write(file, text.data() + at, end - at) < 0) {
            std::abort();
        }
        at = end;
    }
    close(file);
}

// 10 MiB of commands with time stamps, from the history file into the report file.
void TenMebibytesToTheReportFile(benchmark::State& state) {
    double took = 0;
    double plain = 0;
    double reports = 0;
    while (state.KeepRunning()) {
        fs::remove(kReportFile);
        fs::remove(kRecordLog);
        MakeUsers(1, [](int) { return std::string("old\n"); });
        TestSupport::TestEngine().StartTask(new ReportTask(kReportFile));
        BenchTaskPtr task(new BenchTask);
        task->Cycle();
        const std::string history = "/home/user0/.bash_history";
        TestSupport::WriteText(history, "old\n" + StampedCommands(10 * kMebi));
        const double cycle = Seconds([&task] {
            task->Cycle();
            TestSupport::TestEngine().StopTask(ReportTask::kName);  // writes what is queued
        });
        state.SetIterationTime(cycle);
        took += cycle;
        plain += Seconds([&history] { WriteEachLine(history, "/var/log/plain"); });
        const std::string written = TestSupport::ReadText(kReportFile);
        reports = static_cast<double>(std::count(written.begin(), written.end(), '\n'));
    }
    state.counters["reports"] = reports;
    state.counters["ratio"] = took / plain;
}
BENCHMARK(TenMebibytesToTheReportFile)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// The pacing of so many queued commands, one a second and shuffled.
void Pacing(benchmark::State& state) {
    BenchTaskPtr task(new BenchTask);
    task->rsyslog_policy.up_history = false;
    task->rsyslog_policy.his_count = 0;
    task->rsyslog_policy.his_interval = 1;
    while (state.KeepRunning()) {
        state.PauseTiming();
        fs::remove(kRecordLog);
        const auto count = static_cast<std::uint64_t>(state.range(0));
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t time = 1700000000 + i * 7919 % count;
            task->history_list.push_back({"now ", "#" + std::to_string(time), "x", "user0", true});
        }
        state.ResumeTiming();
        task->CheckHistoryReport();
    }
}
BENCHMARK(Pacing)->Arg(10000)->Arg(100000)->Arg(700000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    TestSupport::TestEngine();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
