#pragma once

#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "framework/Engine.h"
#include "framework/Message.h"
#include "framework/Task.h"

// What test programs share: the application object, captured log lines, captured reports.
namespace TestSupport {

// The process's engine; made at the first call.
inline Framework::Engine& TestEngine() {
    static Framework::Engine engine;
    return engine;
}

// Waits until `condition` holds; false when it does not within the deadline, which is far beyond
// what any awaited step takes even on a loaded machine with a sanitizer.
inline bool Await(const std::function<bool()>& condition,
                  std::chrono::milliseconds deadline = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string ReadText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Collects what is logged by one logger, as "LEVEL text" with Poco's number of the level
// (3 error, 4 warning, 6 information, 7 debug, 8 trace), while it lives.
class LogCapture {
public:
    explicit LogCapture(const std::string& logger, int level = Poco::Message::PRIO_TRACE)
        : logger_(Poco::Logger::get(logger)), channel_(new Collector) {
        logger_.setLevel(level);
        logger_.setChannel(channel_);
    }
    ~LogCapture() {
        logger_.setChannel(nullptr);
        logger_.setLevel(Poco::Message::PRIO_INFORMATION);
    }

    std::vector<std::string> Lines() const {
        const std::lock_guard<std::mutex> lock(channel_->mutex);
        return channel_->lines;
    }
    int Count(const std::string& line) const {
        return CountIf([&](const std::string& each) { return each == line; });
    }
    int Errors() const {
        return CountIf([](const std::string& each) { return each.rfind("3 ", 0) == 0; });
    }
    // How many lines hold `piece`.
    int Holding(const std::string& piece) const {
        return CountIf([&](const std::string& each) { return each.find(piece) != each.npos; });
    }

private:
    struct Collector : Poco::Channel {
        void log(const Poco::Message& message) override {
            const std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(std::to_string(message.getPriority()) + " " + message.getText());
        }
        mutable std::mutex mutex;
        std::vector<std::string> lines;
    };

    template <typename Predicate>
    int CountIf(Predicate predicate) const {
        const auto lines = Lines();
        return static_cast<int>(std::count_if(lines.begin(), lines.end(), predicate));
    }

    Poco::Logger& logger_;
    Poco::AutoPtr<Collector> channel_;
};

// Runs a task that keeps what it is sent as (type, content), while this lives.
class RunningReceiver {
public:
    explicit RunningReceiver(const std::string& name = "data_comm_report_task",
                             std::size_t capacity = 1024)
        : task_(new Receiver(name, "", Framework::TaskCondition::kPeriodic, capacity)) {
        TestEngine().StartTask(task_);
    }
    ~RunningReceiver() { Stop(); }

    void Stop() { TestEngine().StopTask(task_->name()); }
    auto& Task() { return *task_; }
    // Stops the receiver, so that everything sent has been handled.
    auto Finish() {
        Stop();
        return task_->received;
    }

private:
    struct Receiver : Framework::Task {
        using Task::Task;
        void HandleMsg(const Framework::Message* message) override {
            const std::lock_guard<std::mutex> hold(gate);
            const auto& data = dynamic_cast<const Framework::DataMessage&>(*message);
            received.emplace_back(data.Type(), data.Content());
        }
        // While the caller holds this, no message is handled.
        std::mutex& Gate() { return gate; }

        std::mutex gate;
        std::vector<std::pair<std::string, std::string>> received;
    };

    Poco::AutoPtr<Receiver> task_;
};

}  // namespace TestSupport
