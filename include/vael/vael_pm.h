/*
 * vael_pm.h - the pattern matcher: pattern lists, compile, run, destroy.
 *
 * A caller fills a vael_pm_patterns list, compiles it into one PM with
 * vael_pm_compile, runs the PM over data with vael_pm_exec_ex from any number
 * of threads, and receives one callback per match with the user's pattern id
 * and the offset of the match's last byte. Details of a failed compile come
 * back in a vael_pm_error; run-time failures are -1 and a line in the debug
 * log.
 */
#ifndef VAEL_PM_H
#define VAEL_PM_H

#include <stdint.h>

#include "vael/vael_defs.h"
#include "vael/vael_list.h"
#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Pattern flags: one word that serves as the user's pattern flags, as compile
 * flags, and, with the compiler's bits added, as the flags of a string handed
 * to a first-tier engine. */
#define VAEL_PM_DIGITLESS         0x00001000u /* all digits compare equal */
#define VAEL_PM_NO_HISTORY        0x00008000u /* second tier sees the present buffer only */
#define VAEL_PM_NEED_TIER2        0x00010000u /* a first-tier hit is only a candidate */
#define VAEL_PM_LSS_END_ANCHOR    0x00040000u /* the hit counts only at the very end of the data */
#define VAEL_PM_LSS_START_ANCHOR  0x00080000u /* the hit counts only when the string starts the data */
#define VAEL_PM_LSS_KEEP_ANCHORS  0x00100000u /* find the LSS with anchors left in place */
#define VAEL_PM_MULTI_LSS         0x00200000u /* more than one LSS candidate */
#define VAEL_PM_BOUNDED_LEFT      0x00400000u /* bounded pattern with an open left side */
#define VAEL_PM_LITERAL_LSS       0x00800000u /* a final state's hint is the string's own length */
#define VAEL_PM_VERIFY_SYNTAX     0x01000000u /* a syntax verification is running */
#define VAEL_PM_USE_REM           0x02000000u /* second tier is the library's own regex machine */
#define VAEL_PM_BOUND             0x04000000u /* whole words only */
#define VAEL_PM_UTF8              0x08000000u /* the pattern is UTF-8 */
#define VAEL_PM_CASELESS          0x10000000u /* match without regard to case */
#define VAEL_PM_LITERAL           0x20000000u /* a user's LSS is taken byte by byte */
#define VAEL_PM_SHORT_LSS         0x40000000u /* the minimum LSS length does not apply */
#define VAEL_PM_CONTINUOUS_WORD   0x80000000u /* a word is one continuous phrase */

/* Exec flags. Only the bits of VAEL_PM_EXEC_TIER1_MASK reach a first tier. */
#define VAEL_PM_EXEC_LAST_BUFFER        0x00000001u /* this chunk ends the data */
#define VAEL_PM_EXEC_PRESENT_BUFFER     0x00000002u /* this chunk is the present buffer */
#define VAEL_PM_EXEC_CIRCUMFLEX         0x02000000u /* '^' also at the start of the present buffer */
#define VAEL_PM_EXEC_CIRCUMFLEX_ONLY    0x04000000u /* '^' only at the start of the present buffer */
#define VAEL_PM_EXEC_MATCH_START        0x08000000u /* the user wants the match start offset */
#define VAEL_PM_EXEC_FIRST_MATCH_ONLY   0x10000000u /* stop an engine at its first hit */
#define VAEL_PM_EXEC_ALL_MATCHES        0x20000000u /* every hit, not only the first per pattern */
#define VAEL_PM_EXEC_FROM_PM            0x40000000u /* set by the frame for a first tier */
#define VAEL_PM_EXEC_TIER1_MASK         0x6e000000u

/* Values of vael_pm_error.error_type. */
#define VAEL_PM_ERROR_ILLEGAL   0 /* the pattern or rule is illegal: show its text to the author */
#define VAEL_PM_ERROR_INTERNAL  1 /* internal failure or out of memory */
#define VAEL_PM_ERROR_COMPLEX   2 /* the pattern is too complex */

/* Details of a failed compile. The caller owns the record; error_string is a
 * constant text of the library, null when no message was set. The first
 * message set wins, so the deepest failure that speaks is what is seen. */
typedef struct vael_pm_error {
    int32_t pattern_id;       /* user's id of the pattern at fault, -1 when none */
    uint32_t error_type;      /* VAEL_PM_ERROR_* */
    const char *error_string; /* constant text, or null */
    uint32_t error_index;     /* position in the pattern, 0 when unknown */
} vael_pm_error;

