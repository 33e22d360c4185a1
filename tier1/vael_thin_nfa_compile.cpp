// vael_thin_nfa_compile.cpp - turns a list of strings into a Thin NFA.
//
// The compile builds a byte trie in block-allocated state records, computes
// Aho-Corasick fail states breadth-first (copying each fail state's patterns
// into the deeper state, so a run never walks fail links to report),
// shortens fail chains, and hands the trie to the build, which lays it out as
// the BNFA. This file's external interface is vael_thin_nfa_compile.

#include <cstdio>
#include <cstring>

#include "runtime/vael_runtime.h"
#include "tier1/vael_thin_nfa_comp.h"

int vael_thin_nfa_full_tiers_num = 2;
int vael_thin_nfa_max_partial_trans = 63;
int vael_thin_nfa_optimize_contig_chars = 1;

namespace {

const char kErrCompInfo[] = "Failed to allocate compilation information";
const char kErrState[] = "Failed to allocate state";
const char kErrPatternInfo[] = "Failed to save pattern information";
const char kErrCopyIds[] = "Failed to copy pattern IDs";
const char kErrEmptyPattern[] = "Empty pattern";

constexpr const char *kThinTopics = "K_THINNFA | K_PM";

}  // namespace

// ---------------------------------------------------------------- state store

extern "C" const char *vael_thin_nfa_state_name(const vael_thin_nfa_state *state) {
    static thread_local char ring[4][100];
    static thread_local unsigned next;
    char *name = ring[next++ % 4];
    if (!state) {
        std::snprintf(name, 100, "NULL/-1");
        return name;
    }
    if (state->flags & THIN_NFA_STATE_INITIAL) {
        std::snprintf(name, 100, "ROOT/%u", state->state_id);
        return name;
    }
    uint32_t n = state->depth < 90 ? state->depth : 90;
    for (uint32_t i = 0; i < n; i++) {
        unsigned char c = state->pattern ? state->pattern[i] : '.';
        name[i] = (c >= 0x20 && c < 0x7f) ? (char)c : '.';
    }
    std::snprintf(name + n, 100 - n, "/%u", state->state_id);
    return name;
}

namespace {

vael_thin_nfa_state *state_by_id(vael_thin_nfa_comp *comp, uint32_t id) {
    return &comp->state_blocks[id / THIN_NFA_BLOCK_STATES][id % THIN_NFA_BLOCK_STATES];
}

vael_thin_nfa_state *vael_thin_nfa_state_create(vael_thin_nfa_comp *comp, uint32_t depth,
                                                const unsigned char *pattern) {
    uint32_t id = comp->state_num;
    uint32_t block = id / THIN_NFA_BLOCK_STATES;
    if (block >= THIN_NFA_MAX_BLOCKS) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: State %d in block %d exceeds limit %d\n", (int)id, (int)block,
                 (int)THIN_NFA_MAX_BLOCKS);
        return nullptr;
    }
    if (!comp->state_blocks[block]) {
        size_t bytes = sizeof(vael_thin_nfa_state) * THIN_NFA_BLOCK_STATES;
        comp->state_blocks[block] = static_cast<vael_thin_nfa_state *>(VAEL_KMALLOC(bytes));
        if (!comp->state_blocks[block]) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate a state block size %d for state %d\n",
                     (int)bytes, (int)id);
            return nullptr;
        }
    }
    vael_thin_nfa_state *s = state_by_id(comp, id);
    std::memset(s, 0, sizeof *s);
    s->state_id = id;
    s->depth = depth;
    s->pattern = pattern;
    if ((int64_t)depth < vael_thin_nfa_full_tiers_num)
        s->flags |= THIN_NFA_STATE_FULL;
    comp->state_num++;
    return s;
}

void vael_thin_nfa_comp_destroy(vael_thin_nfa_comp *comp) {
    if (!comp)
        return;
    for (uint32_t id = 0; id < comp->state_num; id++)
        vael_thin_nfa_free_pattern_ids(state_by_id(comp, id)->pattern_ids);
    for (auto &block : comp->state_blocks) {
        if (block)
            VAEL_KFREE(block, sizeof(vael_thin_nfa_state) * THIN_NFA_BLOCK_STATES);
    }
    if (comp->xlation_tab)
        VAEL_KFREE(comp->xlation_tab, 512);
    VAEL_KFREE(comp, sizeof *comp);
}

