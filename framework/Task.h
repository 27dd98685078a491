#pragma once

#include <Poco/Event.h>
#include <Poco/Task.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "framework/Message.h"
#include "framework/MessageQueue.h"
#include "framework/Policy.h"
#include "framework/State.h"

namespace Framework {

// A worker with a thread and a message queue of its own. The engine starts it, calls Init, Run,
// HandleMsg and UnInit on its thread, never two at a time, and stops it. An exception that leaves
// one of them is logged and the task lives on.
class Task : public Poco::Task {
public:
    // `feature`: the feature whose policy the task follows, empty for a task without one.
    // `queue_capacity`: messages that may wait before senders have to.
    Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
         std::size_t queue_capacity);

    // The life of the task: Init, then Run once per period with messages handled in between, and
    // after a stop the messages still queued, then UnInit.
    void runTask() override;

    // 0: the task must not run; it then gets no other call.
    virtual int Init();
    virtual void UnInit();
    // One cycle; the result is not used. Never called for a task without a period.
    virtual int Run();

    // Puts a message into this task's queue; any thread. Waits a short while for room.
    virtual EnqueueResult EnqueueMsg(std::shared_ptr<Message>& message);
    // First look at a message, on the sender's thread; true takes it, and it is not queued.
    virtual bool InterceptMsg(std::shared_ptr<Message>& message);
    virtual void HandleMsg(const Message* message);

    const std::string& FeatureName() const { return feature_; }
    TaskCondition::TaskType Type() const { return type_; }

    // Before the task starts: the policy it follows (not owned, outlives the task) and its period.
    // A task without a period only handles messages.
    void Attach(FeaturePolicy* feature_policy, const TaskPolicy& task_policy);
    // The attached policy or null.
    FeaturePolicy* AttachedPolicy() const { return feature_policy_; }

    // Blocks until Init has returned on the task's thread; false when the task does not run.
    bool WaitForInit();
    // Its cycles and its queue now. Any thread.
    TaskStatus GetStatus() const;
    // Asks the task to end after what it is doing; returns at once. Any thread.
    void RequestStop();

protected:
    // Hands a message to the task named `receiver`, in order for each sender. Waits while its
    // queue is full; a sender that is being stopped waits no longer, its message goes above the
    // bound, so that nothing is lost. An unknown receiver is an error line, once per name, and the
    // message is dropped. Called on this task's thread.
    void SendDirectMsg(const std::string& receiver, std::shared_ptr<Message> message);

    ~Task() override = default;

private:
    using Clock = MessageQueue::Clock;
    struct Cycle {
        bool running = false;
        Poco::Timestamp began{0};
        Clock::time_point start;
        Clock::time_point end;
        Clock::time_point due = Clock::time_point::max();  // the next one
    };

    // Runs one cycle and tells when the next is due.
    Clock::time_point RunCycle(Clock::time_point due);
    // Calls `step`; logs what it throws and then returns `otherwise`.
    template <typename Step>
    int Guarded(const char* what, int otherwise, Step step);
    // Handles one message, waiting for it until `deadline`; false when none came.
    bool HandleNext(MessageQueue::Clock::time_point deadline);

    const std::string feature_;
    const TaskCondition::TaskType type_;
    MessageQueue queue_;
    FeaturePolicy* feature_policy_ = nullptr;
    std::chrono::seconds period_{0};
    Poco::Event init_done_{false};
    std::atomic<bool> initialised_{false};
    mutable std::mutex state_mutex_;  // guards what follows
    Cycle cycle_;
    CycleCounts cycles_;
    clockid_t processor_clock_ = 0;  // of its thread; 0 when there is none
};

}  // namespace Framework
