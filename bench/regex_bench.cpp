// regex_bench.cpp - 100 regular expressions of the form literal plus classes
// and repeats, over the corpus in 64 KiB chunks: end to end through the PM,
// beside PCRE running the 100 one after the other, and Vectorscan block mode
// with the same set. Before any timing, which patterns match in each chunk
// is compared between the three; a difference ends the benchmark with an
// error.
//
// The second tier's two rows side by side: the patterns the REM language
// accepts, compiled once with PCRE as second tier and once with the REM
// (VAEL_PM_USE_REM): compile time and memory of each PM, and its scan. And
// the DFA's inner loop alone, one table load per byte over the whole corpus,
// beside memchr.
#include <benchmark/benchmark.h>
#include <pcre.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "corpus.h"
#include "serial_pcre.h"
#include "set_scan.h"
#include "rem/vael_rem_tier.h"
#include "vael/vael_pm.h"

#ifdef VAEL_HAVE_VECTORSCAN
#include <hs/hs.h>
#endif

namespace vael_bench {
namespace {

constexpr int kRegexCount = 100;

// The literal with every byte that is not a letter or digit written as \xHH,
// then one of four tails of classes and repeats.
std::vector<std::string> regex_set() {
    static const char *kTails[] = {"[^\\x00]*[a-z]", "[0-9a-zA-Z/=_.]*[ \\r\\n]", ".{0,8}[a-z]", "[\\x20-\\x7e]+;"};
    std::vector<std::string> out;
    const auto &lits = literal_set(kRegexCount);
    for (size_t i = 0; i < lits.size(); i++) {
        std::string re;
        for (unsigned char c : lits[i].bytes) {
            if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
                re += (char)c;
            } else {
                char hex[8];
                std::snprintf(hex, sizeof hex, "\\x%02x", c);
                re += hex;
            }
        }
        re += kTails[i % 4];
        out.push_back(re);
    }
    return out;
}

using ChunkIds = std::vector<std::set<int32_t>>;

// ---- the PM

int pm_found(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t, vael_vbuf *, int *) {
    if (arg)
        static_cast<std::set<int32_t> *>(arg)->insert(id);
    return 0;
}

struct RegexPm {
    vael_pm_handle *pm = nullptr;
    RegexPm() {
        vael_pm_patterns *list = vael_pm_patterns_create();
        const auto set = regex_set();
        for (int i = 0; i < kRegexCount; i++)
            vael_pm_patterns_add_pattern(list, set[i].data(), (uint32_t)set[i].size(), i + 1, 0);
        vael_pm_error err;
        pm = vael_pm_compile(list, pm_found, 0, &err, "regex bench");
        if (!pm)
            std::fprintf(stderr, "regex bench: PM compile failed at pattern %d: %s\n", err.pattern_id,
                         err.error_string ? err.error_string : "");
        vael_pm_patterns_destroy(list);
    }
};

RegexPm &regex_pm() {
    static RegexPm pm;
    return pm;
}

// ---- PCRE one pattern after the other

const vael_bench::SerialPcre &serial_pcre() {
    static const vael_bench::SerialPcre p(regex_set(), PCRE_DOTALL | PCRE_UNGREEDY);
    return p;
}

#ifdef VAEL_HAVE_VECTORSCAN
struct RegexVectorscan {
    hs_database_t *db = nullptr;
    hs_scratch_t *scratch = nullptr;
    RegexVectorscan() {
        const auto set = regex_set();
        std::vector<const char *> exprs;
        std::vector<unsigned> flags, ids;
        for (int i = 0; i < kRegexCount; i++) {
            exprs.push_back(set[i].c_str());
            flags.push_back(HS_FLAG_DOTALL | HS_FLAG_SINGLEMATCH | HS_FLAG_ALLOWEMPTY);
            ids.push_back((unsigned)i + 1);
        }
        hs_compile_error_t *err = nullptr;
        if (hs_compile_multi(exprs.data(), flags.data(), ids.data(), kRegexCount, HS_MODE_BLOCK, nullptr, &db, &err) !=
            HS_SUCCESS) {
            std::fprintf(stderr, "regex bench: Vectorscan compile failed: %s\n", err ? err->message : "");
            hs_free_compile_error(err);
            db = nullptr;
            return;
        }
        hs_alloc_scratch(db, &scratch);
    }
    template <class OnMatch>
    void scan(const unsigned char *buf, size_t len, OnMatch &on_match) const {
        auto handler = [](unsigned id, unsigned long long, unsigned long long, unsigned, void *ctx) -> int {
            (*static_cast<OnMatch *>(ctx))((int32_t)id);
            return 0;
        };
        hs_scan(db, (const char *)buf, (unsigned)len, 0, scratch, handler, &on_match);
    }
};

const RegexVectorscan &regex_vectorscan() {
    static RegexVectorscan v;
    return v;
}
#endif

// Which patterns match in each chunk, by each engine; a string naming the
// first difference, or empty.
std::string check_engines() {
    static std::string verdict = [] {
        if (!regex_pm().pm)
            return std::string("PM compile failed");
        for (size_t c = 0; c < chunk_count(); c++) {
            std::set<int32_t> pm_ids, pcre_ids;
            pm_scan_chunk(regex_pm().pm, c, &pm_ids);
            serial_scan_chunk(serial_pcre(), c, &pcre_ids);
            if (pm_ids != pcre_ids)
                return "PM and PCRE differ in chunk " + std::to_string(c);
#ifdef VAEL_HAVE_VECTORSCAN
            std::set<int32_t> vs_ids;
            auto add = [&](int32_t id) { vs_ids.insert(id); };
            if (regex_vectorscan().db)
                regex_vectorscan().scan(chunk(c), chunk_len(c), add);
            if (regex_vectorscan().db && vs_ids != pcre_ids)
                return "Vectorscan and PCRE differ in chunk " + std::to_string(c);
#endif
        }
        return std::string();
    }();
    return verdict;
}

void report(benchmark::State &state, size_t found) {
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)corpus().size());
    state.counters["matched"] = (double)found;
}

