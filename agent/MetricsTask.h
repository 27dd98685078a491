#pragma once

#include <Poco/AutoPtr.h>

#include <string>

#include "agent/PublishedFile.h"
#include "agent/ReportTask.h"
#include "framework/Task.h"

// Keeps the metrics file current: how the agent fares, in the text format of Prometheus as
// docs/operations.md lists it, replaced every fifteen seconds and removed at the end.
class MetricsTask : public Framework::Task {
public:
    static constexpr const char* kName = "metrics";

    // `report`: the task whose counts are told.
    MetricsTask(const std::string& path, Poco::AutoPtr<ReportTask> report);

    int Init() override;
    int Run() override;
    void UnInit() override;

protected:
    ~MetricsTask() override = default;

private:
    PublishedFile file_;
    const Poco::AutoPtr<ReportTask> report_;
};

// What the file holds of that state, and of this process.
std::string FormatMetrics(const Framework::State& state, const ReportCounts& reports);
