#include "agent/ReportTask.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/Log.h"
#include "sdk/JsonUtils.h"

namespace {

constexpr std::size_t kQueueCapacity = 1024;
constexpr long kRetryMs = 1000;

}  // namespace

std::string FormatReport(const Framework::DataMessage& message, const std::string& host) {
    const auto quoted = [](const std::string& text) {
        return SDK::JsonUtils::JsonToString(Json::Value(text));
    };
    const std::string& text = message.Content();
    Json::Value content;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), content) != 0 ||
        !content.isObject()) {
        content = Json::Value(text);
    }
    const std::string time =
        Poco::DateTimeFormatter::format(message.Created(), "%Y-%m-%dT%H:%M:%S.%iZ");
    return "{\"time\":\"" + time + "\",\"host\":" + quoted(host) +
           ",\"task\":" + quoted(message.Sender()) + ",\"type\":" + quoted(message.Type()) +
           ",\"content\":" + SDK::JsonUtils::JsonToString(content) + "}";
}

ReportTask::ReportTask(const std::string& path)
    : Framework::Task(kName, "", Framework::TaskCondition::kPeriodic, kQueueCapacity),
      path_(path) {}

ReportTask::~ReportTask() {
    if (file_ >= 0) {
        close(file_);
    }
}

bool ReportTask::Open() {
    if (file_ >= 0) {
        close(file_);
    }
    // Non-blocking, so that a pipe in its place is an error, not a hang.
    file_ = open(path_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0640);
    struct stat status = {};
    if (file_ < 0 || fstat(file_, &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        close(file_);
        file_ = -1;
        errno = EINVAL;
        return false;
    }
    // A crash may have left half a line.
    char last = '\n';
    torn_ = status.st_size > 0 && pread(file_, &last, 1, status.st_size - 1) == 1 && last != '\n';
    return true;
}

void ReportTask::HandleMsg(const Framework::Message* message) {
    const auto* report = dynamic_cast<const Framework::DataMessage*>(message);
    if (report == nullptr) {
        return;
    }
    if (IsHopeless(report->Content().size())) {
        ++lost_;
        return;
    }
    const std::string line = FormatReport(*report, Poco::Environment::nodeName()) + "\n";
    while (!Append(line)) {
        const int error = errno;
        no_room_ = error == ENOSPC || error == EDQUOT;
        if (!failing_) {
            Framework::Log().error("report file " + path_ +
                                   " cannot be written, trying again: " + std::strerror(error));
            failing_ = true;
        }
        if (isCancelled()) {
            ++lost_;
            return;
        }
        sleep(kRetryMs);  // a stop ends it, for the last try
    }
    if (failing_) {
        Framework::Log().information("report file " + path_ + " is written again");
        failing_ = false;
        no_room_ = false;
    }
}

bool ReportTask::IsInPlace() const {
    struct stat opened = {};
    struct stat named = {};
    return fstat(file_, &opened) == 0 && stat(path_.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

bool ReportTask::IsHopeless(std::size_t size) const {
    struct statvfs disk = {};
    // A file system without a bound counts no blocks. The last block of the file may have some
    // room.
    return no_room_ && isCancelled() && fstatvfs(file_, &disk) == 0 && disk.f_blocks > 0 &&
           size > (disk.f_bfree + 1) * disk.f_frsize;
}

bool ReportTask::Append(const std::string& line) {
    if ((reopen_.exchange(false) || file_ < 0 || !IsInPlace()) && !Open()) {
        return false;
    }
    const std::string text = torn_ ? "\n" + line : line;
    const ssize_t written = write(file_, text.data(), text.size());
    if (written == static_cast<ssize_t>(text.size())) {
        torn_ = false;
        return true;
    }
    if (written > 0) {
        // Half a line would join with the next attempt's. This task is the file's only writer.
        struct stat status = {};
        torn_ = fstat(file_, &status) != 0 || ftruncate(file_, status.st_size - written) != 0;
        errno = ENOSPC;
    }
    return false;
}

void ReportTask::UnInit() {
    if (lost_ > 0) {
        Framework::Log().error("report file " + path_ + ": " + std::to_string(lost_) +
                               " reports lost at the stop");
    }
}
