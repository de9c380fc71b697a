#pragma once
// libconfig plumbing shared by the configuration routines: reading with the
// error text kept, setting or deleting one string key, crash-safe writing,
// and the repair of a file whose end was cut short.
#include <exception>
#include <libconfig.h++>
#include <string>

namespace datacenter {

class LibconfigFile {
public:
    // Reads `path` into `config`; false with `error` filled when it cannot be read or parsed.
    static bool sRead(libconfig::Config& config, const std::string& path, std::string& error);
    // Reads `path` into `config` (libconfig's readFile, without its side
    // doors): the file is opened without blocking and must be a regular file,
    // and "@include" directives are refused rather than followed, so a file a
    // plugin wrote can make the core read nothing else. Throws
    // libconfig::FileIOException or libconfig::ParseException.
    static void sReadPlain(libconfig::Config& config, const std::string& path);
    // The same for the file `leaf` of the open folder `dirFd`.
    static void sReadPlainAt(libconfig::Config& config, int dirFd, const std::string& leaf);
    // Parses `text` like sReadPlain; `origin` names it in errors.
    static void sReadPlainString(libconfig::Config& config, const std::string& text, const char* origin);
    // True when `text` holds a line starting with "@include" (in any case).
    static bool sHasInclude(const std::string& text);
    // Removes `key` from the root and adds it back as a string unless `value` is empty.
    static void sSetString(libconfig::Config& config, const std::string& key, const std::string& value);
    // Writes the whole document through a temporary file, fsync and rename.
    // Throws libconfig::FileIOException when the file cannot be written.
    static void sWrite(const libconfig::Config& config, const std::string& path);
    // The same for the file `leaf` of the open folder `dirFd`.
    static void sWriteAt(const libconfig::Config& config, int dirFd, const std::string& leaf);
    // The text of the file without as many trailing lines as needed for it to
    // parse (always at least the last one); empty when no prefix parses.
    static std::string sLongestParsablePrefix(const std::string& path);
    // The same for the text of a file, read by the caller; `origin` names it.
    static std::string sLongestParsablePrefixOf(const std::string& content, const std::string& origin);
    // A readable text for a libconfig (or other) exception.
    static std::string sDescribe(const std::exception& e);
};

}  // namespace datacenter
