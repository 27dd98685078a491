#include <boost/algorithm/string/predicate.hpp>

#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kMaxConfSize = 10485760;

// The module's block in a file of the administrator's lies between these.
const std::string kBlockBegin = "######WATCHPOST SYSLOGNG CONFIG BEGIN######\n\n";
const std::string kBlockEnd = "######WATCHPOST SYSLOGNG CONFIG END######\n\n";

// A file that holds the block, and where it is kept as it is without.
struct MarkedFile {
    std::string name;  // in messages
    std::string path;
    std::string backup;
};

const MarkedFile kConf = {"syslog-ng.conf", "/etc/syslog-ng/syslog-ng.conf",
                          "/usr/local/watchpost/conf/syslog-ng.conf.watchpostbak"};
const MarkedFile kProfile = {"sbin.syslog-ng", "/etc/apparmor.d/sbin.syslog-ng",
                             "/usr/local/watchpost/conf/sbin.syslog-ng.watchpostbak"};

bool Read(const MarkedFile& file, std::string& text) {
    if (SDK::FileUtils::ReadFile(file.path, text, kMaxConfSize) != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "read %s failed.", file.name);
        return false;
    }
    return true;
}

bool Write(const MarkedFile& file, const std::string& text) {
    if (SDK::FileUtils::WriteFile(file.path, text, false) != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "write %s failed.", file.name);
        return false;
    }
    return true;
}

// Copies the file, its block removed, to its backup and reads it into `text`.
bool BackUpAndRead(const MarkedFile& file, std::string& text) {
    if (SDK::FileUtils::SafeCopyFile(file.path, file.backup, kMaxConfSize) != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "backup %s failed.", file.name);
        return false;
    }
    return Read(file, text);
}

// Takes everything from the first begin marker to the last end marker out of `text`; false, with
// `text` unchanged, when one is missing. An end before the begin leaves what lies between twice.
bool CutBlock(std::string& text) {
    const std::size_t begin = text.find(kBlockBegin);
    if (begin == std::string::npos) {
        RSYSLOG_LOG(PRIO_TRACE, "not find str: %s", kBlockBegin);
        return false;
    }
    RSYSLOG_LOG(PRIO_TRACE, "find str beginpos: %d", static_cast<int>(begin));
    const std::size_t end = text.rfind(kBlockEnd);
    if (end == std::string::npos) {
        RSYSLOG_LOG(PRIO_TRACE, "not find str: %s", kBlockEnd);
        return false;
    }
    RSYSLOG_LOG(PRIO_TRACE, "find str endpos: %d, len %d, allsize %?d", static_cast<int>(end),
                static_cast<int>(kBlockEnd.size()), text.size());
    text = text.substr(0, begin) + text.substr(end + kBlockEnd.size());
    return true;
}

}  // namespace

void RsyslogTask::GenerateSyslogngConfContent(int destination, int source, std::string& out) {
    out.clear();
    if (rsyslog_policy.log_path.empty()) {
        return;
    }
    out += kBlockBegin;
    for (const path_port& entry : rsyslog_policy.log_path) {
        const std::string source_name = "watchpost_src" + std::to_string(++source);
        out += "#userdef\n";
        out += "source " + source_name + " {\n\tfile(\"" + entry.path +
               "\" follow-freq(10) flags(no-parse));\n};\n";
        out += "#userdef\n\n";
        for (const std::string& server : entry.servers) {
            const std::string destination_name = "watchpost_server" + std::to_string(++destination);
            out += "destination " + destination_name + " { " + rsyslog_policy.server_type + "(\"" +
                   server + "\" port(" + entry.port + ")); };\n\n";
            out +=
                "log { source(" + source_name + "); destination(" + destination_name + "); };\n\n";
        }
    }
    out += kBlockEnd;
}

bool RsyslogTask::DeleteSyslogngWatchpostConf() {
    std::string text;
    if (!Read(kConf, text)) {
        return false;
    }
    return !CutBlock(text) || Write(kConf, text);
}

bool RsyslogTask::OverWriteSyslogngConf() {
    if (!boost::starts_with(rsyslog_policy.server_type, "tcp") &&
        !boost::starts_with(rsyslog_policy.server_type, "udp")) {
        RSYSLOG_LOG(PRIO_ERROR, "server_type not tcp or udp, %s", rsyslog_policy.server_type);
        return false;
    }
    std::string block;
    GenerateSyslogngConfContent(0, 0, block);
    RSYSLOG_LOG(PRIO_TRACE, "all msg: %s", block);
    std::string text;
    return DeleteSyslogngWatchpostConf() && BackUpAndRead(kConf, text) &&
           Write(kConf, text + block);
}

bool RsyslogTask::DeleteSyslogngReadAuditConf() {
    std::string text;
    if (!Read(kProfile, text)) {
        return false;
    }
    if (!CutBlock(text)) {
        return true;
    }
    RSYSLOG_LOG(PRIO_TRACE, "after delete readaudit: %s", text);
    return Write(kProfile, text);
}

bool RsyslogTask::OverWriteSyslogngReadAuditConf() {
    std::string text;
    if (!DeleteSyslogngReadAuditConf() || !BackUpAndRead(kProfile, text)) {
        return false;
    }
    const std::size_t brace = text.rfind('}');
    if (brace == std::string::npos) {
        RSYSLOG_LOG(PRIO_ERROR, "not find }");
        return false;
    }
    text.resize(brace);
    if (!rsyslog_policy.log_path.empty()) {
        text += kBlockBegin;
        for (const path_port& entry : rsyslog_policy.log_path) {
            text += "  " + entry.path + " r,\n";
        }
        text += kBlockEnd;
    }
    text += "}\n";
    RSYSLOG_LOG(PRIO_TRACE, "write all: %s", text);
    return Write(kProfile, text);
}

}  // namespace Engine
