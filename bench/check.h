/*
 * check.h - the correctness gate that runs before anything is timed.
 *
 * For every literal set, every engine scans the corpus and what it reports
 * is compared: with every match asked for, the Thin NFA (raw), the PM, the
 * full-table AC and Vectorscan must report the same (id, end offset) pairs;
 * with the default exec flags, the PM and the raw Thin NFA must report the
 * first end offset of each literal per buffer. Any disagreement ends the
 * program with a message and a non-zero exit: a throughput figure of an
 * engine that finds other matches compares nothing.
 */
#ifndef VAEL_BENCH_CHECK_H
#define VAEL_BENCH_CHECK_H

#include <cstdint>

namespace vael_bench {

struct CheckResult {
    uint64_t all_matches = 0;       // (id, end offset) pairs over the corpus
    uint64_t first_per_buffer = 0;  // (id, buffer) pairs: what the default exec reports
    bool vectorscan_compared = false;
};

// Checks every set; returns only when all engines agree.
void check_all_sets();
// The result for a set size, null before check_all_sets.
const CheckResult *check_result(int size);

}  // namespace vael_bench

#endif  // VAEL_BENCH_CHECK_H
