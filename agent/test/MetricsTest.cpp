#include <gtest/gtest.h>

#include <sstream>

#include "agent/MetricsTask.h"

namespace {

using Framework::Severity;

TEST(FormatMetrics, TellsTheStateInLinesThatAnyReaderTakes) {
    Framework::State state;
    state.policies = {{"m",
                       "a\xff\"\n.json",
                       "f",
                       std::string(400, 'i'),
                       "",
                       false,
                       Poco::Timestamp(1'500'000),
                       {{Severity::kError, "", "", ""},
                        {Severity::kError, "", "", ""},
                        {Severity::kWarning, "", "", ""}}}};
    state.refused = {{"x", {}, ""}, {"y", {}, ""}};
    state.deliveries = {3, 4};
    Framework::TaskStatus task;
    task.name = "t";
    task.waiting_messages = 5;
    task.waiting_bytes = 6;
    state.tasks.push_back(task);
    task.name = "cyclic";
    task.period = std::chrono::seconds(10);
    task.due = Poco::Timestamp(1'795'000'000'250'000);
    for (const double lasted : {0.0005, 0.5, 0.5, 1000.0}) {
        task.cycles.Add(std::chrono::duration<double>(lasted));
    }
    state.tasks.push_back(task);
    state.conditions = {{"m", {"bad", false, ""}}, {"m", {"well", true, ""}}};
    state.figures = {{"m", {{{"e", 7}}, {{"never", 0}, {"once", Poco::Timestamp(2'000'000)}}}}};
    ReportCounts reports;
    reports.by_type = {{"r", 8}};
    reports.bytes = 1ULL << 52;
    reports.failures = 9;

    const std::string text = "\n" + FormatMetrics(state, reports);
    std::istringstream expected(
        "watchpost_policy_info{feature=\"f\",file=\"a\xef\xbf\xbd\\\"\\n.json\",hash=\"\",id=\"" +
        std::string(300, 'i') + "\",module=\"m\"} 1" + R"(
watchpost_policy_enabled{feature="f",module="m"} 0
watchpost_policy_since_timestamp_seconds{feature="f",module="m"} 1.5
watchpost_policy_findings{feature="f",module="m",severity="error"} 2
watchpost_policy_findings{feature="f",module="m",severity="warning"} 1
watchpost_policy_files_refused 2
watchpost_policy_deliveries_total{result="accepted"} 3
watchpost_policy_deliveries_total{result="refused"} 4
watchpost_queue_messages{task="t"} 5
watchpost_queue_bytes{task="t"} 6
watchpost_task_period_seconds{task="cyclic"} 10
watchpost_task_due_timestamp_seconds{task="cyclic"} 1795000000.25
watchpost_condition_good{module="m",subject="bad"} 0
watchpost_condition_good{module="m",subject="well"} 1
watchpost_events_total{event="e",module="m"} 7
watchpost_last_success_timestamp_seconds{module="m",work="never"} 0
watchpost_last_success_timestamp_seconds{module="m",work="once"} 2
watchpost_reports_total{type="r"} 8
watchpost_report_bytes_total 4503599627370496
watchpost_report_write_failures_total 9)");
    for (std::string line; std::getline(expected, line);) {
        EXPECT_NE(std::string::npos, text.find("\n" + line + "\n")) << line << text;
    }
    // Cumulative, and of a task with cycles only.
    std::string buckets;
    const std::string start = "watchpost_task_cycle_duration_seconds";
    for (std::size_t at = text.find("\n" + start); at != std::string::npos;
         at = text.find("\n" + start, at + 1)) {
        buckets += text.substr(text.find(' ', at), text.find('\n', at + 1) - text.find(' ', at));
    }
    EXPECT_EQ(" 4 1001.0005 1 1 1 3 3 3 3 4", buckets);
}

}  // namespace
