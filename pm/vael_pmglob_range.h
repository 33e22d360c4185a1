/*
 * vael_pmglob_range.h - the workers behind the character ranges of
 * vael_pmglob.h: UTF-8 encoding, the walk that cuts a code-point span into
 * byte-span alternatives, the text writers and the exclusion list. The
 * lexer and the UTF-8 simplifier go through vael_pmglob_range_*; these are
 * for the range code itself and for tests that hold it against a reference.
 */
#ifndef VAEL_PMGLOB_RANGE_H
#define VAEL_PMGLOB_RANGE_H

#include <stdint.h>

#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The standard 1- to 4-byte form; -1 above 0x10FFFF. Surrogates are encoded
 * like any other number. */
int vael_pmutf8_range_num_to_utf8(uint32_t num, vael_pmutf8_char *out);
/* The largest code point whose encoding has as many bytes as a's: 127, 2047,
 * 65535, and 65535 also for 4 bytes. -1 when a is not shorter than b or its
 * length is not 1 to 4. */
int32_t vael_pmutf8_range_biggest_utf8_with_same_num_of_bytes(const vael_pmutf8_char *a, const vael_pmutf8_char *b);
/* The largest e >= a, of a's length, such that a..e is an equal prefix and
 * then one byte span per position. -1 when a lies above b. */
int vael_pmutf8_range_find_biggest_possible_range(const vael_pmutf8_char *a, const vael_pmutf8_char *b,
                                                  vael_pmutf8_char *e);
/* Writes a..e as bytes and bracketed byte spans; hexa writes "\\xHH" bytes. */
int vael_pmutf8_range_create_range(vael_pmutf8_range *range, const vael_pmutf8_char *a, const vael_pmutf8_char *e,
                                   int hexa);
int vael_pmutf8_range_make_sure_we_have_enough_space(vael_pmutf8_range *range, uint32_t n);
int vael_pmutf8_range_write_char_to_buf(vael_pmutf8_range *range, unsigned char c);
int vael_pmutf8_range_write_hexa_char_to_buf(vael_pmutf8_range *range, unsigned char c);
int vael_pmutf8_range_write_OR_char_to_buf(vael_pmutf8_range *range);
int vael_pmutf8_range_add_range(vael_pmutf8_range *range, uint32_t first, uint32_t last, int positive, int hexa,
                                vael_pm_error *err);
/* Adds first..last to the exclusions; the first exclusion resets the text. */
int vael_pmutf8_range_merge_logical_range(vael_pmutf8_range *range, uint32_t first, uint32_t last);
int vael_pmutf8_range_handle_logical_range(vael_pmutf8_range *range, vael_pm_error *err);
int vael_pmutf8_range_merge(const vael_pmutf8_range *source, vael_pmutf8_range *target, int positive);
void vael_pmutf8_range_update_first_last(vael_pmutf8_range *range, uint32_t first, uint32_t last);
int vael_pmascii_range_merge(const vael_pmascii_range *source, vael_pmascii_range *target, int positive);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PMGLOB_RANGE_H */
