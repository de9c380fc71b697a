#include "system/LibconfigFile.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <vector>

#include "storage/File.h"
#include "storage/PlainFile.h"

namespace datacenter {

namespace {

const char* const kIncludeRefused = "@include is not allowed";
// Settings files are small; more than this is not one, and is not read.
const size_t kMaxSettingsBytes = 16 * 1024 * 1024;
// A torn write cuts a file's end; past this many lines off the end the
// repair gives the file up instead of parsing it again and again.
const int kMaxRepairCuts = 64;

}  // namespace

bool LibconfigFile::sHasInclude(const std::string& text) {
    const std::string directive = "@include";
    std::string::size_type line = 0;
    while (line < text.size()) {
        std::string::size_type at = text.find_first_not_of(" \t\r\f\v", line);
        if (at != std::string::npos && text.size() - at >= directive.size()) {
            bool same = true;
            for (std::string::size_type i = 0; same && i < directive.size(); ++i) {
                same = std::tolower(static_cast<unsigned char>(text[at + i])) == directive[i];
            }
            if (same) {
                return true;
            }
        }
        const std::string::size_type end = text.find('\n', line);
        if (end == std::string::npos) {
            break;
        }
        line = end + 1;
    }
    return false;
}

void LibconfigFile::sReadPlainString(libconfig::Config& config, const std::string& text, const char* origin) {
    if (sHasInclude(text)) {
        throw libconfig::ParseException(origin, 0, kIncludeRefused);
    }
    config.readString(text);
}

void LibconfigFile::sReadPlain(libconfig::Config& config, const std::string& path) {
    // Never through a link, never blocking on a FIFO, never a device.
    std::string text;
    std::string why;
    if (!PlainFile::sRead(path, kMaxSettingsBytes, text, why)) {
        throw libconfig::FileIOException();
    }
    sReadPlainString(config, text, path.c_str());
}

void LibconfigFile::sReadPlainAt(libconfig::Config& config, int dirFd, const std::string& leaf) {
    std::string text;
    std::string why;
    if (!PlainFile::sReadAt(dirFd, leaf, kMaxSettingsBytes, text, why)) {
        throw libconfig::FileIOException();
    }
    sReadPlainString(config, text, leaf.c_str());
}

bool LibconfigFile::sRead(libconfig::Config& config, const std::string& path, std::string& error) {
    try {
        sReadPlain(config, path);
        return true;
    } catch (const std::exception& e) {
        error = sDescribe(e);
    }
    return false;
}

void LibconfigFile::sSetString(libconfig::Config& config, const std::string& key, const std::string& value) {
    libconfig::Setting& root = config.getRoot();
    if (root.exists(key)) {
        root.remove(key);
    }
    if (!value.empty()) {
        root.add(key, libconfig::Setting::TypeString) = value;
    }
}

void LibconfigFile::sWrite(const libconfig::Config& config, const std::string& path) {
    const bool written = File::sWriteAtomically(path, [&config](FILE* stream) {
        config.write(stream);
        return ferror(stream) == 0;
    });
    if (!written) {
        throw libconfig::FileIOException();
    }
}

void LibconfigFile::sWriteAt(const libconfig::Config& config, int dirFd, const std::string& leaf) {
    const bool written = File::sWriteAtomicallyAt(
        dirFd, leaf,
        [&config](FILE* stream) {
            config.write(stream);
            return ferror(stream) == 0;
        },
        0644);
    if (!written) {
        throw libconfig::FileIOException();
    }
}

std::string LibconfigFile::sLongestParsablePrefix(const std::string& path) {
    // Another program can write this file; read it like the parsers do,
    // bounded, and try only the cuts a torn write leaves: its last lines.
    std::string content;
    std::string why;
    if (!PlainFile::sRead(path, kMaxSettingsBytes, content, why)) {
        LOG(ERROR) << "config file " << path << " cannot be repaired: " << why;
        return std::string();
    }
    return sLongestParsablePrefixOf(content, path);
}

std::string LibconfigFile::sLongestParsablePrefixOf(const std::string& content, const std::string& origin) {
    std::istringstream in(content);
    std::string text;
    std::string lastLine;
    std::vector<size_t> lineLengths;
    for (std::string line; std::getline(in, line);) {
        lastLine = line;
        text += line + "\n";
        lineLengths.push_back(line.size() + 1);
    }
    for (int tries = 0; !text.empty(); ++tries) {
        const size_t cut = lineLengths.empty() || tries == kMaxRepairCuts ? text.size() : lineLengths.back();
        if (!lineLengths.empty()) {
            lineLengths.pop_back();
        }
        text.erase(cut >= text.size() ? 0 : text.size() - cut);
        try {
            libconfig::Config config;
            sReadPlainString(config, text, origin.c_str());
            break;
        } catch (const libconfig::ParseException&) {
            LOG(ERROR) << "config ParseException line is " << lastLine;
        } catch (const std::exception&) {
            LOG(ERROR) << "config error line is " << lastLine;
        }
    }
    return text;
}

std::string LibconfigFile::sDescribe(const std::exception& e) {
    if (const auto* parse = dynamic_cast<const libconfig::ParseException*>(&e)) {
        return std::string(parse->getError()) + " at line " + std::to_string(parse->getLine());
    }
    if (const auto* setting = dynamic_cast<const libconfig::SettingException*>(&e)) {
        return std::string(setting->what()) + " (" + setting->getPath() + ")";
    }
    return e.what();
}

}  // namespace datacenter
