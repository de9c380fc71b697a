// controlPlugin (a new connection per call, the port looked up in the global
// configuration first, the socket listening there checked to be the
// plugin's) against a plain Thrift client making the same call to the same
// server, side by side in one run; with 50 and with 2,000 unrelated
// processes on the machine. And the /proc sweep a stop adds after the
// contract's pid-file stop, with as many unrelated processes.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "DataCenter.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "rpc/DataCenterRpcServer.h"
#include "system/ProcessOwnership.h"

namespace {

const char* const kPluginId = "5017400000000000100";
int gPort = 0;

class EchoHandler : public datacenter::DataCenterRpcHandler {
public:
    std::string request(const std::string& parameter) override { return "echo:" + parameter; }
    std::string notify(int32_t, const std::string&) override { return ""; }
};

// `count` processes that have nothing to do with any plugin, for the time
// of one benchmark: the /proc scans meet them all.
class Bystanders {
public:
    explicit Bystanders(int count) {
        for (int i = 0; i < count; ++i) {
            const pid_t pid = fork();
            if (pid == 0) {
                pause();
                _exit(0);
            }
            pids_.push_back(pid);
        }
    }
    ~Bystanders() {
        for (const pid_t pid : pids_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

private:
    std::vector<pid_t> pids_;
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
    const Bystanders bystanders(static_cast<int>(state.range(0)));
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

// The scan of /proc a stop makes after the pid-file stop has ended the
// plugin's one process: what a disable costs beyond the contract's waits.
void StopSweep(benchmark::State& state) {
    const Bystanders bystanders(static_cast<int>(state.range(0)));
    const std::string dataDir = PluginManager::sGetPluginDataPath(kPluginId);
    for (auto _ : state) {
        if (datacenter::ProcessOwnership::sStopAll(kPluginId, dataDir) != 0) {
            state.SkipWithError("a process was left");
            break;
        }
    }
}

BENCHMARK(ControlVsPlainThrift)->Arg(50)->Arg(2000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(StopSweep)->Arg(50)->Arg(2000)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The plugin's server runs in a process of the plugin (working in its data
// directory), as a real plugin does: the core talks to nothing else.
pid_t startPluginServer(int& port) {
    const std::string dataDir = PluginManager::sGetPluginDataPath(kPluginId);
    boost::filesystem::create_directories(dataDir);
    int ready[2];
    if (pipe(ready) != 0) {
        return -1;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        int listening = 0;
        datacenter::DataCenterRpcServer server(std::make_shared<EchoHandler>());
        std::string error;
        if (chdir(dataDir.c_str()) == 0 && server.start(0, error)) {
            listening = server.port();
        }
        (void)!write(ready[1], &listening, sizeof(listening));
        pause();
        _exit(0);
    }
    close(ready[1]);
    if (read(ready[0], &port, sizeof(port)) != sizeof(port)) {
        port = 0;
    }
    close(ready[0]);
    return pid;
}

int main(int argc, char** argv) {
    bench::makeRoot(argv[0]);
    const pid_t server = startPluginServer(gPort);
    if (server < 0 || gPort == 0) {
        fprintf(stderr, "cannot start the plugin's server\n");
        return 1;
    }
    Singleton<PluginManager>::instance()->setPluginPort(kPluginId, std::to_string(gPort), datacenter::PORT);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    bench::removeRoot();
    return 0;
}
