#pragma once
// Texts that depend on the router's country, read from one localisation
// folder: "country.txt" maps country codes to language file names, and each
// language file maps text ids to texts. Lines are "key###value" (any run of
// "#" separates). Built for a batch of look-ups and then dropped.
#include <map>
#include <string>

namespace datacenter {

class LocalizationHelper {
public:
    // Loads the country file and the language file of the router's country.
    explicit LocalizationHelper(const std::string& folder);

    // The text for `key`, or "" when the chosen language file lacks it.
    std::string getValue(const std::string& key) const;
    // The language file name for `countryCode`; for an unknown code the one
    // for "CN"; "" when that is missing too.
    std::string getLanguagelPath(const std::string& countryCode) const;
    // Replaces `entries` with the entries of the file at `path`; an
    // unreadable file leaves it empty. Reading stops at a line too long for
    // the 1024-byte line buffer.
    static void parseFile(std::map<std::string, std::string>& entries, const std::string& path);
    // Adds the entry of one line; a line with fewer than two pieces is ignored.
    static void parseLine(std::map<std::string, std::string>& entries, const std::string& line);

private:
    void init();

    std::map<std::string, std::string> values;
    std::map<std::string, std::string> languages;
    std::string folder;
};

}  // namespace datacenter
