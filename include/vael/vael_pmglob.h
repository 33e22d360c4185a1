/*
 * vael_pmglob.h - the records that travel between the frame and the engines.
 *
 * vael_pmglob_string: one string with its id and flags (an owned copy, always
 * followed by one NUL that size does not count). vael_pmglob_patterns: a list
 * of such strings, the form in which a first-tier engine receives its input.
 * vael_pmglob_match_data: one hit in a match queue, made by an engine and
 * consumed by the frame.
 */
#ifndef VAEL_PMGLOB_H
#define VAEL_PMGLOB_H

#include <stdint.h>

#include "vael/vael_list.h"
#include "vael/vael_pm.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vael_pmglob_string {
    unsigned char *pattern; /* owned copy, NUL-terminated beyond size */
    uint32_t size;          /* byte length */
    int32_t id;             /* internal id in a first-tier list, else the user's id or -1 */
    uint32_t flags;         /* pattern and LSS flags (VAEL_PM_*) */
} vael_pmglob_string;

typedef lst_list vael_pmglob_patterns;

/* Match flags of a queued hit. */
#define VAEL_PMGLOB_MATCH_KEEP_ALL 0x1u /* keep even if a hit of this id is queued */
#define VAEL_PMGLOB_MATCH_PRESENT  0x2u /* the offset lies in the present buffer */

typedef struct vael_pmglob_match_data {
    int32_t id;           /* internal pattern id */
    uint32_t offset;      /* offset of the match's last byte */
    uint32_t match_flags; /* VAEL_PMGLOB_MATCH_* */
    uint32_t hint;        /* length of the matched string for a first-tier hit */
    uint32_t extra[2];    /* engine extras; extra[1] is the match start when asked */
} vael_pmglob_match_data;

vael_pmglob_string *vael_pmglob_string_create(const unsigned char *bytes, uint32_t size, int32_t id,
                                              uint32_t flags);
vael_pmglob_string *vael_pmglob_string_dup(const vael_pmglob_string *s);
void vael_pmglob_string_destroy(vael_pmglob_string *s);
int32_t vael_pmglob_string_get_id(const vael_pmglob_string *s);
void vael_pmglob_string_set_id(vael_pmglob_string *s, int32_t id);
uint32_t vael_pmglob_string_get_size(const vael_pmglob_string *s);
const unsigned char *vael_pmglob_string_get_pattern(const vael_pmglob_string *s);
uint32_t vael_pmglob_string_get_flags(const vael_pmglob_string *s);
void vael_pmglob_string_add_flags(vael_pmglob_string *s, uint32_t flags);
void vael_pmglob_string_set_flags(vael_pmglob_string *s, uint32_t flags);
/* As vael_pmglob_string_create, with each NUL written as the four characters
 * "\x00" so a regular-expression engine sees an escape. A NUL right after
 * an odd run of backslashes is refused (null). */
vael_pmglob_string *vael_pmglob_string_create_replace_nulls(const unsigned char *bytes, uint32_t size, int32_t id,
                                                           uint32_t flags);
/* In place: with VAEL_PM_CASELESS letters to lower case, then with
 * VAEL_PM_DIGITLESS digits to '0'. */
void vael_pmglob_string_convert_to_lower_case(vael_pmglob_string *s, uint32_t flags);
/* A copy without terminator, as kept in a PM's report entry. Result 0 or -1;
 * a null string gives a null copy and size 0. */
int vael_pmglob_string_save(const vael_pmglob_string *s, unsigned char **bytes, uint32_t *size);
void vael_pmglob_string_dump(const vael_pmglob_string *s);
const char *vael_pmglob_string_to_debug_charp(const vael_pmglob_string *s);

