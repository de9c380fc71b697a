// A local installation (installplugin -f, no start-up sleep) of a signed
// package against Info-ZIP's unzip alone on the same archive, and against
// checking a detached CMS signature of the archive twice with openssl and
// then unzipping it. The three take turns run by run, each in a fresh root,
// and each program's time is the median of its runs. Also reports the peak
// resident set size of installplugin (ru_maxrss of the child), and that of
// the qpk sign that made each package: both stream the payload. Downloaded
// installations (plugincenter install-url and install-server from a loopback
// HTTP server) report the bytes they write against payload + unpacked files.
// On a bad line, with the download settings at their defaults: the bytes the
// server sends for an 8 MB package whose connection is cut after every MiB,
// and how long after its last byte a server that stops sending ends the
// installation (DC_BENCH_STALL=0 leaves that run of 1.5 minutes out).
//
// Environment: DC_BENCH_INSTALLPLUGIN and DC_BENCH_QPK override the programs
// (the armhf build runs its own installplugin), DC_BENCH_EMULATOR is a
// command prefix for installplugin (qemu-arm ...), DC_BENCH_SCALE=1 adds the
// 30,000-file and 500 MB packages, DC_BENCH_RUNS sets the runs per package.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "Plugin/installAction/InstallAction.h"
#include "support/HttpTestServer.h"

extern char** environ;

namespace fs = boost::filesystem;

namespace {

const char* const kPluginId = "5017400000000000100";

std::string setting(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return value && *value ? value : fallback;
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string word; in >> word;) {
        out.push_back(word);
    }
    return out;
}

struct Run {
    double seconds = 0;
    long peakKiB = 0;
    double writtenBytes = 0;  // what the program passed to write calls ("wchar")
    bool ok = false;
};

// The bytes a process passed to write calls, read from /proc before it is
// reaped: "write_bytes" counts nothing on a RAM file system.
double writtenBytesOf(pid_t pid) {
    std::ifstream io("/proc/" + std::to_string(pid) + "/io");
    std::string key;
    double value = 0;
    while (io >> key >> value) {
        if (key == "wchar:") {
            return value;
        }
    }
    return 0;
}

// Runs `argv` with `root` as DATACENTER_ROOT and its output thrown away.
Run spawnAndWait(const std::vector<std::string>& argv, const std::string& root) {
    std::vector<char*> args;
    for (const auto& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    setenv("DATACENTER_ROOT", root.c_str(), 1);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    Run run;
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) == 0) {
        int status = 0;
        struct rusage usage {};
        siginfo_t info{};
        if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0) {
            run.writtenBytes = writtenBytesOf(pid);
        }
        if (wait4(pid, &status, 0, &usage) == pid) {
            run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            run.peakKiB = usage.ru_maxrss;
        }
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    posix_spawn_file_actions_destroy(&actions);
    return run;
}

void mustRun(const std::vector<std::string>& argv, const std::string& root) {
    if (!spawnAndWait(argv, root).ok) {
        std::cerr << "install_bench: failed: " << argv[0] << " " << (argv.size() > 1 ? argv[1] : "") << "\n";
        std::exit(1);
    }
}

// Deterministic bytes that do not compress, as most of a real plugin's
// payload (binaries, images) hardly does.
void writeNoise(const std::string& path, long size, unsigned long long seed) {
    fs::create_directories(fs::path(path).parent_path());
    std::vector<char> bytes(static_cast<size_t>(size));
    unsigned long long x = seed * 0x9E3779B97F4A7C15ULL + 1;
    for (char& byte : bytes) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        byte = static_cast<char>(x >> 32);
    }
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), size);
}

// Streams, not boost's copy_file: that fails across file systems here (EXDEV).
void copyProgram(const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    std::ifstream in("/proc/self/exe", std::ios::binary);
    std::ofstream(to, std::ios::binary | std::ios::trunc) << in.rdbuf();
}

struct Package {
    std::string qpk, zip, signature;
    std::string officialQpk;   // the same payload signed as an official package
    long signPeakKiB = 0;      // peak RSS of the qpk sign that made it
    double unpackedBytes = 0;  // the files the payload holds
};

std::string readWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

double sizeOf(const std::string& path) {
    return static_cast<double>(fs::file_size(path));
}

