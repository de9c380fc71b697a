// The power is cut at every durability point (fsync of a file or a folder) of
// an operation, and once right after it reported done. The user disk and the
// core's private folder live on powercutfs, which then drops what was not
// synced. After each cut the core starts again (plugincenter list recovers)
// and the plugin must be one whole version, old or new: every file of that
// package, its store record, its configuration value, the plugin's and the
// user's own data, and no staged leftovers.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <set>

#include "crash/CrashSupport.h"
#include "powercut/PowerCutDisk.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::PowerCutDisk;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000700";

std::string appdata() {
    return underRoot("/userdisk/appdata/");
}

// What the disk holds when the plugin is in one whole state.
struct Expected {
    std::string version;                           // of the store record; "" when not installed
    std::map<std::string, std::string> files;      // below the plugin's folder: present, with this content
    std::set<std::string> absent;                  // below the plugin's folder: missing
    std::map<std::string, std::string> ifPresent;  // may go, but never changed
    std::string config;                            // the value of "mode"; "" not checked
    std::string status;                            // of the store record; "" not checked
    std::string listed;                            // a text of the plugin's `plugincenter list` line
};

struct Scenario {
    std::string command;  // program of apps/ and arguments
    std::string package;  // offered to the command after its arguments, when given
    std::function<void()> setUp;
    Expected before, after;
    bool large = false;
};

std::string run(const std::string& program, const std::string& args) {
    return testsupport::runApp(program, args).output;
}

// A fresh copy of a package: the installer deletes what it was given.
std::string offered(const std::string& package) {
    const std::string copy = testsupport::root() + "/offered.qpk";
    boost::filesystem::copy_file(package, copy, boost::filesystem::copy_options::overwrite_existing);
    return copy;
}

std::string randomBytes(std::mt19937& random, size_t size) {
    std::string bytes(size, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(random());
    }
    return bytes;
}

std::pair<PackageSpec, PackageSpec> twoVersions(bool large) {
    PackageSpec v1;
    v1.id = kId;
    v1.manifest["binary_name"] = "bin/app";
    v1.files["data/keep.txt"] = "version one";
    v1.files["www/old.html"] = "only in one";
    std::mt19937 random(33);
    for (int i = 0; large && i < 300; ++i) {
        v1.files["lib/part" + std::to_string(i / 50) + "/f" + std::to_string(i)] = randomBytes(random, 4096 + i * 40);
    }
    PackageSpec v2 = v1;
    v2.manifest["version"] = "2.0.0";
    v2.files.erase("www/old.html");
    v2.files["data/keep.txt"] = "version two";
    v2.files["www/new/page.html"] = "only in two";
    for (auto& file : v2.files) {
        if (file.first.compare(0, 4, "lib/") == 0) {
            file.second = randomBytes(random, file.second.size());
        }
    }
    return {v1, v2};
}

// The whole version `spec`. Files only `other` has are missing when
// `otherIsNewer` (a rollback leaves nothing of the new version); an upgrade
// may leave the old version's own files, unchanged.
Expected whole(const PackageSpec& spec, const PackageSpec& other, bool otherIsNewer = true) {
    Expected e;
    e.version = spec.manifest.at("version");
    e.files = spec.files;
    for (const auto& file : other.files) {
        if (spec.files.count(file.first)) {
            continue;
        }
        if (otherIsNewer) {
            e.absent.insert(file.first);
        } else {
            e.ifPresent.insert(file);
        }
    }
    return e;
}

Expected notInstalled(const PackageSpec& a, const PackageSpec& b) {
    Expected e;
    for (const PackageSpec* spec : {&a, &b}) {
        for (const auto& file : spec->files) {
            e.absent.insert(file.first);
        }
    }
    return e;
}

// What the plugin and its user made while version one ran.
const std::map<std::string, std::string> kRuntime = {{"userdata/notes", "runtime"}, {"mine.txt", "the user's"}};

Expected withRuntime(Expected e, const std::string& config) {
    e.files.insert(kRuntime.begin(), kRuntime.end());
    e.config = config;
    return e;
}

void installed(const std::string& package) {
    const std::string out = run("installplugin", "-f " + offered(package));
    if (out.find("installplugin succeed!") == std::string::npos) {
        throw std::runtime_error("setting up: the installation failed\n" + out);
    }
}

void addRuntimeData() {
    for (const auto& file : kRuntime) {
        testsupport::writeFile(appdata() + kId + "/" + file.first, file.second);
    }
    run("plugincenter", "config set " + kId + " mode one");
}

