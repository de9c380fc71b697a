// The reader of the kernel's mount table on arbitrary text: lines of any
// length and field count, NUL bytes, no final newline.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "system/DeviceMountInfo.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::root();
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string table = fuzzsupport::underRoot("/mounts");
    fuzzsupport::writeInput(table, data, size);
    datacenter::DeviceMountInfo::sSetMountTablePath(table);
    for (const datacenter::MountInfo& mount : datacenter::DeviceMountInfo::sGetSystemDeviceMountInfo()) {
        if (mount.device.empty() || mount.mountPoint.empty()) {
            fuzzsupport::fail("reported a mount with an empty field");
        }
    }
    return 0;
}
