#include "system/LibconfigFile.h"

#include <glog/logging.h>

#include <fstream>
#include <vector>

#include "storage/File.h"

namespace datacenter {

bool LibconfigFile::sRead(libconfig::Config& config, const std::string& path, std::string& error) {
    try {
        config.readFile(path.c_str());
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

std::string LibconfigFile::sLongestParsablePrefix(const std::string& path) {
    std::ifstream in(path);
    std::string text;
    std::string lastLine;
    std::vector<size_t> lineLengths;
    for (std::string line; std::getline(in, line);) {
        lastLine = line;
        text += line + "\n";
        lineLengths.push_back(line.size() + 1);
    }
    while (!text.empty()) {
        const size_t cut = lineLengths.empty() ? text.size() : lineLengths.back();
        if (!lineLengths.empty()) {
            lineLengths.pop_back();
        }
        text.erase(cut >= text.size() ? 0 : text.size() - cut);
        try {
            libconfig::Config config;
            config.readString(text);
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
