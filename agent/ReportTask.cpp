#include "agent/ReportTask.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <sys/statvfs.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <random>

#include "framework/Log.h"
#include "sdk/JsonUtils.h"
#include "sdk/ReadMark.h"

namespace {

constexpr std::size_t kQueueCapacity = 1024;
constexpr std::size_t kMaxTypes = 100;
constexpr long kRetryMs = 1000;

// Names one start of an agent for ever: the clock may have been set back, so chance has a say too.
std::string NameStart() {
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "%016llx%08x",
                  static_cast<unsigned long long>(SDK::ReadMark::Now()), std::random_device()());
    return name.data();
}

}  // namespace

std::string FormatReport(const Framework::DataMessage& message, const std::string& host,
                         const std::string& id) {
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
           ",\"content\":" + SDK::JsonUtils::JsonToString(content) +
           ",\"id\":" + quoted(host + "-" + id) + "}";
}

ReportTask::ReportTask(const std::string& path)
    : Framework::Task(kName, "", Framework::TaskCondition::kPeriodic, kQueueCapacity),
      file_(path),
      start_(NameStart()) {}

void ReportTask::HandleMsg(const Framework::Message* message) {
    const auto* report = dynamic_cast<const Framework::DataMessage*>(message);
    if (report == nullptr) {
        return;
    }
    if (IsHopeless(report->Size())) {
        ++lost_;
        return;
    }
    line_.clear();
    while (const int error = Write(*report)) {
        no_room_ = error == ENOSPC || error == EDQUOT;
        if (!counts_.failing) {
            Framework::Log().error("report file " + Path() +
                                   " cannot be written, trying again: " + std::strerror(error));
        }
        CountFailure();
        if (isCancelled()) {
            ++lost_;
            return;
        }
        sleep(kRetryMs);  // a stop ends it, for the last try
    }
    if (counts_.failing) {
        Framework::Log().information("report file " + Path() + " is written again");
        no_room_ = false;
    }
    const std::size_t size = line_.size();
    std::string().swap(line_);  // it may be large
    CountLine(report->Type(), size);
}

int ReportTask::Write(const Framework::DataMessage& report) {
    try {
        if (line_.empty()) {
            line_ = FormatReport(report, Poco::Environment::nodeName(),
                                 start_ + "-" + std::to_string(number_ + 1)) +
                    "\n";
            ++number_;
        }
        return file_.Append(line_);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void ReportTask::CountFailure() {
    const std::lock_guard<std::mutex> lock(counts_mutex_);
    counts_.failing = true;
    ++counts_.failures;
}

void ReportTask::CountLine(const std::string& type, std::size_t size) {
    const std::lock_guard<std::mutex> lock(counts_mutex_);
    counts_.failing = false;
    counts_.lines += 1;
    counts_.bytes += size;
    const bool room = counts_.by_type.size() < kMaxTypes || counts_.by_type.count(type) != 0;
    ++counts_.by_type[room ? type : "other"];
}

ReportCounts ReportTask::Counts() const {
    const std::lock_guard<std::mutex> lock(counts_mutex_);
    return counts_;
}

bool ReportTask::IsHopeless(std::size_t size) const {
    struct statvfs disk = {};
    // A file system without a bound counts no blocks. The last block of the file may have some
    // room.
    return no_room_ && isCancelled() && fstatvfs(file_.Get(), &disk) == 0 && disk.f_blocks > 0 &&
           size > (disk.f_bfree + 1) * disk.f_frsize;
}

void ReportTask::UnInit() {
    if (lost_ > 0) {
        Framework::Log().error("report file " + Path() + ": " + std::to_string(lost_) +
                               " reports lost at the stop");
    }
}
