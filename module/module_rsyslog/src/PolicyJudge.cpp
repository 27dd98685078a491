#include "module/module_rsyslog/src/PolicyJudge.h"

#include <arpa/inet.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <map>
#include <set>
#include <utility>

#include "module/module_rsyslog/src/RsyslogPolicy.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kMostRsyslogFiles = 7;
constexpr unsigned long kMaxPort = 65535;

const char* const kNameCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
// What ends or begins a word, a text or a block in one daemon's configuration or the other's.
const char* const kBlanksQuotesBrackets = " \"'`\\(){}<>[]";

bool Holds(const std::string& text, const char* characters) {
    return text.find_first_of(characters) != std::string::npos;
}

// ASCII's control characters, and those behind it, U+0080 to U+009F.
bool HoldsControl(const std::string& text, bool but_tab) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte < 0x20 && !(but_tab && byte == '\t')) || byte == 0x7F) {
            return true;
        }
        if (byte == 0xC2 && i + 1 < text.size() &&
            static_cast<unsigned char>(text[i + 1]) - 0x80U < 0x20U) {
            return true;
        }
    }
    return false;
}

bool IsPort(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const std::size_t first = text.find_first_not_of('0');
    return first != std::string::npos && text.size() - first <= 5 &&
           std::stoul(text.substr(first)) <= kMaxPort;
}

bool IsIpv6(const std::string& text) {
    in6_addr address = {};
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool IsBracketedIpv6(const std::string& text) {
    return text.size() > 2 && text.front() == '[' && text.back() == ']' &&
           IsIpv6(text.substr(1, text.size() - 2));
}

std::vector<Placed> GetTexts(const Json::Value& content, const char* key) {
    std::vector<Placed> texts;
    Json::Value array;
    if (SDK::JsonUtils::GetArrayValue(content, key, array)) {
        for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
            if (array[i].isString()) {
                texts.push_back({std::string("content.") + key + "[" + std::to_string(i) + "]",
                                 array[i].asString()});
            }
        }
    }
    return texts;
}

class Judge {
public:
    Judge(const Json::Value& document, DaemonKind kind, Findings& findings)
        : kind_(kind), findings_(findings), wanted_(GetForwarding(document)) {
        SDK::JsonUtils::GetSubobjectValue(document, "content", content_);
    }

    void Texts(const Json::Value& value, const std::string& key) {
        if (value.isString()) {
            if (HoldsControl(value.asString(), boost::starts_with(key, "content.white_list["))) {
                findings_.Refuse(key, "holds a control character", "take it out");
            }
        } else if (value.isArray()) {
            for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
                Texts(value[i], key + "[" + std::to_string(i) + "]");
            }
        } else if (value.isObject()) {
            for (const auto& name : value.getMemberNames()) {
                Texts(value[name], key.empty() ? name : key + "." + name);
            }
        }
    }

    void Forwarding() {
        ServerType();
        for (const Placed& entry : GetTexts(content_, "log_path")) {
            path_port split;
            if (!SplitLogPath(entry.text, split)) {
                findings_.Fail(entry.key, "names no port, and the file is passed over",
                               "write FILE:PORT");
            }
        }
        std::set<std::string> seen;
        for (const Placed& server : wanted_.servers) {
            Server(server, seen.insert(server.text).second);
        }
        Files();
        if (wanted_.files.empty() && !wanted_.servers.empty()) {
            findings_.Warn("content.log_path", "names no file: nothing is forwarded",
                           "name files, or leave the servers out");
        } else if (!wanted_.files.empty() && wanted_.servers.empty()) {
            findings_.Warn("content.server",
                           "names no server: nothing is forwarded, and what an "
                           "earlier policy forwards goes on",
                           "name one");
        }
    }

    void Collecting() {
        using SDK::JsonUtils::GetBoolValue;
        const bool history = GetBoolValue(content_, "get_history", false);
        if (history && SDK::JsonUtils::GetIntValue(content_, "history_size", 10) == 0) {
            findings_.Warn("content.history_size", "0 stops the collection of commands",
                           "give it a size in MiB");
        }
        for (const auto& [get, up] :
             {std::pair{"get_history", "up_history"}, std::pair{"get_lastlog", "up_lastlog"}}) {
            if (GetBoolValue(content_, up, false) && !GetBoolValue(content_, get, false)) {
                findings_.Warn(std::string("content.") + up,
                               std::string("does nothing without ") + get,
                               std::string("set ") + get + " to true as well");
            }
        }
    }

