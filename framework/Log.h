#pragma once

#include <Poco/Logger.h>

namespace Framework {

// The logger of the agent itself; modules have loggers of their own.
inline Poco::Logger& Log() {
    static Poco::Logger& logger = Poco::Logger::get("watchpost");
    return logger;
}

}  // namespace Framework
