#include "Plugin/pluginCenter.h"

#include <json-c/json.h>
#include <unistd.h>

#include <boost/thread/thread.hpp>
#include <csignal>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Plugin/CapabilityManager.h"
#include "Plugin/FirmwareRecheck.h"
#include "Plugin/InstallProgressView.h"
#include "Plugin/PluginInfoJson.h"
#include "Plugin/PluginManager.h"
#include "Plugin/PrintableText.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/installAction/UpgradeBackup.h"
#include "common/Singleton.h"
#include "system/CurlDownloader.h"
#include "system/Logging.h"

namespace {

typedef std::vector<std::string> Args;

const char* const kUsage =
    "usage: plugincenter [-v|--verbose] VERB ...   (-v: informational log lines on standard error too)\n"
    "       plugincenter list [--json]\n"
    "       plugincenter info ID [--json]\n"
    "       plugincenter install FILE [-k]\n"
    "       plugincenter install-url URL\n"
    "       plugincenter install-server ID URL\n"
    "       plugincenter uninstall ID\n"
    "       plugincenter clean ID\n"
    "       plugincenter enable ID | disable ID\n"
    "       plugincenter control ID REQUEST\n"
    "       plugincenter config get ID KEY\n"
    "       plugincenter config set ID KEY VALUE\n"
    "       plugincenter metrics ID [--json]\n"
    "       plugincenter progress \"ID;ID...\" [--json]\n"
    "       plugincenter capabilities [--all]\n"
    "       plugincenter recheck\n"
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

int usage() {
    std::cerr << kUsage;
    return 2;
}

// True when the verb's optional last argument at `index` asks for JSON;
// `bad` is set when something else stands there.
bool wantsJson(const Args& args, size_t index, bool& bad) {
    bad = args.size() > index && args[index] != "--json";
    return args.size() > index && !bad;
}

// What a package or a plugin supplied, made safe for a human reader: one
// line, no control characters, no invalid UTF-8 (PrintableText).
std::string shown(const std::string& text) {
    return PrintableText::sEscaped(text);
}

// Prints `document` as one pretty-printed JSON document and releases it.
// json-c passes invalid UTF-8 in a plugin's strings through; the printed
// document is valid UTF-8 JSON whatever they hold.
void printJson(json_object* document) {
    std::cout << PrintableText::sJson(json_object_to_json_string_ext(document, JSON_C_TO_STRING_PRETTY)) << std::endl;
    json_object_put(document);
}

// Why the plugin needs the operator's attention, or "": an upgrade whose
// rollback left files out (first), or the firmware check that disabled it.
std::string reasonOf(const std::string& id) {
    if (UpgradeBackup::sPending(id)) {
        return "needs attention: the previous version could not be put back completely; its files are kept in " +
               PluginManager::sGetPluginRootPath() + UpgradeBackup::sFolderName(id) + " and the next start tries again";
    }
    return FirmwareRecheck::sReason(id);
}

// The record as JSON, with "firmwareCheck" when the firmware check disabled
// it or a rollback is pending.
json_object* recordToJson(const datacenter::PluginInfo& plugin) {
    json_object* object = pluginInfoToJson(plugin);
    const std::string reason = reasonOf(plugin.id);
    if (!reason.empty()) {
        json_object_object_add(object, "firmwareCheck", json_object_new_string(reason.c_str()));
    }
    return object;
}

json_object* recordsToJson(const std::vector<datacenter::PluginInfo>& plugins) {
    json_object* array = json_object_new_array();
    for (const datacenter::PluginInfo& plugin : plugins) {
        json_object_array_add(array, recordToJson(plugin));
    }
    return array;
}

int list(const Args& args) {
    std::vector<datacenter::PluginInfo> plugins;
    bool bad = false;
    const bool json = wantsJson(args, 0, bad);
    if (bad) {
        return usage();
    }
    manager()->getPluginList(plugins);
    if (json) {
        printJson(recordsToJson(plugins));
        return 0;
    }
    for (const datacenter::PluginInfo& plugin : plugins) {
        const std::string reason = reasonOf(plugin.id);
        std::cout << shown(plugin.id) << '\t' << plugin.status << '\t' << shown(plugin.version) << '\t'
                  << shown(plugin.name) << (reason.empty() ? "" : "\t" + shown(reason)) << std::endl;
    }
    return 0;
}

int info(const Args& args) {
    bool bad = false;
    const bool json = wantsJson(args, 1, bad);
    if (bad) {
        return usage();
    }
    datacenter::PluginInfo plugin;
    const ApiErrorCode code = manager()->getPluginById(plugin, args[0]);
    if (code == API_SUCCESS && plugin.id.empty()) {
        return report(API_NO_SUCH_PLUGIN, "info " + args[0]);
    }
    if (code == API_SUCCESS && json) {
        printJson(recordToJson(plugin));
    } else if (code == API_SUCCESS) {
        std::cout << "id: " << shown(plugin.id) << "\nname: " << shown(plugin.name)
                  << "\nversion: " << shown(plugin.version) << "\ndeveloper: " << shown(plugin.developer)
                  << "\nstatus: " << plugin.status << "\nbinary: " << shown(plugin.binaryName)
                  << "\nsdk level: " << plugin.sdkLevel << std::endl;
        const std::string reason = reasonOf(plugin.id);
        if (!reason.empty()) {
            std::cout << shown(reason) << std::endl;
        }
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
        std::cout << shown(response) << std::endl;
    }
    return report(code, "control " + args[0]);
}

int config(const Args& args) {
    if (args[0] == "get" && args.size() == 3) {
        std::string value;
        const ApiErrorCode code = manager()->getPluginConfigData(args[1], args[2], value);
        if (code == API_SUCCESS) {
            std::cout << shown(value) << std::endl;
        }
        return report(code, "config get");
    }
    if (args[0] == "set" && args.size() == 4) {
        return report(manager()->setPluginConfigData(args[1], args[2], args[3]), "config set");
    }
    return usage();
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
    bool bad = false;
    const bool json = wantsJson(args, 1, bad);
    if (bad) {
        return usage();
    }
    std::vector<PidMetrics> samples;
    bool ok = false;
    quietly([&] { ok = manager()->getPluginMetrics(args[0], samples); });
    if (!ok) {
        return report(API_FAILED, "metrics " + args[0]);
    }
    if (json) {
        json_object* array = json_object_new_array();
        for (const PidMetrics& sample : samples) {
            json_object_array_add(array, pidMetricsToJson(sample));
        }
        printJson(array);
        return 0;
    }
    // Numbers only: nothing of the plugin's text needs escaping here.
    std::cout << "pid\tcpu%\tmem%\tread kB/s\twrite kB/s" << std::endl;
    for (const PidMetrics& sample : samples) {
        std::cout << sample.pid << '\t' << sample.cpuPercent << '\t' << sample.memPercent << '\t' << sample.readKBPerSec
                  << '\t' << sample.writeKBPerSec << std::endl;
    }
    return 0;
}

int progress(const Args& args) {
    bool bad = false;
    const bool json = wantsJson(args, 1, bad);
    if (bad) {
        return usage();
    }
    std::vector<datacenter::PluginInfo> records;
    ApiErrorCode code = API_SUCCESS;
    quietly([&] { code = manager()->getPluginInstallProgress(records, args[0]); });
    if (json) {
        printJson(recordsToJson(records));
        return report(code, "progress");
    }
    for (const datacenter::PluginInfo& record : records) {
        std::cout << shown(record.id) << '\t' << record.status << '\t' << record.progress << '\t' << record.errorCode
                  << std::endl;
    }
    return report(code, "progress");
}

volatile std::sig_atomic_t gInterrupted = 0;

void onInterrupt(int) {
    gInterrupted = 1;
}

// Shows the steps and the download of `action` until its run has ended.
// Ctrl-C asks the download to stop; the steps past it run to their end.
void follow(InstallAction& action, InstallProgressView& view) {
    size_t shown = 0;
    size_t retriesShown = 0;
    bool stopping = false;
    for (;;) {
        // Read before the sample, so that the last sample holds everything.
        const bool finished = action.hasFinished();
        if (gInterrupted && !stopping) {
            stopping = true;
            action.stopDownload();
            view.note("interrupted: stopping the download; steps under way run to their end");
        }
        const std::vector<std::string> steps = action.steps();
        datacenter::DownloadInfo download;
        const bool downloading = action.getDownloadInfo(download);
        // Read after the record, so that a failed download's record comes
        // after every attempt it rode out.
        const std::vector<datacenter::DownloadRetry> retries = action.downloadRetries();
        const auto showDownload = [&] {
            for (; retriesShown < retries.size(); ++retriesShown) {
                view.retry(retries[retriesShown]);
            }
            view.download(download);
        };
        for (; shown < steps.size(); ++shown) {
            // The download belongs to the step that fetches the package.
            if (downloading && steps[shown] != "getPackage") {
                showDownload();
            }
            view.step(steps[shown]);
        }
        if (downloading) {
            showDownload();
        }
        if (finished) {
            return;
        }
        boost::this_thread::sleep_for(boost::chrono::milliseconds(100));
    }
}

// The step that failed: the last one entered before the closing record.
std::string failedStep(const std::vector<std::string>& steps) {
    for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
        if (*step != "RecordInitFiles") {
            return *step;
        }
    }
    return std::string();
}

