/*
 * vael_rem_tier.h - the REM second tier: a pattern wrapped by its anchors and
 * parsed into an NFA, made a DFA by subset construction, minimized and
 * finalized. The tier's handle is that DFA; the frame reaches it through
 * row 0 of pm_tier2_funcs, which vael_rem_init fills.
 *
 * Every final state of a REM DFA carries the id VAEL_PM_REM_DEFAULT_ID (-1):
 * the frame knows the pattern from its own array. A run reports into a match
 * queue, and a match's start is found apart, by vael_dfa_match_start_find.
 */
#ifndef VAEL_REM_TIER_H
#define VAEL_REM_TIER_H

#include <stdint.h>

#include "pm/vael_pm_internal.h"
#include "vael/vael_dfa.h"
#include "vael/vael_rem.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- pattern to NFA */

int vael_rem_pattern2nfa_init(void);
void vael_rem_pattern2nfa_fini(void);
/* The text wrapped by its anchors: prefix, '(', the pattern without a
 * leading '^' or a trailing unescaped '$', ')', suffix; no terminator. The
 * outs tell whether '$' and '^' were taken off and the distance from the
 * buffer's start to the pattern. Null for a null or empty pattern or out of
 * memory. Freed with qx_kfree_(buf, *size). */
unsigned char *vael_rem_get_anchored_buf(const vael_pmglob_string *pattern, uint32_t *size, uint32_t flags,
                                         int *dollar, int *caret, uint32_t *prefix_size);
/* A finalized environment, or null with the words for the user in error. */
vael_nfa_env *vael_rem_pattern2nfa(const vael_pmglob_string *pattern, uint32_t flags, vael_pm_error *error);
/* Wraps a fragment in an operand token; the fragment dies if the token
 * cannot be made. */
vael_rem_token *vael_rem_create_nfa_token(vael_rem_parser *parser, vael_nfa *nfa);
vael_rem_token *vael_rem_create_nfa_token_by_range(vael_rem_token *range_token, vael_rem_parser *parser);
void vael_rem_pattern2nfa_nfa_destroy(uintptr_t extra);

/* ---------------------------------------------------------------- the tier */

int vael_rem_init(vael_pm_tier2_funcs *row);
void vael_rem_fini(void);
/* compile_flags: the low bits of the wrapping and the lexer (0x1 dot-all,
 * 0x8/0x10/0x20 line end, 0x40 MULTILINE); of pattern_flags only
 * VAEL_PM_CASELESS is read. A finalized DFA or null. */
void *vael_rem_compile(vael_pmglob_string *pattern, uint32_t compile_flags, uint32_t pattern_flags,
                       vael_pm_error *error);
/* Slot 14 of the row: format 0 dumps the DFA as JFLAP XML, 1 as CSV. 0 or -1. */
int vael_rem_dump(void *dfa, int format);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_REM_TIER_H */
