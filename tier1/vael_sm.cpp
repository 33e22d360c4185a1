// vael_sm.cpp - SM, the string matcher (see vael_sm.h): its row of the
// first-tier table, the compile from a list of strings to a complete
// Aho-Corasick automaton in the DFA store, and its dumps.
//
// The compile builds a byte trie from the initial state, then writes every
// missing transition breadth first: a state's missing byte goes where its
// fail state goes on that byte. The fail state is shallower, so its table is
// complete by the time it is read. Each state also takes the final ids of
// its fail state, so a run reports every string that ends at a byte without
// walking fail links. What the row runs, copies, stores and checks is the
// DFA's own code; only the image loader is wrapped, to tell a Thin NFA image
// from a damaged one.

#include "tier1/vael_sm.h"

#include <cstring>

#include "rem/vael_dfa_internal.h"
#include "runtime/vael_runtime.h"

namespace {

const char kTopics[] = "K_SM | K_PM | K_ERROR";

const char kErrState[] = "Failed to allocate state";
const char kErrBuild[] = "Failed to build the string matcher";
const char kErrEmptyPattern[] = "Empty pattern";
const char kErrTooManyStates[] = "The strings need more states than the string matcher can hold";

constexpr uint32_t kThinNfaMagic = 0x53525A4Eu; // "NZRS"

// The error record keeps the first message; a failure deeper down that
// left none gets the general one.
void note_failure(vael_pm_error *error, const char *text) {
    vael_pm_error_set_details(error, VAEL_PM_ERROR_INTERNAL, text);
}

// The target of a state of a machine being built, by linear id.
vael_dfa_state *next_of(const vael_dfa_state *s, unsigned char c) { return vael_dfa_state_get_next_state(s, c); }

int sm_update_upper_chars(vael_dfa_state *state, void *) {
    for (unsigned c = 'A'; c <= 'Z'; c++) {
        vael_dfa_state *next = next_of(state, (unsigned char)(c + ('a' - 'A')));
        VAEL_ASSERT(next, "next_state must be valid");
        if (!next || vael_dfa_state_add_trans(state, (unsigned char)c, next) != 0)
            return -1;
    }
    return 0;
}

int sm_update_digit_chars(vael_dfa_state *state, void *) {
    vael_dfa_state *zero = next_of(state, '0');
    VAEL_ASSERT(zero, "zero next_state must be valid");
    if (!zero)
        return -1;
    for (unsigned c = '1'; c <= '9'; c++)
        if (vael_dfa_state_add_trans(state, (unsigned char)c, zero) != 0)
            return -1;
    return 0;
}

// ---------------------------------------------------------------- the row

void *sm_compile(vael_pmglob_patterns *list, uint32_t compile_flags, vael_pm_error *err) {
    return vael_sm_compile(list, compile_flags, err);
}

void *sm_duplicate(void *h) { return vael_dfa_duplicate(static_cast<vael_dfa *>(h)); }

uint32_t sm_serialize_size(void *h) { return vael_dfa_calculate_size(static_cast<vael_dfa *>(h)); }

int sm_serialize(void *h, unsigned char **position, uint32_t *space) {
    return vael_dfa_serialize(static_cast<vael_dfa *>(h), position, space);
}

// A PM image holds the image of the engine that wrote it; a Thin NFA piece
// is refused by name before the DFA loader would call it a bad magic.
void *sm_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    if (!vbuf && position && *position && space && *space >= 4) {
        uint32_t magic;
        std::memcpy(&magic, *position, 4);
        if (magic == kThinNfaMagic) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Trying to deserialize a Thin NFA, not an SM DFA (%x)\n", magic);
            return nullptr;
        }
    }
    vael_dfa *dfa = vael_dfa_deserialize(position, space, vbuf, iter);
    if (dfa && vael_dfa_run_table_build(dfa) != 0) {
        vael_dfa_destroy(dfa);
        return nullptr;
    }
    return dfa;
}

int sm_is_valid(void *h) { return vael_dfa_is_valid(static_cast<vael_dfa *>(h)); }

void sm_destroy(void *h) { vael_dfa_destroy(static_cast<vael_dfa *>(h)); }

void sm_stats_print(void *h, int level) { vael_dfa_stats_print(static_cast<vael_dfa *>(h), level); }

vael_pm_stats_common *sm_common_stats(void *h) { return vael_dfa_get_common_stats(static_cast<vael_dfa *>(h)); }

void sm_dump(void *h, int format) { vael_sm_dump(static_cast<vael_dfa *>(h), format); }

