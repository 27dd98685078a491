#include "sdk/FileUtils.h"

#include <Poco/Error.h>
#include <Poco/Logger.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "sdk/Replacement.h"
#include "sdk/Trust.h"

namespace SDK::FileUtils {
namespace {

constexpr size_t kBufferSize = 64UL * 1024;
constexpr int kSafeFlags = O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
constexpr mode_t kNewFileMode = 0644;

int CheckRegular(const struct stat& status) {
    if (S_ISREG(status.st_mode)) {
        return 0;
    }
    return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

int StatRegular(const std::string& path, struct stat& status) {
    if (path.find('\0') != std::string::npos) {
        return EINVAL;
    }
    return stat(path.c_str(), &status) == 0 ? CheckRegular(status) : errno;
}

// Takes over `fd`, just opened, if it is a regular file.
int AdoptRegular(int fd, Descriptor& file, struct stat& status) {
    if (const int error = file.Reset(fd); error != 0) {
        return error;
    }
    return fstat(file.Get(), &status) == 0 ? CheckRegular(status) : errno;
}

// Files of the kernel's own say they are regular, and reading some takes away what others wait for.
bool IsOfKernel(int fd) {
    constexpr unsigned kConfigFs = 0x62656570;  // not in the kernel's header of all such numbers
    constexpr unsigned kAppArmorFs = 0x5a3c69f0;
    constexpr std::array<unsigned, 14> kKernelTypes = {
        PROC_SUPER_MAGIC,    SYSFS_MAGIC,      TRACEFS_MAGIC, DEBUGFS_MAGIC,  CGROUP_SUPER_MAGIC,
        CGROUP2_SUPER_MAGIC, SECURITYFS_MAGIC, BPF_FS_MAGIC,  BINFMTFS_MAGIC, kConfigFs,
        EFIVARFS_MAGIC,      PSTOREFS_MAGIC,   SELINUX_MAGIC, kAppArmorFs};
    struct statfs status {};
    return fstatfs(fd, &status) == 0 &&
           std::find(kKernelTypes.begin(), kKernelTypes.end(),
                     static_cast<unsigned>(status.f_type)) != kKernelTypes.end();
}

// A handle only names a file: merely opening a device can set it off.
int OpenHandle(int dir, const std::string& name, int flags, Descriptor& handle) {
    return handle.Reset(openat(dir, name.c_str(), O_PATH | O_CLOEXEC | flags));
}

int ReadLink(int link, std::string& target) {
    std::array<char, PATH_MAX> text{};
    const ssize_t length = readlinkat(link, "", text.data(), text.size());
    if (length <= 0 || static_cast<size_t>(length) == text.size()) {
        return length < 0 ? errno : ENAMETOOLONG;
    }
    target.assign(text.data(), static_cast<size_t>(length));
    return 0;
}

// A handle of the file at `path`, for which the links from its last name on are walked here one by
// one: the kernel's own walk tells nothing of their owners.
int OpenTrustedHandle(const std::string& path, Descriptor& handle) {
    constexpr size_t kMaxLinks = 40;  // as many as the kernel follows
    const size_t slash = path.rfind('/') + 1;
    Descriptor dir;
    int error = OpenHandle(AT_FDCWD, slash == 0 ? "." : path.substr(0, slash), O_DIRECTORY, dir);
    std::vector<uid_t> owners;
    for (std::string rest = path.substr(slash); error == 0;) {
        const size_t end = std::min(rest.find('/'), rest.size());
        const std::string name = end == 0 ? "." : rest.substr(0, end);
        rest.erase(0, rest.find_first_not_of('/', end));
        struct stat status {};
        error = OpenHandle(dir.Get(), name, O_NOFOLLOW, handle);
        if (error == 0 && fstat(handle.Get(), &status) != 0) {
            error = errno;
        }
        if (error == 0 && S_ISLNK(status.st_mode)) {
            std::string target;
            owners.push_back(status.st_uid);
            error = owners.size() > kMaxLinks ? ELOOP : ReadLink(handle.Get(), target);
            if (error == 0 && target[0] == '/') {
                error = OpenHandle(AT_FDCWD, "/", O_DIRECTORY, dir);
            }
            rest = target + "/" + rest;
        } else if (error == 0 && rest.empty()) {
            const bool trusted = std::all_of(owners.begin(), owners.end(), [&](uid_t owner) {
                return owner == 0 || owner == status.st_uid;
            });
            return trusted ? 0 : EACCES;
        } else if (error == 0) {
            dir.Reset(handle.Release());
        }
    }
    return error;
}

int OpenRegular(const std::string& path, int flags, Descriptor& file, struct stat& status,
                Links links = Links::kAll) {
    if (path.find('\0') != std::string::npos) {
        return EINVAL;
    }
    // Whoever owns the path may put another file there at any moment: what is looked at is opened.
    Descriptor handle;
    int error = links == Links::kTrusted ? OpenTrustedHandle(path, handle)
                                         : OpenHandle(AT_FDCWD, path, 0, handle);
    if (error == 0) {
        error = fstat(handle.Get(), &status) == 0 ? CheckRegular(status) : errno;
    }
    if (error != 0) {
        return error;
    }
    if (IsOfKernel(handle.Get())) {
        return EINVAL;
    }
    return AdoptRegular(open(PathOf(handle.Get()).c_str(), flags | kSafeFlags), file, status);
}

// Hands the file to `consume` (data, length -> 0 or an errno value) piece by piece up to its end.
template <typename Consumer>
int ReadPieces(int fd, size_t limit, const Consumer& consume) {
    // Not zeroed: most files are far smaller.
    const std::unique_ptr<char[]> buffer(new char[kBufferSize]);
    for (size_t total = 0;;) {
        const ssize_t got = pread(fd, buffer.get(), kBufferSize, static_cast<off_t>(total));
        if (got == 0) {
            return 0;
        }
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        const auto length = static_cast<size_t>(got);
        if (length > limit - total) {
            return EFBIG;
        }
        total += length;
        if (const int error = consume(buffer.get(), length); error != 0) {
            return error;
        }
    }
}

// The state of an open file, unless it is larger than `limit`.
int CheckSize(int fd, size_t limit, struct stat& status) {
    if (fstat(fd, &status) != 0) {
        return errno;
    }
    return static_cast<uint64_t>(status.st_size) > limit ? EFBIG : 0;
}

int WriteAll(int fd, const std::string& content) {
    for (size_t done = 0; done < content.size();) {
        const ssize_t put = write(fd, content.data() + done, content.size() - done);
        if (put > 0) {
            done += static_cast<size_t>(put);
        } else if (put == 0) {
            return ENOSPC;
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// Follows the symbolic links that `path` ends in, by hand because the last may dangle.
int ResolveLinks(const std::string& path, std::string& target) {
    constexpr int kMaxLinks = 40;
    target = path;
    for (int i = 0; i < kMaxLinks; ++i) {
        struct stat status {};
        if (lstat(target.c_str(), &status) != 0) {
            return errno == ENOENT ? 0 : errno;
        }
        if (!S_ISLNK(status.st_mode)) {
            return 0;
        }
        std::array<char, PATH_MAX> link{};
        const ssize_t length = readlink(target.c_str(), link.data(), link.size());
        if (length < 0) {
            return errno;
        }
        if (link[0] != '/') {
            target.erase(target.rfind('/') + 1);
        } else {
            target.clear();
        }
        target.append(link.data(), static_cast<size_t>(length));
    }
    return ELOOP;
}

// A path taken apart: the directory, and the name in it of the file that the path leads to.
struct Target {
    Descriptor dir;
    std::string name;
    Descriptor old;  // a handle of the file there is, if there is one
};

int FindTarget(const std::string& path, Target& target) {
    struct stat status {};
    int error = StatRegular(path, status);
    if (error != 0 && error != ENOENT) {
        return error;
    }
    std::string resolved;
    if (error = ResolveLinks(path, resolved); error != 0) {
        return error;
    }
    const size_t slash = resolved.rfind('/') + 1;
    target.name = resolved.substr(slash);
    if (target.name.empty()) {
        return resolved.empty() ? ENOENT : EISDIR;
    }
    const std::string dir = slash == 0 ? "." : resolved.substr(0, slash);
    error = target.dir.Reset(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (error != 0) {
        return error;
    }
    error = OpenHandle(target.dir.Get(), target.name, O_NOFOLLOW, target.old);
    if (error == 0) {
        error = fstat(target.old.Get(), &status) == 0 ? CheckRegular(status) : errno;
    }
    return error == ENOENT ? 0 : error;
}

bool HasContent(int handle, const std::string& content) {
    Descriptor file;
    struct stat status {};
    if (OpenRegular(PathOf(handle), O_RDONLY, file, status) != 0 ||
        static_cast<uint64_t>(status.st_size) != content.size()) {
        return false;
    }
    size_t done = 0;
    const int error = ReadPieces(file.Get(), content.size(), [&](const char* data, size_t length) {
        const bool same = std::memcmp(content.data() + done, data, length) == 0;
        done += length;
        return same ? 0 : ECANCELED;
    });
    return error == 0 && done == content.size();
}

// For a file that something is mounted on: no other can take its place. The room to grow comes
// first, so that a full disk costs no byte of the old content.
int WriteInPlace(int handle, const std::string& content) {
    Descriptor file;
    struct stat status {};
    int error = OpenRegular(PathOf(handle), O_WRONLY, file, status);
    if (error != 0) {
        return error;
    }
    const auto size = static_cast<off_t>(content.size());
    if (size > status.st_size) {
        do {
            error = posix_fallocate(file.Get(), status.st_size, size - status.st_size);
        } while (error == EINTR);
        if (error != 0) {
            return ftruncate(file.Get(), status.st_size) == 0 ? error : errno;
        }
    }
    error = WriteAll(file.Get(), content);
    if (error == 0 && (ftruncate(file.Get(), size) != 0 || fsync(file.Get()) != 0)) {
        error = errno;
    }
    return error;
}

void SyncDirectory(int dir, const std::string& path) {
    // Some file systems cannot flush a directory and say so with EINVAL.
    if (fsync(dir) != 0 && errno != EINVAL) {
        const std::string reason = Poco::Error::getMessage(errno);
        Poco::Logger::get("watchpost")
            .warning(path + " was replaced, but a crash may bring the old file back: " + reason,
                     __FILE__, __LINE__);
    }
}

// `source` is an open file whose permissions and owner a new file takes over, -1 for the usual
// ones.
int ReplaceFile(const std::string& path, const std::string& content, int source) {
    Target target;
    int error = FindTarget(path, target);
    if (error != 0) {
        return error;
    }
    const bool exists = target.old.Get() >= 0;
    if (exists && HasContent(target.old.Get(), content)) {
        return 0;
    }
    const int model = exists ? target.old.Get() : source;
    Replacement replacement(target.dir.Get(), target.name);
    // Closed to others until it has the owner it is to have.
    error = replacement.Create(model >= 0 ? S_IRUSR | S_IWUSR : kNewFileMode);
    if (error == 0) {
        error = WriteAll(replacement.Get(), content);
    }
    if (error == 0 && model >= 0) {
        error = replacement.TakeOver(model, exists);
    }
    if (error != 0) {
        return error;
    }
    error = replacement.Commit();
    if (error == 0) {
        SyncDirectory(target.dir.Get(), path);
    } else if (error == EBUSY && exists) {
        error = WriteInPlace(target.old.Get(), content);
    }
    return error;
}

int AppendToFile(const std::string& path, const std::string& content) {
    Descriptor file;
    struct stat status {};
    constexpr int kFlags = O_WRONLY | O_APPEND;
    int error = OpenRegular(path, kFlags, file, status);
    if (error == ENOENT) {
        const int fd = open(path.c_str(), kFlags | O_CREAT | kSafeFlags, kNewFileMode);
        error = AdoptRegular(fd, file, status);
    }
    if (error == 0) {
        error = WriteAll(file.Get(), content);
        if (error != 0 && ftruncate(file.Get(), status.st_size) != 0) {
            return errno;
        }
    }
    return error;
}

struct FreeDigest {
    void operator()(EVP_MD_CTX* digest) const { EVP_MD_CTX_free(digest); }
};

}  // namespace

int FileReader::Open(const std::string& path, Links links) {
    struct stat status {};
    return OpenRegular(path, O_RDONLY, file_, status, links);
}

std::string FileReader::Distrust() const {
    struct stat status = {};
    return fstat(file_.Get(), &status) == 0 ? Trust::WhyNot(status) : std::strerror(errno);
}

int FileReader::GetStamp(FileStamp& stamp) const {
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0) {
        return errno;
    }
    stamp = FileStamp(status);
    return 0;
}

int FileReader::Read(std::string& content, size_t limit) const {
    struct stat status {};
    if (const int error = CheckSize(file_.Get(), limit, status); error != 0) {
        return error;
    }
    std::string read_content;
    read_content.reserve(static_cast<size_t>(status.st_size));
    const int error = ReadPieces(file_.Get(), limit, [&](const char* data, size_t length) {
        read_content.append(data, length);
        return 0;
    });
    if (error == 0) {
        content.swap(read_content);
    }
    return error;
}

int FileReader::GetSha256(std::string& hash, size_t limit) const {
    struct stat status {};
    if (const int error = CheckSize(file_.Get(), limit, status); error != 0) {
        return error;
    }
    const std::unique_ptr<EVP_MD_CTX, FreeDigest> digest(EVP_MD_CTX_new());
    if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) != 1) {
        return EIO;
    }
    const int error = ReadPieces(file_.Get(), limit, [&](const char* data, size_t length) {
        return EVP_DigestUpdate(digest.get(), data, length) == 1 ? 0 : EIO;
    });
    if (error != 0) {
        return error;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(digest.get(), bytes.data(), &length) != 1) {
        return EIO;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += kDigits[bytes[i] >> 4U];
        text += kDigits[bytes[i] & 0xFU];
    }
    hash.swap(text);
    return 0;
}

int ReadFile(const std::string& path, std::string& content, size_t limit, Links links) {
    FileReader file;
    const int error = file.Open(path, links);
    return error == 0 ? file.Read(content, limit) : error;
}

int WriteFile(const std::string& path, const std::string& content, bool append) {
    return append ? AppendToFile(path, content) : ReplaceFile(path, content, -1);
}

int SafeCopyFile(const std::string& source, const std::string& destination, size_t limit) {
    FileReader file;
    std::string content;
    int error = file.Open(source);
    if (error == 0) {
        error = file.Read(content, limit);
    }
    return error == 0 ? ReplaceFile(destination, content, file.Get()) : error;
}

int GetFileSha256(const std::string& path, std::string& hash, size_t limit) {
    FileReader file;
    const int error = file.Open(path);
    return error == 0 ? file.GetSha256(hash, limit) : error;
}

std::FILE* OpenStream(const std::string& path) {
    Descriptor file;
    struct stat status {};
    const int error = OpenRegular(path, O_RDONLY, file, status);
    std::FILE* const stream = error == 0 ? fdopen(file.Get(), "r") : nullptr;
    if (stream != nullptr) {
        file.Release();
    } else if (error != 0) {
        errno = error;
    }
    return stream;
}

int GetFileSize(const std::string& path, uint64_t& size) {
    struct stat status {};
    const int error = StatRegular(path, status);
    if (error == 0) {
        size = static_cast<uint64_t>(status.st_size);
    }
    return error;
}

bool IsFile(const std::string& path) {
    struct stat status {};
    return StatRegular(path, status) == 0;
}

}  // namespace SDK::FileUtils
