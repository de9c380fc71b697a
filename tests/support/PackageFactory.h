#pragma once
// Builds real signed plugin packages for end-to-end tests: a throw-away PKI
// made by scripts/make-test-pki, the CA installed where the installer looks
// for it, the router's firmware facts, and packages made with the qpk tool.
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct PackageSpec {
    std::string id = "5017400000000000100";
    // Manifest settings besides "plugin_id"; an empty value leaves the key out.
    std::map<std::string, std::string> manifest = {
        {"name", "Hello"}, {"version", "1.0.0"}, {"developer", "Test"}, {"supported_rom", "netvale_rom"}};
    // Relative path below the plugin's data directory -> content.
    std::map<std::string, std::string> files = {{"bin/app", "app"}, {"www/index.html", "<html/>"}};
    int signType = 0;                  // 0 developer, 1 official
    std::string signer = "developer";  // a certificate name of the test PKI
};

class PackageFactory {
public:
    // Makes the PKI (once per process), installs its CA for the installer and
    // sets the firmware to version 2.4.10 on the release channel.
    PackageFactory();

    // A signed package built from `spec`; `name` keeps packages of one test apart.
    std::string build(const PackageSpec& spec, const std::string& name);
    // Signs an arbitrary zip (for archives the qpk tool would never pack).
    std::string sign(const std::string& zipPath, int signType, const std::string& signer, const std::string& name);
    // A zip holding `entries` (name -> content) in order, plus symbolic-link
    // entries (name -> target); duplicates allowed. Made with Python's zipfile.
    std::string rawZip(const std::vector<std::pair<std::string, std::string>>& entries,
                       const std::vector<std::pair<std::string, std::string>>& links, const std::string& name);
    // A signed package of `spec` with one more entry at its end whose CRC is
    // wrong, alike in both headers: only the check after that entry's data
    // notices, once everything before it is unpacked.
    std::string lateCrcError(const PackageSpec& spec, const std::string& name);
    // The manifest text `spec` describes.
    static std::string manifestText(const PackageSpec& spec);

    const std::string& pkiDir() const { return pki_; }
    static void setFirmware(const std::string& version, const std::string& channel = "release");

private:
    std::string pki_;
    std::string work_;
};

}  // namespace testsupport
