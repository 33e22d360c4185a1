/*
 * vael_kw_mgr.h - the keyword manager and its decision engine, as the frame
 * and the keywords see them.
 *
 * A rule's text becomes a vael_kw_mgr: `count` keyword objects run in order
 * over one flat buffer by a backtracking search (vael_kw_engine.cpp). The
 * manager is row 2 of pm_tier2_funcs, filled by vael_kw_init.
 *
 * Image of a manager, 32-bit words in host order:
 *
 *     0     magic "GZRS"
 *     4     keyword count (at most VAEL_KW_MAX_KEYWORDS)
 *     8     per keyword: its type, then the keyword's own image ("KZRS" ...)
 *     then  magic "SZRS"
 *     then  the common statistics image
 */
#ifndef VAEL_KW_MGR_H
#define VAEL_KW_MGR_H

#include <stdint.h>

#include "keywords/vael_kw.h"
#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_stats.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_KW_MGR_MAGIC 0x53525a47u       /* "GZRS" */
#define VAEL_KW_MGR_STATS_MAGIC 0x53525a53u /* "SZRS" */

/* The most positions a run's stack holds. */
#define VAEL_KW_STACK_MAX 100

/* kw_index of a position that ends the run. */
#define VAEL_KW_INDEX_END 0xffffffffu

typedef struct vael_kw_mgr {
    uint32_t count;              /* keywords, at least 1 from a rule */
    vael_pm_stats_common stats;  /* the one part written after creation */
    vael_kw_abs *keywords[];     /* `count` keywords, in the same block */
} vael_kw_mgr;

/* A row of the keyword table; its index is the keyword's type. A row with a
 * null vtable is refused at compile and at load, so no run meets it. The
 * table is writable so that a test can stand a fake keyword in a row. */
typedef struct vael_kw_table_row {
    const char *name;
    uint32_t name_len;
    const vael_kw_vtable *vtable;
} vael_kw_table_row;
extern vael_kw_table_row vael_kw_table[VAEL_KW_TYPE_NUM];

/* Start and stop; vael_kw_init fills the KW row of pm_tier2_funcs. */
int vael_kw_init(vael_pm_tier2_funcs *row);
void vael_kw_fini(void);

/* The rule grammar. */
int vael_kw_mgr_copy_rule(const char *text, uint32_t size, char *out);
int vael_kw_mgr_is_escaped(const char *text, uint32_t index);
int vael_kw_mgr_add_kw(vael_kw_abs **keywords, uint32_t *count_inout, const char *rule_text, vael_pm_error *err);
void *vael_pm_compile_keywords(vael_pmglob_string *string, uint32_t compile_flags, uint32_t pattern_flags,
                               vael_pm_error *err);

/* The manager record. */
vael_kw_mgr *vael_kw_mgr_create(vael_kw_abs **keywords, uint32_t count);
int vael_kw_mgr_stats_alloc_and_init(vael_kw_mgr *mgr);
void vael_kw_mgr_destroy(void *mgr);
void *vael_kw_mgr_duplicate(void *mgr);
uint32_t vael_kw_mgr_serialize_get_size(void *mgr);
int vael_kw_mgr_serialize(void *mgr, unsigned char **position, uint32_t *space);
void *vael_kw_mgr_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                              vael_vbuf_iter *iter);

/* ---- the decision engine ---- */

/* Decisions of one keyword's outcome. */
#define VAEL_KW_DECISION_NONE (-1)                /* no decision yet */
#define VAEL_KW_DECISION_PASS 0                   /* matched in its one place */
#define VAEL_KW_DECISION_PASS_COME_BACK 1         /* matched; may match further on */
#define VAEL_KW_DECISION_PASS_MARKER 2            /* matched; cuts off all history */
#define VAEL_KW_DECISION_PASS_MARKER_COME_BACK 3  /* cuts off history, may match further on */
#define VAEL_KW_DECISION_BACKTRACK 4              /* failed; an earlier keyword may try again */
#define VAEL_KW_DECISION_NO_MATCH 5               /* failed; nothing earlier can help */

/* Where the rule stands. */
typedef struct vael_kw_position {
    uint32_t offset;   /* the present offset */
    uint32_t end;      /* end of the range of the last keyword run */
    uint32_t kw_index; /* the keyword to run; VAEL_KW_INDEX_END ends the run */
} vael_kw_position;

/* A run's stack: `count` slots of four words. The first three of slot n are
 * a saved position; the fourth is keyword n's prev_scan word, which push and
 * pop never touch, so that one block per run serves both. */
typedef struct vael_kw_stack {
    uint32_t depth;  /* slots in use */
    uint32_t count;  /* slots in the block */
    uint32_t *slots; /* count * 4 words */
} vael_kw_stack;

/* The pool a run's stack could come from; this build keeps none, and each
 * run allocates its block. */
typedef struct vael_kw_exec_info_pool_t {
    uintptr_t pool;
    uintptr_t size;
} vael_kw_exec_info_pool_t;
extern vael_kw_exec_info_pool_t kw_exec_info_pool;

int vael_kw_mgr_exec(vael_kw_mgr *mgr, const unsigned char *buf, uint32_t len, int *is_match, uint32_t *match_end);
int vael_kw_mgr_tier2_exec(void *mgr, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start,
                           lst_list **queue, uint32_t exec_flags, vael_pm_exec_cb_ctx *ctx);
int vael_kw_mgr_find_start_offset(const vael_kw_abs *keyword, vael_kw_position *position, uint32_t len,
                                  int from_backtrack, uint32_t *start_offset, uint32_t *size_to_scan);
int vael_kw_mgr_keyword_decision(const vael_kw_abs *keyword, int matched);
int vael_kw_mgr_decision(vael_kw_mgr *mgr, vael_kw_stack *stack, vael_kw_position *position, int *from_backtrack,
                         int matched);
const char *vael_kw_decision_to_string(int decision);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_KW_MGR_H */
