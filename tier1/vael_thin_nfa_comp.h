/*
 * vael_thin_nfa_comp.h - the compile-time records of the Thin NFA: the trie
 * of states with their children and fail states, shared by the compile (trie
 * and fail states) and the build (the BNFA layout). They all die when the
 * compile ends.
 */
#ifndef VAEL_THIN_NFA_COMP_H
#define VAEL_THIN_NFA_COMP_H

#include <stdint.h>

#include "tier1/vael_thin_nfa_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define THIN_NFA_STATE_FULL 0x1u    /* gets a full table in the BNFA */
#define THIN_NFA_STATE_FINITE 0x2u  /* some pattern ends here */
#define THIN_NFA_STATE_INITIAL 0x4u /* the root */
#define THIN_NFA_STATE_CONTIG 0x8u  /* the end of a run of one byte that starts at the root */

/* States live in blocks that never move, so state pointers stay valid. */
#define THIN_NFA_BLOCK_STATES 1000u
#define THIN_NFA_MAX_BLOCKS 1000u

/* Bit 0 of vael_thin_nfa_comp.flags: fail states are calculated. */
#define THIN_NFA_COMP_FAIL_STATES_DONE 0x1u

typedef struct vael_thin_nfa_state {
    uint32_t state_id;
    uint32_t flags;                        /* THIN_NFA_STATE_* */
    uint32_t depth;                        /* length of the string that leads here */
    vael_thin_nfa_pattern_id *pattern_ids; /* patterns that end here */
    struct vael_thin_nfa_state *bfs_next;  /* link of the breadth-first queue */
    struct vael_thin_nfa_state *first_child; /* children by ascending byte */
    uint32_t trans_num;                    /* number of children */
    struct vael_thin_nfa_state *fail_state; /* null only for the root */
    struct vael_thin_nfa_state *next_sibling;
    unsigned char trans_char;              /* the (translated) byte that leads here */
    const unsigned char *pattern;          /* text of the pattern that made this state, for names */
} vael_thin_nfa_state;

typedef struct vael_thin_nfa_comp {
    vael_thin_nfa_state *initial_state;
    uint32_t state_num;
    uint32_t finite_state_num;
    vael_pm_error *error;
    uint32_t flags;             /* THIN_NFA_COMP_* */
    unsigned char *xlation_tab; /* 256 canonical bytes then 256 reverse-ring bytes, or null */
    vael_thin_nfa_state *state_blocks[THIN_NFA_MAX_BLOCKS];
} vael_thin_nfa_comp;

/* The state after `state` in ID order; the first for null; null after the last. */
vael_thin_nfa_state *vael_thin_nfa_get_subsequent_state(vael_thin_nfa_comp *comp, vael_thin_nfa_state *state);
vael_thin_nfa_state *vael_thin_nfa_comp_get_next_state(vael_thin_nfa_comp *comp, vael_thin_nfa_state *state,
                                                       unsigned char byte);
/* The Aho-Corasick go function: the state reached from `state` by `byte`,
 * following fail states; the root when nothing else. */
vael_thin_nfa_state *vael_thin_nfa_calc_transition(vael_thin_nfa_comp *comp, vael_thin_nfa_state *state,
                                                   unsigned char byte);
/* A trace name of a state; valid until four more names are made on this thread. */
const char *vael_thin_nfa_state_name(const vael_thin_nfa_state *state);

vael_thin_nfa *vael_thin_nfa_build_bnfa(vael_thin_nfa_comp *comp);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_THIN_NFA_COMP_H */
