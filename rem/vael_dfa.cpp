// vael_dfa.cpp - the automaton store: machines made of blocks of fixed state
// records, their transitions, final states and pattern ids, the states lists,
// finalize (cut the last block, pack the ids), validation and duplication.
//
// Invariants: a state's `id` is linear for its whole life; the `trans`
// entries are linear until vael_dfa_finalize packs a machine of more than one
// block; every block but the last is full. The only words a caller gets from
// here are the state limit's, in the machine's error record.

#include <algorithm>
#include <cstring>

#include "pm/vael_pm_strings.h"
#include "rem/vael_dfa_internal.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"

extern "C" {
int vael_dfa_small_block_size = 524288;
}

namespace {

const char kTopics[] = "K_DFA | K_PM";
const char kTooComplex[] = "This pattern is too complex. Consider rewriting the pattern.";

size_t block_bytes(uint32_t states) { return (size_t)states * VAEL_DFA_STATE_SIZE; }

vael_dfa_state *alloc_block(uint32_t states) {
    return static_cast<vael_dfa_state *>(VAEL_PM_KMALLOC(block_bytes(states)));
}

void free_block(vael_dfa_state *block, uint32_t states) {
    if (block)
        VAEL_PM_KFREE(block, block_bytes(states));
}

// The record of a linear id, when the id was given and its block holds it.
vael_dfa_state *state_at(const vael_dfa *dfa, uint32_t block, uint32_t index) {
    if (block >= dfa->num_of_blocks || index >= dfa->block_used[block] || !dfa->blocks[block])
        return nullptr;
    return dfa->blocks[block] + index;
}

void state_free(vael_dfa_state *state) {
    vael_states_list_destroy(state->states_list);
    state->states_list = nullptr;
    state->patterns = vael_dfa_state_free_ids(state->patterns, 0);
}

void destroy_states(vael_dfa *dfa) {
    for (uint32_t id = 0; id < dfa->current_state_id; id++) {
        vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        if (s)
            state_free(s);
    }
}

vael_dfa_state *alloc_and_init(vael_dfa *dfa) {
    if (dfa->block_mode == VAEL_DFA_BLOCK_MODE_GROWING) {
        const uint16_t last = dfa->num_of_blocks ? dfa->num_of_blocks - 1 : 0;
        if (dfa->num_of_blocks == 0 || dfa->block_used[last] == dfa->block_capacity[last]) {
            uint32_t states = VAEL_DFA_BLOCK_STATES;
            if (dfa->flags & VAEL_DFA_SMALL_BLOCKS) {
                // The small block is a byte budget; it never outgrows a full
                // block, which would break the id arithmetic.
                const uint32_t fit =
                    vael_dfa_small_block_size > 0 ? (uint32_t)vael_dfa_small_block_size / VAEL_DFA_STATE_SIZE : 0;
                states = std::clamp<uint32_t>(fit, 1, VAEL_DFA_BLOCK_STATES);
            }
            if (vael_dfa_block_add(dfa, states) != 0)
                return nullptr;
        }
    }
    const uint32_t id = vael_dfa_state_get_new_id(dfa);
    if (id == VAEL_DFA_NO_STATE)
        return nullptr;
    const uint32_t block = dfa->block_mode == VAEL_DFA_BLOCK_MODE_FIXED ? id / VAEL_DFA_BLOCK_STATES
                                                                        : (uint32_t)dfa->num_of_blocks - 1;
    const uint32_t index = id % VAEL_DFA_BLOCK_STATES;
    if (block >= dfa->num_of_blocks || index >= dfa->block_capacity[block]) {
        VAEL_ASSERT_F(0, "%s: no room for state %u\n", id);
        dfa->current_state_id--;
        return nullptr;
    }
    vael_dfa_state *s = dfa->blocks[block] + index;
    std::memset(s, 0, sizeof(*s));
    std::fill(std::begin(s->trans), std::end(s->trans), (uint16_t)VAEL_DFA_NO_STATE);
    s->trans_table_size = VAEL_DFA_TRANS_TABLE_SIZE;
    s->id = (uint16_t)id;
    s->dfa = dfa;
    dfa->block_used[block]++;
    return s;
}

}  // namespace