void vael_pm_error_init(vael_pm_error *err);
void vael_pm_error_set_details(vael_pm_error *err, uint32_t type, const char *text);
void vael_pm_error_set_details2(vael_pm_error *err, uint32_t type, const char *text, int32_t pattern_id);
void vael_pm_error_set_details3(vael_pm_error *err, uint32_t type, const char *text, int32_t pattern_id,
                                uint32_t index);
void vael_pm_error_set_pattern_id(vael_pm_error *err, int32_t pattern_id);
void vael_pm_error_dump(const vael_pm_error *err);

typedef struct vael_pm_handle vael_pm_handle; /* a compiled PM */
typedef struct vael_pm_mask vael_pm_mask;     /* which patterns of a PM may report */
typedef lst_list vael_pm_patterns;            /* the user's pattern list */

/* The match callback: the user's pattern id and the offset of the match's last
 * byte, counted from the start of the data (the vbuf first, then buf). Writing
 * 0 in *keep_going ends the run with result 0; a non-zero result ends the run
 * and is returned by the exec call. */
typedef int (*vael_pm_match_cb)(vael_pm_handle *pm, int32_t pattern_id, void *user_arg, const unsigned char *buf,
                                uint32_t len, uint32_t offset, vael_vbuf *vbuf, int *keep_going);
/* The extended callback adds the hit's two extra words; the second is the
 * match start when VAEL_PM_EXEC_MATCH_START was asked. */
typedef int (*vael_pm_ext_match_cb)(vael_pm_handle *pm, int32_t pattern_id, void *user_arg,
                                    const unsigned char *buf, uint32_t len, uint32_t offset, vael_vbuf *vbuf,
                                    int *keep_going, uint32_t *extra);

/* Pattern lists. Every add gives 0 or -1, keeps copies (nothing of the
 * caller's memory), and leaves the list as it was when it fails.
 *
 * Metadata: a text that starts with '{' opens a block of items divided by
 * ';' and closed by "}:", before the pattern itself: "caseless" (sets
 * VAEL_PM_CASELESS), "case" (clears it), "literal", "shortlss", "bound", and
 * where allowed "LSS(text)", the pattern's longest simple string. Names match
 * by prefix; unknown items are ignored. Example: "{caseless;LSS(abc)}:a.*bc". */
vael_pm_patterns *vael_pm_patterns_create(void);
/* A plain string; metadata without LSS(. */
int vael_pm_patterns_add_simple_pattern(vael_pm_patterns *patterns, const char *str, uint32_t len, int32_t id,
                                        uint32_t flags);
/* A regular expression; metadata with LSS(. */
int vael_pm_patterns_add_pattern(vael_pm_patterns *patterns, const char *re, uint32_t re_len, int32_t id,
                                 uint32_t flags);
/* A regular expression with its LSS; an LSS( in the metadata replaces lss. */
int vael_pm_patterns_add_pattern_with_LSS(vael_pm_patterns *patterns, const char *lss, uint32_t lss_len,
                                          const char *re, uint32_t re_len, int32_t id, uint32_t flags);
/* A word or phrase for the word matcher; no metadata. */
int vael_pm_patterns_add_word(vael_pm_patterns *patterns, const char *word, uint32_t len, int32_t id,
                              uint32_t flags);
/* A keyword rule (NUL-ended text) with an optional LSS. The no-history form
 * lets the rule see the present buffer only. */
int vael_pm_patterns_add_pattern_kw(vael_pm_patterns *patterns, const char *lss, uint32_t lss_len, const char *rule,
                                    int32_t id);
int vael_pm_patterns_add_pattern_kw_nohistory(vael_pm_patterns *patterns, const char *lss, uint32_t lss_len,
                                              const char *rule, int32_t id);
void vael_pm_patterns_destroy(vael_pm_patterns *patterns);
void vael_pm_patterns_dump(vael_pm_patterns *patterns);

/* Parses the metadata in front of *pattern: on success *pattern and
 * *pattern_len point past it, *flags holds the items' bits, and, when
 * allow_lss and both lss pointers are given, an LSS( item is returned in
 * them (pointing into the pattern's text). 0 or -1. */
int vael_pm_patterns_parse_metadata(const char **lss, uint32_t *lss_len, const char **pattern, uint32_t *pattern_len,
                                    uint32_t *flags, int allow_lss);
/* *has is 1 when the text's metadata sets a flag or gives a non-empty LSS. */
int vael_pm_pattern_has_metadata(const char *pattern, uint32_t len, int *has);

/* Compile. caller names the user in logs and reports and must outlive the
 * PM. match_cb may be null: hits then only count. */
