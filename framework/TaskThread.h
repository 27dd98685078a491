#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Event.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <atomic>
#include <mutex>

#include "framework/Task.h"

namespace Framework {

// The thread of one task. It is there before the task begins, so that a thread that cannot be had
// shows while what it is to replace still runs.
class TaskThread : private Poco::Runnable {
public:
    // Throws Poco::SystemException when no thread can be had.
    explicit TaskThread(Poco::AutoPtr<Task> task);
    // Waits for the end of the task; one that was never begun ends without having run.
    ~TaskThread() override;

    // Lets the task begin.
    void Begin();
    // Waits until the task has ended. Any number of threads, but not the task's own.
    void Join();
    Poco::AutoPtr<Task> GetTask() const { return task_; }

private:
    void run() override;

    Poco::AutoPtr<Task> task_;
    std::atomic<bool> begun_{false};
    Poco::Event decided_;
    std::mutex join_mutex_;  // guards the rest
    bool joined_ = false;
    Poco::Thread thread_;
};

}  // namespace Framework
