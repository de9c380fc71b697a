// Classification of files and folders by name, and the per-device privacy
// questions answered from the privacy white list and the MAC filter.
#include <glog/logging.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <regex.h>
#include <strings.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <vector>

#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/RootPrefix.h"

namespace {

bool endsWithAny(const std::string& name, std::initializer_list<const char*> suffixes) {
    for (const char* suffix : suffixes) {
        if (CommonUtils::endWith(name, suffix)) {
            return true;
        }
    }
    return false;
}

// Camera and phone recordings: a maker's prefix or a date, then numbers and separators.
const char* const kAutodynePattern =
    "^((VID(EO)?|V|DV|MOV|MVI|录像|IMG|GOPR|ANTS|MAH|DSC(F)?|(QUICK_)?YDXJ)|([0-9]{4}[-_]?(0[1-9]|1[0-2])[-_]?(0[1-9]|"
    "[12][0-9]|3[01])))+[-_ 0-9\\(\\)]+(WA[0-9]+)?(\\.(mp4|avi|rmvb|mkv|mpg|wmv|rm|mpeg|dat|mov|3gp))?$";
// Camcorder clips are numbered only.
const char* const kNumberedMtsPattern = "^[0-9]+\\.mts$";

// 1 on a match, 0 on none, -1 when the pattern does not compile.
int matchPattern(const char* pattern, const std::string& name) {
    regex_t regex;
    if (regcomp(&regex, pattern, REG_EXTENDED | REG_ICASE | REG_NOSUB) != 0) {
        LOG(ERROR) << "compile pattern error";
        return -1;
    }
    const int result = regexec(&regex, name.c_str(), 0, nullptr, 0) == 0 ? 1 : 0;
    regfree(&regex);
    return result;
}

}  // namespace

bool CommonUtils::sIsCameraRawImage(const std::string& name) {
    return endsWithAny(
        name, {".arw", ".nef", ".cr2", ".tif", ".tiff", ".raf", ".SR2", ".SRF", ".NRW", ".CRW", ".SRW", ".BAY", ".RW2",
               ".PTX", ".PEF", ".ORF", ".DNG", ".RAW",  ".RWL", ".3FR", ".FFF", ".DCR", ".KDC", ".MRW", ".X3F"});
}

bool CommonUtils::sIsImage(const std::string& name) {
    return endsWithAny(name, {".jpg", ".jpeg", ".png", ".gif", ".bmp"}) || sIsCameraRawImage(name);
}

bool CommonUtils::sIsAudio(const std::string& name) {
    return endsWithAny(name, {".mp3", ".flac", ".wma", ".m4a", ".aac", ".wav", ".ogg", ".ape", ".mp2", ".amr",
                              ".wavpack", ".wv", ".m4r", ".mid", ".mmf"});
}

bool CommonUtils::sIsVideo(const std::string& name) {
    return endsWithAny(name, {".mpg", ".mpeg", ".avi", ".avc", ".mod", ".asf", ".wmv", ".mp4", ".mkv", ".qt", ".flv",
                              ".rm", ".xvx", ".wmvhd", ".rmvb", ".mov", ".xv", ".3gp"});
}

bool CommonUtils::sIsDocument(const std::string& name) {
    return endsWithAny(name, {".pdf", ".ppt", ".pptx", ".xlsx", ".wps", ".doc", ".wpt", ".dps", ".dpt", ".et", ".ett",
                              ".docx", ".xls"});
}

bool CommonUtils::sIsSupportedImage(const std::string& extension) {
    const std::string lower = sToLower(extension);
    for (const char* supported : {".jpg", ".jpeg", ".png", ".bmp", ".gif"}) {
        if (lower == supported) {
            return true;
        }
    }
    return false;
}

bool CommonUtils::sIsAutodyneVideo(std::string name) {
    if (!sIsVideo(name) && !endWith(name, ".mts")) {
        return false;
    }
    const int first = matchPattern(kAutodynePattern, name);
    if (first != 0) {
        return first == 1;
    }
    return matchPattern(kNumberedMtsPattern, name) == 1;
}

