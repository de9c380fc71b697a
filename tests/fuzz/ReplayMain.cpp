// Runs a fuzz target without libFuzzer: every file named on the command line,
// and every file below every directory named there, is fed once to
// LLVMFuzzerTestOneInput. This is how the committed corpora are replayed as
// regression tests by compilers that have no libFuzzer.
#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fs = boost::filesystem;

namespace {

void collect(const fs::path& path, std::vector<fs::path>& inputs) {
    if (fs::is_directory(path)) {
        for (fs::recursive_directory_iterator it(path), end; it != end; ++it) {
            if (fs::is_regular_file(it->path())) {
                inputs.push_back(it->path());
            }
        }
    } else if (fs::is_regular_file(path)) {
        inputs.push_back(path);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        collect(argv[i], inputs);
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path& input : inputs) {
        std::ifstream in(input.string(), std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        fprintf(stderr, "replay %s (%zu bytes)\n", input.string().c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
