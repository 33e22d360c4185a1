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

/* A deep copy, or null. */
vael_thin_nfa *vael_thin_nfa_duplicate(const vael_thin_nfa *nfa);

/* The image ("NZRS"): the BNFA word for word, the pattern lists, the
 * statistics. The size in bytes, 0 for a null handle. */
uint32_t vael_thin_get_serialize_size(const vael_thin_nfa *nfa);
/* Writes the image at *position and moves *position and *space on; -1 with
 * nothing written when *space is short. */
int vael_thin_nfa_serialize(const vael_thin_nfa *nfa, unsigned char **position, uint32_t *space);
/* Reads an image from the flat *position, or from vbuf through *iter when
 * vbuf is given; *space bounds the read either way. The loaded BNFA is
 * validated before it is used: null on any fault. */
vael_thin_nfa *vael_thin_nfa_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                         vael_vbuf_iter *iter);

/* 1 when the BNFA's structure is sound (every link lands on a state, partial
 * transitions form a tree, fail chains end, finite flags match the pattern
 * lists), else 0 with the faults in the debug log. */
int vael_thin_nfa_is_valid(const vael_thin_nfa *nfa);

/* Dumps through the debug print: format 0 JFLAP 6.0 XML, 1 CSV. 0 or -1. */
#define VAEL_THIN_NFA_DUMP_XML 0
#define VAEL_THIN_NFA_DUMP_CSV 1
int vael_thin_nfa_dump(const vael_thin_nfa *nfa, int format);
int vael_thin_nfa_dump_xml(const vael_thin_nfa *nfa);
int vael_thin_nfa_dump_csv(const vael_thin_nfa *nfa);
extern int vael_thin_nfa_csv_printable_only;    /* CSV leaves out non-printable byte columns; default 0 */
extern int vael_thin_nfa_xml_omit_fail_to_init; /* XML leaves out failure edges to the initial state; default 1 */

#ifdef __cplusplus
}
#endif

#endif /* VAEL_THIN_NFA_H */
