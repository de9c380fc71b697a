// The chroot unmount of a plugin's directory: the command it issues and its
// log lines, compared with tests/data/chroot/unmount.expected.
#include <gtest/gtest.h>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"

using testsupport::RecordingRunner;

TEST(ChrootUnmountGolden, CommandAndLogLines) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    runner->answer("/77/", 3, "busy\n");
    std::string text;
    for (const char* id : {"76", "77", ""}) {
        testsupport::LogCapture log;
        const size_t before = runner->commands().size();
        std::string output;
        const ApiErrorCode code = manager->umountRemoveChrootFolder(id, output);
        const std::vector<std::string> all = runner->commands();
        text += std::string("## id '") + id + "' -> " + std::to_string(code) + " [" + output + "]\n## commands\n" +
                testsupport::joinLines(std::vector<std::string>(all.begin() + before, all.end())) + "## log\n" +
                testsupport::logText(log);
    }
    EXPECT_GOLDEN("chroot/unmount", text);
}
