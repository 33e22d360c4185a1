/*
 * engines.h - every engine the benchmark runs, built once per literal set,
 * and one corpus scan per engine.
 *
 * An EngineSet holds, for one set: the library's Thin NFA compiled directly
 * from a pmglob list, the library's PM compiled from the same literals, the
 * full-table Aho-Corasick peer and, when the build has it, the Vectorscan
 * peer. Each scan function runs one engine over the whole corpus, one exec
 * call per kChunkSize buffer, and tallies what it reports; the timed
 * benchmarks and the correctness check share these functions.
 */
#ifndef VAEL_BENCH_ENGINES_H
#define VAEL_BENCH_ENGINES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vael/vael_apps.h"
#include "vael/vael_dfa.h"

#include "corpus.h"
#include "full_ac.h"
#include "match_tally.h"
#include "vectorscan_peer.h"

namespace vael_bench {

struct EngineSet {
    explicit EngineSet(int size);
    ~EngineSet();
    EngineSet(const EngineSet &) = delete;
    EngineSet &operator=(const EngineSet &) = delete;

    const std::vector<Literal> &literals;
    vael_pmglob_patterns *pmglob_list = nullptr;  // input of vael_thin_nfa_compile
    vael_thin_nfa *thin_nfa = nullptr;
    size_t bnfa_bytes = 0;      // the BNFA alone; 0 when the build cannot see it
    size_t prefilter_bytes = 0; // the candidate filter beside it; 0 when the build cannot see it
    intptr_t engine_bytes = 0;  // growth of the PM memory account over the compile
    vael_pm_patterns *pm_patterns = nullptr;
    vael_pm_handle *pm = nullptr;
    // The DFA string matcher from the same list; null when it refuses the
    // set (more states than the DFA store holds), with the reason.
    vael_dfa *sm = nullptr;
    intptr_t sm_bytes = 0;      // growth of the PM memory account over its compile
    std::string sm_refusal;
    std::unique_ptr<FullAc> full_ac;
#ifdef VAEL_HAVE_VECTORSCAN
    std::unique_ptr<Vectorscan> vectorscan;
#endif
};

// The engines of one set size, built on first use.
EngineSet &engine_set(int size);
// Destroys every built set; the library's objects must go before
// vael_apps_fini.
void release_engine_sets();
// Keeps a PM that a benchmark holds across runs, to be destroyed with the
// engine sets before the library stops. Returns pm.
vael_pm_handle *keep_until_release(vael_pm_handle *pm);

// Lists in the form each library entry point takes; the caller destroys them.
vael_pmglob_patterns *make_pmglob_list(const std::vector<Literal> &literals);
vael_pm_patterns *make_pm_patterns(const std::vector<Literal> &literals);

// Whether the BNFA size is readable in this build.
bool bnfa_size_known();

// vael_thin_nfa_compile, exiting with a message on failure.
vael_thin_nfa *compile_thin_nfa(vael_pmglob_patterns *list);
// vael_sm_compile; null with the library's reason in *why when it refuses.
vael_dfa *compile_sm(vael_pmglob_patterns *list, std::string *why);
// vael_pm_compile with the tallying callback, exiting with a message on failure.
vael_pm_handle *compile_pm(vael_pm_patterns *patterns);

// Corpus scans, of the traffic corpus unless another text is given. exec_flags
// go to the library call as they are.
MatchTally scan_pm(vael_pm_handle *pm, uint32_t exec_flags);
// Each chunk as a virtual buffer of block_size blocks (packets) and no
// present buffer.
MatchTally scan_pm_vbuf(vael_pm_handle *pm, uint32_t exec_flags, size_t block_size);
MatchTally scan_thin_nfa(vael_thin_nfa *nfa, uint32_t exec_flags, const std::vector<unsigned char> &data = corpus());
MatchTally scan_sm(vael_dfa *sm, uint32_t exec_flags, const std::vector<unsigned char> &data = corpus());
MatchTally scan_full_ac(const FullAc &ac, const std::vector<unsigned char> &data = corpus());
// Only the first end offset of each literal in each buffer.
MatchTally scan_full_ac_first_per_buffer(const FullAc &ac, size_t literal_count);
#ifdef VAEL_HAVE_VECTORSCAN
MatchTally scan_vectorscan(Vectorscan &vs, const std::vector<unsigned char> &data = corpus());
#endif

}  // namespace vael_bench

#endif  // VAEL_BENCH_ENGINES_H
