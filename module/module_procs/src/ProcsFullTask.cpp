#include "module/module_procs/src/ProcsFullTask.h"

#include <Poco/Exception.h>
#include <libproc2/pids.h>

#include <cstring>
#include <exception>
#include <future>
#include <utility>

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

using ProcsMap = std::map<int, std::shared_ptr<ProcsMessage::procInfo>>;

// A caller's question, answered on the task's thread.
class ProcsRequest : public Framework::Message {
public:
    std::future<ProcsMap> Answer() { return answer_.get_future(); }
    void Give(ProcsMap processes) const { answer_.set_value(std::move(processes)); }

private:
    mutable std::promise<ProcsMap> answer_;  // a receiver sees its messages as constant
};

ProcsMap ReadTable(pids_info* reader) {
    ProcsMap processes;
    const pids_fetch* table = procps_pids_reap(reader, PIDS_FETCH_TASKS_ONLY);
    if (table == nullptr) {
        throw Poco::SystemException("libproc2");
    }
    for (int i = 0; i < table->counts->total; ++i) {
        const pids_stack* stack = table->stacks[i];
        auto process = std::make_shared<ProcsMessage::procInfo>();
        process->pid = PIDS_VAL(kPid, s_int, stack, reader);
        process->name = PIDS_VAL(kName, str, stack, reader);
        const int pid = process->pid;
        processes.emplace(pid, std::move(process));
    }
    return processes;
}

}  // namespace

ProcsFullTask::ProcsFullTask()
    : Framework::Task("procs_full_task", "", Framework::TaskCondition::kPeriodic, kQueueCapacity) {}

int ProcsFullTask::Init() {
    if (const int status = procps_pids_new(&reader_, items, kItemCount); status < 0) {
        LogError(std::string("the process table cannot be opened: ") + std::strerror(-status));
        return 0;
    }
    return Framework::Task::Init();
}

void ProcsFullTask::UnInit() {
    procps_pids_unref(&reader_);
    Framework::Task::UnInit();
}

void ProcsFullTask::GetProcsMap(std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& processes) {
    processes.clear();
    auto request = std::make_shared<ProcsRequest>();
    std::future<ProcsMap> answer = request->Answer();
    std::shared_ptr<Framework::Message> message = std::move(request);
    while (EnqueueMsg(message) == Framework::EnqueueResult::kFull) {
    }
    // The queue's reference is the last one: a request that is dropped unanswered ends the wait.
    message.reset();
    try {
        processes = answer.get();
    } catch (const std::exception& e) {
        LogError(std::string("the process table cannot be read: ") + e.what());
    }
}

void ProcsFullTask::HandleMsg(const Framework::Message* message) {
    if (const auto* request = dynamic_cast<const ProcsRequest*>(message)) {
        request->Give(ReadTable(reader_));
    }
}

}  // namespace Engine
