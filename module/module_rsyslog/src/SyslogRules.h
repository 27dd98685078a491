#pragma once

#include <array>
#include <set>
#include <string>
#include <vector>

namespace Engine {

// Whether something happens to a message, as far as its configuration can be read.
enum class Takes { kNo, kPerhaps, kYes };

// A place in the daemon's configuration: "/etc/rsyslog.conf, line 52".
struct ConfPlace {
    std::string file;
    int line = 0;
    std::string text;  // of the statement, at most a hundred bytes
};

// An action of rsyslog's default ruleset that writes a file.
struct FileRule {
    std::string file;
    ConfPlace place;
    std::array<Takes, 8> takes;  // messages of local0 to local7 that are of severity debug
};

// What rsyslog's configuration says of files, with those that it includes, but for the one that the
// agent writes. Selectors are read as the daemon does; of conditions it is known only that they may
// hold. What cannot be read is passed over, as is what is behind 32 MiB, 1000 files or eight
// includes in each other. Linear in the length of the texts.
struct RsyslogRules {
    std::vector<FileRule> files;  // in the order in which a message meets them
    std::vector<ConfPlace> imfile_loads;
    bool reads_own = false;   // the file that the agent writes is among those included
    ConfPlace other_default;  // makes another ruleset the default one; a line of 0: none does
    bool whole = true;        // nothing was left out for its size, number or depth
    // For local0 to local7: where the message is stopped, or may be, before it is forwarded; a line
    // of 0 where it is not.
    std::array<ConfPlace, 8> stopped_before;

    static RsyslogRules Read(const std::string& conf);
};

// What becomes of lines that are forwarded from a file.
struct Return {
    enum Kind {
        kNone,     // the daemon does not write the file
        kCopied,   // it does; the lines enter the daemon a second time, and not this file again
        kPerhaps,  // they may come around again
        kLoops,    // they come around again, without end
    };
    Kind kind = kNone;
    const FileRule* rule = nullptr;  // by which they do, one of `rules`; null when none is known
};

// For each forwarded file, in their order, of which the first seven are local1 to local7. `open`:
// the files that the daemon has open for writing.
std::vector<Return> FindReturns(const RsyslogRules& rules, const std::vector<std::string>& files,
                                const std::set<std::string>& open);

// The regular files that the process has open for writing; none where that may not be seen.
std::set<std::string> FilesWrittenBy(int process);

// The path that a file goes by, links resolved as far as it exists.
std::string CanonicalPath(const std::string& path);

// Whether one of syslog-ng's log statements, in its configuration or in conf.d beside it, takes
// messages of every source.
bool HasCatchAll(const std::string& conf);

}  // namespace Engine
