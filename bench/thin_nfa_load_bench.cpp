// thin_nfa_load_bench.cpp - what a Thin NFA image costs to take in, beside
// what the compile it replaces costs (BM_ThinNfaCompile).
//
// BM_ThinNfaLoad times vael_thin_nfa_deserialize of the set's image: the
// copy, the validation of the BNFA and the rebuild of the candidate filter.
// The two parts that grow with the BNFA are timed alone as well, so that a
// regression shows where it lies. Counters: image_bytes.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "engines.h"

#if __has_include("tier1/vael_thin_nfa_internal.h")
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_thin_nfa_prefilter.h"
#define VAEL_BENCH_SEES_THIN_NFA 1
#endif

namespace vael_bench {
namespace {

std::vector<unsigned char> image_of(vael_thin_nfa *nfa) {
    std::vector<unsigned char> image(vael_thin_get_serialize_size(nfa));
    unsigned char *at = image.data();
    uint32_t space = static_cast<uint32_t>(image.size());
    if (image.empty() || vael_thin_nfa_serialize(nfa, &at, &space) != 0) {
        std::fprintf(stderr, "vael-bench: serializing the Thin NFA failed\n");
        std::exit(EXIT_FAILURE);
    }
    return image;
}

void BM_ThinNfaLoad(benchmark::State &state) {
    EngineSet &set = engine_set(static_cast<int>(state.range(0)));
    const std::vector<unsigned char> image = image_of(set.thin_nfa);
    for (auto _ : state) {
        const unsigned char *at = image.data();
        uint32_t space = static_cast<uint32_t>(image.size());
        vael_thin_nfa *nfa = vael_thin_nfa_deserialize(&at, &space, nullptr, nullptr);
        if (!nfa) {
            state.SkipWithError("the image did not load");
            return;
        }
        state.PauseTiming();
        vael_thin_nfa_destroy(nfa);
        state.ResumeTiming();
    }
    state.counters["image_bytes"] = static_cast<double>(image.size());
}

#ifdef VAEL_BENCH_SEES_THIN_NFA
void BM_ThinNfaValidate(benchmark::State &state) {
    EngineSet &set = engine_set(static_cast<int>(state.range(0)));
    for (auto _ : state)
        if (vael_thin_nfa_validate(set.thin_nfa) != 1) {
            state.SkipWithError("the BNFA did not validate");
            return;
        }
}

void BM_ThinNfaPrefilterBuild(benchmark::State &state) {
    EngineSet &set = engine_set(static_cast<int>(state.range(0)));
    for (auto _ : state)
        if (vael_thin_nfa_prefilter_build(set.thin_nfa) != 0) {
            state.SkipWithError("the prefilter did not build");
            return;
        }
}
#endif

void set_sizes(benchmark::internal::Benchmark *b) {
    for (int size : kSetSizes)
        b->Arg(size);
}

BENCHMARK(BM_ThinNfaLoad)->Apply(set_sizes)->Unit(benchmark::kMillisecond);
#ifdef VAEL_BENCH_SEES_THIN_NFA
BENCHMARK(BM_ThinNfaValidate)->Apply(set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinNfaPrefilterBuild)->Apply(set_sizes)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
}  // namespace vael_bench
