#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Timestamp.h>
#include <json/value.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "agent/PublishedFile.h"
#include "agent/ReportTask.h"
#include "agent/ServiceManager.h"
#include "framework/State.h"
#include "framework/Task.h"

// Keeps the status file current: how the agent fares, one line of JSON as docs/operations.md tells,
// replaced every five seconds and removed at the end. The service manager hears of it, too.
class StatusTask : public Framework::Task {
public:
    static constexpr const char* kName = "status";

    // `report`: the task whose counts are told.
    StatusTask(const std::string& path, Poco::AutoPtr<ReportTask> report);

    int Init() override;
    int Run() override;
    void UnInit() override;

protected:
    ~StatusTask() override = default;

private:
    Json::Value Describe(const Framework::State& state) const;

    PublishedFile file_;
    ServiceManager service_manager_;
    const Poco::AutoPtr<ReportTask> report_;
    const Poco::Timestamp since_;
    const std::uint64_t process_start_;
};

// When the process started, in clock ticks since the boot: with its id this names it for good. 0
// when it has ended.
std::uint64_t ProcessStart(pid_t process);
