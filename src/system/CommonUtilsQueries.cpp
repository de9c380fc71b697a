// System queries of CommonUtils: UCI values, NVRAM, the country code, the LAN
// address, partition space, file kinds and advisory locks.
#include <glog/logging.h>
#include <json-c/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/thread/mutex.hpp>

#include "common/ShellArgument.h"
#include "system/CommonUtils.h"
#include "system/ConfigUtils.h"
#include "system/RootPrefix.h"
#include "system/UciAccess.h"

const std::string CommonUtils::DEFAULTCOUNTRYCODE_ = "CN";

namespace {

const char* const kRomVersionKey = "/usr/share/halvard/halvard_version.version.ROM";
const char* const kRomChannelKey = "/usr/share/halvard/halvard_version.version.CHANNEL";
const char* const kDeviceIdKey = "/etc/config/messaging.deviceInfo.DEVICE_ID";
const char* const kSerialNumberCommand = "nvram get SN";
const char* const kCountryCodeCommand = "nvram get CountryCode";
const char* const kCountryCacheFile = "/tmp/commonutils.config.tmp";

// Last reply of the network daemon to the LAN status query; the reply
// callback of the ubus library writes it, so it is shared by the process.
boost::mutex gIpResultMutex;
std::string ipResultTmp;

void trimLineEndsAndBlanks(std::string& text) {
    const char* const blanks = "\r\n ";
    const std::string::size_type first = text.find_first_not_of(blanks);
    text = first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The "address" of the last element of "ipv4-address" in the status reply.
std::string lastIpv4Address(const std::string& reply) {
    std::string address;
    json_object* root = json_tokener_parse(reply.c_str());
    if (!root) {
        return address;
    }
    json_object* addresses = nullptr;
    if (json_object_object_get_ex(root, "ipv4-address", &addresses) &&
        json_object_is_type(addresses, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(addresses); ++i) {
            json_object* member = nullptr;
            json_object* element = json_object_array_get_idx(addresses, i);
            if (element && json_object_object_get_ex(element, "address", &member) &&
                json_object_is_type(member, json_type_string)) {
                address = json_object_get_string(member);
            }
        }
    }
    json_object_put(root);
    return address;
}

}  // namespace

std::string CommonUtils::sUciGet(const std::string& path) {
    std::string value;
    switch (datacenter::UciAccess::sCurrent()->get(path, value)) {
        case datacenter::UciAccess::Result::kFound:
            return value;
        case datacenter::UciAccess::Result::kOutOfMemory:
            LOG(ERROR) << "Out of memory";
            break;
        case datacenter::UciAccess::Result::kLookupFailed:
            LOG(ERROR) << "uci look up fail.";
            break;
        case datacenter::UciAccess::Result::kNoOption:
            break;
    }
    return std::string();
}

std::string CommonUtils::sGetRomVersion() {
    return sUciGet(kRomVersionKey);
}

std::string CommonUtils::sGetRomChannel() {
    return sUciGet(kRomChannelKey);
}

std::string CommonUtils::sGetDeviceId() {
    return sUciGet(kDeviceIdKey);
}

std::string CommonUtils::sGetRomSN() {
    std::string serial;
    sCallSystem(kSerialNumberCommand, serial);
    return serial;
}

std::string CommonUtils::sGetCountryCode() {
    static boost::mutex mutex;
    static ConfigUtils cache(datacenter::RootPrefix::sPath(kCountryCacheFile));
    static std::string code;
    boost::mutex::scoped_lock lock(mutex);
    code = cache.getConfigFromKey("code");
    if (!code.empty()) {
        return code;
    }
    if (sGetRomChannel() == "release") {
        sCallSystem(kCountryCodeCommand, code);
        trimLineEndsAndBlanks(code);
    }
    if (code.empty()) {
        code = DEFAULTCOUNTRYCODE_;
    }
    return code;
}

std::string CommonUtils::sGetRouterIP() {
    boost::mutex::scoped_lock lock(gIpResultMutex);
    ipResultTmp.clear();
    if (!datacenter::UciAccess::sCurrent()->call("network.interface.lan", "status", ipResultTmp)) {
        return std::string();
    }
    const std::string address = lastIpv4Address(ipResultTmp);
    LOG(INFO) << "ip is " << address;
    return address;
}

void CommonUtils::sGetPartitionSpaceInfo(const std::string& mountPoint, unsigned long long& total,
                                         unsigned long long& available) {
    total = 0;
    available = 0;
    std::string output;
    sCallSystem("df | grep " + datacenter::shellArgument(mountPoint), output);
    for (const std::string& line : splitString(output, "\n")) {
        const std::vector<std::string> fields = splitStringTokenCompress(line, " ");
        if (fields.size() == 6 && fields[5] == mountPoint) {
            total = lexicalCast<unsigned long long>(fields[1], 0ULL) * 1024;
            available = lexicalCast<unsigned long long>(fields[3], 0ULL) * 1024;
            return;
        }
    }
}

bool CommonUtils::sIsFile(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

int CommonUtils::slockFileLock(struct flock& lock, short type, int fd, const std::string& path) {
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    if (fcntl(fd, F_SETLK, &lock) == -1) {
        LOG(ERROR) << "failed to lock file " << path;
        close(fd);
        return -1;
    }
    return 0;
}

int CommonUtils::sUnlockFileLock(struct flock& lock, int fd, const std::string& path) {
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    int result = 0;
    if (fcntl(fd, F_SETLK, &lock) == -1) {
        LOG(ERROR) << "failed to unlock file " << path;
        result = -1;
    }
    close(fd);
    return result;
}