// Starts a threaded installation with `start` and shows it until it ends.
// The final line and the exit status give the outcome.
int installThreaded(const std::string& what, const std::function<ApiErrorCode()>& start) {
    gInterrupted = 0;
    std::ostream out(std::cout.rdbuf());
    InstallProgressView view(out, isatty(STDOUT_FILENO) == 1);
    struct sigaction interrupt = {};
    struct sigaction saved = {};
    interrupt.sa_handler = onInterrupt;
    interrupt.sa_flags = SA_RESETHAND;  // a second Ctrl-C ends the process
    sigemptyset(&interrupt.sa_mask);
    sigaction(SIGINT, &interrupt, &saved);
    // A reader that goes away (`| head`) must not kill the installation half way.
    void (*const savedPipe)(int) = std::signal(SIGPIPE, SIG_IGN);
    ApiErrorCode code = API_SUCCESS;
    datacenter::PluginInfo record;
    std::vector<std::string> steps;
    // The pipeline writes its step names to standard output; the view shows them instead.
    quietly([&] {
        code = start();
        const boost::shared_ptr<InstallAction> action = manager()->currentAction();
        if (code != API_SUCCESS || !action) {
            return;
        }
        follow(*action, view);
        record = action->getPluginInfo();
        steps = action->steps();
        code = record.errorCode;
        if (code == API_SUCCESS && record.status != datacenter::ENABLED) {
            code = API_GENERAL_FAILURE;
        }
    });
    sigaction(SIGINT, &saved, nullptr);
    std::signal(SIGPIPE, savedPipe);
    if (code == API_SUCCESS) {
        view.finish("installed " + shown(record.id) + ", code 0");
        return 0;
    }
    const std::string step = failedStep(steps);
    view.finish("install failed" + (step.empty() ? std::string() : " at " + step) + ", code " + std::to_string(code));
    return report(code, what);
}

