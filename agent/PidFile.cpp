#include "agent/PidFile.h"

#include <sysexits.h>
#include <unistd.h>

#include <cstring>

#include "agent/StartError.h"
#include "sdk/FileUtils.h"

PidFile::PidFile(const std::string& path) : path_(path), text_(std::to_string(getpid()) + "\n") {
    if (path_.empty()) {
        return;
    }
    const int error = SDK::FileUtils::WriteFile(path_, text_, false);
    if (error != 0) {
        throw StartError{EX_CANTCREAT, "pidfile " + path_ + ": " + std::strerror(error)};
    }
}

PidFile::~PidFile() {
    std::string text;
    if (!path_.empty() && SDK::FileUtils::ReadFile(path_, text, text_.size()) == 0 &&
        text == text_) {
        unlink(path_.c_str());
    }
}
