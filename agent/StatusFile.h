#pragma once

#include <json/value.h>

#include <string>

// What the status file holds; an empty object when there is no file. Throws StartError, status 4,
// for one that cannot be read.
Json::Value ReadStatusFile(const std::string& path);

// Whether the process that wrote it runs.
bool IsAlive(const Json::Value& status);
