// Commands and log lines of the system queries and of file deletion,
// compared with tests/data/system/*.expected.
#include <gtest/gtest.h>

#include "storage/Directory.h"
#include "storage/File.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "system/CommonUtils.h"

using testsupport::RecordingRunner;

TEST(SystemTextGolden, RouterAddressAndSerialNumberQueries) {
    const auto runner = RecordingRunner::sInstall();
    runner->answer("network.interface.lan status", 0,
                   "{ \"ipv4-address\": [ { \"address\": \"192.168.31.1\", \"mask\": 24 } ] }\n");
    runner->answer("nvram get SN", 0, "SN0001\n");
    testsupport::LogCapture log;
    const std::string address = CommonUtils::sGetRouterIP();
    const std::string serial = CommonUtils::sGetRomSN();
    EXPECT_GOLDEN("system/router-queries", "## results\n" + address + "\n" + serial + "\n## commands\n" +
                                               testsupport::joinLines(runner->commands()) + "## log\n" +
                                               testsupport::logText(log));
}

TEST(SystemTextGolden, DeletingAFolderIsReportedAtErrorLevelAndKeepsIt) {
    const std::string folder = testsupport::makeScratchDir("folder");
    testsupport::LogCapture log;
    EXPECT_TRUE(datacenter::File::sDelete(folder).ok());
    EXPECT_TRUE(datacenter::Directory::sExists(folder));
    EXPECT_GOLDEN("system/delete-folder", testsupport::logText(log));
}
