#include "agent/ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <utility>

#include "framework/Log.h"
#include "sdk/StringUtils.h"

namespace {

bool HasWork(const Framework::TaskStatus& task) {
    return task.running || task.waiting_messages > 0 ||
           (task.due != 0 && task.due <= Poco::Timestamp());
}

}  // namespace

void ServiceManager::Ready() {
    sd_notify(0, "READY=1");
}

void ServiceManager::Stopping() {
    sd_notify(0, "STOPPING=1");
}

void ServiceManager::Tell(const std::string& status,
                          const std::vector<Framework::TaskStatus>& tasks, Clock::time_point now) {
    std::string still = FindStill(tasks, now);
    if (still != still_ && !still.empty()) {
        Framework::Log().error("task " + still +
                               " stands still, and so the service manager's watchdog is not fed");
    }
    still_ = std::move(still);
    // A line of its own in the message, whatever the text holds.
    const std::string line = "STATUS=" + SDK::StringUtils::ToPrintable(status);
    sd_notify(0, (still_.empty() ? line + "\nWATCHDOG=1" : line).c_str());
}

std::string ServiceManager::FindStill(const std::vector<Framework::TaskStatus>& tasks,
                                      Clock::time_point now) {
    std::string still;
    std::map<std::string, Seen> seen;
    for (const auto& task : tasks) {
        Seen current{task.began, task.processor, now};
        const auto before = seen_.find(task.name);
        if (before != seen_.end() && HasWork(task) && before->second.began == task.began &&
            before->second.processor == task.processor) {
            current.moved = before->second.moved;
        }
        if (now - current.moved > kMaxStill) {
            still = task.name;
        }
        seen.emplace(task.name, current);
    }
    seen_.swap(seen);
    return still;
}
