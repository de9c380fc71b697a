// UCI look-ups and ubus calls through the router's own libraries. Compiled
// only when the build found libuci and libubus (CMake option WITH_OPENWRT).
#ifdef DC_WITH_OPENWRT

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
#include <uci.h>
}

#include <cstdlib>
#include <cstring>
#include <vector>

#include "system/UciAccess.h"

namespace datacenter {
namespace {

class UciLibraryAccess : public UciAccess {
public:
    Result get(const std::string& path, std::string& value) override {
        uci_context* context = uci_alloc_context();
        if (!context) {
            return Result::kOutOfMemory;
        }
        // uci_lookup_ptr writes into the string it is given.
        std::vector<char> copy(path.begin(), path.end());
        copy.push_back('\0');
        uci_ptr pointer;
        memset(&pointer, 0, sizeof(pointer));
        Result result = Result::kLookupFailed;
        if (uci_lookup_ptr(context, &pointer, copy.data(), true) == UCI_OK) {
            result = Result::kNoOption;
            if ((pointer.flags & UCI_LOOKUP_COMPLETE) && pointer.last->type == UCI_TYPE_OPTION &&
                pointer.o->type == UCI_TYPE_STRING) {
                value = pointer.o->v.string;
                result = Result::kFound;
            }
        }
        uci_free_context(context);
        return result;
    }

    bool call(const std::string& object, const std::string& method, std::string& reply) override {
        reply.clear();
        ubus_context* context = ubus_connect(nullptr);
        if (!context) {
            return false;
        }
        uint32_t id = 0;
        bool called = false;
        if (ubus_lookup_id(context, object.c_str(), &id) == 0) {
            blob_buf message;
            memset(&message, 0, sizeof(message));
            blob_buf_init(&message, 0);
            called =
                ubus_invoke(context, id, method.c_str(), message.head, &UciLibraryAccess::onReply, &reply, 700) == 0;
            blob_buf_free(&message);
        }
        ubus_free(context);
        return called;
    }

private:
    static void onReply(ubus_request* request, int /*type*/, blob_attr* message) {
        if (!message) {
            return;
        }
        char* json = blobmsg_format_json(message, true);
        if (json) {
            *static_cast<std::string*>(request->priv) = json;
            free(json);
        }
    }
};

}  // namespace

std::shared_ptr<UciAccess> UciAccess::sCurrent() {
    static const std::shared_ptr<UciAccess> access = std::make_shared<UciLibraryAccess>();
    return access;
}

}  // namespace datacenter

#endif  // DC_WITH_OPENWRT
