// engines.cpp - building the engines of a literal set and scanning the corpus
// with each (see engines.h).
//
// A library failure here is fatal: a benchmark of an engine that did not
// compile or run would only print meaningless numbers.
#include "engines.h"

#include <string>
#include <array>
#include <cstdio>
#include <cstdlib>

// The BNFA size lives in the engine's private record; a build whose tree has
// that header reports it, any other falls back to the memory account.
#include "tier1/vael_sm.h"

#if __has_include("tier1/vael_thin_nfa_internal.h")
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_thin_nfa_prefilter.h"
#define VAEL_BENCH_SEES_BNFA 1
#endif

namespace vael_bench {
namespace {

[[noreturn]] void fail(const char *what) {
    std::fprintf(stderr, "vael-bench: %s\n", what);
    std::exit(EXIT_FAILURE);
}

[[noreturn]] void fail_compile(const char *what, const vael_pm_error &err) {
    std::fprintf(stderr, "vael-bench: %s failed: %s (pattern id %d, type %u)\n", what,
                 err.error_string ? err.error_string : "no message", err.pattern_id, err.error_type);
    std::exit(EXIT_FAILURE);
}

int tally_match(vael_pm_handle *, int32_t id, void *user_arg, const unsigned char *, uint32_t, uint32_t offset,
                vael_vbuf *, int *) {
    static_cast<MatchTally *>(user_arg)->add(id, offset);
    return 0;
}

// Runs scan_buffer(tally, buf, len) over every chunk of the corpus.
template <typename ScanBuffer>
MatchTally scan_corpus(ScanBuffer &&scan_buffer, const std::vector<unsigned char> &data = corpus()) {
    MatchTally tally;
    for (size_t base = 0; base < data.size(); base += kChunkSize) {
        tally.chunk_base = base;
        const size_t len = data.size() - base < kChunkSize ? data.size() - base : kChunkSize;
        scan_buffer(tally, data.data() + base, len);
    }
    return tally;
}

std::array<std::unique_ptr<EngineSet>, std::size(kSetSizes)> built_sets;
std::vector<vael_pm_handle *> kept_pms;

}  // namespace

EngineSet::EngineSet(int size) : literals(literal_set(size)) {
    pmglob_list = make_pmglob_list(literals);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    thin_nfa = compile_thin_nfa(pmglob_list);
    engine_bytes = vael_pmglob_memory_get_alloc_total() - before;
#ifdef VAEL_BENCH_SEES_BNFA
    bnfa_bytes = static_cast<size_t>(thin_nfa->bnfa_size);
    prefilter_bytes = vael_thin_nfa_prefilter_memory(thin_nfa);
#endif
    const intptr_t before_sm = vael_pmglob_memory_get_alloc_total();
    sm = compile_sm(pmglob_list, &sm_refusal);
    sm_bytes = vael_pmglob_memory_get_alloc_total() - before_sm;
    pm_patterns = make_pm_patterns(literals);
    pm = compile_pm(pm_patterns);
    full_ac = std::make_unique<FullAc>(literals);
#ifdef VAEL_HAVE_VECTORSCAN
    vectorscan = std::make_unique<Vectorscan>(literals);
#endif
}

EngineSet::~EngineSet() {
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(pm_patterns);
    vael_thin_nfa_destroy(thin_nfa);
    vael_dfa_destroy(sm);
    vael_pmglob_patterns_destroy(pmglob_list);
}

EngineSet &engine_set(int size) {
    for (size_t i = 0; i < built_sets.size(); ++i) {
        if (kSetSizes[i] != size)
            continue;
        if (!built_sets[i])
            built_sets[i] = std::make_unique<EngineSet>(size);
        return *built_sets[i];
    }
    fail("no such literal set");
}

void release_engine_sets() {
    for (auto &set : built_sets)
        set.reset();
    for (vael_pm_handle *pm : kept_pms)
        vael_pm_destroy(pm);
    kept_pms.clear();
}

vael_pm_handle *keep_until_release(vael_pm_handle *pm) {
    if (pm)
        kept_pms.push_back(pm);
    return pm;
}

bool bnfa_size_known() {
#ifdef VAEL_BENCH_SEES_BNFA
    return true;
#else
    return false;
#endif
}

vael_pmglob_patterns *make_pmglob_list(const std::vector<Literal> &literals) {
    vael_pmglob_patterns *list = vael_pmglob_patterns_create();
    if (!list)
        fail("vael_pmglob_patterns_create failed");
    for (const Literal &literal : literals) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(literal.bytes.data()),
                                                          static_cast<uint32_t>(literal.bytes.size()), literal.id, 0);
        if (!s || vael_pmglob_patterns_add(list, s) != VAEL_OK)
            fail("building the pmglob list failed");
        vael_pmglob_string_destroy(s);
    }
    return list;
}

vael_pm_patterns *make_pm_patterns(const std::vector<Literal> &literals) {
    vael_pm_patterns *patterns = vael_pm_patterns_create();
    if (!patterns)
        fail("vael_pm_patterns_create failed");
    // Binary literals hold NULs and the LSS language's special bytes on
    // purpose: taken byte by byte.
    vael_pm_allow_null_in_pattern = 1;
    for (const Literal &literal : literals) {
        // A text that opens with '{' would be read as metadata; a block in
        // front keeps it a plain string.
        std::string text = literal.bytes.starts_with('{') ? "{literal}:" + literal.bytes : literal.bytes;
        if (vael_pm_patterns_add_simple_pattern(patterns, text.data(), static_cast<uint32_t>(text.size()), literal.id,
                                                VAEL_PM_LITERAL) != VAEL_OK)
            fail("vael_pm_patterns_add_simple_pattern failed");
    }
    return patterns;
}

