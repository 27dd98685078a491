#include "sdk/Trust.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace SDK::Trust {

namespace {

std::string Owner(const struct stat& status) {
    if (status.st_uid == 0 || status.st_uid == geteuid()) {
        return {};
    }
    return "it belongs to user " + std::to_string(status.st_uid) +
           (geteuid() == 0 ? ", not to root" : ", neither to root nor to the agent's user");
}

std::string Mode(const struct stat& status) {
    char text[8] = {};
    std::snprintf(text, sizeof(text), "%04o", status.st_mode & 07777U);
    return text;
}

}  // namespace

std::string WhyNot(const struct stat& status) {
    std::string owner = Owner(status);
    if (!owner.empty() || (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        return owner;
    }
    return "others than its owner may write it (mode " + Mode(status) + ")";
}

std::string WhyNotWay(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::path directory = fs::canonical(path, error);
    if (error) {
        return error.message();
    }
    std::string why;
    while (why.empty() && directory.has_relative_path()) {
        directory = directory.parent_path();
        struct stat status = {};
        if (stat(directory.c_str(), &status) != 0) {
            return directory.string() + ": " + std::strerror(errno);
        }
        why = Owner(status);
        if (why.empty() && (status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0) {
            why = "everybody may write it (mode " + Mode(status) + ")";
        }
    }
    return why.empty() ? why : "it stands in " + directory.string() + ", and " + why;
}

std::string WhyNotDirectory(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return std::strerror(errno);
    }
    const std::string why = WhyNot(status);
    return why.empty() ? WhyNotWay(path) : why;
}

}  // namespace SDK::Trust
