#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "sdk/BoundedString.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kTimeTextSize = 256;
constexpr std::size_t kPathSize = 4096;  // with its terminating zero
constexpr std::int64_t kDaySeconds = 86400;
constexpr std::size_t kShortestStamp = 5;
constexpr std::size_t kMillisecondDigits = 11;  // a stamp this long counts milliseconds

// Appends `value` as two digits and `end` to `out`; false when they do not fit `Size` bytes.
template <std::size_t Size>
bool AppendTwoDigits(std::string& out, std::int64_t value, const char* end) {
    char text[Size] = {};
    if (SDK::snprintf_s(text, Size, Size - 1, "%02u%s", static_cast<unsigned>(value), end) == -1) {
        RSYSLOG_LOG(PRIO_ERROR, "snprintf failed");
        return false;
    }
    out += text;
    return true;
}

// Removes a file and says at trace level whether it could.
void RemoveLog(const std::string& path) {
    if (std::remove(path.c_str()) == 0) {
        RSYSLOG_LOG(PRIO_TRACE, "remove log ok: %s", path);
    } else {
        RSYSLOG_LOG(PRIO_TRACE, "remove log failed: %s", path);
    }
}

}  // namespace

std::string RsyslogTask::GetLocalTimeStr(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm local = {};
    tzset();  // localtime_r need not notice a changed time zone by itself
    if (localtime_r(&time, &local) == nullptr) {
        return "0";
    }
    char text[kTimeTextSize] = {};
    if (SDK::snprintf_s(
            text, sizeof(text), sizeof(text) - 1, "%04u-%02u-%02u %02u:%02u:%02u ",
            static_cast<unsigned>(local.tm_year) + 1900U, static_cast<unsigned>(local.tm_mon) + 1U,
            static_cast<unsigned>(local.tm_mday), static_cast<unsigned>(local.tm_hour),
            static_cast<unsigned>(local.tm_min), static_cast<unsigned>(local.tm_sec)) == -1) {
        RSYSLOG_LOG(PRIO_ERROR, "snprintf failed");
        return "";
    }
    return text;
}

std::string RsyslogTask::GetSplittimeStr(std::int64_t later, std::int64_t earlier) {
    if (later <= earlier) {
        return "0";
    }
    const std::int64_t duration = later - earlier;
    const std::int64_t days = duration / kDaySeconds;
    const std::int64_t rest = duration % kDaySeconds;
    std::string text;
    if (days > 0) {
        text = std::to_string(days) + "+";
    }
    const bool fits = AppendTwoDigits<4>(text, rest / 3600, ":") &&
                      AppendTwoDigits<4>(text, rest % 3600 / 60, ":") &&
                      AppendTwoDigits<3>(text, rest % 60, "");
    return fits ? text : "";
}

std::int64_t RsyslogTask::LogtimeToInt(const std::string& stamp) {
    if (stamp.size() < kShortestStamp) {
        return 0;
    }
    const std::size_t skipped = stamp[0] == '#' ? 1 : 0;
    const std::int64_t value = std::strtol(stamp.c_str() + skipped, nullptr, 10);
    return stamp.size() - skipped < kMillisecondDigits ? value * 1000 : value;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): both by value, as callers know it
bool RsyslogTask::HistoryWriteLog(std::string text, std::string path) {
    if (path.empty() || text.empty()) {
        RSYSLOG_LOG(PRIO_ERROR, "log path or log empty.");
        return false;
    }
    if (text.back() != '\n') {
        text += '\n';
    }
    struct stat status = {};
    bool is_file = false;
    if (stat(path.c_str(), &status) == 0) {
        is_file = S_ISREG(status.st_mode);
        if (rsyslog_policy.history_size != 0 &&
            text.size() + static_cast<std::uint64_t>(status.st_size) >= HistorySizeLimit()) {
            HistoryBackupLog(path);
            is_file = SDK::FileUtils::IsFile(path);
        }
    }
    if (!is_file) {
        SDK::FileUtils::WriteFile(path, "", false);
    }
    char resolved[PATH_MAX + 1] = {};
    if (path.size() >= sizeof(resolved) || realpath(path.c_str(), resolved) == nullptr) {
        return false;
    }
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log(std::fopen(resolved, "ae"),
                                                              &std::fclose);
    if (log == nullptr) {
        RSYSLOG_LOG(PRIO_ERROR, "open log [%s] failed.", path);
        return false;
    }
    // Unbuffered, so that a full disk shows in the write and not when the file is closed.
    std::setvbuf(log.get(), nullptr, _IONBF, 0);
    const bool known_size = fstat(fileno(log.get()), &status) == 0;
    std::size_t written = 0;
    while (written < text.size()) {
        const std::size_t count =
            std::fwrite(text.data() + written, 1, text.size() - written, log.get());
        if (count == 0) {
            // Readers see whole lines only: a piece of a record would join with the next one. If
            // even that fails there is nothing more to do.
            [[maybe_unused]] const bool cut =
                known_size && ftruncate(fileno(log.get()), status.st_size) == 0;
            return false;
        }
        written += count;
    }
    return true;
}

void RsyslogTask::HistoryBackupLog(const std::string& path) {
    char backup[kPathSize] = {};
    if (SDK::snprintf_s(backup, sizeof(backup), sizeof(backup) - 1, "%s.0", path.c_str()) == -1) {
        RSYSLOG_LOG(PRIO_ERROR, "snprintf failed");
        return;
    }
    RemoveLog(backup);
    if (std::rename(path.c_str(), backup) != 0) {
        RSYSLOG_LOG(PRIO_TRACE, "backup %s failed.", path);
        return;
    }
    RSYSLOG_LOG(PRIO_TRACE, "backup_log [%s]", std::string(backup));
    RemoveLog(path);
}

std::uint64_t RsyslogTask::HistorySizeLimit() const {
    const auto mebibytes = static_cast<std::uint32_t>(rsyslog_policy.history_size);
    const auto bytes = static_cast<std::int32_t>(mebibytes << 20);
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(bytes));
}

}  // namespace Engine
