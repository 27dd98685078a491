#pragma once

#include <string>

namespace SDK::PathUtils {

// The text after the last '/', the whole path when it has none; empty when it ends in '/'.
inline std::string GetFileNameFromPath(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace SDK::PathUtils
