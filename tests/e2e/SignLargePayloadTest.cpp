// A package of several hundred megabytes is signed and verified with the same
// peak memory as a tiny one: payloads are streamed, never held whole.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "unit/sign/SignFixture.h"

extern char** environ;

namespace {

constexpr long kLargePayloadBytes = 400L * 1024 * 1024;
constexpr long kAllowedGrowthKiB = 16 * 1024;

// Runs qpk with `args` as a child process; returns its peak resident set size
// in KiB, or -1 when it did not exit with status 0.
long peakKiBOfQpk(const std::vector<std::string>& args) {
    const std::string program = testsupport::buildDir() + "/apps/qpk";
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    struct rusage usage {};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return -1;
    }
    return usage.ru_maxrss;
}

void writePatternFile(const std::string& path, long size) {
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>((i * 2654435761u) >> 24);
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    for (long written = 0; written < size; written += static_cast<long>(block.size())) {
        block[0] = static_cast<char>(written >> 20);  // no two blocks alike
        out.write(block.data(), static_cast<std::streamsize>(std::min<long>(block.size(), size - written)));
    }
    ASSERT_TRUE(out.good());
}

long fileSize(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

class SignLargePayload : public signtest::SignFixture {
protected:
    // Peak memory of signing and of verifying a payload of `size` bytes.
    std::pair<long, long> peaks(const std::string& name, long size) {
        const std::string payload = work(name + ".zip");
        const std::string package = work(name + ".qpk");
        const std::string out = work(name + "-out.zip");
        writePatternFile(payload, size);
        const long signPeak = peakKiBOfQpk(
            {"sign", "--key", pki("official.key"), "--cert", pki("official.pem"), "--type", "1", payload, package});
        const long verifyPeak = peakKiBOfQpk({"verify", "--ca", ca(), package, "--payload", out});
        EXPECT_EQ(size, fileSize(out));
        for (const auto& path : {payload, package, out}) {
            ::unlink(path.c_str());
        }
        return {signPeak, verifyPeak};
    }
};

}  // namespace

TEST_F(SignLargePayload, PeakMemoryDoesNotGrowWithThePayload) {
    const auto small = peaks("small", 4096);
    const auto large = peaks("large", kLargePayloadBytes);
    ASSERT_GT(small.first, 0);
    ASSERT_GT(small.second, 0);
    ASSERT_GT(large.first, 0) << "signing the large payload failed";
    ASSERT_GT(large.second, 0) << "verifying the large payload failed";
    EXPECT_LT(large.first - small.first, kAllowedGrowthKiB) << "sign peak " << large.first << " KiB";
    EXPECT_LT(large.second - small.second, kAllowedGrowthKiB) << "verify peak " << large.second << " KiB";
}
