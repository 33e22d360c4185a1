/*
 * vael_pm_internal.h - the PM as the frame and the engines see it: the
 * handle, its per-pattern entries, the mask, the run context of a direct
 * delivery, and the two tier tables through which the frame reaches every
 * engine. A PM stores row numbers of these tables, never engine types.
 */
#ifndef VAEL_PM_INTERNAL_H
#define VAEL_PM_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "pm/vael_pm_stats.h"
#include "vael/vael_pm.h"
#include "vael/vael_pmglob.h"
#include "vael/vael_us_adaptor.h"
#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_PM_MAX_INSTANCES 32
#define VAEL_PM_MAX_TIER1 2

/* Rows of pm_tier1_funcs, and the value of an empty slot of a PM. */
#define VAEL_PM_TIER1_WM 0
#define VAEL_PM_TIER1_STRING 1
#define VAEL_PM_TIER1_NUM 2
#define VAEL_PM_TIER1_NONE 2

/* Rows of pm_tier2_funcs, and the value of an entry without a second tier. */
#define VAEL_PM_TIER2_REM 0
#define VAEL_PM_TIER2_PCRE 1
#define VAEL_PM_TIER2_KW 2
#define VAEL_PM_TIER2_NUM 3
#define VAEL_PM_TIER2_NONE 3

/* tier2_flags of a row. */
#define VAEL_PM_TIER2_NEEDS_FLAT 0x1u   /* cannot walk a virtual buffer */
#define VAEL_PM_TIER2_USER_TEXT 0x2u    /* compiles the user's own text */
#define VAEL_PM_TIER2_REUSABLE 0x4u     /* a handle can be taken over on update */
#define VAEL_PM_TIER2_PROVEN_BY_TEXT 0x8u /* no check of the stored program is possible: a load compiles
                                            * the entry's text again and takes only that same image */

/* The flags the pre-processing and the second-tier compile see: the
 * caller's compile flags, with bit 0x1 added unless bit 0x2 is set. */
static inline uint32_t vael_pm_effective_flags(uint32_t flags) { return (flags & 0x2u) ? flags : (flags | 0x1u); }

/* The magic of a live PM reads "nimp" in memory, "efmp" once destroyed. */
#define VAEL_PM_MAGIC_ALIVE 0x706d696eu
#define VAEL_PM_MAGIC_DEAD 0x706d6665u

/* Pattern types of vael_pm_one_pattern. */
#define VAEL_PM_TYPE_PATTERN 0
#define VAEL_PM_TYPE_KW 1
#define VAEL_PM_TYPE_WORD 2


/* The context of a direct delivery to the user: one per tier of a run. The
 * user's keep_going pointer points at ctx.keep_going. */
typedef struct vael_pm_exec_cb_ctx vael_pm_exec_cb_ctx;
typedef int (*vael_pm_exec_deliver_fn)(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra,
                                       int32_t pattern_id);
struct vael_pm_exec_cb_ctx {
    vael_pm_exec_deliver_fn fn;
    void *user_arg;
    vael_pm_handle *pm;
    int keep_going;
    int32_t pattern_id;
    const unsigned char *buf;
    uint32_t len;
    vael_vbuf *vbuf;
    uint32_t cb_time; /* microseconds spent in the user's callback */
};

typedef struct vael_pm_tier1_funcs {
    const char *name;
    void *(*compile)(vael_pmglob_patterns *list, uint32_t compile_flags, vael_pm_error *err);
    int (*exec)(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start, lst_list **queue,
                uint32_t exec_flags, const vael_pm_mask *mask, vael_pm_exec_cb_ctx *ctx);
    void *(*duplicate)(void *h);
    uint32_t (*get_serialize_size)(void *h);
    int (*serialize)(void *h, unsigned char **position, uint32_t *space_left);
    void *(*deserialize)(const unsigned char **position, uint32_t *space_left, vael_vbuf *vbuf,
                         vael_vbuf_iter *iter);
    int (*is_valid)(void *h);
    void (*destroy)(void *h);
    void (*stats_print)(void *h, int level);
    vael_pm_stats_common *(*get_common_stats)(void *h);
    void (*dump)(void *h, int format);
    /* One more than the largest internal id the engine queues as a hit, 0
     * when none. The frame checks it against the PM's pattern count once,
     * at load, and its run then indexes pm_array by those ids unchecked: a
     * row that queues internal ids must fill it. Null: the row delivers the
     * user's ids itself and queues none. */
    uint32_t (*id_bound)(void *h);
    uint32_t tier1_flags; /* VAEL_PM_TIER1_* below */
} vael_pm_tier1_funcs;

