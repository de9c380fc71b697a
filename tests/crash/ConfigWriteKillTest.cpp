// Configuration writes killed at random points: a child process rewrites one
// key over and over and is killed with SIGKILL after a random pause. Every
// time, the file must still parse, keep its other keys, and hold either the
// value it had or one the child wrote.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "crash/CrashSupport.h"
#include "storage/Directory.h"
#include "system/ConfigInfo.h"

namespace {

const std::string kId = "5017400000000000500";

struct Target {
    std::string path;
    std::string key;      // the key the child rewrites
    std::string keptKey;  // a key nobody touches
    std::string keptValue;
    std::function<void(long)> write;                // writes value number n
    std::function<bool(const std::string&)> valid;  // a value the file may hold
};

// Runs `trials` kills against `target`; returns the number of bad outcomes.
int killTrials(const Target& target, int trials, std::mt19937& random) {
    std::uniform_int_distribution<int> pause(0, 4000);
    int failures = 0;
    for (int trial = 0; trial < trials; ++trial) {
        const int micros = pause(random);
        const pid_t child = fork();
        if (child == 0) {
            for (long n = 0;; ++n) {
                target.write(n);
            }
        }
        usleep(static_cast<useconds_t>(micros));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        std::string value;
        std::string kept;
        if (!crashtest::readValue(target.path, target.key, value) ||
            !crashtest::readValue(target.path, target.keptKey, kept) || kept != target.keptValue ||
            !target.valid(value)) {
            ADD_FAILURE() << target.path << ": trial " << trial << " after " << micros << " us: value '" << value
                          << "', kept '" << kept << "'";
            ++failures;
        }
    }
    return failures;
}

bool isNumbered(const std::string& value, const std::string& prefix) {
    return value.compare(0, prefix.size(), prefix) == 0 && value.size() > prefix.size() &&
           value.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
}

}  // namespace

TEST(ConfigWriteKill, EveryKilledWriteLeavesTheOldOrTheNewValue) {
    std::mt19937 random = crashtest::seededGenerator("ConfigWriteKill");
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    PluginManager* manager = Singleton<PluginManager>::instance();
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();

    // The global configuration file.
    config->setConfig("crash_kept", "kept");
    config->setConfig("crash_key", "v-initial");
    Target global{config->getGlobalConfigPath(),
                  "crash_key",
                  "crash_kept",
                  "kept",
                  [config](long n) { config->setConfig("crash_key", "v" + std::to_string(n)); },
                  [](const std::string& v) { return v == "v-initial" || isNumbered(v, "v"); }};

    // A manifest of the store, whose status flips between enabled and disabled.
    const std::string manifest = PluginStorageManager::sGetManifestRootPath() + kId + ".manifest";
    config->setConfigToFile(manifest, "plugin_id", kId);
    config->setConfigToFile(manifest, "name", "crash");
    config->setConfigToFile(manifest, "status", "5");
    config->setConfigToFile(PluginStorageManager::sGetManifestRootPath() + PluginStorageManager::sUpdatedFile, "t",
                            "1");
    ASSERT_EQ(kId, store->getPluginInfoById(kId).id);
    Target stored{
        manifest,
        "status",
        "plugin_id",
        kId,
        [store](long n) { store->updateStatusToStorage(kId, n % 2 ? datacenter::DISABLED : datacenter::ENABLED); },
        [](const std::string& v) { return v == "5" || v == "6"; }};

    // A plugin's configuration file, written under its lock.
    datacenter::Directory::sCreateDirectory(PluginManager::sGetPluginDataPath(kId) + "etc");
    ASSERT_EQ(API_SUCCESS, manager->setPluginConfigData(kId, "kept", "kept"));
    ASSERT_EQ(API_SUCCESS, manager->setPluginConfigData(kId, "value", "p-initial"));
    Target pluginConfig{manager->getConfigFilePath(kId),
                        PluginManager::sConfigKeyPrefix + "value",
                        PluginManager::sConfigKeyPrefix + "kept",
                        "kept",
                        [manager](long n) { manager->setPluginConfigData(kId, "value", "p" + std::to_string(n)); },
                        [](const std::string& v) { return v == "p-initial" || isNumbered(v, "p"); }};
    std::string probe;
    ASSERT_TRUE(crashtest::readValue(pluginConfig.path, pluginConfig.keptKey, probe));
    ASSERT_EQ("kept", probe) << "the plugin configuration keys are stored differently";

    int failures = killTrials(global, 334, random);
    failures += killTrials(stored, 333, random);
    failures += killTrials(pluginConfig, 333, random);
    std::cout << "ConfigWriteKill: 1000 trials, " << failures << " failures" << std::endl;
    EXPECT_EQ(0, failures);
}
