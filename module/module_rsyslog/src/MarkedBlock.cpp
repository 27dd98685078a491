#include "module/module_rsyslog/src/MarkedBlock.h"

#include "module/module_rsyslog/src/RsyslogLog.h"
#include "module/module_rsyslog/src/RsyslogTask.h"

namespace Engine {

const MarkedFile kSyslogngConf = {"syslog-ng.conf", "/etc/syslog-ng/syslog-ng.conf",
                                  "/usr/local/watchpost/conf/syslog-ng.conf.watchpostbak"};
const MarkedFile kSyslogngProfile = {"sbin.syslog-ng", "/etc/apparmor.d/sbin.syslog-ng",
                                     "/usr/local/watchpost/conf/sbin.syslog-ng.watchpostbak"};

const std::string kBlockBegin = "######WATCHPOST SYSLOGNG CONFIG BEGIN######\n\n";
const std::string kBlockEnd = "######WATCHPOST SYSLOGNG CONFIG END######\n\n";

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

bool AddProfileBlock(const std::list<path_port>& files, std::string& text) {
    const std::size_t brace = text.rfind('}');
    if (brace == std::string::npos) {
        return false;
    }
    text.resize(brace);
    if (!files.empty()) {
        text += kBlockBegin;
        for (const path_port& entry : files) {
            text += "  " + entry.path + " r,\n";
        }
        text += kBlockEnd;
    }
    text += "}\n";
    return true;
}

}  // namespace Engine
