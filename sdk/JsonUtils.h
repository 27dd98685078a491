#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace SDK::JsonUtils {

// JSON of any root kind, as strict as jsoncpp gets: nothing after the value, no duplicate keys,
// about 1000 levels of arrays and objects. A byte order mark is skipped; bytes of a string that are
// not UTF-8 are kept. 0, or EINVAL (not such a text) or ENOMEM with `out` unchanged; never throws.
// `why`, set when it is not such a text: "line 3, column 7: ..." of the first fault.
int ParseJsonStr(const char* text, size_t length, Json::Value& out, std::string* why = nullptr);

// The member `key` of `value`, or `def` when `value` is no object, has no such member or one of
// another kind. GetIntValue takes whole numbers of 32 bits only; 1.0 counts as 1.
std::string GetStringValue(const Json::Value& value, const std::string& key,
                           const std::string& def);
bool GetBoolValue(const Json::Value& value, const std::string& key, bool def);
int32_t GetIntValue(const Json::Value& value, const std::string& key, int32_t def);

// Copies the member `key` to `out`; false, with `out` unchanged, when `value` is no object, has no
// such member or one that is not an array (an object). `out` may be `value` itself.
bool GetArrayValue(const Json::Value& value, const std::string& key, Json::Value& out);
bool GetSubobjectValue(const Json::Value& value, const std::string& key, Json::Value& out);

// One compact line of ASCII without a newline at its end, keys in ascending byte order. Bytes of
// strings and keys that are not UTF-8 come out as U+FFFD; of keys that become equal so, one is
// kept.
std::string JsonToString(const Json::Value& value);

}  // namespace SDK::JsonUtils
