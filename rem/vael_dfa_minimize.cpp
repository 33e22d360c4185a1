// vael_dfa_minimize.cpp - DFA minimization by table filling.
//
// A triangular matrix holds, for every pair of states, whether the pair is
// still held equal ("joined"). All pairs start joined by finality alone, and
// passes over the pairs divide those whose targets on some byte are divided,
// until a pass changes nothing. Quadratic in states and simple: machines
// stay within 7767 states by default, where the matrix costs about 120 MB.
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

bool joined(vael_dfa_partitions *p, uint32_t i, uint32_t j) {
    return i == j || *cell(p->matrix, i, j) == kJoined;
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

// The target of a state of the input on a byte, as a linear id.
inline uint32_t target_id(const vael_dfa_state *s, unsigned c) { return s->trans[c]; }

// Joins the pairs of the same finality; then divides, pass after pass, every
// joined pair that some byte leads to a divided pair, until nothing changes.
void fill_table(vael_dfa_partitions *p) {
    const uint32_t n = p->num_of_states;
    for (uint32_t i = 0; i < n; i++)
        for (uint32_t j = 0; j < i; j++)
            if (vael_dfa_state_is_final(p->states[i].state) == vael_dfa_state_is_final(p->states[j].state))
                vael_dfa_partitions_join(p, i, j);
    for (bool changed = true; changed;) {
        changed = false;
        for (uint32_t i = 0; i < n; i++) {
            const vael_dfa_state *si = p->states[i].state;
            uint32_t *row = p->matrix->rows[i];
            for (uint32_t j = 0; j < i; j++) {
                if (row[j] != kJoined)
                    continue;
                const vael_dfa_state *sj = p->states[j].state;
                for (unsigned c = 0; c < 256; c++) {
                    const uint32_t a = target_id(si, c), b = target_id(sj, c);
                    if (a == b)
                        continue;
                    // A missing target is a state of its own, unlike any.
                    if (a >= n || b >= n || !joined(p, a, b)) {
                        row[j] = kDivided;
                        changed = true;
                        break;
                    }
                }
            }
        }
    }
}

// Each group's representative is its lowest id.
void assign_groups(vael_dfa_partitions *p) {
    const uint32_t n = p->num_of_states;
    for (uint32_t i = 0; i < n; i++) {
        if (p->states[i].group != -1)
            continue;
        p->states[i].group = (int32_t)i;
        for (uint32_t j = i + 1; j < n; j++)
            if (*cell(p->matrix, j, i) == kJoined)
                p->states[j].group = (int32_t)i;
    }
}

// The states of the new machine, in the order of their representatives,
// tied both ways to the input.
bool make_states(vael_dfa_partitions *p, vael_dfa *minimal) {
    for (uint32_t i = 0; i < p->num_of_states; i++) {
        vael_dfa_state *orig = p->states[i].state;
        vael_dfa_state *made;
        if (p->states[i].group == (int32_t)i) {
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
            made = vael_dfa_state_get_correlating_state(p->states[p->states[i].group].state);
            if (!made)
                return false;
        }
        if (vael_dfa_state_set_correlating_state(orig, made) != 0)
            return false;
    }
    return true;
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
    vael_dfa_partitions *p = vael_dfa_partitions_create(dfa);
    bool ok = p != nullptr;
    if (ok) {
        fill_table(p);
        if (vael_us_adaptor_printable(VAEL_DBG_INFO, "K_DFA | K_PMDUMP"))
            vael_dfa_partitions_print(p);
        assign_groups(p);
        ok = make_states(p, minimal);
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
    vael_dfa_partitions_destroy(p);
    if (!ok) {
        vael_dfa_destroy(minimal);
        return nullptr;
    }
    return minimal;
}