vael_pmglob_patterns *vael_pmglob_patterns_create(void);
/* Adds a copy of s; the caller keeps s. */
int vael_pmglob_patterns_add(vael_pmglob_patterns *list, const vael_pmglob_string *s);
void vael_pmglob_patterns_destroy(vael_pmglob_patterns *list);
int vael_pmglob_patterns_get_num_of_patterns(vael_pmglob_patterns *list);
void vael_pmglob_patterns_dump(vael_pmglob_patterns *list);
void vael_pmglob_patterns_convert_all_patts_to_lower(vael_pmglob_patterns *list, uint32_t flags);

vael_pmglob_match_data *vael_pmglob_match_data_alloc(void);
void vael_pmglob_match_data_set(vael_pmglob_match_data *d, int32_t id, uint32_t offset, uint32_t match_flags,
                                uint32_t hint, const uint32_t *extra);
void vael_pmglob_match_data_get(const vael_pmglob_match_data *d, int32_t *id, uint32_t *offset, uint32_t *hint,
                                uint32_t *extra);
void vael_pmglob_match_data_free(vael_pmglob_match_data *d);
/* 0: queued; 1: a hit of this id is queued already (the caller frees d);
 * -1: failure (the caller frees d). Creates the queue at its first use. */
int vael_pmglob_match_data_enqueue(lst_list **queue, vael_pmglob_match_data *d);
int vael_pmglob_is_match_offset_in_present_buffer(const vael_pmglob_match_data *d);
int vael_pmglob_matches_pool_init(void);
void vael_pmglob_matches_pool_fini(void);

/* Character translation: flags bit 0x1 caseless, bit 0x2 digitless. */
void vael_pmglob_char_xlation_build(uint32_t flags, unsigned char *table);
/* reverse[b] is the next byte of b's group, a ring through the group's head. */
void vael_pmglob_char_xlation_build_reverse(const unsigned char *table, unsigned char *reverse);
/* Prints the table and, with a reverse table, its groups. */
void vael_pmglob_char_xlation_dump(const unsigned char *table, const unsigned char *reverse, const char *name);

/* ---------------------------------------------------------------- character ranges
 *
 * vael_pmglob_range: the value of one character-class token of the REM lexer.
 * The ASCII form is 256 byte flags; the UTF-8 form is not a set but a growing
 * text in which the set is written as a regular expression over bytes
 * ("[\xc2-\xdf][\x80-\xbf]|..."), for a pattern later compiled in byte mode.
 * Code points run from 0 to 0x10FFFF; the ASCII form knows 0 to 255 only.
 * Operations give 0 or -1; failures a caller must see go to the error record.
 */
#define VAEL_PMGLOB_RANGE_ASCII 0 /* vael_pmascii_range */
#define VAEL_PMGLOB_RANGE_UTF8  1 /* vael_pmutf8_range */
#define VAEL_PMUTF8_MAX_CODE_POINT 0x10FFFFu
/* The UTF-8 text never grows beyond this many bytes. */
#define VAEL_PMUTF8_MAX_BUF_SIZE 0x400000u

typedef struct vael_pmglob_range {
    uint32_t type;          /* VAEL_PMGLOB_RANGE_* */
    uint32_t escaped_alnum; /* 1 once an escaped letter or digit was added */
    void *impl;             /* the form's record, owned */
} vael_pmglob_range;

typedef struct vael_pmascii_range {
    uint8_t first;      /* lowest byte touched, 255 at start; first > last: empty */
    uint8_t last;       /* highest byte touched, 0 at start */
    uint8_t chars[256]; /* one flag per byte value */
    int32_t negated;    /* the reader takes the bytes whose flag is 0; chars stay as added */
} vael_pmascii_range;

/* One element of the exclusion list of a UTF-8 range: sorted by first,
 * disjoint and never adjacent, behind a sentinel head (0, 0) that stands for
 * no code point. */
typedef struct vael_pm_logical_range {
    uint32_t first;
    uint32_t last;
    struct vael_pm_logical_range *prev;
    struct vael_pm_logical_range *next;
} vael_pm_logical_range;

