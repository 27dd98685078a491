#pragma once

#include <json/value.h>

#include <string>

constexpr int kNoStatusFile = 4;  // exit status: the file cannot be read, or is none

// What the status file holds; an empty object when there is no file. Throws StartError for one that
// cannot be read or is no status file.
Json::Value ReadStatusFile(const std::string& path);

// Whether the process that wrote it runs.
bool IsAlive(const Json::Value& status);
