#include "framework/Task.h"

#include <pthread.h>

#include <csignal>
#include <ctime>
#include <tuple>

#include "framework/Engine.h"
#include "framework/Log.h"

namespace Framework {

namespace {

// How long a sender waits for room before it looks whether it is being stopped.
constexpr std::chrono::milliseconds kPatience{50};

}  // namespace

Task::Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
           std::size_t queue_capacity)
    : Poco::Task(name), feature_(feature), type_(type), queue_(queue_capacity) {}

template <typename Step>
int Task::Guarded(const char* what, int otherwise, Step step) {
    try {
        return step();
    } catch (...) {
        LogException({"task ", name(), ": ", what, " failed"});
    }
    return otherwise;
}

void Task::runTask() {
    // Poco blocks SIGPIPE in its threads; commands that the task starts would inherit that.
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipe_signal, nullptr);

    {
        const std::lock_guard<std::mutex> lock(state_mutex_);
        pthread_getcpuclockid(pthread_self(), &processor_clock_);
        if (period_.count() >
            0) {  // an Init that does not come to its end shows as a cycle overdue
            cycle_.due = Clock::now();
        }
    }
    initialised_ = Guarded("Init", 0, [this] { return Init(); }) != 0;
    const bool run = initialised_;
    init_done_.set();
    if (!run) {
        queue_.Close();
        while (queue_.Pop(Clock::now()) != nullptr) {  // whoever waits for an answer learns of it
        }
        return;
    }

    Clock::time_point next = period_.count() > 0 ? Clock::now() : Clock::time_point::max();
    while (!isCancelled()) {
        if (Clock::now() < next) {
            HandleNext(next);
        } else {
            next = RunCycle(next);
        }
    }

    queue_.Close();
    while (HandleNext(Clock::now())) {
    }
    Guarded("UnInit", 0, [this] {
        UnInit();
        return 0;
    });
}

Task::Clock::time_point Task::RunCycle(Clock::time_point due) {
    {
        const std::lock_guard<std::mutex> lock(state_mutex_);
        cycle_ = {true, Poco::Timestamp(), Clock::now(), {}, due};
    }
    Guarded("Run", 0, [this] { return Run(); });
    // A cycle longer than the period skips the runs it missed.
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(state_mutex_);
    cycle_.running = false;
    cycle_.end = now;
    cycles_.Add(now - cycle_.start);
    cycle_.due = due + period_ * ((now - due) / period_ + 1);
    return cycle_.due;
}

TaskStatus Task::GetStatus() const {
    using std::chrono::duration_cast;
    TaskStatus state;
    state.name = name();
    state.period = period_;
    std::tie(state.waiting_messages, state.waiting_bytes) = queue_.Waiting();
    const std::lock_guard<std::mutex> lock(state_mutex_);
    const Clock::time_point now = Clock::now();
    state.cycles = cycles_;
    timespec used{};
    if (processor_clock_ != 0 && clock_gettime(processor_clock_, &used) == 0) {
        state.processor =
            std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    }
    state.running = cycle_.running;
    state.began = cycle_.began;
    state.lasted = duration_cast<std::chrono::milliseconds>((cycle_.running ? now : cycle_.end) -
                                                            cycle_.start);
    if (cycle_.due != Clock::time_point::max()) {
        state.due = Poco::Timestamp();
        state.due += duration_cast<std::chrono::microseconds>(cycle_.due - now).count();
    }
    return state;
}

bool Task::HandleNext(MessageQueue::Clock::time_point deadline) {
    const std::shared_ptr<Message> message = queue_.Pop(deadline);
    if (message != nullptr) {
        Guarded("HandleMsg", 0, [this, &message] {
            HandleMsg(message.get());
            return 0;
        });
    }
    return message != nullptr;
}

int Task::Init() {
    return 1;
}

void Task::UnInit() {}

int Task::Run() {
    return 0;
}

EnqueueResult Task::EnqueueMsg(std::shared_ptr<Message>& message) {
    return queue_.Push(message, kPatience);
}

bool Task::InterceptMsg(std::shared_ptr<Message>& /*message*/) {
    return false;
}

void Task::HandleMsg(const Message* /*message*/) {}

void Task::Attach(FeaturePolicy* feature_policy, const TaskPolicy& task_policy) {
    feature_policy_ = feature_policy;
    period_ = std::chrono::seconds(task_policy.Condition().value);
}

bool Task::WaitForInit() {
    init_done_.wait();
    return initialised_;
}

void Task::RequestStop() {
    cancel();
    queue_.Wake();
}

void Task::SendDirectMsg(const std::string& receiver, std::shared_ptr<Message> message) {
    Engine& engine = Engine::Instance();
    Poco::AutoPtr<Task> task = engine.FindTask(receiver);
    if (!task) {
        engine.ReportUnknownReceiver(receiver);
        return;
    }
    message->sender_ = name();
    if (task->InterceptMsg(message)) {
        return;
    }
    EnqueueResult result = task->EnqueueMsg(message);
    while (result == EnqueueResult::kFull && !isCancelled()) {
        result = task->EnqueueMsg(message);
    }
    if (result == EnqueueResult::kFull) {
        result = task->queue_.PushOverBounds(message);
    }
    if (result == EnqueueResult::kClosed) {
        engine.ReportUnknownReceiver(receiver);
    }
}

}  // namespace Framework
