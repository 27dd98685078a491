#pragma once

#include <Poco/Timestamp.h>

#include <cstddef>
#include <string>
#include <utility>

namespace Framework {

// What one task sends to another. Shared between sender and receiver; unchanged once sent.
class Message {
public:
    Message() = default;
    virtual ~Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // Time of construction, microseconds since the epoch, UTC.
    const Poco::Timestamp& Created() const { return created_; }

    // Bytes that the message holds, besides itself; queues are bounded by it.
    virtual std::size_t Size() const { return 0; }

    // Name of the sending task; empty until the message is sent.
    const std::string& Sender() const { return sender_; }

private:
    friend class Task;

    Poco::Timestamp created_;
    std::string sender_;
};

// A report: a type that names its kind, and its text, JSON or not.
class DataMessage : public Message {
public:
    DataMessage(std::string type, std::string content)
        : type_(std::move(type)), content_(std::move(content)) {}

    std::size_t Size() const override { return type_.size() + content_.size(); }
    const std::string& Type() const { return type_; }
    const std::string& Content() const { return content_; }

private:
    std::string type_;
    std::string content_;
};

}  // namespace Framework
