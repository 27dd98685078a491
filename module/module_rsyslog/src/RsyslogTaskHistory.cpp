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
#include "module/module_rsyslog/src/WorkRecord.h"
#include "sdk/FileUtils.h"
#include "sdk/StringUtils.h"

namespace Engine {

namespace {

using SDK::FileUtils::Links;

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

// Reads a file as it stood at one moment. One that is written all the time is read up to its last
// whole line: behind it may be half a command. 0 or an errno value.
int ReadSettled(const SDK::FileUtils::FileReader& file, std::string& content) {
    constexpr int kTries = 3;
    for (int i = 0; i < kTries; ++i) {
        SDK::FileStamp before;
        SDK::FileStamp after;
        int error = file.GetStamp(before);
        if (error == 0) {
            error = file.Read(content, kFileLimit);
        }
        if (error == 0) {
            error = file.GetStamp(after);
        }
        if (error != 0 || before == after) {
            return error;
        }
    }
    content.resize(content.rfind('\n') + 1);
    return 0;
}

void SetTail(std::string_view content, char (&tail)[kTailLength + 1]) {
    std::memset(tail, 0, sizeof(tail));
    content.remove_prefix(content.size() - std::min(content.size(), kTailLength));
    content.copy(tail, content.size());
}

// Reads the last bytes of a file into `tail`, as many as there are; none when they cannot be read.
void ReadTail(const SDK::FileUtils::FileReader& file, char (&tail)[kTailLength + 1]) {
    SDK::FileStamp stamp;
    std::memset(tail, 0, sizeof(tail));
    if (file.GetStamp(stamp) != 0) {
        return;
    }
    const auto length = std::min<std::size_t>(static_cast<std::size_t>(stamp.size), kTailLength);
    const off_t start = stamp.size - static_cast<off_t>(length);
    if (pread(file.Get(), tail, length, start) != static_cast<ssize_t>(length)) {
        std::memset(tail, 0, sizeof(tail));
    }
}

}  // namespace

void RsyslogTask::SyslogGetUserList() {
    const std::int64_t began = SDK::ReadMark::Now();
    const SDK::FileStamp stamp = SDK::FileStamp::Of(kPasswordFile);
    if (passwd_read.Holds(stamp)) {
        return;
    }
    AddUsers();
    passwd_read.Set(stamp, SDK::FileStamp::Of(kPasswordFile), began);
}

void RsyslogTask::AddUsers() {
    std::list<user_info>& users = rsyslog_policy.user_list;
    char strings[kPasswordEntrySize] = {};
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        SDK::FileUtils::OpenStream(kPasswordFile), &std::fclose);
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
    if (SDK::FileUtils::ReadFile(path, content, kFileLimit, Links::kTrusted) != 0) {
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
    SDK::FileUtils::FileReader file;
    const int opened = file.Open(path, Links::kTrusted);
    if (with_hash) {
        std::string content;
        std::string new_hash;
        if (opened == 0 && ReadSettled(file, content) == 0) {
            new_hash = SDK::StringUtils::Sha256(content);
        }
        if (new_hash.empty()) {
            RSYSLOG_LOG(PRIO_TRACE, "history file no hash %s", std::string(path));
            return false;
        }
        hash = new_hash;
        SetTail(content, tail);
        return true;
    }
    std::memset(tail, 0, sizeof(tail));
    std::uint64_t size = 0;
    if (SDK::FileUtils::GetFileSize(path, size) != 0 || size == 0) {
        return true;
    }
    if (opened != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "open log file [%s] failed", std::string(path));
        return false;
    }
    ReadTail(file, tail);
    return true;
}

