// vael_dfa_minimize.cpp - DFA minimization.
//
// The groups of equal states are the coarsest partition that keeps final
// and non-final states apart and that every byte's transitions respect. The
// pair matrix below (every pair of states joined or divided) states that
// relation; the minimization itself finds the groups by refining classes
// (see Refinement), which is n log n where filling the matrix pass by pass
// is up to cubic, and needs no 120 MB matrix at 7767 states.
//
// The input must be complete and not finalized (its entries are linear ids).
// States are tied to one another through their states lists: each state of
// the input names its state in the new machine, and each new state names its
// representative in the input (the lowest id of its group).

#include <cstring>

#include "rem/vael_dfa_internal.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"

namespace {

const char kTopics[] = "K_DFA";
const char kErrTopics[] = "K_DFA | K_ERROR";

constexpr uint32_t kDivided = 0;
constexpr uint32_t kJoined = 1;

uint32_t *cell(vael_dfa_partition_matrix *matrix, uint32_t i, uint32_t j) {
    return i > j ? &matrix->rows[i][j] : &matrix->rows[j][i];
}

}  // namespace

// ---------------------------------------------------------------- the matrix

extern "C" vael_dfa_partition_matrix *vael_dfa_partition_matrix_create(uint32_t n) {
    vael_dfa_partition_matrix *m = VAEL_NEW_ZEROED(vael_dfa_partition_matrix);
    if (!m)
        return nullptr;
    if (n == 0)
        return m;
    m->rows = static_cast<uint32_t **>(VAEL_KMALLOC(sizeof(uint32_t *) * n));
    if (!m->rows) {
        VAEL_KFREE(m, sizeof *m);
        return nullptr;
    }
    std::memset(m->rows, 0, sizeof(uint32_t *) * n);
    m->num_of_rows = n;
    for (uint32_t i = 1; i < n; i++) {
        m->rows[i] = static_cast<uint32_t *>(VAEL_KMALLOC(sizeof(uint32_t) * i));
        if (!m->rows[i]) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to allocate row %u of %u\n", i, n);
            vael_dfa_partition_matrix_destroy(m, n);
            return nullptr;
        }
        std::memset(m->rows[i], 0, sizeof(uint32_t) * i);
    }
    return m;
}

extern "C" void vael_dfa_partition_matrix_destroy(vael_dfa_partition_matrix *matrix, uint32_t n) {
    if (!matrix)
        return;
    if (matrix->rows) {
        for (uint32_t i = 1; i < n; i++)
            if (matrix->rows[i])
                VAEL_KFREE(matrix->rows[i], sizeof(uint32_t) * i);
        VAEL_KFREE(matrix->rows, sizeof(uint32_t *) * n);
    }
    VAEL_KFREE(matrix, sizeof *matrix);
}

// ---------------------------------------------------------------- partitions

extern "C" vael_dfa_partitions *vael_dfa_partitions_create(vael_dfa *dfa) {
    if (!dfa)
        return nullptr;
    const uint32_t n = vael_dfa_get_num_of_states(dfa);
    vael_dfa_partitions *p = VAEL_NEW_ZEROED(vael_dfa_partitions);
    if (!p)
        return nullptr;
    p->num_of_states = n;
    p->states = n ? VAEL_NEW_ZEROED_ARRAY(vael_dfa_partition_state, n) : nullptr;
    p->matrix = vael_dfa_partition_matrix_create(n);
    if ((n && !p->states) || !p->matrix) {
        vael_dfa_partitions_destroy(p);
        return nullptr;
    }
    for (uint32_t i = 0; i < n; i++) {
        p->states[i].state = vael_dfa_state_get_by_id(dfa, i);
        p->states[i].group = -1;
        if (!p->states[i].state) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: state %u not found\n", i);
            vael_dfa_partitions_destroy(p);
            return nullptr;
        }
    }
    return p;
}

extern "C" void vael_dfa_partitions_destroy(vael_dfa_partitions *p) {
    if (!p)
        return;
    vael_dfa_partition_matrix_destroy(p->matrix, p->num_of_states);
    if (p->states)
        VAEL_KFREE(p->states, sizeof(vael_dfa_partition_state) * p->num_of_states);
    VAEL_KFREE(p, sizeof *p);
}

