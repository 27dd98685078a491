#include "agent/PublishedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framework/Log.h"
#include "sdk/Descriptor.h"

PublishedFile::PublishedFile(const std::string& what, const std::string& path, mode_t mode)
    : what_(what + " " + path), path_(path), beside_(path + ".new"), mode_(mode) {}

void PublishedFile::Write(const std::string& text) {
    const int error = Replace(text);
    if (error != 0 && trouble_ == 0) {
        Framework::Log().error(what_ + " cannot be written, trying again: " + std::strerror(error));
    } else if (error == 0 && trouble_ != 0) {
        Framework::Log().information(what_ + " is written again");
    }
    trouble_ = error;
}

void PublishedFile::Remove() const {
    unlink(path_.c_str());
}

// Neither the disk is waited for, as SDK::FileUtils::WriteFile does, nor an old file kept: what
// counts is that a reader gets a whole one.
int PublishedFile::Replace(const std::string& text) const {
    SDK::Descriptor file;
    if (const int error = file.Reset(Create()); error != 0) {
        return error;
    }
    const ssize_t written = write(file.Get(), text.data(), text.size());
    if (written == static_cast<ssize_t>(text.size()) && fchmod(file.Get(), mode_) == 0 &&
        std::rename(beside_.c_str(), path_.c_str()) == 0) {
        return 0;
    }
    const int error = written >= 0 && written < static_cast<ssize_t>(text.size()) ? ENOSPC : errno;
    unlink(beside_.c_str());
    return error;
}

int PublishedFile::Create() const {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    constexpr mode_t kDirectoryMode = 0755;
    int file = open(beside_.c_str(), kFlags, mode_);
    if (file < 0 && errno == EEXIST && unlink(beside_.c_str()) == 0) {
        file = open(beside_.c_str(), kFlags, mode_);
    } else if (file < 0 && errno == ENOENT) {
        const std::string directory = path_.substr(0, path_.rfind('/'));
        if (mkdir(directory.c_str(), kDirectoryMode) == 0) {
            // Whatever the umask, but not of what somebody has put there meanwhile.
            SDK::Descriptor made;
            made.Reset(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            fchmod(made.Get(), kDirectoryMode);
            file = open(beside_.c_str(), kFlags, mode_);
        }
    }
    return file;
}
