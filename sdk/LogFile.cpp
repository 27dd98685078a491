#include "sdk/LogFile.h"

#include <Poco/Error.h>
#include <Poco/Message.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace SDK {
namespace {

constexpr off_t kSizeLimit = 10 << 20;
constexpr int kOldFiles = 5;
}  // namespace

LogFile::LogFile(std::string path, Poco::AutoPtr<Poco::Formatter> formatter)
    : formatter_(std::move(formatter)), file_(std::move(path)) {}

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
    const off_t size = file_.Size();
    const bool full = size > 0 && size + static_cast<off_t>(text.size()) > kSizeLimit;
    return full && Rotate(text) == 0 ? 0 : file_.Append(text);
}

int LogFile::Rotate(const std::string& text) {
    const std::string& path = file_.Path();
    LineFile next(path + ".new");
    std::remove(next.Path().c_str());
    if (const int error = next.Append(text); error != 0) {
        std::remove(next.Path().c_str());
        return error;
    }
    for (int i = kOldFiles - 1; i >= 0; --i) {
        const std::string from = i == 0 ? path : path + "." + std::to_string(i - 1);
        std::rename(from.c_str(), (path + "." + std::to_string(i)).c_str());
    }
    return std::rename(next.Path().c_str(), path.c_str()) == 0 ? file_.Open() : errno;
}

}  // namespace SDK