vael_pm_handle *vael_pm_compile(vael_pm_patterns *patterns, vael_pm_match_cb match_cb, uint32_t flags,
                                vael_pm_error *err, const char *caller);
vael_pm_handle *vael_pm_compile_with_wm(vael_pm_patterns *patterns, vael_pm_match_cb match_cb, uint32_t flags,
                                        vael_pm_error *err, const char *caller);
vael_pm_handle *vael_pm_compile_ex(vael_pm_handle *old_pm, vael_pm_patterns *patterns, vael_pm_match_cb match_cb,
                                   uint32_t flags, vael_pm_error *err, const char *caller);
/* A new PM from a new list, taking over the old PM's second tiers where the
 * pattern, its flags and the compile flags are unchanged and the engine
 * allows it; the callbacks are the old PM's. The old PM stays alive. */
vael_pm_handle *vael_pm_update(vael_pm_handle *old_pm, vael_pm_patterns *patterns, uint32_t flags,
                               vael_pm_error *err, const char *caller);
/* A second, independent PM with the same patterns and callbacks: every
 * engine handle copied through its engine. caller becomes its name. Null on
 * failure, or when an engine of the PM cannot be copied. */
vael_pm_handle *vael_pm_duplicate(vael_pm_handle *orig_pm, const char *caller);
/* Drops one reference; destroys the PM at the last. Null is allowed. */
void vael_pm_destroy(vael_pm_handle *pm);

/* Run. Result 0, -1, or the non-zero value a callback returned. */
int vael_pm_exec_ex(vael_pm_handle *pm, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, vael_pm_mask *mask,
                    void *user_arg, uint32_t exec_flags);
int vael_pm_exec_ex2(vael_pm_handle *pm, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                     vael_pm_mask *mask, void *user_arg, uint32_t exec_flags, uint32_t back_offset);
int vael_pm_set_extended_match_cb(vael_pm_handle *pm, vael_pm_ext_match_cb cb);

/* Masks: a fresh mask silences every pattern until its bits are set. */
vael_pm_mask *vael_pm_mask_create(vael_pm_handle *pm);
int vael_pm_mask_set(vael_pm_mask *mask, int32_t pattern_id);
int vael_pm_mask_unset(vael_pm_mask *mask, int32_t pattern_id);
void vael_pm_mask_destroy(vael_pm_mask *mask);
vael_pm_mask *vael_pm_mask_dup(const vael_pm_mask *mask);
int vael_pm_mask_and(vael_pm_mask *dst, const vael_pm_mask *src);
int vael_pmglob_mask_is_set(const vael_pm_mask *mask, uint32_t internal_id);

/* The PM image: one flat, position-independent byte string of a compiled
 * PM, to be loaded in another process. The serialize allocates the image
 * from the PM account (free it with vael_pmglob_memory_kfree_ex_) and gives
 * 0, or -1 with null and 0 stored. A load gives a PM or null; an image whose
 * uuid names a PM already loaded gives that PM with one more reference (one
 * vael_pm_destroy per load), and the callback given becomes that PM's. An
 * image is untrusted input: whatever its bytes, a load refuses it or gives a
 * PM that validates. */
int vael_pm_serialize(vael_pm_handle *pm, unsigned char **buffer, uint32_t *size);
vael_pm_handle *vael_pm_deserialize(const unsigned char *buffer, uint32_t size, vael_pm_match_cb match_cb,
                                    const char *caller);
/* The same from the first `size` bytes of a vbuf. */
vael_pm_handle *vael_pm_deserialize_vbuf(vael_vbuf *vbuf, uint32_t size, vael_pm_match_cb match_cb,
                                         const char *caller);
/* The kernel side's loader: null in user space. */
vael_pm_handle *vael_pm_kernel_deserialize(const unsigned char *buffer, uint32_t size, vael_pm_match_cb match_cb,
                                           const char *caller);
/* 1 when the images of both PMs are byte for byte equal, else 0. */
int vael_pm_serialize_and_compare(vael_pm_handle *pm1, vael_pm_handle *pm2);
/* Non-zero: images carry "IZRS" in place of memory and time figures, so that
 * two images of one pattern set compare equal. */
extern int vael_pm_serialize_during_sanity_check; /* default 0 */
extern int vael_pm_serialize_sanity_check;        /* default 0; read nowhere in this library */

/* Tunables, read at compile time. */
extern int vael_pm_min_lss_size;                                /* default 1 */
extern int vael_pm_stats_take_exec_time;                        /* default 0 */
extern int vael_pm_default_back_offset_to_search_match_start; /* default 200 */
extern int vael_pm_tier1_use_thin_nfa;                          /* default 1 */

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_H */
