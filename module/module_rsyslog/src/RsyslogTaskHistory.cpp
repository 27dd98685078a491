#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <locale>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "module/module_rsyslog/src/RsyslogThrottle.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kPasswordEntrySize = 4096;
constexpr std::size_t kHostNameSize = 256;
constexpr std::size_t kFileLimit = 10485760;
constexpr std::size_t kTailLength = sizeof(user_info::history_tail) - 1;
constexpr std::size_t kShortestHalf = 21;  // of a tail, to be searched for alone
constexpr std::int32_t kSmallestHistory = 5000;

const char* const kPasswordFile = "/etc/passwd";

// A field of a password entry; entries of name services have some missing.
std::string Field(const char* text) {
    return text == nullptr ? "" : text;
}

bool MayLogIn(std::string_view shell) {
    return shell.substr(0, 10) != "/bin/false" && shell.substr(0, 13) != "/sbin/nologin";
}

// Whether the text, which begins at "HIST", is anything but the setting of a large enough size.
bool IsOffending(std::string_view setting) {
    constexpr std::string_view kSeparators = " =";
    const std::size_t end = setting.find_first_of(kSeparators);
    if (setting.substr(0, end) != "HISTSIZE") {
        return true;
    }
    const std::size_t value = setting.find_first_not_of(kSeparators, end);
    if (end == std::string_view::npos || value == std::string_view::npos) {
        return true;
    }
    setting.remove_prefix(value);
    const std::string number(setting.substr(0, setting.find_first_of(kSeparators)));
    // Counted in 32 bits: what is larger wraps.
    return static_cast<std::int32_t>(std::strtol(number.c_str(), nullptr, 10)) < kSmallestHistory;
}

// The lines of a start-up file that touch the history, trimmed, each with ";" behind it.
std::string FindOffending(std::string_view content) {
    constexpr std::string_view kLineEnds = "\r\n";
    const std::locale locale;
    std::string found;
    // From one "HIST" to the next: the other lines, which may be millions, are not looked at.
    for (std::size_t at = content.find("HIST"); at != std::string_view::npos;
         at = content.find("HIST", at)) {
        const std::size_t begin = content.find_last_of(kLineEnds, at) + 1;
        const std::size_t end = std::min(content.find_first_of(kLineEnds, at), content.size());
        const std::string_view whole = content.substr(begin, end - begin);
        const std::string line = boost::trim_copy(std::string(whole), locale);
        if (line[0] != '#' && IsOffending(std::string_view(line).substr(line.find("HIST")))) {
            found += line + ";";
        }
        at = end;
    }
    return found;
}

// Where `part` begins in `text` for the first time. Not std::string::find, whose time is the
// product of the lengths at worst: users choose both.
std::size_t Find(std::string_view text, std::string_view part) {
    const void* found = memmem(text.data(), text.size(), part.data(), part.size());
    return found == nullptr
               ? std::string_view::npos
               : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

// What follows the first `part` in `text`; false when there is none.
bool CutBehind(std::string_view part, std::string_view& text) {
    const std::size_t at = Find(text, part);
    if (at == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(at + part.size());
    return true;
}

// Leaves in `content` what came after `tail`, the end of the file as it was: behind the tail or,
// the file having been cut, behind its second half; else everything.
void CutSeen(std::string_view tail, std::string_view& content) {
    if (CutBehind(tail, content)) {
        return;
    }
    const std::string_view half = tail.substr(tail.size() / 2);
    if (half.size() >= kShortestHalf) {
        CutBehind(half, content);
    }
}

void SplitLines(std::string_view content, std::vector<std::string>& lines) {
    // Exact, as there may be millions.
    const auto newlines = std::count(content.begin(), content.end(), '\n');
    lines.reserve(lines.size() + static_cast<std::size_t>(newlines) + 1);
    while (!content.empty()) {
        const std::size_t end = std::min(content.find('\n'), content.size());
        lines.emplace_back(content.substr(0, end));
        content.remove_prefix(std::min(end + 1, content.size()));
    }
}

enum class TailResult { kRead, kShort, kNotOpened };

// Reads the last `length` bytes of the regular file at `path`. Whatever its owner puts there
// meanwhile, it is not waited for.
TailResult ReadTail(const char* path, std::size_t length, char* tail) {
    int file = -1;
    if (SDK::FileUtils::OpenForReading(path, file) != 0) {
        return TailResult::kNotOpened;
    }
    struct stat status = {};
    const off_t start =
        fstat(file, &status) == 0 ? status.st_size - static_cast<off_t>(length) : -1;
    const bool whole =
        start >= 0 && pread(file, tail, length, start) == static_cast<ssize_t>(length);
    close(file);
    return whole ? TailResult::kRead : TailResult::kShort;
}

}  // namespace

void RsyslogTask::SyslogGetUserList() {
    std::list<user_info>& users = rsyslog_policy.user_list;
    char strings[kPasswordEntrySize] = {};
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(kPasswordFile, "re"),
                                                               &std::fclose);
    if (file == nullptr) {
        return;
    }
    // Views into the list, whose entries stay where they are.
    std::set<std::pair<std::string_view, std::string_view>> known;
    for (const user_info& user : users) {
        known.emplace(user.name, user.home);
    }
    passwd entry = {};
    passwd* found = nullptr;
    while (fgetpwent_r(file.get(), &entry, strings, sizeof(strings), &found) == 0 &&
           found != nullptr) {
        if (!MayLogIn(Field(entry.pw_shell))) {
            continue;
        }
        user_info user;
        user.name = Field(entry.pw_name);
        user.home = Field(entry.pw_dir);
        if (known.count({user.name, user.home}) != 0) {
            continue;
        }
        RSYSLOG_LOG(PRIO_TRACE, "new name=%s, uid=%?d, gid=%?d, realname=%s, dir=%s, shell=%s",
                    user.name, entry.pw_uid, entry.pw_gid, Field(entry.pw_gecos), user.home,
                    Field(entry.pw_shell));
        users.push_back(user);
        known.emplace(users.back().name, users.back().home);
    }
    explicit_bzero(&entry, sizeof(entry));
}

