// The manifest store and the global configuration file against libconfig
// doing the same reading and writing directly, side by side in one run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <libconfig.h++>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "system/ConfigInfo.h"

namespace {

const int kPlugins = 200;
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

void StoreColdReload(benchmark::State& state) {
    for (auto _ : state) {
        PluginStorageManager store;
        benchmark::DoNotOptimize(store.manifestParseCount());
    }
}

void LibconfigParseAll(benchmark::State& state) {
    for (auto _ : state) {
        for (const std::string& path : gManifests) {
            libconfig::Config config;
            config.readFile(path.c_str());
            benchmark::DoNotOptimize(config.getRoot().getLength());
        }
    }
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

void ConfigGet(benchmark::State& state) {
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    for (auto _ : state) {
        benchmark::DoNotOptimize(config->getConfig("key_150").size());
    }
}

void LibconfigGet(benchmark::State& state) {
    const std::string path = globalFile();
    for (auto _ : state) {
        libconfig::Config config;
        config.readFile(path.c_str());
        std::string value;
        config.getRoot().lookupValue("key_150", value);
        benchmark::DoNotOptimize(value.size());
    }
}

void ConfigSet(benchmark::State& state) {
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    int n = 0;
    for (auto _ : state) {
        config->setConfig("key_150", "value " + std::to_string(++n));
    }
}

// A careful program without this code base: libconfig writes the document
// to a temporary file, which is flushed to disk and renamed over the file.
void LibconfigSet(benchmark::State& state) {
    const std::string path = globalFile();
    libconfig::Config config;
    config.readFile(path.c_str());
    int n = 0;
    for (auto _ : state) {
        libconfig::Setting& root = config.getRoot();
        root.remove("key_150");
        root.add("key_150", libconfig::Setting::TypeString) = "value " + std::to_string(++n);
        const std::string temporary = path + ".bench";
        FILE* stream = fopen(temporary.c_str(), "w");
        config.write(stream);
        fflush(stream);
        fsync(fileno(stream));
        fclose(stream);
        rename(temporary.c_str(), path.c_str());
    }
}

}  // namespace

BENCHMARK(StoreColdReload)->Unit(benchmark::kMicrosecond);
BENCHMARK(LibconfigParseAll)->Unit(benchmark::kMicrosecond);
BENCHMARK(StoreGetPluginInfos)->Unit(benchmark::kMicrosecond);
BENCHMARK(ManagerGetPluginList)->Unit(benchmark::kMicrosecond);
BENCHMARK(StoreGetPluginInfoById)->Unit(benchmark::kMicrosecond);
BENCHMARK(ManagerGetPluginById)->Unit(benchmark::kMicrosecond);
BENCHMARK(ConfigGet)->Unit(benchmark::kMicrosecond);
BENCHMARK(LibconfigGet)->Unit(benchmark::kMicrosecond);
BENCHMARK(ConfigSet)->Unit(benchmark::kMicrosecond);
BENCHMARK(LibconfigSet)->Unit(benchmark::kMicrosecond);

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
