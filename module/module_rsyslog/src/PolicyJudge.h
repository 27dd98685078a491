#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "module/module_rsyslog/src/Findings.h"
#include "module/module_rsyslog/src/SyslogDaemon.h"

namespace Engine {

// A text of an array of the document that takes part, with the path of its place.
struct Placed {
    std::string key;  // content.server[1]
    std::string text;
};

// What a document wants forwarded, as far as it can be read.
struct WantedForwarding {
    struct File {
        Placed place;
        std::string path;
        std::string port;
    };
    std::string server_type;
    std::vector<Placed> servers;
    std::vector<File> files;  // those with a port
};

// Whether a server is given by name, to be looked up.
bool MayBeName(const std::string& server);

// The forwarding that the document asks for.
WantedForwarding GetForwarding(const Json::Value& document);

// Reads a document; what does not parse is a finding, with its line, and the result false.
bool JudgeSyntax(const std::string& text, Json::Value& document, Findings& findings);

// What the texts of a document do to the configuration of a daemon, and which settings thwart each
// other. Where `kind` is none, for both daemons, and what concerns one of them names it.
void JudgeSettings(const Json::Value& document, DaemonKind kind, Findings& findings);

// What this host, with `daemon`, lacks for the document: the daemon and its configuration, files,
// names. And what it has too much of: lines that come around again. Waits three seconds at most for
// names, less at a stop of the engine.
void JudgeHost(const Json::Value& document, const SyslogDaemon& daemon, Findings& findings);

}  // namespace Engine
