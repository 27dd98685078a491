#include <fcntl.h>
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
#include "sdk/Descriptor.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kTimeTextSize = 256;
constexpr std::size_t kPathSize = 4096;  // with its terminating zero
constexpr std::uint64_t kDaySeconds = 86400;
constexpr std::size_t kShortestStamp = 5;
constexpr std::size_t kMillisecondDigits = 11;  // a stamp this long counts milliseconds

// Appends `value` as two digits and `end` to `out`; false when they do not fit `Size` bytes.
template <std::size_t Size>
bool AppendTwoDigits(std::string& out, std::uint64_t value, const char* end) {
    char text[Size] = {};
    if (SDK::snprintf_s(text, Size, Size - 1, "%02u%s", static_cast<unsigned>(value), end) == -1) {
        RSYSLOG_LOG(PRIO_ERROR, "snprintf failed");
        return false;
    }
    out += text;
    return true;
}

// Opens a record log to append to it; null when that fails, and for a FIFO, whose reader would have
// to be waited for. Unbuffered, so that a full disk shows in the write, not when the file is
// closed.
std::FILE* OpenLog(const char* path, struct stat& status) {
    SDK::Descriptor file;
    constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    constexpr mode_t kMode = 0666;  // less the umask
    if (file.Reset(open(path, kFlags, kMode)) != 0 || fstat(file.Get(), &status) != 0 ||
        S_ISFIFO(status.st_mode)) {
        return nullptr;
    }
    std::FILE* const log = fdopen(file.Get(), "a");
    if (log != nullptr) {
        file.Release();
        std::setvbuf(log, nullptr, _IONBF, 0);
    }
    return log;
}

// Whether a file of this size ends in a piece of a line, as a crash leaves it.
bool EndsTorn(int file, off_t size) {
    char last = '\n';
    return size > 0 && pread(file, &last, 1, size - 1) == 1 && last != '\n';
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
    // Unsigned, as the times can lie further apart than the signed type tells.
    const std::uint64_t duration =
        static_cast<std::uint64_t>(later) - static_cast<std::uint64_t>(earlier);
    const std::uint64_t days = duration / kDaySeconds;
    const std::uint64_t rest = duration % kDaySeconds;
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
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log(OpenLog(resolved, status),
                                                              &std::fclose);
    if (log == nullptr) {
        RSYSLOG_LOG(PRIO_ERROR, "open log [%s] failed.", path);
        return false;
    }
    if (EndsTorn(fileno(log.get()), status.st_size)) {
        text.insert(0, 1, '\n');
    }
    std::size_t written = 0;
    while (written < text.size()) {
        const std::size_t count =
            std::fwrite(text.data() + written, 1, text.size() - written, log.get());
        if (count == 0) {
            // Readers see whole lines only: a piece of a record would join with the next one. If
            // even that fails there is nothing more to do.
            [[maybe_unused]] const int cut = ftruncate(fileno(log.get()), status.st_size);
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
