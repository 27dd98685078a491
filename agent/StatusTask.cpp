#include "agent/StatusTask.h"

#include <Poco/DateTimeFormatter.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>

#include "agent/StatusJudgement.h"
#include "framework/Engine.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"

namespace {

constexpr int kPeriodSeconds = 5;
constexpr mode_t kMode = 0640;
constexpr std::size_t kQueueCapacity = 1;  // nobody sends it anything
// What the file may hold, so that it stays small whatever documents and hosts are like.
constexpr std::size_t kMaxText = 300;
constexpr std::size_t kMaxEntries = 50;

std::string Text(const std::string& text) {
    return text.size() <= kMaxText ? text : text.substr(0, kMaxText) + "...";
}

Json::Value Time(const Poco::Timestamp& time) {
    return time == 0 ? Json::Value()
                     : Json::Value(Poco::DateTimeFormatter::format(time, "%Y-%m-%dT%H:%M:%S.%iZ"));
}

// The list of what `describe` makes of the entries.
template <typename Entries, typename Describe>
Json::Value List(const Entries& entries, Describe describe) {
    Json::Value list(Json::arrayValue);
    for (const auto& entry : entries) {
        if (list.size() < kMaxEntries) {
            list.append(describe(entry));
        }
    }
    return list;
}

Json::Value DescribeFinding(const Framework::Finding& finding) {
    Json::Value value;
    value["severity"] = Name(finding.severity);
    value["key"] = Text(finding.key);
    value["problem"] = Text(finding.problem);
    value["advice"] = Text(finding.advice);
    return value;
}

Json::Value DescribePolicy(const Framework::PolicyState& policy) {
    Json::Value value;
    value["module"] = policy.module;
    value["key"] = policy.key;
    value["name"] = policy.name;
    value["id"] = Text(policy.id);
    value["hash"] = Text(policy.hash);
    value["enabled"] = policy.enabled;
    value["since"] = Time(policy.since);
    value["findings"] = List(policy.findings, DescribeFinding);
    return value;
}

Json::Value DescribeRefused(const Framework::RefusedPolicy& refused) {
    Json::Value value;
    value["key"] = refused.key;
    value["time"] = Time(refused.when);
    value["why"] = Text(refused.why);
    return value;
}

Json::Value DescribeTask(const Framework::TaskStatus& task) {
    Json::Value value;
    value["name"] = task.name;
    value["period_s"] = Json::Int64(task.period.count());
    value["running"] = task.running;
    value["began"] = Time(task.began);
    value["lasted_ms"] = Json::Int64(task.lasted.count());
    value["due"] = Time(task.due);
    value["waiting_messages"] = Json::UInt64(task.waiting_messages);
    value["waiting_bytes"] = Json::UInt64(task.waiting_bytes);
    return value;
}

Json::Value DescribeCondition(const Framework::ModuleCondition& condition) {
    Json::Value value;
    value["module"] = condition.module;
    value["subject"] = Text(condition.condition.subject);
    value["good"] = condition.condition.good;
    value["text"] = Text(condition.condition.text);
    return value;
}

Json::Value DescribeReports(const ReportCounts& counts, const Framework::TaskStatus& task) {
    Json::Value value;
    value["by_type"] = Json::Value(Json::objectValue);
    for (const auto& [type, count] : counts.by_type) {
        value["by_type"][Text(type)] = Json::UInt64(count);
    }
    value["lines"] = Json::UInt64(counts.lines);
    value["bytes"] = Json::UInt64(counts.bytes);
    value["failures"] = Json::UInt64(counts.failures);
    value["failing"] = counts.failing;
    value["waiting_messages"] = Json::UInt64(task.waiting_messages);
    value["waiting_bytes"] = Json::UInt64(task.waiting_bytes);
    return value;
}

}  // namespace

std::uint64_t ProcessStart(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    std::getline(file, line);
    // Behind the program's name, which may hold anything: state, then 18 fields, then the start.
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string field;
    fields >> field;
    if (field == "Z" || field == "X") {
        return 0;
    }
    for (int skipped = 0; skipped < 18; ++skipped) {
        fields >> field;
    }
    std::uint64_t start = 0;
    fields >> start;
    return start;
}

StatusTask::StatusTask(const std::string& path, Poco::AutoPtr<ReportTask> report)
    : Framework::Task(kName, "", Framework::TaskCondition::kPeriodic, kQueueCapacity),
      file_("status file", path, kMode),
      report_(std::move(report)),
      process_start_(ProcessStart(getpid())) {
    Framework::TaskPolicy policy(kName);
    policy.SetCondition(Framework::TaskCondition::kPeriodSeconds, kPeriodSeconds);
    Attach(nullptr, policy);
}

int StatusTask::Init() {
    Run();
    return 1;
}

int StatusTask::Run() {
    const Framework::State state = Framework::Engine::Instance().GetState();
    const Json::Value status = Describe(state);
    file_.Write(SDK::JsonUtils::JsonToString(status) + "\n");
    const StatusJudgement judgement = JudgeStatus(status, Poco::Timestamp(), true);
    std::string text = judgement.Name();
    for (const std::string& reason : judgement.reasons) {
        text += (&reason == &judgement.reasons.front() ? ": " : "; ") + reason;
    }
    service_manager_.Tell(text, state.tasks);
    return 0;
}

void StatusTask::UnInit() {
    file_.Remove();
}

Json::Value StatusTask::Describe(const Framework::State& state) const {
    std::vector<Framework::TaskStatus> tasks = state.tasks;
    // This task and that of the reports, which are told of by themselves.
    tasks.erase(std::remove_if(tasks.begin(), tasks.end(),
                               [](const auto& task) {
                                   return task.name == kName || task.name == ReportTask::kName;
                               }),
                tasks.end());
    Json::Value value;
    value["written"] = Time(Poco::Timestamp());
    value["pid"] = getpid();
    value["process_start"] = Json::UInt64(process_start_);
    value["version"] = WATCHPOST_VERSION;
    value["since"] = Time(since_);
    value["policies"] = List(state.policies, DescribePolicy);
    value["refused"] = List(state.refused, DescribeRefused);
    value["tasks"] = List(tasks, DescribeTask);
    value["reports"] = DescribeReports(report_->Counts(), report_->GetStatus());
    Poco::Timestamp time;
    std::string text;
    if (SDK::LoggerUtils::GetInstance()->GetLastError(time, text)) {
        value["last_error"]["time"] = Time(time);
        value["last_error"]["text"] = Text(text);
    }
    value["conditions"] = List(state.conditions, DescribeCondition);
    return value;
}
