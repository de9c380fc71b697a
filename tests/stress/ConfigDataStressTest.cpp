// Configuration data written by several processes at once into one plugin's
// configuration file: every process sets keys of its own through the same
// locked read-modify-write, and afterwards every key is there with its value.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Plugin/PluginManager.h"
#include "common/ApiErrorCode.h"
#include "common/Singleton.h"

namespace {

const char* const kPluginId = "5017400000000000100";
const int kProcesses = 4;
const int kKeysPerProcess = 250;

std::string keyOf(int process, int key) {
    return "p" + std::to_string(process) + "_k" + std::to_string(key);
}
std::string valueOf(int process, int key) {
    return "value of " + std::to_string(process) + "/" + std::to_string(key);
}

// The work of one writer process: its exit status is the number of failed writes (at most 255).
int writeKeys(int process) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    int failures = 0;
    for (int key = 0; key < kKeysPerProcess; ++key) {
        if (manager->setPluginConfigData(kPluginId, keyOf(process, key), valueOf(process, key)) != API_SUCCESS) {
            ++failures;
        }
    }
    return failures > 255 ? 255 : failures;
}

}  // namespace

TEST(ConfigDataStress, FourProcessesWritingAThousandKeysLoseNone) {
    // The writers are forked before this process makes any singleton, so
    // each one builds its own state as a separate program would.
    std::vector<pid_t> writers;
    for (int process = 0; process < kProcesses; ++process) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            _exit(writeKeys(process));
        }
        writers.push_back(pid);
    }
    for (const pid_t pid : writers) {
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(0, WEXITSTATUS(status)) << "failed writes in process " << pid;
    }

    PluginManager* manager = Singleton<PluginManager>::instance();
    int missing = 0;
    for (int process = 0; process < kProcesses; ++process) {
        for (int key = 0; key < kKeysPerProcess; ++key) {
            std::string value;
            const ApiErrorCode code = manager->getPluginConfigData(kPluginId, keyOf(process, key), value);
            if (code != API_SUCCESS || value != valueOf(process, key)) {
                ++missing;
                ADD_FAILURE() << keyOf(process, key) << ": code " << code << ", value '" << value << "'";
            }
        }
    }
    EXPECT_EQ(0, missing) << "keys lost of " << kProcesses * kKeysPerProcess;
}
