#include "BenchRoot.h"

#include <glog/logging.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <fstream>

#include "system/Environment.h"

namespace bench {

namespace {
std::string gRoot;
}

void makeRoot(const char* programName) {
    // DC_BENCH_DIR chooses the file system the benchmark works on.
    const char* dir = std::getenv("DC_BENCH_DIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/dc-bench-XXXXXX";
    if (!mkdtemp(&pattern[0])) {
        perror("mkdtemp");
        exit(1);
    }
    gRoot = pattern;
    setenv("DATACENTER_ROOT", gRoot.c_str(), 1);
    boost::filesystem::create_directories(gRoot + "/log");
    FLAGS_log_dir = gRoot + "/log";
    // As every program of the core does when it starts its logging.
    datacenter::Environment::sPinTimeZone();
    google::InitGoogleLogging(programName);
}

std::string underRoot(const std::string& absolutePath) {
    return gRoot + absolutePath;
}

void writeFile(const std::string& path, const std::string& content) {
    boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string manifestText(const std::string& id) {
    return "plugin_id = \"" + id + "\";\nname = \"Plugin " + id +
           "\";\nsmall_icon = \"icons/s.png\";\nlarge_icon = \"icons/l.png\";\n"
           "developer = \"Example Developer\";\ndev_id = \"900001\";\nversion = \"1.4.2\";\n"
           "introduction = \"A plugin that does one useful thing for the people at home.\";\n"
           "control_url = \"http://127.0.0.1:8080/\";\nsupported_rom_version = \"2.4.0\";\n"
           "sdk_token = \"0123456789abcdef0123456789abcdef\";\nstatus = \"5\";\nuse_status = \"0\";\n"
           "binary_name = \"app\";\nsdk_level = \"2\";\ncapability_list = [\"network\", \"storage\"];\n"
           "model_list = [\"R1\", \"R2\", \"R3\"];\nmarket_icon = \"icons/m.png\";\n"
           "installed_icon = \"icons/i.png\";\ndetail_image = \"images/d.png\";\n"
           "authorize_id = \"auth-1\";\ninstall_time = \"1700000000\";\nsupported_rom = \"netvale_rom\";\n";
}

void removeRoot() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(gRoot, ignored);
}

}  // namespace bench
