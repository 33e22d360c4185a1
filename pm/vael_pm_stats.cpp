// vael_pm_stats.cpp - each engine's statistics record: the memory and time
// of its compile. Runs are not counted in this build; the run updates are
// kept so that every engine reports its runs in one place.

#include "pm/vael_pm_stats.h"

#include "runtime/vael_image_io.h"
#include "vael/vael_pm.h"

extern "C" int vael_pm_stats_common_init(vael_pm_stats_common *stats) {
    if (!stats)
        return -1;
    stats->memory = 0;
    stats->compile_time = 0;
    return 0;
}

extern "C" void vael_pm_stats_common_free(vael_pm_stats_common *stats) {}

extern "C" void vael_pm_stats_common_update_compile(vael_pm_stats_common *stats, uint32_t memory, uint32_t time,
                                                    int mode) {
    if (!stats)
        return;
    if (mode == VAEL_PM_STATS_COMPILE_MEMORY || mode == VAEL_PM_STATS_COMPILE_BOTH)
        stats->memory = memory;
    if (mode == VAEL_PM_STATS_COMPILE_TIME || mode == VAEL_PM_STATS_COMPILE_BOTH)
        stats->compile_time = time;
}

extern "C" void vael_pm_stats_common_update_exec(vael_pm_stats_common *stats, uint32_t len, uint32_t matches) {}

extern "C" void vael_pm_stats_common_update_exec_time(vael_pm_stats_common *stats, uint32_t total,
                                                      uint32_t cb_time) {}

// The image holds the compile figures only: run figures belong to the
// process that ran.
extern "C" uint32_t vael_pm_stats_common_get_serialize_size(void) { return 8; }

extern "C" void vael_pm_stats_common_serialize(const vael_pm_stats_common *stats, unsigned char **position,
                                               uint32_t *space) {
    // A sanity check compares two images of one pattern set: the figures
    // of each compile would tell them apart.
    const uint32_t kSanityWord = 0x53525A49u; // "IZRS"
    const bool sanity = vael_pm_serialize_during_sanity_check != 0;
    vael::image_put_u32(position, space, sanity ? kSanityWord : stats->memory);
    vael::image_put_u32(position, space, sanity ? kSanityWord : stats->compile_time);
}

extern "C" int vael_pm_stats_common_deserialize(vael_pm_stats_common *stats, const unsigned char **position,
                                                uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    vael::ImageReader in{position, space, vbuf, iter};
    if (*space < 8) {
        *space = 0;
        return -1;
    }
    return in.u32(&stats->memory) && in.u32(&stats->compile_time) ? 0 : -1;
}