void BM_RegexPm(benchmark::State &state) {
    if (auto why = check_engines(); !why.empty())
        return state.SkipWithError(why.c_str());
    vael_pm_handle *pm = regex_pm().pm;
    size_t found = 0;
    for (auto _ : state)
        found = pm_ids_over_corpus(pm).size();
    report(state, found);
}

void BM_RegexPcreOneAfterAnother(benchmark::State &state) {
    if (auto why = check_engines(); !why.empty())
        return state.SkipWithError(why.c_str());
    size_t found = 0;
    for (auto _ : state)
        found = serial_ids_over_corpus(serial_pcre()).size();
    report(state, found);
}

#ifdef VAEL_HAVE_VECTORSCAN
void BM_RegexVectorscan(benchmark::State &state) {
    if (auto why = check_engines(); !why.empty())
        return state.SkipWithError(why.c_str());
    if (!regex_vectorscan().db)
        return state.SkipWithError("Vectorscan compile failed");
    size_t found = 0;
    for (auto _ : state) {
        std::set<int32_t> ids;
        auto add = [&](int32_t id) { ids.insert(id); };
        for (size_t c = 0; c < chunk_count(); c++)
            regex_vectorscan().scan(chunk(c), chunk_len(c), add);
        found = ids.size();
    }
    report(state, found);
}
BENCHMARK(BM_RegexVectorscan)->Unit(benchmark::kMillisecond);
#endif

BENCHMARK(BM_RegexPm)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RegexPcreOneAfterAnother)->Unit(benchmark::kMillisecond);

// ---- the second tier: PCRE row against REM row

// The REM's own compile of one pattern, as the PM would ask for it.
vael_dfa *rem_compile(const std::string &re) {
    vael_pmglob_string *s =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(re.data()), (uint32_t)re.size(), -1, 0);
    vael_pm_error err;
    vael_pm_error_init(&err);
    auto *dfa = s ? static_cast<vael_dfa *>(vael_rem_compile(s, 0x1, 0, &err)) : nullptr;
    vael_pmglob_string_destroy(s);
    return dfa;
}

// The ids (1-based, as in regex_set) of the patterns the REM accepts.
const std::vector<int> &rem_ids() {
    static const std::vector<int> ids = [] {
        std::vector<int> out;
        const auto set = regex_set();
        for (int i = 0; i < kRegexCount; i++) {
            if (vael_dfa *dfa = rem_compile(set[i])) {
                out.push_back(i + 1);
                vael_dfa_destroy(dfa);
            }
        }
        return out;
    }();
    return ids;
}