// ---------------------------------------------------------------- machines

extern "C" vael_dfa *vael_dfa_create(uint32_t flags, vael_pm_error *error) {
    return vael_dfa_create_block_dfa(flags, error, 0, VAEL_DFA_INDEX_SIZE, __func__);
}

extern "C" vael_dfa *vael_dfa_create_block_dfa(uint32_t flags, vael_pm_error *error, uint32_t num_of_states,
                                               uint16_t index_size, const char *caller) {
    if (num_of_states > VAEL_DFA_MAX_BLOCKS * VAEL_DFA_BLOCK_STATES) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal arguments: %u states asked by %s\n", num_of_states,
                 caller ? caller : "?");
        return nullptr;
    }
    vael_dfa *dfa = VAEL_PM_NEW_ZEROED(vael_dfa);
    if (!dfa)
        return nullptr;
    if (vael_pm_stats_common_init(&dfa->stats.common) != 0) {
        VAEL_PM_KFREE(dfa, sizeof(vael_dfa));
        return nullptr;
    }
    dfa->state_limit = VAEL_DFA_DEFAULT_STATE_LIMIT;
    dfa->flags = flags;
    dfa->error = error;
    dfa->index_size = index_size;
    VAEL_LOG(VAEL_DBG_INFO, kTopics, "%s: state size: %d\n", (int)VAEL_DFA_STATE_SIZE);
    for (uint32_t left = num_of_states; left > 0;) {
        const uint32_t states = std::min<uint32_t>(left, VAEL_DFA_BLOCK_STATES);
        if (vael_dfa_block_add(dfa, states) != 0) {
            vael_dfa_destroy(dfa);
            return nullptr;
        }
        left -= states;
    }
    if (num_of_states) {
        dfa->block_mode = VAEL_DFA_BLOCK_MODE_FIXED;
        dfa->max_states = num_of_states;
    } else {
        dfa->block_mode = VAEL_DFA_BLOCK_MODE_GROWING;
        dfa->max_states = VAEL_DFA_MAX_STATES;
    }
    return dfa;
}

extern "C" int vael_dfa_block_add(vael_dfa *dfa, uint32_t states) {
    if (!dfa || states == 0 || states > VAEL_DFA_BLOCK_STATES)
        return -1;
    if (dfa->num_of_blocks >= VAEL_DFA_MAX_BLOCKS) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: can't add more blocks: max blocks reached (%d)\n",
                 (int)VAEL_DFA_MAX_BLOCKS);
        return -1;
    }
    if ((dfa->flags & VAEL_DFA_SMALL_BLOCKS) && dfa->num_of_blocks >= VAEL_DFA_MAX_SMALL_BLOCKS) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: can't add more blocks: max small blocks reached (%d)\n",
                 (int)VAEL_DFA_MAX_SMALL_BLOCKS);
        return -1;
    }
    vael_dfa_state *block = alloc_block(states);
    if (!block)
        return -1;
    dfa->blocks[dfa->num_of_blocks] = block;
    dfa->block_capacity[dfa->num_of_blocks] = (uint16_t)states;
    dfa->block_used[dfa->num_of_blocks] = 0;
    dfa->num_of_blocks++;
    return 0;
}

extern "C" void vael_dfa_destroy(vael_dfa *dfa) {
    if (!dfa)
        return;
    destroy_states(dfa);
    vael_dfa_run_table_free(dfa);
    vael_pm_stats_common_free(&dfa->stats.common);
    for (uint16_t b = 0; b < dfa->num_of_blocks; b++)
        free_block(dfa->blocks[b], dfa->block_capacity[b]);
    VAEL_PM_KFREE(dfa, sizeof(*dfa));
}

