// The manifest store and the global configuration file against libconfig
// doing the same reading and writing directly, side by side in one run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <libconfig.h++>
#include <map>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "system/ConfigInfo.h"

namespace {

// DC_BENCH_PLUGINS sets the number of installed plugins (the scale run uses 1,000).
const int kPlugins = [] {
    const char* value = std::getenv("DC_BENCH_PLUGINS");
    return value && std::atoi(value) > 0 ? std::atoi(value) : 200;
}();
const int kGlobalKeys = 200;

std::string storeDir() {
    return bench::underRoot("/userdisk/appdata//app_infos/");
}

std::string pluginId(int i) {
    return std::to_string(5017400000000001000LL + i);
}

// Times well in the past: a store that has been left alone for a while.
void settle(const std::string& path) {
    const struct timespec past[2] = {{time(nullptr) - 600, 0}, {time(nullptr) - 600, 0}};
    utimensat(AT_FDCWD, path.c_str(), past, 0);
}

std::vector<std::string> gManifests;

void makeStore() {
    for (int i = 0; i < kPlugins; ++i) {
        const std::string path = storeDir() + pluginId(i) + ".manifest";
        bench::writeFile(path, bench::manifestText(pluginId(i)));
        settle(path);
        gManifests.push_back(path);
    }
    settle(storeDir());
}

std::string globalFile() {
    return datacenter::ConfigInfo::sGetInstance()->getGlobalConfigPath();
}

void makeGlobalFile() {
    std::string text;
    for (int i = 0; i < kGlobalKeys; ++i) {
        text += "key_" + std::to_string(i) + " = \"value number " + std::to_string(i) + "\";\n";
    }
    bench::writeFile(bench::underRoot("/userdisk/datacenterConfig/config.cfg"), text);
}

void StoreGetPluginInfos(benchmark::State& state) {
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    for (auto _ : state) {
        benchmark::DoNotOptimize(store->getPluginInfos().size());
    }
}

void ManagerGetPluginList(benchmark::State& state) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::vector<datacenter::PluginInfo> list;
    for (auto _ : state) {
        manager->getPluginList(list);
        benchmark::DoNotOptimize(list.size());
    }
}

void StoreGetPluginInfoById(benchmark::State& state) {
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    const std::string id = pluginId(kPlugins / 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(store->getPluginInfoById(id).id.size());
    }
}

void ManagerGetPluginById(benchmark::State& state) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string id = pluginId(kPlugins / 2);
    datacenter::PluginInfo info;
    for (auto _ : state) {
        manager->getPluginById(info, id);
        benchmark::DoNotOptimize(info.id.size());
    }
}

// Times `ours` and `baseline` in turns, call by call, so that load from
// elsewhere weighs on both alike; reports each one's time per call.
template <typename Ours, typename Baseline>
void interleaved(benchmark::State& state, Ours ours, Baseline baseline) {
    std::chrono::steady_clock::duration mine{}, theirs{};
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        ours();
        const auto middle = std::chrono::steady_clock::now();
        baseline();
        theirs += std::chrono::steady_clock::now() - middle;
        mine += middle - start;
    }
    const double calls = static_cast<double>(state.iterations());
    state.counters["ours_us"] = std::chrono::duration<double, std::micro>(mine).count() / calls;
    state.counters["baseline_us"] = std::chrono::duration<double, std::micro>(theirs).count() / calls;
}

void parseAllWithLibconfig() {
    for (const std::string& path : gManifests) {
        libconfig::Config config;
        config.readFile(path.c_str());
        benchmark::DoNotOptimize(config.getRoot().getLength());
    }
}

// The least a by-value listing can cost: copying the same records.
std::map<std::string, datacenter::PluginInfo> gRecords;

void copyRecords() {
    const std::map<std::string, datacenter::PluginInfo> copy = gRecords;
    benchmark::DoNotOptimize(copy.size());
}

