// regex_bench.cpp - 100 regular expressions of the form literal plus classes
// and repeats, over the corpus in 64 KiB chunks: end to end through the PM,
// beside PCRE running the 100 one after the other, and Vectorscan block mode
// with the same set. Before any timing, which patterns match in each chunk
// is compared between the three; a difference ends the benchmark with an
// error.
#include <benchmark/benchmark.h>
#include <pcre.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "corpus.h"
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

size_t chunk_count() { return (corpus().size() + kChunkSize - 1) / kChunkSize; }
size_t chunk_len(size_t i) { return std::min(kChunkSize, corpus().size() - i * kChunkSize); }
const unsigned char *chunk(size_t i) { return corpus().data() + i * kChunkSize; }

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

struct SerialPcre {
    std::vector<pcre *> res;
    std::vector<pcre_extra *> extras;
    SerialPcre() {
        for (const auto &re : regex_set()) {
            const char *msg;
            int at;
            pcre *p = pcre_compile(re.c_str(), PCRE_DOTALL | PCRE_UNGREEDY | PCRE_NO_AUTO_CAPTURE, &msg, &at, nullptr);
            res.push_back(p);
            extras.push_back(p ? pcre_study(p, 0, &msg) : nullptr);
        }
    }
    template <class OnMatch>
    void scan(const unsigned char *buf, size_t len, OnMatch &&on_match) const {
        for (size_t i = 0; i < res.size(); i++) {
            int ov[3];
            if (res[i] && pcre_exec(res[i], extras[i], (const char *)buf, (int)len, 0, 0, ov, 3) >= 0)
                on_match((int32_t)i + 1);
        }
    }
};

const SerialPcre &serial_pcre() {
    static SerialPcre p;
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
            vael_pm_exec_ex(regex_pm().pm, chunk(c), (uint32_t)chunk_len(c), nullptr, nullptr, &pm_ids, 0);
            serial_pcre().scan(chunk(c), chunk_len(c), [&](int32_t id) { pcre_ids.insert(id); });
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
    for (auto _ : state) {
        std::set<int32_t> ids;
        for (size_t c = 0; c < chunk_count(); c++)
            vael_pm_exec_ex(pm, chunk(c), (uint32_t)chunk_len(c), nullptr, nullptr, &ids, 0);
        found = ids.size();
    }
    report(state, found);
}

void BM_RegexPcreOneAfterAnother(benchmark::State &state) {
    if (auto why = check_engines(); !why.empty())
        return state.SkipWithError(why.c_str());
    size_t found = 0;
    for (auto _ : state) {
        std::set<int32_t> ids;
        for (size_t c = 0; c < chunk_count(); c++)
            serial_pcre().scan(chunk(c), chunk_len(c), [&](int32_t id) { ids.insert(id); });
        found = ids.size();
    }
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

}  // namespace
}  // namespace vael_bench