extern "C" void vael_dfa_set_state_limit(vael_dfa *dfa, uint32_t limit) {
    if (!dfa) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: dfa %p\n", (void *)dfa);
        return;
    }
    dfa->state_limit = limit ? limit : VAEL_DFA_UNLIMITED_STATE_LIMIT;
}

extern "C" void vael_dfa_set_initial_state(vael_dfa *dfa, vael_dfa_state *state) {
    if (!dfa) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: dfa %p\n", (void *)dfa);
        return;
    }
    dfa->initial_state = state;
}

extern "C" vael_dfa_state *vael_dfa_get_initial_state(const vael_dfa *dfa) { return dfa ? dfa->initial_state : nullptr; }
extern "C" uint32_t vael_dfa_get_num_of_states(const vael_dfa *dfa) { return dfa ? dfa->current_state_id : 0; }
extern "C" uint32_t vael_dfa_get_flags(const vael_dfa *dfa) { return dfa ? dfa->flags : 0; }

extern "C" void vael_dfa_add_flags(vael_dfa *dfa, uint32_t bits) {
    if (dfa)
        dfa->flags |= bits;
}

extern "C" vael_pm_stats_common *vael_dfa_get_common_stats(vael_dfa *dfa) {
    return dfa ? &dfa->stats.common : nullptr;
}

extern "C" int vael_dfa_states_visitor(vael_dfa *dfa, vael_dfa_state_visit_fn fn, void *ctx) {
    if (!dfa || !fn)
        return -1;
    for (uint32_t id = 0; id < dfa->current_state_id; id++) {
        vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        if (!s)
            return -1;
        if (int rc = fn(s, ctx))
            return rc;
    }
    return 0;
}

extern "C" void vael_dfa_clean_states_list(vael_dfa *dfa) {
    if (!dfa)
        return;
    for (uint32_t id = 0; id < dfa->current_state_id; id++) {
        vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        if (s && s->states_list) {
            vael_states_list_destroy(s->states_list);
            s->states_list = nullptr;
        }
    }
}

// ---------------------------------------------------------------- finalize

extern "C" int vael_dfa_transform_state_ids(vael_dfa *dfa) {
    if (dfa->num_of_blocks <= 1)
        return 0;
    for (uint16_t b = 0; b < dfa->num_of_blocks; b++) {
        for (uint32_t i = 0; i < dfa->block_used[b]; i++) {
            vael_dfa_state *s = dfa->blocks[b] + i;
            if (s->properties & VAEL_DFA_STATE_PACKED) {
                VAEL_ASSERT_F(0, "%s: state [%d][%d] already transformed\n", (int)b, (int)i);
                return -1;
            }
            s->properties |= VAEL_DFA_STATE_PACKED;
            for (uint16_t &e : s->trans)
                if (e != VAEL_DFA_NO_STATE && e >= VAEL_DFA_BLOCK_STATES)
                    e = (uint16_t)vael_dfa_linear_to_packed(e);
        }
    }
    return 0;
}

extern "C" vael_dfa *vael_dfa_finalize(vael_dfa *dfa) {
    if (!dfa)
        return nullptr;
    for (uint16_t b = 0; b < dfa->num_of_blocks; b++) {
        const uint32_t used = dfa->block_used[b];
        if (used == dfa->block_capacity[b])
            continue;
        if (b != dfa->num_of_blocks - 1) {
            VAEL_ASSERT_F(0, "%s: A block (%d) which is not last is not full!\n", (int)b);
            vael_dfa_destroy(dfa);
            return nullptr;
        }
        vael_dfa_state *old = dfa->blocks[b];
        vael_dfa_state *cut = nullptr;
        if (used) {
            cut = alloc_block(used);
            if (!cut) {
                VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: failed to allocate the last block (%u states)\n", used);
                vael_dfa_destroy(dfa);
                return nullptr;
            }
            std::memcpy(cut, old, block_bytes(used));
            if (dfa->initial_state >= old && dfa->initial_state < old + used)
                dfa->initial_state = cut + (dfa->initial_state - old);
        }
        free_block(old, dfa->block_capacity[b]);
        dfa->blocks[b] = cut;
        dfa->block_capacity[b] = (uint16_t)used;
        if (!used)
            dfa->num_of_blocks--;  // an empty last block is dropped whole
    }
    if (vael_dfa_transform_state_ids(dfa) != 0) {
        vael_dfa_destroy(dfa);
        return nullptr;
    }
    return dfa;
}

