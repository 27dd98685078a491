#include "sdk/PrivateFolder.h"

#include <Poco/Exception.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace SDK {

PrivateFolder::PrivateFolder() : path_("/tmp/watchpost.XXXXXX") {
    // Of a name that nobody has guessed, or put something of his own at.
    if (mkdtemp(path_.data()) == nullptr) {
        throw Poco::SystemException(path_, std::strerror(errno));
    }
}

std::string PrivateFolder::Write(const std::string& name, const std::string& content) const {
    std::string file = path_ + "/" + name;
    errno = 0;
    if (!(std::ofstream(file, std::ios::binary) << content << std::flush)) {
        throw Poco::WriteFileException(file, std::strerror(errno));
    }
    return file;
}

PrivateFolder::~PrivateFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

}  // namespace SDK
