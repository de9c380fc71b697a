#pragma once
// Values that reach a shell command line. A value made only of characters
// the shell gives no meaning to goes in as it is, so the usual command lines
// stay exactly what operators and stand-ins expect; anything else is put
// between single quotes, with embedded quotes closed, escaped and reopened.
#include <string>

namespace datacenter {

// True when `value` is not empty and every character is a letter, a digit or one of "/._-+,@=~:".
inline bool isPlainShellWord(const std::string& value) {
    if (value.empty()) {
        return false;
    }
    for (const char c : value) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                           c == '.' || c == '_' || c == '-' || c == '+' || c == ',' || c == '@' || c == '=' ||
                           c == '~' || c == ':';
        if (!plain) {
            return false;
        }
    }
    return value[0] != '-' && value[0] != '~';
}

// `value` as one shell word with its exact bytes.
inline std::string shellArgument(const std::string& value) {
    if (isPlainShellWord(value)) {
        return value;
    }
    std::string quoted = "'";
    for (const char c : value) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

}  // namespace datacenter