/* tier1_flags of a row. */
#define VAEL_PM_TIER1_LOAD_PROVEN 0x1u /* deserialize gives only handles that is_valid would pass */

typedef struct vael_pm_tier2_funcs {
    const char *name;
    uint32_t tier2_flags;
    void *(*compile)(vael_pmglob_string *text, uint32_t compile_flags, uint32_t pattern_flags, vael_pm_error *err);
    int (*exec)(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start, lst_list **queue,
                uint32_t exec_flags, vael_pm_exec_cb_ctx *ctx);
    int (*has_start_anchor)(void *h);
    uint32_t (*find_match_start)(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                                 uint32_t exec_flags, vael_pmglob_match_data *hit, uint32_t back_offset,
                                 uint32_t pattern_flags);
    void *(*duplicate)(void *h);
    uint32_t (*get_serialize_size)(void *h);
    int (*serialize)(void *h, unsigned char **position, uint32_t *space_left);
    void *(*deserialize)(const unsigned char **position, uint32_t *space_left, vael_vbuf *vbuf,
                         vael_vbuf_iter *iter);
    int (*is_valid)(void *h);
    void (*destroy)(void *h);
    void (*stats_print)(void *h, int level);
    vael_pm_stats_common *(*get_common_stats)(void *h);
    void (*dump)(void *h, int format);
} vael_pm_tier2_funcs;

extern vael_pm_tier1_funcs pm_tier1_funcs[VAEL_PM_TIER1_NUM];
extern vael_pm_tier2_funcs pm_tier2_funcs[VAEL_PM_TIER2_NUM];

/* One user pattern. */
typedef struct vael_pm_one_pattern {
    vael_pmglob_string *lss; /* may be null */
    vael_pmglob_string *re;  /* may be null */
    int32_t id;              /* user's id */
    uint32_t match_len;      /* length of a match when known, else 0 */
    uint32_t flags;
    uint32_t type;           /* VAEL_PM_TYPE_* */
} vael_pm_one_pattern;

/* The PM's entry for one pattern; its index is the internal id. */
typedef struct vael_pm_array_one_handle {
    uint32_t lss_size;
    unsigned char *lss_str; /* owned, no terminator */
    uint32_t tier1_matches; /* first-tier hits */
    uint32_t matches;       /* hits delivered to the callback */
    uint32_t re_size;
    unsigned char *re_str;  /* owned, no terminator; null without a second tier */
    uint32_t type;
    int32_t id;             /* user's id */
    uint32_t match_len;
    uint32_t flags;
    uint32_t tier2_type;    /* row of pm_tier2_funcs, VAEL_PM_TIER2_NONE when none */
    void *tier2_h;
} vael_pm_array_one_handle;

typedef struct vael_pm_tier1_slot {
    uint32_t tier1_type; /* row of pm_tier1_funcs, VAEL_PM_TIER1_NONE when empty */
    void *tier1_h;
} vael_pm_tier1_slot;

/* The PM statistics block, seven words in this order. */
typedef struct vael_pm_stats_block {
    uint32_t num_patterns;
    uint32_t memory;
    uint32_t num_tier2_compiled;
    uint32_t compile_time;
    uint32_t serialize_time;
    uint32_t deserialize_time;
    uint32_t update_time;
} vael_pm_stats_block;

struct vael_pm_handle {
    unsigned char uuid[16];
    uint32_t refcount;
    uint32_t magic;
    vael_pm_match_cb match_cb[VAEL_PM_MAX_INSTANCES];
    vael_pm_ext_match_cb ext_match_cb[VAEL_PM_MAX_INSTANCES];
    uint32_t flags;
    vael_pm_tier1_slot tier1[VAEL_PM_MAX_TIER1];
    uint32_t num_tier2;
    vael_pm_array_one_handle *pm_array;
    vael_pm_stats_block stats;
    int32_t pm_id;
    vael_pm_handle *next;
    const char *name;
    struct vael_pm_pool_block *text_pool; /* a loaded PM's texts; null when each is its own block */
};

struct vael_pm_mask {
    vael_pm_handle *pm;
    uint32_t mask_size; /* words of 32 bits */
    uint32_t mask[];    /* bit i % 32 of word i / 32 is internal id i */
};

/* The process-wide PM list and its mutex, as pointers so that a host can
 * hand one record to another instance. */
