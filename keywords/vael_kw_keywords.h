/*
 * vael_kw_keywords.h - the records of the keywords: `data` (a fixed byte
 * string found by Boyer-Moore), `length` (the length of the rest of the
 * buffer against a number), `test` (a number taken out of the data against a
 * constant), `jump` (a move by a number taken out of the data) and
 * `pcre`/`re` (a regular expression run by a second-tier engine of its own),
 * and the operations behind their function tables. Each record opens with the base record, so a vael_kw_abs pointer
 * reaches every one.
 *
 * Images, behind the 28 bytes of the base:
 *
 *   data    28  4 pattern_len
 *           32  4 max_len_skip
 *           36  pattern_len      pattern, no NUL
 *           36+pattern_len  2*pattern_len  shift table (the skip table is
 *                                          built again on reading)
 *   length  28  4 length         32  4 comparison
 *   test    28  4 operator       32  4 value
 *   jump    28  4 jump_flags     32  4 multiplier     36  4 post_offset
 *   pcre/re 28  4 tier2_type     32  the second tier's own image, by its
 *                                    row (the expression's text is not kept)
 */
#ifndef VAEL_KW_KEYWORDS_H
#define VAEL_KW_KEYWORDS_H

#include <stdint.h>

#include "keywords/vael_kw_abs.h"
#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vael_kw_data {
    vael_kw_abs abs;
    unsigned char *pattern; /* pattern_len bytes and a NUL; lower case when caseless */
    uint32_t pattern_len;
    uint32_t max_len_skip;  /* the shift table's period, also the step of a resumed search */
    uint16_t *shift_table;  /* pattern_len entries */
    uint16_t *skip_table;   /* 256 entries */
} vael_kw_data;

/* vael_kw_length.comparison */
#define VAEL_KW_LENGTH_EXACT 1u
#define VAEL_KW_LENGTH_MIN 2u
#define VAEL_KW_LENGTH_MAX 4u

typedef struct vael_kw_length {
    vael_kw_abs abs;
    uint32_t length;
    uintptr_t comparison; /* one of VAEL_KW_LENGTH_* */
} vael_kw_length;

/* vael_kw_test.operator: x is the extracted number, v the value. */
#define VAEL_KW_TEST_EQ 0u   /* '=': x equals v */
#define VAEL_KW_TEST_LT 1u   /* '<': x below v, signed with the signed flag */
#define VAEL_KW_TEST_GT 2u   /* '>': x above v, the same way */
#define VAEL_KW_TEST_AND 3u  /* '&': x AND v is not 0 */
#define VAEL_KW_TEST_NE 4u   /* '^': x differs from v */
#define VAEL_KW_TEST_OR 5u   /* '|': x OR v is not 0 */
#define VAEL_KW_TEST_OPERATORS 6u

typedef struct vael_kw_test {
    vael_kw_abs abs; /* depth: the bytes to extract */
    uintptr_t op;    /* VAEL_KW_TEST_* */
    int32_t value;
} vael_kw_test;

/* vael_kw_jump.jump_flags */
#define VAEL_KW_JUMP_ALIGN 0x1u          /* round the move up to a multiple of 4 */
#define VAEL_KW_JUMP_FROM_BEGINNING 0x2u /* the move counts from the buffer's start */

typedef struct vael_kw_jump {
    vael_kw_abs abs; /* depth: the field's length */
    uint32_t jump_flags;
    int32_t multiplier;  /* at least 1 from a rule */
    int32_t post_offset; /* added after the multiplier and the rounding */
} vael_kw_jump;

typedef struct vael_kw_pcre_re {
    vael_kw_abs abs;
    vael_pmglob_string *string; /* the expression; null on a loaded keyword */
    uint32_t tier2_type;        /* row of pm_tier2_funcs: REM for `re`, PCRE for `pcre` */
    void *tier2_h;              /* the compiled expression, owned */
} vael_kw_pcre_re;

vael_kw_abs *vael_kw_data_create(const char *text, uint32_t type, vael_pm_error *err);
int vael_kw_data_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                         uint32_t start_offset, uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan,
                         uint32_t *next_offset, int *is_match);
uint32_t vael_kw_data_get_serialized_size(vael_kw_abs *kw);
int vael_kw_data_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space);
vael_kw_abs *vael_kw_data_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                      vael_vbuf_iter *iter);
void vael_kw_data_destroy(vael_kw_abs *kw);
int vael_kw_data_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
/* Turns the text between the quotes into bytes: `out` has room for `len`. */
int vael_kw_data_parse_content(const char *content, uint32_t len, unsigned char *out, uint32_t *out_len,
                               vael_pm_error *err);

vael_kw_abs *vael_kw_length_create(const char *text, uint32_t type, vael_pm_error *err);
int vael_kw_length_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                           uint32_t start_offset, uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan,
                           uint32_t *next_offset, int *is_match);
uint32_t vael_kw_length_get_serialized_size(vael_kw_abs *kw);
int vael_kw_length_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space);
vael_kw_abs *vael_kw_length_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                        vael_vbuf_iter *iter);
void vael_kw_length_destroy(vael_kw_abs *kw);
int vael_kw_length_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);

vael_kw_abs *vael_kw_test_create(const char *text, uint32_t type, vael_pm_error *err);
int vael_kw_test_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                         uint32_t start_offset, uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan,
                         uint32_t *next_offset, int *is_match);
uint32_t vael_kw_test_get_serialized_size(vael_kw_abs *kw);
int vael_kw_test_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space);
vael_kw_abs *vael_kw_test_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                      vael_vbuf_iter *iter);
void vael_kw_test_destroy(vael_kw_abs *kw);
int vael_kw_test_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);

vael_kw_abs *vael_kw_jump_create(const char *text, uint32_t type, vael_pm_error *err);
int vael_kw_jump_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                         uint32_t start_offset, uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan,
                         uint32_t *next_offset, int *is_match);
uint32_t vael_kw_jump_get_serialized_size(vael_kw_abs *kw);
int vael_kw_jump_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space);
vael_kw_abs *vael_kw_jump_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                      vael_vbuf_iter *iter);
void vael_kw_jump_destroy(vael_kw_abs *kw);
int vael_kw_jump_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_jump_multiplier_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_jump_post_offset_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);

vael_kw_abs *vael_kw_pcre_create(const char *text, uint32_t type, vael_pm_error *err);
vael_kw_abs *vael_kw_re_create(const char *text, uint32_t type, vael_pm_error *err);
/* The create of both: `flags` is 0 for `pcre` and VAEL_PM_USE_REM for `re`. */
vael_kw_abs *vael_kw_pcre_re_create(const char *text, uint32_t type, uint32_t flags, vael_pm_error *err);
int vael_kw_pcre_re_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                            uint32_t start_offset, uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan,
                            uint32_t *next_offset, int *is_match);
uint32_t vael_kw_pcre_re_get_serialized_size(vael_kw_abs *kw);
int vael_kw_pcre_re_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space);
vael_kw_abs *vael_kw_pcre_re_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                         vael_vbuf_iter *iter);
void vael_kw_pcre_re_destroy(vael_kw_abs *kw);
int vael_kw_pcre_re_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_KW_KEYWORDS_H */
