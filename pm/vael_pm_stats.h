/*
 * vael_pm_stats.h - the statistics record that each engine keeps inside its
 * handle, and the frame's side of the reports.
 *
 * An engine's record holds the memory and time of its compile and an array
 * of run records. A run adds itself to the first run record, once per
 * buffer, with relaxed word stores: runs on many threads may lose counts,
 * which the figures allow, but never race. The array stays, so that a host
 * with one record per processor is summed by the same printers.
 *
 * The reports themselves (one PM or all, text or CSV, the operator's flag
 * language) are declared in vael/vael_pm_stats.h.
 */
#ifndef VAEL_PM_STATS_H
#define VAEL_PM_STATS_H

#include <stdint.h>

#include "vael/vael_pm_stats.h"
#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One run record: eleven words in this order. */
typedef struct vael_pm_stats_exec {
    uint32_t buffers;       /* runs */
    uint32_t matches;       /* hits over all runs */
    uint32_t max_matches;   /* most hits in one run */
    uint32_t max_len;       /* longest buffer */
    uint32_t total_len;     /* sum of lengths; restarts with len_count before it would wrap */
    uint32_t len_count;     /* runs in total_len */
    uint32_t exec_time;     /* microseconds in the engine, callbacks taken out */
    uint32_t max_exec_time;
    uint32_t cb_time;       /* microseconds in callbacks */
    uint32_t max_cb_time;
    uint32_t time_count;    /* timed runs in exec_time and cb_time */
} vael_pm_stats_exec;

typedef struct vael_pm_stats_common {
    vael_pm_stats_exec *exec; /* num_exec records, allocated at init */
    uint32_t num_exec;
    uint32_t memory;       /* bytes of this handle's compile */
    uint32_t compile_time; /* microseconds */
} vael_pm_stats_common;

/* Modes of vael_pm_stats_common_update_compile. */
#define VAEL_PM_STATS_COMPILE_MEMORY 0
#define VAEL_PM_STATS_COMPILE_TIME 1
#define VAEL_PM_STATS_COMPILE_BOTH 2

/* Levels of vael_pm_stats_common_print and of the engines' stats_print. */
#define VAEL_PM_STATS_COMMON_COMPILE 0
#define VAEL_PM_STATS_COMMON_EXEC 1
#define VAEL_PM_STATS_COMMON_ALL 2

/* 0, or -1 when stats is null or the run records cannot be allocated. */
int vael_pm_stats_common_init(vael_pm_stats_common *stats);
/* Frees the run records; null, and a record never initialised (zeroed), are
 * allowed. */
void vael_pm_stats_common_free(vael_pm_stats_common *stats);
void vael_pm_stats_common_update_compile(vael_pm_stats_common *stats, uint32_t memory, uint32_t time, int mode);
void vael_pm_stats_common_update_exec(vael_pm_stats_common *stats, uint32_t len, uint32_t matches);
void vael_pm_stats_common_update_exec_time(vael_pm_stats_common *stats, uint32_t total, uint32_t cb_time);
void vael_pm_stats_common_reset_exec(vael_pm_stats_common *stats);
/* The compile words and the sum of all run records (maxima taken). -1 on
 * nulls. */
int vael_pm_stats_common_get(vael_pm_stats_common *compile_out, vael_pm_stats_exec *exec_out,
                             const vael_pm_stats_common *stats);
/* The compile words, and as many run records as the smaller count. */
void vael_pm_stats_common_copy(vael_pm_stats_common *dst, const vael_pm_stats_common *src);
uint32_t vael_pm_stats_common_get_serialize_size(void);
/* Writes the 8-byte image; the caller has tested the space for its whole. */
void vael_pm_stats_common_serialize(const vael_pm_stats_common *stats, unsigned char **position, uint32_t *space);
/* Reads it back; with fewer than 8 bytes left the space becomes 0 and -1 is
 * given. */
int vael_pm_stats_common_deserialize(vael_pm_stats_common *stats, const unsigned char **position, uint32_t *space,
                                     vael_vbuf *vbuf, vael_vbuf_iter *iter);
/* level: VAEL_PM_STATS_COMMON_*; format: VAEL_PM_STATS_FORMAT_*. With header
 * non-zero the CSV column names are printed and stats is not read. */
void vael_pm_stats_common_print(const vael_pm_stats_common *stats, int level, int format, int header);

/* First-tier hits per true match of a PM entry (integer division); *defined
 * is 0 when the entry had no first-tier hit. */
struct vael_pm_array_one_handle;
uint32_t vael_pm_stats_get_match_ratio(const struct vael_pm_array_one_handle *entry, int *defined);

/* Comparators of the report's pattern list, by the library's convention
 * (1 equal, 0 first greater, -1 first less). An element is a
 * vael_pm_stats_pattern_elm. */
typedef struct vael_pm_stats_pattern_elm {
    const struct vael_pm_array_one_handle *entry;
    uint32_t internal_id;
} vael_pm_stats_pattern_elm;
int vael_pm_stats_sort_id_cmp(uintptr_t a, uintptr_t b);
int vael_pm_stats_sort_tier1_cmp(uintptr_t a, uintptr_t b);
int vael_pm_stats_sort_matches_cmp(uintptr_t a, uintptr_t b);
int vael_pm_stats_sort_performance_cmp(uintptr_t a, uintptr_t b);
int vael_pm_stats_sort_internal_id_cmp(uintptr_t a, uintptr_t b);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_STATS_H */
