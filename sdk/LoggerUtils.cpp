#include "sdk/LoggerUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/Error.h>
#include <Poco/Exception.h>
#include <Poco/Message.h>
#include <Poco/PatternFormatter.h>

#include "sdk/LogFile.h"
#include "sdk/Paths.h"
#include "sdk/StringUtils.h"

namespace SDK {
namespace {

constexpr char kLogName[] = "watchpost.log";
constexpr char kPattern[] = "%L%Y-%m-%d %H:%M:%S.%i [%p] %s %U:%u %t";

// Makes one printable line of every message: texts come partly from files of hostile users, who
// must not be able to write log lines of their own.
class LineFormatter : public Poco::PatternFormatter {
public:
    LineFormatter() : Poco::PatternFormatter(kPattern) {}

    void format(const Poco::Message& message, std::string& text) override {
        std::string raw;
        Poco::PatternFormatter::format(message, raw);
        text += StringUtils::ToPrintable(raw);
    }

protected:
    ~LineFormatter() override = default;
};

}  // namespace

LoggerUtils::LoggerUtils() : log_dir_(Paths::kLogs) {}

LoggerUtils* LoggerUtils::GetInstance() {
    // Never destroyed: other threads may still log while the process exits.
    static auto* const kInstance = new LoggerUtils;
    return kInstance;
}

void LoggerUtils::Open(const std::string& log_dir, const std::string& level) {
    const int level_number = Poco::Logger::parseLevel(level);
    const std::string path = log_dir + "/" + kLogName;
    Poco::AutoPtr<LogFile> file(new LogFile(path, new LineFormatter));
    if (const int error = file->OpenFile(); error != 0) {
        throw Poco::OpenFileException("log file " + path + ": " + Poco::Error::getMessage(error),
                                      error);
    }

    const std::lock_guard<std::mutex> lock(mutex_);
    log_dir_ = log_dir;
    // By name this reaches the loggers made already, which hold copies of the root's settings, and
    // only those: the root has to be among them for the later ones to inherit from it.
    Poco::Logger::root();
    end_ = new ErrorStream(file);
    Poco::Logger::setChannel("", end_);
    Poco::Logger::setLevel("", level_number);
}

std::string LoggerUtils::GetLogPath() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return log_dir_;
}

bool LoggerUtils::GetLastError(Poco::Timestamp& time, std::string& text) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return !end_.isNull() && end_->GetLast(time, text);
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool must_exist) {
    if (must_exist && Poco::Logger::has(name).isNull()) {
        return nullptr;
    }
    return &Poco::Logger::get(name);
}

}  // namespace SDK