vael_thin_nfa *compile_thin_nfa(vael_pmglob_patterns *list) {
    vael_pm_error err;
    vael_pm_error_init(&err);
    vael_thin_nfa *nfa = vael_thin_nfa_compile(list, 0, &err);
    if (!nfa)
        fail_compile("vael_thin_nfa_compile", err);
    return nfa;
}

vael_dfa *compile_sm(vael_pmglob_patterns *list, std::string *why) {
    vael_pm_error err;
    vael_pm_error_init(&err);
    vael_dfa *sm = vael_sm_compile(list, 0, &err);
    if (!sm && why)
        *why = err.error_string ? err.error_string : "no message";
    return sm;
}

vael_pm_handle *compile_pm(vael_pm_patterns *patterns) {
    vael_pm_error err;
    vael_pm_error_init(&err);
    vael_pm_handle *pm = vael_pm_compile(patterns, tally_match, 0, &err, "vael-bench");
    if (!pm)
        fail_compile("vael_pm_compile", err);
    return pm;
}

MatchTally scan_pm(vael_pm_handle *pm, uint32_t exec_flags) {
    return scan_corpus([&](MatchTally &tally, const unsigned char *buf, size_t len) {
        if (vael_pm_exec_ex(pm, buf, static_cast<uint32_t>(len), nullptr, nullptr, &tally, exec_flags) != 0)
            fail("vael_pm_exec_ex failed");
    });
}

MatchTally scan_pm_vbuf(vael_pm_handle *pm, uint32_t exec_flags, size_t block_size) {
    return scan_corpus([&](MatchTally &tally, const unsigned char *buf, size_t len) {
        // The chunk arrives as packets: blocks that point into it, no copy,
        // and no present buffer after them.
        vael_vbuf *vbuf = vael_vbuf_create(UINT32_MAX, 0);
        if (!vbuf)
            fail("vael_vbuf_create failed");
        auto *bytes = const_cast<unsigned char *>(buf);
        for (size_t off = 0; off < len; off += block_size) {
            const size_t n = len - off < block_size ? len - off : block_size;
            if (vael_vbuf_add_buffer_ex(vbuf, bytes + off, static_cast<uint32_t>(n), nullptr, nullptr) != 0)
                fail("vael_vbuf_add_buffer_ex failed");
        }
        if (vael_pm_exec_ex(pm, nullptr, 0, vbuf, nullptr, &tally, exec_flags) != 0)
            fail("vael_pm_exec_ex over a vbuf failed");
        vael_vbuf_destroy(vbuf);
    });
}

// Runs one engine's raw exec over the corpus and tallies its match queue.
template <class Exec>
MatchTally scan_queue(const std::vector<unsigned char> &data, const char *what, Exec exec) {
    return scan_corpus([&](MatchTally &tally, const unsigned char *buf, size_t len) {
        lst_list *queue = nullptr;
        if (exec(buf, static_cast<uint32_t>(len), &queue) != 0)
            fail(what);
        if (!queue)
            return;
        uintptr_t value = 0;
        for (lst_cursor c = lst_iterate(queue, nullptr, &value); c; c = lst_iterate(queue, c, &value)) {
            const auto *hit = reinterpret_cast<const vael_pmglob_match_data *>(value);
            tally.add(hit->id, hit->offset);
        }
        lst_destroy(queue);  // frees the match records too
    }, data);
}

MatchTally scan_thin_nfa(vael_thin_nfa *nfa, uint32_t exec_flags, const std::vector<unsigned char> &data) {
    return scan_queue(data, "vael_thin_nfa_exec failed", [&](const unsigned char *buf, uint32_t len, lst_list **q) {
        return vael_thin_nfa_exec(nfa, buf, len, nullptr, 0, q, exec_flags, nullptr);
    });
}

MatchTally scan_sm(vael_dfa *sm, uint32_t exec_flags, const std::vector<unsigned char> &data) {
    return scan_queue(data, "vael_dfa_exec of SM failed", [&](const unsigned char *buf, uint32_t len, lst_list **q) {
        return vael_dfa_exec(sm, buf, len, nullptr, 0, q, exec_flags, nullptr);
    });
}

MatchTally scan_full_ac(const FullAc &ac, const std::vector<unsigned char> &data) {
    return scan_corpus([&](MatchTally &tally, const unsigned char *buf, size_t len) {
        ac.scan(buf, len, [&tally](int32_t id, uint32_t end) { tally.add(id, end); });
    }, data);
}

MatchTally scan_full_ac_first_per_buffer(const FullAc &ac, size_t literal_count) {
    // The scan reports in end order, so the first report of an id in a buffer
    // is its first end offset there.
    std::vector<size_t> seen_in(literal_count + 1, SIZE_MAX);
    return scan_corpus([&](MatchTally &tally, const unsigned char *buf, size_t len) {
        ac.scan(buf, len, [&](int32_t id, uint32_t end) {
            if (seen_in[id] == tally.chunk_base)
                return;
            seen_in[id] = tally.chunk_base;
            tally.add(id, end);
        });
    });
}

#ifdef VAEL_HAVE_VECTORSCAN
MatchTally scan_vectorscan(Vectorscan &vs, const std::vector<unsigned char> &data) {
    return scan_corpus([&](MatchTally &tally, const unsigned char *buf, size_t len) {
        auto on_match = [&tally](int32_t id, uint32_t end) {
            tally.add(id, end);
        };
        vs.scan(buf, len, on_match);
    }, data);
}
#endif

}  // namespace vael_bench
