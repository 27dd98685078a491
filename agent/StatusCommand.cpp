#include <sysexits.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "agent/Commands.h"
#include "agent/Settings.h"
#include "agent/StartError.h"
#include "sdk/FileUtils.h"

namespace {

constexpr std::size_t kMaxSize = 1 << 20;
constexpr int kNotRunning = 3;
constexpr int kUnreadable = 4;

}  // namespace

int Commands::Status(Watchpost& /*engine*/, const Settings& settings,
                     const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        throw StartError{EX_USAGE, "unexpected argument " + arguments.front()};
    }
    const std::string path = settings.Get("status.file");
    std::string text;
    const int error = SDK::FileUtils::ReadFile(path, text, kMaxSize);
    if (error != 0) {
        throw StartError{error == ENOENT ? kNotRunning : kUnreadable,
                         "status file " + path + ": " + std::strerror(error)};
    }
    std::cout << text;
    return 0;
}