// ---------------------------------------------------------------- validation

extern "C" int vael_dfa_is_valid(vael_dfa *dfa) {
    if (!dfa)
        return 1;
    const uint32_t n = dfa->current_state_id;
    if (!dfa->initial_state) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: dfa is not valid, it has no initial state\n");
        return 0;
    }
    auto visited = VAEL_MAKE_OWNED_ARRAY(uint8_t, n);
    if (!visited) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Could not allocate visited array\n");
        return 0;
    }
    lst_list *queue = vael_queue_create();
    if (!queue) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Could not allocate queue\n");
        return 0;
    }
    int valid = 1;
    const uint32_t first = dfa->initial_state->id;
    if (first >= n || vael_dfa_state_get_by_id(dfa, first) != dfa->initial_state) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: dfa is not valid, initial state %u is not a state of it\n", first);
        valid = 0;
    } else if (vael_enqueue(queue, reinterpret_cast<uintptr_t>(dfa->initial_state)) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Could not allocate queue\n");
        valid = 0;
    } else {
        visited.get()[first] = 1;
    }
    while (valid && vael_queue_size(queue) > 0) {
        const vael_dfa_state *s = reinterpret_cast<const vael_dfa_state *>(vael_dequeue(queue));
        for (uint32_t c = 0; c < VAEL_DFA_TRANS_TABLE_SIZE; c++) {
            const uint16_t e = s->trans[c];
            // A packed table is read by shift and mask; a table still in
            // linear form (a machine not finalized, or one block) by id.
            const vael_dfa_state *t = e == VAEL_DFA_NO_STATE ? nullptr
                                      : (s->properties & VAEL_DFA_STATE_PACKED) ? vael_dfa_state_get_by_id_fast(dfa, e)
                                                                                : vael_dfa_state_get_by_id(dfa, e);
            if (!t) {
                VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: dfa is not valid, state %d has incomplete transition table on %c (%u)\n",
                         (int)s->id, (int)c, c);
                valid = 0;
                break;
            }
            if (!visited.get()[t->id]) {
                visited.get()[t->id] = 1;
                if (vael_enqueue(queue, reinterpret_cast<uintptr_t>(t)) != 0) {
                    VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Could not allocate queue\n");
                    valid = 0;
                    break;
                }
            }
        }
    }
    vael_queue_cleanup(queue);
    if (!valid)
        return 0;
    for (uint32_t id = 0; id < n; id++) {
        if (!visited.get()[id]) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: dfa is not valid, state %d is unreachable\n", (int)id);
            valid = 0;
        }
    }
    return valid;
}

// ---------------------------------------------------------------- duplication

// The target keeps its own run records: only their contents are copied.
extern "C" void vael_dfa_stats_copy(vael_dfa *target, const vael_dfa *source) {
    target->stats.num_of_states = source->stats.num_of_states;
    target->stats.num_of_final_states = source->stats.num_of_final_states;
    vael_pm_stats_common_copy(&target->stats.common, &source->stats.common);
}

