// vael_thin_nfa_build.cpp - lays the compiled trie out as the BNFA.
//
// Two passes by ascending state ID give every state its word offset: first
// the full states that are not finite, then all others. A full state's table
// is filled for every raw byte, with fail transitions resolved here, so that
// the run's fast loop is one table load per input byte.

#include "runtime/vael_runtime.h"
#include "tier1/vael_thin_nfa_comp.h"
#include "tier1/vael_thin_nfa_prefilter.h"

namespace {

const char kErrOffsetList[] = "Failed to allocate offset list";
const char kErrBnfa[] = "Failed to allocate BNFA";
const char kErrNotInitial[] = "State 0 not initial";
const char kErrBnfaLimit[] = "State exceeds BNFA limit";
const char kErrPrefilter[] = "Failed to allocate prefilter";

constexpr const char *kThinTopics = "K_THINNFA | K_PM";

bool is_full(const vael_thin_nfa_state *s) { return s->flags & THIN_NFA_STATE_FULL; }
bool is_finite(const vael_thin_nfa_state *s) { return s->flags & THIN_NFA_STATE_FINITE; }

uint64_t state_bytes(const vael_thin_nfa_state *s) {
    return is_full(s) ? BNFA_FULL_STATE_BYTES : BNFA_PARTIAL_HEADER_BYTES + 4ull * s->trans_num;
}

struct Layout {
    uint32_t *offsets = nullptr; // word offset of each state ID
    uint32_t full_size = 0;
    uint32_t size = 0;
    uint32_t states = 0;
};

int vael_bnfa_calc_size(vael_thin_nfa_comp *comp, Layout *layout) {
    size_t bytes = sizeof(uint32_t) * comp->state_num;
    layout->offsets = static_cast<uint32_t *>(VAEL_KMALLOC(bytes));
    if (!layout->offsets) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate offset list for %d states\n",
                 (int)comp->state_num);
        return -1;
    }
    layout->states = comp->state_num;
    uint64_t size = 0;
    for (int pass = 0; pass < 2; pass++) {
        for (vael_thin_nfa_state *s = vael_thin_nfa_get_subsequent_state(comp, nullptr); s;
             s = vael_thin_nfa_get_subsequent_state(comp, s)) {
            bool leading = is_full(s) && !is_finite(s);
            if (leading != (pass == 0))
                continue;
            layout->offsets[s->state_id] = (uint32_t)(size / 4);
            size += state_bytes(s);
        }
        if (pass == 0)
            layout->full_size = (uint32_t)size;
    }
    layout->size = (uint32_t)size;
    return 0;
}

void vael_bnfa_build_partial_trans_table(const vael_thin_nfa_state *state, uint32_t *dest,
                                         const uint32_t *offsets) {
    dest[0] = (state->trans_num & 0xffu) | (offsets[state->fail_state->state_id] << 8);
    uint32_t written = 0;
    for (const vael_thin_nfa_state *c = state->first_child; c; c = c->next_sibling)
        dest[1 + written++] = c->trans_char | (offsets[c->state_id] << 8);
    VAEL_ASSERT_F(written == state->trans_num, "%s: State %s should have %d transitions but has %d\n",
                  vael_thin_nfa_state_name(state), (int)state->trans_num, (int)written);
}

void vael_bnfa_build_full_trans_table(vael_thin_nfa_comp *comp, vael_thin_nfa_state *state, uint32_t *dest,
                                      const uint32_t *offsets) {
    const unsigned char *tab = comp->xlation_tab;
    const unsigned char *rev = tab ? tab + 256 : nullptr;
    vael_thin_nfa_state *child = state->first_child;
    for (int c = 0; c < 256; c++) {
        if (tab && tab[c] != c)
            continue; // filled from its canonical byte
        vael_thin_nfa_state *target;
        if (child && child->trans_char == c) {
            target = child;
            child = child->next_sibling;
        } else {
            target = vael_thin_nfa_calc_transition(comp, state->fail_state, (unsigned char)c);
        }
        uint32_t entry = offsets[target->state_id];
        dest[c] = entry;
        if (!tab)
            continue;
        // Every raw byte of the group gets the canonical byte's entry.
        int steps = 0;
        for (int b = rev[c]; b != c; b = rev[b]) {
            if (++steps > 256) {
                VAEL_ASSERT_F(0, "%s: Too many characters translate into %02x\n", c);
                break;
            }
            dest[b] = entry;
        }
    }
}

