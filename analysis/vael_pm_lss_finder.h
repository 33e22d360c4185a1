/*
 * vael_pm_lss_finder.h - the LSS of a regular expression: the strings of
 * which every match must contain one.
 *
 * vael_pm_lss_find runs the REM parser twice with evaluators of its own. In
 * multi mode an expression that is nothing but an alternation of plain
 * strings yields all of them, and they can replace the expression
 * (vael_pm_lss_can_be_used_instead_of_RE). Otherwise single mode yields one
 * string, the longest that every match contains; the expression is still
 * needed as second tier.
 */
#ifndef VAEL_PM_LSS_FINDER_H
#define VAEL_PM_LSS_FINDER_H

#include <stdint.h>

#include "vael/vael_list.h"
#include "vael/vael_pm.h"
#include "vael/vael_rem.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Candidate flags. Both: the sub-expression is exactly this string. */
#define LSS_CAN_AT_START 0x1u /* the string is the very beginning of the sub-expression */
#define LSS_CAN_AT_END   0x2u /* the string is its very end */

/* vael_pm_lss flags. */
#define VAEL_PM_LSS_USED_INSTEAD_OF_RE     0x1u /* a multi LSS: the strings say all the expression says */
#define VAEL_PM_LSS_DIGITLESS_NEED_TIER2   0x2u /* digitless mode lost a digit class: a second tier is needed */

/* Anchors found by the trim, in the pattern-flag bits. */
#define VAEL_PM_LSS_ANCHOR_START VAEL_PM_LSS_START_ANCHOR /* 0x80000: a leading '^' */
#define VAEL_PM_LSS_ANCHOR_END   VAEL_PM_LSS_END_ANCHOR   /* 0x40000: a trailing '$' */

/* The multi-mode status word, the parser's client datum. */
#define VAEL_PM_LSS_NOT_SIMPLE_STRINGS 0x1u /* not a bunch of simple strings */
#define VAEL_PM_LSS_NOT_REPRESENTABLE  0x2u /* cannot be represented */

/* Bounds that keep a short pattern from making long strings. A repeat is
 * spelled out up to VAEL_PM_LSS_MAX_REPEAT_BYTES: past it, as many whole
 * copies as fit stand for it, as for a repeat of unknown count. Two strings
 * are joined only while the result has at most VAEL_PM_LSS_MAX_JOIN_BYTES:
 * past it they stay two strings, each still contained in every match. Multi
 * mode, whose strings must be exact, gives up at either bound. */
#define VAEL_PM_LSS_MAX_REPEAT_BYTES 256u
#define VAEL_PM_LSS_MAX_JOIN_BYTES 4096u

typedef struct vael_pm_lss_candidate {
    unsigned char *str; /* owned, not terminated; null when len is 0 */
    uint32_t len;
    uint32_t flags;     /* LSS_CAN_AT_* */
} vael_pm_lss_candidate;

typedef struct vael_pm_lss {
    vael_pm_lss_candidate *start_can;   /* the last added candidate with LSS_CAN_AT_START */
    vael_pm_lss_candidate *end_can;     /* the last added candidate with LSS_CAN_AT_END */
    vael_pm_lss_candidate *longest_can; /* of the greatest length; of equal ones the first added */
    lst_list *can_list;                 /* all candidates in order of adding; owns them */
    uint32_t flags;                     /* VAEL_PM_LSS_* */
} vael_pm_lss;

/* Builds the two client class arrays; also starts the REM parser. */
int vael_pm_lss_finder_init(void);
void vael_pm_lss_finder_fini(void);

/* The entry: a vael_pm_lss or null. flags are pattern flags (digitless,
 * keep anchors, UTF-8, caseless); *anchors (may be null) gets the
 * VAEL_PM_LSS_ANCHOR_* the trim found. The error's index is relative to the
 * trimmed text. */
vael_pm_lss *vael_pm_lss_find(const unsigned char *pattern, uint32_t length, uint32_t flags, vael_pm_error *err,
                              uint32_t *anchors);
/* The two passes on a trimmed text; the single pass gives its whole result. */
vael_pm_lss *vael_pm_lss_find_multi(const unsigned char *pattern, uint32_t length, uint32_t flags,
                                    vael_pm_error *err, uint32_t *status);
vael_pm_lss *vael_pm_lss_find_single(const unsigned char *pattern, uint32_t length, uint32_t flags,
                                     vael_pm_error *err);
/* Steps over a leading '^' or ".*" and drops a trailing '$' or ".*". */
int vael_pm_lss_trim_patttern(const unsigned char **pattern, uint32_t *length, uint32_t *anchors, uint32_t flags);
/* Whether the LSS stands at an anchor: `with` found with the anchors kept,
 * `plain` without. 0 or -1. */
int vael_pm_lss_get_anchor_flags(const vael_pm_lss *with, const vael_pm_lss *plain, uint32_t *anchors);
/* The candidates as one alternation text, '^' and '$' as the anchor flags
 * say; *out_length bytes, freed with qx_kfree_. */
unsigned char *vael_pm_lss_create_str(const vael_pm_lss *lss, uint32_t flags, uint32_t total_length,
                                      uint32_t *out_length);

vael_pm_lss *vael_pm_lss_create(const char *allocation_label);
void vael_pm_lss_destroy(vael_pm_lss *lss);
/* The class 0 destructor of the finder's tokens. */
void vael_pm_lss_destroy_extra(uintptr_t lss);
int vael_pm_lss_add_candidate(vael_pm_lss *lss, vael_pm_lss_candidate **candidate);
int vael_pm_lss_remove_candidate(vael_pm_lss *lss, vael_pm_lss_candidate *candidate);
int vael_pm_lss_migrate_candidates(vael_pm_lss *from, vael_pm_lss *to, uint32_t mask);
uint32_t vael_pm_lss_cans_num(const vael_pm_lss *lss);
lst_list *vael_pm_lss_get_candidates_list(const vael_pm_lss *lss);
int vael_pm_lss_can_be_used_instead_of_RE(const vael_pm_lss *lss);
void vael_pm_lss_set_used_instead_of_RE(vael_pm_lss *lss);
int vael_pm_lss_digitless_is_need_second_tier(const vael_pm_lss *lss);
void vael_pm_lss_digitless_set_need_second_tier(vael_pm_lss *lss);

vael_pm_lss_candidate *vael_pm_lss_candidate_create_simple(const unsigned char *bytes, uint32_t length);
void vael_pm_lss_candidate_destructor(uintptr_t candidate);
const unsigned char *vael_pm_lss_candidate_get_str(const vael_pm_lss_candidate *candidate);
uint32_t vael_pm_lss_candidate_get_len(const vael_pm_lss_candidate *candidate);
/* Takes the bytes (allocated with qx_kmalloc_ex_ of `length`) and copies nothing. */
void vael_pm_lss_candidate_set_string(vael_pm_lss_candidate *candidate, unsigned char *bytes, uint32_t length);
int vael_pm_lss_candidate_is_digit_in_range(const vael_pm_lss_candidate *candidate);
int vael_pm_lss_candidate_find_common(const vael_pm_lss_candidate *a, const vael_pm_lss_candidate *b,
                                      vael_pm_lss *lss);
/* Consumes lss; the result, or null when out of memory. */
vael_pm_lss *vael_pm_lss_quanitfy(vael_pm_lss *lss, uint32_t min, int exact, vael_rem_parser *parser);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_LSS_FINDER_H */
