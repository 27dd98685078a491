#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace SDK {

// A file descriptor that is closed with its owner.
class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor() { Reset(-1); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    // Takes ownership of what open() returned: 0, or errno when that is no descriptor.
    int Reset(int fd) {
        const int error = errno;
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
        return fd >= 0 ? 0 : error;
    }
    // The descriptor or -1.
    int Get() const { return fd_; }
    // Gives the descriptor, or -1, away.
    int Release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

}  // namespace SDK