int vael_bnfa_add_state(vael_thin_nfa_comp *comp, vael_thin_nfa_state *state, uint32_t *bnfa,
                        const Layout &layout) {
    uint32_t offset = layout.offsets[state->state_id];
    uint64_t end = 4ull * offset + state_bytes(state);
    if (end > layout.size) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: State %s, %s with %d transitions, size %d should be %d\n",
                 vael_thin_nfa_state_name(state), is_full(state) ? "full" : "partial", (int)state->trans_num,
                 (int)state_bytes(state), (int)(layout.size - 4ull * offset));
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to add state %d at offset %d of %d\n", (int)state->state_id,
                 (int)offset, (int)layout.size);
        return -1;
    }
    uint32_t *dest = bnfa + offset;
    dest[0] = (state->state_id << BNFA_STATE_ID_SHIFT) | (is_finite(state) ? BNFA_STATE_FINITE : 0) |
              (is_full(state) ? 0 : BNFA_STATE_PARTIAL);
    if (is_full(state))
        vael_bnfa_build_full_trans_table(comp, state, dest + 1, layout.offsets);
    else
        vael_bnfa_build_partial_trans_table(state, dest + 1, layout.offsets);
    return 0;
}

int vael_bnfa_fill_states(vael_thin_nfa_comp *comp, vael_thin_nfa *nfa, const Layout &layout) {
    vael_thin_nfa_state *first = vael_thin_nfa_get_subsequent_state(comp, nullptr);
    if (!first || first->state_id != 0 || !(first->flags & THIN_NFA_STATE_INITIAL)) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: The first state %s is not initial\n",
                 vael_thin_nfa_state_name(first));
        vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrNotInitial);
        return -1;
    }
    for (vael_thin_nfa_state *s = first; s; s = vael_thin_nfa_get_subsequent_state(comp, s)) {
        // The handle owns the pattern list from here on.
        nfa->pattern_ids[s->state_id] = s->pattern_ids;
        s->pattern_ids = nullptr;
        if (vael_bnfa_add_state(comp, s, nfa->bnfa, layout) != 0) {
            vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrBnfaLimit);
            return -1;
        }
    }
    return 0;
}

}  // namespace

extern "C" vael_thin_nfa *vael_thin_nfa_build_bnfa(vael_thin_nfa_comp *comp) {
    Layout layout;
    if (vael_bnfa_calc_size(comp, &layout) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Error allocating the offset list\n");
        vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrOffsetList);
        return nullptr;
    }
    vael_thin_nfa *nfa = vael_thin_nfa_create(comp->state_num, layout.size, layout.full_size);
    if (!nfa) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Error creating the NFA\n");
        vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrBnfa);
    } else if (vael_bnfa_fill_states(comp, nfa, layout) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: vael_bnfa_fill_states failed\n");
        vael_thin_nfa_destroy(nfa);
        nfa = nullptr;
    } else {
        if (comp->xlation_tab) {
            for (int i = 0; i < 256; i++)
                nfa->xlation_tab[i] = comp->xlation_tab[i];
            nfa->flags |= THIN_NFA_FLAG_XLATION;
        }
        nfa->stats.num_states = comp->state_num;
        nfa->stats.num_final_states = comp->finite_state_num;
        // The candidate filter is derived from the finished BNFA alone, as a
        // copied or loaded handle derives it again.
        if (vael_thin_nfa_prefilter_build(nfa) != 0) {
            vael_pm_error_set_details(comp->error, VAEL_PM_ERROR_INTERNAL, kErrPrefilter);
            vael_thin_nfa_destroy(nfa);
            VAEL_KFREE(layout.offsets, sizeof(uint32_t) * layout.states);
            return nullptr;
        }
        VAEL_LOG(VAEL_DBG_NOTICE, "K_THINNFA", "%s: %u states, %u final, BNFA %u bytes of which %u in full states\n",
                 nfa->state_num, nfa->stats.num_final_states, nfa->bnfa_size, nfa->bnfa_full_size);
    }
    VAEL_KFREE(layout.offsets, sizeof(uint32_t) * layout.states);
    return nfa;
}