void RsyslogTask::CheckHistoryProfile(const user_info& user, const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        RSYSLOG_LOG(PRIO_TRACE, "file [%s] no stat.", path);
        return;
    }
    auto entry = alarm_time_map.find(path);
    if (entry != alarm_time_map.end() && entry->second == status.st_mtime) {
        return;
    }
    std::string content;
    if (SDK::FileUtils::ReadFile(path, content, kFileLimit) != 0) {
        return;
    }
    alarm_time_map[path] = status.st_mtime;
    const std::string offending = FindOffending(content);
    if (!offending.empty()) {
        SendRsyslogAlarm(user, path, offending, entry, std::time(nullptr));
    }
}

bool RsyslogTask::HistorySetLogPath(std::string& hash, bool with_hash, char (&tail)[1025],
                                    const char* path) {
    if (path == nullptr || *path == '\0') {
        RSYSLOG_LOG(PRIO_ERROR, "file path is null or length is 0.");
        return false;
    }
    if (with_hash) {
        std::string new_hash;
        if (SDK::FileUtils::GetFileSha256(path, new_hash, kFileLimit) != 0) {
            RSYSLOG_LOG(PRIO_TRACE, "history file no hash %s", std::string(path));
            return false;
        }
        hash = new_hash;
    }
    std::memset(tail, 0, sizeof(tail));
    std::uint64_t size = 0;
    if (SDK::FileUtils::GetFileSize(path, size) != 0 || size == 0) {
        return true;
    }
    const std::size_t length = std::min<std::uint64_t>(size, kTailLength);
    switch (ReadTail(path, length, tail)) {
        case TailResult::kNotOpened:
            RSYSLOG_LOG(PRIO_ERROR, "open log file [%s] failed", std::string(path));
            return false;
        case TailResult::kShort:
            std::memset(tail, 0, sizeof(tail));
            return true;
        case TailResult::kRead:
            break;
    }
    return true;
}

bool RsyslogTask::HistoryTailLogs(std::vector<std::string>& lines, user_info& user) {
    const std::string& path = user.history_path;
    if (path.empty()) {
        RSYSLOG_LOG(PRIO_ERROR, "file path is null or length is 0.");
        return false;
    }
    std::string hash;
    if (SDK::FileUtils::GetFileSha256(path, hash, kFileLimit) != 0) {
        RSYSLOG_LOG(PRIO_TRACE, "history file no hash %s.", path);
        return false;
    }
    if (hash == user.history_hash) {
        RSYSLOG_LOG(PRIO_TRACE, "history file [%s] not change.", path);
        return false;
    }
    std::uint64_t size = 0;
    if (SDK::FileUtils::GetFileSize(path, size) != 0 || size == 0 || size > HistorySizeLimit()) {
        return false;
    }
    std::string content;
    if (SDK::FileUtils::ReadFile(path, content, kFileLimit) != 0) {
        RSYSLOG_LOG(PRIO_DEBUG, "read %s failed", path);
        return false;
    }
    std::string_view fresh = content;
    if (user.tail_ready) {
        CutSeen(user.history_tail, fresh);
    }
    SplitLines(fresh, lines);
    user.history_hash = hash;
    user.tail_ready = HistorySetLogPath(user.history_hash, false, user.history_tail, path.c_str());
    return true;
}

void RsyslogTask::BuildHistoryLog() {
    RSYSLOG_THROTTLE();
    SyslogGetUserList();
    const std::string now = GetLocalTimeStr(std::time(nullptr));
    char host_name[kHostNameSize] = {};
    gethostname(host_name, sizeof(host_name) - 1);
    std::list<user_info>& users = rsyslog_policy.user_list;
    for (auto user = users.begin(); user != users.end() && state() != TASK_CANCELLING; ++user) {
        RSYSLOG_THROTTLE();
        CheckHistoryProfile(*user, user->home + "/.bash_profile");
        CheckHistoryProfile(*user, user->home + "/.bashrc");
        if (user->name == "root") {
            CheckHistoryProfile(*user, "/etc/profile");
        }
        user->history_path = user->home + "/.bash_history";
        if (!user->tail_ready) {
            user->tail_ready = HistorySetLogPath(user->history_hash, true, user->history_tail,
                                                 user->history_path.c_str());
        }
        std::vector<std::string> lines;
        if (HistoryTailLogs(lines, *user)) {
            ParseHistoryLog(user, host_name, now, lines);
        }
    }
}

}  // namespace Engine
