#pragma once

#include <ctime>

#include "sdk/FileStamp.h"

namespace SDK {

// Remembers the state of a file that was read, so that the file need not be read again to know that
// it still holds the same.
//
// Guarantee: while Holds is true for the file's state, reading the file gives what the remembered
// reading gave. Every write, also one that sets times back, moves ctime, which only the kernel's
// clock decides, and another file put in its place is another inode. Two gaps are closed by not
// remembering: a file that changes while it is read, and one that has changed less than two seconds
// before, as the next write could leave the same times (file systems count them in steps of up to
// two seconds). Two remain: a clock set back to the very nanosecond of the last change when the
// file, at the same length, is written again; and a page that a process keeps mapped shared and
// writes to more than once before the kernel writes it back, which moves ctime the first time only.
class ReadMark {
public:
    // Now, for `began` below: nanoseconds since the epoch, UTC.
    static std::int64_t Now() {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
    }

    // Remembers a reading that began at `began`, by the states before and after it.
    void Set(const FileStamp& before, const FileStamp& after, std::int64_t began) {
        constexpr std::int64_t kSettled = 2'000'000'000;
        holds_ = before == after && began - after.changed >= kSettled;
        stamp_ = after;
    }
    void Clear() { holds_ = false; }

    bool Holds(const FileStamp& stamp) const { return holds_ && stamp == stamp_; }

private:
    FileStamp stamp_;
    bool holds_ = false;
};

}  // namespace SDK
