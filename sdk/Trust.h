#pragma once

#include <sys/stat.h>

#include <string>

// Whether what the agent obeys can be altered only by those who may command it: root, and the
// process's own user. All results are the reason why not, in words, and empty when it is so.
namespace SDK::Trust {

// Of a file or directory: it belongs to one of the two, and nobody else may write it. An access
// list shows in the group's bits.
std::string WhyNot(const struct stat& status);

// Of the directories that a file or directory stands in, links resolved: who owns one of them, or
// may write one that is open to all, can put another in its place. A sticky directory such as /tmp
// prevents that.
std::string WhyNotWay(const std::string& path);

// Both, of a directory.
std::string WhyNotDirectory(const std::string& path);

}  // namespace SDK::Trust
