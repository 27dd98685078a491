#include <regex.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <memory>
#include <new>
#include <set>
#include <utility>

#include "framework/Message.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "module/module_rsyslog/src/RsyslogThrottle.h"
#include "sdk/BoundedString.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kHostNameSize = 256;
constexpr std::size_t kRegexErrorSize = 1024;
constexpr std::size_t kStampDigits = 13;  // that the pattern looks at

const char* const kReportTask = "data_comm_report_task";
const char* const kCommandType = "rsyslog_1";
const char* const kNoStamp = "#0000011471";
const char* const kStampPattern = "^[1-9][0-9]{9,12}";

// The pattern of a time stamp, compiled. Compiled for each of five million lines it would hold the
// cycle up, so one serves the process; only a failure is tried again.
struct StampPattern {
    StampPattern() : error(regcomp(&pattern, kStampPattern, REG_EXTENDED | REG_NOSUB)) {}
    ~StampPattern() {
        if (error == 0) {
            regfree(&pattern);
        }
    }
    StampPattern(const StampPattern&) = delete;
    StampPattern& operator=(const StampPattern&) = delete;

    regex_t pattern = {};
    int error;
};

std::string RegexError(int error, const regex_t& pattern) {
    char text[kRegexErrorSize] = {};
    regerror(error, &pattern, text, sizeof(text));
    return text;
}

std::uint64_t Distance(std::int64_t one, std::int64_t other) {
    // Unsigned, as stamps can lie further apart than the signed type tells.
    return one > other ? static_cast<std::uint64_t>(one) - static_cast<std::uint64_t>(other)
                       : static_cast<std::uint64_t>(other) - static_cast<std::uint64_t>(one);
}

}  // namespace

bool RsyslogTask::HistoryFindTimestamp(std::string line) {
    if (line.empty() || line[0] != '#') {
        return false;
    }
    static std::unique_ptr<StampPattern> compiled;  // task thread only
    if (compiled == nullptr || compiled->error != 0) {
        compiled = std::make_unique<StampPattern>();
    }
    const StampPattern& stamp = *compiled;
    if (stamp.error != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "find timestamp %s ,reg error:%s", std::string(kStampPattern),
                    RegexError(stamp.error, stamp.pattern));
        return false;
    }
    line.resize(std::min(line.size(), 1 + kStampDigits));  // the rest, maybe 10 MiB, says nothing
    const int result = regexec(&stamp.pattern, line.c_str() + 1, 0, nullptr, 0);
    if (result != 0 && result != REG_NOMATCH) {
        RSYSLOG_LOG(PRIO_ERROR, "regexec error:%s.", RegexError(result, stamp.pattern));
    }
    return result == 0;
}

bool RsyslogTask::HistoryFindWhiteCmd(const std::string& cmd) {
    for (const std::string& allowed : rsyslog_policy.white_list) {
        if (cmd == allowed) {
            RSYSLOG_LOG(PRIO_TRACE, "white cmd [%s]", cmd);
            return true;
        }
    }
    if (rsyslog_policy.tchar_filter && boost::ends_with(cmd, "\t\t\t")) {
        RSYSLOG_LOG(PRIO_TRACE, "tchar_filter cmd [%s]", cmd);
        return true;
    }
    return false;
}

void RsyslogTask::ParseHistoryLog(const std::list<user_info>::iterator& user, const char* host_name,
                                  const std::string& time, const std::vector<std::string>& lines) {
    const std::string prefix = time + host_name + " " + user->name + " ";
    for (std::size_t i = 0; i < lines.size() && state() != TASK_CANCELLING; ++i) {
        RSYSLOG_THROTTLE();
        parsed_lines = i;
        const std::string& line = lines[i];
        RSYSLOG_LOG(PRIO_TRACE, "log_text is [%s]", line);
        history_info record;
        record.time = time;
        record.user = user->name;
        if (!HistoryFindTimestamp(line)) {
            if (HistoryFindWhiteCmd(line)) {
                continue;
            }
            record.stamp = kNoStamp;
            record.cmd = line;
            const std::string text = prefix + record.stamp + " cmd:" + record.cmd;
            if (!user->first_recorded) {
                HistoryWriteLog(text, rsyslog_policy.history_log_path);
                user->first_recorded = true;
            }
            SendHistoryLogInfo(record);
            user->first_recorded = false;
            RSYSLOG_LOG(PRIO_TRACE, "recordtext is : %s", text);
            continue;
        }
        record.stamp = line;
        // A stamp at the end, or before another stamp, has an empty command.
        if (i + 1 < lines.size() && !HistoryFindTimestamp(lines[i + 1])) {
            ++i;
            if (HistoryFindWhiteCmd(lines[i])) {
                continue;
            }
            record.cmd = lines[i];
        }
        history_list.push_back(record);
        RSYSLOG_LOG(PRIO_TRACE, "recordtext is : %s", prefix + record.stamp + " cmd:" + record.cmd);
    }
}