extern "C" void vael_dfa_partitions_divide(vael_dfa_partitions *p, uint32_t i, uint32_t j) {
    if (i != j)
        *cell(p->matrix, i, j) = kDivided;
}

extern "C" void vael_dfa_partitions_join(vael_dfa_partitions *p, uint32_t i, uint32_t j) {
    if (i != j)
        *cell(p->matrix, i, j) = kJoined;
}

extern "C" void vael_dfa_partitions_print(vael_dfa_partitions *p) {
    if (!p)
        return;
    vael_us_adaptor_kdprintf("------ THE PART MATRIX : --------- \n");
    for (uint32_t i = 0; i < p->num_of_states; i++) {
        vael_us_adaptor_kdprintf_no_prefix("%4u:", i);
        for (uint32_t j = 0; j < i; j++)
            vael_us_adaptor_kdprintf_no_prefix(" %u", *cell(p->matrix, i, j));
        vael_us_adaptor_kdprintf_no_prefix("\n");
    }
}

// ---------------------------------------------------------------- minimization

namespace {

// The groups of equal states, by partition refinement (Hopcroft): the
// classes of finality are split by their predecessors on each byte until no
// split is left. The result is the same as that of filling the pair table
// pass by pass, the coarsest partition that the transitions respect, in
// O(256 n log n) instead of up to n passes over n^2 / 2 pairs: a hostile
// expression near the state limit would otherwise hold a compile for hours.
//
// A missing target (an entry past the states) is a state of its own, unlike
// any: it is the extra state n, which leads only to itself.
class Refinement {
public:
    explicit Refinement(uint32_t n) : n_(n), size_(n + 1) {}

    // False when out of memory.
    bool run(const vael_dfa *dfa, uint32_t *group) {
        const size_t N = size_, S = 256;
        const size_t words = S * (N + 1) + S * N + 8 * N + S * N + (S * N + 31) / 32;
        block_ = VAEL_MAKE_OWNED_ARRAY(uint32_t, words);
        if (!block_)
            return false;
        uint32_t *at = block_.get();
        auto take = [&](size_t count) {
            uint32_t *part = at;
            at += count;
            return part;
        };
        inv_off_ = take(S * (N + 1));
        inv_src_ = take(S * N);
        elems_ = take(N);
        loc_ = take(N);
        block_of_ = take(N);
        first_ = take(N);
        end_ = take(N);
        marked_ = take(N);
        scratch_ = take(N);
        touched_ = take(N);
        work_ = take(S * N);
        in_work_ = take((S * N + 31) / 32);
        invert(dfa);
        start_blocks(dfa);
        while (work_size_) {
            const uint32_t item = work_[--work_size_];
            const uint32_t splitter = item / 256, c = item % 256;
            in_work_[item / 32] &= ~(1u << (item % 32));
            split_by(splitter, c);
        }
        for (uint32_t b = 0; b < blocks_; b++) {
            uint32_t lowest = UINT32_MAX;
            for (uint32_t k = first_[b]; k < end_[b]; k++)
                lowest = elems_[k] < lowest ? elems_[k] : lowest;
            for (uint32_t k = first_[b]; k < end_[b]; k++)
                if (elems_[k] < n_)
                    group[elems_[k]] = lowest;
        }
        return true;
    }

private:
    uint32_t target(const vael_dfa *dfa, uint32_t s, unsigned c) const {
        if (s == n_)
            return n_;
        const uint32_t t = vael_dfa_state_get_by_id(dfa, s)->trans[c];
        return t < n_ ? t : n_;
    }

