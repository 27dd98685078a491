#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "sdk/ReadMark.h"
#include "sdk/test/TempDir.h"

namespace {

using SDK::FileStamp;
using SDK::ReadMark;

// What may happen to a file that was read, and its neighbour of the same length and times.
TEST(ReadMark, HoldsUntilAnythingHappensToTheFile) {
    const TempDir dir;
    const std::string path = dir / "file";
    const std::pair<const char*, bool> cases[] = {
        {"cat file >other", true},
        {"printf b >file", false},
        {"printf b >file; touch -r other file", false},
        {"mv other file", false},
        {"mv file away; mv other file; mv away file", false},
        {"rm file", false},
        {"chmod 600 file", false},
    };
    for (const auto& [commands, holds] : cases) {
        ASSERT_EQ(dir.Run("printf a >file; printf b >other; touch -r file other"), 0);
        const FileStamp stamp = FileStamp::Of(path.c_str());
        // The kernel's clock moves in steps: the next change is in a later one.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ReadMark mark;
        EXPECT_FALSE(mark.Holds(stamp));
        mark.Set(stamp, stamp, stamp.changed + 2'000'000'000);
        ASSERT_EQ(dir.Run(commands), 0);
        EXPECT_EQ(mark.Holds(FileStamp::Of(path.c_str())), holds) << commands;
    }
}

TEST(ReadMark, RemembersNoReadingThatALaterWriteCouldLookLike) {
    FileStamp stamp;
    stamp.changed = 5'000'000'000;
    FileStamp others[] = {stamp, stamp, stamp, stamp, stamp};
    others[0].device = others[1].inode = 1;
    others[2].size = others[3].modified = others[4].changed = 1;
    ReadMark mark;
    mark.Set(stamp, stamp, 6'999'999'999);
    EXPECT_FALSE(mark.Holds(stamp)) << "just changed";
    mark.Set(stamp, stamp, 1'000'000'000);
    EXPECT_FALSE(mark.Holds(stamp)) << "the clock was set back";
    for (const FileStamp& other : others) {
        mark.Set(stamp, other, 9'000'000'000);
        EXPECT_FALSE(mark.Holds(stamp) || mark.Holds(other)) << "changed while it was read";
        mark.Set(stamp, stamp, 7'000'000'000);
        EXPECT_TRUE(mark.Holds(stamp) && !mark.Holds(other));
    }
}

}  // namespace
