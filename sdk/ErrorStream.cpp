#include "sdk/ErrorStream.h"

#include <Poco/Message.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "sdk/StringUtils.h"

namespace SDK {

namespace {

constexpr std::size_t kMaxLast = 1024;

// See the manual of sd-daemon: device and inode of the stream, if it has not been redirected since.
bool IsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// A pipe with room takes so many bytes at once.
void WriteOrDrop(const std::string& line) {
    struct stat status = {};
    pollfd room = {STDERR_FILENO, POLLOUT, 0};
    if (fstat(STDERR_FILENO, &status) != 0) {
        return;
    }
    ssize_t written = 0;
    if (S_ISSOCK(status.st_mode)) {
        written = send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (poll(&room, 1, 0) == 1 && (room.revents & POLLOUT) != 0) {
        written = write(STDERR_FILENO, line.data(), line.size());
    }
    static_cast<void>(written);
}

}  // namespace

ErrorStream::ErrorStream(Poco::AutoPtr<Poco::Channel> next)
    : next_(std::move(next)), to_journal_(IsJournal()) {}

void ErrorStream::log(const Poco::Message& message) {
    next_->log(message);
    if (message.getPriority() > Poco::Message::PRIO_WARNING) {
        return;
    }
    const bool error = message.getPriority() <= Poco::Message::PRIO_ERROR;
    const char* const start = to_journal_ ? (error ? "<3>" : "<4>")
                                          : (error ? "watchpost: error: " : "watchpost: warning: ");
    const std::lock_guard<std::mutex> lock(mutex_);
    try {
        std::string line = start + StringUtils::ToPrintable(message.getText());
        line.resize(std::min<std::size_t>(line.size(), PIPE_BUF - 1));
        WriteOrDrop(line + "\n");
        if (error) {
            last_time_ = message.getTime();
            last_text_ = message.getText().substr(0, kMaxLast);
        }
    } catch (const std::bad_alloc&) {
        // The log file has it.
    }
}

bool ErrorStream::GetLast(Poco::Timestamp& time, std::string& text) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    time = last_time_;
    text = last_text_;
    return last_time_ != Poco::Timestamp(0);
}

}  // namespace SDK