class Fixture {
public:
    Fixture()
        : work_(bench::underRoot("/work")),
          template_(bench::underRoot("/template")),
          qpk_(setting("DC_BENCH_QPK", DC_BENCH_QPK)),
          installplugin_(setting("DC_BENCH_INSTALLPLUGIN", DC_BENCH_INSTALLPLUGIN)),
          plugincenter_(setting("DC_BENCH_PLUGINCENTER", DC_BENCH_PLUGINCENTER)),
          emulator_(words(setting("DC_BENCH_EMULATOR", ""))) {
        mustRun({"bash", std::string(DC_SOURCE_DIR) + "/scripts/make-test-pki", work_ + "/pki"}, work_);
        // The root every installation starts from: the CA where the
        // installer looks for it and the router's firmware facts.
        setenv("DATACENTER_ROOT", template_.c_str(), 1);
        const std::string ca = InstallAction::sCaCertPath();
        fs::create_directories(fs::path(ca).parent_path());
        fs::copy_file(work_ + "/pki/ca.pem", ca, fs::copy_options::overwrite_existing);
        bench::writeFile(template_ + "/usr/share/halvard/halvard_version",
                         "config version 'version'\n\toption ROM '2.4.10'\n\toption CHANNEL 'release'\n");
        setenv("DATACENTER_INSTALLPLUGIN_DELAY_MS", "0", 1);
        setenv("PATH", (std::string(DC_SOURCE_DIR) + "/sim/bin:" + setting("PATH", "/usr/bin:/bin")).c_str(), 1);
    }

    // A package of about `megabytes` MB in `files` files, among them a
    // program and a shared library (real ELF files).
    Package make(int files, long megabytes) {
        const std::string name = std::to_string(files) + "-" + std::to_string(megabytes);
        const std::string tree = work_ + "/" + name + ".tree";
        Package package{work_ + "/" + name + ".qpk", work_ + "/" + name + ".zip", work_ + "/" + name + ".sig",
                        work_ + "/" + name + ".official.qpk"};
        if (fs::exists(package.qpk)) {
            std::ifstream(package.zip + ".unpacked") >> package.unpackedBytes;
            return package;
        }
        bench::writeFile(tree + "/manifest", std::string("plugin_id = \"") + kPluginId +
                                                 "\";\nname = \"Bench\";\nversion = \"1.0.0\";\n"
                                                 "developer = \"Bench\";\nsupported_rom = \"netvale_rom\";\n");
        copyProgram(tree + "/bin/app");
        copyProgram(tree + "/lib/libapp.so");
        const long fileSize = megabytes * 1000 * 1000 / (files - 3);
        for (int i = 0; i < files - 3; ++i) {
            writeNoise(tree + "/www/d" + std::to_string(i % 50) + "/f" + std::to_string(i), fileSize,
                       static_cast<unsigned long long>(i + 1));
        }
        for (fs::recursive_directory_iterator it(tree), end; it != end; ++it) {
            package.unpackedBytes += fs::is_regular_file(it->status()) ? sizeOf(it->path().string()) : 0;
        }
        std::ofstream(package.zip + ".unpacked") << std::fixed << package.unpackedBytes;
        mustRun({qpk_, "pack", tree, package.zip}, work_);
        fs::remove_all(tree);
        const std::string pki = work_ + "/pki/";
        const Run sign = spawnAndWait({qpk_, "sign", "--key", pki + "developer.key", "--cert", pki + "developer.pem",
                                       "--type", "0", package.zip, package.qpk},
                                      work_);
        if (!sign.ok) {
            std::cerr << "install_bench: qpk sign failed\n";
            std::exit(1);
        }
        package.signPeakKiB = sign.peakKiB;
        mustRun({qpk_, "sign", "--key", pki + "official.key", "--cert", pki + "official.pem", "--type", "1",
                 package.zip, package.officialQpk},
                work_);
        mustRun({"openssl", "cms", "-sign", "-binary", "-in", package.zip, "-signer", pki + "developer.pem", "-inkey",
                 pki + "developer.key", "-outform", "DER", "-out", package.signature},
                work_);
        return package;
    }

