#include "system/LocalizationHelper.h"

#include <cstdio>
#include <cstring>

#include "system/CommonUtils.h"

namespace datacenter {
namespace {

const size_t kLineBufferSize = 1024;

std::string stripLineEndsAndBlanks(const std::string& text) {
    const char* const blanks = "\r\n ";
    const std::string::size_type first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

LocalizationHelper::LocalizationHelper(const std::string& folder) : folder(folder) {
    init();
}

void LocalizationHelper::init() {
    parseFile(languages, folder + "/country.txt");
    const std::string fileName = getLanguagelPath(CommonUtils::sGetCountryCode());
    parseFile(values, folder + "/" + fileName);
}

std::string LocalizationHelper::getValue(const std::string& key) const {
    const auto found = values.find(key);
    return found == values.end() ? std::string() : found->second;
}

std::string LocalizationHelper::getLanguagelPath(const std::string& countryCode) const {
    auto found = languages.find(countryCode);
    if (found == languages.end()) {
        found = languages.find(CommonUtils::DEFAULTCOUNTRYCODE_);
    }
    return found == languages.end() ? std::string() : found->second;
}

void LocalizationHelper::parseFile(std::map<std::string, std::string>& entries, const std::string& path) {
    entries.clear();
    FILE* file = fopen(path.c_str(), "r");
    if (!file) {
        return;
    }
    char line[kLineBufferSize];
    while (fgets(line, sizeof(line), file)) {
        // A line that filled the buffer without its line end is too long:
        // the file is not read any further.
        if (!strchr(line, '\n') && !feof(file)) {
            break;
        }
        parseLine(entries, line);
    }
    fclose(file);
}

void LocalizationHelper::parseLine(std::map<std::string, std::string>& entries, const std::string& line) {
    const std::vector<std::string> pieces = CommonUtils::splitStringTokenCompress(line, "#");
    if (pieces.size() < 2) {
        return;
    }
    entries[stripLineEndsAndBlanks(pieces[0])] = stripLineEndsAndBlanks(pieces[1]);
}

}  // namespace datacenter
