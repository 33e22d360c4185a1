// wm_bench.cpp - the word matcher against the Thin NFA on 1,000 words over
// the traffic corpus, in one run.
//
// The words are the first 500 distinct lower-case words of 5 to 12 letters
// that the corpus holds, so many of them hit, and 500 made-up words of the
// same lengths, which mostly never do. The word matcher takes them as simple
// phrases (whole words only); the Thin NFA takes the same bytes as plain
// strings and reports every occurrence, also inside longer words, so it
// reports more. Both scan the corpus in kChunkSize buffers, one exec call per
// buffer. Before timing, every word matcher hit is checked to be a Thin NFA
// hit too. Counters: matches of one pass.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "corpus.h"
#include "engines.h"
#include "tier1/vael_wm.h"

namespace vael_bench {
namespace {

constexpr int kWords = 1000;

std::vector<Literal> make_words() {
    const auto &text = corpus();
    std::vector<Literal> words;
    std::set<std::string> seen;
    size_t i = 0;
    while (i < text.size() && words.size() < kWords / 2) {
        size_t j = i;
        while (j < text.size() && text[j] >= 'a' && text[j] <= 'z')
            j++;
        const bool word_start = i == 0 || !((text[i - 1] | 0x20) >= 'a' && (text[i - 1] | 0x20) <= 'z');
        if (j - i >= 5 && j - i <= 12 && word_start) {
            std::string w(text.begin() + (long)i, text.begin() + (long)j);
            if (seen.insert(w).second)
                words.push_back({w, (int32_t)words.size() + 1});
        }
        i = j + 1;
    }
    Prng rng(0x5eed0fa11);
    while (words.size() < kWords) {
        std::string w;
        for (uint32_t n = 5 + rng.below(8); n > 0; n--)
            w += (char)('a' + rng.below(26));
        if (seen.insert(w).second)
            words.push_back({w, (int32_t)words.size() + 1});
    }
    return words;
}

struct WordEngines {
    std::vector<Literal> words = make_words();
    vael_wm_handle *wm = nullptr;
    vael_thin_nfa *thin_nfa = nullptr;

    WordEngines() {
        vael_pmglob_patterns *list = make_pmglob_list(words);
        vael_pm_error err;
        vael_pm_error_init(&err);
        wm = static_cast<vael_wm_handle *>(vael_wm_compile(list, 0, &err));
        if (!wm) {
            std::fprintf(stderr, "vael-bench: word matcher compile failed: %s\n",
                         err.error_string ? err.error_string : "(no text)");
            std::exit(1);
        }
        thin_nfa = compile_thin_nfa(list);
        vael_pmglob_patterns_destroy(list);
    }
};

WordEngines &word_engines() {
    static WordEngines *engines = new WordEngines;
    return *engines;
}

int count_hit(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *, int32_t id) {
    static_cast<MatchTally *>(ctx->user_arg)->add(id, offset);
    return 0;
}

MatchTally scan_wm(vael_wm_handle *wm) {
    const auto &data = corpus();
    MatchTally tally;
    vael_pm_exec_cb_ctx ctx{count_hit, &tally, nullptr, 1, -1, nullptr, 0, nullptr, 0};
    for (size_t at = 0; at < data.size(); at += kChunkSize) {
        const size_t len = std::min(kChunkSize, data.size() - at);
        tally.chunk_base = at;
        if (vael_wm_exec(wm, data.data() + at, (uint32_t)len, nullptr, 0, nullptr, 0, nullptr, &ctx) != 0) {
            std::fprintf(stderr, "vael-bench: vael_wm_exec failed\n");
            std::exit(1);
        }
    }
    return tally;
}

// Every whole-word hit is also a hit of the same string anywhere.
bool wm_hits_are_thin_nfa_hits(WordEngines &e) {
    const auto &data = corpus();
    struct Collect {
        std::set<std::pair<int32_t, uint64_t>> hits;
        uint64_t base = 0;
    } wm_hits;
    vael_pm_exec_cb_ctx ctx{[](vael_pm_exec_cb_ctx *c, uint32_t offset, uint32_t *, int32_t id) {
                                auto *col = static_cast<Collect *>(c->user_arg);
                                col->hits.insert({id, col->base + offset});
                                return 0;
                            },
                            &wm_hits, nullptr, 1, -1, nullptr, 0, nullptr, 0};
    std::set<std::pair<int32_t, uint64_t>> nfa_hits;
    for (size_t at = 0; at < data.size(); at += kChunkSize) {
        const size_t len = std::min(kChunkSize, data.size() - at);
        wm_hits.base = at;
        vael_wm_exec(e.wm, data.data() + at, (uint32_t)len, nullptr, 0, nullptr, 0, nullptr, &ctx);
        lst_list *queue = nullptr;
        vael_thin_nfa_exec(e.thin_nfa, data.data() + at, (uint32_t)len, nullptr, 0, &queue, VAEL_PM_EXEC_ALL_MATCHES,
                           nullptr);
        uintptr_t value = 0;
        for (lst_cursor c = lst_iterate(queue, nullptr, &value); c; c = lst_iterate(queue, c, &value)) {
            const auto *hit = reinterpret_cast<const vael_pmglob_match_data *>(value);
            nfa_hits.insert({hit->id, at + hit->offset});
        }
        lst_destroy(queue);
    }
    return !wm_hits.hits.empty() &&
           std::includes(nfa_hits.begin(), nfa_hits.end(), wm_hits.hits.begin(), wm_hits.hits.end());
}

void scan_counters(benchmark::State &state, const MatchTally &tally) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(corpus().size()));
    state.counters["matches"] = static_cast<double>(tally.count);
}

void BM_Words1000WordMatcher(benchmark::State &state) {
    WordEngines &e = word_engines();
    static const bool agree = wm_hits_are_thin_nfa_hits(e);
    if (!agree) {
        state.SkipWithError("a word matcher hit is no Thin NFA hit");
        return;
    }
    MatchTally tally;
    for (auto _ : state) {
        tally = scan_wm(e.wm);
        benchmark::DoNotOptimize(tally.count);
    }
    scan_counters(state, tally);
}

void BM_Words1000ThinNfa(benchmark::State &state) {
    WordEngines &e = word_engines();
    MatchTally tally;
    for (auto _ : state) {
        tally = scan_thin_nfa(e.thin_nfa, VAEL_PM_EXEC_ALL_MATCHES);
        benchmark::DoNotOptimize(tally.count);
    }
    scan_counters(state, tally);
}

BENCHMARK(BM_Words1000WordMatcher)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Words1000ThinNfa)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vael_bench
