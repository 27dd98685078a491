#pragma once

#include <cstddef>

namespace SDK {

// Writes at most `count` characters and a zero to `dest`, which has room for `dest_max`. The length
// written, or -1 when a pointer is null, count >= dest_max, formatting fails or the text is longer
// than `count`; then `dest` holds the empty string (if it has room for one).
int snprintf_s(char* dest, size_t dest_max, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Copies `count` bytes, which may overlap. 0, or EINVAL (a pointer is null) or ERANGE
// (count > dest_max) with `dest` unchanged.
int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count);

}  // namespace SDK
