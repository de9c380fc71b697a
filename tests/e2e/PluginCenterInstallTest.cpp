// plugincenter's downloading installs against a loopback HTTP server, as an
// operator or a script sees them: the step and download lines, the final line
// and exit status, Ctrl-C during the download, and the JSON documents.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <regex>
#include <sstream>

#include "support/Golden.h"
#include "support/HttpTestServer.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::HttpResponse;
using testsupport::HttpTestServer;
using testsupport::PackageFactory;
using testsupport::PackageSpec;

using testsupport::noise;

namespace {

const std::string kId = "5017400000000000100";
const std::string kOfficialId = "5017400000000000101";

std::string plugincenter(const std::string& args) {
    return "DATACENTER_ROOT=" + testsupport::root() + " " + testsupport::buildDir() + "/apps/plugincenter " + args;
}

testsupport::CommandResult run(const std::string& args) {
    return testsupport::runCommand(plugincenter(args) + " 2>/dev/null");
}

// The lines of one run as a script sees them, with its exit status. The
// download's percentage lines depend on timing and are left out; rates vary.
std::string transcript(const std::string& title, const std::string& args) {
    const testsupport::CommandResult result = run(args);
    std::istringstream lines(result.output);
    std::string text = "$ " + title + "\n";
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(std::string::npos, line.find('\r')) << line;
        if (!std::regex_search(line, std::regex("^download [0-9]+%: "))) {
            text += line + "\n";
        }
    }
    return text + "exit " + std::to_string(result.exitStatus) + "\n";
}

json_object* parseJson(const std::string& text) {
    json_object* document = json_tokener_parse(text.c_str());
    EXPECT_NE(nullptr, document) << text;
    return document;
}

std::string field(json_object* object, const char* key) {
    json_object* value = nullptr;
    return json_object_object_get_ex(object, key, &value) ? json_object_get_string(value) : "<missing>";
}

}  // namespace

TEST(PluginCenterInstall, UrlAndServerInstallsShowTheirStepsAndEndWithTheResultCode) {
    PackageFactory factory;
    PackageSpec developer;
    developer.files["big.bin"] = noise(256 * 1024);
    PackageSpec official;
    official.id = kOfficialId;
    official.signType = 1;
    official.signer = "official";
    HttpTestServer server;
    server.route("/hello.qpk",
                 HttpResponse::slow(testsupport::readFile(factory.build(developer, "dev")), 32 * 1024, 20));
    server.route("/official.qpk", HttpResponse::text(200, testsupport::readFile(factory.build(official, "official"))));
    server.route("/missing.qpk", HttpResponse::text(404, "no such file"));
    const std::string unreachable = "http://127.0.0.1:" + std::to_string(testsupport::closedLoopbackPort()) + "/x.qpk";

    std::string text = transcript("install-url hello", "install-url " + server.url("/hello.qpk"));
    // The same id again replaces the installed copy.
    text += transcript("install-url hello again", "install-url " + server.url("/hello.qpk"));
    text += transcript("install-server official", "install-server " + kOfficialId + " " + server.url("/official.qpk"));
    text += transcript("install-server installed id", "install-server " + kOfficialId + " " + server.url("/x"));
    text += transcript("install-server developer package",
                       "install-server 5017400000000000102 " + server.url("/hello.qpk"));
    text += transcript("install-server unsafe id", "install-server '../x' " + server.url("/official.qpk"));
    text += transcript("install-url 404", "install-url " + server.url("/missing.qpk"));
    text += transcript("install-url unreachable", "install-url " + unreachable);
    text += transcript("install-url not a url", "install-url 'not a url'");
    EXPECT_GOLDEN("plugincenter/install-downloads", text,
                  testsupport::Placeholders()
                      .add(std::to_string(server.port()), "<PORT>")
                      .addPattern("[0-9.]+ [KMGT]?i?B/s", "<RATE>")
                      // A package's size varies by a few bytes with its signature.
                      .addPattern("complete: [0-9.]+ [KM]iB", "complete: <SIZE>"));
    const testsupport::CommandResult refused = testsupport::runCommand(plugincenter("install-server '../x' u 2>&1"));
    EXPECT_NE(std::string::npos, refused.output.find("plugincenter: install-server ../x failed, code 2504"));

    // The JSON documents of the installed plugins.
    json_object* list = parseJson(run("list --json").output);
    ASSERT_TRUE(json_object_is_type(list, json_type_array));
    ASSERT_EQ(2u, json_object_array_length(list));
    EXPECT_EQ(kId, field(json_object_array_get_idx(list, 0), "id"));
    EXPECT_EQ(kOfficialId, field(json_object_array_get_idx(list, 1), "id"));
    EXPECT_EQ("5", field(json_object_array_get_idx(list, 1), "status"));
    json_object_put(list);
    json_object* info = parseJson(run("info " + kId + " --json").output);
    EXPECT_EQ("Hello", field(info, "name"));
    EXPECT_EQ("1.0.0", field(info, "version"));
    EXPECT_EQ("5", field(info, "status"));
    EXPECT_EQ("0", field(info, "errorCode"));
    json_object_put(info);
    json_object* progress = parseJson(run("progress '" + kId + ";5017400000000000199' --json").output);
    ASSERT_EQ(2u, json_object_array_length(progress));
    EXPECT_EQ("5017400000000000199", field(json_object_array_get_idx(progress, 1), "id"));
    EXPECT_EQ("0", field(json_object_array_get_idx(progress, 1), "status"));
    json_object_put(progress);
    for (const char* bad : {"list --yaml", "info 1 --yaml", "progress 1 -j", "install-url", "install-server 1"}) {
        EXPECT_EQ(2, run(bad).exitStatus) << bad;
    }
    EXPECT_EQ(1, run("info 5017400000000000199 --json").exitStatus);
}

TEST(PluginCenterInstall, CtrlCStopsTheDownloadAndNothingIsInstalled) {
    PackageFactory factory;
    PackageSpec spec;
    spec.files["big.bin"] = noise(1024 * 1024);
    HttpTestServer server;
    // About five seconds for the whole body: time enough to interrupt it.
    server.route("/big.qpk", HttpResponse::slow(testsupport::readFile(factory.build(spec, "big")), 16 * 1024, 80));
    const std::string output = testsupport::underRoot("/install-output");
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/sh", "sh", "-c",
              ("exec env " + plugincenter("install-url " + server.url("/big.qpk")) + " >" + output + " 2>/dev/null")
                  .c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(child, 0);
    // Interrupted once the transfer shows progress.
    testsupport::waitUntil(
        [&] { return std::regex_search(testsupport::readFile(output), std::regex("download [1-9][0-9]*%")); });
    kill(child, SIGINT);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status)) << testsupport::readFile(output);
    EXPECT_EQ(1, WEXITSTATUS(status));
    const std::string text = testsupport::readFile(output);
    EXPECT_NE(std::string::npos, text.find("interrupted: stopping the download")) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("\ndownload stopped at [0-9.]+ [KM]iB of [0-9.]+ MiB, code 2007\n")))
        << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("\ninstall failed at getPackage, code [0-9]+\n$"))) << text;
    EXPECT_EQ("", run("list").output);
}
