#include <boost/algorithm/string/predicate.hpp>
#include <filesystem>
#include <system_error>

#include "framework/Log.h"
#include "module/module_rsyslog/src/ForwardingHealth.h"
#include "module/module_rsyslog/src/MarkedBlock.h"
#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

bool Read(const MarkedFile& file, std::string& text) {
    if (SDK::FileUtils::ReadFile(file.path, text, kMaxConfSize) != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "read %s failed.", file.name);
        return false;
    }
    return true;
}

// `done`: what that means, for the agent's log.
bool Write(const MarkedFile& file, const std::string& text, const std::string& done) {
    if (SDK::FileUtils::WriteFile(file.path, text, false) != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "write %s failed.", file.name);
        return false;
    }
    Framework::Log().information(done + file.path);
    return true;
}

const char* const kTakenOut = "the forwarding was taken out of ";
const char* const kPutIn = "the forwarding was put into ";

// Copies the file, its block removed, to its backup and reads it into `text`.
bool BackUpAndRead(const MarkedFile& file, std::string& text) {
    std::error_code error;  // the copy tells
    std::filesystem::create_directories(std::filesystem::path(file.backup).parent_path(), error);
    if (SDK::FileUtils::SafeCopyFile(file.path, file.backup, kMaxConfSize) != 0) {
        RSYSLOG_LOG(PRIO_ERROR, "backup %s failed.", file.name);
        return false;
    }
    return Read(file, text);
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
    if (!Read(kSyslogngConf, text)) {
        return false;
    }
    return !CutBlock(text) || Write(kSyslogngConf, text, kTakenOut);
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
    if (!DeleteSyslogngWatchpostConf() || !BackUpAndRead(kSyslogngConf, text) ||
        !Write(kSyslogngConf, text + block, kPutIn)) {
        return false;
    }
    ForwardingHealth::Instance().Wrote(kSyslogngConf.path);
    return true;
}

bool RsyslogTask::DeleteSyslogngReadAuditConf() {
    std::string text;
    if (!Read(kSyslogngProfile, text)) {
        return false;
    }
    if (!CutBlock(text)) {
        return true;
    }
    RSYSLOG_LOG(PRIO_TRACE, "after delete readaudit: %s", text);
    return Write(kSyslogngProfile, text, kTakenOut);
}

bool RsyslogTask::OverWriteSyslogngReadAuditConf() {
    std::string text;
    if (!DeleteSyslogngReadAuditConf() || !BackUpAndRead(kSyslogngProfile, text)) {
        return false;
    }
    if (!AddProfileBlock(rsyslog_policy.log_path, text)) {
        RSYSLOG_LOG(PRIO_ERROR, "not find }");
        return false;
    }
    RSYSLOG_LOG(PRIO_TRACE, "write all: %s", text);
    return Write(kSyslogngProfile, text, kPutIn);
}

}  // namespace Engine
