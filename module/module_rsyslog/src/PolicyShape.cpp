#include "module/module_rsyslog/src/PolicyShape.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "module/module_rsyslog/PolicySchema.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

const Json::Value& Schema() {
    static const Json::Value schema = [] {
        Json::Value value;
        SDK::JsonUtils::ParseJsonStr(kPolicySchema, sizeof(kPolicySchema) - 1, value);
        return value;
    }();
    return schema;
}

// How many letters have to be put in, taken out or changed to make one word of the other.
std::size_t Distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t corner = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const bool same = std::tolower(static_cast<unsigned char>(one[i])) ==
                              std::tolower(static_cast<unsigned char>(other[j]));
            const std::size_t changed = corner + (same ? 0 : 1);
            corner = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, corner + 1});
        }
    }
    return row.back();
}

struct Known {
    std::string path;  // of the key
    std::string name;
};

void Collect(const Json::Value& schema, const std::string& prefix, std::vector<Known>& keys) {
    for (const auto& name : schema["properties"].getMemberNames()) {
        keys.push_back({prefix + name, name});
        Collect(schema["properties"][name], prefix + name + ".", keys);
    }
}

// Where the author of an unknown key may have meant to write what.
std::string Nearest(const std::string& name, const std::string& place) {
    constexpr std::size_t kLongestKey = 64;
    std::vector<Known> keys;
    Collect(Schema(), "", keys);
    const Known* nearest = nullptr;
    std::size_t best = name.size() > kLongestKey ? 0 : name.size() / 3 + 1;
    for (const Known& key : keys) {
        const std::size_t distance = best == 0 ? 1 : Distance(name, key.name);
        if (distance < best || (distance == best && nearest == nullptr)) {
            best = distance;
            nearest = &key;
        }
    }
    if (nearest == nullptr || name.size() > kLongestKey) {
        return "take it out";
    }
    return nearest->path == place + nearest->name && nearest->name != name
               ? "did you mean " + nearest->name + "?"
               : "did you mean " + nearest->path + "?";
}

bool IsOfType(const Json::Value& value, const std::string& type) {
    return (type == "string" && value.isString()) || (type == "boolean" && value.isBool()) ||
           (type == "integer" && value.isInt()) || (type == "array" && value.isArray()) ||
           (type == "object" && value.isObject());
}

std::string Article(const std::string& type) {
    return (std::string("aeio").find(type.front()) != std::string::npos ? "an " : "a ") + type;
}

class Walk {
public:
    explicit Walk(Findings& findings) : findings_(findings) {}

    void Object(const Json::Value& value, const Json::Value& schema, const std::string& prefix) {
        for (const auto& required : schema["required"]) {
            if (!value.isMember(required.asString())) {
                findings_.Fail(prefix + required.asString(),
                               "is missing, and the document is refused", "add it");
            }
        }
        const Json::Value& known = schema["properties"];
        for (const auto& name : value.getMemberNames()) {
            if (known.isMember(name)) {
                Member(value[name], known[name], prefix + name);
            } else if (!findings_.Full()) {
                findings_.Warn(prefix + name, "is a key that nobody reads", Nearest(name, prefix));
            }
        }
    }

private:
    void Member(const Json::Value& value, const Json::Value& schema, const std::string& key) {
        const std::string type = schema["type"].asString();
        if (schema.isMember("const")) {
            if (value != schema["const"]) {
                findings_.Fail(key, "makes the document one that is refused",
                               "it must be \"" + schema["const"].asString() + "\"");
            }
        } else if (!IsOfType(value, type)) {
            WrongType(value, schema, key, type);
        } else if (type == "object") {
            Object(value, schema, key + ".");
        } else if (type == "array") {
            Elements(value, schema["items"]["type"].asString(), key);
        } else if (type == "integer") {
            Bounds(value.asInt(), schema, key);
        }
    }

    void WrongType(const Json::Value& value, const Json::Value& schema, const std::string& key,
                   const std::string& type) {
        const bool large = type == "integer" && value.isIntegral();
        const std::string what = large ? "is no number of 32 bits" : "is not " + Article(type);
        if (!schema.isMember("default")) {
            findings_.Fail(key, what + ", and the document is refused", "make it " + Article(type));
            return;
        }
        const std::string otherwise = SDK::JsonUtils::JsonToString(schema["default"]);
        findings_.Warn(key, what + ": " + otherwise + " is used instead",
                       large ? "make it smaller" : "make it " + Article(type));
    }

    void Elements(const Json::Value& array, const std::string& type, const std::string& key) {
        for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
            if (!IsOfType(array[i], type)) {
                findings_.Warn(key + "[" + std::to_string(i) + "]",
                               "is not " + Article(type) + " and is passed over", "make it one");
            }
        }
    }

    void Bounds(int number, const Json::Value& schema, const std::string& key) {
        const int least = schema["minimum"].asInt();
        const int most = schema["maximum"].asInt();
        if (number < least || number > most) {
            const std::string range =
                "from " + std::to_string(least) + " to " + std::to_string(most);
            const Json::Value& outside = schema[number < least ? "x-below" : "x-above"];
            const std::string problem = std::to_string(number) + outside["problem"].asString();
            if (outside["severity"] == "error") {
                findings_.Fail(key, problem, "take a number " + range);
            } else {
                findings_.Warn(key, problem, "take a number " + range);
            }
        }
    }

    Findings& findings_;
};

}  // namespace

void JudgeShape(const Json::Value& document, Findings& findings) {
    if (!document.isObject()) {
        findings.Fail("", "is no JSON object, and is refused", "begin with { and end with }");
        return;
    }
    Walk(findings).Object(document, Schema(), "");
}

}  // namespace Engine
