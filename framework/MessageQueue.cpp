#include "framework/MessageQueue.h"

namespace Framework {

EnqueueResult MessageQueue::Push(const std::shared_ptr<Message>& message,
                                 std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait_for(lock, patience, [&] { return closed_ || HasRoomFor(*message); });
    if (closed_) {
        return EnqueueResult::kClosed;
    }
    if (!HasRoomFor(*message)) {
        return EnqueueResult::kFull;
    }
    Add(message);
    return EnqueueResult::kQueued;
}

EnqueueResult MessageQueue::PushOverBounds(const std::shared_ptr<Message>& message) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) {
        return EnqueueResult::kClosed;
    }
    Add(message);
    return EnqueueResult::kQueued;
}

bool MessageQueue::HasRoomFor(const Message& message) const {
    return messages_.empty() ||
           (messages_.size() < capacity_ && bytes_ + message.Size() <= kMaxBytes);
}

void MessageQueue::Add(const std::shared_ptr<Message>& message) {
    messages_.push_back(message);
    bytes_ += message->Size();
    ready_.notify_one();
}

std::shared_ptr<Message> MessageQueue::Pop(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto due = [this] { return awake_ || closed_ || !messages_.empty(); };
    // wait_until would overflow on some clocks' far end: "no deadline" waits without one.
    if (deadline == Clock::time_point::max()) {
        ready_.wait(lock, due);
    } else {
        ready_.wait_until(lock, deadline, due);
    }
    if (messages_.empty() || (awake_ && !closed_)) {
        return nullptr;
    }
    std::shared_ptr<Message> message = std::move(messages_.front());
    messages_.pop_front();
    bytes_ -= message->Size();
    // Not at each message: a waiting sender would be woken to send a single one.
    if (messages_.size() <= capacity_ / 2 && bytes_ <= kMaxBytes / 2) {
        room_.notify_all();
    }
    return message;
}

std::pair<std::size_t, std::size_t> MessageQueue::Waiting() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {messages_.size(), bytes_};
}

void MessageQueue::Wake() {
    const std::lock_guard<std::mutex> lock(mutex_);
    awake_ = true;
    ready_.notify_all();
}

void MessageQueue::Close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    ready_.notify_all();
    room_.notify_all();
}

}  // namespace Framework