extern "C" int vael_dfa_machine_dup(vael_dfa *target, const vael_dfa *source) {
    if (target->initial_state || target->current_state_id) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: called with an initialized machine\n");
        return -1;
    }
    // Blocks of the copy are sized for the source's state count, so each
    // used part fits the block of the same number.
    for (uint16_t b = 0; b < source->num_of_blocks; b++) {
        const uint32_t used = source->block_used[b];
        if (!used)
            continue;
        if (b >= target->num_of_blocks || target->block_capacity[b] < used) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: block %d of %u states does not fit\n", (int)b, used);
            return -1;
        }
        std::memcpy(target->blocks[b], source->blocks[b], block_bytes(used));
        target->block_used[b] = (uint16_t)used;
    }
    for (uint32_t id = 0; id < source->current_state_id; id++) {
        // Read by block and index: the copy's counter is still below id.
        vael_dfa_state *copy = state_at(target, id / VAEL_DFA_BLOCK_STATES, id % VAEL_DFA_BLOCK_STATES);
        const vael_dfa_state *orig = vael_dfa_state_get_by_id(source, id);
        if (!copy || !orig)
            return -1;
        copy->patterns = nullptr;
        copy->states_list = nullptr;
        copy->dfa = target;
        if (orig->states_list) {
            VAEL_ASSERT_F(0, "%s: states list is not NULL (%p)\n", (void *)orig->states_list);
            return -1;
        }
        if (vael_dfa_state_copy_final_ids(copy, orig) != 0)
            return -1;
        target->current_state_id++;
    }
    if (source->initial_state)
        target->initial_state = vael_dfa_state_get_by_id(target, source->initial_state->id);
    return 0;
}

extern "C" vael_dfa *vael_dfa_duplicate(vael_dfa *dfa) {
    if (!dfa) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal arguments: orig_dfa is NULL\n");
        return nullptr;
    }
    vael_dfa *copy = vael_dfa_create_block_dfa(dfa->flags, nullptr, dfa->current_state_id, dfa->index_size, __func__);
    if (!copy)
        return nullptr;
    // The copy's state counter rises as states are copied; its blocks are
    // never grown, so the copy is a fixed-block machine of the same shape.
    copy->state_limit = dfa->state_limit;
    if (vael_dfa_machine_dup(copy, dfa) != 0) {
        vael_dfa_destroy(copy);
        return nullptr;
    }
    if (copy->current_state_id != dfa->current_state_id) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: vael_dfa_machine_dup returned current_state_id %u (in orig_dfa %u)\n",
                 copy->current_state_id, dfa->current_state_id);
        vael_dfa_destroy(copy);
        return nullptr;
    }
    if (dfa->run_next && vael_dfa_run_table_build(copy) != 0) {
        vael_dfa_destroy(copy);
        return nullptr;
    }
    vael_dfa_stats_copy(copy, dfa);
    return copy;
}

// ---------------------------------------------------------------- states

extern "C" uint32_t vael_dfa_state_get_new_id(vael_dfa *dfa) {
    if (dfa->current_state_id >= dfa->max_states) {
        VAEL_ASSERT(0, "Exceeded intrnal max states of dfa, more states in dfa than predefined");
        return VAEL_DFA_NO_STATE;
    }
    return dfa->current_state_id++;
}

extern "C" vael_dfa_state *vael_dfa_state_create(vael_dfa *dfa) {
    if (!dfa) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: dfa %p\n", (void *)dfa);
        return nullptr;
    }
    if (vael_dfa_should_limit_states && dfa->state_limit <= dfa->stats.num_of_states) {
        vael_pm_error_set_details(dfa->error, VAEL_PM_ERROR_COMPLEX, kTooComplex);
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: failed because dfa's state limit (%u states) has been exceeded\n",
                 dfa->state_limit);
        return nullptr;
    }
    vael_dfa_state *s = alloc_and_init(dfa);
    if (!s)
        return nullptr;
    dfa->stats.num_of_states++;
    return s;
}

extern "C" uint32_t vael_dfa_state_get_id(const vael_dfa_state *state) { return state ? state->id : VAEL_DFA_NO_STATE; }
extern "C" vael_dfa *vael_dfa_state_get_dfa(const vael_dfa_state *state) { return state ? state->dfa : nullptr; }
extern "C" uint32_t vael_dfa_state_get_properties(const vael_dfa_state *state) { return state ? state->properties : 0; }

