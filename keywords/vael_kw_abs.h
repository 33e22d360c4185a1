/*
 * vael_kw_abs.h - the machinery every keyword shares: the setters and readers
 * of the base record, the attribute language (a table of names, each with a
 * parser, walked over the keyword's text until it is used up) and its
 * validation, the reading of values from the rule, the extraction of a
 * number from the data, and the base record's image.
 *
 * The image of the base, at the start of every keyword's image (32-bit
 * integers in host order):
 *
 *   offset size field
 *        0    4 magic "KZRS" (0x53525a4b)
 *        4    4 type
 *        8    4 props
 *       12    4 flags
 *       16    4 user_offset
 *       20    4 base
 *       24    4 depth
 */
#ifndef VAEL_KW_ABS_H
#define VAEL_KW_ABS_H

#include <stdint.h>

#include "keywords/vael_kw.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_KW_ABS_MAGIC 0x53525a4bu /* "KZRS" */
#define VAEL_KW_ABS_IMAGE_SIZE 28u

/* A parser of one attribute row. `text` points behind the row's name and is
 * moved over what the parser consumed. 0, or non-zero with the message set. */
typedef int (*vael_kw_attr_parser)(vael_kw_abs *kw, const char **text, vael_pm_error *err);

/* One row of a keyword's attribute table. A name that ends in ',' takes its
 * comma with it; one without is followed by a value whose reader takes the
 * comma behind it. */
typedef struct vael_kw_attr {
    const char *name;
    vael_kw_attr_parser parse;
} vael_kw_attr;

void vael_kw_abs_init(vael_kw_abs *kw, uint32_t type, uint32_t props);
void vael_kw_abs_destroy(vael_kw_abs *kw);

void vael_kw_abs_set_caseless(vael_kw_abs *kw);
void vael_kw_abs_set_caret(vael_kw_abs *kw);
void vael_kw_abs_set_negate(vael_kw_abs *kw);
void vael_kw_abs_set_relative(vael_kw_abs *kw);
void vael_kw_abs_set_monotonous(vael_kw_abs *kw);
void vael_kw_abs_set_depth(vael_kw_abs *kw, uint32_t value);
void vael_kw_abs_set_user_offset(vael_kw_abs *kw, int32_t value);
void vael_kw_abs_set_num_extract(vael_kw_abs *kw);
int vael_kw_abs_is_negated(const vael_kw_abs *kw);
int vael_kw_abs_is_caret(const vael_kw_abs *kw);
int vael_kw_abs_is_caseless(const vael_kw_abs *kw);
int vael_kw_abs_is_monotonous(const vael_kw_abs *kw);

/* Walks `text` over `table` (`rows` rows; `seen` is `rows` zeroed words),
 * applies the defaults and validates. 0 or -1 with the message set. */
int vael_kw_abs_addattrs(vael_kw_abs *kw, const char *text, const vael_kw_attr *table, uint32_t *seen,
                         uint32_t rows, vael_pm_error *err);
/* True when the attributes agree with each other. */
int vael_kw_abs_validate(vael_kw_abs *kw, vael_pm_error *err);

void vael_kw_abs_skip_whitespace(const char **text);
/* Finds the value's end, the first ',' outside double quotes: `text` moves
 * to the value's first non-whitespace character, `end` to the ','. */
int vael_kw_abs_get_next_value(const char **text, const char **end);
/* Reads a number that must end exactly at the next ','; `text` moves behind
 * the ','. */
int vael_kw_abs_get_next_value_numeric(const char **text, uint32_t base, int32_t *value);
/* The library's own strtol: base 0 (auto), 8, 10 or 16; an overflow gives
 * plus or minus 0x7FFFFFFF. `end` may be null. */
int vael_kw_abs_strtol(const char *text, const char **end, uint32_t base, int32_t *value);
/* Reads the keyword's number field at buf + start_offset, `size` bytes at
 * most. A field that does not fit sets `out_of_range`; that is no failure. */
int vael_kw_abs_extract(const vael_kw_abs *kw, const unsigned char *buf, uint32_t start_offset, uint32_t size,
                        int *out_of_range, int32_t *value);
void vael_kw_abs_print_props(const vael_kw_abs *kw);

uint32_t vael_kw_abs_get_serialized_size(void);
int vael_kw_abs_serialize(const vael_kw_abs *kw, unsigned char **position, uint32_t *space);
/* Reads the base into `kw`. A wrong magic is -1; too few bytes behind the
 * magic make the space 0 and still give 0: the next magic catches it. */
int vael_kw_abs_deserialize(vael_kw_abs *kw, const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                            vael_vbuf_iter *iter);

/* The images of keywords whose own part is two words behind the base
 * (`length`, `test`); `caller` names the keyword's function in the log.
 * Reading gives -1 only when the base fails; a short tail leaves the space 0
 * and the two words 0, for the manager's next magic to refuse. */
int vael_kw_abs_serialize_pair(const char *caller, const vael_kw_abs *kw, unsigned char **position, uint32_t *space,
                               uint32_t first, uint32_t second);
int vael_kw_abs_deserialize_pair(const char *caller, vael_kw_abs *kw, const unsigned char **position,
                                 uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter, uint32_t pair[2]);

/* Parsers of the shared attribute rows. */
int vael_kw_abs_relative_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_nmon_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_big_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_little_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_hex_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_dec_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_oct_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_string_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_signed_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_unsigned_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_nocase_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_caret_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_offset_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);
int vael_kw_abs_depth_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_KW_ABS_H */
