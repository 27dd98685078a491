#pragma once

#include <sys/types.h>

#include <string>

// A small file that tells others how this process fares, replaced whole each time, whatever the
// umask with the given mode. Its directory is made when it is missing. That it cannot be written is
// an error line, once until it can be again.
class PublishedFile {
public:
    // `what`: its name in the log, "status file".
    PublishedFile(const std::string& what, const std::string& path, mode_t mode);

    void Write(const std::string& text);
    void Remove() const;

private:
    // 0 or an errno value.
    int Replace(const std::string& text) const;
    // A descriptor, or -1 with errno set.
    int Create() const;

    const std::string what_;
    const std::string path_;
    const std::string beside_;  // what is to take the file's place
    const mode_t mode_;
    int trouble_ = 0;  // why the file could not be written
};
