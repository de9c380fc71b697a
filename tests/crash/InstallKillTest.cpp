// A real installation through the installplugin binary, killed with SIGKILL
// after a randomly chosen step line plus a random pause. Then the core starts
// again (plugincenter list): no staged payload, no tree that no manifest
// records, no installation record, and the same installation succeeds. An
// interrupted upgrade ends with one whole version running: the old one as it
// was, or the new one complete.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <set>
#include <sstream>
#include <vector>

#include "Plugin/installAction/InstallJournal.h"
#include "crash/CrashSupport.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::exists;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000600";
const std::vector<std::string> kSteps = {
    "getPackage",     "changeStatusBeforeInstall", "verifySign",        "unzipFile",      "checkPackage",
    "installPackage", "changePluginStatus",        "savePluginPackage", "RecordInitFiles"};

std::string appdata() {
    return underRoot("/userdisk/appdata/");
}

std::string environment() {
    return "DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + testsupport::root() + " ";
}

// A fresh copy of the package: without -k the installer deletes what it was given.
std::string copyOf(const std::string& package) {
    const std::string copy = testsupport::root() + "/offered.qpk";
    boost::filesystem::copy_file(package, copy, boost::filesystem::copy_options::overwrite_existing);
    return copy;
}

// Starts the installer, waits for the line `step`, pauses and kills it.
void installAndKill(const std::string& package, const std::string& step, int pauseMicros) {
    int out[2];
    ASSERT_EQ(0, pipe(out));
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        const std::string command = "exec env " + environment() + testsupport::buildDir() + "/apps/installplugin -f " +
                                    copyOf(package) + " 2>/dev/null";
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    FILE* lines = fdopen(out[0], "r");
    char buffer[4096];
    while (fgets(buffer, sizeof(buffer), lines)) {
        if (std::string(buffer) == step + "\n") {
            break;
        }
    }
    usleep(static_cast<useconds_t>(pauseMicros));
    kill(child, SIGKILL);
    fclose(lines);
    int status = 0;
    waitpid(child, &status, 0);
}

std::string run(const std::string& program, const std::string& args) {
    return testsupport::runApp(program, args).output;
}

// What a restarted core must have cleaned; "" when all is well.
std::string debris(bool wasInstalled) {
    const std::string tree = appdata() + kId;
    const bool recorded = exists(appdata() + "app_infos/" + kId + ".manifest");
    if (exists(appdata() + "local_install_tmp")) {
        return "the working folder is left";
    }
    if (exists(tree + "/verified_korvia.qpk")) {
        return "the verified payload is left";
    }
    if (exists(InstallJournal::sJournalPath())) {
        return "the installation record is left";
    }
    if (exists(tree) && !recorded) {
        return "a plugin tree that no manifest records";
    }
    if (wasInstalled && !recorded) {
        return "the upgraded plugin lost its record";
    }
    return "";
}

// The installed version as a whole: its tree and its store record.
struct Snapshot {
    std::string tree;
    std::string store;
};

Snapshot snapshot() {
    return {testsupport::treeText(appdata() + kId),
            testsupport::readFile(appdata() + "app_infos/" + kId + ".manifest")};
}

// The lines of `a` missing from `b`, and the other way round, cut short.
std::string differences(const Snapshot& a, const Snapshot& b) {
    std::string text;
    const auto lines = [](const std::string& s) {
        std::set<std::string> set;
        std::istringstream in(s);
        for (std::string line; std::getline(in, line);) {
            set.insert(line.substr(0, 120));
        }
        return set;
    };
    for (const auto& pair : {std::make_pair(a.tree + a.store, b.tree + b.store)}) {
        const std::set<std::string> before = lines(pair.first), after = lines(pair.second);
        for (const std::string& line : before) {
            text += after.count(line) ? "" : "\n  - " + line;
        }
        for (const std::string& line : after) {
            text += before.count(line) ? "" : "\n  + " + line;
        }
    }
    return text;
}

// What is wrong with the plugin after an interrupted upgrade from `old` to a
// version with `newBig` in "bin/big"; "" when one whole version runs.
std::string upgradeProblem(const Snapshot& old, const std::string& newBig) {
    const Snapshot now = snapshot();
    const bool oldIntact = now.tree == old.tree && now.store == old.store;
    const bool newComplete = now.store.find("version = \"2.0.0\";") != std::string::npos &&
                             testsupport::readFile(appdata() + kId + "/bin/big") == newBig &&
                             exists(appdata() + kId + "/www/new.html");
    if (!oldIntact && !newComplete) {
        return "neither the old version intact nor the new one complete; " + differences(old, now);
    }
    if (now.store.find("status = \"5\";") == std::string::npos ||
        !exists(underRoot("/tmp/sim-pluginControllor/" + kId + ".pid"))) {
        return std::string("the ") + (oldIntact ? "old" : "new") + " version does not run";
    }
    return "";
}

}  // namespace

TEST(InstallKill, ARestartedCoreCleansUpAndTheSameInstallationSucceeds) {
    std::mt19937 random = crashtest::seededGenerator("InstallKill");
    testsupport::PackageFactory factory;
    testsupport::PackageSpec spec;
    spec.id = kId;
    std::string big(3 * 1024 * 1024, '\0');
    for (char& c : big) {
        c = static_cast<char>(random());
    }
    spec.files["bin/big"] = big;
    spec.manifest["binary_name"] = "bin/app";
    const std::string package = factory.build(spec, "big");
    // The upgrade changes every byte of the big file and adds one.
    testsupport::PackageSpec v2 = spec;
    v2.manifest["version"] = "2.0.0";
    for (char& c : big) {
        c = static_cast<char>(~c);
    }
    v2.files["bin/big"] = big;
    v2.files["www/new.html"] = "new";
    const std::string upgradePackage = factory.build(v2, "big2");

    std::uniform_int_distribution<size_t> stepOf(0, kSteps.size() - 1);
    std::uniform_int_distribution<int> pauseOf(0, 30000);
    const int trials = 16;
    int failures = 0;
    for (int trial = 0; trial < trials; ++trial) {
        // Even trials interrupt a fresh installation, odd ones an upgrade.
        const bool upgrade = trial % 2 == 1;
        boost::system::error_code ec;
        boost::filesystem::remove_all(appdata(), ec);
        boost::filesystem::remove(underRoot("/tmp/sim-pluginControllor/" + kId + ".pid"), ec);
        Snapshot old;
        if (upgrade) {
            ASSERT_NE(std::string::npos, run("installplugin", "-f " + copyOf(package)).find("installplugin succeed!"));
            old = snapshot();
        }
        const std::string offered = upgrade ? upgradePackage : package;
        const std::string step = kSteps[stepOf(random)];
        const int pause = pauseOf(random);
        installAndKill(offered, step, pause);
        run("plugincenter", "list");
        std::string left = debris(upgrade);
        if (left.empty() && upgrade) {
            left = upgradeProblem(old, big);
        }
        const std::string again = run("installplugin", "-f " + copyOf(offered));
        const bool succeeded = again.find("installplugin succeed!") != std::string::npos;
        if (!left.empty() || !succeeded) {
            ADD_FAILURE() << "trial " << trial << (upgrade ? " (upgrade)" : " (fresh)") << ", killed " << pause
                          << " us after " << step << ": " << (left.empty() ? "reinstall failed" : left) << "\n"
                          << again;
            ++failures;
        }
    }
    std::cout << "InstallKill: " << trials << " trials, " << failures << " failures" << std::endl;
    EXPECT_EQ(0, failures);
}