typedef struct vael_pm_global_data_t {
    vael_mutex **lock;
    int *lock_init;
    vael_pm_handle **list;
} vael_pm_global_data_t;
extern vael_pm_global_data_t vael_pm_global_data;
void vael_pm_set_global_data(const vael_pm_global_data_t *data);
void vael_pm_get_global_data(vael_pm_global_data_t *data);

int vael_pm_init(void);
void vael_pm_fini(void);
int vael_tier1_init(void);
void vael_tier1_fini(void);
int vael_tier2_init(void);
void vael_tier2_fini(void);
int vael_pm_list_lock_init(void);
void vael_pm_list_lock_destroy(void);

/* Pattern records. */
vael_pm_one_pattern *vael_pm_patterns_one_pattern_create(const unsigned char *lss, uint32_t lss_len,
                                                         const unsigned char *re, uint32_t re_len, int32_t id,
                                                         uint32_t match_len, uint32_t flags, uint32_t type);
void vael_pm_patterns_one_pattern_destroy(vael_pm_one_pattern *p);
const unsigned char *vael_pm_one_pattern_get_lss_str(const vael_pm_one_pattern *p);
uint32_t vael_pm_one_pattern_get_lss_size(const vael_pm_one_pattern *p);
const unsigned char *vael_pm_one_pattern_get_re_str(const vael_pm_one_pattern *p);
uint32_t vael_pm_one_pattern_get_re_size(const vael_pm_one_pattern *p);

/* A row of the metadata language: the name, its length, the flag bits, and
 * 1 to set them or -1 to clear them. The table ends with a null name. */
typedef struct vael_pm_metadata_flag {
    const char *name;
    uint32_t len;
    uint32_t bits;
    int sense;
} vael_pm_metadata_flag;
extern const vael_pm_metadata_flag vael_pm_metadata_flags[];

/* Element cells of every match queue, shared by all runs; cells stay in it
 * for the next run (lst_pool_drain gives them back). */
extern uintptr_t vael_pmglob_match_data_lst_elems_pool;

int vael_pm_exec_call_on_match(vael_pm_handle *pm, int32_t pattern_id, void *user_arg, const unsigned char *buf,
                               uint32_t len, uint32_t offset, vael_vbuf *vbuf, int *keep_going, uint32_t *extra,
                               const char *tier);

/* The id of every hit a second tier reports: the frame knows the pattern. */
#define VAEL_PM_REM_DEFAULT_ID (-1)

/* The compile of one user record: pre-processing, LSS, first-tier strings,
 * second tier and PM entry; *internal_id grows by one for a non-word. The
 * error carries the user's id. 0 or -1. */
int vael_pm_compile_one_pattern(vael_pm_handle *pm, vael_pm_handle *old_pm, vael_pm_one_pattern *record,
                                uint32_t *internal_id, vael_pmglob_patterns *word_list,
                                vael_pmglob_patterns *lss_list, uint32_t flags, int any_caseless,
                                vael_pm_error *err);
int vael_pm_create_bounded_patt(vael_pm_one_pattern *pattern);
extern char vael_pm_bounded_string_patt[4][16];
extern const uint32_t vael_pm_bounded_string_patt_num_of_percent_s[4];

/* The flat copy of vbuf then buf that a run makes at most once, at the
 * first hit whose second tier cannot walk a virtual buffer. */
typedef struct vael_pm_exec_flat {
    unsigned char *buf; /* null until made */
    uint32_t size;      /* bytes of the block */
    int allocated;      /* 1: a plain allocation, 0: from the flat buffer pool */
} vael_pm_exec_flat;

/* Delivers the queued first-tier hits in arrival order, handing each hit of
 * a pattern with a second tier over to it. The run's result. */
int vael_pm_exec_drain_tier1(vael_pm_handle *pm, lst_list *queue, const unsigned char *buf, uint32_t len,
                             vael_vbuf *vbuf, void *user_arg, uint32_t exec_flags, uint32_t back_offset,
                             vael_pm_exec_flat *flat);
void vael_pm_exec_flat_release(vael_pm_exec_flat *flat);

/* The flat buffer pool. In this build it keeps no buffers: a get allocates
 * buf_size bytes and a free frees them. */
