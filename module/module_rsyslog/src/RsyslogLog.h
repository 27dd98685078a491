#pragma once

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <exception>
#include <string>
#include <utility>

#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace Engine {

namespace {

// The module's logger, looked up once for each source unit; null when there is none.
inline Poco::Logger* UnitLogger() {
    static Poco::Logger* const logger =
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("module_rsyslog", false);
    return logger;
}

[[maybe_unused]] inline bool TraceIsOn() {
    try {
        const Poco::Logger* logger = UnitLogger();
        return logger != nullptr && logger->trace();
    } catch (const std::exception&) {
        return false;
    }
}

inline std::string LogText(const char* text) {
    return text;
}

template <typename... Args>
std::string LogText(const char* format, Args&&... args) {
    return Poco::format(format, std::forward<Args>(args)...);
}

}  // namespace

}  // namespace Engine

// RSYSLOG_LOG(PRIO_ERROR, "text with %s", argument): one message of the module's logger, with
// Poco::format's conversions. The text is built only when the level admits it, and no failure to
// log disturbs the caller.
#define RSYSLOG_LOG(priority, ...)                                                         \
    do {                                                                                   \
        try {                                                                              \
            Poco::Logger* const unit_logger = UnitLogger();                                \
            if (unit_logger != nullptr && unit_logger->is(Poco::Message::priority)) {      \
                static const std::string unit_file =                                       \
                    SDK::PathUtils::GetFileNameFromPath(__FILE__);                         \
                unit_logger->log(Poco::Message(unit_logger->name(), LogText(__VA_ARGS__),  \
                                               Poco::Message::priority, unit_file.c_str(), \
                                               __LINE__));                                 \
            }                                                                              \
        } catch (const std::exception&) {                                                  \
        }                                                                                  \
    } while (false)
