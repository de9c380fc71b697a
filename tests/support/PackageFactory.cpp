#include "support/PackageFactory.h"

#include <boost/filesystem.hpp>
#include <fstream>
#include <stdexcept>

#include "Plugin/installAction/InstallAction.h"
#include "support/TestSupport.h"

namespace testsupport {
namespace {

void mustRun(const std::string& command) {
    const CommandResult result = runCommand(command + " 2>&1");
    if (result.exitStatus != 0) {
        throw std::runtime_error("command failed: " + command + "\n" + result.output);
    }
}

std::string qpk() {
    return buildDir() + "/apps/qpk";
}

// Flips the same bits of the last entry's CRC in its central and local headers.
void spoilLastCrc(const std::string& zip) {
    std::string bytes = readFile(zip);
    const std::string::size_type central = bytes.rfind(std::string("PK\x01\x02", 4));
    if (central == std::string::npos || central + 46 > bytes.size()) {
        throw std::runtime_error("no central directory entry in " + zip);
    }
    uint32_t local = 0;
    for (int i = 3; i >= 0; --i) {
        local = local << 8 | static_cast<unsigned char>(bytes[central + 42 + i]);
    }
    bytes[central + 16] ^= 0x5a;
    bytes[local + 14] ^= 0x5a;
    writeFile(zip, bytes);
}

}  // namespace

PackageFactory::PackageFactory() : pki_(root() + "/test-pki"), work_(makeScratchDir("packages")) {
    if (!boost::filesystem::exists(pki_ + "/ca.pem")) {
        mustRun("bash " + sourceDir() + "/scripts/make-test-pki " + pki_);
    }
    const std::string ca = InstallAction::sCaCertPath();
    boost::filesystem::create_directories(boost::filesystem::path(ca).parent_path());
    boost::filesystem::copy_file(pki_ + "/ca.pem", ca, boost::filesystem::copy_options::overwrite_existing);
    setFirmware("2.4.10");
}

void PackageFactory::setFirmware(const std::string& version, const std::string& channel) {
    writeFile(underRoot("/usr/share/halvard/halvard_version"),
              "config version 'version'\n\toption ROM '" + version + "'\n\toption CHANNEL '" + channel + "'\n");
}

std::string PackageFactory::manifestText(const PackageSpec& spec) {
    std::string text;
    if (!spec.id.empty()) {
        text += "plugin_id = \"" + spec.id + "\";\n";
    }
    for (const auto& setting : spec.manifest) {
        if (!setting.second.empty()) {
            text += setting.first + " = \"" + setting.second + "\";\n";
        }
    }
    return text;
}

std::string PackageFactory::build(const PackageSpec& spec, const std::string& name) {
    const std::string tree = work_ + "/" + name + ".tree";
    boost::filesystem::remove_all(tree);
    writeFile(tree + "/manifest", manifestText(spec));
    for (const auto& file : spec.files) {
        writeFile(tree + "/" + file.first, file.second);
    }
    const std::string zip = work_ + "/" + name + ".zip";
    boost::filesystem::remove(zip);
    mustRun(qpk() + " pack " + tree + " " + zip);
    return sign(zip, spec.signType, spec.signer, name);
}

std::string PackageFactory::sign(const std::string& zipPath, int signType, const std::string& signer,
                                 const std::string& name) {
    const std::string out = work_ + "/" + name + ".qpk";
    mustRun(qpk() + " sign --key " + pki_ + "/" + signer + ".key --cert " + pki_ + "/" + signer + ".pem --type " +
            std::to_string(signType) + " " + zipPath + " " + out);
    return out;
}

std::string PackageFactory::rawZip(const std::vector<std::pair<std::string, std::string>>& entries,
                                   const std::vector<std::pair<std::string, std::string>>& links,
                                   const std::string& name) {
    const std::string script = work_ + "/" + name + ".py";
    const std::string zip = work_ + "/" + name + ".zip";
    std::ofstream py(script);
    py << "import warnings, zipfile\nwarnings.simplefilter('ignore')\n"
       << "z = zipfile.ZipFile(r'''" << zip << "''', 'w')\n";
    for (const auto& entry : entries) {
        py << "z.writestr(r'''" << entry.first << "''', r'''" << entry.second << "''')\n";
    }
    for (const auto& link : links) {
        py << "i = zipfile.ZipInfo(r'''" << link.first << "''')\ni.create_system = 3\n"
           << "i.external_attr = 0o120777 << 16\nz.writestr(i, r'''" << link.second << "''')\n";
    }
    py << "z.close()\n";
    py.close();
    mustRun("python3 " + script);
    return zip;
}

std::string PackageFactory::lateCrcError(const PackageSpec& spec, const std::string& name) {
    std::vector<std::pair<std::string, std::string>> entries = {{"manifest", manifestText(spec)}};
    entries.insert(entries.end(), spec.files.begin(), spec.files.end());
    entries.emplace_back("zz/late.bin", std::string(4096, 'z'));
    const std::string zip = rawZip(entries, {}, name);
    spoilLastCrc(zip);
    return sign(zip, spec.signType, spec.signer, name);
}

}  // namespace testsupport
