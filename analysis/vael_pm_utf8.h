/*
 * vael_pm_utf8.h - a UTF-8 pattern rewritten as a byte-level regular
 * expression, once, before the LSS finder and the second tier see it.
 *
 * The REM parser runs over the pattern in UTF-8 mode, where each character
 * class comes out of the lexer as a byte-level expression text and '(' and
 * ')' come through as plain text; the evaluators here only paste texts in
 * source order. A repetition wraps its operand in parentheses of its own, so
 * "a*" becomes "(a)*" and "(ab)*" becomes "(ab())*": the repetition binds to
 * the ')' alone, and the empty group keeps the meaning. An empty operand
 * ("a|", "|a") has no text and fails the rewrite.
 */
#ifndef VAEL_PM_UTF8_H
#define VAEL_PM_UTF8_H

#include <stdint.h>

#include "vael/vael_pm.h"
#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vael_pm_one_pattern vael_pm_one_pattern;

/* One operand's text. */
typedef struct vael_pm_utf8_s {
    unsigned char *buf; /* owned; null when size is 0 */
    uint32_t used;      /* bytes written */
    uint32_t size;      /* bytes allocated */
} vael_pm_utf8_s;

/* Builds the evaluator table; also starts the REM parser. 0 or -1. */
int vael_pm_utf8_init(void);
void vael_pm_utf8_fini(void);

/* The spelling of the name is the library's own. */
vael_pm_utf8_s *vael_pm_uft8_create_utf8_s(uint32_t size);
void vael_pm_utf8_destroy_utf8_s(vael_pm_utf8_s *text);

/* Rewrites the record's regular expression (the compile's own copy) in place;
 * the new string keeps the old one's id and flags. `flags` are added to the
 * parser's (line ends, dot-all). 0, or -1 with the parser's words in err and
 * the record unchanged. */
int vael_pm_utf8_RE_to_simple_RE(vael_pm_one_pattern *pattern, vael_pm_error *err, uint32_t flags);

/* The rewrite of a bare text: a new string of *out_len bytes, freed with
 * qx_kfree_, or null with the words in err. */
unsigned char *vael_pm_utf8_rewrite(const unsigned char *text, uint32_t length, uint32_t flags, vael_pm_error *err,
                                    uint32_t *out_len);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_UTF8_H */