private:
    // Of one daemon: what it is to the host that runs this one, or, on paper, a warning that names
    // the daemon.
    void Of(DaemonKind kind, bool breaks, const std::string& key, const std::string& problem,
            const std::string& advice) {
        if (kind_ == DaemonKind::kNone) {
            findings_.Warn(key, std::string("with ") + Name(kind) + ": " + problem, advice);
        } else if (kind_ == kind && breaks) {
            findings_.Fail(key, problem, advice);
        } else if (kind_ == kind) {
            findings_.Warn(key, problem, advice);
        }
    }

    void ServerType() {
        const std::string& type = wanted_.server_type;
        const std::string key = "content.server_type";
        const bool known = boost::starts_with(type, "tcp") || boost::starts_with(type, "udp");
        if (known && Holds(type.substr(3), kBlanksQuotesBrackets)) {
            findings_.Refuse(key, "holds a blank, a quote or a bracket", "write udp");
        }
        if (wanted_.files.empty()) {
            return;
        }
        if (!known) {
            findings_.Fail(key,
                           "\"" + type +
                               "\" is neither udp nor tcp: nothing is forwarded, and "
                               "rsyslog's forwarding is taken away",
                           "write udp");
            return;
        }
        if (boost::starts_with(type, "tcp")) {
            findings_.Warn(key,
                           "over tcp every server counts as unreachable: none is configured, and "
                           "what an earlier policy forwards goes on",
                           "write udp");
        } else if (type != "udp" && type != "udp6") {
            Of(DaemonKind::kSyslogng, true, key,
               "\"" + type + "\" is no driver: the daemon may not start any more", "write udp");
        }
    }

    void Server(const Placed& server, bool first) {
        const std::string& text = server.text;
        if (!first) {
            findings_.Warn(server.key, "is listed twice, and used once", "take one out");
        } else if (text.empty()) {
            findings_.Fail(server.key, "is empty", "name a server");
        } else if (IsBracketedIpv6(text)) {
            Of(DaemonKind::kSyslogng, true, server.key,
               "an address in brackets is taken for a name: nothing arrives there",
               "write the address without brackets");
        } else if (IsIpv6(text)) {
            Of(DaemonKind::kRsyslog, true, server.key,
               "an IPv6 address without brackets is cut at its first colon: nothing arrives there",
               "write [" + text + "]");
            if (wanted_.server_type == "udp") {
                Of(DaemonKind::kSyslogng, true, server.key,
                   "an IPv6 address needs another driver: nothing arrives there",
                   "set server_type to udp6");
            }
        } else if (Holds(text, kBlanksQuotesBrackets)) {
            findings_.Refuse(server.key, "holds a blank, a quote or a bracket",
                             "write a name or an address");
        } else if (text.find_first_not_of(kNameCharacters) != std::string::npos) {
            findings_.Fail(server.key,
                           "is neither a name nor an address: nothing arrives where it should",
                           text.find(':') != std::string::npos
                               ? "the port stands in log_path: name the server only"
                               : "write a name or an address");
        }
    }

    void Files() {
        std::map<std::string, const WantedForwarding::File*> paths;  // the first of each
        std::map<std::string, std::string> ports;
        std::size_t number = 0;
        for (const auto& file : wanted_.files) {
            Path(file);
            Port(file);
            if (++number == kMostRsyslogFiles + 1) {
                Of(DaemonKind::kRsyslog, false, file.place.key,
                   "is the eighth file: it and those behind it are not forwarded",
                   "leave seven at most");
            }
            if (const auto [same, added] = paths.emplace(file.path, &file); !added) {
                Twice(file, *same->second);
            } else if (const auto [port, other] = ports.emplace(file.port, file.place.key);
                       !other && !wanted_.servers.empty()) {
                Of(DaemonKind::kSyslogng, true, file.place.key,
                   "goes to the same server and port as " + port->second +
                       ", and the daemon does not start with two such destinations",
                   "give each file a port of its own");
            }
        }
    }

    void Twice(const WantedForwarding::File& file, const WantedForwarding::File& first) {
        const std::string again = "is the file of " + first.place.key + " again, and ";
        Of(DaemonKind::kSyslogng, true, file.place.key,
           again + "the daemon does not start with a file twice", "take one out");
        Of(DaemonKind::kRsyslog, file.port != first.port, file.place.key,
           again + "only the first is read", "take one out");
    }

    void Path(const WantedForwarding::File& file) {
        const std::string& path = file.path;
        const std::string& key = file.place.key;
        if (Holds(path, "\"\\")) {
            findings_.Refuse(key, "holds a quote or a backslash", "rename the file");
            return;
        }
        if (path.front() != '/') {
            findings_.Warn(key, "is no absolute path: the daemon looks for it where it was started",
                           "begin it with /");
        }
        if (Holds(path, "*?")) {
            findings_.Warn(key, "is a pattern: every file that it matches is forwarded",
                           "name each file, unless you mean that");
        } else if (Holds(path, "[{")) {
            Of(DaemonKind::kRsyslog, false, key,
               "is a pattern: every file that it matches is forwarded",
               "name each file, unless you mean that");
        }
        if (Holds(path, "`")) {
            Of(DaemonKind::kSyslogng, true, key,
               "holds a backtick: the daemon puts something else in its place, or does not start "
               "any "
               "more",
               "rename the file");
        }
        if (path.front() != '/' || Holds(path, " !{}[]") || path.back() == ',') {
            Of(DaemonKind::kSyslogng, true, key,
               "makes the daemon's AppArmor profile one that does not compile, or allows something "
               "else",
               "rename the file");
        }
    }

    void Port(const WantedForwarding::File& file) {
        const std::string& port = file.port;
        const std::string& key = file.place.key;
        static const std::string kNoStart =
            ": nothing arrives where it should, and syslog-ng may not start any more";
        const std::string no_port = "\"" + port + "\" is no port from 1 to 65535";
        const std::size_t digits = std::min(port.find_first_not_of("0123456789"), port.size());
        if (Holds(port, kBlanksQuotesBrackets)) {
            findings_.Refuse(key, "has a blank, a quote or a bracket in its port",
                             "write FILE:PORT");
        } else if (IsPort(port.substr(0, digits)) && digits < port.size() && !Holds(port, ";")) {
            Of(DaemonKind::kSyslogng, true, key, no_port + kNoStart, "write FILE:PORT");
            Of(DaemonKind::kRsyslog, false, key, no_port + ", and is cut behind its digits",
               "write FILE:PORT");
        } else if (!IsPort(port)) {
            findings_.Fail(
                key,
                no_port + (kind_ == DaemonKind::kRsyslog ? ": nothing arrives where it should"
                                                         : kNoStart),
                "write FILE:PORT");
        }
    }

    const DaemonKind kind_;
    Findings& findings_;
    const WantedForwarding wanted_;
    Json::Value content_;
};

}  // namespace