// The run queues a final id as an index into the PM's patterns without a
// test, so a loaded image's largest id is what the frame checks. A negative
// id reads as a huge one and is refused with the rest.
uint32_t sm_id_bound(void *h) {
    const vael_dfa *dfa = static_cast<const vael_dfa *>(h);
    uint32_t bound = 0;
    for (uint32_t id = 0; id < dfa->current_state_id; id++) {
        const vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        for (const vael_dfa_pattern_id *rec = s ? s->patterns : nullptr; rec; rec = rec->next) {
            const uint32_t n = (uint32_t)rec->pattern_id;
            if (n >= bound)
                bound = n == UINT32_MAX ? UINT32_MAX : n + 1;
        }
    }
    return bound;
}

}  // namespace

extern "C" int vael_sm_init(vael_pm_tier1_funcs *row) {
    static const vael_pm_tier1_funcs kRow = {
        "SM",
        sm_compile,
        vael_dfa_tier1_exec,
        sm_duplicate,
        sm_serialize_size,
        sm_serialize,
        sm_deserialize,
        sm_is_valid,
        sm_destroy,
        sm_stats_print,
        sm_common_stats,
        sm_dump,
        sm_id_bound,
        0,
    };
    *row = kRow;
    return 0;
}

extern "C" void vael_sm_fini(void) {}

// ---------------------------------------------------------------- compile

extern "C" int vael_sm_add_pattern_to_trie(vael_dfa *dfa, const vael_pmglob_string *string) {
    vael_dfa_state *state = vael_dfa_get_initial_state(dfa);
    const unsigned char *bytes = vael_pmglob_string_get_pattern(string);
    const uint32_t size = vael_pmglob_string_get_size(string);
    const int32_t id = vael_pmglob_string_get_id(string);
    if (!state)
        return VAEL_ERROR;
    if (size == 0) {
        // The initial state must stay non-final: every byte returns to it.
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Pattern ID %d is empty\n", (int)id);
        vael_pm_error_set_details2(dfa->error, VAEL_PM_ERROR_ILLEGAL, kErrEmptyPattern, id);
        return VAEL_ERROR;
    }
    uint32_t i = 0;
    for (vael_dfa_state *next; i < size && (next = next_of(state, bytes[i])) != nullptr; i++)
        state = next;
    for (; i < size; i++) {
        // The store's ids end here; past it the store would only assert.
        if (vael_dfa_get_num_of_states(dfa) >= VAEL_DFA_MAX_STATES) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Pattern ID %d exceeds the limit of %d states\n", (int)id,
                     (int)VAEL_DFA_MAX_STATES);
            vael_pm_error_set_details2(dfa->error, VAEL_PM_ERROR_COMPLEX, kErrTooManyStates, id);
            return VAEL_ERROR;
        }
        vael_dfa_state *child = vael_dfa_state_create(dfa);
        if (!child) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Function vael_dfa_state_create failed \n");
            note_failure(dfa->error, kErrState);
            return VAEL_ERROR;
        }
        if (vael_dfa_state_add_trans(state, bytes[i], child) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Function vael_dfa_state_add_trans failed \n");
            return VAEL_ERROR;
        }
        state = child;
    }
    const uint32_t flags = vael_pmglob_string_get_flags(string) | VAEL_PM_LITERAL_LSS;
    if (vael_dfa_state_set_final(state, id, flags, size) < 0) {
        note_failure(dfa->error, kErrState);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_sm_build_dfa(vael_dfa *dfa) {
    vael_dfa_state *initial = vael_dfa_get_initial_state(dfa);
    if (!initial) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in function vael_dfa_get_initial_state\n");
        note_failure(dfa->error, kErrBuild);
        return VAEL_ERROR;
    }
    // The build adds transitions only, never states: the count is fixed.
    const uint32_t n = vael_dfa_get_num_of_states(dfa);
    const size_t fail_bytes = sizeof(vael_dfa_state *) * n;
    auto **fail_states = static_cast<vael_dfa_state **>(VAEL_KMALLOC(fail_bytes));
    if (!fail_states) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error allocating fail_states\n");
        note_failure(dfa->error, kErrBuild);
        return VAEL_ERROR;
    }
    std::memset(fail_states, 0, fail_bytes);
    lst_list *queue = vael_queue_create();
    int rc = queue ? VAEL_OK : VAEL_ERROR;
    if (!queue)
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in function vael_enqueue\n");
    fail_states[vael_dfa_state_get_id(initial)] = initial;

    for (unsigned c = 0; c < 256 && rc == VAEL_OK; c++) {
        vael_dfa_state *child = next_of(initial, (unsigned char)c);
        if (child) {
            fail_states[vael_dfa_state_get_id(child)] = initial;
            if (vael_enqueue(queue, reinterpret_cast<uintptr_t>(child)) != 0) {
                VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in function vael_enqueue\n");
                rc = VAEL_ERROR;
            }
        } else if (vael_dfa_state_add_trans(initial, (unsigned char)c, initial) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in function vael_dfa_state_add_trans\n");
            rc = VAEL_ERROR;
        }
    }

    while (rc == VAEL_OK && vael_queue_size(queue) > 0) {
        auto *s = reinterpret_cast<vael_dfa_state *>(vael_dequeue(queue));
        const vael_dfa_state *f = fail_states[vael_dfa_state_get_id(s)];
        for (unsigned c = 0; c < 256 && rc == VAEL_OK; c++) {
            vael_dfa_state *child = next_of(s, (unsigned char)c);
            vael_dfa_state *target = next_of(f, (unsigned char)c);
            if (!child) {
                if (vael_dfa_state_add_trans(s, (unsigned char)c, target) != 0) {
                    VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in function vael_dfa_state_add_trans\n");
                    rc = VAEL_ERROR;
                }
                continue;
            }
            if (vael_enqueue(queue, reinterpret_cast<uintptr_t>(child)) != 0) {
                VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in function vael_enqueue\n");
                rc = VAEL_ERROR;
                continue;
            }
            fail_states[vael_dfa_state_get_id(child)] = target;
            if (vael_dfa_state_is_final(target) && vael_dfa_state_copy_final_ids(child, target) != 0) {
                VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in function vael_dfa_state_copy_final_ids\n");
                rc = VAEL_ERROR;
            }
        }
    }

    if (queue)
        vael_queue_cleanup(queue);
    VAEL_KFREE(fail_states, fail_bytes);
    if (rc != VAEL_OK)
        note_failure(dfa->error, kErrBuild);
    return rc;
}

