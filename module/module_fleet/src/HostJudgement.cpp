#include "module/module_fleet/src/HostJudgement.h"

#include <algorithm>

#include "module/module_fleet/src/FleetNames.h"
#include "sdk/JsonUtils.h"

namespace Fleet {

namespace {

using SDK::JsonUtils::GetStringValue;

constexpr int kMissedHeartbeats = 3;  // and a host counts as silent
constexpr int kHeartbeat = 30;        // seconds, of one that does not tell

std::string What(const std::string& key, std::uint64_t revision) {
    return Readable(key) + " revision " + std::to_string(revision);
}

// Of a policy of the fleet, or a document of another source, that the host refuses; empty when it
// refuses none.
std::string Refusal(const Json::Value& policy, const Json::Value& refused) {
    Json::Value mine, findings;
    if (SDK::JsonUtils::GetSubobjectValue(policy, "refused", mine)) {
        SDK::JsonUtils::GetArrayValue(mine, "findings", findings);
        std::string why = Readable(GetStringValue(mine, "source", "a policy"));
        for (const Json::Value& finding : findings) {
            why += ": " + GetStringValue(finding, "key", "") + " " +
                   GetStringValue(finding, "problem", "");
        }
        return why;
    }
    return refused.empty() ? ""
                           : GetStringValue(refused[0], "key", "a policy") + ": " +
                                 GetStringValue(refused[0], "why", "");
}

// What it should follow and does not; empty when it does.
std::string Difference(const Json::Value& policy, const Json::Value& keys,
                       const Revisions& revisions) {
    const std::string source = GetStringValue(policy, "source", "");
    for (const Json::Value& key : keys) {
        const auto wanted = revisions.find(key.isString() ? key.asString() : "");
        if (wanted != revisions.end()) {
            return source == wanted->first && policy["revision"] == Json::Int64(wanted->second)
                       ? ""
                       : "does not follow " + What(wanted->first, wanted->second) + " yet";
        }
    }
    return source.empty() ? "" : "follows " + Readable(source) + ", which is no more";
}

}  // namespace

Judgement JudgeHost(const Json::Value& told, std::int64_t age, const Revisions& revisions) {
    if (age > std::int64_t{kMissedHeartbeats} *
                  SDK::JsonUtils::GetIntValue(told, "heartbeat_s", kHeartbeat)) {
        return {"silent", ""};
    }
    Json::Value policy, keys, conditions, refused;
    if (!SDK::JsonUtils::GetSubobjectValue(told, "policy", policy) ||
        !SDK::JsonUtils::GetArrayValue(policy, "keys", keys) ||
        !SDK::JsonUtils::GetArrayValue(told, "conditions", conditions) ||
        !SDK::JsonUtils::GetArrayValue(told, "refused", refused)) {
        return {"wrong", "tells what no agent does"};
    }
    std::string why = Refusal(policy, refused);
    if (!why.empty()) {
        return {"refused", why};
    }
    why = Difference(policy, keys, revisions);
    if (!why.empty()) {
        return {"differs", why};
    }
    const auto bad = std::find_if(conditions.begin(), conditions.end(), [](const auto& condition) {
        return !SDK::JsonUtils::GetBoolValue(condition, "good", false);
    });
    if (bad != conditions.end()) {
        return {"wrong",
                GetStringValue(*bad, "subject", "") + ": " + GetStringValue(*bad, "text", "")};
    }
    return {"well", ""};
}

}  // namespace Fleet
