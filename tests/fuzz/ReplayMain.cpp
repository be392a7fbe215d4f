// Runs a fuzz target's inputs without libFuzzer: every file named on the command line, or every
// file in a folder named there, once, in name order. Builds without clang use it to replay the
// committed corpora (seeds and the reproducers of past findings) as ordinary tests.

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {
std::vector<std::string> InputsOf(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        std::fprintf(stderr, "replay: %s does not exist\n", path.c_str());
        return {};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {path};
    }
    std::vector<std::string> files;
    if (DIR* folder = opendir(path.c_str())) {
        while (dirent* entry = readdir(folder)) {
            if (entry->d_name[0] != '.') {
                files.push_back(path + "/" + entry->d_name);
            }
        }
        closedir(folder);
    }
    std::sort(files.begin(), files.end());
    return files;
}
}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::size_t replayed = 0;
    for (int index = 1; index < argc; ++index) {
        const std::vector<std::string> inputs = InputsOf(argv[index]);
        if (inputs.empty()) {
            std::fprintf(stderr, "replay: no input in %s\n", argv[index]);
            return 1;
        }
        for (const std::string& input : inputs) {
            std::ifstream file(input, std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                          std::istreambuf_iterator<char>());
            std::printf("replay: %s (%zu bytes)\n", input.c_str(), bytes.size());
            std::fflush(stdout);
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++replayed;
        }
    }
    std::printf("replay: %zu inputs, no failure\n", replayed);
    return 0;
}
