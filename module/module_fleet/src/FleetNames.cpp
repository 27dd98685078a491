#include "module/module_fleet/src/FleetNames.h"

namespace Fleet {

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

bool IsPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
}

}  // namespace

std::string Escape(const std::string& name) {
    std::string token;
    for (const char c : name) {
        if (IsPlain(c)) {
            token += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            token += {'=', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return token;
}

bool Unescape(const std::string& token, std::string& name) {
    std::string plain;
    for (std::size_t at = 0; at < token.size(); ++at) {
        if (token[at] == '=' && at + 2 < token.size()) {
            const std::size_t high = std::string(kDigits).find(token[at + 1]);
            const std::size_t low = std::string(kDigits).find(token[at + 2]);
            plain += static_cast<char>((high & 15) << 4 | (low & 15));
            at += 2;
        } else {
            plain += token[at];
        }
    }
    if (plain.empty() || Escape(plain) != token) {
        return false;
    }
    name = plain;
    return true;
}

std::string Readable(const std::string& key) {
    const std::size_t dot = key.find('.');
    std::string name;
    return dot != std::string::npos && Unescape(key.substr(dot + 1), name)
               ? key.substr(0, dot + 1) + name
               : key;
}

std::string SubjectOfPolicy(const std::string& key) {
    return std::string("$KV.") + kPolicyBucket + "." + key;
}

std::string SubjectOfHost(const std::string& host) {
    return std::string("$KV.") + kHostBucket + "." + Escape(host);
}

std::string SubjectOfHosts() {
    return std::string("$KV.") + kHostBucket + ".>";
}

}  // namespace Fleet
