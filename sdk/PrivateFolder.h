#pragma once

#include <string>

namespace SDK {

// A new directory below /tmp that nobody else may enter, with what is in it gone when the object
// is.
class PrivateFolder {
public:
    // Throws Poco::SystemException when it cannot be made.
    PrivateFolder();
    ~PrivateFolder();
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    const std::string& Path() const { return path_; }
    // Writes a file into it and returns its path. Throws Poco::WriteFileException.
    std::string Write(const std::string& name, const std::string& content) const;

private:
    std::string path_;
};

}  // namespace SDK
