#pragma once

#include <map>
#include <memory>
#include <string>

#include "framework/AbstractMessageReceiver.h"
#include "framework/Task.h"

struct pids_info;

namespace Engine {

// One process of the host.
struct ProcsMessage::procInfo {
    int pid = 0;
    std::string name;  // the kernel's command name, cut at 15 bytes for a user process
};

// The host's process table for other tasks, under the name "procs_full_task". It follows no policy
// and has no period: the table is read when somebody asks, so it is never old and an idle agent
// never walks /proc. It is read on this task's thread alone: libproc2 keeps buffers for each thread
// that ever used it, and other tasks' threads come and go with their policies.
class ProcsFullTask : public Framework::Task {
public:
    ProcsFullTask();

    // Fails (0, with an error line) when /proc cannot be read.
    int Init() override;
    void UnInit() override;

    // Fills `processes`, keyed by process id, with the table as it is now; leaves it empty, with
    // an error line, when it cannot be read. Waits for the answer; any thread but this task's.
    // Virtual, so that other modules can call it without being linked to this one.
    virtual void GetProcsMap(std::map<int, std::shared_ptr<ProcsMessage::procInfo>>& processes);

    void HandleMsg(const Framework::Message* message) override;

protected:
    ~ProcsFullTask() override = default;

private:
    pids_info* reader_ = nullptr;
};

}  // namespace Engine