void RsyslogTask::CheckHistoryReport() {
    char host_name[kHostNameSize] = {};
    if (gethostname(host_name, sizeof(host_name) - 1) != 0) {
        const int error = SDK::memcpy_s(host_name, sizeof(host_name), "localhost", 9);
        if (error != 0) {
            RSYSLOG_LOG(PRIO_ERROR, "memcpy_s failed, err %d", error);
            return;
        }
    }
    // One round, unless memory runs out: each frees some for the next.
    for (bool more = true; more;) {
        std::size_t count = history_list.size();
        if (static_cast<std::int64_t>(count) >= rsyslog_policy.his_count &&
            state() != TASK_CANCELLING) {
            // What is suppressed is the same; only the trace lines tell of every pair.
            if (TraceIsOn()) {
                PaceHistoryByPairs();
            } else {
                count = PaceHistory();
            }
        }
        std::string text = ReportQueued(count, host_name);
        more = !text.empty() && !history_list.empty() && state() != TASK_CANCELLING;
        if (!text.empty()) {
            HistoryWriteLog(std::move(text), rsyslog_policy.history_log_path);
        }
    }
    if (state() == TASK_CANCELLING) {
        history_list.clear();
    }
}

std::string RsyslogTask::ReportQueued(std::size_t count, const std::string& host_name) {
    std::string text;
    for (; count > 0 && state() != TASK_CANCELLING; --count, history_list.pop_front()) {
        const history_info& record = history_list.front();
        if (!record.need_report) {
            continue;
        }
        const std::size_t before = text.size();
        try {
            text += record.time + host_name + " " + record.user + " " + record.stamp +
                    " cmd:" + record.cmd + "\n";
            SendHistoryLogInfo(record);
        } catch (const std::exception& e) {
            // What is sent is not sent again, the rest waits for the next cycle. A command that
            // even comes first and fails is given up.
            text.resize(before);
            if (text.empty()) {
                history_list.pop_front();
            }
            RSYSLOG_LOG(PRIO_ERROR, "commands lost: %d, to be reported later: %?d: %s",
                        text.empty() ? 1 : 0, history_list.size(), std::string(e.what()));
            CutHistory();
            break;
        }
    }
    return text;
}

void RsyslogTask::PaceHistoryByPairs() {
    const auto interval = static_cast<std::uint32_t>(rsyslog_policy.his_interval);
    for (auto earlier = history_list.begin();
         earlier != history_list.end() && state() != TASK_CANCELLING; ++earlier) {
        const std::int64_t this_time = LogtimeToInt(earlier->stamp);
        for (auto later = std::next(earlier);
             later != history_list.end() && state() != TASK_CANCELLING; ++later) {
            if (!later->need_report) {
                continue;
            }
            const std::int64_t next_time = LogtimeToInt(later->stamp);
            const std::uint64_t split = Distance(this_time, next_time);
            RSYSLOG_LOG(PRIO_TRACE, "ithis_time %lu ,next_time %lu ,split_time %lu",
                        static_cast<unsigned long>(this_time),
                        static_cast<unsigned long>(next_time), static_cast<unsigned long>(split));
            if (split < interval) {
                later->need_report = false;
                RSYSLOG_LOG(PRIO_TRACE, "not report cmd %s", later->cmd);
            }
        }
    }
}

std::size_t RsyslogTask::PaceHistory() {
    const auto interval = static_cast<std::uint32_t>(rsyslog_policy.his_interval);
    std::set<std::int64_t> earlier;
    std::size_t paced = 0;
    for (history_info& record : history_list) {
        if (state() == TASK_CANCELLING) {
            break;
        }
        const std::int64_t time = LogtimeToInt(record.stamp);
        // If any earlier time is near enough, one of the two neighbours is.
        const auto above = earlier.lower_bound(time);
        if ((above != earlier.end() && Distance(*above, time) < interval) ||
            (above != earlier.begin() && Distance(*std::prev(above), time) < interval)) {
            record.need_report = false;
        }
        ++paced;
        try {
            earlier.insert(above, time);
        } catch (const std::bad_alloc&) {
            RSYSLOG_LOG(PRIO_ERROR, "out of memory, commands to be reported later: %?d",
                        history_list.size() - paced);
            CutHistory();
            break;
        }
    }
    return paced;
}

void RsyslogTask::SendHistoryLogInfo(const history_info& record) {
    if (!rsyslog_policy.up_history) {
        return;
    }
    if (record.stamp.empty() || record.cmd.empty() || record.user.empty()) {
        return;
    }
    Json::Value report;
    report["user"] = record.user;
    report["time"] = static_cast<Json::Int64>(LogtimeToInt(record.stamp) / 1000);
    report["cmd"] = record.cmd;
    std::string message = SDK::JsonUtils::JsonToString(report);
    RSYSLOG_LOG(PRIO_TRACE, "history message is [%s]", message);
    SendDirectMsg(kReportTask,
                  std::make_shared<Framework::DataMessage>(kCommandType, std::move(message)));
}

}  // namespace Engine
