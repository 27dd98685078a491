#include <fcntl.h>
#include <unistd.h>
#include <utmp.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "framework/Message.h"
#include "module/module_rsyslog/src/LoginRecords.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "module/module_rsyslog/src/RsyslogThrottle.h"
#include "module/module_rsyslog/src/WorkRecord.h"
#include "sdk/BoundedString.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

const char* const kLoginFile = "/var/log/wtmp";
const char* const kDefaultFile = "/var/run/utmp";
const char* const kReportTask = "data_comm_report_task";
const char* const kLoginReport = "rsyslog_2";

constexpr std::size_t kHostNameSize = 256;  // with its terminating zero
constexpr std::chrono::seconds kLockPatience{10};
constexpr std::chrono::milliseconds kLockPause{10};

// The file that the C library reads as the accounting file.
std::string PathOfLogins() {
    const std::string instead = std::string(kLoginFile) + "x";
    return access(instead.c_str(), F_OK) == 0 ? instead : kLoginFile;
}

// A look at the accounting file beside that of the C library, which opens a FIFO without a writer
// for ever. It gives up waiting for a lock after ten seconds, but by an alarm that goes to any
// thread of the process, usually not the one that waits.
class FileWatch {
public:
    // False when there is no regular file to be read.
    bool Open(const std::string& path) { return file_.Open(path) == 0; }

    // The state of the open file; that of no file when it cannot be told.
    SDK::FileStamp Stamp() const {
        SDK::FileStamp stamp;
        return file_.GetStamp(stamp) == 0 ? stamp : SDK::FileStamp();
    }

    // Waits while another process holds a write lock. False when it still does at the end of the
    // library's patience, or when `stopping` says so.
    template <typename Stopping>
    bool AwaitUnlocked(const Stopping& stopping) const {
        if (!IsLocked()) {
            return true;
        }
        const auto end = std::chrono::steady_clock::now() + kLockPatience;
        while (!stopping() && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(kLockPause);
            if (!IsLocked()) {
                return true;
            }
        }
        return false;
    }

private:
    bool IsLocked() const {
        struct flock lock = {};
        lock.l_type = F_RDLCK;
        lock.l_whence = SEEK_SET;
        return fcntl(file_.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    }

    SDK::FileUtils::FileReader file_;
};

bool IsKept(int type) {
    return type == USER_PROCESS || type == DEAD_PROCESS || type == BOOT_TIME;
}

// A field that fills its slot has no terminating zero.
template <std::size_t Size>
void CopyField(const char (&field)[Size], std::string& out) {
    out.assign(field, strnlen(field, Size));
}

void CopyRecord(const utmp& entry, utmp_info& record) {
    record.type = entry.ut_type;
    record.pid = entry.ut_pid;
    CopyField(entry.ut_line, record.line);
    CopyField(entry.ut_user, record.user);
    CopyField(entry.ut_host, record.host);
    record.session = entry.ut_session;
    record.login_time = entry.ut_tv.tv_sec;
    record.logout_time = 0;
    record.pending = true;
}

}  // namespace

int RsyslogTask::UtmpSetutent(const char* path) {
    utmp_mutex.lock();
    const char* const selected = path != nullptr ? path : kDefaultFile;
    const int result = utmpname(selected);
    if (result == 0) {
        setutent();
        return 0;
    }
    utmp_mutex.unlock();
    RSYSLOG_LOG(PRIO_ERROR, "try to read %s failed.%d", std::string(selected), result);
    return result;
}

void RsyslogTask::UtmpEndutent() {
    endutent();
    utmp_mutex.unlock();
}

void RsyslogTask::ReadLastAllinfo(std::vector<utmp_info>& new_records) {
    new_records.clear();
    const std::string path = PathOfLogins();
    logins_whole = logins_read.Holds(SDK::FileStamp::Of(path.c_str()));
    if (logins_whole) {
        return;
    }
    const std::int64_t began = SDK::ReadMark::Now();
    FileWatch watch;
    if (!watch.Open(path)) {
        return;
    }
    const SDK::FileStamp before = watch.Stamp();
    if (UtmpSetutent(kLoginFile) != 0) {
        return;
    }
    bool whole = false;
    try {
        const auto stopping = [this] { return state() == TASK_CANCELLING; };
        KnownRecords known(utmp_list);
        utmp buffer = {};
        utmp* entry = nullptr;
        utmp_info record;
        while (!stopping() && watch.AwaitUnlocked(stopping)) {
            whole = getutent_r(&buffer, &entry) != 0;
            if (whole) {
                break;
            }
            RSYSLOG_THROTTLE();
            if (entry == nullptr) {
                continue;
            }
            RSYSLOG_THROTTLE();
            if (!IsKept(entry->ut_type)) {
                continue;
            }
            CopyRecord(*entry, record);
            if (known.Add(record)) {
                new_records.push_back(record);
            }
        }
    } catch (...) {
        UtmpEndutent();
        throw;
    }
    UtmpEndutent();
    logins_whole = whole;
    if (whole) {
        logins_read.Set(before, watch.Stamp(), began);
    }
}

