#include "sdk/LogFile.h"

#include <Poco/Error.h>
#include <Poco/Message.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

namespace SDK {
namespace {

constexpr off_t kSizeLimit = 10 << 20;
constexpr int kOldFiles = 5;
// Without O_NONBLOCK a FIFO in the file's place would hold every thread that logs.
constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr mode_t kMode = 0640;

// Writes all of `text` or, if the file can be cut back to its `size`, nothing. 0 or an errno value;
// `torn` tells whether the file ends in a piece of a line.
int WriteWhole(int file, off_t size, const std::string& text, bool& torn) {
    const ssize_t written = write(file, text.data(), text.size());
    if (written == static_cast<ssize_t>(text.size())) {
        torn = false;
        return 0;
    }
    const int error = written < 0 ? errno : ENOSPC;
    if (written > 0 && ftruncate(file, size) != 0) {
        torn = true;
    }
    return error;
}

}  // namespace

LogFile::LogFile(std::string path, Poco::AutoPtr<Poco::Formatter> formatter)
    : path_(std::move(path)), formatter_(std::move(formatter)) {}

int LogFile::OpenFile() {
    struct stat status = {};
    int error = file_.Reset(::open(path_.c_str(), kFlags, kMode));
    if (error == 0 && fstat(file_.Get(), &status) != 0) {
        error = errno;
    }
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = EINVAL;
    }
    if (error != 0) {
        file_.Reset(-1);
        return error;
    }
    char last = '\n';
    const off_t end = status.st_size - 1;
    torn_ = end >= 0 && pread(file_.Get(), &last, 1, end) == 1 && last != '\n';
    return 0;
}

void LogFile::log(const Poco::Message& message) {
    const std::lock_guard<std::mutex> lock(mutex_);
    int error = ENOMEM;
    try {
        std::string text = missed_ > 0 ? Notice() : "";
        formatter_->format(message, text);
        error = Append(text + "\n");
    } catch (...) {
    }
    if (error == 0) {
        missed_ = 0;
    } else if (++missed_ == 1) {
        why_missed_ = error;
    }
}

std::string LogFile::Notice() {
    const std::string text =
        std::to_string(missed_) + " messages not written: " + Poco::Error::getMessage(why_missed_);
    std::string line;
    formatter_->format(
        Poco::Message("log", text, Poco::Message::PRIO_ERROR, "LogFile.cpp", __LINE__), line);
    return line + "\n";
}

int LogFile::Append(const std::string& text) {
    struct stat mine = {};
    struct stat named = {};
    const bool in_place = fstat(file_.Get(), &mine) == 0 && stat(path_.c_str(), &named) == 0 &&
                          mine.st_ino == named.st_ino && mine.st_dev == named.st_dev;
    if (!in_place) {
        if (const int error = OpenFile(); error != 0) {
            return error;
        }
        if (fstat(file_.Get(), &mine) != 0) {
            return errno;
        }
    }
    const std::string whole = torn_ ? "\n" + text : text;
    if (mine.st_size > 0 && mine.st_size + static_cast<off_t>(whole.size()) > kSizeLimit &&
        Rotate(text) == 0) {
        return 0;
    }
    return WriteWhole(file_.Get(), mine.st_size, whole, torn_);
}

int LogFile::Rotate(const std::string& text) {
    const std::string next = path_ + ".new";
    std::remove(next.c_str());
    Descriptor file;
    if (const int error = file.Reset(::open(next.c_str(), kFlags | O_EXCL, kMode)); error != 0) {
        return error;
    }
    bool torn = false;
    if (const int error = WriteWhole(file.Get(), 0, text, torn); error != 0) {
        std::remove(next.c_str());
        return error;
    }
    for (int i = kOldFiles - 1; i >= 0; --i) {
        const std::string from = i == 0 ? path_ : path_ + "." + std::to_string(i - 1);
        std::rename(from.c_str(), (path_ + "." + std::to_string(i)).c_str());
    }
    if (std::rename(next.c_str(), path_.c_str()) != 0) {
        return errno;  // the next message finds out what the path names now
    }
    file_.Reset(file.Release());
    torn_ = false;
    return 0;
}

}  // namespace SDK