bool CommonUtils::sIsDownloadTmpFile(const std::string& path) {
    if (!endWith(path, ".td") && !endWith(path, ".cfg")) {
        return false;
    }
    return startWith(path, datacenter::ConfigInfo::sGetInstance()->getDownloadFolderPath());
}

bool CommonUtils::isSystemDirPath(const std::string& path) {
    return endsWithAny(path, {"korvia_config", "korvia_router", "ThunderDB", "System Volume Information"});
}

bool CommonUtils::isFilterDirName(const std::string& name) {
    for (const char* prefix : {".", "cache", "$RECYCLE", "RECYCLER", "RECYCLED"}) {
        if (startWith(name, prefix)) {
            return true;
        }
    }
    return false;
}

bool CommonUtils::isFilterDirPath(const std::string& path) {
    for (const std::string& folder : datacenter::ConfigInfo::sGetInstance()->getIndexIgnoredFolders()) {
        if (startWith(path, folder)) {
            LOG(INFO) << path << " is recycle or hidden directory";
            return true;
        }
    }
    return false;
}

bool CommonUtils::sIsInPluginChownFilterList(const std::string& name) {
    static const char* const sorted[] = {"bin", "cache_dir", "dev", "lib", "proc", "tmp", "userdata"};
    return std::binary_search(std::begin(sorted), std::end(sorted), name,
                              [](const std::string& a, const std::string& b) { return a < b; });
}

// ---- Privacy ----------------------------------------------------------------

void CommonUtils::statPrivacy(const std::string& name, std::string value) {
    LOG(WARNING) << "stat_points_privacy " << name << "=" << value;
}

void CommonUtils::sAuthAccessPrivacyData(const std::string& mac, bool hasAccess) {
    const std::string path = datacenter::RootPrefix::sPath("/data/etc/datacenter/whitelist");
    // An empty MAC is part of every line: rewriting with it would empty the list.
    if (mac.empty() || !datacenter::File::sExists(path)) {
        return;
    }
    std::ifstream in(path);
    std::string kept;
    bool listed = false;
    for (std::string line; std::getline(in, line);) {
        const bool holdsMac = line.find(mac) != std::string::npos;
        listed = listed || holdsMac;
        if (!holdsMac || hasAccess) {
            kept += line + "\n";
        }
    }
    in.close();
    if (hasAccess && !listed) {
        kept += mac + "\n";
    }
    datacenter::File::sWriteAtomically(path, kept);
    LOG(INFO) << "AuthAccessPrivacyData, mac : " << mac << " , hasAuth : " << (hasAccess ? 1 : 0);
}

int CommonUtils::sMacCompare(const char* configuredMac, const char* hashedMac, size_t /*length*/) {
    char lower[50] = {};
    for (size_t i = 0; i + 1 < sizeof(lower) && configuredMac[i] != '\0'; ++i) {
        lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(configuredMac[i])));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    char hex[2 * EVP_MAX_MD_SIZE + 1] = {};
    if (EVP_Digest(lower, strlen(lower), digest, &digestLength, EVP_md5(), nullptr) == 1) {
        for (unsigned int i = 0; i < digestLength; ++i) {
            snprintf(hex + 2 * i, 3, "%02x", digest[i]);
        }
    }
    LOG(INFO) << "sMacCompare, str1 : " << configuredMac << " , str2 : " << hashedMac << " , md5_hex : " << hex;
    return strcasecmp(hex, hashedMac);
}

bool CommonUtils::sIsCanAccessPrivacyData(const std::string& hashedMac) {
    if (hashedMac.empty()) {
        return false;
    }
    return find_mac_attribute_from_macfilter_ex(hashedMac, "pridisk", &CommonUtils::sMacCompare) == 1;
}

// ---- MAC filter ---------------------------------------------------------------