vael_thin_nfa_comp *vael_thin_nfa_comp_create(vael_pm_error *error) {
    auto *comp = static_cast<vael_thin_nfa_comp *>(VAEL_KMALLOC(sizeof(vael_thin_nfa_comp)));
    if (!comp) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate nfa_comp\n");
        return nullptr;
    }
    std::memset(comp, 0, sizeof *comp);
    comp->error = error;
    comp->initial_state = vael_thin_nfa_state_create(comp, 0, nullptr);
    if (!comp->initial_state) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to create the initial state\n");
        vael_thin_nfa_comp_destroy(comp);
        return nullptr;
    }
    // The root is full whatever the tiers say: the BNFA starts with it.
    comp->initial_state->flags |= THIN_NFA_STATE_FULL | THIN_NFA_STATE_INITIAL;
    return comp;
}

int vael_thin_nfa_create_xlation_tab(vael_thin_nfa_comp *comp, uint32_t compile_flags) {
    uint32_t mode = ((compile_flags & VAEL_PM_CASELESS) ? 1u : 0u) | ((compile_flags & VAEL_PM_DIGITLESS) ? 2u : 0u);
    if (mode == 0)
        return 0;
    comp->xlation_tab = static_cast<unsigned char *>(VAEL_KMALLOC(512));
    if (!comp->xlation_tab) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate translation table\n");
        return -1;
    }
    vael_pmglob_char_xlation_build(mode, comp->xlation_tab);
    vael_pmglob_char_xlation_build_reverse(comp->xlation_tab, comp->xlation_tab + 256);
    return 0;
}

// ---------------------------------------------------------------- trie

void vael_thin_nfa_add_transition(vael_thin_nfa_state *parent, unsigned char byte, vael_thin_nfa_state *child) {
    vael_thin_nfa_state **link = &parent->first_child;
    while (*link && (*link)->trans_char < byte)
        link = &(*link)->next_sibling;
    child->next_sibling = *link;
    *link = child;
    child->trans_char = byte;
    parent->trans_num++;
    if ((int64_t)parent->trans_num > vael_thin_nfa_max_partial_trans)
        parent->flags |= THIN_NFA_STATE_FULL;
    // Only the deepest state of a run of one byte from the root keeps the
    // flag: the state where a long run in the data would otherwise fall down
    // its fail chain at every byte.
    if (parent->flags & THIN_NFA_STATE_INITIAL) {
        child->flags |= THIN_NFA_STATE_CONTIG;
    } else if ((parent->flags & THIN_NFA_STATE_CONTIG) && parent->trans_char == byte) {
        parent->flags &= ~THIN_NFA_STATE_CONTIG;
        child->flags |= THIN_NFA_STATE_CONTIG;
    }
}

int vael_thin_nfa_state_set_finite(vael_thin_nfa_comp *comp, vael_thin_nfa_state *state, uint32_t id,
                                   uint32_t flags, uint32_t len) {
    if (vael_thin_nfa_add_pattern_id(&state->pattern_ids, id, flags, len) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Could not add the pattern_id %d to final state %s\n", (int)id,
                 vael_thin_nfa_state_name(state));
        return -1;
    }
    if (!(state->flags & THIN_NFA_STATE_FINITE)) {
        state->flags |= THIN_NFA_STATE_FINITE;
        comp->finite_state_num++;
    }
    return 0;
}

unsigned char translate(const vael_thin_nfa_comp *comp, unsigned char c) {
    return comp->xlation_tab ? comp->xlation_tab[c] : c;
}

// Walks from the root by the pattern's bytes while transitions exist.
vael_thin_nfa_state *vael_thin_nfa_find_longest_prefix(vael_thin_nfa_comp *comp, const unsigned char *bytes,
                                                       uint32_t size) {
    vael_thin_nfa_state *state = comp->initial_state;
    for (uint32_t i = 0; i < size; i++) {
        vael_thin_nfa_state *next = vael_thin_nfa_comp_get_next_state(comp, state, translate(comp, bytes[i]));
        if (!next)
            break;
        state = next;
    }
    return state;
}

