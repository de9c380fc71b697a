#pragma once
// The one reader of the numbers a manifest carries ("use_status",
// "sdk_level", "status", "install_time"). Packages and plugins write these
// texts, so the reader is strict and never throws: an optional "-" and one to
// nineteen decimal digits, nothing around them, within the type's range.
// The installer and the manifest store use the same reader, so a package
// that installs is a record the store can read.
#include <cstdint>
#include <limits>
#include <string>

namespace datacenter {

class DecimalNumber {
public:
    // True, with the value in `value`, when `text` is a whole number that
    // fits into an int64_t.
    static bool sParse(const std::string& text, int64_t& value) {
        const bool negative = !text.empty() && text[0] == '-';
        const std::string digits = negative ? text.substr(1) : text;
        if (digits.empty() || digits.size() > 19) {
            return false;
        }
        uint64_t magnitude = 0;
        for (const char c : digits) {
            if (c < '0' || c > '9') {
                return false;
            }
            magnitude = magnitude * 10 + static_cast<uint64_t>(c - '0');
        }
        const uint64_t limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + (negative ? 1 : 0);
        if (magnitude > limit) {
            return false;
        }
        value = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
        return true;
    }

    // The same for a 32-bit field.
    static bool sParse(const std::string& text, int32_t& value) {
        int64_t wide = 0;
        if (!sParse(text, wide) || wide < std::numeric_limits<int32_t>::min() ||
            wide > std::numeric_limits<int32_t>::max()) {
            return false;
        }
        value = static_cast<int32_t>(wide);
        return true;
    }
};

}  // namespace datacenter