namespace {

void trimLine(char* line) {
    const char* const blanks = " \t\r\n";
    size_t end = strlen(line);
    while (end > 0 && strchr(blanks, line[end - 1])) {
        line[--end] = '\0';
    }
    const size_t start = strspn(line, blanks);
    memmove(line, line + start, end - start + 1);
}

// State of the device section being read.
struct MacSection {
    bool open = false;
    bool macMatches = false;
    bool hasAttribute = false;
    int answer = 0;
};

// Reads one option line of an open device section into `section`.
void readOption(const char* line, const std::string& mac, const std::string& attributePrefix,
                MacCompareFunction compare, MacSection& section) {
    static const char macPrefix[] = "option mac '";
    if (strncmp(line, macPrefix, sizeof(macPrefix) - 1) == 0) {
        // A MAC in text form is 17 characters long; the closing quote is not part of it.
        char configured[18] = {};
        const char* value = line + sizeof(macPrefix) - 1;
        memcpy(configured, value, strnlen(value, sizeof(configured) - 1));
        if (compare(configured, mac.c_str(), mac.size()) == 0) {
            section.macMatches = true;
        }
    } else if (strncmp(line, attributePrefix.c_str(), attributePrefix.size()) == 0) {
        section.hasAttribute = true;
        section.answer = strncasecmp(line + attributePrefix.size(), "yes", 3) == 0 ? 1 : 0;
    }
}

}  // namespace

int find_mac_attribute_from_macfilter_ex(const std::string& mac, const std::string& attribute,
                                         MacCompareFunction compare) {
    const int fallback = strncasecmp(attribute.c_str(), "lan", 3) == 0 ? 1 : 0;
    if (mac.empty() || !compare) {
        return fallback;
    }
    FILE* file = fopen(datacenter::RootPrefix::sPath("/etc/config/macfilter").c_str(), "r");
    if (!file) {
        return fallback;
    }
    const std::string attributePrefix = "option " + attribute + " '";
    MacSection section;
    char line[1024];
    int result = fallback;
    while (fgets(line, sizeof(line), file)) {
        trimLine(line);
        if (strcasecmp(line, "config mac") == 0) {
            section = MacSection();
            section.open = true;
        } else if (strncmp(line, "config ", 7) == 0) {
            section = MacSection();
        } else if (section.open) {
            readOption(line, mac, attributePrefix, compare, section);
            if (section.macMatches && section.hasAttribute) {
                result = section.answer;
                break;
            }
        }
    }
    fclose(file);
    return result;
}

int find_mac_attribute_from_macfilter(const std::string& mac, const std::string& attribute) {
    return find_mac_attribute_from_macfilter_ex(mac, attribute, &strncasecmp);
}

bool find_mac_attribute_from_macfilter_command(const std::string& mac, const std::string& attribute) {
    // The MAC goes into the command between single quotes.
    if (mac.find('\'') != std::string::npos) {
        return false;
    }
    // Named after the thread so that concurrent callers do not share an answer file.
    const std::string answerFile = datacenter::RootPrefix::sPath("/tmp/macfilter_access_control.tmp.") +
                                   std::to_string(static_cast<unsigned long>(pthread_self()));
    const std::string command = "/usr/sbin/sysapi macfilter get 'mac=" + mac + "' > " + answerFile;
    if (answerFile.size() >= 256 || command.size() >= 256) {
        LOG(ERROR) << "macfilter command too long: " << command;
        return false;
    }
    bool allowed = false;
    // The command's exit status must be collectable: default child-exit handling for the call only.
    const sighandler_t previous = signal(SIGCHLD, SIG_DFL);
    const int status = CommonUtils::sCallSystem(command);
    signal(SIGCHLD, previous);
    if (status == 0) {
        std::ifstream answer(answerFile);
        std::string firstLine;
        if (answer && std::getline(answer, firstLine)) {
            firstLine = CommonUtils::sToLower(firstLine.substr(0, 255));
            allowed = firstLine.find(attribute + "=yes") != std::string::npos;
        }
    }
    datacenter::File::sDelete(answerFile);
    return allowed;
}
