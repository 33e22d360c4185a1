/*
 * vael_bm.h - the Boyer-Moore search of the `data` keyword: a skip table by
 * the mismatched byte, a shift table by the pattern index of the mismatch,
 * the larger step of the two taken.
 *
 * Tables hold 16-bit entries read as signed numbers, so a pattern is at most
 * 32767 bytes long. The shift table falls back, where no inner repeat of the
 * pattern applies, on `max_len_skip`: the shift to the pattern's shortest
 * border (the largest k whose prefix of m - k bytes is also a suffix), not
 * the textbook's longest border. The same period is the step by which a
 * resumed search of the `data` keyword goes back. With more than one border a
 * mismatch early in the pattern may thus step over an overlapping match.
 */
#ifndef VAEL_BM_H
#define VAEL_BM_H

#include <stdint.h>

#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_BM_MAX_PATTERN 32767u

/* 256 entries: the distance from a byte's last place in the pattern to the
 * pattern's end, m where it does not occur. Caseless: both cases of a letter
 * get the entry, so the search indexes the table by the raw byte. */
uint16_t *vael_bm_create_skiptable(const unsigned char *pattern, uint32_t pattern_len, int caseless);
/* `pattern_len` entries by the index of the mismatch; gives the period in
 * max_len_skip. */
uint16_t *vael_bm_create_shifttable(const unsigned char *pattern, uint32_t pattern_len, uint32_t *max_len_skip);
/* The first place of pattern in buf at or after `start`: *found 1 and the
 * offset, or *found 0 and an offset of no use. An empty pattern is found at
 * `start`. */
uint32_t vael_bm_search(const unsigned char *buf, uint32_t len, const unsigned char *pattern, uint32_t pattern_len,
                        const uint16_t *skip, const uint16_t *shift, uint32_t start, int *found);
/* The same with the buffer's ASCII letters lowered; the pattern must be
 * lower case and the skip table caseless. */
uint32_t vael_bm_ci_search(const unsigned char *buf, uint32_t len, const unsigned char *pattern,
                           uint32_t pattern_len, const uint16_t *skip, const uint16_t *shift, uint32_t start,
                           int *found);
/* Releases the tables that are not null. */
void vael_bm_destroy(uint16_t *skip, uint16_t *shift, uint32_t pattern_len);
/* A search over a virtual buffer has no function in this build: gives 0. */
int vael_bm_search_vbuf_opt(vael_vbuf *vbuf, const unsigned char *pattern, uint32_t pattern_len,
                            const uint16_t *skip, const uint16_t *shift, uint32_t start, int *found);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_BM_H */
