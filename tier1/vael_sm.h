/*
 * vael_sm.h - SM, the string matcher: the other engine of the string row of
 * the first-tier table, picked at start when vael_pm_tier1_use_thin_nfa is 0.
 *
 * SM compiles the list of strings into an Aho-Corasick automaton with every
 * transition written out (each state has all 256 targets, the fail links
 * folded in) and keeps it in the automaton store of the DFA. It has no state
 * format, run loop or image of its own: a run is the DFA's run, one table
 * load per byte, and its image is the DFA image ("DZRS"). Against the Thin
 * NFA it trades memory (a full table per state) for a single run path.
 *
 * Caseless and digitless compiles fold the caller's list in place before
 * the trie is built; the other forms of a folded byte are then added as
 * transitions of their own, so a run never translates its input.
 */
#ifndef VAEL_SM_H
#define VAEL_SM_H

#include <stdint.h>

#include "pm/vael_pm_internal.h"
#include "vael/vael_dfa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Dump formats of vael_sm_dump. */
#define VAEL_SM_DUMP_XML 0 /* JFLAP 6.0 XML */
#define VAEL_SM_DUMP_CSV 1

/* Fills one row of the first-tier table. Always 0. */
int vael_sm_init(vael_pm_tier1_funcs *row);
void vael_sm_fini(void);

/* The automaton of the list, finalized, or null with the reason in `error`.
 * With VAEL_PM_CASELESS or VAEL_PM_DIGITLESS in compile_flags the strings
 * of `patterns` are folded in place. */
vael_dfa *vael_sm_compile(vael_pmglob_patterns *patterns, uint32_t compile_flags, vael_pm_error *error);
/* Prints the automaton through the debug output. 0 or -1 (also for an
 * unknown format). */
int vael_sm_dump(vael_dfa *dfa, int format);

/* The compile's steps, for tests. 0 or -1. */
int vael_sm_add_pattern_to_trie(vael_dfa *dfa, const vael_pmglob_string *string);
int vael_sm_build_dfa(vael_dfa *dfa);
int vael_sm_post_compile(vael_dfa *dfa, uint32_t compile_flags);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_SM_H */
