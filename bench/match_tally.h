/*
 * match_tally.h - what the correctness check compares between engines: the
 * number of (literal id, end offset) pairs over the whole corpus, and an
 * order-free fingerprint of those pairs, so two engines that find the same
 * number of matches at different places still disagree.
 */
#ifndef VAEL_BENCH_MATCH_TALLY_H
#define VAEL_BENCH_MATCH_TALLY_H

#include <cstdint>

namespace vael_bench {

struct MatchTally {
    uint64_t count = 0;
    uint64_t fingerprint = 0;
    uint64_t chunk_base = 0;  // corpus offset of the chunk being scanned

    // end: offset of the match's last byte within the current chunk.
    void add(int32_t id, uint32_t end) {
        ++count;
        uint64_t z = (static_cast<uint64_t>(static_cast<uint32_t>(id)) << 32) ^ (chunk_base + end);
        z = (z ^ (z >> 33)) * 0xff51afd7ed558ccdull;
        z = (z ^ (z >> 33)) * 0xc4ceb9fe1a85ec53ull;
        fingerprint += z ^ (z >> 33);  // a sum: engines report in different orders
    }

    bool operator==(const MatchTally &other) const { return count == other.count && fingerprint == other.fingerprint; }
};

}  // namespace vael_bench

#endif  // VAEL_BENCH_MATCH_TALLY_H
