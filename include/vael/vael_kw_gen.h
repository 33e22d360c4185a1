/*
 * vael_kw_gen.h - test buffers for keyword rules.
 *
 * A self test compiles a rule, asks for a buffer that the rule is meant to
 * match (or one that it is meant not to match), runs the rule over it and
 * compares the verdict. Each keyword of the rule puts its own condition into
 * the buffer; what lies between them is the caller's filler.
 *
 * Nothing in the library calls this: it is for tools.
 */
#ifndef VAEL_KW_GEN_H
#define VAEL_KW_GEN_H

#include <stdint.h>

#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The text of a mismatch buffer: what the caller is to find unmatched. */
#define VAEL_KW_GEN_MISS_TEXT "---Miss-Match Buffer---"
/* The text written when no buffer can be made for the rule. */
#define VAEL_KW_GEN_FAIL_TEXT "---Invalide Buffer---"

/* Fills `size` bytes at buf with filler of the caller's choice; called once,
 * before any keyword writes. */
typedef void (*vael_kw_gen_fill_fn)(unsigned char *buf, uint32_t size);

/* Writes into dest a text that the expression (pattern_len bytes, not
 * NUL-ended) matches, at most *size bytes, stores the length written in
 * *size, and gives 0; non-zero when it cannot. `reserved` and `reserved2`
 * are 0. pattern_flags are the expression's own VAEL_PM_* flags; caseless
 * is VAEL_PM_CASELESS when the keyword ignores case, else 0. match is 1. */
typedef int (*vael_kw_gen_regex_fn)(const unsigned char *pattern, uint32_t pattern_len, uint32_t reserved,
                                    unsigned char *dest, uint32_t *size, uint32_t reserved2, uint32_t pattern_flags,
                                    uint32_t caseless, int match);

typedef struct vael_kw_gen_ctx {
    vael_kw_gen_fill_fn fill;           /* null: the buffer is zeroed */
    vael_kw_gen_regex_fn gen_regex;     /* null: rules with pcre or re cannot be generated */
} vael_kw_gen_ctx;

/*
 * Writes at buf a buffer for the keyword rule `rule` (a NUL-ended text).
 * *len_inout gives the buffer's size and receives the length of the buffer
 * made, which is never above the size given. match 1 asks for a buffer the
 * rule matches, 0 for one it does not match (VAEL_KW_GEN_MISS_TEXT).
 * verbose: 0 silent, 1 the result, 2 or more each keyword's step, all through
 * the debug print.
 *
 * 0, also when no buffer can be made (the buffer then holds
 * VAEL_KW_GEN_FAIL_TEXT); -1 for a null rule, a rule that does not parse, or
 * null buf or len_inout.
 */
int vael_kw_mgr_gen_test_buf(const vael_pmglob_string *rule, unsigned char *buf, uint32_t *len_inout, int match,
                             int verbose, const vael_kw_gen_ctx *gen_ctx);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_KW_GEN_H */