extern "C" vael_dfa_state *vael_dfa_state_get_by_id(const vael_dfa *dfa, uint32_t id) {
    if (!dfa || id >= dfa->current_state_id)
        return nullptr;
    return state_at(dfa, id / VAEL_DFA_BLOCK_STATES, id % VAEL_DFA_BLOCK_STATES);
}

extern "C" vael_dfa_state *vael_dfa_state_get_by_id_fast(const vael_dfa *dfa, uint32_t packed_id) {
    if (!dfa)
        return nullptr;
    return state_at(dfa, packed_id >> VAEL_DFA_PACKED_SHIFT, packed_id & VAEL_DFA_PACKED_INDEX_MASK);
}

extern "C" vael_dfa_state *vael_dfa_state_get_next_state(const vael_dfa_state *state, unsigned char byte) {
    if (!state)
        return nullptr;
    const uint16_t e = state->trans[byte];
    return e == VAEL_DFA_NO_STATE ? nullptr : vael_dfa_state_get_by_id(state->dfa, e);
}

extern "C" vael_dfa_state *vael_dfa_state_get_next_state_one_block(vael_dfa_state *block, const vael_dfa_state *state,
                                                                   unsigned char byte) {
    return block + state->trans[byte];
}

extern "C" int vael_dfa_state_add_trans_ex(vael_dfa_state *source, unsigned char byte, vael_dfa_state *target,
                                           int sensitive) {
    if (!source || !target || byte >= source->trans_table_size) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: source %p, target %p\n", (void *)source, (void *)target);
        return -1;
    }
    if (sensitive) {
        source->trans[byte] = target->id;
    } else {
        source->trans[to_upper(byte)] = target->id;
        source->trans[to_lower(byte)] = target->id;
    }
    return 0;
}

extern "C" int vael_dfa_state_add_trans(vael_dfa_state *source, unsigned char byte, vael_dfa_state *target) {
    return vael_dfa_state_add_trans_ex(source, byte, target, 1);
}

extern "C" int vael_dfa_state_add_trans_insensitive(vael_dfa_state *source, unsigned char byte,
                                                    vael_dfa_state *target) {
    return vael_dfa_state_add_trans_ex(source, byte, target, 0);
}

extern "C" vael_states_list *vael_dfa_state_get_states_list(const vael_dfa_state *state) {
    return state ? state->states_list : nullptr;
}

extern "C" void vael_dfa_state_set_states_list(vael_dfa_state *state, vael_states_list *list) {
    if (state)
        state->states_list = list;
}

extern "C" void vael_dfa_state_set_property(vael_dfa_state *state, uint32_t bits) {
    if (state)
        state->properties |= bits;
}

extern "C" void vael_dfa_state_unset_property(vael_dfa_state *state, uint32_t bits) {
    if (state)
        state->properties &= ~bits;
}

extern "C" int vael_dfa_state_set_correlating_state(vael_dfa_state *state, vael_dfa_state *other) {
    if (!state || !other)
        return -1;
    bool made = false;
    if (!state->states_list) {
        state->states_list = vael_states_list_create();
        if (!state->states_list)
            return -1;
        made = true;
    }
    if (vael_states_list_add(state->states_list, other) != 0) {
        if (made) {
            vael_states_list_destroy(state->states_list);
            state->states_list = nullptr;
        }
        return -1;
    }
    return 0;
}

extern "C" vael_dfa_state *vael_dfa_state_get_correlating_state(const vael_dfa_state *state) {
    return state ? vael_states_list_first(state->states_list) : nullptr;
}

extern "C" vael_dfa_state *vael_dfa_state_move_orig(const vael_dfa_state *state, unsigned char byte) {
    if (!state || !state->states_list)
        return nullptr;
    if (vael_states_list_num_of_elems(state->states_list) != 1) {
        VAEL_ASSERT(0, "number of states is not 1");
        return nullptr;
    }
    return vael_dfa_state_get_next_state(vael_states_list_first(state->states_list), byte);
}

