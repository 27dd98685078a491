#pragma once

#include <json/value.h>

#include "module/module_rsyslog/src/Findings.h"

namespace Engine {

// Compares a policy document with the schema that the program carries, policy.schema.json: keys
// that nobody reads, with the nearest one that is, values of the wrong kind and what is used
// instead, numbers out of bounds, keys that are missing. What texts may hold is not looked at here.
// Adds what it finds in the order of the keys.
void JudgeShape(const Json::Value& document, Findings& findings);

}  // namespace Engine
