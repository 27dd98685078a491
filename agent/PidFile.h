#pragma once

#include <string>

// The file that names this process, while the object lives.
class PidFile {
public:
    // Writes the file; an empty path is none. Throws StartError, EX_CANTCREAT.
    explicit PidFile(const std::string& path);
    // Removes the file unless another process has put its own id there.
    ~PidFile();
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

private:
    const std::string path_;
    const std::string text_;
};
