#include "sdk/Replacement.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/limits.h>
#include <linux/xattr.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "sdk/StringUtils.h"

namespace SDK {
namespace {

constexpr mode_t kPermissions = 0777;
constexpr mode_t kAllModeBits = 07777;
constexpr char kAccessList[] = XATTR_NAME_POSIX_ACL_ACCESS;

// Hidden and of a suffix of its own, so that no one who collects files takes it. Long targets that
// begin alike differ in the digest.
std::string TemporaryName(const std::string& target) {
    const std::string suffix = ".watchpost-new";
    const size_t room = NAME_MAX - 1 - suffix.size();
    if (target.size() <= room) {
        return "." + target + suffix;
    }
    constexpr size_t kDigestLength = 16;
    const std::string digest = "." + StringUtils::Sha256(target).substr(0, kDigestLength);
    return "." + target.substr(0, room - digest.size()) + digest + suffix;
}

int SetOwner(int file, const struct stat& wanted) {
    struct stat status {};
    if (fstat(file, &status) != 0) {
        return errno;
    }
    if (status.st_uid == wanted.st_uid && status.st_gid == wanted.st_gid) {
        return 0;
    }
    return fchown(file, wanted.st_uid, wanted.st_gid) == 0 ? 0 : errno;
}

int GetAttribute(const std::string& path, const char* name, std::string& value) {
    value.resize(XATTR_SIZE_MAX);
    const ssize_t length = getxattr(path.c_str(), name, value.data(), value.size());
    if (length < 0) {
        return errno;
    }
    value.resize(static_cast<size_t>(length));
    return 0;
}

int CopyAttributes(const std::string& from, int to) {
    std::string names(XATTR_LIST_MAX, '\0');
    const ssize_t length = listxattr(from.c_str(), names.data(), names.size());
    if (length < 0) {
        return errno == ENOTSUP ? 0 : errno;
    }
    const std::string to_path = PathOf(to);
    const char* const end = names.data() + length;
    for (const char* name = names.data(); name < end; name += std::strlen(name) + 1) {
        std::string value;
        std::string present;
        if (const int error = GetAttribute(from, name, value); error != 0) {
            return error;
        }
        // Some, labels say, every new file has, and not everyone may set them.
        if (GetAttribute(to_path, name, present) == 0 && present == value) {
            continue;
        }
        if (fsetxattr(to, name, value.data(), value.size(), 0) != 0) {
            return errno;
        }
    }
    return 0;
}

// Also takes away a list that the directory handed down.
int CopyAccessList(const std::string& from, int to) {
    std::string list;
    const int error = GetAttribute(from, kAccessList, list);
    if (error == 0) {
        return fsetxattr(to, kAccessList, list.data(), list.size(), 0) == 0 ? 0 : errno;
    }
    if (error != ENODATA && error != ENOTSUP) {
        return error;
    }
    const bool has_none =
        fremovexattr(to, kAccessList) == 0 || errno == ENODATA || errno == ENOTSUP;
    return has_none ? 0 : errno;
}

}  // namespace

std::string PathOf(int descriptor) {
    return "/proc/self/fd/" + std::to_string(descriptor);
}

Replacement::Replacement(int dir, const std::string& target)
    : dir_(dir), target_(target), name_(TemporaryName(target)) {}

Replacement::~Replacement() {
    if (file_.Get() >= 0 && !committed_) {
        unlinkat(dir_, name_.c_str(), 0);
    }
}

int Replacement::Create(mode_t mode) {
    constexpr int kTries = 50;
    constexpr std::chrono::milliseconds kPause(10);
    for (int i = 0; i < kTries; ++i) {
        if (const int error = TryCreate(mode); error != EBUSY) {
            return error;
        }
        std::this_thread::sleep_for(kPause);
    }
    return EBUSY;
}

int Replacement::TryCreate(mode_t mode) {
    if (const int error = RemoveLeftover(); error != 0) {
        return error;
    }
    Descriptor file;
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    int error = file.Reset(openat(dir_, name_.c_str(), flags, mode));
    if (error == 0) {
        // Another writer may have taken it for a leftover meanwhile.
        error = Lock(file.Get());
    } else if (error == EEXIST) {
        error = EBUSY;
    }
    return error == 0 ? file_.Reset(file.Release()) : error;
}

int Replacement::RemoveLeftover() {
    // Named first, as merely opening a device can set it off.
    Descriptor handle;
    int error = handle.Reset(openat(dir_, name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (error != 0) {
        return error == ENOENT ? 0 : error;
    }
    struct stat status {};
    if (fstat(handle.Get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EEXIST;
    }
    Descriptor file;
    error = file.Reset(open(PathOf(handle.Get()).c_str(), O_RDONLY | O_CLOEXEC));
    if (error == 0) {
        error = Lock(file.Get());
    }
    if (error == 0 && unlinkat(dir_, name_.c_str(), 0) != 0) {
        error = errno;
    }
    return error;
}

// EBUSY also when the file lost its name before it was locked. Once locked, it keeps it.
int Replacement::Lock(int file) const {
    if (flock(file, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? EBUSY : errno;
    }
    struct stat locked {};
    struct stat named {};
    if (fstat(file, &locked) != 0) {
        return errno;
    }
    if (fstatat(dir_, name_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? EBUSY : errno;
    }
    return locked.st_dev == named.st_dev && locked.st_ino == named.st_ino ? 0 : EBUSY;
}

int Replacement::TakeOver(int from, bool is_replaced) {
    struct stat status {};
    if (fstat(from, &status) != 0) {
        return errno;
    }
    // The owner first: a new one costs the set-id bits and the capabilities.
    int error = SetOwner(file_.Get(), status);
    if (error != 0 && is_replaced) {
        return error;
    }
    const std::string path = PathOf(from);
    error = is_replaced ? CopyAttributes(path, file_.Get()) : 0;
    if (error == 0) {
        error = CopyAccessList(path, file_.Get());
    }
    // The mode last. With an access list its group bits are the mask, which then stays the same;
    // without the list they would be what the group may do.
    const mode_t mode = status.st_mode & (is_replaced ? kAllModeBits : kPermissions);
    if (error == 0 && fchmod(file_.Get(), mode) != 0) {
        error = errno;
    }
    return error;
}

int Replacement::Commit() {
    if (fsync(file_.Get()) != 0 || renameat(dir_, name_.c_str(), dir_, target_.c_str()) != 0) {
        return errno;
    }
    committed_ = true;
    return 0;
}

}  // namespace SDK
