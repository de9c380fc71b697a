// controlPlugin (a new connection per call, the port looked up in the global
// configuration first) against a plain Thrift client making the same call to
// the same server, side by side in one run.
#include <benchmark/benchmark.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <chrono>
#include <memory>
#include <string>

#include "BenchRoot.h"
#include "DataCenter.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "rpc/DataCenterRpcServer.h"

namespace {

const char* const kPluginId = "5017400000000000100";
int gPort = 0;

class EchoHandler : public datacenter::DataCenterRpcHandler {
public:
    std::string request(const std::string& parameter) override { return "echo:" + parameter; }
    std::string notify(int32_t, const std::string&) override { return ""; }
};

bool controlPlugin(std::string& response) {
    return Singleton<PluginManager>::instance()->controlPlugin(kPluginId, "status", response) == API_SUCCESS;
}

bool plainThriftRequest(std::string& response) {
    using namespace apache::thrift;
    auto socket = std::make_shared<transport::TSocket>("localhost", gPort);
    auto framed = std::make_shared<transport::TFramedTransport>(socket);
    datacenter::DataCenterClient client(std::make_shared<protocol::TBinaryProtocol>(framed));
    framed->open();
    client.request(response, "status");
    framed->close();
    return response == "echo:status";
}

double seconds(const std::chrono::steady_clock::duration& duration) {
    return std::chrono::duration<double>(duration).count();
}

// The two clients take turns, call by call, so that whatever else the
// machine does (and the sockets left in TIME_WAIT) weighs on both alike.
// Reports the time of each per call; the iteration time is the pair's.
void ControlVsPlainThrift(benchmark::State& state) {
    std::string response;
    std::chrono::steady_clock::duration ours{}, plain{};
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const bool controlled = controlPlugin(response);
        const auto middle = std::chrono::steady_clock::now();
        const bool answered = plainThriftRequest(response);
        const auto end = std::chrono::steady_clock::now();
        if (!controlled || !answered) {
            state.SkipWithError("a call failed");
            break;
        }
        ours += middle - start;
        plain += end - middle;
    }
    const double calls = static_cast<double>(state.iterations());
    state.counters["control_us"] = seconds(ours) * 1e6 / calls;
    state.counters["thrift_us"] = seconds(plain) * 1e6 / calls;
}

}  // namespace

BENCHMARK(ControlVsPlainThrift)->Unit(benchmark::kMicrosecond)->UseRealTime();

int main(int argc, char** argv) {
    bench::makeRoot(argv[0]);
    datacenter::DataCenterRpcServer server(std::make_shared<EchoHandler>());
    std::string error;
    if (!server.start(0, error)) {
        fprintf(stderr, "cannot start the server: %s\n", error.c_str());
        return 1;
    }
    gPort = server.port();
    Singleton<PluginManager>::instance()->setPluginPort(kPluginId, std::to_string(gPort), datacenter::PORT);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    server.stop();
    bench::removeRoot();
    return 0;
}