Scenario scenario(const std::string& name, PackageFactory& factory) {
    const bool large = name.find("Large") != std::string::npos;
    const auto versions = twoVersions(large);
    const PackageSpec &v1 = versions.first, &v2 = versions.second;
    const std::string one = factory.build(v1, "v1"), two = factory.build(v2, "v2");
    const Expected first = withRuntime(whole(v1, v2), "one");
    const auto installedOne = [one] {
        installed(one);
        addRuntimeData();
    };
    Scenario s;
    s.large = large;
    if (name.compare(0, 12, "FreshInstall") == 0) {
        s = {"installplugin -f", one, [] {}, notInstalled(v1, v2), whole(v1, v2), large};
    } else if (name.compare(0, 7, "Upgrade") == 0) {
        s = {"installplugin -f", two, installedOne, first, withRuntime(whole(v2, v1, false), "one"), large};
    } else if (name == "FailingUpgrade") {
        s = {"installplugin -f", factory.lateCrcError(v2, "late-crc"), installedOne, first, first};
    } else if (name == "Uninstall") {
        // The sandbox skeleton's folders stay with what is in them.
        Expected removed = notInstalled(v1, v2);
        for (const auto& file : first.files) {
            if (file.first.compare(0, 4, "bin/") == 0 || file.first.compare(0, 9, "userdata/") == 0) {
                removed.absent.erase(file.first);
                removed.ifPresent.insert(file);
            }
        }
        s = {"plugincenter uninstall " + kId, "", installedOne, first, removed};
    } else if (name == "Clean") {
        Expected cleaned = whole(v1, v2);
        cleaned.ifPresent = kRuntime;
        s = {"plugincenter clean " + kId, "", installedOne, first, cleaned};
    } else if (name == "ConfigSet") {
        s = {"plugincenter config set " + kId + " mode two", "", installedOne, first, first};
        s.after.config = "two";
    } else if (name == "FirmwareRecheck") {
        PackageSpec fussy = v1;
        fussy.manifest["supported_rom_version"] = "2.4.10";
        const std::string package = factory.build(fussy, "fussy");
        // A changed firmware is noticed by the next start of the core, and
        // again after a cut: only the disabled plugin is a whole state.
        s = {"plugincenter recheck", "",
             [package] {
                 installed(package);
                 addRuntimeData();
             },
             first, first};
        s.after.status = "6";
        s.after.listed = "disabled by the firmware check";
        s.before = s.after;
    }
    return s;
}

// The first few of `problems`, and how many more there are.
std::string summary(const std::vector<std::string>& problems) {
    std::string text;
    for (size_t i = 0; i < problems.size() && i < 3; ++i) {
        text += " " + problems[i] + ";";
    }
    return problems.size() > 3 ? text + " and " + std::to_string(problems.size() - 3) + " more;" : text;
}

std::string storeProblem(const Expected& e) {
    const std::string record = appdata() + "app_infos/" + kId + ".manifest";
    std::string version, status;
    if (e.version.empty() != !testsupport::exists(record)) {
        return e.version.empty() ? "store record present" : "store record missing";
    }
    if (e.version.empty()) {
        return "";
    }
    if (!crashtest::readValue(record, "version", version) || !crashtest::readValue(record, "status", status)) {
        return "store record does not parse";
    }
    if (version != e.version || (!e.status.empty() && status != e.status)) {
        return "store record holds version " + version + " status " + status;
    }
    return "";
}

// How the disk differs from `e`; "" when it is that state.
std::string differences(const Expected& e) {
    std::vector<std::string> problems;
    if (!storeProblem(e).empty()) {
        problems.push_back(storeProblem(e));
    }
    const std::string dir = appdata() + kId + "/";
    for (const auto& file : e.files) {
        const std::string path = dir + file.first;
        if (!testsupport::exists(path)) {
            problems.push_back(file.first + " missing");
        } else if (testsupport::readFile(path) != file.second) {
            problems.push_back(file.first + " holds " + std::to_string(testsupport::readFile(path).size()) +
                               " bytes, not the package's");
        }
    }
    for (const auto& file : e.ifPresent) {
        if (testsupport::exists(dir + file.first) && testsupport::readFile(dir + file.first) != file.second) {
            problems.push_back(file.first + " changed");
        }
    }
    for (const std::string& path : e.absent) {
        if (testsupport::exists(dir + path)) {
            problems.push_back(path + " present");
        }
    }
    if (!e.config.empty()) {
        const std::string got = run("plugincenter", "config get " + kId + " mode");
        if (got.compare(0, e.config.size() + 1, e.config + "\n") != 0) {
            problems.push_back("configuration holds \"" + got.substr(0, got.find('\n')) + "\"");
        }
    }
    if (!e.listed.empty() && run("plugincenter", "list").find(e.listed) == std::string::npos) {
        problems.push_back("the list does not say \"" + e.listed + "\"");
    }
    return summary(problems);
}

const std::string kUserFile = "/userdisk/data/holiday.jpg";
const std::string kUserData(200 * 1024, 'u');

// What is wrong after the cut and the restart; "" when all is well.
std::string violation(const Scenario& s) {
    std::string text;
    boost::system::error_code ec;
    const std::string staging = appdata() + "local_install_tmp";
    if (testsupport::exists(staging) && !boost::filesystem::is_empty(staging, ec)) {
        text += " the staging folder holds " + testsupport::treeText(staging, false).substr(0, 200) + ";";
    }
    if (testsupport::readFile(underRoot(kUserFile)) != kUserData) {
        text += " the user's file changed;";
    }
    const std::string old = differences(s.before);
    const std::string now = differences(s.after);
    if (!old.empty() && !now.empty()) {
        text += " neither the old state (" + old + " ) nor the new (" + now + " )";
    }
    return text;
}