int vael_thin_nfa_add_pattern_to_trie(vael_thin_nfa_comp *comp, const vael_pmglob_string *pattern) {
    const unsigned char *bytes = vael_pmglob_string_get_pattern(pattern);
    uint32_t size = vael_pmglob_string_get_size(pattern);
    auto id = (uint32_t)vael_pmglob_string_get_id(pattern);
    if (size == 0) {
        // The root must stay non-finite: it is the first state of the BNFA.
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Pattern ID %d is empty\n", (int)id);
        vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_ILLEGAL, kErrEmptyPattern);
        return -1;
    }
    vael_thin_nfa_state *state = vael_thin_nfa_find_longest_prefix(comp, bytes, size);
    for (uint32_t i = state->depth; i < size; i++) {
        vael_thin_nfa_state *child = vael_thin_nfa_state_create(comp, i + 1, bytes);
        if (!child) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate a new state\n");
            vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrState);
            return -1;
        }
        vael_thin_nfa_add_transition(state, translate(comp, bytes[i]), child);
        state = child;
    }
    if (vael_thin_nfa_state_set_finite(comp, state, id, vael_pmglob_string_get_flags(pattern), size) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to save pattern info for state %s\n",
                 vael_thin_nfa_state_name(state));
        vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrPatternInfo);
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------- fail states

using TransCallback = int (*)(vael_thin_nfa_comp *, vael_thin_nfa_state *, unsigned char, vael_thin_nfa_state *);

// Visits every transition breadth-first; the queue is threaded through
// bfs_next, so the walk allocates nothing.
int vael_thin_nfa_iterate_trans_bfs(vael_thin_nfa_comp *comp, TransCallback callback) {
    vael_thin_nfa_state *head = comp->initial_state;
    vael_thin_nfa_state *tail = head;
    head->bfs_next = nullptr;
    for (vael_thin_nfa_state *parent = head; parent; parent = parent->bfs_next) {
        for (vael_thin_nfa_state *child = parent->first_child; child; child = child->next_sibling) {
            if (callback(comp, parent, child->trans_char, child) != 0)
                return -1;
            if (child->first_child) {
                child->bfs_next = nullptr;
                tail->bfs_next = child;
                tail = child;
            }
        }
    }
    return 0;
}

int vael_thin_nfa_state_copy_finite_ids(vael_thin_nfa_comp *comp, vael_thin_nfa_state *to,
                                        const vael_thin_nfa_state *from) {
    for (const vael_thin_nfa_pattern_id *p = from->pattern_ids; p; p = p->next) {
        if (vael_thin_nfa_state_set_finite(comp, to, p->id, p->flags, p->len) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to set ID %d on state %s\n", (int)p->id,
                     vael_thin_nfa_state_name(to));
            return -1;
        }
    }
    return 0;
}

int vael_thin_nfa_set_fail_state(vael_thin_nfa_comp *comp, vael_thin_nfa_state *parent, unsigned char byte,
                                 vael_thin_nfa_state *child) {
    vael_thin_nfa_state *fail = vael_thin_nfa_calc_transition(comp, parent->fail_state, byte);
    child->fail_state = fail;
    // Breadth-first order: the shallower fail state already holds all the
    // patterns of its own chain.
    if ((fail->flags & THIN_NFA_STATE_FINITE) && vael_thin_nfa_state_copy_finite_ids(comp, child, fail) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to copy pattern IDs from %s to %s\n",
                 vael_thin_nfa_state_name(fail), vael_thin_nfa_state_name(child));
        vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrCopyIds);
        return -1;
    }
    if (vael_thin_nfa_optimize_contig_chars && (child->flags & THIN_NFA_STATE_CONTIG))
        child->flags |= THIN_NFA_STATE_FULL;
    return 0;
}

// True when every transition byte of b is also one of a.
bool vael_thin_nfa_are_trans_contained(const vael_thin_nfa_state *a, const vael_thin_nfa_state *b) {
    if (a->trans_num < b->trans_num)
        return false;
    const vael_thin_nfa_state *x = a->first_child;
    for (const vael_thin_nfa_state *y = b->first_child; y; y = y->next_sibling) {
        while (x && x->trans_char < y->trans_char)
            x = x->next_sibling;
        if (!x || x->trans_char != y->trans_char)
            return false;
    }
    return true;
}

