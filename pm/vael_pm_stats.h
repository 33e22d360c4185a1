/*
 * vael_pm_stats.h - the statistics record that each engine keeps inside its
 * handle: the memory and time of its compile.
 */
#ifndef VAEL_PM_STATS_H
#define VAEL_PM_STATS_H

#include <stdint.h>

#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vael_pm_stats_common {
    uint32_t memory;       /* bytes of this handle's compile */
    uint32_t compile_time; /* microseconds */
} vael_pm_stats_common;

/* Modes of vael_pm_stats_common_update_compile. */
#define VAEL_PM_STATS_COMPILE_MEMORY 0
#define VAEL_PM_STATS_COMPILE_TIME 1
#define VAEL_PM_STATS_COMPILE_BOTH 2

int vael_pm_stats_common_init(vael_pm_stats_common *stats);
void vael_pm_stats_common_free(vael_pm_stats_common *stats);
void vael_pm_stats_common_update_compile(vael_pm_stats_common *stats, uint32_t memory, uint32_t time, int mode);
void vael_pm_stats_common_update_exec(vael_pm_stats_common *stats, uint32_t len, uint32_t matches);
void vael_pm_stats_common_update_exec_time(vael_pm_stats_common *stats, uint32_t total, uint32_t cb_time);
uint32_t vael_pm_stats_common_get_serialize_size(void);
/* Writes the 8-byte image; the caller has tested the space for its whole. */
void vael_pm_stats_common_serialize(const vael_pm_stats_common *stats, unsigned char **position, uint32_t *space);
/* Reads it back; with fewer than 8 bytes left the space becomes 0 and -1 is
 * given. */
int vael_pm_stats_common_deserialize(vael_pm_stats_common *stats, const unsigned char **position, uint32_t *space,
                                     vael_vbuf *vbuf, vael_vbuf_iter *iter);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_STATS_H */
