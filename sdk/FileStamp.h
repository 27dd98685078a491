#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace SDK {

// What tells one state of a file from another without reading it. Default-made: no file at all.
struct FileStamp {
    FileStamp() = default;
    explicit FileStamp(const struct stat& status)
        : device(status.st_dev),
          inode(status.st_ino),
          size(status.st_size),
          modified(Nanoseconds(status.st_mtim)),
          changed(Nanoseconds(status.st_ctim)) {}

    // The state of what `path` names; none when there is nothing, or, with links not followed, a
    // link.
    static FileStamp Of(const char* path) {
        struct stat status = {};
        return stat(path, &status) == 0 ? FileStamp(status) : FileStamp();
    }
    static FileStamp OfNoLink(const char* path) {
        struct stat status = {};
        return lstat(path, &status) == 0 && !S_ISLNK(status.st_mode) ? FileStamp(status)
                                                                     : FileStamp();
    }

    bool operator==(const FileStamp& other) const {
        return device == other.device && inode == other.inode && size == other.size &&
               modified == other.modified && changed == other.changed;
    }
    bool operator!=(const FileStamp& other) const { return !(*this == other); }

    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;      // bytes
    std::int64_t modified = 0;  // nanoseconds since the epoch, as the next
    std::int64_t changed = 0;

private:
    static std::int64_t Nanoseconds(const timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
    }
};

}  // namespace SDK
