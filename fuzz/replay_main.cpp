// replay_main.cpp - runs the fuzz targets without libFuzzer: `vael_fuzz_replay
// TARGET PATH...` feeds every file named, and every file in every directory
// named, once through the target's entry point. This is how the normal test
// suite replays the checked-in corpus of each target with the project's own
// compiler; all targets share this one program, so the suite links once.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <cstring>

using vael_fuzz_entry = int (*)(const uint8_t *data, size_t size);

#define VAEL_FUZZ_TARGET(name) extern "C" int vael_fuzz_entry_##name(const uint8_t *data, size_t size);
#include "fuzz_targets.inc"
#undef VAEL_FUZZ_TARGET

namespace {

struct Target {
    const char *name;
    vael_fuzz_entry entry;
};

constexpr Target kTargets[] = {
#define VAEL_FUZZ_TARGET(name) {#name, vael_fuzz_entry_##name},
#include "fuzz_targets.inc"
#undef VAEL_FUZZ_TARGET
};

vael_fuzz_entry entry = nullptr;

int replay(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return 1;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    entry(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    for (const Target &t : kTargets)
        if (argc > 1 && std::strcmp(argv[1], t.name) == 0)
            entry = t.entry;
    if (!entry) {
        std::fprintf(stderr, "usage: vael_fuzz_replay TARGET PATH...\ntargets:");
        for (const Target &t : kTargets)
            std::fprintf(stderr, " %s", t.name);
        std::fprintf(stderr, "\n");
        return 2;
    }
    int failures = 0, inputs = 0;
    for (int i = 2; i < argc; i++) {
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
