#include "sign/QpkTool.h"

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "sign/PackageSign.h"
#include "sign/PluginArchive.h"

namespace packagesign {

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char* const kUsage =
    "usage: qpk pack DIR OUT.zip\n"
    "       qpk sign --key KEY --cert CERT [--chain CHAIN] --type 0|1 IN.zip OUT.qpk\n"
    "       qpk verify --ca CA IN.qpk [--payload OUT.zip]\n"
    "       qpk info IN.qpk\n";

struct Arguments {
    std::map<std::string, std::string> options;
    std::vector<std::string> positional;
};

// Splits "--name value" pairs from positional arguments; only `known` option
// names are accepted. False on an unknown or valueless option.
bool parseArguments(int argc, const char* const* argv, const std::set<std::string>& known, Arguments& args) {
    for (int i = 2; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.rfind("--", 0) != 0) {
            args.positional.push_back(word);
            continue;
        }
        const std::string name = word.substr(2);
        if (!known.count(name) || i + 1 >= argc) {
            return false;
        }
        args.options[name] = argv[++i];
    }
    return true;
}

const char* signTypeName(int type) {
    return type == kSignTypeOfficial ? "official" : "developer";
}

int fail(std::ostream& err, const std::string& what, int code) {
    err << "qpk: " << what << ": " << describeResult(code) << " (" << code << ")\n";
    return kExitFailed;
}

int runPack(const Arguments& args, std::ostream& out, std::ostream& err) {
    size_t count = 0;
    const std::string error = packPluginTree(args.positional[0], args.positional[1], count);
    if (!error.empty()) {
        err << "qpk: pack failed: " << error << "\n";
        return kExitFailed;
    }
    out << "packed " << count << " files into " << args.positional[1] << "\n";
    return kExitOk;
}

int runSign(const Arguments& args, std::ostream& out, std::ostream& err) {
    const auto& o = args.options;
    if (!o.count("key") || !o.count("cert") || !o.count("type") || (o.at("type") != "0" && o.at("type") != "1")) {
        err << kUsage;
        return kExitUsage;
    }
    SignRequest request;
    request.payloadPath = args.positional[0];
    request.packagePath = args.positional[1];
    request.keyPath = o.at("key");
    request.certPath = o.at("cert");
    request.chainPath = o.count("chain") ? o.at("chain") : std::string();
    request.signType = o.at("type") == "1" ? kSignTypeOfficial : kSignTypeDeveloper;
    const int code = signPackage(request);
    if (code != kOk) {
        return fail(err, "cannot sign " + request.payloadPath, code);
    }
    out << "signed " << request.packagePath << " (" << signTypeName(request.signType) << ")\n";
    return kExitOk;
}

int runVerify(const Arguments& args, std::ostream& out, std::ostream& err) {
    if (!args.options.count("ca")) {
        err << kUsage;
        return kExitUsage;
    }
    const std::string& package = args.positional[0];
    const std::string& ca = args.options.at("ca");
    const auto payload = args.options.find("payload");
    const int code = payload == args.options.end() ? checkPackage(package, std::string(), ca)
                                                   : verifyPackage(package, payload->second, std::string(), ca);
    if (code != kOk) {
        return fail(err, package + " is not authentic", code);
    }
    PackageHeader header;
    readPackageHeader(package, header);
    out << "verified " << package << ": " << signTypeName(header.signType) << " package signed by "
        << header.signerSubject << "\n";
    return kExitOk;
}

int runInfo(const Arguments& args, std::ostream& out, std::ostream& err) {
    const std::string& package = args.positional[0];
    PackageHeader header;
    const int code = readPackageHeader(package, header);
    if (code != kOk) {
        return fail(err, "cannot read " + package, code);
    }
    ManifestFields manifest;
    const std::string error = readPayloadManifest(package, header.payloadSize, manifest);
    if (!error.empty()) {
        err << "qpk: " << package << ": " << error << "\n";
        return kExitFailed;
    }
    out << "sign type: " << header.signType << " (" << signTypeName(header.signType) << ")\n"
        << "signer: " << header.signerSubject << "\n"
        << "payload size: " << header.payloadSize << "\n"
        << "plugin_id: " << manifest.pluginId << "\n"
        << "version: " << manifest.version << "\n"
        << "(signature not checked; use qpk verify)\n";
    return kExitOk;
}

struct Command {
    std::set<std::string> options;
    size_t positionalCount;
    int (*run)(const Arguments&, std::ostream&, std::ostream&);
};

const std::map<std::string, Command>& commands() {
    static const std::map<std::string, Command> table = {
        {"pack", {{}, 2, runPack}},
        {"sign", {{"key", "cert", "chain", "type"}, 2, runSign}},
        {"verify", {{"ca", "payload"}, 1, runVerify}},
        {"info", {{}, 1, runInfo}},
    };
    return table;
}

}  // namespace

int qpkMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    const auto command = argc >= 2 ? commands().find(argv[1]) : commands().end();
    Arguments args;
    if (command == commands().end() || !parseArguments(argc, argv, command->second.options, args) ||
        args.positional.size() != command->second.positionalCount) {
        err << kUsage;
        return kExitUsage;
    }
    try {
        return command->second.run(args, out, err);
    } catch (const std::exception& e) {
        err << "qpk: " << e.what() << "\n";
        return kExitFailed;
    }
}

}  // namespace packagesign
