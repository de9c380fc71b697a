#include "Plugin/PrintableText.h"

#include <cstdint>
#include <cstdio>

namespace {

bool continuation(const std::string& text, size_t at, unsigned char low = 0x80, unsigned char high = 0xbf) {
    if (at >= text.size()) {
        return false;
    }
    const unsigned char byte = static_cast<unsigned char>(text[at]);
    return byte >= low && byte <= high;
}

// The length of the valid UTF-8 sequence that begins at `at` (RFC 3629:
// shortest form, no surrogates, at most U+10FFFF) with its code point in
// `code`, or 0 when the byte there begins none.
size_t sequence(const std::string& text, size_t at, uint32_t& code) {
    const unsigned char lead = static_cast<unsigned char>(text[at]);
    size_t length = 0;
    // The range of the second byte narrows for the leads where overlong
    // forms, surrogates or values above U+10FFFF would begin.
    unsigned char low = 0x80, high = 0xbf;
    if (lead < 0x80) {
        code = lead;
        return 1;
    } else if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
        code = lead & 0x1f;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        code = lead & 0x0f;
        low = lead == 0xe0 ? 0xa0 : 0x80;
        high = lead == 0xed ? 0x9f : 0xbf;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        code = lead & 0x07;
        low = lead == 0xf0 ? 0x90 : 0x80;
        high = lead == 0xf4 ? 0x8f : 0xbf;
    } else {
        return 0;
    }
    if (!continuation(text, at + 1, low, high)) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if (!continuation(text, at + i)) {
            return 0;
        }
        code = (code << 6) | (static_cast<unsigned char>(text[at + i]) & 0x3f);
    }
    return length;
}

bool control(uint32_t code) {
    return code < 0x20 || (code >= 0x7f && code <= 0x9f);
}

void appendHex(std::string& out, const char* format, unsigned value) {
    char text[8];
    std::snprintf(text, sizeof(text), format, value);
    out += text;
}

}  // namespace

std::string PrintableText::sEscaped(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        uint32_t code = 0;
        const size_t length = sequence(text, at, code);
        if (length == 0 || control(code)) {
            // Byte by byte: a reader gets back exactly what the plugin sent.
            for (size_t i = 0; i < (length == 0 ? 1 : length); ++i) {
                appendHex(out, "\\x%02x", static_cast<unsigned char>(text[at + i]));
            }
            at += length == 0 ? 1 : length;
            continue;
        }
        if (code == '\\') {
            out += "\\\\";
        } else {
            out.append(text, at, length);
        }
        at += length;
    }
    return out;
}

std::string PrintableText::sJson(const std::string& serialized) {
    std::string out;
    out.reserve(serialized.size());
    for (size_t at = 0; at < serialized.size();) {
        uint32_t code = 0;
        const size_t length = sequence(serialized, at, code);
        if (length == 0) {
            out += "\xef\xbf\xbd";  // U+FFFD, the replacement character
            ++at;
            continue;
        }
        if (code >= 0x7f && code <= 0x9f) {
            appendHex(out, "\\u%04x", code);
        } else {
            out.append(serialized, at, length);
        }
        at += length;
    }
    return out;
}
