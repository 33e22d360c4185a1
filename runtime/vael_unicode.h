/*
 * vael_unicode.h - the few Unicode operations the word matcher rests on:
 * character classes, simple case folding, and a walk that compares two UTF-8
 * texts code point by code point. The properties come from utf8proc, so they
 * follow the Unicode version of the installed package.
 */
#ifndef VAEL_UNICODE_H
#define VAEL_UNICODE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Number of trail bytes that follow each lead byte: 0 for ASCII and for the
 * bytes 10xxxxxx and 0xFE, 0xFF (which lead nothing), 1 to 5 by the lead
 * byte's high bits otherwise. */
extern const uint8_t utf8_countTrailBytes[256];

/* White space: the separators Zs, Zl, Zp, the controls TAB, LF, VT, FF, CR,
 * the information separators 0x1C..0x1F, and NEL. Any int is accepted;
 * values that are no code point have no property. */
int tq_u_isspace(int32_t c);
/* Punctuation: the categories Pc, Pd, Ps, Pe, Pi, Pf, Po. Symbols such as
 * '+', '<' or '$' are not punctuation in Unicode. */
int tq_u_ispunct(int32_t c);
/* Simple (one to one) case folding; a value that is no code point is given
 * back unchanged. */
int32_t tq_u_simple_fold_case(int32_t c);

/* tq_utf8_compare flags. */
#define TQ_UTF8_CMP_CASELESS 0x1u  /* fold both sides before comparing */
#define TQ_UTF8_CMP_BACKWARD 0x2u  /* walk from the ends of both texts */

/* Walks text and other code point by code point while they are equal, from
 * their starts or, with TQ_UTF8_CMP_BACKWARD, from their ends, and tells in
 * *text_used and *other_used how many bytes of each it got through. A byte
 * that does not start a well-formed sequence is a unit of its own, equal only
 * to the same byte, so texts equal byte for byte always compare equal whole.
 * Gives the number of equal units. */
uint32_t tq_utf8_compare(const uint8_t *text, uint32_t text_len, uint32_t *text_used, const uint8_t *other,
                         uint32_t other_len, uint32_t *other_used, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_UNICODE_H */
