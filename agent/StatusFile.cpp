#include "agent/StatusFile.h"

#include <cerrno>
#include <cstring>

#include "agent/StartError.h"
#include "agent/StatusTask.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace {

constexpr std::size_t kMaxSize = 1 << 20;

}  // namespace

Json::Value ReadStatusFile(const std::string& path) {
    Json::Value status(Json::objectValue);
    std::string text;
    const int error = SDK::FileUtils::ReadFile(path, text, kMaxSize);
    if (error == ENOENT) {
        return status;
    }
    if (error != 0) {
        throw StartError{kNoStatusFile, "status file " + path + ": " + std::strerror(error)};
    }
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), status) != 0 || !status.isObject() ||
        !status["pid"].isInt()) {
        throw StartError{kNoStatusFile, "status file " + path + " is none"};
    }
    return status;
}

bool IsAlive(const Json::Value& status) {
    const std::uint64_t start = ProcessStart(SDK::JsonUtils::GetIntValue(status, "pid", 0));
    return start != 0 && status["process_start"].isUInt64() &&
           status["process_start"].asUInt64() == start;
}
