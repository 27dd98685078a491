#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <string>

namespace Fleet {

// The revision of each policy in the bucket, by its key.
using Revisions = std::map<std::string, std::uint64_t>;

struct Judgement {
    std::string state;  // "well", "wrong", "differs", "refused" or "silent"
    std::string why;    // in the host's words where it has some, as it wrote them; may be empty
};

// What is to be said of a host by what it has told, which may be anything, so many seconds ago.
Judgement JudgeHost(const Json::Value& told, std::int64_t age, const Revisions& revisions);

}  // namespace Fleet
