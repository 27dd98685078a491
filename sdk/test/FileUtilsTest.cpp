#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "sdk/FileUtils.h"
#include "sdk/StringUtils.h"
#include "sdk/test/TempDir.h"

using namespace SDK::FileUtils;

namespace {

auto EntriesOf(const TempDir& dir) {
    return std::distance(std::filesystem::directory_iterator(dir / "."), {});
}

TEST(FileUtils, PathsThatAreNoRegularFileAreErrorsAtOnce) {
    const TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink("fifo", (dir / "to_fifo").c_str()), 0);
    ASSERT_EQ(symlink("loop", (dir / "loop").c_str()), 0);
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
    constexpr uid_t kEve = 1000;
    constexpr uid_t kAnn = 2000;
    const TempDir dir;
    // Each name is a file, or a link to what stands behind the arrow.
    const struct {
        std::string name, target;
        uid_t owner;
        int error;
    } cases[] = {{"roots", "", 0, 0},
                 {"eves", "", kEve, 0},
                 {"good", "eves", kEve, 0},
                 {"admins", dir / "eves", 0, 0},
                 {"chain", dir / "home/.//home/good", kEve, 0},
                 {"bad", "roots", kEve, EACCES},
                 {"anns", "eves", kAnn, EACCES},
                 {"shadow", "/etc/shadow", kEve, EACCES},
                 {"own", "/etc/shadow", 0, 0},
                 {"by_root", "bad", 0, EACCES},
                 {"by_dir", "home/roots", kEve, EACCES},
                 {"loop", "loop", kEve, ELOOP},
                 {"dangling", "none", kEve, ENOENT},
                 {"device", "/dev/zero", 0, EINVAL},
                 {"through", "eves/x", kEve, ENOTDIR}};
    ASSERT_EQ(symlink(".", (dir / "home").c_str()), 0);
    ASSERT_EQ(lchown((dir / "home").c_str(), kEve, kEve), 0);
    for (const auto& c : cases) {
        const std::string path = dir / c.name;
        if (c.target.empty()) {
            ASSERT_EQ(WriteFile(path, "x", false), 0);
        } else {
            ASSERT_EQ(symlink(c.target.c_str(), path.c_str()), 0);
        }
        ASSERT_EQ(lchown(path.c_str(), c.owner, c.owner), 0);
    }
    for (const auto& c : cases) {
        std::string content;
        Reader file;
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

TEST(FileUtils, ReplacingKeepsModeOwnerAndLinksAndAFullDiskLeavesEveryFileWhole) {
    const TempDir dir;
    const std::string path = dir / "app.conf";
    ASSERT_EQ(mount("tmpfs", (dir / "").c_str(), "tmpfs", 0, "size=256k"), 0);
    ASSERT_EQ(WriteFile(path, "old", false), 0);
    ASSERT_EQ(chown(path.c_str(), 12, 34), 0);
    ASSERT_EQ(chmod(path.c_str(), 02640), 0);
    ASSERT_EQ(symlink("app.conf", (dir / "inner").c_str()), 0);
    ASSERT_EQ(symlink((dir / "inner").c_str(), (dir / "outer").c_str()), 0);
    ASSERT_EQ(symlink("created", (dir / "dangling").c_str()), 0);
    EXPECT_EQ(WriteFile(dir / "outer", "new", false), 0);
    EXPECT_EQ(SafeCopyFile(path, dir / "copy", 3), 0);
    EXPECT_EQ(WriteFile(dir / "dangling", "x", false), 0);
    for (const std::string name : {"outer", "none"}) {
        EXPECT_EQ(WriteFile(dir / name, std::string(300000, 'n'), false), ENOSPC);
    }
    EXPECT_EQ(WriteFile(path, std::string(300000, 'n'), true), ENOSPC);
    for (const std::string name : {"app.conf", "copy"}) {
        struct stat status {};
        ASSERT_EQ(stat((dir / name).c_str(), &status), 0);
        std::string text;
        EXPECT_EQ(ReadFile(dir / name, text, 3), 0);
        EXPECT_EQ(text, "new");
        EXPECT_EQ(status.st_mode & 07777, name == "copy" ? 0640U : 02640U);
        EXPECT_EQ(status.st_uid * 100 + status.st_gid, 1234U);
    }
    EXPECT_TRUE(IsFile(dir / "created"));
    EXPECT_EQ(EntriesOf(dir), 6) << "nothing is left behind";
    EXPECT_EQ(umount((dir / "").c_str()), 0);
}

}  // namespace