    Run install(const Package& package) {
        const std::string root = freshRoot();
        // The installer takes the package away once installed; it gets a link.
        const std::string qpk = root + "/package.qpk";
        fs::create_hard_link(package.qpk, qpk);
        std::vector<std::string> argv = emulator_;
        argv.insert(argv.end(), {installplugin_, "-f", qpk});
        Run run = spawnAndWait(argv, root);
        // installplugin answers 0 either way; success leaves the plugin's manifest.
        run.ok = run.ok && fs::exists(root + "/userdisk/appdata/app_infos/" + kPluginId + ".manifest");
        fs::remove_all(root);
        return run;
    }

    // plugincenter installing from `url`, with the words `how` ("install-url URL").
    Run installDownloaded(const std::vector<std::string>& how) {
        const std::string root = freshRoot();
        std::vector<std::string> argv = emulator_;
        argv.push_back(plugincenter_);
        argv.insert(argv.end(), how.begin(), how.end());
        Run run = spawnAndWait(argv, root);
        run.ok = run.ok && fs::exists(root + "/userdisk/appdata/app_infos/" + kPluginId + ".manifest");
        fs::remove_all(root);
        return run;
    }

    Run unzip(const Package& package) {
        const std::string root = freshRoot();
        Run run = spawnAndWait({"unzip", "-q", package.zip, "-d", root + "/out"}, root);
        fs::remove_all(root);
        return run;
    }

    // What a shell installer would do: check the signature of the archive
    // twice (the developer's certificate, then the chain to the CA) and unzip.
    Run opensslAndUnzip(const Package& package) {
        const std::string root = freshRoot();
        const std::string ca = work_ + "/pki/ca.pem";
        const auto start = std::chrono::steady_clock::now();
        Run run{};
        run.ok = true;
        for (int i = 0; i < 2; ++i) {
            run.ok &= spawnAndWait({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", package.signature,
                                    "-content", package.zip, "-CAfile", ca, "-purpose", "any", "-out", "/dev/null"},
                                   root)
                          .ok;
        }
        run.ok &= spawnAndWait({"unzip", "-q", package.zip, "-d", root + "/out"}, root).ok;
        run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        fs::remove_all(root);
        return run;
    }

private:
    // The previous run's tree removed and everything written so far on the
    // disk, so that no run pays for the write-back of the one before.
    std::string freshRoot() {
        const std::string root = bench::underRoot("/run");
        fs::remove_all(root);
        fs::create_directories(root);
        fs::copy(template_, root, fs::copy_options::recursive);
        ::sync();
        return root;
    }

    std::string work_, template_, qpk_, installplugin_, plugincenter_;
    std::vector<std::string> emulator_;
};

Fixture* gFixture = nullptr;

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Arguments: file count, package size in MB. One iteration installs once,
// unzips once and runs the openssl baseline once, in an order that rotates.
void InstallVsUnzip(benchmark::State& state) {
    const Package package = gFixture->make(static_cast<int>(state.range(0)), state.range(1));
    std::vector<double> install, unzip, baseline, peak, written;
    int turn = 0;
    for (auto _ : state) {
        for (int step = 0; step < 3; ++step) {
            switch ((turn + step) % 3) {
                case 0: {
                    const Run run = gFixture->install(package);
                    if (!run.ok) {
                        state.SkipWithError("installplugin did not install the package");
                        return;
                    }
                    install.push_back(run.seconds);
                    peak.push_back(static_cast<double>(run.peakKiB));
                    written.push_back(run.writtenBytes);
                    break;
                }
                case 1:
                    unzip.push_back(gFixture->unzip(package).seconds);
                    break;
                default:
                    baseline.push_back(gFixture->opensslAndUnzip(package).seconds);
            }
        }
        ++turn;
    }
    state.counters["install_ms"] = median(install) * 1e3;
    state.counters["unzip_ms"] = median(unzip) * 1e3;
    state.counters["openssl_unzip_ms"] = median(baseline) * 1e3;
    state.counters["peak_kib"] = *std::max_element(peak.begin(), peak.end());
    state.counters["sign_peak_kib"] = static_cast<double>(package.signPeakKiB);
    // Bytes the installer wrote against what it had to write at least: the
    // payload once and the unpacked files once.
    state.counters["written_kib"] = median(written) / 1024;
    state.counters["content_kib"] = (sizeOf(package.zip) + package.unpackedBytes) / 1024;
}

