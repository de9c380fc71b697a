#include "support/TestSupport.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = boost::filesystem;

namespace testsupport {

std::string underRoot(const std::string& absolutePath) {
    return root() + absolutePath;
}

std::string makeScratchDir(const std::string& name) {
    static int counter = 0;
    const std::string path = root() + "/scratch/" + name + "-" + std::to_string(++counter);
    fs::create_directories(path);
    return path;
}

void layOutRouter(const std::string& dir, const std::string& caFile) {
    const CommandResult result = runCommand("sh " + sourceDir() + "/sim/make-root '" + dir + "'" +
                                            (caFile.empty() ? "" : " --ca '" + caFile + "'") + " 2>&1");
    if (result.exitStatus != 0) {
        throw std::runtime_error("sim/make-root failed: " + result.output);
    }
}

void writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string readFd(int fd) {
    std::string out;
    char buffer[65536];
    for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, static_cast<off_t>(out.size()))) > 0;) {
        out.append(buffer, static_cast<size_t>(n));
    }
    return out;
}

std::string noise(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        seed = seed * 1103515245u + 12345u;
        byte = static_cast<char>(seed >> 24);
    }
    return bytes;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string treeText(const std::string& dir, bool withContent) {
    std::vector<std::string> lines;
    boost::system::error_code error;
    for (fs::recursive_directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        const std::string path = it->path().string().substr(dir.size() + (dir.back() == '/' ? 0 : 1));
        if (fs::is_symlink(it->symlink_status())) {
            lines.push_back(path + " -> " + fs::read_symlink(it->path()).string());
        } else if (fs::is_directory(it->symlink_status())) {
            lines.push_back(path + "/");
        } else if (!withContent) {
            lines.push_back(path);
        } else {
            std::string content = readFile(it->path().string());
            for (size_t at = content.find('\n'); at != std::string::npos; at = content.find('\n', at + 2)) {
                content.replace(at, 1, "\\n");
            }
            lines.push_back(path + ": " + content);
        }
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

std::vector<std::string> readLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

CommandResult runCommand(const std::string& command) {
    CommandResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        return result;
    }
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        result.output.append(buffer.data(), n);
    }
    const int status = pclose(pipe);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

CommandResult runApp(const std::string& name, const std::string& args, bool withErrors) {
    // The time limit only turns a hang into a failure; no run comes near it.
    return runCommand("DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + root() + " timeout 120 " + buildDir() +
                      "/apps/" + name + " " + args + (withErrors ? " 2>&1" : " 2>/dev/null"));
}

std::string installOutcome(const std::string& output) {
    const std::string::size_type last = output.rfind("installplugin");
    return last == std::string::npos ? output : output.substr(last);
}

bool exists(const std::string& path) {
    return fs::exists(fs::symlink_status(path));
}

bool waitUntil(const std::function<bool()>& condition) {
    // The bound only turns a hang into a failure; no wait comes near it.
    for (int i = 0; i < 6000 && !condition(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

int inChildProcess(const std::function<int()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(work());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int closedLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

std::string sourceDir() {
    return DC_SOURCE_DIR;
}
std::string buildDir() {
    return DC_BUILD_DIR;
}

}  // namespace testsupport