// A PM of the REM-accepted set with the given second tier, with what its
// compile cost.
struct TierPm {
    vael_pm_handle *pm = nullptr;
    double compile_ms = 0;
    intptr_t memory = 0;
    explicit TierPm(uint32_t pattern_flags) {
        vael_pm_patterns *list = vael_pm_patterns_create();
        const auto set = regex_set();
        for (int id : rem_ids())
            vael_pm_patterns_add_pattern(list, set[id - 1].data(), (uint32_t)set[id - 1].size(), id, pattern_flags);
        vael_pm_error err;
        const intptr_t before = vael_pmglob_memory_get_alloc_total();
        const auto t0 = std::chrono::steady_clock::now();
        pm = vael_pm_compile(list, pm_found, 0, &err, "regex tier bench");
        compile_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
        vael_pm_patterns_destroy(list);
        memory = vael_pmglob_memory_get_alloc_total() - before;
        if (!pm)
            std::fprintf(stderr, "regex bench: tier PM compile failed at pattern %d: %s\n", err.pattern_id,
                         err.error_string ? err.error_string : "");
    }
};

TierPm &tier_pm(bool rem) {
    static TierPm pcre_pm(0);
    static TierPm rem_pm(VAEL_PM_USE_REM);
    return rem ? rem_pm : pcre_pm;
}

// Both rows must find the same patterns in every chunk.
std::string check_tiers() {
    static std::string verdict = [] {
        if (!tier_pm(false).pm || !tier_pm(true).pm)
            return std::string("tier PM compile failed");
        for (size_t c = 0; c < chunk_count(); c++) {
            std::set<int32_t> with_pcre, with_rem;
            pm_scan_chunk(tier_pm(false).pm, c, &with_pcre);
            pm_scan_chunk(tier_pm(true).pm, c, &with_rem);
            if (with_pcre != with_rem)
                return "PCRE and REM second tiers differ in chunk " + std::to_string(c);
        }
        return std::string();
    }();
    return verdict;
}

// Arg 0: PCRE as second tier; 1: REM.
void BM_RegexTier2(benchmark::State &state) {
    const bool rem = state.range(0) == 1;
    state.SetLabel(rem ? "REM" : "PCRE");
    if (auto why = check_tiers(); !why.empty())
        return state.SkipWithError(why.c_str());
    vael_pm_handle *pm = tier_pm(rem).pm;
    size_t found = 0;
    for (auto _ : state)
        found = pm_ids_over_corpus(pm).size();
    report(state, found);
    state.counters["patterns"] = (double)rem_ids().size();
    state.counters["compile_ms"] = tier_pm(rem).compile_ms;
    state.counters["memory_KiB"] = (double)tier_pm(rem).memory / 1024.0;
}
BENCHMARK(BM_RegexTier2)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The DFA alone over the corpus, from the start of each chunk: a pattern of
// the set that never matches, so the loop does nothing but its one load per
// byte and the final test.
void BM_RemDfaLoop(benchmark::State &state) {
    static vael_dfa *dfa = rem_compile("Zq\\xff[a-z]+\\xfe");
    if (!dfa)
        return state.SkipWithError("REM compile failed");
    size_t hits = 0;
    for (auto _ : state) {
        for (size_t c = 0; c < chunk_count(); c++) {
            lst_list *queue = nullptr;
            vael_dfa_exec(dfa, chunk(c), (uint32_t)chunk_len(c), nullptr, 0, &queue, 0, nullptr);
            hits += (size_t)vael_queue_size(queue);
            vael_queue_cleanup(queue);
        }
    }
    if (hits)
        return state.SkipWithError("the loop's pattern matched");
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)corpus().size());
    state.counters["dfa_states"] = vael_dfa_get_num_of_states(dfa);
}
BENCHMARK(BM_RemDfaLoop)->Unit(benchmark::kMillisecond);

// memchr over the same chunks for a byte the corpus holds rarely: the
// floor of any byte-at-a-time scan.
void BM_Memchr(benchmark::State &state) {
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (size_t c = 0; c < chunk_count(); c++) {
            const unsigned char *p = chunk(c), *end = p + chunk_len(c);
            while ((p = static_cast<const unsigned char *>(std::memchr(p, 0xfe, (size_t)(end - p)))) != nullptr) {
                found++;
                p++;
            }
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)corpus().size());
    state.counters["found"] = (double)found;
}
BENCHMARK(BM_Memchr)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vael_bench
