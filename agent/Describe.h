#pragma once

#include <json/value.h>

#include <string>

#include "framework/Finding.h"
#include "framework/HostChange.h"

// How the commands print what modules tell: for people, and as JSON.
namespace Describe {

Json::Value ToJson(const Framework::Finding& finding);
Json::Value ToJson(const Framework::HostChange& change);

// Lines, each newline-terminated, whatever the texts hold.
std::string ToText(const Framework::Finding& finding);
// `done`: "would" have been done or was.
std::string ToText(const Framework::HostChange& change, bool planned);

}  // namespace Describe