    // The predecessors of each state on each byte, as 256 sorted runs.
    void invert(const vael_dfa *dfa) {
        const uint32_t N = size_;
        for (unsigned c = 0; c < 256; c++) {
            // The targets on c, read once: counted, then placed.
            for (uint32_t s = 0; s < N; s++)
                scratch_[s] = target(dfa, s, c);
            uint32_t *off = inv_off_ + (size_t)c * (N + 1);
            for (uint32_t s = 0; s < N; s++)
                off[scratch_[s] + 1]++;
            for (uint32_t t = 0; t < N; t++)
                off[t + 1] += off[t];
            uint32_t *src = inv_src_ + (size_t)c * N;
            for (uint32_t s = 0; s < N; s++)
                src[off[scratch_[s]]++] = s;
            // The fill moved each start to the next run's; move them back.
            for (uint32_t t = N; t > 0; t--)
                off[t] = off[t - 1];
            off[0] = 0;
        }
    }

    void push(uint32_t b, unsigned c) {
        const uint32_t item = b * 256 + c;
        if (in_work_[item / 32] & (1u << (item % 32)))
            return;
        in_work_[item / 32] |= 1u << (item % 32);
        work_[work_size_++] = item;
    }

    // Non-final states, final states, the missing state: each class that has
    // a member is a block, and a splitter on every byte.
    void start_blocks(const vael_dfa *dfa) {
        uint32_t k = 0;
        for (int kind = 0; kind < 3; kind++) {
            const uint32_t from = k;
            for (uint32_t s = 0; s < size_; s++) {
                const int of = s == n_ ? 2 : vael_dfa_state_is_final(vael_dfa_state_get_by_id(dfa, s)) ? 1 : 0;
                if (of != kind)
                    continue;
                elems_[k] = s;
                loc_[s] = k++;
                block_of_[s] = blocks_;
            }
            if (k == from)
                continue;
            first_[blocks_] = from;
            end_[blocks_] = k;
            for (unsigned c = 0; c < 256; c++)
                push(blocks_, c);
            blocks_++;
        }
    }

    // Splits every block by whether its states lead into `splitter` on c.
    void split_by(uint32_t splitter, unsigned c) {
        const uint32_t *off = inv_off_ + (size_t)c * (size_ + 1);
        const uint32_t *src = inv_src_ + (size_t)c * size_;
        // The splitter's members first: marking moves states within blocks,
        // the splitter's own among them.
        uint32_t members = 0;
        for (uint32_t k = first_[splitter]; k < end_[splitter]; k++)
            scratch_[members++] = elems_[k];
        uint32_t touched = 0;
        for (uint32_t m = 0; m < members; m++) {
            const uint32_t t = scratch_[m];
            for (uint32_t e = off[t]; e < off[t + 1]; e++) {
                const uint32_t p = src[e], b = block_of_[p];
                const uint32_t to = first_[b] + marked_[b]++;
                const uint32_t moved = elems_[to];
                elems_[loc_[p]] = moved;
                loc_[moved] = loc_[p];
                elems_[to] = p;
                loc_[p] = to;
                if (marked_[b] == 1)
                    touched_[touched++] = b;
            }
        }
        for (uint32_t i = 0; i < touched; i++) {
            const uint32_t b = touched_[i];
            const uint32_t marked = marked_[b];
            marked_[b] = 0;
            if (marked == end_[b] - first_[b])
                continue;
            const uint32_t nb = blocks_++;
            first_[nb] = first_[b];
            end_[nb] = first_[b] + marked;
            first_[b] = end_[nb];
            for (uint32_t k = first_[nb]; k < end_[nb]; k++)
                block_of_[elems_[k]] = nb;
            const bool new_is_smaller = marked <= end_[b] - first_[b];
            for (unsigned d = 0; d < 256; d++) {
                const uint32_t item = b * 256 + d;
                if (in_work_[item / 32] & (1u << (item % 32)))
                    push(nb, d);
                else
                    push(new_is_smaller ? nb : b, d);
            }
        }
    }

