#include "module/module_procs/src/ProcsFullTask.h"

#include <libproc2/pids.h>

#include <cstring>

#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kQueueCapacity = 16;
pids_item items[] = {PIDS_ID_PID, PIDS_CMD};
enum { kPid, kName, kItemCount };

void LogError(const std::string& text) {
    if (Poco::Logger* logger =
            SDK::LoggerUtils::GetInstance()->GetModuleLogger("module_procs", false)) {
        logger->error(text);
    }
}

}  // namespace

ProcsFullTask::ProcsFullTask()
    : Framework::Task("procs_full_task", "", Framework::TaskCondition::kPeriodic, kQueueCapacity) {}

ProcsFullTask::~ProcsFullTask() {
    if (reader_ != nullptr) {
        procps_pids_unref(&reader_);
    }
}

int ProcsFullTask::Init() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const int status = procps_pids_new(&reader_, items, kItemCount); status < 0) {
        LogError(std::string("the process table cannot be opened: ") + std::strerror(-status));
        return 0;
    }
    return Framework::Task::Init();
}

void ProcsFullTask::UnInit() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        procps_pids_unref(&reader_);
        reader_ = nullptr;
    }
    Framework::Task::UnInit();
}

void ProcsFullTask::GetProcsMap(std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& processes) {
    processes.clear();
    const std::lock_guard<std::mutex> lock(mutex_);
    pids_fetch* table =
        reader_ == nullptr ? nullptr : procps_pids_reap(reader_, PIDS_FETCH_TASKS_ONLY);
    if (table == nullptr) {
        LogError("the process table cannot be read");
        return;
    }
    for (int i = 0; i < table->counts->total; ++i) {
        const pids_stack* stack = table->stacks[i];
        auto process = std::make_shared<ProcsMessage::procInfo>();
        process->pid = PIDS_VAL(kPid, s_int, stack, reader_);
        process->name = PIDS_VAL(kName, str, stack, reader_);
        const int pid = process->pid;
        processes.emplace(pid, std::move(process));
    }
}

}  // namespace Engine
