#pragma once

#include <Poco/Logger.h>

#include <mutex>
#include <string>

#include "sdk/ErrorStream.h"

namespace SDK {

// The agent's log file and the loggers that write to it. All operations from any thread.
class LoggerUtils {
public:
    // Never null; lives until the process ends.
    static LoggerUtils* GetInstance();

    LoggerUtils(const LoggerUtils&) = delete;
    LoggerUtils& operator=(const LoggerUtils&) = delete;

    // Sends every logger, those that exist included, to LOG_DIR/watchpost.log, and warnings and
    // errors to standard error too (ErrorStream.h), at `level` (a level
    // name of Poco or its number). Each message is one line whatever its text: control characters
    // and bytes that are not UTF-8 are written as \n, \r or \xNN, only tabs are kept. LogFile.h
    // tells how the file rotates and what becomes of messages that cannot be written: logging never
    // throws. Throws Poco::InvalidArgumentException for the level and Poco::OpenFileException
    // naming the path for the file, with the loggers as they were. The directory must exist.
    void Open(const std::string& log_dir, const std::string& level);

    // The last message of level error or worse since Open; false when there was none.
    bool GetLastError(Poco::Timestamp& time, std::string& text) const;

    // The directory as given to Open, before that the installed default.
    std::string GetLogPath() const;

    // The logger of that name, made on demand; null when `must_exist` is set and nobody made it
    // before. Owned by Poco, valid until Poco::Logger::shutdown.
    Poco::Logger* GetModuleLogger(const std::string& name, bool must_exist);

private:
    LoggerUtils();
    ~LoggerUtils() = default;

    mutable std::mutex mutex_;
    Poco::AutoPtr<ErrorStream> end_;
    std::string log_dir_;
};

}  // namespace SDK
