#include "module/module_rsyslog/src/ForwardingHealth.h"

namespace Engine {

namespace {

constexpr std::int64_t kLookPause = 1000;  // hundredths of a second

}  // namespace

ForwardingHealth& ForwardingHealth::Instance() {
    static ForwardingHealth health;
    return health;
}

void ForwardingHealth::Saw(DaemonKind kind, bool wanted) {
    const std::lock_guard<std::mutex> lock(mutex_);
    known_ = true;
    kind_ = kind;
    wanted_ = wanted;
}

void ForwardingHealth::Wrote(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    path_ = path;
    stamp_ = SDK::FileStamp::Of(path.c_str());
    written_ = SinceBoot();
    faults_.clear();
    looked_ = 0;
}

void ForwardingHealth::Judged(const std::string& faults) {
    const std::lock_guard<std::mutex> lock(mutex_);
    faults_ = faults;
    looked_ = 0;
}

void ForwardingHealth::Forget() {
    const std::lock_guard<std::mutex> lock(mutex_);
    known_ = false;
    path_.clear();
    faults_.clear();
}

void ForwardingHealth::Look() {
    const std::int64_t now = SinceBoot();
    const bool alive = started_ >= 0 && daemon_.Started() == started_;
    if (alive || (looked_ > 0 && now - looked_ < kLookPause)) {
        if (!alive) {
            started_ = -1;
        }
        return;
    }
    looked_ = now;
    daemon_ = FindDaemon();
    started_ = daemon_.kind == DaemonKind::kNone ? -1 : daemon_.Started();
}

bool ForwardingHealth::Holds(std::string& why_not) const {
    if (SDK::FileStamp::Of(path_.c_str()) != stamp_) {
        why_not = path_ + " has been changed or removed since the agent wrote it";
    } else if (started_ < written_) {
        why_not = "it has not been restarted since " + path_ + " was written";
    } else if (!faults_.empty()) {
        why_not = "it finds fault with its configuration: " + faults_;
    }
    return why_not.empty();
}

bool ForwardingHealth::Forwards() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Look();
    std::string why_not;
    return started_ >= 0 && !path_.empty() && Holds(why_not);
}

std::vector<Framework::Condition> ForwardingHealth::Conditions() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!known_) {
        return {};
    }
    Look();
    if (started_ < 0) {
        const bool named = kind_ != DaemonKind::kNone;
        return {{named ? Name(kind_) : "syslog daemon", false, "does not run"}};
    }
    const std::string subject = Name(daemon_.kind);
    const std::string runs = "runs as process " + std::to_string(daemon_.process);
    std::string why_not;
    if (path_.empty() && wanted_) {
        return {{subject, false, runs + ", but has not been told what the policy forwards"}};
    }
    if (path_.empty()) {
        return {{subject, true, runs}};
    }
    if (!Holds(why_not)) {
        return {{subject, false, runs + ", but " + why_not}};
    }
    return {{subject, true, runs + " and holds the configuration that the agent has written"}};
}

}  // namespace Engine
