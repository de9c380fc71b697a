#pragma once
// Access to the router's OpenWrt services: UCI option look-ups in the
// extended syntax and ubus method calls. On a router built with the real
// libuci/libubus (CMake option WITH_OPENWRT) the libraries answer; otherwise
// a reader of UCI files under the root prefix and the `ubus` command-line
// tool do, behind the same interface.
#include <memory>
#include <string>

namespace datacenter {

class UciAccess {
public:
    enum class Result {
        kFound,         // the path names an option with a string value
        kNoOption,      // the section exists, the option does not (or is a list)
        kLookupFailed,  // bad path, missing file or missing section
        kOutOfMemory,   // the UCI context could not be allocated
    };

    virtual ~UciAccess() = default;

    // Looks up `path` ("config.section.option"; config may be an absolute
    // file path, section may be "@type[index]"). `value` is set on kFound.
    virtual Result get(const std::string& path, std::string& value) = 0;
    // Calls `method` of the ubus object `object` without arguments and gives
    // the reply as JSON text. False when the object or the call fails.
    virtual bool call(const std::string& object, const std::string& method, std::string& reply) = 0;

    // The access in use: the libraries when built with them, else the stand-in.
    static std::shared_ptr<UciAccess> sCurrent();
};

// The stand-in used without the OpenWrt libraries.
class UciFileAccess : public UciAccess {
public:
    Result get(const std::string& path, std::string& value) override;
    // Runs "ubus call <object> <method>" through the command seam, bounded by
    // "timeout" to the 700 ms the daemon call waits.
    bool call(const std::string& object, const std::string& method, std::string& reply) override;
};

}  // namespace datacenter
