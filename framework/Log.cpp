#include "framework/Log.h"

#include <Poco/Exception.h>

#include <exception>

namespace Framework {

std::string DescribeException() {
    try {
        throw;
    } catch (const Poco::Exception& e) {
        return e.displayText();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

void LogException(std::initializer_list<std::string_view> what) noexcept {
    try {
        std::string text;
        for (const std::string_view piece : what) {
            text += piece;
        }
        Log().error(text + ": " + DescribeException());
    } catch (...) {
    }
}

}  // namespace Framework
