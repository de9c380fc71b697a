// Reader of UCI configuration files for the extended look-up syntax. It
// understands the file format that the router's tools write: "config TYPE
// [NAME]", "option NAME VALUE" and "list NAME VALUE" lines, quoted with ' or "
// or unquoted, "#" comments. Configs named without a path live in
// /etc/config; every file path goes through the root prefix.
#include <fstream>
#include <map>
#include <vector>

#include "system/CommonUtils.h"
#include "system/RootPrefix.h"
#include "system/UciAccess.h"

namespace datacenter {
namespace {

struct Section {
    std::string type;
    std::string name;                            // empty for anonymous sections
    std::map<std::string, std::string> options;  // string options only
    std::map<std::string, bool> lists;           // names that hold lists
};

// Splits one line into words, honouring quotes, backslash escapes and "#".
std::vector<std::string> tokenize(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote) {
            if (c == quote) {
                quote = 0;
            } else if (c == '\\' && quote == '"' && i + 1 < line.size()) {
                word += line[++i];
            } else {
                word += c;
            }
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            if (inWord) {
                words.push_back(word);
                word.clear();
                inWord = false;
            }
        } else if (c == '#' && !inWord) {
            break;
        } else if (c == '\'' || c == '"') {
            quote = c;
            inWord = true;
        } else if (c == '\\' && i + 1 < line.size()) {
            word += line[++i];
            inWord = true;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) {
        words.push_back(word);
    }
    return words;
}

Section* findNamed(std::vector<Section>& sections, const std::string& name) {
    for (Section& section : sections) {
        if (!section.name.empty() && section.name == name) {
            return &section;
        }
    }
    return nullptr;
}

// False when the file cannot be read.
bool parseFile(const std::string& path, std::vector<Section>& sections) {
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    Section* current = nullptr;
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> words = tokenize(line);
        if (words.empty()) {
            continue;
        }
        if (words[0] == "config" && words.size() >= 2) {
            const std::string name = words.size() >= 3 ? words[2] : std::string();
            current = name.empty() ? nullptr : findNamed(sections, name);
            if (!current) {
                sections.push_back(Section{words[1], name, {}, {}});
                current = &sections.back();
            }
        } else if (current && words[0] == "option" && words.size() >= 3) {
            current->options[words[1]] = words[2];
            current->lists.erase(words[1]);
        } else if (current && words[0] == "list" && words.size() >= 3) {
            current->options.erase(words[1]);
            current->lists[words[1]] = true;
        }
    }
    return true;
}

// "@type[index]": the index-th section of that type, negative from the end.
Section* findByTypeIndex(std::vector<Section>& sections, const std::string& selector) {
    const std::string::size_type open = selector.find('[');
    if (selector.size() < 4 || open == std::string::npos || selector.back() != ']') {
        return nullptr;
    }
    const std::string type = selector.substr(1, open - 1);
    const long index = CommonUtils::lexicalCast<long>(selector.substr(open + 1, selector.size() - open - 2), 1L << 30);
    std::vector<Section*> ofType;
    for (Section& section : sections) {
        if (section.type == type) {
            ofType.push_back(&section);
        }
    }
    const long count = static_cast<long>(ofType.size());
    const long position = index < 0 ? count + index : index;
    return (position >= 0 && position < count) ? ofType[position] : nullptr;
}

std::string configFilePath(const std::string& config) {
    return RootPrefix::sPath(config[0] == '/' ? config : "/etc/config/" + config);
}

}  // namespace

UciAccess::Result UciFileAccess::get(const std::string& path, std::string& value) {
    // The config part may be a file path whose directories contain dots:
    // the section starts at the first dot after the last slash.
    const std::string::size_type lastSlash = path.rfind('/');
    const std::string::size_type firstDot = path.find('.', lastSlash == std::string::npos ? 0 : lastSlash);
    if (firstDot == std::string::npos || firstDot == 0) {
        return Result::kLookupFailed;
    }
    const std::string config = path.substr(0, firstDot);
    const std::string rest = path.substr(firstDot + 1);
    const std::string::size_type dot = rest.find('.');
    const std::string sectionName = rest.substr(0, dot);
    if (sectionName.empty() || config.find("..") != std::string::npos) {
        return Result::kLookupFailed;
    }
    std::vector<Section> sections;
    if (!parseFile(configFilePath(config), sections)) {
        return Result::kLookupFailed;
    }
    Section* section =
        sectionName[0] == '@' ? findByTypeIndex(sections, sectionName) : findNamed(sections, sectionName);
    if (!section) {
        return Result::kLookupFailed;
    }
    if (dot == std::string::npos) {
        return Result::kNoOption;
    }
    const auto option = section->options.find(rest.substr(dot + 1));
    if (option == section->options.end()) {
        return Result::kNoOption;
    }
    value = option->second;
    return Result::kFound;
}

bool UciFileAccess::call(const std::string& object, const std::string& method, std::string& reply) {
    reply.clear();
    // The daemon's own call waits 700 ms for the answer; the tool gets the same bound.
    return CommonUtils::sCallPopenWithOutput("timeout 0.7 ubus call " + object + " " + method, reply) == 0;
}

#ifndef DC_WITH_OPENWRT
std::shared_ptr<UciAccess> UciAccess::sCurrent() {
    static const std::shared_ptr<UciAccess> access = std::make_shared<UciFileAccess>();
    return access;
}
#endif

}  // namespace datacenter
