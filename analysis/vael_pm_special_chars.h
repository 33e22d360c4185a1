/*
 * vael_pm_special_chars.h - the LSS that a caller wrote, read as a small
 * language of its own and turned into an LSS object of plain strings.
 *
 * The language is the REM syntax restricted to plain characters, escapes,
 * concatenation and alternation: "ab\x41|cd" means the two strings abA and
 * cd. Every repetition, every true class, an empty operand and an
 * alternation joined to anything else ("(a|b)c") are refused. A leading '^'
 * and a trailing '$' are anchors. With `literal` the text is one string,
 * byte for byte.
 */
#ifndef VAEL_PM_SPECIAL_CHARS_H
#define VAEL_PM_SPECIAL_CHARS_H

#include <stdint.h>

#include "analysis/vael_pm_lss_finder.h"
#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Builds the evaluator table; also starts the REM parser. 0 or -1. */
int vael_pm_special_chars_init(void);
void vael_pm_special_chars_fini(void);

/* An LSS object whose candidates (flags 0) are the strings the text denotes,
 * in text order; null for a refused text, bad arguments or out of memory.
 * `literal`: the whole text is one candidate. `digitless`: a candidate with a
 * digit sets the digitless mark, its text unchanged. *anchors gets the
 * VAEL_PM_LSS_START_ANCHOR and VAEL_PM_LSS_END_ANCHOR of the text. The
 * string's own VAEL_PM_UTF8 flag reads escapes and characters as UTF-8. */
vael_pm_lss *vael_pm_special_chars_create_normalized_lss(const vael_pmglob_string *lss, uint32_t literal,
                                                         uint32_t digitless, uint32_t *anchors);

/* The parse alone: a list of candidates (element destructor
 * vael_pm_lss_candidate_destructor) or null. */
lst_list *vael_pm_special_chars_find_normalized_patterns(const unsigned char *text, uint32_t length,
                                                         uint32_t flags);

/* As the two above, with *refused 1 when the null result is the text's own
 * fault (it breaks the language) and 0 when an allocation failed. */
vael_pm_lss *vael_pm_special_chars_read_lss(const vael_pmglob_string *lss, uint32_t literal, uint32_t digitless,
                                            uint32_t *anchors, int *refused);
lst_list *vael_pm_special_chars_parse(const unsigned char *text, uint32_t length, uint32_t flags, int *refused);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_SPECIAL_CHARS_H */
