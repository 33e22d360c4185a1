/*
 * full_ac.h - a textbook full-table Aho-Corasick automaton, the memory-hungry
 * baseline the Thin NFA is measured against.
 *
 * Every state owns 256 transitions of 32 bits with the fail transitions
 * folded in, so a scan is one table load per byte (a DFA). Each state keeps
 * the ids of every literal ending there, those reached through fail links
 * included. The top bit of a transition marks a target with output, so the
 * scan loop touches the output lists only on a hit.
 */
#ifndef VAEL_BENCH_FULL_AC_H
#define VAEL_BENCH_FULL_AC_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "corpus.h"

namespace vael_bench {

class FullAc {
public:
    explicit FullAc(const std::vector<Literal> &literals);

    // Calls on_match(id, end) for every literal occurrence, end being the
    // offset of its last byte in buf.
    template <typename OnMatch>
    void scan(const unsigned char *buf, size_t len, OnMatch &&on_match) const {
        const uint32_t *table = table_.data();
        uint32_t state = 0;
        for (size_t i = 0; i < len; ++i) {
            const uint32_t entry = table[(static_cast<size_t>(state) << 8) | buf[i]];
            state = entry & kStateMask;
            if (entry & kHasOutput) {
                for (uint32_t k = out_start_[state]; k < out_start_[state + 1]; ++k)
                    on_match(out_ids_[k], static_cast<uint32_t>(i));
            }
        }
    }

    size_t states() const { return out_start_.size() - 1; }
    // Transition table plus output lists.
    size_t memory_bytes() const {
        return table_.size() * sizeof(uint32_t) + out_start_.size() * sizeof(uint32_t) +
               out_ids_.size() * sizeof(int32_t);
    }

private:
    static constexpr uint32_t kHasOutput = 0x80000000u;
    static constexpr uint32_t kStateMask = 0x7fffffffu;

    std::vector<uint32_t> table_;      // states x 256
    std::vector<uint32_t> out_start_;  // output list of state s: out_ids_[out_start_[s] .. out_start_[s + 1])
    std::vector<int32_t> out_ids_;
};

}  // namespace vael_bench

#endif  // VAEL_BENCH_FULL_AC_H
