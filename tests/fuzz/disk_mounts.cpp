// The parser of "getdisk mnt" output ("device,mountPoint" pairs on the first
// line), fed through the command seam (which trims the output first). Every
// reported mount is a blank-free pair taken from the output, with a mount
// point below the disks it asks for. An "@"
// in the input stands for the temporary root, so that seeds can name mount
// points below the prefixed disk paths.
#include <boost/algorithm/string/predicate.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "system/CommandRunner.h"
#include "system/ConfigInfo.h"
#include "system/DeviceMountInfo.h"

namespace {

// Answers every command with the fuzz input as its output.
class CannedRunner : public datacenter::CommandRunner {
public:
    std::string output;
    int runShell(const std::string&) override { return 0; }
    bool runPipe(const std::string&, std::string& out, int& status) override {
        out = output;
        status = 0;
        return true;
    }
};

std::shared_ptr<CannedRunner> gRunner;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::root();
    fuzzsupport::quietLogs();
    gRunner = std::make_shared<CannedRunner>();
    datacenter::CommandRunner::sInstall(gRunner);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!gRunner) {
        LLVMFuzzerInitialize(nullptr, nullptr);
    }
    gRunner->output.clear();
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '@') {
            gRunner->output += fuzzsupport::root();
        } else {
            gRunner->output += static_cast<char>(data[i]);
        }
    }
    const std::string extdisks = datacenter::ConfigInfo::sGetInstance()->getExtdiskRootPath();
    for (const datacenter::MountInfo& mount : datacenter::DeviceMountInfo::sGetHotplugDeviceMountInfo()) {
        if (!boost::algorithm::starts_with(mount.mountPoint, extdisks) ||
            (mount.device + mount.mountPoint).find_first_of(" \n") != std::string::npos ||
            gRunner->output.find(mount.device + "," + mount.mountPoint) == std::string::npos) {
            fuzzsupport::fail("reported a mount that is not an external disk of the output");
        }
    }
    datacenter::DeviceMountInfo::sGetUserAndExtDiskMountInfo();
    datacenter::DeviceMountInfo::sIsExistExtDisk(extdisks);
    return 0;
}
