#include "sdk/LineFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace SDK {

int LineFile::Open() {
    constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    constexpr mode_t kMode = 0640;
    struct stat status = {};
    int error = file_.Reset(open(path_.c_str(), kFlags, kMode));
    if (error == 0 && fstat(file_.Get(), &status) != 0) {
        error = errno;
    }
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = EINVAL;
    }
    if (error != 0) {
        file_.Reset(-1);
        return error;
    }
    char last = '\n';
    const off_t end = status.st_size - 1;
    torn_ = end >= 0 && pread(file_.Get(), &last, 1, end) == 1 && last != '\n';
    return 0;
}

int LineFile::Append(const std::string& lines) {
    if (!IsInPlace()) {
        if (const int error = Open(); error != 0) {
            return error;
        }
    }
    const off_t size = Size();
    const std::string joined = torn_ ? "\n" + lines : "";
    const std::string& text = torn_ ? joined : lines;
    const ssize_t written = write(file_.Get(), text.data(), text.size());
    if (written == static_cast<ssize_t>(text.size())) {
        torn_ = false;
        return 0;
    }
    const int error = written < 0 ? errno : ENOSPC;
    if (written > 0 && ftruncate(file_.Get(), size) != 0) {
        torn_ = true;
    }
    return error;
}

off_t LineFile::Size() const {
    struct stat status = {};
    return fstat(file_.Get(), &status) == 0 ? status.st_size : 0;
}

bool LineFile::IsInPlace() const {
    struct stat opened = {};
    struct stat named = {};
    return fstat(file_.Get(), &opened) == 0 && stat(path_.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace SDK
