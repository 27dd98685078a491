#include "sdk/StringUtils.h"

#include <Poco/DigestEngine.h>
#include <openssl/evp.h>

namespace SDK::StringUtils {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// What may follow a lead byte: `length` bytes in all, the second within [low, high], the others
// within [0x80, 0xBF]. The narrowed second bytes keep out overlong forms, surrogates and what is
// beyond U+10FFFF.
struct Lead {
    size_t length;
    unsigned char low;
    unsigned char high;
};

Lead DescribeLead(unsigned char byte) {
    if (byte < 0x80) {
        return {1, 0, 0};
    }
    if (byte >= 0xC2 && byte <= 0xDF) {
        return {2, 0x80, 0xBF};
    }
    if (byte >= 0xE0 && byte <= 0xEF) {
        return {3, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
                static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
    }
    if (byte >= 0xF0 && byte <= 0xF4) {
        return {4, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
                static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
    }
    return {0, 0, 0};
}

void AppendEscaped(std::string& line, char c) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    if (c == '\n') {
        line += "\\n";
    } else if (c == '\r') {
        line += "\\r";
    } else {
        const auto byte = static_cast<unsigned char>(c);
        line += "\\x";
        line += kDigits[byte >> 4U];
        line += kDigits[byte & 0xFU];
    }
}

// Whether the well-formed character there may end a line, steer a terminal or turn the order of
// what it shows: the ASCII controls but the tab, U+0080..U+009F, and some of general punctuation.
bool IsUnsafe(const std::string& text, size_t offset, size_t length) {
    const auto byte = static_cast<unsigned char>(text[offset]);
    if (length == 1) {
        return (byte < 0x20 && byte != '\t') || byte == 0x7F;
    }
    if (length == 2) {
        return byte == 0xC2 && static_cast<unsigned char>(text[offset + 1]) < 0xA0;
    }
    // From U+2028: separators of lines and paragraphs, embeddings and overrides of direction;
    // from U+2066: isolates.
    return length == 3 && byte == 0xE2 &&
           ((text.compare(offset, length, "\u2028") >= 0 &&
             text.compare(offset, length, "\u202E") <= 0) ||
            (text.compare(offset, length, "\u2066") >= 0 &&
             text.compare(offset, length, "\u2069") <= 0));
}

}  // namespace

size_t GetUtf8Length(const std::string& bytes, size_t offset, size_t& bad) {
    bad = 1;
    if (offset >= bytes.size()) {
        return 0;
    }
    const Lead lead = DescribeLead(static_cast<unsigned char>(bytes[offset]));
    for (size_t i = 1; i < lead.length; ++i) {
        const unsigned char low = i == 1 ? lead.low : 0x80;
        const unsigned char high = i == 1 ? lead.high : 0xBF;
        if (offset + i >= bytes.size()) {
            return 0;
        }
        const auto byte = static_cast<unsigned char>(bytes[offset + i]);
        if (byte < low || byte > high) {
            return 0;
        }
        bad = i + 1;
    }
    return lead.length;
}

std::string ToUtf8(const std::string& bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (size_t offset = 0; offset < bytes.size();) {
        size_t bad = 0;
        const size_t length = GetUtf8Length(bytes, offset, bad);
        if (length > 0) {
            text.append(bytes, offset, length);
            offset += length;
        } else {
            text += kReplacement;
            offset += bad;
        }
    }
    return text;
}

std::string ToPrintable(const std::string& text) {
    std::string line;
    line.reserve(text.size());
    for (size_t offset = 0; offset < text.size();) {
        size_t bad = 0;
        const size_t length = GetUtf8Length(text, offset, bad);
        if (length > 0 && !IsUnsafe(text, offset, length)) {
            line.append(text, offset, length);
            offset += length;
            continue;
        }
        for (size_t end = offset + (length > 0 ? length : bad); offset < end; ++offset) {
            AppendEscaped(line, text[offset]);
        }
    }
    return line;
}

std::string Sha256(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return {};
    }
    return Poco::DigestEngine::digestToHex(Poco::DigestEngine::Digest(digest, digest + length));
}

}  // namespace SDK::StringUtils
