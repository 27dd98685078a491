#include "module/module_rsyslog/src/RsyslogInclude.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

#include "sdk/FileUtils.h"

namespace Engine {

namespace {

const char* const kIncludeDirectives[] = {"$IncludeConfig", "include(file=\""};
constexpr std::size_t kDirectiveLength = 14;  // of both
constexpr std::size_t kLineSize = 1024;

using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

Stream Open(const std::string& conf) {
    return {SDK::FileUtils::OpenStream(conf), &std::fclose};
}

// The next line that includes others, from behind its directive; null when there is none. `line` is
// the buffer the file is read with.
const char* FindInclude(std::FILE* conf, std::vector<char>& line) {
    while (std::fgets(line.data(), static_cast<int>(line.size()), conf) != nullptr) {
        const char first = line[0];
        if (first == '\0' || first == '#' || std::isspace(static_cast<unsigned char>(first)) != 0) {
            continue;
        }
        line[std::strlen(line.data()) - 1] = '\0';
        for (const char* directive : kIncludeDirectives) {
            if (std::strncmp(line.data(), directive, kDirectiveLength) == 0) {
                return line.data() + kDirectiveLength;
            }
        }
    }
    return nullptr;
}

// Copies the text up to the first '*' to `out`, white space before it skipped; false when there is
// no text at all. Nothing before the '*' leaves `out` as it was.
bool ScanDirectory(const char* text, char* out, std::size_t size) {
    while (std::isspace(static_cast<unsigned char>(*text)) != 0) {
        ++text;
    }
    if (*text == '\0') {
        return false;
    }
    if (const std::size_t length = std::min(std::strcspn(text, "*"), size - 1); length > 0) {
        std::memcpy(out, text, length);
        out[length] = '\0';
    }
    return true;
}

}  // namespace

Include FindIncludeDirectory(char* out, int size) {
    const Stream conf = Open(kRsyslogConf);
    if (conf == nullptr) {
        return Include::kUnreadable;
    }
    std::vector<char> line(static_cast<std::size_t>(size));
    const char* include = FindInclude(conf.get(), line);
    if (include == nullptr) {
        return Include::kMissing;
    }
    return ScanDirectory(include, out, line.size()) ? Include::kFound : Include::kEmpty;
}

std::vector<std::string> FindIncludeDirectories(const std::string& conf) {
    std::vector<std::string> directories;
    const Stream stream = Open(conf);
    std::vector<char> line(kLineSize);
    while (stream != nullptr) {
        const char* include = FindInclude(stream.get(), line);
        if (include == nullptr) {
            break;
        }
        char directory[kLineSize] = {};
        if (ScanDirectory(include, directory, kLineSize) &&
            std::find(directories.begin(), directories.end(), directory) == directories.end()) {
            directories.emplace_back(directory);
        }
    }
    return directories;
}

}  // namespace Engine
