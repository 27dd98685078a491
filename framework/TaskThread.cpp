#include "framework/TaskThread.h"

#include <exception>
#include <utility>

namespace Framework {

TaskThread::TaskThread(Poco::AutoPtr<Task> task) : task_(std::move(task)) {
    thread_.setName(task_->name());
    thread_.start(*this);
}

TaskThread::~TaskThread() {
    try {
        decided_.set();
        Join();
    } catch (const std::exception&) {
        // Poco's words for a thread that is not there: nothing to wait for.
    }
}

void TaskThread::Begin() {
    begun_ = true;
    decided_.set();
}

void TaskThread::Join() {
    const std::lock_guard<std::mutex> lock(join_mutex_);
    if (!joined_) {
        thread_.join();
        joined_ = true;
    }
}

void TaskThread::run() {
    decided_.wait();
    if (begun_) {
        task_->run();
    }
}

}  // namespace Framework