void RsyslogTask::ParseEveryUtmp(const std::vector<utmp_info>& new_records) {
    std::optional<OpenLogins> open;  // made for the first record that can end a login
    for (const utmp_info& record : new_records) {
        if (state() == TASK_CANCELLING) {
            return;
        }
        RSYSLOG_LOG(PRIO_TRACE, "newlast type %?d pid:%d,%s,%s,%s,%?d,%?d", record.type, record.pid,
                    record.line, record.user, record.host, record.session, record.login_time);
        if (record.type != DEAD_PROCESS && record.type != BOOT_TIME) {
            continue;
        }
        if (!open) {
            open.emplace(utmp_list, FindOpenLogins());
        }
        std::vector<std::size_t> ended;
        if (record.type == BOOT_TIME) {
            ended = open->All(record.login_time);
        } else if (const auto slot = open->FirstOn(record.line, record.login_time)) {
            ended = {*slot};
        }
        for (const std::size_t slot : ended) {
            if (!NextElement()) {
                return;
            }
            EndLogin(utmp_list[open->Place(slot)], record);
            if (record.login_time != 0) {  // an end at 0 leaves the login open
                open->Remove(slot);
            }
        }
    }
}

void RsyslogTask::EndLogin(utmp_info& login, const utmp_info& end) {
    login.logout_time = end.login_time;
    login.pending = true;
    // All numbers have 32 bits in the file.
    const int session = static_cast<int>(login.session);
    if (end.type == DEAD_PROCESS) {
        RSYSLOG_LOG(PRIO_TRACE, "finddeadok pid:%d,%s,%s,%s,%d,%?d, %?d", login.pid, login.line,
                    login.user, login.host, session, login.login_time, login.logout_time);
    } else {
        RSYSLOG_LOG(PRIO_TRACE, "findfindbootok pid:%d,%s,%s,%s,%d,%d, %d", login.pid, login.line,
                    login.user, login.host, session, static_cast<int>(login.login_time),
                    static_cast<int>(login.logout_time));
    }
}

bool RsyslogTask::NextElement() const {
    RSYSLOG_THROTTLE();
    return state() != TASK_CANCELLING;
}

std::vector<std::size_t> RsyslogTask::FindOpenLogins() const {
    std::vector<std::size_t> open;
    for (std::size_t place = 0; place < utmp_list.size() && NextElement(); ++place) {
        if (utmp_list[place].type == USER_PROCESS && utmp_list[place].logout_time == 0) {
            open.push_back(place);
        }
    }
    return open;
}

void RsyslogTask::BuildLastInfo() {
    RSYSLOG_THROTTLE();
    std::vector<utmp_info> new_records;
    const auto known = static_cast<std::ptrdiff_t>(utmp_list.size());
    try {
        ReadLastAllinfo(new_records);
        ParseEveryUtmp(new_records);
    } catch (...) {
        // Known without what they end, they would never be looked at again.
        utmp_list.erase(utmp_list.begin() + known, utmp_list.end());
        logins_read.Clear();
        throw;
    }

    const std::string now = GetLocalTimeStr(std::time(nullptr));
    char host_name[kHostNameSize] = {};
    if (gethostname(host_name, sizeof(host_name) - 1) != 0) {
        static constexpr std::string_view kFallback = "localhost";
        const int result =
            SDK::memcpy_s(host_name, sizeof(host_name) - 1, kFallback.data(), kFallback.size());
        if (result != 0) {
            RSYSLOG_LOG(PRIO_ERROR, "memcpy_s failed, err %d", result);
            return;
        }
    }
    const std::string start = now + host_name + " ";
    for (utmp_info& login : utmp_list) {
        RSYSLOG_THROTTLE();
        if (state() == TASK_CANCELLING) {
            return;
        }
        if (login.type != USER_PROCESS || !login.pending) {
            continue;
        }
        const SessionTexts texts = DescribeSession(login);
        // The times end in a blank of their own; readers of the log count on both blanks.
        const std::string line = start + login.user + " " + login.line + " " + login.host + " " +
                                 texts.start + " " + texts.end + " " + texts.duration;
        HistoryWriteLog(line, rsyslog_policy.last_login_log_path);
        RSYSLOG_LOG(PRIO_TRACE, "write last : %s", line);
        SendLastLogInfo(login);
        login.pending = false;
    }
    if (logins_whole) {
        WorkRecord::Instance().Succeeded(kLogins);
    }
}

RsyslogTask::SessionTexts RsyslogTask::DescribeSession(const utmp_info& login) {
    SessionTexts texts = {GetLocalTimeStr(login.login_time), "0", "0"};
    if (login.logout_time != 0) {
        texts.end = GetLocalTimeStr(login.logout_time);
        texts.duration = GetSplittimeStr(login.logout_time, login.login_time);
    }
    return texts;
}

void RsyslogTask::SendLastLogInfo(const utmp_info& record) {
    if (!rsyslog_policy.up_lastlog) {
        return;
    }
    const SessionTexts texts = DescribeSession(record);
    Json::Value report(Json::objectValue);
    report["user"] = record.user;
    report["dev"] = record.line;
    report["loginip"] = record.host;
    report["start_time"] = texts.start;
    report["end_time"] = texts.end;
    report["duration"] = texts.duration;
    const std::string message = SDK::JsonUtils::JsonToString(report);
    RSYSLOG_LOG(PRIO_TRACE, "last_log message is [%s]", message);
    SendDirectMsg(kReportTask, std::make_shared<Framework::DataMessage>(kLoginReport, message));
}

}  // namespace Engine
