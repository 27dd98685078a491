#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "sdk/ReadMark.h"
#include "sdk/test/TempDir.h"

namespace {

using SDK::FileStamp;
using SDK::ReadMark;

void Write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

void SetModified(const std::string& path, const struct stat& as) {
    const timespec times[2] = {as.st_atim, as.st_mtim};
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// What may happen to a file, that was read, and its neighbour of the same length and times.
TEST(ReadMark, HoldsUntilAnythingHappensToTheFile) {
    const TempDir dir;
    const std::string path = dir / "file";
    const std::string other = dir / "other";
    struct stat status = {};
    const struct {
        const char* what;
        std::function<void()> happens;
        bool holds;
    } cases[] = {
        {"nothing", [] {}, true},
        {"a reading", [&] { std::ifstream(path).get(); }, true},
        {"a write that keeps the length", [&] { Write(path, "b"); }, false},
        {"a write, and times set back",
         [&] {
             Write(path, "b");
             SetModified(path, status);
         },
         false},
        {"another in its place", [&] { EXPECT_EQ(rename(other.c_str(), path.c_str()), 0); }, false},
        {"an exchange, and back",
         [&] {
             for (int i = 0; i < 2; ++i) {
                 EXPECT_EQ(
                     renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE),
                     0);
             }
         },
         false},
        {"its removal", [&] { EXPECT_EQ(remove(path.c_str()), 0); }, false},
        {"other permissions", [&] { EXPECT_EQ(chmod(path.c_str(), 0600), 0); }, false},
    };
    for (const auto& c : cases) {
        Write(path, "a");
        Write(other, "b");
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        SetModified(other, status);
        const FileStamp stamp = FileStamp::Of(path.c_str());
        // The kernel's clock moves in steps: the next change is in a later one.
        while (ReadMark::Now() - stamp.changed < 20'000'000) {
        }
        ReadMark mark;
        EXPECT_FALSE(mark.Holds(stamp));
        mark.Set(stamp, stamp, stamp.changed + 2'000'000'000);
        c.happens();
        EXPECT_EQ(mark.Holds(FileStamp::Of(path.c_str())), c.holds) << c.what;
    }
}

TEST(ReadMark, RemembersNoReadingThatALaterWriteCouldLookLike) {
    FileStamp stamp;
    stamp.changed = 5'000'000'000;
    FileStamp longer = stamp;
    longer.size = 1;
    ReadMark mark;
    mark.Set(stamp, stamp, 6'999'999'999);
    EXPECT_FALSE(mark.Holds(stamp)) << "just changed";
    mark.Set(stamp, stamp, 1'000'000'000);
    EXPECT_FALSE(mark.Holds(stamp)) << "the clock was set back";
    mark.Set(stamp, longer, 9'000'000'000);
    EXPECT_FALSE(mark.Holds(stamp) || mark.Holds(longer)) << "changed while it was read";
    mark.Set(stamp, stamp, 7'000'000'000);
    EXPECT_TRUE(mark.Holds(stamp));
}

}  // namespace
