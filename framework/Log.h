#pragma once

#include <Poco/Logger.h>

#include <initializer_list>
#include <string>
#include <string_view>

namespace Framework {

// The logger of the agent itself; modules have loggers of their own.
inline Poco::Logger& Log() {
    static Poco::Logger& logger = Poco::Logger::get("watchpost");
    return logger;
}

// In a handler: the text of the exception at hand.
std::string DescribeException();

// In a handler: logs the exception at hand as an error line, the pieces of `what` before its text.
// Where even that fails, memory having run out, the line is missing and the handler goes on.
void LogException(std::initializer_list<std::string_view> what) noexcept;

}  // namespace Framework
