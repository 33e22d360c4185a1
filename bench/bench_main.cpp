// bench_main.cpp - vael-bench: the Thin NFA, the DFA string matcher (SM) and
// the PM against a full-table Aho-Corasick and Vectorscan, on literal sets
// of 100, 1,000 and 10,000.
//
// Before anything is timed, every engine's matches on every set are compared
// (check.h); a disagreement ends the run with a non-zero exit. Each benchmark
// takes the set size as its argument. Scans cover the whole 16 MiB corpus in
// 64 KiB buffers per iteration and report bytes per second and the matches
// of one pass; compiles report time and the size of what they built.
//
// The Thin NFA runs with its candidate prefilter as configured (the default
// is on) and, in the *NoPrefilter benchmarks, with it off, so one run shows
// both. The *FirstBytes benchmarks scan a text of only the literals' first
// bytes, the *Prefixes ones a text of their first four bytes back to back
// (a candidate at least every fourth byte): worst cases for the prefilter,
// each checked first for agreement of the engines.
//
// Besides Google Benchmark's own flags, --summary prints one table of all
// figures after the run (summary.h).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>

#include "check.h"
#include "corpus.h"
#include "engines.h"
#include "full_ac.h"
#include "summary.h"
#include "vectorscan_peer.h"

namespace vael_bench {
namespace {

void all_set_sizes(benchmark::internal::Benchmark *b) {
    for (int size : kSetSizes)
        b->Arg(size);
}

int set_size(const benchmark::State &state) {
    return static_cast<int>(state.range(0));
}

// Shared by every scan benchmark: one pass over `data` per iteration.
template <typename Scan>
void run_scan(benchmark::State &state, Scan &&scan, const std::vector<unsigned char> &data = corpus()) {
    uint64_t matches = 0;
    for (auto _ : state) {
        const MatchTally tally = scan();
        matches = tally.count;
        benchmark::DoNotOptimize(matches);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(data.size()));
    state.counters["matches"] = static_cast<double>(matches);
}

void BM_ThinNfaCompile(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    for (auto _ : state) {
        vael_thin_nfa *nfa = compile_thin_nfa(set.pmglob_list);
        state.PauseTiming();
        vael_thin_nfa_destroy(nfa);
        state.ResumeTiming();
    }
    if (bnfa_size_known()) {
        state.counters["bnfa_bytes"] = static_cast<double>(set.bnfa_bytes);
        state.counters["prefilter_bytes"] = static_cast<double>(set.prefilter_bytes);
    }
    state.counters["engine_bytes"] = static_cast<double>(set.engine_bytes);
}

// The DFA string matcher: every transition of every state written out.
// A set it refuses (more states than the DFA store holds) is skipped with
// the library's reason.
void BM_SmCompile(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    if (!set.sm) {
        state.SkipWithError(("SM refuses the set: " + set.sm_refusal).c_str());
        return;
    }
    for (auto _ : state) {
        vael_dfa *sm = compile_sm(set.pmglob_list, nullptr);
        state.PauseTiming();
        vael_dfa_destroy(sm);
        state.ResumeTiming();
    }
    state.counters["memory_bytes"] = static_cast<double>(set.sm_bytes);
    state.counters["states"] = static_cast<double>(vael_dfa_get_num_of_states(set.sm));
}

// SM alone, called with the flags the PM frame passes a first tier.
void BM_SmExec(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    if (!set.sm) {
        state.SkipWithError(("SM refuses the set: " + set.sm_refusal).c_str());
        return;
    }
    run_scan(state, [&] { return scan_sm(set.sm, VAEL_PM_EXEC_FROM_PM); });
}

// Every match, as the full-table AC reports them.
void BM_SmExecAllMatches(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    if (!set.sm) {
        state.SkipWithError(("SM refuses the set: " + set.sm_refusal).c_str());
        return;
    }
    run_scan(state, [&] { return scan_sm(set.sm, VAEL_PM_EXEC_FROM_PM | VAEL_PM_EXEC_ALL_MATCHES); });
}

void BM_PmCompile(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    for (auto _ : state) {
        vael_pm_handle *pm = compile_pm(set.pm_patterns);
        state.PauseTiming();
        vael_pm_destroy(pm);
        state.ResumeTiming();
    }
}

// The realistic case: matches are rare and the caller wants each literal once.
void BM_PmExec(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    run_scan(state, [&] { return scan_pm(set.pm, 0); });
}

// The same scan as BM_PmExec, each chunk handed over as a stream of
// packet-sized blocks in a virtual buffer.
void BM_PmExecVbuf1500(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    run_scan(state, [&] { return scan_pm_vbuf(set.pm, 0, kPacketSize); });
}

void BM_PmExecAllMatches(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    run_scan(state, [&] { return scan_pm(set.pm, VAEL_PM_EXEC_ALL_MATCHES); });
}

// The engine alone, called with the flags the PM frame passes it.
void BM_ThinNfaExec(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    run_scan(state, [&] { return scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_FROM_PM); });
}

// Sets the Thin NFA's prefilter tunable for a scope.
class PrefilterSetting {
public:
    explicit PrefilterSetting(int value) : saved_(vael_thin_nfa_prefilter) { vael_thin_nfa_prefilter = value; }
    ~PrefilterSetting() { vael_thin_nfa_prefilter = saved_; }

private:
    int saved_;
};

void BM_ThinNfaExecNoPrefilter(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    PrefilterSetting off(0);
    run_scan(state, [&] { return scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_FROM_PM); });
}

