// full_ac.cpp - construction of the full-table Aho-Corasick automaton (see
// full_ac.h): a trie in the dense table, then one breadth-first pass that sets
// fail links, fills every missing transition from the fail state's row and
// inherits the fail state's outputs.
#include "full_ac.h"

#include <cstdio>
#include <cstdlib>

namespace vael_bench {

FullAc::FullAc(const std::vector<Literal> &literals) {
    // Trie. Transition 0 means "none yet": the root is never a child.
    size_t max_states = 1;
    for (const Literal &literal : literals)
        max_states += literal.bytes.size();
    table_.reserve(max_states * 256);
    table_.assign(256, 0);
    std::vector<std::vector<int32_t>> outputs(1);
    for (const Literal &literal : literals) {
        uint32_t state = 0;
        for (unsigned char c : literal.bytes) {
            uint32_t &next = table_[(static_cast<size_t>(state) << 8) | c];
            if (next == 0) {
                next = static_cast<uint32_t>(outputs.size());
                outputs.emplace_back();
                table_.resize(table_.size() + 256, 0);
            }
            // Reload: `next` does not survive the resize.
            state = table_[(static_cast<size_t>(state) << 8) | c];
        }
        outputs[state].push_back(literal.id);
    }
    const size_t nstates = outputs.size();
    if (nstates > kStateMask) {
        std::fprintf(stderr, "vael-bench: full-table AC has too many states (%zu)\n", nstates);
        std::abort();
    }

    // Breadth-first: a state's fail state is shallower, so its row is already
    // complete and its outputs already hold everything reachable by fail links.
    // A row's non-zero entries are still pure trie children when its state is
    // taken from the queue.
    std::vector<uint32_t> fail(nstates, 0);
    std::vector<uint32_t> queue;
    queue.reserve(nstates);
    for (unsigned c = 0; c < 256; ++c) {
        if (table_[c] != 0)
            queue.push_back(table_[c]);
    }
    for (size_t head = 0; head < queue.size(); ++head) {
        const uint32_t state = queue[head];
        const uint32_t *fail_row = &table_[static_cast<size_t>(fail[state]) << 8];
        uint32_t *row = &table_[static_cast<size_t>(state) << 8];
        for (unsigned c = 0; c < 256; ++c) {
            if (row[c] != 0) {
                fail[row[c]] = fail_row[c];
                queue.push_back(row[c]);
            } else {
                row[c] = fail_row[c];
            }
        }
        const std::vector<int32_t> &inherited = outputs[fail[state]];
        outputs[state].insert(outputs[state].end(), inherited.begin(), inherited.end());
    }

    // Flatten the outputs and mark transitions into states that have some.
    out_start_.resize(nstates + 1);
    for (size_t s = 0; s < nstates; ++s) {
        out_start_[s] = static_cast<uint32_t>(out_ids_.size());
        out_ids_.insert(out_ids_.end(), outputs[s].begin(), outputs[s].end());
    }
    out_start_[nstates] = static_cast<uint32_t>(out_ids_.size());
    for (uint32_t &entry : table_) {
        if (!outputs[entry].empty())
            entry |= kHasOutput;
    }
}

}  // namespace vael_bench
