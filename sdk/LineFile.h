#pragma once

#include <sys/types.h>

#include <string>

#include "sdk/Descriptor.h"

namespace SDK {

// A file that is kept open and that lines are appended to by this process alone. A line is in it
// whole or not at all, and stands on a line of its own also behind what a crash has left. One
// thread at a time. Results are 0 or an errno value.
class LineFile {
public:
    explicit LineFile(std::string path) : path_(std::move(path)) {}

    // Opens the file at the path now, creating it (0640 less the umask). EINVAL for what is no
    // regular file; never waits for a FIFO.
    int Open();

    // Appends `lines`, newline-terminated. When the path no longer leads to the open file, it opens
    // what is there or a new file first.
    int Append(const std::string& lines);

    const std::string& Path() const { return path_; }
    // In bytes; 0 when nothing is open.
    off_t Size() const;
    int Get() const { return file_.Get(); }

private:
    bool IsInPlace() const;

    const std::string path_;
    Descriptor file_;
    bool torn_ = false;  // the file ends in a piece of a line
};

}  // namespace SDK
