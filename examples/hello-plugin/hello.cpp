// A minimal plugin program. The plugin controller starts it in the plugin's
// data directory; it serves the DataCenter RPC service on a free loopback
// port, records that port and its process id where the core looks for them,
// and runs until it is asked to stop (SIGTERM or SIGINT). In a real sandbox
// (sim/README.md) those records are reached through the user disk, which is
// why the manifest asks for "access_userdata".
#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "Plugin/PluginManager.h"
#include "rpc/DataCenterRpcServer.h"
#include "system/ConfigInfo.h"

namespace {

class Greeter : public datacenter::DataCenterRpcHandler {
public:
    explicit Greeter(const std::string& id) : id_(id) {}
    std::string request(const std::string& parameter) override {
        return "hello from " + id_ + ", you said: " + parameter;
    }
    std::string notify(int32_t type, const std::string& parameter) override {
        return "notified " + std::to_string(type) + ": " + parameter;
    }

private:
    std::string id_;
};

int waitForStop() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    int received = 0;
    sigwait(&stopSignals, &received);
    return received;
}

}  // namespace

int main() {
    // Started in its data directory: the installed manifest names the plugin.
    const std::string id = datacenter::ConfigInfo::sGetConfigFromFile("etc/manifest", "plugin_id");
    if (id.empty()) {
        std::cerr << "hello: no plugin_id in etc/manifest" << std::endl;
        return 1;
    }
    datacenter::DataCenterRpcServer server(std::make_shared<Greeter>(id));
    std::string error;
    if (!server.start(0, error)) {
        std::cerr << "hello: cannot serve: " << error << std::endl;
        return 1;
    }
    PluginManager::sSetPluginPort(id, std::to_string(server.port()), datacenter::PORT);
    PluginManager::sSetPluginPort(id, std::to_string(getpid()), datacenter::PID);
    std::cout << "hello: serving on port " << server.port() << std::endl;
    waitForStop();
    server.stop();
    return 0;
}