int installUrl(const Args& args) {
    return installThreaded("install-url " + args[0], [&] { return manager()->installFromUrl(args[0]); });
}

int installServer(const Args& args) {
    return installThreaded("install-server " + args[0], [&] { return manager()->installFromServer(args[0], args[1]); });
}

int recheck(const Args&) {
    for (const std::string& line : FirmwareRecheck::sRun(*manager())) {
        std::cout << shown(line) << std::endl;
    }
    return 0;
}

int capabilities(const Args& args) {
    if (args.size() == 1 && args[0] != "--all") {
        return usage();
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
        {"info", {"info ID [--json]: one plugin's record", 1, 2, info}},
        {"install", {"install FILE [-k]: install a package (-k keeps the file)", 1, 2, install}},
        {"install-url",
         {"install-url URL: download a package (developer or official) and install it, showing the progress", 1, 1,
          installUrl}},
        {"install-server",
         {"install-server ID URL: download plugin ID (official packages only) and install it, showing the progress", 2,
          2, installServer}},
        {"uninstall",
         {"uninstall ID: stop the plugin and remove it, leaving the sandbox skeleton", 1, 1,
          [](const Args& a) { return report(manager()->uninstallPlugin(a[0]), "uninstall " + a[0]); }}},
        {"clean",
         {"clean ID: remove what was added since installation and restart the plugin", 1, 1,
          [](const Args& a) { return report(manager()->cleanPlugin(a[0]), "clean " + a[0]); }}},
        {"enable",
         {"enable ID: start the plugin", 1, 1,
          [](const Args& a) {
              // The operator's choice replaces the firmware check's.
              FirmwareRecheck::sForget(a[0]);
              return report(manager()->changePluginStatus(a[0], datacenter::ENABLED), "enable " + a[0]);
          }}},
        {"disable",
         {"disable ID: stop the plugin", 1, 1,
          [](const Args& a) {
              // The operator's choice replaces the firmware check's.
              FirmwareRecheck::sForget(a[0]);
              return report(manager()->changePluginStatus(a[0], datacenter::DISABLED), "disable " + a[0]);
          }}},
        {"control", {"control ID REQUEST: send one RPC request to the running plugin", 2, 2, control}},
        {"config", {"config get ID KEY | config set ID KEY VALUE: the plugin's configuration data", 3, 4, config}},
        {"metrics",
         {"metrics ID [--json]: processor, memory and disk use of each process of the plugin", 1, 2, metrics}},
        {"progress",
         {"progress \"ID;ID...\" [--json]: install status, progress and error code per id", 1, 2, progress}},
        {"recheck", {"recheck: checks every installed plugin against the firmware now", 0, 0, recheck}},
        {"capabilities",
         {"capabilities [--all]: the capabilities shown to users (--all: every one)", 0, 1, capabilities}},
    };
    return table;
}

}  // namespace

int pluginCenterMain(int argc, char** argv) {
    // The operator sees the tool's own output and its warnings and errors;
    // the informational lines go to the system log only, unless asked for.
    const bool verbose = argc > 1 && (std::string(argv[1]) == "-v" || std::string(argv[1]) == "--verbose");
    datacenter::Logging::sInitQuiet("plugincenter", verbose);
    if (verbose) {
        --argc;
        ++argv;
    }
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
    // Plugins that no longer fit a changed firmware are stopped before
    // anything else is done with them; `recheck` does the same in the open.
    if (std::string(argv[1]) != "recheck") {
        FirmwareRecheck::sRunIfFirmwareChanged(*manager());
    }
    return command.run(args);
}