bool RsyslogTask::HistoryTailLogs(std::vector<std::string>& lines, user_info& user) {
    const std::string& path = user.history_path;
    if (path.empty()) {
        RSYSLOG_LOG(PRIO_ERROR, "file path is null or length is 0.");
        return false;
    }
    // A link goes the long way: it has to be trusted each time.
    if (user.read_mark.Holds(SDK::FileStamp::OfNoLink(path.c_str()))) {
        if (user.marked_unchanged) {
            RSYSLOG_LOG(PRIO_TRACE, "history file [%s] not change.", path);
        }
        return false;
    }
    SDK::FileUtils::FileReader file;
    std::string hash;
    const std::int64_t began = SDK::ReadMark::Now();
    SDK::FileStamp before;
    SDK::FileStamp stamp;
    if (file.Open(path, Links::kTrusted) != 0 || file.GetStamp(before) != 0 ||
        file.GetSha256(hash, kFileLimit) != 0) {
        RSYSLOG_LOG(PRIO_TRACE, "history file no hash %s.", path);
        return false;
    }
    const bool known = file.GetStamp(stamp) == 0;
    const bool unchanged = hash == user.history_hash;
    const bool out_of_bounds =
        !known || stamp.size == 0 || static_cast<std::uint64_t>(stamp.size) > HistorySizeLimit();
    if (unchanged || out_of_bounds) {
        user.read_mark.Set(before, stamp, began);
        user.marked_unchanged = unchanged;
        if (unchanged) {
            RSYSLOG_LOG(PRIO_TRACE, "history file [%s] not change.", path);
        }
        return false;
    }
    std::string content;
    if (ReadSettled(file, content) != 0) {
        RSYSLOG_LOG(PRIO_DEBUG, "read %s failed", path);
        return false;
    }
    if (content.empty()) {
        return false;
    }
    std::string_view fresh = content;
    if (user.tail_ready) {
        CutSeen(user.history_tail, fresh);
    }
    SplitLines(fresh, lines);
    // Of the bytes read, not of the file as it is by now: what a shell has added meanwhile is new.
    user.history_hash = SDK::StringUtils::Sha256(content);
    SetTail(content, user.history_tail);
    user.tail_ready = true;
    return true;
}

template <typename Step>
void RsyslogTask::Shielded(const std::string& path, Step step) {
    const auto failed = failed_files.find(path);
    if (failed != failed_files.end()) {
        if (failed->second == SDK::FileStamp::Of(path.c_str())) {
            return;
        }
        failed_files.erase(failed);
    }
    try {
        step();
    } catch (const std::exception& e) {
        RSYSLOG_LOG(PRIO_ERROR, "%s is passed over until it changes: %s", path,
                    std::string(e.what()));
        failed_files[path] = SDK::FileStamp::Of(path.c_str());
        CutHistory();
    }
}

void RsyslogTask::ReadCommands(std::list<user_info>::iterator user, const char* host_name,
                               const std::string& time) {
    if (user->unparsed.empty()) {
        user->history_path = user->home + "/.bash_history";
        if (!user->tail_ready) {
            user->tail_ready = HistorySetLogPath(user->history_hash, true, user->history_tail,
                                                 user->history_path.c_str());
        }
        std::vector<std::string> fresh;
        if (!HistoryTailLogs(fresh, *user)) {
            return;
        }
        user->unparsed.swap(fresh);
    }
    std::vector<std::string>& lines = user->unparsed;
    parsed_lines = 0;
    try {
        ParseHistoryLog(user, host_name, time, lines);
    } catch (const std::exception& e) {
        // What is sent is not sent again. A line that even comes first and fails is given up.
        const std::size_t given_up = parsed_lines == 0 ? 1 : 0;
        user->first_recorded = user->first_recorded && given_up == 0;
        lines.erase(lines.begin(),
                    lines.begin() + static_cast<std::ptrdiff_t>(parsed_lines + given_up));
        RSYSLOG_LOG(PRIO_ERROR, "%s: lines lost: %?d, to be parsed in the next cycle: %?d: %s",
                    user->history_path, given_up, lines.size(), std::string(e.what()));
        CutHistory();
        return;
    }
    std::vector<std::string>().swap(lines);
}

void RsyslogTask::CutHistory() {
    history_whole = false;
    WorkRecord::Instance().Count(kHistoryCut);
}

void RsyslogTask::BuildHistoryLog() {
    RSYSLOG_THROTTLE();
    SyslogGetUserList();
    const std::string now = GetLocalTimeStr(std::time(nullptr));
    char host_name[kHostNameSize] = {};
    gethostname(host_name, sizeof(host_name) - 1);
    // Memory ran out over what an earlier cycle has queued: that goes first.
    const bool backlog = !history_list.empty();
    std::list<user_info>& users = rsyslog_policy.user_list;
    for (auto user = users.begin(); user != users.end() && state() != TASK_CANCELLING; ++user) {
        RSYSLOG_THROTTLE();
        const auto check = [this, user](const std::string& path) {
            Shielded(path, [&] { CheckHistoryProfile(*user, path); });
        };
        check(user->home + "/.bash_profile");
        check(user->home + "/.bashrc");
        if (user->name == "root") {
            check("/etc/profile");
        }
        if (backlog) {
            continue;
        }
        Shielded(user->home + "/.bash_history", [&] { ReadCommands(user, host_name, now); });
    }
}

}  // namespace Engine
