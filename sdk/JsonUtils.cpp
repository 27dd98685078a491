#include "sdk/JsonUtils.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <sstream>
#include <string_view>

#include "sdk/StringUtils.h"

namespace SDK::JsonUtils {
namespace {

constexpr size_t kMaxDepth = 1000;

Json::CharReaderBuilder MakeReaderBuilder() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    // Room for the array put around the text.
    builder["stackLimit"] = static_cast<Json::UInt>(kMaxDepth + 1);
    return builder;
}

Json::StreamWriterBuilder MakeWriterBuilder() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    return builder;
}

const Json::Value* FindMember(const Json::Value& value, const std::string& key) {
    return value.isObject() ? value.find(key.data(), key.data() + key.size()) : nullptr;
}

bool CopyMember(const Json::Value& value, const std::string& key, Json::ValueType kind,
                Json::Value& out) {
    const Json::Value* member = FindMember(value, key);
    if (member == nullptr || member->type() != kind) {
        return false;
    }
    Json::Value copy(*member);
    out.swap(copy);
    return true;
}

// A copy in which every string and key is valid UTF-8: jsoncpp's writer takes the bytes behind a
// truncated sequence for a part of it and drops them.
Json::Value ToValidUtf8(const Json::Value& value) {
    switch (value.type()) {
        case Json::stringValue:
            return {StringUtils::ToUtf8(value.asString())};
        case Json::arrayValue: {
            Json::Value copy(Json::arrayValue);
            for (const Json::Value& element : value) {
                copy.append(ToValidUtf8(element));
            }
            return copy;
        }
        case Json::objectValue: {
            Json::Value copy(Json::objectValue);
            for (auto member = value.begin(); member != value.end(); ++member) {
                copy[StringUtils::ToUtf8(member.name())] = ToValidUtf8(*member);
            }
            return copy;
        }
        default:
            return value;
    }
}

// Of jsoncpp's text for people, "* Line 1, Column 2\n  What\n...", with the bracket before the text
// not counted.
std::string FirstFault(const std::string& errors) {
    std::istringstream text(errors);
    std::string word;
    std::string what;
    int line = 0;
    int column = 0;
    if (!(text >> word >> word >> line >> word >> word >> column) ||
        !std::getline(text >> std::ws, what)) {
        return "it is not one value";
    }
    return "line " + std::to_string(line) + ", column " +
           std::to_string(line == 1 ? column - 1 : column) + ": " + what;
}

}  // namespace

int ParseJsonStr(const char* text, size_t length, Json::Value& out, std::string* why) {
    if (text == nullptr) {
        return EINVAL;
    }
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::string_view json(text, length);
    if (json.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        json.remove_prefix(kByteOrderMark.size());
    }
    try {
        // As the only element of an array the text may be of any kind while jsoncpp still insists
        // on an array or object at the root; without that it would overlook garbage behind the
        // value.
        std::string wrapped;
        wrapped.reserve(json.size() + 2);
        wrapped.append(1, '[').append(json).append(1, ']');
        // Kept, as making one costs more than parsing a short text.
        thread_local const std::unique_ptr<Json::CharReader> reader(
            MakeReaderBuilder().newCharReader());
        Json::Value root;
        std::string errors;
        if (!reader->parse(wrapped.data(), wrapped.data() + wrapped.size(), &root, &errors) ||
            root.size() != 1) {
            if (why != nullptr) {
                *why = FirstFault(errors);
            }
            return EINVAL;
        }
        out.swap(root[0]);
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    } catch (const std::exception&) {
        if (why != nullptr) {
            *why = "nested too deep";
        }
        return EINVAL;
    }
}

std::string GetStringValue(const Json::Value& value, const std::string& key,
                           const std::string& def) {
    const Json::Value* member = FindMember(value, key);
    return member != nullptr && member->isString() ? member->asString() : def;
}

bool GetBoolValue(const Json::Value& value, const std::string& key, bool def) {
    const Json::Value* member = FindMember(value, key);
    return member != nullptr && member->isBool() ? member->asBool() : def;
}

int32_t GetIntValue(const Json::Value& value, const std::string& key, int32_t def) {
    const Json::Value* member = FindMember(value, key);
    return member != nullptr && member->isInt() ? member->asInt() : def;
}

bool GetArrayValue(const Json::Value& value, const std::string& key, Json::Value& out) {
    return CopyMember(value, key, Json::arrayValue, out);
}

bool GetSubobjectValue(const Json::Value& value, const std::string& key, Json::Value& out) {
    return CopyMember(value, key, Json::objectValue, out);
}

std::string JsonToString(const Json::Value& value) {
    // Kept, as making one costs more than writing a short text.
    thread_local const std::unique_ptr<Json::StreamWriter> writer(
        MakeWriterBuilder().newStreamWriter());
    std::ostringstream text;
    writer->write(ToValidUtf8(value), &text);
    return text.str();
}

}  // namespace SDK::JsonUtils
