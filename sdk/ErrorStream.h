#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Timestamp.h>

#include <mutex>
#include <string>

namespace SDK {

// Passes messages on to another channel, and those of level warning and worse to standard error as
// well, one line each, "watchpost: error: TEXT"; where that is the journal's stream, with the
// prefix that tells it the level instead. A line that nobody reads, or has no room, is dropped: it
// is never waited for. Any thread.
class ErrorStream : public Poco::Channel {
public:
    explicit ErrorStream(Poco::AutoPtr<Poco::Channel> next);

    void log(const Poco::Message& message) override;

    // The last message of level error or worse, its first 1 KiB; false when there was none.
    bool GetLast(Poco::Timestamp& time, std::string& text) const;

protected:
    ~ErrorStream() override = default;

private:
    Poco::AutoPtr<Poco::Channel> next_;
    const bool to_journal_;
    mutable std::mutex mutex_;  // guards the rest, and standard error
    Poco::Timestamp last_time_{0};
    std::string last_text_;
};

}  // namespace SDK
