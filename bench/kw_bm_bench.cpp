// kw_bm_bench.cpp - the `data` keyword's Boyer-Moore search beside glibc's
// memmem, for needles of 4, 16 and 64 bytes taken from the corpus, over the
// corpus in 64 KiB chunks. Each pass finds every place of the needle in
// every chunk, restarting one byte behind each find, as a rule that keeps
// resuming its `data` keyword would. Before any timing the two searches'
// counts are compared; a difference ends the benchmark with an error.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "corpus.h"
#include "keywords/vael_bm.h"

namespace vael_bench {
namespace {

// A needle of `len` bytes from the middle of the corpus, so that it occurs.
std::string needle_of(size_t len) {
    const size_t at = corpus().size() / 2 + 4099 * len;
    return std::string(reinterpret_cast<const char *>(corpus().data() + at), len);
}

struct BmNeedle {
    std::string bytes;
    uint16_t *skip = nullptr;
    uint16_t *shift = nullptr;
    uint32_t max_len_skip = 0;
    explicit BmNeedle(size_t len) : bytes(needle_of(len)) {
        const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
        skip = vael_bm_create_skiptable(p, (uint32_t)bytes.size(), 0);
        shift = vael_bm_create_shifttable(p, (uint32_t)bytes.size(), &max_len_skip);
    }
    ~BmNeedle() { vael_bm_destroy(skip, shift, (uint32_t)bytes.size()); }
    BmNeedle(const BmNeedle &) = delete;
    BmNeedle &operator=(const BmNeedle &) = delete;
};

uint64_t count_bm(const BmNeedle &n) {
    const auto *p = reinterpret_cast<const unsigned char *>(n.bytes.data());
    const uint32_t m = (uint32_t)n.bytes.size();
    uint64_t count = 0;
    for (size_t c = 0; c < chunk_count(); c++) {
        uint32_t start = 0;
        for (;;) {
            int found = 0;
            const uint32_t at =
                vael_bm_search(chunk(c), (uint32_t)chunk_len(c), p, m, n.skip, n.shift, start, &found);
            if (!found)
                break;
            count++;
            start = at + 1;
        }
    }
    return count;
}

uint64_t count_memmem(const std::string &needle) {
    uint64_t count = 0;
    for (size_t c = 0; c < chunk_count(); c++) {
        const unsigned char *hay = chunk(c);
        const size_t len = chunk_len(c);
        size_t start = 0;
        while (start < len) {
            const void *hit = memmem(hay + start, len - start, needle.data(), needle.size());
            if (!hit)
                break;
            count++;
            start = static_cast<size_t>(static_cast<const unsigned char *>(hit) - hay) + 1;
        }
    }
    return count;
}

template <class Scan>
void run(benchmark::State &state, Scan &&scan) {
    uint64_t matches = 0;
    for (auto _ : state) {
        matches = scan();
        benchmark::DoNotOptimize(matches);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(corpus().size()));
    state.counters["matches"] = static_cast<double>(matches);
}

void BM_KwBmSearch(benchmark::State &state) {
    BmNeedle needle(static_cast<size_t>(state.range(0)));
    if (!needle.skip || !needle.shift) {
        state.SkipWithError("the Boyer-Moore tables could not be built");
        return;
    }
    const uint64_t bm = count_bm(needle);
    const uint64_t want = count_memmem(needle.bytes);
    if (bm != want) {
        state.SkipWithError(("Boyer-Moore found " + std::to_string(bm) + ", memmem " + std::to_string(want)).c_str());
        return;
    }
    run(state, [&] { return count_bm(needle); });
}

void BM_KwMemmem(benchmark::State &state) {
    const std::string needle = needle_of(static_cast<size_t>(state.range(0)));
    run(state, [&] { return count_memmem(needle); });
}

}  // namespace

BENCHMARK(BM_KwBmSearch)->Arg(4)->Arg(16)->Arg(64)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KwMemmem)->Arg(4)->Arg(16)->Arg(64)->Unit(benchmark::kMillisecond);

}  // namespace vael_bench