typedef struct vael_pmglob_ctx_reentrant {
    uint32_t buf_size;
    uint32_t max_reentrance;
    uint32_t kind[2]; /* 5, 0 */
    uint32_t reserved;
} vael_pmglob_ctx_reentrant;
extern vael_pmglob_ctx_reentrant vael_pm_fbuf_pool;
extern int pm_fbuf_size;          /* default 65496 */
extern int vael_pm_max_reentrance; /* default 2; stored, not enforced here */
int vael_pm_fbuf_pool_init(void);
void vael_pm_fbuf_pool_fini(void);
void *vael_pmglob_ctx_reentrant_get(vael_pmglob_ctx_reentrant *pool);
void vael_pmglob_ctx_reentrant_free(vael_pmglob_ctx_reentrant *pool, void *buf);
void vael_pmglob_ctx_reentrant_destroy(vael_pmglob_ctx_reentrant *pool);

/* Handle life shared by compile, update and duplicate. */
vael_pm_handle *vael_pm_create_handle(uint32_t n, vael_pm_match_cb match_cb, uint32_t flags, const char *caller);
void vael_pm_insert_to_pm_list_locked(vael_pm_handle *pm);
/* The same with the PM list mutex held by the caller. */
void vael_pm_insert_to_pm_list(vael_pm_handle *pm);

/* Engines' init functions fill one row each. */
int vael_thin_nfa_init(vael_pm_tier1_funcs *row);
void vael_thin_nfa_fini(void);

void vael_pmglob_uuid_build(unsigned char *uuid);
void vael_pmglob_uuid_build_ex(unsigned char *uuid, uint32_t serial, uint32_t time, int32_t pid);
/* 0 when the 16 bytes are equal, 1 when not, -1 with a null. */
int vael_pmglob_uuid_cmp(const unsigned char *a, const unsigned char *b);
void vael_pmglob_uuid_cpy(unsigned char *dst, const unsigned char *src);
int vael_pm_validate(vael_pm_handle *pm);
/* As vael_pm_validate; with skip_load_proven a first tier whose row proves
 * every handle its load gives (VAEL_PM_TIER1_LOAD_PROVEN) is not proven a
 * second time. */
int vael_pm_validate_ex(vael_pm_handle *pm, int skip_load_proven);

/* A pool that a load fills from the front, so that many small records
 * (texts, list elements) cost a few allocations rather than one each. Blocks
 * come from the PM account; a taken piece is 8-byte aligned and lives until
 * the pool is freed. take gives null when memory fails; a new block holds at
 * least `bytes`, twice the last block, up to `limit` (what can still come).
 * reserve adds a block of exactly `bytes` now: for a caller that knows all
 * it will take. */
typedef struct vael_pm_pool_block vael_pm_pool_block;
void *vael_pm_pool_take(vael_pm_pool_block **pool, size_t bytes, size_t limit);
int vael_pm_pool_reserve(vael_pm_pool_block **pool, size_t bytes);
int vael_pm_pool_owns(const vael_pm_pool_block *pool, const void *p);
void vael_pm_pool_free(vael_pm_pool_block **pool);

/* The pieces of the PM image (vael_pm_image.cpp). The size functions give 0
 * for failure; the writers and readers move *position and lower *space. A
 * reader takes its bytes from the vbuf through *iter when vbuf is given. */
uint32_t vael_ex_tier2_calculate_size(const vael_pm_array_one_handle *array, uint32_t count);
uint32_t vael_pm_calculate_size(const vael_pm_handle *pm);
int vael_ex_tier2_serialize(const vael_pm_array_one_handle *array, uint32_t count, unsigned char **position,
                            uint32_t *space);
/* The 28 bytes of the statistics block as the image holds them. */
void vael_pm_copy_stats(unsigned char *dst, const vael_pm_handle *pm);
vael_pm_handle *vael_pm_deserialize_once(const unsigned char *uuid, const unsigned char *buffer, uint32_t size,
                                         vael_pm_match_cb match_cb, const char *caller);
/* A new PM from the image after its uuid, not yet in the PM list. */
vael_pm_handle *vael_pm_do_deserialize(const unsigned char *buffer, uint32_t size, vael_vbuf *vbuf,
                                       vael_vbuf_iter *iter, vael_pm_match_cb match_cb, const char *caller);
int vael_ex_tier2_deserialize(vael_pm_handle *pm, const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                              vael_vbuf_iter *iter);
int vael_tier1_deserialize(vael_pm_handle *pm, int slot, const unsigned char **position, uint32_t *space,
                           vael_vbuf *vbuf, vael_vbuf_iter *iter);
int vael_tier2_deserialize(vael_pm_handle *pm, uint32_t index, const unsigned char **position, uint32_t *space,
                           vael_vbuf *vbuf, vael_vbuf_iter *iter);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_INTERNAL_H */