// ---------------------------------------------------------------- final states

extern "C" vael_dfa_pattern_id *vael_dfa_state_free_ids(vael_dfa_pattern_id *head, uint32_t count) {
    for (uint32_t n = 0; head && (count == 0 || n < count); n++) {
        vael_dfa_pattern_id *next = head->next;
        VAEL_PM_KFREE(head, sizeof(*head));
        head = next;
    }
    return head;
}

extern "C" int vael_dfa_state_pattern_id_exist(const vael_dfa_state *state, int32_t pattern_id) {
    for (const vael_dfa_pattern_id *p = state->patterns; p; p = p->next)
        if (p->pattern_id == pattern_id)
            return 1;
    return 0;
}

extern "C" int vael_dfa_state_add_pattern_id(vael_dfa_state *state, int32_t pattern_id, uint32_t flags, uint32_t len) {
    if (vael_dfa_state_pattern_id_exist(state, pattern_id))
        return 1;
    auto *rec = static_cast<vael_dfa_pattern_id *>(VAEL_PM_KMALLOC(sizeof(vael_dfa_pattern_id)));
    if (!rec) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: vael_pmglob_memory_kmalloc returned NULL (allocating pattern_id)\n");
        return -1;
    }
    *rec = vael_dfa_pattern_id{pattern_id, nullptr, flags, len};
    vael_dfa_pattern_id **link = &state->patterns;
    while (*link)
        link = &(*link)->next;
    *link = rec;
    return 0;
}

extern "C" int vael_dfa_state_set_final(vael_dfa_state *state, int32_t pattern_id, uint32_t flags, uint32_t len) {
    if (!state) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: state %p\n", (void *)state);
        return -1;
    }
    const int rc = vael_dfa_state_add_pattern_id(state, pattern_id, flags, len);
    if (rc < 0) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Could not add the pattern_id %d to final state %d\n", (int)pattern_id,
                 (int)state->id);
        return -1;
    }
    state->properties |= VAEL_DFA_STATE_FINAL;
    state->dfa->stats.num_of_final_states++;
    return rc;
}

extern "C" int vael_dfa_state_set_anchored_final(vael_dfa_state *state, int32_t pattern_id) {
    const int rc = vael_dfa_state_set_final(state, pattern_id, 0, 0);
    if (rc >= 0)
        state->properties |= VAEL_DFA_STATE_ANCHORED_FINAL;
    return rc;
}

extern "C" int vael_dfa_state_set_final_ex(vael_dfa_state *state, int32_t pattern_id, int anchored) {
    return anchored ? vael_dfa_state_set_anchored_final(state, pattern_id) : vael_dfa_state_set_final(state, pattern_id, 0, 0);
}

extern "C" int vael_dfa_state_is_final(const vael_dfa_state *state) {
    return state && (state->properties & VAEL_DFA_STATE_FINAL) ? 1 : 0;
}

extern "C" int vael_dfa_state_is_anchored_final(const vael_dfa_state *state) {
    constexpr uint32_t both = VAEL_DFA_STATE_FINAL | VAEL_DFA_STATE_ANCHORED_FINAL;
    return state && (state->properties & both) == both ? 1 : 0;
}

extern "C" int vael_dfa_state_copy_final_ids(vael_dfa_state *target, const vael_dfa_state *source) {
    if (!target || !source)
        return -1;
    // Records are added at the end; on failure the ones this call added are
    // taken off again, which leaves the target's list as it was.
    vael_dfa_pattern_id **tail = &target->patterns;
    while (*tail)
        tail = &(*tail)->next;
    for (const vael_dfa_pattern_id *p = source->patterns; p; p = p->next) {
        if (vael_dfa_state_set_final(target, p->pattern_id, p->flags, p->len) < 0) {
            *tail = vael_dfa_state_free_ids(*tail, 0);
            return -1;
        }
    }
    return 0;
}