    uint32_t n_, size_;
    uint32_t blocks_ = 0, work_size_ = 0;
    vael_owned<uint32_t> block_;
    uint32_t *inv_off_ = nullptr, *inv_src_ = nullptr, *elems_ = nullptr, *loc_ = nullptr, *block_of_ = nullptr,
             *first_ = nullptr, *end_ = nullptr, *marked_ = nullptr, *scratch_ = nullptr, *touched_ = nullptr,
             *work_ = nullptr, *in_work_ = nullptr;
};

// The states of the new machine, in the order of their representatives,
// tied both ways to the input.
bool make_states(vael_dfa *dfa, const uint32_t *group, vael_dfa *minimal) {
    const uint32_t n = vael_dfa_get_num_of_states(dfa);
    for (uint32_t i = 0; i < n; i++) {
        vael_dfa_state *orig = vael_dfa_state_get_by_id(dfa, i);
        vael_dfa_state *made;
        if (group[i] == i) {
            made = vael_dfa_state_create(minimal);
            if (!made)
                return false;
            if (vael_dfa_state_is_final(orig)) {
                const vael_dfa_pattern_id *first = vael_dfa_state_get_pattern_ids(orig);
                if (vael_dfa_state_set_final_ex(made, vael_dfa_pattern_id_get_id(first),
                                                vael_dfa_state_is_anchored_final(orig)) < 0)
                    return false;
            }
            if (vael_dfa_state_set_correlating_state(made, orig) != 0)
                return false;
        } else {
            made = vael_dfa_state_get_correlating_state(vael_dfa_state_get_by_id(dfa, group[i]));
            if (!made)
                return false;
        }
        if (vael_dfa_state_set_correlating_state(orig, made) != 0)
            return false;
    }
    return true;
}

// The pair table of the groups, as the debug output has always shown it.
void print_groups(const uint32_t *group, uint32_t n) {
    vael_us_adaptor_kdprintf("------ THE PART MATRIX : --------- \n");
    for (uint32_t i = 0; i < n; i++) {
        vael_us_adaptor_kdprintf_no_prefix("%4u:", i);
        for (uint32_t j = 0; j < i; j++)
            vael_us_adaptor_kdprintf_no_prefix(" %u", group[i] == group[j] ? kJoined : kDivided);
        vael_us_adaptor_kdprintf_no_prefix("\n");
    }
}

bool make_transitions(vael_dfa *minimal) {
    const uint32_t m = vael_dfa_get_num_of_states(minimal);
    for (uint32_t id = 0; id < m; id++) {
        vael_dfa_state *s = vael_dfa_state_get_by_id(minimal, id);
        for (unsigned c = 0; c < 256; c++) {
            vael_dfa_state *orig_target = vael_dfa_state_move_orig(s, (unsigned char)c);
            if (!orig_target)
                continue;
            if (vael_dfa_state_add_trans(s, (unsigned char)c, vael_dfa_state_get_correlating_state(orig_target)) !=
                0)
                return false;
        }
    }
    return true;
}

}  // namespace

extern "C" vael_dfa *vael_dfa_minimize(vael_dfa *dfa) {
    if (!dfa) {
        VAEL_ASSERT(0, "vael_dfa_minimize called with NULL dfa");
        return nullptr;
    }
    const uint32_t n = vael_dfa_get_num_of_states(dfa);
    vael_dfa *minimal = vael_dfa_create_block_dfa(vael_dfa_get_flags(dfa), dfa->error, n, dfa->index_size, __func__);
    if (!minimal) {
        vael_dfa_clean_states_list(dfa);
        return nullptr;
    }
    auto group = VAEL_MAKE_OWNED_ARRAY(uint32_t, n ? n : 1);
    bool ok = group && Refinement(n).run(dfa, group.get());
    if (ok) {
        if (vael_us_adaptor_printable(VAEL_DBG_INFO, "K_DFA | K_PMDUMP"))
            print_groups(group.get(), n);
        ok = make_states(dfa, group.get(), minimal);
    }
    if (ok) {
        vael_dfa_state *init = vael_dfa_state_get_correlating_state(vael_dfa_get_initial_state(dfa));
        vael_dfa_set_initial_state(minimal, init);
        ok = init && make_transitions(minimal);
    }
    if (ok)
        VAEL_LOG(VAEL_DBG_INFO, kTopics, "%s: minimized from %u states to %u states\n", n,
                 vael_dfa_get_num_of_states(minimal));
    vael_dfa_clean_states_list(dfa);
    vael_dfa_clean_states_list(minimal);
    if (!ok) {
        vael_dfa_destroy(minimal);
        return nullptr;
    }
    return minimal;
}
