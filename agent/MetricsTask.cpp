#include "agent/MetricsTask.h"

#include <Poco/Timestamp.h>
#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "framework/Engine.h"
#include "sdk/StringUtils.h"

namespace {

using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;
using prometheus::Registry;

constexpr int kPeriodSeconds = 15;
constexpr mode_t kMode = 0644;             // for a reader that is not root
constexpr std::size_t kQueueCapacity = 1;  // nobody sends it anything
constexpr std::size_t kMaxLabel = 300;

Family<Gauge>& Gauges(Registry& registry, const char* name, const char* help) {
    return prometheus::BuildGauge().Name(name).Help(help).Register(registry);
}

Family<Counter>& Counters(Registry& registry, const char* name, const char* help) {
    return prometheus::BuildCounter().Name(name).Help(help).Register(registry);
}

// One label that is not UTF-8 would cost the reader the whole file.
std::string Label(const std::string& text) {
    return SDK::StringUtils::ToUtf8(text.substr(0, kMaxLabel));
}

double Number(std::uint64_t count) {
    return static_cast<double>(count);
}

double Seconds(const Poco::Timestamp& time) {
    return static_cast<double>(time.epochMicroseconds()) /
           static_cast<double>(Poco::Timestamp::resolution());
}

double ProcessorSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double ResidentBytes() {
    std::ifstream file("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    file >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void AddProcess(Registry& registry) {
    Gauges(registry, "watchpost_build_info", "The agent's version; always 1.")
        .Add({{"version", WATCHPOST_VERSION}})
        .Set(1);
    Gauges(registry, "watchpost_process_start_time_seconds",
           "When the agent started, in seconds since 1970.")
        .Add({})
        .Set(Seconds(Framework::Engine::Instance().startTime()));
    Counters(registry, "watchpost_process_cpu_seconds_total",
             "Processor time of the agent's process, in user and system mode.")
        .Add({})
        .Increment(ProcessorSeconds());
    Gauges(registry, "watchpost_process_resident_memory_bytes",
           "Memory of the agent's process that is resident.")
        .Add({})
        .Set(ResidentBytes());
}

void AddPolicies(Registry& registry, const Framework::State& state) {
    auto& info = Gauges(registry, "watchpost_policy_info",
                        "A policy in force: its file, id and hash; always 1.");
    auto& enabled = Gauges(registry, "watchpost_policy_enabled",
                           "1 when the policy in force switches its feature on, 0 when off.");
    auto& since = Gauges(registry, "watchpost_policy_since_timestamp_seconds",
                         "Since when the policy is in force, in seconds since 1970.");
    auto& findings = Gauges(registry, "watchpost_policy_findings",
                            "What there is to say of the policy in force, by severity.");
    for (const auto& policy : state.policies) {
        const prometheus::Labels labels{{"module", Label(policy.module)},
                                        {"feature", Label(policy.name)}};
        prometheus::Labels identity = labels;
        identity.insert(
            {{"file", Label(policy.key)}, {"id", Label(policy.id)}, {"hash", Label(policy.hash)}});
        info.Add(identity).Set(1);
        enabled.Add(labels).Set(policy.enabled ? 1 : 0);
        since.Add(labels).Set(Seconds(policy.since));
        for (const auto severity : {Framework::Severity::kWarning, Framework::Severity::kError}) {
            prometheus::Labels with_severity = labels;
            with_severity.emplace("severity", Name(severity));
            findings.Add(with_severity)
                .Set(static_cast<double>(std::count_if(
                    policy.findings.begin(), policy.findings.end(),
                    [&](const auto& finding) { return finding.severity == severity; })));
        }
    }
    Gauges(registry, "watchpost_policy_files_refused",
           "Policy files that are not followed now: refused, or not to be read.")
        .Add({})
        .Set(Number(state.refused.size()));
    auto& deliveries = Counters(registry, "watchpost_policy_deliveries_total",
                                "Policy documents handed to the modules, by what became of them.");
    deliveries.Add({{"result", "accepted"}}).Increment(Number(state.deliveries.accepted));
    deliveries.Add({{"result", "refused"}}).Increment(Number(state.deliveries.refused));
}

void AddCycles(Family<Histogram>& family, const Framework::TaskStatus& task) {
    const auto& counts = task.cycles.counts;
    const auto& bounds = Framework::CycleCounts::kBounds;
    family.Add({{"task", Label(task.name)}}, std::vector<double>(bounds.begin(), bounds.end()))
        .ObserveMultiple(std::vector<double>(counts.begin(), counts.end()),
                         task.cycles.sum.count());
}

void AddTasks(Registry& registry, const std::vector<Framework::TaskStatus>& tasks) {
    auto& cycles =
        prometheus::BuildHistogram()
            .Name("watchpost_task_cycle_duration_seconds")
            .Help("How long the task's cycles took, from its start or its policy's arrival.")
            .Register(registry);
    auto& periods = Gauges(registry, "watchpost_task_period_seconds",
                           "How far apart the task's cycles are to begin.");
    auto& due = Gauges(registry, "watchpost_task_due_timestamp_seconds",
                       "When the task's next cycle is due, or the one running was, in seconds "
                       "since 1970.");
    auto& messages =
        Gauges(registry, "watchpost_queue_messages", "Messages that wait for the task.");
    auto& bytes =
        Gauges(registry, "watchpost_queue_bytes", "Size of the messages that wait for the task.");
    for (const auto& task : tasks) {
        const std::string name = Label(task.name);
        messages.Add({{"task", name}}).Set(Number(task.waiting_messages));
        bytes.Add({{"task", name}}).Set(Number(task.waiting_bytes));
        if (task.period.count() > 0) {
            AddCycles(cycles, task);
            periods.Add({{"task", name}}).Set(static_cast<double>(task.period.count()));
            due.Add({{"task", name}}).Set(Seconds(task.due));
        }
    }
}

void AddReports(Registry& registry, const ReportCounts& reports) {
    auto& written = Counters(registry, "watchpost_reports_total",
                             "Reports written, by type; types past a hundred as other.");
    for (const auto& [type, count] : reports.by_type) {
        written.Add({{"type", Label(type)}}).Increment(Number(count));
    }
    Counters(registry, "watchpost_report_bytes_total", "Bytes written to the report file.")
        .Add({})
        .Increment(Number(reports.bytes));
    Counters(registry, "watchpost_report_write_failures_total",
             "Tries to write a report that failed; each is tried again.")
        .Add({})
        .Increment(Number(reports.failures));
}

// Not "job", which is what Prometheus calls a group of its own targets.
void AddModules(Registry& registry, const Framework::State& state) {
    auto& good =
        Gauges(registry, "watchpost_condition_good",
               "1 when what the module watches on the host is as it should be, 0 when not.");
    for (const auto& [module, condition] : state.conditions) {
        good.Add({{"module", Label(module)}, {"subject", Label(condition.subject)}})
            .Set(condition.good ? 1 : 0);
    }
    auto& events = Counters(registry, "watchpost_events_total",
                            "What a module counts, since the agent's start.");
    auto& successes = Gauges(registry, "watchpost_last_success_timestamp_seconds",
                             "When what the policy asks for was last done in full, in seconds "
                             "since 1970; 0 when not yet.");
    for (const auto& [module, figures] : state.figures) {
        for (const auto& [event, count] : figures.events) {
            events.Add({{"module", Label(module)}, {"event", Label(event)}})
                .Increment(Number(count));
        }
        for (const auto& [work, time] : figures.successes) {
            successes.Add({{"module", Label(module)}, {"work", Label(work)}}).Set(Seconds(time));
        }
    }
}

}  // namespace

MetricsTask::MetricsTask(const std::string& path, Poco::AutoPtr<ReportTask> report)
    : Framework::Task(kName, "", Framework::TaskCondition::kPeriodic, kQueueCapacity),
      file_("metrics file", path, kMode),
      report_(std::move(report)) {
    Framework::TaskPolicy policy(kName);
    policy.SetCondition(Framework::TaskCondition::kPeriodSeconds, kPeriodSeconds);
    Attach(nullptr, policy);
}

int MetricsTask::Init() {
    Run();
    return 1;
}

int MetricsTask::Run() {
    file_.Write(FormatMetrics(Framework::Engine::Instance().GetState(), report_->Counts()));
    return 0;
}

void MetricsTask::UnInit() {
    file_.Remove();
}

std::string FormatMetrics(const Framework::State& state, const ReportCounts& reports) {
    Registry registry;  // of this moment: what is no more leaves no series
    AddProcess(registry);
    AddPolicies(registry, state);
    AddTasks(registry, state.tasks);
    AddReports(registry, reports);
    AddModules(registry, state);
    std::ostringstream text;
    prometheus::TextSerializer().Serialize(text, registry.Collect());
    return text.str();
}