extern "C" const vael_dfa_pattern_id *vael_dfa_state_get_pattern_ids(const vael_dfa_state *state) {
    return state ? state->patterns : nullptr;
}
extern "C" const vael_dfa_pattern_id *vael_dfa_pattern_id_next(const vael_dfa_pattern_id *rec) {
    return rec ? rec->next : nullptr;
}
extern "C" int32_t vael_dfa_pattern_id_get_id(const vael_dfa_pattern_id *rec) { return rec ? rec->pattern_id : -1; }

// ---------------------------------------------------------------- states lists

extern "C" int vael_states_list_compare(uintptr_t a, uintptr_t b) {
    const uint16_t ia = reinterpret_cast<const vael_dfa_state *>(a)->id;
    const uint16_t ib = reinterpret_cast<const vael_dfa_state *>(b)->id;
    return ia == ib ? 1 : ia < ib ? -1 : 0;
}

extern "C" vael_states_list *vael_states_list_create(void) {
    lst_list *list = lst_create();
    if (list)
        lst_set_comparator(list, vael_states_list_compare);
    return list;
}

extern "C" void vael_states_list_destroy(vael_states_list *list) { lst_destroy(list); }
extern "C" int vael_states_list_is_empty(vael_states_list *list) { return lst_nelements(list) == 0; }
extern "C" uint32_t vael_states_list_num_of_elems(vael_states_list *list) { return (uint32_t)lst_nelements(list); }

extern "C" int vael_states_list_in(vael_states_list *list, const vael_dfa_state *state) {
    if (!list || !state)
        return 0;
    uintptr_t found = 0;
    return lst_lookup(list, nullptr, reinterpret_cast<uintptr_t>(state), &found) ? 1 : 0;
}

extern "C" int vael_states_list_add(vael_states_list *list, vael_dfa_state *state) {
    if (!list || !state)
        return -1;
    // A set: a second insertion of one state would make two equal sets
    // differ, and their hash keys with them.
    if (vael_states_list_in(list, state))
        return 0;
    return lst_insert_ascending(list, reinterpret_cast<uintptr_t>(state)) ? 0 : -1;
}

extern "C" int vael_states_list_iterate(vael_states_list *list, vael_states_list_fn fn, void *ctx) {
    if (!fn)
        return -1;
    uintptr_t v = 0;
    for (lst_cursor c = lst_iterate(list, nullptr, &v); c; c = lst_iterate(list, c, &v))
        if (fn(reinterpret_cast<vael_dfa_state *>(v), ctx) != 0)
            return -1;
    return 0;
}

extern "C" int vael_states_list_are_equal(vael_states_list *a, vael_states_list *b) {
    if (!a || !b || lst_nelements(a) != lst_nelements(b))
        return 0;
    uintptr_t va = 0;
    uintptr_t vb = 0;
    lst_cursor cb = nullptr;
    for (lst_cursor ca = lst_iterate(a, nullptr, &va); ca; ca = lst_iterate(a, ca, &va)) {
        cb = lst_iterate(b, cb, &vb);
        if (!cb || reinterpret_cast<vael_dfa_state *>(va)->id != reinterpret_cast<vael_dfa_state *>(vb)->id)
            return 0;
    }
    return 1;
}

extern "C" vael_dfa_state *vael_states_list_remove(vael_states_list *list) {
    uintptr_t v = 0;
    return list && lst_remove_at_start(list, &v) == 1 ? reinterpret_cast<vael_dfa_state *>(v) : nullptr;
}

extern "C" vael_dfa_state *vael_states_list_first(vael_states_list *list) {
    return list ? reinterpret_cast<vael_dfa_state *>(lst_data(lst_first(list))) : nullptr;
}

extern "C" int vael_states_list_append(vael_states_list *source, vael_states_list *target) {
    if (!source || !target)
        return -1;
    uintptr_t v = 0;
    for (lst_cursor c = lst_iterate(source, nullptr, &v); c; c = lst_iterate(source, c, &v))
        if (!lst_insert_at_end(target, v))
            return -1;
    return 0;
}