// A byte that fails in a state fails in its fail state f too when all of f's
// bytes are also the state's; such an f is skipped at run time.
void vael_thin_nfa_reduce_fail_states(vael_thin_nfa_comp *comp) {
    for (vael_thin_nfa_state *s = vael_thin_nfa_get_subsequent_state(comp, nullptr); s;
         s = vael_thin_nfa_get_subsequent_state(comp, s)) {
        if (s->flags & THIN_NFA_STATE_FULL)
            continue;
        vael_thin_nfa_state *f = s->fail_state;
        while (f && f != comp->initial_state && !(f->flags & THIN_NFA_STATE_FULL) &&
               vael_thin_nfa_are_trans_contained(s, f))
            f = f->fail_state;
        s->fail_state = f;
    }
}

int vael_thin_nfa_calc_fail_states(vael_thin_nfa_comp *comp) {
    comp->initial_state->fail_state = nullptr;
    if (vael_thin_nfa_iterate_trans_bfs(comp, vael_thin_nfa_set_fail_state) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to calculate fail states\n");
        return -1;
    }
    comp->flags |= THIN_NFA_COMP_FAIL_STATES_DONE;
    vael_thin_nfa_reduce_fail_states(comp);
    return 0;
}

}  // namespace

extern "C" vael_thin_nfa_state *vael_thin_nfa_get_subsequent_state(vael_thin_nfa_comp *comp,
                                                                   vael_thin_nfa_state *state) {
    uint32_t next = state ? state->state_id + 1 : 0;
    return next < comp->state_num ? state_by_id(comp, next) : nullptr;
}

extern "C" vael_thin_nfa_state *vael_thin_nfa_comp_get_next_state(vael_thin_nfa_comp *comp,
                                                                  vael_thin_nfa_state *state, unsigned char byte) {
    for (vael_thin_nfa_state *c = state->first_child; c && c->trans_char <= byte; c = c->next_sibling)
        if (c->trans_char == byte)
            return c;
    return nullptr;
}

extern "C" vael_thin_nfa_state *vael_thin_nfa_calc_transition(vael_thin_nfa_comp *comp, vael_thin_nfa_state *state,
                                                              unsigned char byte) {
    for (; state; state = state->fail_state)
        if (vael_thin_nfa_state *next = vael_thin_nfa_comp_get_next_state(comp, state, byte))
            return next;
    return comp->initial_state;
}

extern "C" vael_thin_nfa *vael_thin_nfa_compile(vael_pmglob_patterns *patterns, uint32_t compile_flags,
                                                vael_pm_error *error) {
    vael_thin_nfa_comp *comp = vael_thin_nfa_comp_create(error);
    if (!comp) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Error Creating compile time structure\n");
        vael_pm_error_set_details(error, VAEL_PM_ERROR_INTERNAL, kErrCompInfo);
        return nullptr;
    }
    vael_thin_nfa *nfa = nullptr;
    if (vael_thin_nfa_create_xlation_tab(comp, compile_flags) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Function vael_thin_nfa_create_xlation_tab failed \n");
        vael_thin_nfa_comp_destroy(comp);
        return nullptr;
    }
    uintptr_t value;
    for (lst_cursor c = lst_iterate(patterns, nullptr, &value); c; c = lst_iterate(patterns, c, &value)) {
        if (vael_thin_nfa_add_pattern_to_trie(comp, reinterpret_cast<const vael_pmglob_string *>(value)) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Function vael_thin_nfa_add_pattern_to_trie failed \n");
            vael_thin_nfa_comp_destroy(comp);
            return nullptr;
        }
    }
    if (vael_thin_nfa_calc_fail_states(comp) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: vael_thin_nfa_calc_fail_states failed\n");
        vael_thin_nfa_comp_destroy(comp);
        return nullptr;
    }
    nfa = vael_thin_nfa_build_bnfa(comp);
    vael_thin_nfa_comp_destroy(comp);
    return nfa;
}
