#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sdk/Descriptor.h"

namespace Fleet {

// Reads the lines of a file that another thread or process appends to, and of what it was before a
// rotation: every regular file beside it whose name is its own with ".SOMETHING" or "-SOMETHING"
// behind, compressed ones (.gz, .xz, .bz2, .zst) left out. A file is told by device, inode and the
// digest of its first bytes, not by its name, and is kept open: once seen, it may be renamed,
// compressed or removed and is read to its end all the same. Oldest modification first, the file at
// the path last. A file that has become shorter is read from its start. One thread at a time.
class Spool {
public:
    struct File;

    struct Line {
        std::string text;  // without its newline
        std::shared_ptr<File> file;
        off_t end = 0;  // where the next line begins
    };

    // Of a longer line only the end is given, which is no JSON then.
    static constexpr std::size_t kMaxLine = 64 << 20;  // bytes

    explicit Spool(std::string path);
    ~Spool();

    // The next line; false when there is none for now. Cheap to ask again and again. Throws
    // Poco::IOException when a file is there and cannot be read.
    bool Next(Line& line);
    // Everything up to the line's end is done with.
    static void Finish(const Line& line);
    // Next goes on behind what is done with.
    void Rewind();

    // What is done with, and taking it up again. Files that the positions do not name, or whose
    // beginning is another one, are read from their start.
    Json::Value Positions();
    void Resume(const Json::Value& positions);

private:
    // Opens files that are new, forgets those that are gone and done with, and sorts them.
    void Scan();
    void Add(const std::string& path);
    // The place that the positions give for the file.
    off_t PlaceOf(const File& file) const;
    // Looks for the next file with something unread.
    bool Open();
    // A whole line out of the buffer.
    bool Take(Line& line);

    const std::string path_;
    Json::Value positions_;  // from before, for files not seen yet
    std::vector<std::shared_ptr<File>> files_;
    std::chrono::steady_clock::time_point next_scan_;
    std::shared_ptr<File> current_;
    std::string buffer_;  // of the current file, from `begin_` on unread
    std::size_t begin_ = 0;
    std::size_t looked_ = 0;  // no newline before this place
};

}  // namespace Fleet
