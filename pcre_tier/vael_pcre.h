/*
 * vael_pcre.h - the PCRE second tier: a regular expression compiled and run by
 * the system's PCRE (8.x), reached by the frame through row 1 of
 * pm_tier2_funcs and by the pcre keyword through the same row.
 *
 * A pattern is run by pcre_dfa_exec, which gives the shortest match, unless
 * vael_pm_pcre_use_dfa_exec is 0; constructs for which pcre_dfa_exec recurses
 * into itself are then refused at compile. Every match is delivered at once
 * through the run context's fn, with id -1 and the offset of its last byte.
 *
 * Memory. PCRE's pcre_malloc and pcre_free hooks are process-wide. The
 * library installs its own pair at vael_pcre_init and puts the previous pair
 * back at vael_pcre_fini. Its hooks serve the library only on a thread that
 * is inside one of the library's PCRE calls, where blocks come from the
 * accounting allocator with a size word in front; every other call goes to
 * the previous pair unchanged. So a host's own PCRE blocks, made before,
 * during or after the library's life, are always released by the allocator
 * that made them. Blocks that outlive a call (a compiled pattern and its
 * study block) are released by vael_pcre_destroy, never through pcre_free.
 * A host that sets its own hooks must do so before vael_apps_init: a compile
 * that finds the library's hooks replaced fails rather than mix allocators.
 *
 * Image of a handle (32-bit integers in host order):
 *
 *   0          4  S, the compiled pattern's size (PCRE_INFO_SIZE)
 *   4          S  the compiled pattern, bytes as PCRE made them
 *   4+S        4  T, the study data's size (PCRE_INFO_STUDYSIZE), 0 if none
 *   8+S        4  pcre_extra flags: 1 (PCRE_EXTRA_STUDY_DATA) with study data
 *   12+S       T  the study data
 *   12+S+T     4  flags of the handle
 *   16+S+T     4  magic "SZRS"
 *   20+S+T     8  common statistics: memory, compile_time
 */
#ifndef VAEL_PCRE_H
#define VAEL_PCRE_H

#include <pcre.h>
#include <stdint.h>

#include "pm/vael_pm_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Option bits of the pattern and compile flags that belong to this tier. */
#define VAEL_PCRE_NO_DOTALL    0x02u /* a dot does not match a newline */
#define VAEL_PCRE_NEWLINE_LF   0x04u
#define VAEL_PCRE_NEWLINE_CR   0x08u /* when 0x04 is clear */
#define VAEL_PCRE_NEWLINE_CRLF 0x10u /* when 0x04 and 0x08 are clear */
#define VAEL_PCRE_NEWLINE_ANY  0x20u /* when none of the three is set */
#define VAEL_PCRE_MULTILINE    0x40u

/* flags of a handle. */
#define VAEL_PCRE_FLAG_RECURSIVE 0x1u /* runs only under pcre_exec */

#define VAEL_PCRE_MAGIC 0x53525a53u /* "SZRS" */

/* Sizes of a run: the workspace of pcre_dfa_exec in ints, and the ovector,
 * which asks for the whole match only. */
#define VAEL_PCRE_WORKSPACE_INTS 128000
#define VAEL_PCRE_OVECTOR_SIZE 3

typedef struct vael_pcre_handle {
    pcre *re;
    pcre_extra *extra; /* never null after compile; written at each run */
    uint32_t flags;    /* VAEL_PCRE_FLAG_* */
    vael_pm_stats_common stats;
} vael_pcre_handle;

/* Tunables. vael_pm_pcre_use_dfa_exec lives with the runtime's tunables. */
extern int vael_pm_pcre_match_limit;         /* 0: no limit; default 0 */
extern int vael_pm_pcre_stack_frame_pool_sz; /* bytes of match frames; default 512000 */

int vael_pcre_init(vael_pm_tier2_funcs *row);
void vael_pcre_fini(void);
int vael_pcre_stack_frame_pool_sz_cb(void);

/* The options PCRE gets for these flags (compile flags | pattern flags). */
int vael_pcre_options(uint32_t flags);

/* The NUL-ended text PCRE sees; null when out of memory. *alloc_size is the
 * size of the block, for vael_pcre_free_text. The indexes of the two `\b`
 * that a bound pattern's wrapping added go to *bound_at (-1 when none). */
char *vael_pcre_compile_pre_process_pattern(const vael_pmglob_string *string, uint32_t pattern_flags,
                                            uint32_t *alloc_size, int32_t bound_at[2]);
void vael_pcre_free_text(char *text, uint32_t alloc_size);

/* The strict walk of a syntax verification over the pre-processed text.
 * 0, or -1 with the refusal in err (type 0, pattern id -1, the index). */
int vael_pcre_verify_syntax(const char *text, const int32_t bound_at[2], vael_pm_error *err);

/* True when the pattern text holds a construct for which pcre_dfa_exec calls
 * itself: a lookahead or lookbehind, a recursion or subroutine call, an
 * atomic group or a possessive quantifier on a group, a conditional group. */
int vael_pcre_pattern_uses_recursive_op(const char *text, int options);

void *vael_pcre_compile(vael_pmglob_string *string, uint32_t compile_flags, uint32_t pattern_flags,
                        vael_pm_error *err);
int vael_pcre_exec(void *handle, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start,
                   lst_list **queue, uint32_t exec_flags, vael_pm_exec_cb_ctx *ctx);
/* One attempt from `start`: *rc below 0 is no match. Result 0 or -1. */
int vael_pcre_exec_ex(vael_pcre_handle *handle, const unsigned char *buf, uint32_t len, uint32_t start, int *rc,
                      int *match_end, int *match_start);
uint32_t vael_pcre_match_start_find(void *handle, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                                    uint32_t exec_flags, vael_pmglob_match_data *hit, uint32_t back_offset,
                                    uint32_t pattern_flags);
void *vael_pcre_duplicate(void *handle);
uint32_t vael_pcre_get_serialized_size(void *handle);
int vael_pcre_serialize(void *handle, unsigned char **position, uint32_t *space);
void *vael_pcre_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                            vael_vbuf_iter *iter);
int vael_pcre_is_valid(void *handle);
void vael_pcre_destroy(void *handle);
void vael_pcre_stats_print(void *handle, int level);
vael_pm_stats_common *vael_pcre_get_common_stats(void *handle);
void vael_pcre_dump(void *handle, int format);

/* What the library supplies beyond PCRE's public interface. */
int pcre_get_heapframe_size(void);  /* 332, the size of one match frame */
int pcre_init_memory_pool(void);    /* 0 */
void pcre_destroy_memory_pool(void);
void pcre_free_re(pcre *re);        /* releases a pattern the library compiled, never a host's */

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PCRE_H */