bool MayBeName(const std::string& server) {
    in_addr address = {};
    return !server.empty() && server.find_first_not_of(kNameCharacters) == std::string::npos &&
           inet_aton(server.c_str(), &address) == 0;
}

WantedForwarding GetForwarding(const Json::Value& document) {
    WantedForwarding wanted;
    Json::Value content;
    SDK::JsonUtils::GetSubobjectValue(document, "content", content);
    wanted.server_type = SDK::JsonUtils::GetStringValue(content, "server_type", "");
    wanted.servers = GetTexts(content, "server");
    for (const Placed& entry : GetTexts(content, "log_path")) {
        path_port split;
        if (SplitLogPath(entry.text, split)) {
            wanted.files.push_back({entry, split.path, split.port});
        }
    }
    return wanted;
}

bool JudgeSyntax(const std::string& text, Json::Value& document, Findings& findings) {
    std::string why;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), document, &why) != 0) {
        findings.Fail("", "is not JSON, and is refused: " + why, "mend it there");
        return false;
    }
    return true;
}

void JudgeSettings(const Json::Value& document, DaemonKind kind, Findings& findings) {
    Judge judge(document, kind, findings);
    judge.Texts(document, "");
    judge.Forwarding();
    judge.Collecting();
}

}  // namespace Engine
