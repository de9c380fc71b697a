#include "Plugin/pluginCenter.h"

#include <json-c/json.h>

#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Plugin/CapabilityManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "system/Logging.h"

namespace {

typedef std::vector<std::string> Args;

const char* const kUsage =
    "usage: plugincenter list [--json]\n"
    "       plugincenter info ID\n"
    "       plugincenter install FILE [-k]\n"
    "       plugincenter uninstall ID\n"
    "       plugincenter clean ID\n"
    "       plugincenter enable ID | disable ID\n"
    "       plugincenter control ID REQUEST\n"
    "       plugincenter config get ID KEY\n"
    "       plugincenter config set ID KEY VALUE\n"
    "       plugincenter metrics ID [--json]\n"
    "       plugincenter progress \"ID;ID...\"\n"
    "       plugincenter capabilities [--all]\n"
    "       plugincenter VERB --help\n";

PluginManager* manager() {
    return Singleton<PluginManager>::instance();
}

int report(ApiErrorCode code, const std::string& what) {
    if (code == API_SUCCESS) {
        return 0;
    }
    std::cerr << "plugincenter: " << what << " failed, code " << code << std::endl;
    return 1;
}

void printJson(const std::vector<datacenter::PluginInfo>& plugins) {
    json_object* array = json_object_new_array();
    for (const datacenter::PluginInfo& plugin : plugins) {
        json_object* item = json_object_new_object();
        json_object_object_add(item, "id", json_object_new_string(plugin.id.c_str()));
        json_object_object_add(item, "name", json_object_new_string(plugin.name.c_str()));
        json_object_object_add(item, "version", json_object_new_string(plugin.version.c_str()));
        json_object_object_add(item, "status", json_object_new_int(plugin.status));
        json_object_array_add(array, item);
    }
    std::cout << json_object_to_json_string_ext(array, JSON_C_TO_STRING_PRETTY) << std::endl;
    json_object_put(array);
}

int list(const Args& args) {
    std::vector<datacenter::PluginInfo> plugins;
    manager()->getPluginList(plugins);
    if (args.size() == 1 && args[0] == "--json") {
        printJson(plugins);
        return 0;
    }
    for (const datacenter::PluginInfo& plugin : plugins) {
        std::cout << plugin.id << '\t' << plugin.status << '\t' << plugin.version << '\t' << plugin.name << std::endl;
    }
    return 0;
}

int info(const Args& args) {
    datacenter::PluginInfo plugin;
    const ApiErrorCode code = manager()->getPluginById(plugin, args[0]);
    if (code == API_SUCCESS && plugin.id.empty()) {
        return report(API_NO_SUCH_PLUGIN, "info " + args[0]);
    }
    if (code == API_SUCCESS) {
        std::cout << "id: " << plugin.id << "\nname: " << plugin.name << "\nversion: " << plugin.version
                  << "\ndeveloper: " << plugin.developer << "\nstatus: " << plugin.status
                  << "\nbinary: " << plugin.binaryName << "\nsdk level: " << plugin.sdkLevel << std::endl;
    }
    return report(code, "info " + args[0]);
}

int install(const Args& args) {
    const bool keep = args.size() == 2 && args[1] == "-k";
    return report(manager()->installFromLocal(args[0], keep), "install " + args[0]);
}

int control(const Args& args) {
    std::string response;
    const ApiErrorCode code = manager()->controlPlugin(args[0], args[1], response);
    if (code == API_SUCCESS) {
        std::cout << response << std::endl;
    }
    return report(code, "control " + args[0]);
}

int config(const Args& args) {
    if (args[0] == "get" && args.size() == 3) {
        std::string value;
        const ApiErrorCode code = manager()->getPluginConfigData(args[1], args[2], value);
        if (code == API_SUCCESS) {
            std::cout << value << std::endl;
        }
        return report(code, "config get");
    }
    if (args[0] == "set" && args.size() == 4) {
        return report(manager()->setPluginConfigData(args[1], args[2], args[3]), "config set");
    }
    std::cerr << kUsage;
    return 2;
}

// Runs `work` with standard output captured: the manager's operations
// write their own progress lines there, which would mix with our output.
template <class Work>
void quietly(Work work) {
    std::ostringstream sink;
    std::streambuf* const saved = std::cout.rdbuf(sink.rdbuf());
    try {
        work();
    } catch (...) {
        std::cout.rdbuf(saved);
        throw;
    }
    std::cout.rdbuf(saved);
}

int metrics(const Args& args) {
    if (args.size() == 2 && args[1] != "--json") {
        std::cerr << kUsage;
        return 2;
    }
    std::vector<PidMetrics> samples;
    bool ok = false;
    quietly([&] { ok = manager()->getPluginMetrics(args[0], samples); });
    if (!ok) {
        return report(API_FAILED, "metrics " + args[0]);
    }
    if (args.size() == 2) {
        json_object* array = json_object_new_array();
        for (const PidMetrics& sample : samples) {
            json_object_array_add(array, pidMetricsToJson(sample));
        }
        std::cout << json_object_to_json_string_ext(array, JSON_C_TO_STRING_PRETTY) << std::endl;
        json_object_put(array);
        return 0;
    }
    std::cout << "pid\tcpu%\tmem%\tread kB/s\twrite kB/s" << std::endl;
    for (const PidMetrics& sample : samples) {
        std::cout << sample.pid << '\t' << sample.cpuPercent << '\t' << sample.memPercent << '\t' << sample.readKBPerSec
                  << '\t' << sample.writeKBPerSec << std::endl;
    }
    return 0;
}

int progress(const Args& args) {
    std::vector<datacenter::PluginInfo> records;
    ApiErrorCode code = API_SUCCESS;
    quietly([&] { code = manager()->getPluginInstallProgress(records, args[0]); });
    for (const datacenter::PluginInfo& record : records) {
        std::cout << record.id << '\t' << record.status << '\t' << record.progress << '\t' << record.errorCode
                  << std::endl;
    }
    return report(code, "progress");
}

int capabilities(const Args& args) {
    if (args.size() == 1 && args[0] != "--all") {
        std::cerr << kUsage;
        return 2;
    }
    const bool all = args.size() == 1;
    for (const PluginCapability& row : CapabilityManager().getList(!all)) {
        std::cout << row.name;
        if (all) {
            std::cout << '\t' << (row.visible ? "visible" : "hidden");
        }
        std::cout << '\t' << row.description << std::endl;
    }
    return 0;
}

struct Command {
    const char* usage;
    size_t minArgs;
    size_t maxArgs;
    std::function<int(const Args&)> run;
};

const std::map<std::string, Command>& commands() {
    static const std::map<std::string, Command> table = {
        {"list", {"list [--json]: the installed plugins", 0, 1, list}},
        {"info", {"info ID: one plugin's record", 1, 1, info}},
        {"install", {"install FILE [-k]: install a package (-k keeps the file)", 1, 2, install}},
        {"uninstall",
         {"uninstall ID: stop the plugin and remove it, leaving the sandbox skeleton", 1, 1,
          [](const Args& a) { return report(manager()->uninstallPlugin(a[0]), "uninstall " + a[0]); }}},
        {"clean",
         {"clean ID: remove what was added since installation and restart the plugin", 1, 1,
          [](const Args& a) { return report(manager()->cleanPlugin(a[0]), "clean " + a[0]); }}},
        {"enable",
         {"enable ID: start the plugin", 1, 1,
          [](const Args& a) {
              return report(manager()->changePluginStatus(a[0], datacenter::ENABLED), "enable " + a[0]);
          }}},
        {"disable",
         {"disable ID: stop the plugin", 1, 1,
          [](const Args& a) {
              return report(manager()->changePluginStatus(a[0], datacenter::DISABLED), "disable " + a[0]);
          }}},
        {"control", {"control ID REQUEST: send one RPC request to the running plugin", 2, 2, control}},
        {"config", {"config get ID KEY | config set ID KEY VALUE: the plugin's configuration data", 3, 4, config}},
        {"metrics",
         {"metrics ID [--json]: processor, memory and disk use of each process of the plugin", 1, 2, metrics}},
        {"progress", {"progress \"ID;ID...\": install status, progress and error code per id", 1, 1, progress}},
        {"capabilities",
         {"capabilities [--all]: the capabilities shown to users (--all: every one)", 0, 1, capabilities}},
    };
    return table;
}

}  // namespace

int pluginCenterMain(int argc, char** argv) {
    datacenter::Logging::sInit("plugincenter", true);
    if (argc == 2 && std::string(argv[1]) == "--help") {
        std::cout << kUsage;
        return 0;
    }
    if (argc < 2 || commands().count(argv[1]) == 0) {
        std::cerr << kUsage;
        return 2;
    }
    const Command& command = commands().at(argv[1]);
    const Args args(argv + 2, argv + argc);
    if (args.size() == 1 && args[0] == "--help") {
        std::cout << "usage: plugincenter " << command.usage << std::endl;
        return 0;
    }
    if (args.size() < command.minArgs || args.size() > command.maxArgs) {
        std::cerr << kUsage;
        return 2;
    }
    return command.run(args);
}