typedef struct vael_pmutf8_range {
    uint32_t first;           /* lowest code point touched, 0x10FFFF at start */
    uint32_t last;            /* highest code point touched, 0 at start */
    unsigned char *buf;       /* the regular-expression text, zero-filled beyond buf_used */
    uint32_t buf_used;
    uint32_t buf_size;
    int32_t has_alternatives; /* a '|' was written: a reader puts the text in parentheses */
    int32_t negated;          /* negated, or an exclusion was made */
    vael_pm_logical_range *logical_ranges; /* exclusions not yet written, or null */
} vael_pmutf8_range;

/* One encoded character. */
typedef struct vael_pmutf8_char {
    unsigned char bytes[4];
    uint8_t num_of_bytes; /* 1 to 4 */
} vael_pmutf8_char;

/* A fresh UTF-8 text has vael_pm_utf8_range_buffer_size bytes (a tunable of
 * vael_us_adaptor.h, default 4096). */
/* flags are pattern flags: VAEL_PM_UTF8 selects the UTF-8 form. */
vael_pmglob_range *vael_pmglob_range_create(uint32_t flags);
void vael_pmglob_range_destroy(vael_pmglob_range *range);
void vael_pmglob_range_negate(vael_pmglob_range *range);
int vael_pmglob_range_is_negate(const vael_pmglob_range *range);
/* Adds first..last, or with positive 0 removes it. A last of exactly 0x10FFFF
 * means 255 to the ASCII form; other values above 255 lose their high bits
 * there. The UTF-8 form writes raw bytes, the hexa variant "\xHH" bytes. */
int vael_pmglob_range_add_range(vael_pmglob_range *range, uint32_t first, uint32_t last, int positive,
                                vael_pm_error *err);
int vael_pmglob_range_add_hexa_range(vael_pmglob_range *range, uint32_t first, uint32_t last, int positive,
                                     vael_pm_error *err);
/* Writes the pending exclusions of a UTF-8 range as positive text. */
int vael_pmglob_range_handle_logical_range(vael_pmglob_range *range, vael_pm_error *err);
/* An escaped ordinary character. */
int vael_pmglob_range_add_simple_backslash(vael_pmglob_range *range, uint32_t first, uint32_t last,
                                           vael_pm_error *err);
/* Adds source to target (both of one form). The ASCII form ignores positive;
 * the UTF-8 form with positive 0 excludes source's span from target. */
int vael_pmglob_range_merge(const vael_pmglob_range *source, vael_pmglob_range *target, int positive);
int vael_pmglob_range_is_single(const vael_pmglob_range *range);
/* The one character as bytes in a new buffer of *len bytes, freed by the
 * caller with vael_pmglob_memory_kfree_ex_; null for a class. */
unsigned char *vael_pmglob_range_return_one_char_string(const vael_pmglob_range *range, uint32_t *len);
uint32_t vael_pmglob_range_get_first(const vael_pmglob_range *range);
void vael_pmglob_range_update_first_last(vael_pmglob_range *range, uint32_t first, uint32_t last);
/* The range as readable text: a character, "[a-z_]", "[^\x0a]", or the UTF-8
 * form's text. Writes at most out_size bytes with the NUL; gives the length
 * the whole text needs, as snprintf does. */
uint32_t vael_pmglob_range_print(const vael_pmglob_range *range, char *out, uint32_t out_size);

int vael_pmascii_range_add_range(vael_pmascii_range *range, uint8_t first, uint8_t last, int positive,
                                 vael_pm_error *err);
/* The code point, or -1 for a bad length or a value above 0x10FFFF. */
int32_t vael_pmutf8_range_utf8_to_num(const vael_pmutf8_char *c);
/* Appends source's text to target's. */
int vael_pmutf8_range_write_buf_to_buf(const vael_pmutf8_range *source, vael_pmutf8_range *target);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PMGLOB_H */
