/*
 * vael_pm_stats.h - statistics reports of compiled PMs.
 *
 * Every engine of a PM counts its compile (memory, time) and its runs
 * (buffers, lengths, hits, time in the engine and in callbacks); the PM
 * counts first-tier hits and true matches of each pattern. The reports print
 * them for one PM or for all, as text or as CSV, through the library's debug
 * print (standard error unless a sink is set).
 *
 * An operator asks for a report with a short text: "RESET" zeroes the run
 * figures of all PMs; "ALL" followed by flags reports all PMs; any other
 * text reports the first PM holding an expression that begins with it.
 * Flags: "/" then items divided by ",": S=ID|TIER1|MATCHES|PERF|INTERNAL_ID
 * (sort of the pattern table), D (descending), FORMAT=TEXT|CSV,
 * LEVEL=PM|TIER1|TIER2 (one table only). Example: "ALL/S=PERF,D,FORMAT=CSV,
 * LEVEL=TIER2".
 *
 * Run figures are best-effort: runs on several threads may lose counts.
 * Times are taken only while vael_pm_stats_take_exec_time is non-zero.
 */
#ifndef VAEL_PM_STATS_PUBLIC_H
#define VAEL_PM_STATS_PUBLIC_H

#include <stdint.h>

#include "vael/vael_pm.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Sort keys of the pattern table. */
#define VAEL_PM_STATS_SORT_ID          0 /* user's pattern id, signed */
#define VAEL_PM_STATS_SORT_TIER1       1 /* first-tier hits */
#define VAEL_PM_STATS_SORT_MATCHES     2 /* true matches */
#define VAEL_PM_STATS_SORT_PERF        3 /* first-tier hits per true match */
#define VAEL_PM_STATS_SORT_INTERNAL_ID 4 /* order of the compile */
#define VAEL_PM_STATS_SORT_NUM         5

#define VAEL_PM_STATS_FORMAT_TEXT 0
#define VAEL_PM_STATS_FORMAT_CSV  1

/* Bits of a report's level: which tables are printed. */
#define VAEL_PM_STATS_LEVEL_PM    1 /* the PM's own figures */
#define VAEL_PM_STATS_LEVEL_TIER1 2 /* each first-tier engine */
#define VAEL_PM_STATS_LEVEL_TIER2 4 /* each pattern */

/* What a report shows; the defaults are sort 4, ascending 1, format 0,
 * level 7. */
typedef struct vael_pm_stats_attrs {
    uint32_t sort;
    uint32_t ascending;
    uint32_t format;
    uint32_t level;
} vael_pm_stats_attrs;

void vael_pm_stats_attrs_set_defaults(vael_pm_stats_attrs *attrs);
/* Parses "" or "/FLAG,FLAG..." into attrs (which keeps what no flag sets).
 * 0, or -1 with the reason printed. */
int vael_pm_stats_pars_flags(const char *text, vael_pm_stats_attrs *attrs);

/* One PM. level: 0 compile figures, 1 run figures, 2 both. The pattern
 * table is printed only when print_patterns is non-zero. Null attrs means
 * the defaults. */
void vael_pm_stats_print(vael_pm_handle *pm, int level, int print_patterns);
void vael_pm_stats_print_ex(vael_pm_handle *pm, int level, int print_patterns, const vael_pm_stats_attrs *attrs);
/* All PMs, newest first; a CSV header only before the first. */
void vael_pm_stats_print_all(const vael_pm_stats_attrs *attrs);
/* Zeroes the run figures of every engine of every PM; the per-pattern
 * counters and the compile figures stay. */
void vael_pm_stats_reset_all(void);
/* The operator's entry: acts on the text in vael_pm_stats_pattern. */
void vael_pm_stats_print_cb(void);
extern char vael_pm_stats_pattern[100];

/* Sum of the hits of the PM's first-tier engines. */
uint32_t vael_pm_get_tier1_matches(vael_pm_handle *pm);

/* Engines' dumps. option 0: first tiers, then every second tier; 1: first
 * tiers; 2: second tiers; 3: the second tier of pattern_id. */
void vael_pm_dump(vael_pm_handle *pm, int option, int format, int32_t pattern_id);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_STATS_PUBLIC_H */
