/*
 * vael_kw.h - what the keyword manager, its decision engine and every keyword
 * share: the base record that opens each keyword object, its property and
 * flag bits, the keyword table's types, and the six-slot function table
 * through which the manager creates, runs, stores and frees a keyword without
 * knowing its kind.
 */
#ifndef VAEL_KW_H
#define VAEL_KW_H

#include <stdint.h>

#include "vael/vael_pm.h"
#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_KW_MAX_KEYWORDS 100

/* Rows of the keyword table; a keyword's `type` in its base and its image. */
#define VAEL_KW_TYPE_DATA 0
#define VAEL_KW_TYPE_LENGTH 1
#define VAEL_KW_TYPE_TEST 2
#define VAEL_KW_TYPE_RE 3
#define VAEL_KW_TYPE_JUMP 4
#define VAEL_KW_TYPE_PCRE 5
#define VAEL_KW_TYPE_NUM 6

/* Properties (`props`), fixed when the rule is parsed; the decision engine
 * reads them to know when going back cannot help. */
#define VAEL_KW_PROP_ABSOLUTE 0x01u
#define VAEL_KW_PROP_ANCHORED 0x02u
#define VAEL_KW_PROP_MONOTONOUS 0x04u
#define VAEL_KW_PROP_CHANGES_OFFSET 0x08u
#define VAEL_KW_PROP_ORDER_PRESERVING 0x10u
#define VAEL_KW_PROP_GIVE_UP_NO_MATCH 0x20u

/* Attribute bits (`flags`). */
#define VAEL_KW_FLAG_CASELESS 0x001u
#define VAEL_KW_FLAG_CARET 0x002u
#define VAEL_KW_FLAG_NEGATED 0x004u
#define VAEL_KW_FLAG_LITTLE 0x008u
#define VAEL_KW_FLAG_BIG 0x010u
#define VAEL_KW_FLAG_STRING 0x020u
#define VAEL_KW_FLAG_NUM_EXTRACT 0x040u
#define VAEL_KW_FLAG_SIGNED 0x080u
#define VAEL_KW_FLAG_UNSIGNED 0x100u

/* The base record at the start of every keyword object; its six words are
 * copied raw to images. */
typedef struct vael_kw_abs {
    uint32_t type;
    uint32_t props;
    uint32_t flags;
    int32_t user_offset;
    uint32_t base;  /* 0, 8, 10 or 16 */
    uint32_t depth; /* field length of a number, else the most bytes to scan (0: no bound) */
} vael_kw_abs;

/* The function table of one keyword kind. `execute` gives 0, or non-zero for
 * an internal failure only; not matching is not a failure. */
typedef struct vael_kw_vtable {
    vael_kw_abs *(*create)(const char *text, uint32_t type, vael_pm_error *err);
    int (*execute)(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start_offset,
                   uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan, uint32_t *next_offset,
                   int *is_match);
    uint32_t (*get_serialized_size)(vael_kw_abs *kw);
    int (*serialize)(vael_kw_abs *kw, unsigned char **position, uint32_t *space);
    vael_kw_abs *(*deserialize)(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                vael_vbuf_iter *iter);
    void (*destroy)(vael_kw_abs *kw);
} vael_kw_vtable;

extern const vael_kw_vtable vael_kw_data_vtable;
extern const vael_kw_vtable vael_kw_length_vtable;
extern const vael_kw_vtable vael_kw_test_vtable;
extern const vael_kw_vtable vael_kw_re_vtable;
extern const vael_kw_vtable vael_kw_jump_vtable;
extern const vael_kw_vtable vael_kw_pcre_vtable;

#ifdef __cplusplus
}
#endif

#endif /* VAEL_KW_H */
