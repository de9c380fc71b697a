// The MAC-filter reader ("/etc/config/macfilter") on arbitrary files, with
// plain and hashed MAC comparison. The answer is always 0 or 1.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "system/CommonUtils.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::root();
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::writeInput(fuzzsupport::underRoot("/etc/config/macfilter"), data, size);
    for (const char* attribute : {"pridisk", "lan", "wan"}) {
        const int answer = find_mac_attribute_from_macfilter("aa:bb:cc:dd:ee:ff", attribute);
        if (answer != 0 && answer != 1) {
            fuzzsupport::fail("answer out of range");
        }
    }
    // The MD5 of "aa:bb:cc:dd:ee:ff".
    CommonUtils::sIsCanAccessPrivacyData("3e8b3a6e4ad1dd3f5e1e2de21f2bb7bb");
    return 0;
}
