#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "sdk/FileUtils.h"
#include "sdk/test/TempDir.h"

using namespace SDK::FileUtils;
using Names = std::set<std::string>;

namespace {

TEST(FileUtils, PathsThatAreNoRegularFileAreErrorsAtOnce) {
    const TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(mknod((dir / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    ASSERT_EQ(symlink("fifo", (dir / "to_fifo").c_str()), 0);
    ASSERT_EQ(symlink("loop", (dir / "loop").c_str()), 0);
    ASSERT_EQ(WriteFile(dir / "file", "x", false), 0);
    const struct {
        std::string path;
        int error;
    } cases[] = {{dir / "fifo", EINVAL},
                 {dir / "to_fifo", EINVAL},
                 {dir / "socket", EINVAL},
                 {"/dev/zero", EINVAL},
                 {dir / "", EISDIR},
                 {dir / ".", EISDIR},
                 {dir / "file/", ENOTDIR},
                 {dir / "no/x", ENOENT},
                 {dir / "loop", ELOOP},
                 {"", ENOENT},
                 {dir / std::string("file\0x", 6), EINVAL}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        std::string text = "kept";
        uint64_t size = 7;
        EXPECT_EQ(ReadFile(c.path, text, 1000), c.error);
        EXPECT_EQ(GetFileSha256(c.path, text, 1000), c.error);
        EXPECT_EQ(SafeCopyFile(c.path, dir / "copy", 1000), c.error);
        EXPECT_EQ(GetFileSize(c.path, size), c.error);
        EXPECT_EQ(WriteFile(c.path, "new", true), c.error);
        EXPECT_EQ(WriteFile(c.path, "new", false), c.error);
        EXPECT_FALSE(IsFile(c.path));
        EXPECT_EQ(text + std::to_string(size), "kept7");
    }
    EXPECT_EQ(dir.List(), (Names{"fifo", "file", "loop", "socket", "to_fifo"}));
}

TEST(FileUtils, TheLimitIsExact) {
    const TempDir dir;
    const std::string path = dir / "file";
    // Around the size of the read buffer as well.
    for (const size_t size : {1UL, 999UL, 65535UL, 65536UL, 65537UL, 1000000UL}) {
        SCOPED_TRACE(size);
        const std::string content(size, 'a');
        ASSERT_EQ(WriteFile(path, content, false), 0);
        std::string text = "kept";
        EXPECT_EQ(ReadFile(path, text, size - 1), EFBIG);
        EXPECT_EQ(GetFileSha256(path, text, size - 1), EFBIG);
        EXPECT_EQ(SafeCopyFile(path, dir / "copy", size - 1), EFBIG);
        EXPECT_EQ(text, "kept");
        for (const size_t limit : {size, size + 1, SIZE_MAX}) {
            EXPECT_EQ(ReadFile(path, text, limit), 0);
            EXPECT_TRUE(text == content);
        }
    }
    EXPECT_FALSE(IsFile(dir / "copy"));
    std::string hash;
    EXPECT_EQ(GetFileSha256(path, hash, 1000000), 0);
    EXPECT_EQ(hash, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    ASSERT_EQ(truncate(path.c_str(), 10LL << 40), 0);
    EXPECT_EQ(ReadFile(path, hash, 1UL << 40), EFBIG);
    EXPECT_EQ(GetFileSha256(path, hash, 1UL << 40), EFBIG);
    // A file of the kernel's own may be one whose reading has effects.
    EXPECT_EQ(ReadFile("/proc/self/status", hash, 100000), EINVAL);
}

TEST(FileUtils, ReplacingKeepsModeOwnerAndLinks) {
    const TempDir dir;
    const std::string path = dir / "app.conf";
    const std::string long_name(255, 'n');
    struct stat status {};
    ASSERT_EQ(WriteFile(path, "old", false), 0);
    ASSERT_EQ(chown(path.c_str(), 12, 34), 0);
    ASSERT_EQ(chmod(path.c_str(), 02640), 0);
    ASSERT_EQ(symlink("app.conf", (dir / "inner").c_str()), 0);
    ASSERT_EQ(symlink((dir / "inner").c_str(), (dir / "outer").c_str()), 0);
    ASSERT_EQ(symlink("created", (dir / "dangling").c_str()), 0);

    ino_t inode = 0;
    for (const char* content : {"new", "new", "nex"}) {
        EXPECT_EQ(WriteFile(dir / "outer", content, false), 0);
        EXPECT_EQ(dir.Read("app.conf"), content);
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 02640U);
        EXPECT_EQ(status.st_uid * 100 + status.st_gid, 1234U);
        EXPECT_TRUE(inode == 0 || (status.st_ino == inode) == (content == std::string("new")))
            << "unchanged content is not written again";
        inode = status.st_ino;
    }
    EXPECT_EQ(SafeCopyFile(path, dir / "copy", 3), 0);
    ASSERT_EQ(stat((dir / "copy").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U) << "no set-id bits";
    EXPECT_EQ(status.st_uid * 100 + status.st_gid, 1234U);
    const mode_t mask = umask(027);
    EXPECT_EQ(WriteFile(dir / "dangling", "x", false), 0);
    umask(mask);
    ASSERT_EQ(stat((dir / "created").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_EQ(WriteFile(dir / long_name, "x", false), 0);
    EXPECT_EQ(dir.List(),
              (Names{"app.conf", "copy", "created", "dangling", "inner", long_name, "outer"}));
}

TEST(FileUtils, AReaderSeesTheOldFileOrTheNewOneWhole) {
    const TempDir dir;
    const std::string contents[] = {std::string(100000, 'a'), std::string(150000, 'b')};
    ASSERT_EQ(WriteFile(dir / "file", contents[1], false), 0);
    std::atomic<bool> stop{false};
    Names others;
    std::thread reader([&] {
        while (!stop) {
            std::string text;
            EXPECT_EQ(ReadFile(dir / "file", text, 200000), 0);
            EXPECT_TRUE(text == contents[0] || text == contents[1]) << text.size();
            // What grows and shrinks meanwhile stays within the limit.
            const int error = ReadFile(dir / "log", text, 250000);
            EXPECT_TRUE(error == 0 || error == EFBIG || error == ENOENT) << error;
            EXPECT_LE(text.size(), 250000U);
            for (const std::string& name : dir.List()) {
                others.insert(name.substr(0, 6) + std::to_string(name.size()));
            }
        }
    });
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(WriteFile(dir / "file", contents[i % 2], false), 0);
        EXPECT_EQ(WriteFile(dir / "log", contents[0], true), 0);
        if (i % 4 == 3) {
            EXPECT_EQ(truncate((dir / "log").c_str(), 0), 0);
        }
    }
    stop = true;
    reader.join();
    EXPECT_EQ(others, (Names{".file.12", "file4", "log3"}));
}

TEST(FileUtils, AFullDiskLeavesEveryFileWhole) {
    const TempDir dir;
    ASSERT_EQ(mount("tmpfs", (dir / "").c_str(), "tmpfs", 0, "size=256k"), 0) << errno;
    const std::string old(100000, 'o');
    ASSERT_EQ(WriteFile(dir / "file", old, true), 0);
    EXPECT_EQ(WriteFile(dir / "file", std::string(200000, 'n'), false), ENOSPC);
    EXPECT_EQ(WriteFile(dir / "new", std::string(200000, 'n'), false), ENOSPC);
    EXPECT_EQ(WriteFile(dir / "file", std::string(300000, 'n'), true), ENOSPC);
    EXPECT_TRUE(dir.Read("file") == old);
    EXPECT_EQ(WriteFile(dir / "file", "+", true), 0);
    EXPECT_TRUE(dir.Read("file") == old + "+");
    EXPECT_EQ(dir.List(), Names{"file"});
    EXPECT_EQ(umount((dir / "").c_str()), 0);
}

}  // namespace
