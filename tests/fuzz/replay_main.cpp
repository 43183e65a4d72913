// Stands in for libFuzzer where a target is built without it: runs every input file of the folders and files
// named on the command line once.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace fs = std::filesystem;

namespace {

bool replay(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s: cannot be read\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // Before it is run: the last line names the input that ends the program.
    std::printf("%s: %zu bytes\n", path.c_str(), bytes.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return true;
}

std::vector<fs::path> inputsOf(const fs::path &path) {
    if (!fs::is_directory(path)) return {path};
    std::vector<fs::path> inputs;
    for (const auto &entry : fs::directory_iterator(path))
        if (entry.is_regular_file()) inputs.push_back(entry.path());
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

}  // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    size_t run = 0;
    for (int i = 1; i < argc; i++)
        for (const fs::path &input : inputsOf(argv[i])) {
            if (!replay(input)) return 1;
            run++;
        }
    if (run) return 0;
    std::fprintf(stderr, "no inputs\n");
    return 1;
}
