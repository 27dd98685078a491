#pragma once

#include <cstddef>
#include <string>

namespace SDK::StringUtils {

// The number of bytes of the well-formed UTF-8 character at `offset`, or 0 when there is none; then
// `bad` is how many bytes stand for one U+FFFD (the longest start of a character, at least 1).
size_t GetUtf8Length(const std::string& bytes, size_t offset, size_t& bad);

// Valid UTF-8 (zero bytes included) unchanged, every maximal ill-formed piece replaced with U+FFFD.
// Linear in the length.
std::string ToUtf8(const std::string& bytes);

// One line of valid UTF-8 that steers no terminal: control characters, separators of lines and
// bytes that are not UTF-8 become \n, \r or \xNN; only tabs are kept.
std::string ToPrintable(const std::string& text);

// 64 lower-case hexadecimal digits; empty when the digest is not available.
std::string Sha256(const std::string& bytes);

}  // namespace SDK::StringUtils
