/*
 * vael_kw_keywords.h - the records of the keywords that search and compare:
 * `data` (a fixed byte string found by Boyer-Moore), `length` (the length of
 * the rest of the buffer against a number) and `test` (a number taken out of
 * the data against a constant), and the operations behind their function
 * tables. Each record opens with the base record, so a vael_kw_abs pointer
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
 */
#ifndef VAEL_KW_KEYWORDS_H
#define VAEL_KW_KEYWORDS_H

#include <stdint.h>

#include "keywords/vael_kw_abs.h"

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

#ifdef __cplusplus
}
#endif

#endif /* VAEL_KW_KEYWORDS_H */