extern "C" int vael_sm_post_compile(vael_dfa *dfa, uint32_t compile_flags) {
    if (compile_flags & VAEL_PM_CASELESS) {
        if (vael_dfa_states_visitor(dfa, sm_update_upper_chars, nullptr) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: vael_dfa_states_visitor() failed \n");
            return VAEL_ERROR;
        }
    }
    if (compile_flags & VAEL_PM_DIGITLESS) {
        if (vael_dfa_states_visitor(dfa, sm_update_digit_chars, nullptr) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: vael_dfa_states_visitor() failed \n");
            return VAEL_ERROR;
        }
    }
    return VAEL_OK;
}

extern "C" vael_dfa *vael_sm_compile(vael_pmglob_patterns *patterns, uint32_t compile_flags, vael_pm_error *error) {
    if (!patterns) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: patterns %p\n", (void *)patterns);
        note_failure(error, kErrBuild);
        return nullptr;
    }
    if (compile_flags & (VAEL_PM_CASELESS | VAEL_PM_DIGITLESS))
        vael_pmglob_patterns_convert_all_patts_to_lower(patterns, compile_flags);

    vael_dfa *dfa = vael_dfa_create(compile_flags, error);
    if (!dfa) {
        note_failure(error, kErrState);
        return nullptr;
    }
    vael_dfa_set_state_limit(dfa, 0);
    vael_dfa_state *initial = vael_dfa_state_create(dfa);
    if (!initial) {
        note_failure(error, kErrState);
        vael_dfa_destroy(dfa);
        return nullptr;
    }
    vael_dfa_set_initial_state(dfa, initial);

    uintptr_t value;
    for (lst_cursor c = lst_iterate(patterns, nullptr, &value); c; c = lst_iterate(patterns, c, &value)) {
        if (vael_sm_add_pattern_to_trie(dfa, reinterpret_cast<const vael_pmglob_string *>(value)) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Function vael_sm_add_pattern_to_trie failed \n");
            vael_dfa_destroy(dfa);
            return nullptr;
        }
    }
    if (vael_sm_build_dfa(dfa) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Function vael_sm_build_dfa failed \n");
        vael_dfa_destroy(dfa);
        return nullptr;
    }
    if (vael_sm_post_compile(dfa, compile_flags) != 0) {
        note_failure(error, kErrBuild);
        vael_dfa_destroy(dfa);
        return nullptr;
    }
    // A loaded or copied machine has no error record; nor will this one
    // once it is handed out, since the caller's record may not outlive it.
    dfa->error = nullptr;
    vael_dfa *done = vael_dfa_finalize(dfa);
    if (!done) {
        note_failure(error, kErrState);
        return nullptr;
    }
    if (vael_dfa_run_table_build(done) != 0) {
        note_failure(error, kErrState);
        vael_dfa_destroy(done);
        return nullptr;
    }
    return done;
}

// ---------------------------------------------------------------- dumps

extern "C" int vael_sm_dump(vael_dfa *dfa, int format) {
    switch (format) {
        case VAEL_SM_DUMP_XML:
            return vael_dfa_dump_xml(dfa);
        case VAEL_SM_DUMP_CSV:
            return vael_dfa_dump_csv(dfa);
        default:
            VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Invalid dump format %d\n", format);
            return VAEL_ERROR;
    }
}
