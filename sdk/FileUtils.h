#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "sdk/Descriptor.h"
#include "sdk/FileStamp.h"

// Bounded access to regular files, safe on paths that other users control. Every operation follows
// symbolic links, may be called from any thread, never blocks on a FIFO or a device and never
// throws (std::bad_alloc apart). Results are 0 or the errno value of what failed:
//   EISDIR  the path names a directory
//   EINVAL  it names a FIFO, a socket, a device or, to be opened, a file of the kernel's own (as in
//           /proc), or it holds a zero byte
//   EACCES  also: a link on the way is not trusted
//   EFBIG   the file holds more than `limit` bytes
// and otherwise what the system call reported (ENOENT, EACCES, ELOOP, ENOSPC, ...).
namespace SDK::FileUtils {

// Which links at the end of a path are followed.
enum class Links {
    kAll,
    // Those that belong to root or to the owner of the file they lead to: nobody gets a file of
    // another's read by the agent, which may read them all. The directories in which the path's
    // last name stands are reached by any link.
    kTrusted,
};

// One regular file open for reading, the same one whatever becomes of its path. One thread at a
// time.
class FileReader {
public:
    // Opens the file and nothing but it, whatever the path's owner puts in its place meanwhile.
    int Open(const std::string& path, Links links = Links::kAll);
    // Why the open file is not to be obeyed, as Trust.h has it; empty when it is.
    std::string Distrust() const;
    // The file's state now.
    int GetStamp(FileStamp& stamp) const;
    // As ReadFile and GetFileSha256 below, from the file's start each time.
    int Read(std::string& content, size_t limit) const;
    int GetSha256(std::string& hash, size_t limit) const;
    // The descriptor, -1 when nothing is open.
    int Get() const { return file_.Get(); }

private:
    Descriptor file_;
};

// Reads the whole file, at most `limit` bytes (exactly `limit` is fine), also when it grows while
// it is read; one that shrinks gives what was there. `content` is unchanged on failure.
int ReadFile(const std::string& path, std::string& content, size_t limit,
             Links links = Links::kAll);

// append=false replaces the content: a crash leaves the old file or the new one, whole and on disk,
// and a failure leaves the old one. Mode, owner, access list and all other extended attributes of
// an existing file are kept, or it is not replaced; a new one gets 0644 less the umask; hard links
// stay with the old file. A symbolic link stays one, its target is replaced or created. Content
// that is there already is not written again.
//   The new file is prepared beside the target as ".TARGET.watchpost-new" (the name of a long
// target is cut). A writer that is killed may leave that file, the next one removes it. Another
// writer of the same target, any process's, is waited for half a second, then EBUSY; EEXIST when
// something else than a file has that name.
//   A directory that cannot be flushed is a warning in the log: the new content is in place, only a
// crash may still bring the old one back.
//   A file that something is mounted on (as in containers) is overwritten where it is: a full disk
// leaves the old content, but a crash or an I/O error midway a mixture of both, or the old content
// with zero bytes behind it. File capabilities are lost then.
// append=true adds to the end, all of `content` or nothing of it (an absent file may be left
// empty); it does not wait for the disk, and takes one writer at a time.
int WriteFile(const std::string& path, const std::string& content, bool append);

// Replaces `destination` with the content of `source` (at most `limit` bytes) as WriteFile does. A
// new destination gets the permissions of the source, its access list included (ENOTSUP where the
// file system has none), but no set-id bits, no other attributes, and its owner where allowed.
int SafeCopyFile(const std::string& source, const std::string& destination, size_t limit);

// `hash` becomes 64 lower-case hexadecimal digits; it is unchanged on failure. The memory used does
// not depend on the size of the file. EIO also when the digest is not available.
int GetFileSha256(const std::string& path, std::string& hash, size_t limit);

// Opens the file for reading as FileReader does, as a stream that the caller closes; null, with
// errno set, on failure.
std::FILE* OpenStream(const std::string& path);

// The size in bytes as the file system tells it (0 for files of /proc); `size` is unchanged on
// failure.
int GetFileSize(const std::string& path, uint64_t& size);

// Whether the path leads to a regular file; false also when that cannot be told.
bool IsFile(const std::string& path);

}  // namespace SDK::FileUtils
