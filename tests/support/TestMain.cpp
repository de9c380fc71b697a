// Gives the test process a fresh temporary root before any code of the core
// can read DATACENTER_ROOT, sends glog to standard error (no log files outside
// the root), and removes the root afterwards unless DC_KEEP_TEST_ROOT is set.
#include <glog/logging.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <string>

#include "support/TestSupport.h"

namespace {

std::string gRoot;

std::string createRoot() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/dc-test-XXXXXX";
    if (!mkdtemp(&pattern[0])) {
        std::abort();
    }
    return pattern;
}

}  // namespace

namespace testsupport {
const std::string& root() {
    return gRoot;
}
}  // namespace testsupport

int main(int argc, char** argv) {
    gRoot = createRoot();
    setenv("DATACENTER_ROOT", gRoot.c_str(), 1);
    FLAGS_logtostderr = true;
    google::InitGoogleLogging(argv[0]);
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    if (!std::getenv("DC_KEEP_TEST_ROOT")) {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(gRoot, ignored);
    }
    return result;
}
