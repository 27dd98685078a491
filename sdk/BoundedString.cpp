#include "sdk/BoundedString.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace SDK {

int snprintf_s(char* dest, size_t dest_max, size_t count, const char* format, ...) {
    if (dest == nullptr || dest_max == 0) {
        return -1;
    }
    if (format == nullptr || count >= dest_max) {
        dest[0] = '\0';
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(dest, count + 1, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) > count) {
        dest[0] = '\0';
        return -1;
    }
    return length;
}

int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count) {
    if (dest == nullptr || src == nullptr) {
        return EINVAL;
    }
    if (count > dest_max) {
        return ERANGE;
    }
    std::memmove(dest, src, count);
    return 0;
}

}  // namespace SDK
