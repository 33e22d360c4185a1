// check.cpp - the correctness gate (see check.h).
#include "check.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>

#include "engines.h"

namespace vael_bench {
namespace {

std::map<int, CheckResult> results;

void expect_same(int size, const char *what, const MatchTally &got, const char *reference_name,
                 const MatchTally &reference) {
    if (got == reference)
        return;
    std::fprintf(stderr,
                 "vael-bench: MATCH MISMATCH on the %d-literal set: %s reports %" PRIu64
                 " matches (fingerprint %016" PRIx64 "), %s reports %" PRIu64 " (fingerprint %016" PRIx64 ")\n",
                 size, what, got.count, got.fingerprint, reference_name, reference.count, reference.fingerprint);
    std::exit(EXIT_FAILURE);
}

}  // namespace

void check_all_sets() {
    std::fprintf(stderr, "vael-bench: input fingerprint %016" PRIx64 " (corpus of %zu bytes, %d literals)\n",
                 input_fingerprint(), corpus().size(), kSetSizes[std::size(kSetSizes) - 1]);
    for (int size : kSetSizes) {
        EngineSet &set = engine_set(size);
        CheckResult result;

        const MatchTally thin_all = scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_ALL_MATCHES);
        expect_same(size, "full-table AC", scan_full_ac(*set.full_ac), "Thin NFA", thin_all);
#ifdef VAEL_HAVE_VECTORSCAN
        expect_same(size, "Vectorscan", scan_vectorscan(*set.vectorscan), "Thin NFA", thin_all);
        result.vectorscan_compared = true;
#endif
        if (set.sm) {
            expect_same(size, "SM with VAEL_PM_EXEC_ALL_MATCHES",
                        scan_sm(set.sm, VAEL_PM_EXEC_FROM_PM | VAEL_PM_EXEC_ALL_MATCHES), "Thin NFA", thin_all);
        } else {
            std::fprintf(stderr, "vael-bench: %5d literals: SM refuses the set: %s\n", size, set.sm_refusal.c_str());
        }
        expect_same(size, "vael_pm_exec_ex with VAEL_PM_EXEC_ALL_MATCHES", scan_pm(set.pm, VAEL_PM_EXEC_ALL_MATCHES),
                    "raw Thin NFA", thin_all);
        expect_same(size, "vael_pm_exec_ex over 1,500-byte vbuf blocks",
                    scan_pm_vbuf(set.pm, VAEL_PM_EXEC_ALL_MATCHES, kPacketSize), "raw Thin NFA", thin_all);

        const MatchTally first = scan_full_ac_first_per_buffer(*set.full_ac, set.literals.size());
        expect_same(size, "vael_pm_exec_ex with exec flags 0", scan_pm(set.pm, 0),
                    "full-table AC (first end per literal and buffer)", first);
        if (set.sm)
            expect_same(size, "SM with VAEL_PM_EXEC_FROM_PM", scan_sm(set.sm, VAEL_PM_EXEC_FROM_PM),
                        "full-table AC (first end per literal and buffer)", first);
        expect_same(size, "vael_thin_nfa_exec with VAEL_PM_EXEC_FROM_PM",
                    scan_thin_nfa(set.thin_nfa, VAEL_PM_EXEC_FROM_PM),
                    "full-table AC (first end per literal and buffer)", first);

        result.all_matches = thin_all.count;
        result.first_per_buffer = first.count;
        results[size] = result;
        std::fprintf(stderr,
                     "vael-bench: %5d literals: %" PRIu64 " matches, %" PRIu64
                     " first per buffer; Thin NFA,%s PM, full-table AC%s agree\n",
                     size, result.all_matches, result.first_per_buffer, set.sm ? " SM," : "",
                     result.vectorscan_compared ? " and Vectorscan" : "");
    }
}

const CheckResult *check_result(int size) {
    auto it = results.find(size);
    return it == results.end() ? nullptr : &it->second;
}

}  // namespace vael_bench