// Runs the operation until it ends or the power goes, then kills it.
void runCut(const Scenario& s, const PowerCutDisk& disk) {
    const std::string command = "exec env DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + testsupport::root() +
                                " " + testsupport::buildDir() + "/apps/" + s.command +
                                (s.package.empty() ? "" : " " + offered(s.package)) + " >/dev/null 2>&1";
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    bool exited = false;
    testsupport::waitUntil([&] {
        exited = exited || waitpid(child, &status, WNOHANG) == child;
        return exited || disk.powerIsOff();
    });
    if (!exited) {
        kill(-child, SIGKILL);
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
}

// The plugins' processes and what the router keeps in memory go with the power.
void powerOff(PowerCutDisk& disk) {
    disk.unmount();
    boost::system::error_code ec;
    boost::filesystem::remove_all(underRoot("/tmp/sim-pluginControllor"), ec);
}

// Cut points: all of them, or `most` spread evenly from the first to the last.
std::vector<uint64_t> cutPoints(uint64_t points, uint64_t most) {
    std::vector<uint64_t> chosen;
    for (uint64_t i = 0; i < std::min(points, most); ++i) {
        chosen.push_back(points <= most ? i + 1 : 1 + i * (points - 1) / (most - 1));
    }
    return chosen;
}

class PowerCut : public testing::TestWithParam<const char*> {};

}  // namespace

TEST_P(PowerCut, EveryCutLeavesOneWholeVersion) {
    const std::string why = PowerCutDisk::unavailable();
    if (!why.empty()) {
        GTEST_SKIP() << "no power-cut simulator: " << why;
    }
    const std::string name = GetParam();
    // A syncfs never reaches a FUSE file system: the core flushes each file
    // and folder instead, which every program started here inherits.
    setenv("DATACENTER_DURABILITY", "fsync", 1);
    testsupport::layOutRouter(testsupport::root());
    PackageFactory factory;
    const Scenario s = scenario(name, factory);
    testsupport::writeFile(underRoot(kUserFile), kUserData);
    PowerCutDisk disk({underRoot("/userdisk"), underRoot("/data/etc/datacenter")});
    disk.mount(0, false);
    s.setUp();
    powerOff(disk);
    if (name == "FirmwareRecheck") {
        PackageFactory::setFirmware("2.4.9");
    }
    disk.save();

    // Point 0 cuts the power right after the operation reported done.
    uint64_t points = 0;
    std::vector<std::string> calls;
    const auto trial = [&](uint64_t cutAt) {
        disk.restore();
        disk.mount(cutAt, true);
        runCut(s, disk);
        if (cutAt == 0) {
            points = disk.points();
            calls = disk.pointLog();
        }
        powerOff(disk);
        // The recovery runs on the same disk; what it did must survive a
        // second cut right after it.
        disk.mount(0, true);
        run("plugincenter", "list");
        std::string wrong = violation(s);
        powerOff(disk);
        if (wrong.empty()) {
            disk.mount(0, false);
            wrong = violation(s);
            wrong = wrong.empty() ? "" : " after the recovery and a second cut:" + wrong;
            powerOff(disk);
        }
        return wrong;
    };
    std::vector<std::string> violations;
    const std::string afterDone = trial(0);
    if (!afterDone.empty()) {
        violations.push_back("after it reported done:" + afterDone);
    }
    // What a point was in the run that counted them, for the messages.
    const auto call = [&](uint64_t point) {
        const std::string prefix = std::to_string(point) + " ";
        for (std::string line : calls) {
            if (line.compare(0, prefix.size(), prefix) == 0) {
                const std::string::size_type at = line.find(testsupport::root());
                if (at != std::string::npos) {
                    line.erase(at, testsupport::root().size());
                }
                return " (" + line.substr(prefix.size()) + ")";
            }
        }
        return std::string();
    };
    const std::vector<uint64_t> chosen = cutPoints(points, s.large ? 50 : points);
    for (const uint64_t point : chosen) {
        const std::string wrong = trial(point);
        if (!wrong.empty()) {
            violations.push_back("cut at point " + std::to_string(point) + " of " + std::to_string(points) +
                                 call(point) + ":" + wrong);
        }
    }
    std::cout << "PowerCut " << name << ": " << points << " durability points, " << chosen.size() + 1 << " cuts tried, "
              << violations.size() << " violations" << std::endl;
    for (const std::string& v : violations) {
        ADD_FAILURE() << name << ", " << v;
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, PowerCut,
                         testing::Values("FreshInstall", "Upgrade", "FailingUpgrade", "Uninstall", "Clean", "ConfigSet",
                                         "FirmwareRecheck", "FreshInstallLarge", "UpgradeLarge"),
                         [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });
