// replay_main.cpp - runs a fuzz target without libFuzzer: every file named on
// the command line, and every file in every directory named, goes once
// through LLVMFuzzerTestOneInput. This is how the normal test suite replays
// the checked-in corpus of each target with the project's own compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

int replay(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return 1;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    int failures = 0, inputs = 0;
    for (int i = 1; i < argc; i++) {
        std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            std::vector<std::filesystem::path> files;
            for (const auto &entry : std::filesystem::directory_iterator(arg))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            for (const auto &f : files) {
                failures += replay(f);
                inputs++;
            }
        } else {
            failures += replay(arg);
            inputs++;
        }
    }
    if (inputs == 0) {
        std::fprintf(stderr, "replay: no input given\n");
        return 1;
    }
    std::printf("replay: %d inputs\n", inputs);
    return failures ? 1 : 0;
}
