#pragma once

#include <string>
#include <vector>

namespace Framework {

// A file of the host's as it is and as it would become.
struct FileChange {
    std::string path;
    bool existed = false;
    bool remains = true;  // false: it would be removed
    std::string before;
    std::string after;
};

// What a program of the host's says of files that are not in place yet.
struct Verdict {
    std::string command;
    bool asked = false;  // false: it could not be asked, `words` tell why
    bool accepted = false;
    std::string words;  // lines
};

// What is done to the host: planned, or done already.
struct HostChange {
    std::vector<FileChange> files;
    std::vector<std::string> commands;  // in their order, behind the files
    std::vector<Verdict> verdicts;
};

// One thing on the host that goes well or does not: {"rsyslog", true, "runs as process 77, ..."}.
struct Condition {
    std::string subject;
    bool good = true;
    std::string text;
};

}  // namespace Framework
