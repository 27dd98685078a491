#pragma once

#include <list>
#include <string>

#include "module/module_rsyslog/src/RsyslogPolicy.h"

namespace Engine {

// A file of the administrator's that holds a block of the module's between two marker lines, and
// where it is kept as it is without.
struct MarkedFile {
    std::string name;  // in messages
    std::string path;
    std::string backup;
};

extern const MarkedFile kSyslogngConf;
extern const MarkedFile kSyslogngProfile;

constexpr std::size_t kMaxConfSize = 10485760;  // bytes

extern const std::string kBlockBegin;
extern const std::string kBlockEnd;

// Takes everything from the first begin marker to the last end marker out of `text`; false, with
// `text` unchanged, when one is missing. An end before the begin leaves what lies between twice.
bool CutBlock(std::string& text);

// Puts the block for the files before the last "}" of a profile, in place of what follows that;
// false, with `text` unchanged, when there is none.
bool AddProfileBlock(const std::list<path_port>& files, std::string& text);

}  // namespace Engine
