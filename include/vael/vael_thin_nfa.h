/*
 * vael_thin_nfa.h - the Thin NFA, the default first-tier string engine.
 *
 * An Aho-Corasick automaton in a compact binary form (the BNFA): states near
 * the root carry full 256-entry tables, deep states a short sorted transition
 * list and a fail state. vael_thin_nfa_compile builds it from a list of
 * strings; vael_thin_nfa_exec scans data and queues one vael_pmglob_match_data
 * per hit, reporting through the queue only.
 */
#ifndef VAEL_THIN_NFA_H
#define VAEL_THIN_NFA_H

#include <stdint.h>

#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vael_thin_nfa vael_thin_nfa;

/* Tunables, read at compile time. */
extern int vael_thin_nfa_full_tiers_num;        /* states shallower than this are full; default 2 */
extern int vael_thin_nfa_max_partial_trans;     /* more transitions than this make a state full; default 63 */
extern int vael_thin_nfa_optimize_contig_chars; /* ends of one-byte runs from the root are full; default 1 */
/* Read at each run: 0 the automaton reads every byte; 1 (default) a candidate
 * search skips input where no pattern can start, with AVX2 where the CPU has
 * it; 2 the same with the plain search. Results never differ. */
extern int vael_thin_nfa_prefilter;

/* compile_flags: VAEL_PM_CASELESS, VAEL_PM_DIGITLESS. Each string's id is
 * reported, its flags are the LSS flags. Null on failure, with the text in
 * err. */
vael_thin_nfa *vael_thin_nfa_compile(vael_pmglob_patterns *patterns, uint32_t compile_flags, vael_pm_error *err);
void vael_thin_nfa_destroy(vael_thin_nfa *nfa);

/* Scans the stream vbuf + buffer from stream offset `offset`. Hits go to
 * *matches (created at the first hit). Result 0 or -1. */
int vael_thin_nfa_exec(vael_thin_nfa *nfa, const unsigned char *buffer, uint32_t length, vael_vbuf *vbuf,
                       uint32_t offset, lst_list **matches, uint32_t flags, const vael_pm_mask *mask);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_THIN_NFA_H */