void PairGetPluginInfos(benchmark::State& state) {
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    gRecords = store->getPluginInfos();
    interleaved(
        state, [store] { benchmark::DoNotOptimize(store->getPluginInfos().size()); }, copyRecords);
}

void PairGetPluginList(benchmark::State& state) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    gRecords = Singleton<PluginStorageManager>::instance()->getPluginInfos();
    std::vector<datacenter::PluginInfo> list;
    interleaved(
        state,
        [&] {
            manager->getPluginList(list);
            benchmark::DoNotOptimize(list.size());
        },
        copyRecords);
}

void PairColdReload(benchmark::State& state) {
    interleaved(
        state,
        [] {
            PluginStorageManager store;
            benchmark::DoNotOptimize(store.manifestParseCount());
        },
        parseAllWithLibconfig);
}

void durableLibconfigSet(libconfig::Config& config, const std::string& path, const std::string& value) {
    libconfig::Setting& root = config.getRoot();
    root.remove("key_150");
    root.add("key_150", libconfig::Setting::TypeString) = value;
    const std::string temporary = path + ".bench";
    FILE* stream = fopen(temporary.c_str(), "w");
    config.write(stream);
    fflush(stream);
    fsync(fileno(stream));
    fclose(stream);
    rename(temporary.c_str(), path.c_str());
}

void PairSetConfig(benchmark::State& state) {
    const std::string path = globalFile();
    datacenter::ConfigInfo* info = datacenter::ConfigInfo::sGetInstance();
    libconfig::Config config;
    config.readFile(path.c_str());
    int n = 0;
    interleaved(
        state, [&] { info->setConfig("key_150", "value " + std::to_string(++n)); },
        [&] { durableLibconfigSet(config, path, "value " + std::to_string(++n)); });
}

// The file as it is most of the time: written a while ago.
void PairGetConfig(benchmark::State& state) {
    const std::string path = globalFile();
    settle(path);
    datacenter::ConfigInfo* info = datacenter::ConfigInfo::sGetInstance();
    interleaved(
        state, [&] { benchmark::DoNotOptimize(info->getConfig("key_150").size()); },
        [&] {
            libconfig::Config config;
            config.readFile(path.c_str());
            std::string value;
            config.getRoot().lookupValue("key_150", value);
            benchmark::DoNotOptimize(value.size());
        });
}

// The same, with the file written again (its times set to now) before each
// call, untimed: getConfig parses it again every time then.
void PairGetConfigChanged(benchmark::State& state) {
    const std::string path = globalFile();
    datacenter::ConfigInfo* info = datacenter::ConfigInfo::sGetInstance();
    std::chrono::steady_clock::duration mine{}, theirs{};
    for (auto _ : state) {
        utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
        const auto start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(info->getConfig("key_150").size());
        const auto middle = std::chrono::steady_clock::now();
        libconfig::Config config;
        config.readFile(path.c_str());
        std::string value;
        config.getRoot().lookupValue("key_150", value);
        benchmark::DoNotOptimize(value.size());
        theirs += std::chrono::steady_clock::now() - middle;
        mine += middle - start;
    }
    const double calls = static_cast<double>(state.iterations());
    state.counters["ours_us"] = std::chrono::duration<double, std::micro>(mine).count() / calls;
    state.counters["baseline_us"] = std::chrono::duration<double, std::micro>(theirs).count() / calls;
}

}  // namespace

BENCHMARK(PairColdReload)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(PairGetPluginInfos)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(PairGetPluginList)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(PairGetConfig)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(PairGetConfigChanged)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(PairSetConfig)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(StoreGetPluginInfos)->Unit(benchmark::kMicrosecond);
BENCHMARK(ManagerGetPluginList)->Unit(benchmark::kMicrosecond);
BENCHMARK(StoreGetPluginInfoById)->Unit(benchmark::kMicrosecond);
BENCHMARK(ManagerGetPluginById)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    bench::makeRoot(argv[0]);
    makeGlobalFile();
    makeStore();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    bench::removeRoot();
    return 0;
}
