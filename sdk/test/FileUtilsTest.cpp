#include <Poco/Logger.h>
#include <Poco/StreamChannel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <sstream>
#include <utility>

#include "sdk/FileUtils.h"
#include "sdk/ReadMark.h"
#include "sdk/StringUtils.h"
#include "sdk/test/TempDir.h"

using namespace SDK::FileUtils;
using SDK::FileStamp;
using SDK::ReadMark;

namespace {

// What the system calls below, which stand before the C library's own, do now and then in earnest.
std::atomic<size_t> write_at_most{SIZE_MAX};
std::atomic<bool> directories_fail{false};
std::atomic<bool> killed_at_fsync{false};
std::function<void()> before_lock;  // happens once
int fail_at = 0;                    // which one fails, counted down; 0: none
std::string failed;                 // its name

bool Fails(const char* name) {
    if (fail_at == 0 || --fail_at > 0) {
        return false;
    }
    failed = name;
    errno = EIO;
    return true;
}

}  // namespace

#define SYSTEM_CALL(type, name, parameters, ...)                   \
    extern "C" type name parameters {                              \
        return Fails(#name) ? -1 : static_cast<type>(__VA_ARGS__); \
    }

SYSTEM_CALL(ssize_t, write, (int fd, const void* data, size_t size),
            syscall(SYS_write, fd, data, std::min(size, write_at_most.load())))
SYSTEM_CALL(ssize_t, pread, (int fd, void* data, size_t size, off_t offset),
            syscall(SYS_pread64, fd, data, size, offset))
SYSTEM_CALL(int, fstat, (int fd, struct stat* status), syscall(SYS_fstat, fd, status))
SYSTEM_CALL(int, fchown, (int fd, uid_t user, gid_t group), syscall(SYS_fchown, fd, user, group))
SYSTEM_CALL(int, fchmod, (int fd, mode_t mode), syscall(SYS_fchmod, fd, mode))
SYSTEM_CALL(int, ftruncate, (int fd, off_t size), syscall(SYS_ftruncate, fd, size))
SYSTEM_CALL(int, renameat, (int from_dir, const char* from, int to_dir, const char* to),
            syscall(SYS_renameat2, from_dir, from, to_dir, to, 0))
SYSTEM_CALL(int, unlinkat, (int dir, const char* name, int flags),
            syscall(SYS_unlinkat, dir, name, flags))
SYSTEM_CALL(ssize_t, readlinkat, (int dir, const char* name, char* target, size_t size),
            syscall(SYS_readlinkat, dir, name, target, size))
SYSTEM_CALL(ssize_t, listxattr, (const char* path, char* names, size_t size),
            syscall(SYS_listxattr, path, names, size))
SYSTEM_CALL(ssize_t, getxattr, (const char* path, const char* name, void* value, size_t size),
            syscall(SYS_getxattr, path, name, value, size))
SYSTEM_CALL(int, fsetxattr, (int fd, const char* name, const void* value, size_t size, int flags),
            syscall(SYS_fsetxattr, fd, name, value, size, flags))

extern "C" int flock(int fd, int operation) {
    if (before_lock) {
        std::exchange(before_lock, nullptr)();
    }
    return Fails("flock") ? -1 : static_cast<int>(syscall(SYS_flock, fd, operation));
}

extern "C" int fsync(int fd) {
    struct stat status {};
    if (directories_fail && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        errno = EIO;
        return -1;
    }
    if (killed_at_fsync) {
        raise(SIGKILL);
    }
    return Fails("fsync") ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}

namespace {

auto EntriesOf(const TempDir& dir) {
    return std::distance(std::filesystem::directory_iterator(dir / "."), {});
}

std::string Read(const std::string& path) {
    std::string content;
    EXPECT_EQ(ReadFile(path, content, 1 << 20), 0) << path;
    return content;
}

// Mode, owner and the attributes of a file, the access list first.
constexpr const char* kAttributes[] = {"system.posix_acl_access", "user.note", "trusted.note",
                                       "security.capability"};
std::string RightsOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    std::ostringstream rights;
    rights << std::oct << status.st_mode << " " << status.st_uid << " " << status.st_gid;
    for (const char* name : kAttributes) {
        std::array<char, 200> value{};
        const ssize_t length = getxattr(path.c_str(), name, value.data(), value.size());
        rights << "|" << std::string(value.data(), static_cast<size_t>(std::max(length, 0L)));
    }
    return rights.str();
}

int SetAttribute(const std::string& path, const char* name, const std::string& value) {
    return setxattr(path.c_str(), name, value.data(), value.size(), 0);
}

// Tag, rights and id each of the owner, user 0, the owning group, the mask and all others (on a
// little-endian machine). With no rights for the group the mode still shows the mask: rw.
std::string AccessList(char group) {
    const auto entry = [](char tag, char rights, char id = '\xFF') {
        return std::string{tag, 0, rights, 0} + std::string(4, id);
    };
    return std::string{2, 0, 0, 0} + entry(1, 6) + entry(2, 6, 0) + entry(4, group) + entry(16, 6) +
           entry(32, 0);
}

TEST(FileUtils, PathsThatAreNoRegularFileAreErrorsAtOnce) {
    const TempDir dir;
    dir.Run("mkfifo fifo && ln -s fifo to_fifo && ln -s loop loop");
    const struct {
        std::string path;
        int error;
    } cases[] = {{dir / "fifo", EINVAL}, {dir / "to_fifo", EINVAL},
                 {"/dev/zero", EINVAL},  {dir / ".", EISDIR},
                 {dir / "no/x", ENOENT}, {dir / "loop", ELOOP},
                 {"", ENOENT},           {dir / std::string("file\0x", 6), EINVAL}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        std::string text = "kept";
        EXPECT_EQ(ReadFile(c.path, text, 1000), c.error);
        EXPECT_EQ(GetFileSha256(c.path, text, 1000), c.error);
        EXPECT_EQ(SafeCopyFile(c.path, dir / "copy", 1000), c.error);
        EXPECT_EQ(WriteFile(c.path, "new", true), c.error);
        EXPECT_EQ(WriteFile(c.path, "new", false), c.error);
        EXPECT_FALSE(IsFile(c.path));
        EXPECT_EQ(text, "kept");
    }
    // A file of the kernel's own may be one whose reading has effects.
    EXPECT_EQ(OpenStream("/proc/self/status"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(EntriesOf(dir), 3) << "nothing is left behind";
}

TEST(FileUtils, TrustedLinksAreThoseOfRootAndOfTheFilesOwner) {
    const char* const kRoot = "0";
    const char* const kEve = "1000";
    const TempDir dir;
    // Each name is a file, or a link to what stands behind the arrow.
    const struct {
        std::string name, target;
        const char* owner;
        int error;
    } cases[] = {{"roots", "", kRoot, 0},
                 {"eves", "", kEve, 0},
                 {"good", "eves", kEve, 0},
                 {"admins", dir / "eves", kRoot, 0},
                 {"chain", dir / "home/.//home/good", kEve, 0},
                 {"bad", "roots", kEve, EACCES},
                 {"anns", "eves", "2000", EACCES},
                 {"shadow", "/etc/shadow", kEve, EACCES},
                 {"own", "/etc/shadow", kRoot, 0},
                 {"by_root", "bad", kRoot, EACCES},
                 {"by_dir", "home/roots", kEve, EACCES},
                 {"loop", "loop", kEve, ELOOP},
                 {"dangling", "none", kEve, ENOENT},
                 {"device", "/dev/zero", kRoot, EINVAL},
                 {"through", "eves/x", kEve, ENOTDIR}};
    dir.Run("ln -s . home && chown -h 1000 home");
    for (const auto& c : cases) {
        const std::string made = c.target.empty() ? "printf x >" : "ln -s " + c.target + " ";
        dir.Run(made + c.name + " && chown -h " + c.owner + " " + c.name);
    }
    for (const auto& c : cases) {
        std::string content;
        FileReader file;
        EXPECT_EQ(ReadFile(dir / c.name, content, 100000, Links::kTrusted), c.error) << c.name;
        EXPECT_EQ(ReadFile(dir / ("home/home/" + c.name), content, 100000, Links::kTrusted),
                  c.error);
        EXPECT_EQ(file.Open(dir / c.name), c.error == EACCES ? 0 : c.error) << c.name;
    }
}

TEST(FileUtils, TheLimitIsExact) {
    const TempDir dir;
    std::string content;
    std::string text;
    // Around the size of the read buffer as well.
    for (const size_t size : {1UL, 65536UL, 65537UL, 1000000UL}) {
        SCOPED_TRACE(size);
        content.assign(size, 'a');
        ASSERT_EQ(WriteFile(dir / "file", content, false), 0);
        text = "kept";
        EXPECT_EQ(ReadFile(dir / "file", text, size - 1), EFBIG);
        EXPECT_EQ(SafeCopyFile(dir / "file", dir / "copy", size - 1), EFBIG);
        EXPECT_EQ(text, "kept");
        EXPECT_EQ(ReadFile(dir / "file", text, size), 0);
        EXPECT_TRUE(text == content);
    }
    EXPECT_EQ(GetFileSha256(dir / "file", text, 1000000), 0);
    EXPECT_EQ(text, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(text, SDK::StringUtils::Sha256(content));
}

TEST(FileUtils, AFullDiskLeavesEveryFileWholeAndLinksStayLinks) {
    const TempDir dir;
    const std::string large(300000, 'n');
    ASSERT_EQ(mount("tmpfs", (dir / "").c_str(), "tmpfs", 0, "size=256k,nr_inodes=100"), 0);
    dir.Run(
        "printf old >app.conf && ln -s app.conf inner && ln -s $PWD/inner outer && "
        "ln -s created dangling");
    EXPECT_EQ(WriteFile(dir / "outer", "new", false), 0);
    EXPECT_EQ(WriteFile(dir / "dangling", "x", false), 0);
    EXPECT_EQ(WriteFile(dir / "outer", large, false), ENOSPC);
    EXPECT_EQ(WriteFile(dir / "none", large, false), ENOSPC);
    EXPECT_EQ(WriteFile(dir / "app.conf", large, true), ENOSPC);
    // An attribute for which there is no room twice, where the kernel counts such room.
    if (SetAttribute(dir / "created", "user.note", std::string(60000, 'n')) == 0) {
        EXPECT_EQ(WriteFile(dir / "created", "y", false), ENOSPC);
    }
    EXPECT_EQ(Read(dir / "app.conf"), "new");
    EXPECT_EQ(Read(dir / "created"), "x");
    EXPECT_EQ(EntriesOf(dir), 5) << "nothing is left behind";
    EXPECT_EQ(umount((dir / "").c_str()), 0);
}

TEST(FileUtils, AReplacedFileKeepsItsRightsExactlyAndACopyGetsThoseOfItsSource) {
    const TempDir dir;
    dir.Run("touch plain listed && chown 12:34 * && chmod 2644 *");
    ASSERT_EQ(SetAttribute(dir / "listed", kAttributes[0], AccessList(0)), 0);
    ASSERT_EQ(SetAttribute(dir / "", "system.posix_acl_default", AccessList(6)), 0);
    // Not every kernel and every user may set these.
    SetAttribute(dir / "listed", kAttributes[1], "mine");
    SetAttribute(dir / "listed", kAttributes[2], "root's");
    SetAttribute(dir / "listed", kAttributes[3],
                 std::string("\0\0\0\2\x01", 5) + std::string(15, '\0'));
    for (const char* name : {"plain", "listed"}) {
        const std::string rights = RightsOf(dir / name);
        EXPECT_EQ(WriteFile(dir / name, "new", false), 0);
        EXPECT_EQ(RightsOf(dir / name), rights);
        EXPECT_EQ(Read(dir / name), "new");
        EXPECT_EQ(SafeCopyFile(dir / name, dir / "copy", 3), 0);
        // Neither the set-id bit nor the other attributes.
        std::string expected = rights.substr(0, rights.find('|', rights.find('|') + 1)) + "|||";
        expected[2] = '0';
        EXPECT_EQ(RightsOf(dir / "copy"), expected);
        EXPECT_EQ(unlink((dir / "copy").c_str()), 0);
    }
}

TEST(FileUtils, AFileThatSomethingIsMountedOnIsWrittenInPlace) {
    const TempDir dir;
    const TempDir disk;
    ASSERT_EQ(mount("tmpfs", (disk / "").c_str(), "tmpfs", 0, "size=64k"), 0);
    disk.Run("echo old content >hosts && chmod 604 hosts && touch " + (dir / "hosts") +
             " && mount --bind hosts " + (dir / "hosts"));
    for (const std::string& content : {std::string("new"), std::string(50000, 'n')}) {
        EXPECT_EQ(WriteFile(dir / "hosts", content, false), 0);
        EXPECT_EQ(WriteFile(dir / "hosts", std::string(70000, 'x'), false), ENOSPC);
        EXPECT_TRUE(Read(disk / "hosts") == content);
    }
    EXPECT_EQ(RightsOf(dir / "hosts").substr(0, 10), "100604 0 0");
    EXPECT_EQ(EntriesOf(dir), 1) << "nothing is left behind";
    EXPECT_EQ(umount((dir / "hosts").c_str()), 0);
    EXPECT_EQ(umount((disk / "").c_str()), 0);
}

TEST(FileUtils, AShortWriteGoesOnAndADirectoryThatCannotBeFlushedIsAWarning) {
    const TempDir dir;
    std::ostringstream log;
    Poco::Logger& logger = Poco::Logger::get("watchpost");
    logger.setChannel(new Poco::StreamChannel(log));
    write_at_most = 7;
    EXPECT_EQ(WriteFile(dir / "added", "0123456789abcdefghij", true), 0);
    EXPECT_EQ(WriteFile(dir / "added", "ABCDEFGHIJKLMNOPQRST", true), 0);
    EXPECT_EQ(log.str(), "");
    directories_fail = true;
    EXPECT_EQ(WriteFile(dir / "file", "abcdefghij0123456789", false), 0);
    directories_fail = false;
    write_at_most = SIZE_MAX;
    logger.setChannel(nullptr);
    EXPECT_EQ(Read(dir / "file"), "abcdefghij0123456789");
    EXPECT_EQ(Read(dir / "added"), "0123456789abcdefghijABCDEFGHIJKLMNOPQRST");
    EXPECT_NE(log.str().find(dir / "file"), std::string::npos) << log.str();
}

// Each call fails once, in turn.
TEST(FileUtils, AFailureAnywhereIsToldAndLeavesEveryFileWhole) {
    const TempDir dir;
    std::string read;
    const struct {
        std::function<int()> act;
        std::string survived;  // what may fail and no harm done
    } cases[] = {
        {[&] { return WriteFile(dir / "link", "new", false); },
         "fstat fstat pread getxattr fsync "},
        {[&] { return WriteFile(dir / "link", "new", true); }, ""},
        {[&] { return SafeCopyFile(dir / "link", dir / "copy", 100); }, "fstat fchown fsync "},
        {[&] { return ReadFile(dir / "link", read, 100, Links::kTrusted); }, ""},
        {[&] { return GetFileSha256(dir / "link", read, 100); }, ""},
    };
    for (const auto& c : cases) {
        std::string survived;
        for (int call = 1;; ++call) {
            dir.Run(
                "rm -rf * .[a-z]* && printf old >file && chown 1:1 file && ln -s file link && "
                "touch .file.watchpost-new .copy.watchpost-new");
            ASSERT_EQ(SetAttribute(dir / "file", kAttributes[0], AccessList(0)), 0);
            read = "kept";
            fail_at = call;
            failed.clear();
            const int error = c.act();
            fail_at = 0;
            if (failed.empty()) {
                EXPECT_EQ(error, 0);
                break;
            }
            if (error == 0) {
                survived += failed + " ";
                continue;
            }
            EXPECT_EQ(error, EIO) << failed;
            EXPECT_EQ(Read(dir / "file"), "old") << failed;
            EXPECT_EQ(read, "kept") << failed;
            EXPECT_FALSE(IsFile(dir / "copy")) << failed;
        }
        EXPECT_EQ(survived, c.survived);
    }
}

TEST(FileUtils, KilledWritersLeaveOneFileThatTheNextOneRemoves) {
    const TempDir dir;
    const std::string names[] = {"a", std::string(254, 'n') + "1", std::string(254, 'n') + "2"};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EXIT(
            {
                killed_at_fsync = true;
                WriteFile(dir / names[i % 3], "half", false);
            },
            testing::KilledBySignal(SIGKILL), "");
    }
    EXPECT_EQ(EntriesOf(dir), 3);
    for (const std::string& name : names) {
        EXPECT_EQ(WriteFile(dir / name, "whole", false), 0);
        EXPECT_EQ(Read(dir / name), "whole");
    }
    EXPECT_EQ(EntriesOf(dir), 3) << "nothing is left behind";
}

TEST(FileUtils, WhatLiesReadyInThePlaceOfTheNewFileIsNeverWritten) {
    const TempDir dir;
    const std::string place = dir / ".file.watchpost-new";
    dir.Run("printf kept >precious && ln precious " + place);
    EXPECT_EQ(WriteFile(dir / "file", "new", false), 0);
    dir.Run("ln -s precious " + place);
    EXPECT_EQ(WriteFile(dir / "file", "newer", false), EEXIST);
    // A leftover, which is that of a living writer just when it is to be removed.
    dir.Run("rm " + place + " && echo leftover >" + place);
    int writer = -1;
    before_lock = [&] {
        unlink(place.c_str());
        writer = open(place.c_str(), O_WRONLY | O_CREAT, 0600);
        flock(writer, LOCK_EX);
    };
    EXPECT_EQ(WriteFile(dir / "file", "newer", false), EBUSY);
    EXPECT_TRUE(IsFile(place));
    close(writer);
    EXPECT_EQ(Read(dir / "file"), "new");
    EXPECT_EQ(Read(dir / "precious"), "kept");
}

TEST(ReadMark, HoldsWhileTheFileIsAsItWasLongAfterItsLastChange) {
    struct stat status {};
    status.st_ctim.tv_sec = 5;
    const FileStamp stamp(status);
    ReadMark mark;
    for (const std::int64_t began : {6'999'999'999L, 1'000'000'000L}) {
        mark.Set(stamp, stamp, began);
        EXPECT_FALSE(mark.Holds(stamp)) << "just changed, or the clock was set back";
    }
    struct stat others[] = {status, status, status, status, status, status};
    others[0].st_dev = others[1].st_ino = 1;
    others[2].st_size = 1;
    others[3].st_mtim.tv_nsec = others[4].st_ctim.tv_nsec = 1;
    others[5].st_mtim.tv_sec = 1;
    for (const auto& each : others) {
        const FileStamp other(each);
        mark.Set(stamp, other, 9'000'000'000);
        EXPECT_FALSE(mark.Holds(stamp) || mark.Holds(other)) << "changed while it was read";
        mark.Set(stamp, stamp, 7'000'000'000);
        EXPECT_TRUE(mark.Holds(stamp) && !mark.Holds(other));
        mark.Clear();
        EXPECT_FALSE(mark.Holds(stamp));
    }
    EXPECT_TRUE(FileStamp::Of("/") == FileStamp::Of("/.") && FileStamp::Of("/") != FileStamp());
}

}  // namespace
