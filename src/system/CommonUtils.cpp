#include "system/CommonUtils.h"

namespace {

bool isAsciiLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

void CommonUtils::sConvertToValidLibconfigKey(std::string& key) {
    if (key.empty()) {
        return;
    }
    if (!isAsciiLetter(key[0]) && key[0] != '*') {
        key = "key_" + key;
    }
    for (char& c : key) {
        if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != '-' && c != '_' && c != '*') {
            c = '_';
        }
    }
}