// Arguments: file count, package size in MB. One iteration installs once
// from a URL and once from the maker's server, both served from memory.
void InstallDownloaded(benchmark::State& state) {
    const Package package = gFixture->make(static_cast<int>(state.range(0)), state.range(1));
    testsupport::HttpTestServer server;
    server.route("/developer.qpk", testsupport::HttpResponse::text(200, readWhole(package.qpk)));
    server.route("/official.qpk", testsupport::HttpResponse::text(200, readWhole(package.officialQpk)));
    std::vector<double> url, fromServer;
    for (auto _ : state) {
        const Run byUrl = gFixture->installDownloaded({"install-url", server.url("/developer.qpk")});
        const Run byServer = gFixture->installDownloaded({"install-server", kPluginId, server.url("/official.qpk")});
        if (!byUrl.ok || !byServer.ok) {
            state.SkipWithError("plugincenter did not install the downloaded package");
            return;
        }
        url.push_back(byUrl.writtenBytes);
        fromServer.push_back(byServer.writtenBytes);
    }
    state.counters["url_written_kib"] = median(url) / 1024;
    state.counters["server_written_kib"] = median(fromServer) / 1024;
    state.counters["content_kib"] = (sizeOf(package.zip) + package.unpackedBytes) / 1024;
}

// Arguments: file count, package size in MB. One installation from a server
// that cuts the connection after every MiB and honours ranges, and, unless
// DC_BENCH_STALL=0, one from a server that stops sending after 256 KiB with
// the connection left open.
void DownloadFaults(benchmark::State& state) {
    const Package package = gFixture->make(static_cast<int>(state.range(0)), state.range(1));
    for (const char* name : {"CONNECT_MS", "STALL_MS", "QUIET_MS", "TOTAL_MS", "BACKOFF_MS", "RETRIES"}) {
        unsetenv((std::string("DATACENTER_DOWNLOAD_") + name).c_str());
    }
    const bool stall = setting("DC_BENCH_STALL", "1") != "0";
    testsupport::HttpTestServer server;
    testsupport::ServedFile cut;
    cut.body = readWhole(package.qpk);
    cut.etag = "\"bench\"";
    cut.cutEvery = 1024 * 1024;
    server.serveFile("/cut.qpk", cut);
    testsupport::ServedFile silent = cut;
    silent.cutEvery = std::string::npos;
    silent.stallAt = 256 * 1024;
    silent.stalls = -1;
    server.serveFile("/silent.qpk", silent);
    for (auto _ : state) {
        const size_t before = server.bytesSent();
        if (!gFixture->installDownloaded({"install-url", server.url("/cut.qpk")}).ok) {
            state.SkipWithError("plugincenter did not install through the cut connections");
            return;
        }
        state.counters["cut_sent_kib"] = static_cast<double>(server.bytesSent() - before) / 1024;
        state.counters["package_kib"] = static_cast<double>(cut.body.size()) / 1024;
        if (stall) {
            const auto start = std::chrono::steady_clock::now();
            const Run run = gFixture->installDownloaded({"install-url", server.url("/silent.qpk")});
            const auto end = start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                         std::chrono::duration<double>(run.seconds));
            if (run.ok) {
                state.SkipWithError("a package that never arrived was installed");
                return;
            }
            state.counters["stall_end_ms"] =
                std::chrono::duration<double, std::milli>(end - server.lastBodyByte()).count();
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    bench::makeRoot(argv[0]);
    Fixture fixture;
    gFixture = &fixture;
    const int runs = std::atoi(setting("DC_BENCH_RUNS", "5").c_str());
    std::vector<std::pair<int, int>> packages = {{3000, 5}, {3000, 50}};
    if (setting("DC_BENCH_SCALE", "0") == "1") {
        packages.insert(packages.end(), {{30000, 50}, {3000, 500}});
    }
    for (const auto& package : packages) {
        benchmark::RegisterBenchmark("InstallVsUnzip", InstallVsUnzip)
            ->Args({package.first, package.second})
            ->Iterations(runs)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
    benchmark::RegisterBenchmark("InstallDownloaded", InstallDownloaded)
        ->Args({3000, 50})
        ->Iterations(runs)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("DownloadFaults", DownloadFaults)
        ->Args({10, 8})
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    bench::removeRoot();
    return 0;
}