// A worst-case text, once checked: the Thin NFA with and without the
// prefilter must report what the full-table automaton reports.
const std::vector<unsigned char> &checked_text(benchmark::State &state, EngineSet &set,
                                               const std::vector<unsigned char> &(*text)(int)) {
    const std::vector<unsigned char> &data = text(set_size(state));
    static std::map<const void *, bool> checked_texts;
    bool *checked = &checked_texts[&data];
    if (!*checked) {
        const MatchTally want = scan_full_ac(*set.full_ac, data);
        const MatchTally with = scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_ALL_MATCHES, data);
        PrefilterSetting off(0);
        const MatchTally without = scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_ALL_MATCHES, data);
        if (!(want == with) || !(want == without)) {
            std::fprintf(stderr, "vael-bench: engines disagree on a worst-case text of set %d\n", set_size(state));
            std::exit(EXIT_FAILURE);
        }
        *checked = true;
    }
    return data;
}

const std::vector<unsigned char> &checked_first_bytes(benchmark::State &state, EngineSet &set) {
    return checked_text(state, set, first_bytes_corpus);
}

void BM_ThinNfaExecPrefixes(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    const std::vector<unsigned char> &data = checked_text(state, set, prefixes_corpus);
    run_scan(state, [&] { return scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_FROM_PM, data); }, data);
}

void BM_ThinNfaExecPrefixesNoPrefilter(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    const std::vector<unsigned char> &data = checked_text(state, set, prefixes_corpus);
    PrefilterSetting off(0);
    run_scan(state, [&] { return scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_FROM_PM, data); }, data);
}

void BM_ThinNfaExecFirstBytes(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    const std::vector<unsigned char> &data = checked_first_bytes(state, set);
    run_scan(state, [&] { return scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_FROM_PM, data); }, data);
}

void BM_ThinNfaExecFirstBytesNoPrefilter(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    const std::vector<unsigned char> &data = checked_first_bytes(state, set);
    PrefilterSetting off(0);
    run_scan(state, [&] { return scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_FROM_PM, data); }, data);
}

void BM_FullAcScanFirstBytes(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    const std::vector<unsigned char> &data = checked_first_bytes(state, set);
    run_scan(state, [&] { return scan_full_ac(*set.full_ac, data); }, data);
}

void BM_FullAcBuild(benchmark::State &state) {
    const std::vector<Literal> &literals = literal_set(set_size(state));
    size_t memory = 0;
    size_t states = 0;
    for (auto _ : state) {
        auto ac = std::make_unique<FullAc>(literals);
        memory = ac->memory_bytes();
        states = ac->states();
        state.PauseTiming();  // freeing a large table is not part of the build
        ac.reset();
        state.ResumeTiming();
    }
    state.counters["memory_bytes"] = static_cast<double>(memory);
    state.counters["states"] = static_cast<double>(states);
}

void BM_FullAcScan(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    run_scan(state, [&] { return scan_full_ac(*set.full_ac); });
}

#ifdef VAEL_HAVE_VECTORSCAN
void BM_VectorscanCompile(benchmark::State &state) {
    const std::vector<Literal> &literals = literal_set(set_size(state));
    size_t database = 0;
    for (auto _ : state) {
        auto vs = std::make_unique<Vectorscan>(literals);
        database = vs->database_bytes();
        state.PauseTiming();
        vs.reset();
        state.ResumeTiming();
    }
    state.counters["database_bytes"] = static_cast<double>(database);
}

void BM_VectorscanScan(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    run_scan(state, [&] { return scan_vectorscan(*set.vectorscan); });
}

void BM_VectorscanScanFirstBytes(benchmark::State &state) {
    EngineSet &set = engine_set(set_size(state));
    const std::vector<unsigned char> &data = checked_first_bytes(state, set);
    run_scan(state, [&] { return scan_vectorscan(*set.vectorscan, data); }, data);
}
#endif

BENCHMARK(BM_ThinNfaCompile)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PmCompile)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmCompile)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmExec)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmExecAllMatches)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PmExec)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PmExecVbuf1500)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PmExecAllMatches)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinNfaExec)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinNfaExecNoPrefilter)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinNfaExecFirstBytes)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinNfaExecFirstBytesNoPrefilter)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullAcScanFirstBytes)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinNfaExecPrefixes)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThinNfaExecPrefixesNoPrefilter)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullAcBuild)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FullAcScan)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
#ifdef VAEL_HAVE_VECTORSCAN
BENCHMARK(BM_VectorscanCompile)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorscanScan)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorscanScanFirstBytes)->Apply(all_set_sizes)->Unit(benchmark::kMillisecond);
#endif

// Removes our own flag from argv; Google Benchmark rejects flags it does not know.
bool take_flag(int &argc, char **argv, const char *flag) {
    bool found = false;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], flag) == 0)
            found = true;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    argv[argc] = nullptr;
    return found;
}

}  // namespace
}  // namespace vael_bench

int main(int argc, char **argv) {
    using namespace vael_bench;
    const bool summary = take_flag(argc, argv, "--summary");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    if (vael_apps_init(nullptr) != 0) {
        std::fprintf(stderr, "vael-bench: vael_apps_init failed\n");
        return EXIT_FAILURE;
    }

    check_all_sets();

    if (summary) {
        SummaryReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        reporter.print_table(std::cout);
    } else {
        benchmark::RunSpecifiedBenchmarks();
    }

    release_engine_sets();
    vael_apps_fini();
    benchmark::Shutdown();
    return EXIT_SUCCESS;
}
