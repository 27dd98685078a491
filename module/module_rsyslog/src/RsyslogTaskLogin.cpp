#include <fcntl.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <boost/functional/hash.hpp>
#include <chrono>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "framework/Message.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "module/module_rsyslog/src/RsyslogThrottle.h"
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

// A look at the accounting file beside that of the C library, which opens a FIFO without a writer
// for ever. It gives up waiting for a lock after ten seconds, but by an alarm that goes to any
// thread of the process, usually not the one that waits.
class FileWatch {
public:
    // False when there is no regular file to be read.
    bool Open() {
        // What the library reads under the file's name, if it is there.
        const std::string instead = std::string(kLoginFile) + "x";
        return file_.Open(access(instead.c_str(), F_OK) == 0 ? instead : kLoginFile) == 0;
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

    SDK::FileUtils::Reader file_;
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

// Tells known records from new ones during one reading of the file.
class KnownRecords {
public:
    explicit KnownRecords(std::vector<utmp_info>& records)
        : records_(records), index_(0, Hash{records}, Equal{records}) {}

    // Appends `record` to the list and returns true, unless an equal one is in it.
    bool Add(const utmp_info& record) {
        // A file that only grew gives the known records in the order they were kept.
        if (next_ < records_.size() && records_[next_] == record) {
            ++next_;
            return false;
        }
        const std::size_t at = Find(record);
        const bool fresh = at == records_.size();
        if (fresh) {
            records_.push_back(record);
        }
        next_ = std::max(next_, at + 1);
        return fresh;
    }

private:
    struct Hash {
        const std::vector<utmp_info>& records;
        std::size_t operator()(std::size_t at) const {
            const utmp_info& record = records[at];
            std::size_t seed = 0;
            boost::hash_combine(seed, record.login_time);
            boost::hash_combine(seed, record.session);
            boost::hash_combine(seed, record.pid);
            boost::hash_combine(seed, record.type);
            for (const std::string* text : {&record.line, &record.user, &record.host}) {
                boost::hash_combine(seed, std::hash<std::string>()(*text));
            }
            return seed;
        }
    };
    struct Equal {
        const std::vector<utmp_info>& records;
        bool operator()(std::size_t a, std::size_t b) const { return records[a] == records[b]; }
    };

    // The place of the equal record, or the length of the list.
    std::size_t Find(const utmp_info& record) {
        // Behind the known records come the new ones, in the order of time as a rule; clocks set
        // back make the exceptions.
        if (next_ == records_.size()) {
            for (; counted_ < records_.size(); ++counted_) {
                if (counted_ == 0 || records_[counted_].login_time > latest_) {
                    latest_ = records_[counted_].login_time;
                    first_latest_ = counted_;
                }
            }
            if (counted_ == 0 || record.login_time > latest_) {
                return counted_;
            }
            if (record.login_time == latest_ && counted_ - first_latest_ < kFewRecords) {
                const auto first = records_.begin() + static_cast<std::ptrdiff_t>(first_latest_);
                const auto found = std::find(first, records_.end(), record);
                return static_cast<std::size_t>(found - records_.begin());
            }
        }
        return searches_ < kSearches ? Search(record) : LookUp(record);
    }

    // A walk costs far less than the index, and a pass with little news takes few. Backwards from
    // the place reached: there is the original of a record written twice; then from the list's end:
    // there is the beginning of a file that was rotated.
    std::size_t Search(const utmp_info& record) {
        ++searches_;
        const auto reached = records_.rend() - static_cast<std::ptrdiff_t>(next_);
        auto found = std::find(reached, records_.rend(), record);
        if (found == records_.rend()) {
            found = std::find(records_.rbegin(), reached, record);
            if (found == reached) {
                return records_.size();
            }
        }
        return static_cast<std::size_t>(records_.rend() - found) - 1;
    }

    std::size_t LookUp(const utmp_info& record) {
        while (indexed_ < records_.size()) {
            index_.insert(indexed_++);
        }
        // The set holds places in the list, so what is looked up has to be there too.
        records_.push_back(record);
        const auto found = index_.find(indexed_);
        const std::size_t at = found == index_.end() ? indexed_ : *found;
        records_.pop_back();
        return at;
    }

    static constexpr int kSearches = 8;
    static constexpr std::size_t kFewRecords = 32;

    std::vector<utmp_info>& records_;
    std::size_t next_ = 0;     // in the list, the record expected next
    std::size_t counted_ = 0;  // how many of the list the next two speak of
    std::int64_t latest_ = 0;
    std::size_t first_latest_ = 0;
    int searches_ = 0;
    std::size_t indexed_ = 0;  // how many of the list are in the index
    std::unordered_set<std::size_t, Hash, Equal> index_;
};

// The open logins of a list that keeps its length, with the ways to find those that end. A login
// is named by its slot; the slots of a line are neighbours, in the order of the list.
class OpenLogins {
public:
    // `open`: the places of the open logins in `records`, ascending.
    OpenLogins(const std::vector<utmp_info>& records, const std::vector<std::size_t>& open)
        : places_(open.size()) {
        for (const std::size_t place : open) {
            ++lines_[records[place].line].end;
        }
        std::size_t slots = 0;
        for (auto& [line, range] : lines_) {
            range.begin = slots;
            slots += range.end;
            range.end = range.begin;
        }
        while (leaves_ < slots) {
            leaves_ *= 2;
        }
        earliest_.assign(2 * leaves_, kNever);
        for (const std::size_t place : open) {
            const std::size_t slot = lines_[records[place].line].end++;
            places_[slot] = place;
            earliest_[leaves_ + slot] = records[place].login_time;
        }
        for (std::size_t node = leaves_ - 1; node > 0; --node) {
            Update(node);
        }
    }

    std::size_t Place(std::size_t slot) const { return places_[slot]; }

    // The first login of the list on `line` that began at `time` or before, if there is one.
    std::vector<std::size_t> FirstOn(const std::string& line, std::int64_t time) const {
        const auto range = lines_.find(line);
        if (range == lines_.end()) {
            return {};
        }
        const std::size_t slot = FirstFrom(range->second.begin, time);
        return slot < range->second.end ? std::vector<std::size_t>{slot}
                                        : std::vector<std::size_t>();
    }

    // All that began at `time` or before, in the order of the list.
    std::vector<std::size_t> All(std::int64_t time) const {
        std::vector<std::size_t> slots;
        for (std::size_t slot = FirstFrom(0, time); slot != kNone;
             slot = FirstFrom(slot + 1, time)) {
            slots.push_back(slot);
        }
        std::sort(slots.begin(), slots.end(),
                  [this](std::size_t a, std::size_t b) { return places_[a] < places_[b]; });
        return slots;
    }

    void Remove(std::size_t slot) {
        std::size_t node = leaves_ + slot;
        earliest_[node] = kNever;
        while (node > 1) {
            node /= 2;
            Update(node);
        }
    }

private:
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
    // Later than any record, whose times have 32 bits.
    static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

    struct Range {
        std::size_t begin = 0;
        std::size_t end = 0;
    };

    void Update(std::size_t node) {
        earliest_[node] = std::min(earliest_[2 * node], earliest_[2 * node + 1]);
    }

    // The first slot from `slot` on with a login time up to `time`, or kNone.
    std::size_t FirstFrom(std::size_t slot, std::int64_t time) const {
        if (slot >= places_.size()) {
            return kNone;
        }
        std::size_t node = leaves_ + slot;
        while (earliest_[node] > time) {
            while (node % 2 == 1) {  // nothing to the right of it below its parent
                node /= 2;
            }
            if (node == 0) {
                return kNone;
            }
            ++node;
        }
        while (node < leaves_) {
            node *= 2;
            node += earliest_[node] > time ? 1 : 0;
        }
        return node - leaves_;
    }

    std::vector<std::size_t> places_;  // of each slot in the list
    std::unordered_map<std::string_view, Range> lines_;
    // A binary tree of login times, its root at 1, the children of n at 2n and 2n + 1, the slots as
    // its leaves; an inner node has the earliest below it.
    std::size_t leaves_ = 1;
    std::vector<std::int64_t> earliest_;
};

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
    FileWatch watch;
    if (!watch.Open() || UtmpSetutent(kLoginFile) != 0) {
        return;
    }
    try {
        const auto stopping = [this] { return state() == TASK_CANCELLING; };
        KnownRecords known(utmp_list);
        utmp buffer = {};
        utmp* entry = nullptr;
        utmp_info record;
        while (!stopping() && watch.AwaitUnlocked(stopping) && getutent_r(&buffer, &entry) == 0) {
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
}

void RsyslogTask::ParseEveryUtmp(const std::vector<utmp_info>& new_records) {
    std::unique_ptr<OpenLogins> open;  // made for the first record that can end a login
    const auto end_login = [this, &open](std::size_t slot, std::int64_t time) -> utmp_info& {
        utmp_info& login = utmp_list[open->Place(slot)];
        login.logout_time = time;
        login.pending = true;
        if (time != 0) {  // an end at 0 leaves the login open
            open->Remove(slot);
        }
        return login;
    };
    bool zero_boot = false;
    for (const utmp_info& record : new_records) {
        if (state() == TASK_CANCELLING) {
            return;
        }
        RSYSLOG_LOG(PRIO_TRACE, "newlast type %?d pid:%d,%s,%s,%s,%?d,%?d", record.type, record.pid,
                    record.line, record.user, record.host, record.session, record.login_time);
        if (record.type != DEAD_PROCESS && record.type != BOOT_TIME) {
            continue;
        }
        if (open == nullptr) {
            open = std::make_unique<OpenLogins>(utmp_list, FindOpenLogins());
        }
        std::vector<std::size_t> ended;
        if (record.type == DEAD_PROCESS) {
            ended = open->FirstOn(record.line, record.login_time);
        } else if (record.login_time != 0 || !zero_boot || TraceIsOn()) {
            // Boots at 0 end the same logins again and again, which then shows in the log alone.
            ended = open->All(record.login_time);
            zero_boot = zero_boot || record.login_time == 0;
        }
        for (const std::size_t slot : ended) {
            if (!NextElement()) {
                return;
            }
            const utmp_info& login = end_login(slot, record.login_time);
            if (record.type == DEAD_PROCESS) {
                RSYSLOG_LOG(PRIO_TRACE, "finddeadok pid:%d,%s,%s,%s,%d,%?d, %?d", login.pid,
                            login.line, login.user, login.host, static_cast<int>(login.session),
                            login.login_time, login.logout_time);
            } else {
                // All three have 32 bits in the file.
                RSYSLOG_LOG(PRIO_TRACE, "findfindbootok pid:%d,%s,%s,%s,%d,%d, %d", login.pid,
                            login.line, login.user, login.host, static_cast<int>(login.session),
                            static_cast<int>(login.login_time),
                            static_cast<int>(login.logout_time));
            }
        }
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
    ReadLastAllinfo(new_records);
    ParseEveryUtmp(new_records);

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
