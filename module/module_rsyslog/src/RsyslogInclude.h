#pragma once

#include <string>
#include <vector>

namespace Engine {

constexpr const char* kRsyslogConf = "/etc/rsyslog.conf";
// The name of the file that is written into rsyslog's include directory.
constexpr const char* kRsyslogIncludeFile = "watchpost_rsyslog.conf";

enum class Include {
    kUnreadable,  // the configuration cannot be opened, errno tells why
    kMissing,     // it includes nothing
    kEmpty,       // its first include line names nothing
    kFound,
};

// What rsyslog's first include line names up to its "*", so its include directory with the trailing
// slash as a rule, into `out` of `size` bytes; a line that begins with the "*" leaves `out` as it
// is.
Include FindIncludeDirectory(char* out, int size);

// The same of every include line of a configuration, each once.
std::vector<std::string> FindIncludeDirectories(const std::string& conf = kRsyslogConf);

}  // namespace Engine
