/*
 * vael_kw_gen.h - the test buffer generators of the keywords, one per row of
 * the keyword table (`re` and `pcre` share one).
 *
 * A generator writes its keyword's condition into buf at *cursor, and moves
 * the cursor where the keyword leaves the rule's offset, so that the next
 * keyword writes where the rule will look for it. *len_inout is the length
 * of the buffer being made: nothing is written at or beyond it, and a
 * `length` keyword changes it. match 1 asks for the keyword's condition to
 * hold, 0 for it to fail. Each gives 0, or non-zero when its part of the
 * buffer cannot be made.
 */
#ifndef VAEL_KW_GEN_INTERNAL_H
#define VAEL_KW_GEN_INTERNAL_H

#include <stdint.h>

#include "keywords/vael_kw.h"
#include "vael/vael_kw_gen.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*vael_kw_gen_buff_fn)(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout,
                                   int match, const vael_kw_gen_ctx *gen_ctx);

int vael_kw_data_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *gen_ctx);
int vael_kw_length_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout,
                            int match, const vael_kw_gen_ctx *gen_ctx);
int vael_kw_test_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *gen_ctx);
int vael_kw_jump_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *gen_ctx);
/* Both `pcre` and `re`. */
int vael_kw_pcre_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *gen_ctx);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_KW_GEN_INTERNAL_H */
