#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "framework/Message.h"

namespace Framework {

// What became of a message offered to a queue.
enum class EnqueueResult { kQueued, kFull, kClosed };

// First-in, first-out queue of one task, bounded in messages and in the bytes they hold. A message
// larger than the bound is taken by an empty queue. Any thread may push; the task's thread pops.
class MessageQueue {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMaxBytes = 8UL << 20;

    explicit MessageQueue(std::size_t capacity) : capacity_(capacity) {}

    // Waits up to `patience` for room.
    EnqueueResult Push(const std::shared_ptr<Message>& message, std::chrono::milliseconds patience);

    // Queues even above the bounds; only a closed queue refuses.
    EnqueueResult PushOverBounds(const std::shared_ptr<Message>& message);

    // The next message; null once `deadline` has passed, after Wake, or when closed and empty.
    std::shared_ptr<Message> Pop(Clock::time_point deadline);

    // Makes this and every later Pop return at once. Messages stay queued.
    void Wake();

    // How many messages wait, and the bytes they hold.
    std::pair<std::size_t, std::size_t> Waiting() const;

    // Refuses all further messages. What is queued can still be popped.
    void Close();

private:
    bool HasRoomFor(const Message& message) const;
    void Add(const std::shared_ptr<Message>& message);

    mutable std::mutex mutex_;
    std::condition_variable room_;
    std::condition_variable ready_;
    std::deque<std::shared_ptr<Message>> messages_;
    const std::size_t capacity_;
    std::size_t bytes_ = 0;  // of the messages
    bool awake_ = false;
    bool closed_ = false;
};

}  // namespace Framework
