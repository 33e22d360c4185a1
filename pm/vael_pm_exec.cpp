// vael_pm_exec.cpp - the hand-over of a run: first-tier hits delivered or
// passed to their pattern's second tier, over the data that tier can read,
// and the flat buffer pool that serves a tier which cannot walk a virtual
// buffer.
//
// A pattern of unknown length is searched from the start of the data at its
// first-tier hit; the first-tier queue keeps one hit of such a pattern per
// run, so the second tier runs once per pattern and run.

#include <cstring>

#include "pm/vael_pm_internal.h"
#include "runtime/vael_counter.h"
#include "runtime/vael_runtime.h"

int pm_fbuf_size = 65496;
int vael_pm_max_reentrance = 2;
vael_pmglob_ctx_reentrant vael_pm_fbuf_pool;

// ---------------------------------------------------------------- flat buffer pool

extern "C" int vael_pm_fbuf_pool_init(void) {
    VAEL_LOG(VAEL_DBG_INFO, "K_PM", "%s: flat buffer pool of %d bytes, %d deep\n", pm_fbuf_size,
             vael_pm_max_reentrance);
    vael_pm_fbuf_pool = vael_pmglob_ctx_reentrant{(uint32_t)pm_fbuf_size, (uint32_t)vael_pm_max_reentrance, {5, 0}, 0};
    return VAEL_OK;
}

extern "C" void vael_pm_fbuf_pool_fini(void) { vael_pmglob_ctx_reentrant_destroy(&vael_pm_fbuf_pool); }

extern "C" void *vael_pmglob_ctx_reentrant_get(vael_pmglob_ctx_reentrant *pool) {
    if (!pool || pool->buf_size == 0)
        return nullptr;
    return qx_kmalloc_ex_(pool->buf_size, "vael_pm_fbuf_pool_init", 0, __FILE__, __LINE__);
}

extern "C" void vael_pmglob_ctx_reentrant_free(vael_pmglob_ctx_reentrant *pool, void *buf) {
    if (pool && buf)
        qx_kfree_(buf, pool->buf_size);
}

extern "C" void vael_pmglob_ctx_reentrant_destroy(vael_pmglob_ctx_reentrant *pool) { (void)pool; }

extern "C" void vael_pm_exec_flat_release(vael_pm_exec_flat *flat) {
    if (!flat || !flat->buf)
        return;
    if (flat->allocated)
        qx_kfree_(flat->buf, flat->size);
    else
        vael_pmglob_ctx_reentrant_free(&vael_pm_fbuf_pool, flat->buf);
    *flat = vael_pm_exec_flat{nullptr, 0, 0};
}

namespace {

// vbuf then buf in one block. The block is made once per run and shared by
// every pattern of the run.
int vael_pm_exec_flatten_buffer(const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, vael_pm_exec_flat *flat,
                                uint32_t total) {
    if ((!buf || !len) && !vbuf) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments");
        return VAEL_ERROR;
    }
    if (flat->buf)
        return VAEL_OK;
    const uint32_t vbuf_size = vbuf ? vael_vbuf_size(vbuf) : 0;
    unsigned char *block = nullptr;
    int allocated = 0;
    uint32_t size = 0;
    if (total <= vael_pm_fbuf_pool.buf_size) {
        block = static_cast<unsigned char *>(vael_pmglob_ctx_reentrant_get(&vael_pm_fbuf_pool));
        size = vael_pm_fbuf_pool.buf_size;
    }
    if (!block) {
        // Zero bytes of data still get a block, so that the engine has a
        // buffer to look at.
        size = total ? total : 1;
        block = static_cast<unsigned char *>(qx_kmalloc_ex_(size, __func__, 0, __FILE__, __LINE__));
        allocated = 1;
    }
    if (!block) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: failed to allocate flattened buffer of size %u\n", total);
        return VAEL_ERROR;
    }
    *flat = vael_pm_exec_flat{block, size, allocated};
    if (vbuf_size && vael_vbuf_defrag(vbuf, 0, vbuf_size, block, total) < vbuf_size) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: failed to defrag vbuf\n");
        vael_pm_exec_flat_release(flat);
        return VAEL_ERROR;
    }
    if (buf && len)
        std::memcpy(block + vbuf_size, buf, len);
    return VAEL_OK;
}

// The second tier's context with what the frame needs beside it: the entry
// to count in, the callback's result (an engine reports only failure when
// the user's callback returns non-zero), and the offset of the data the
// engine was given within the run's data.
struct tier2_run_ctx {
    vael_pm_exec_cb_ctx ctx; // first: engines see only this part
    vael_pm_array_one_handle *entry;
    int cb_result;
    uint32_t base;
};

int vael_pm_exec_tier2_cb(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra, int32_t pattern_id) {
    auto *run = reinterpret_cast<tier2_run_ctx *>(ctx);
    if (pattern_id != VAEL_PM_REM_DEFAULT_ID)
        // The text names no function, so the assertion is made without one.
        vael_assert_fail(__FILE__, __LINE__, "tier2 pattern id (%d) is different from VAEL_PM_REM_DEFAULT_ID (%d)\n",
                         pattern_id, VAEL_PM_REM_DEFAULT_ID);
    uint32_t words[2] = {extra ? extra[0] : 0, extra ? extra[1] : 0};
    if (run->base && (words[1] + 2 != 0))
        words[1] += run->base;
    vael_counter_add(run->entry->matches, 1u);
    vael_timeval start, end;
    if (vael_pm_stats_take_exec_time)
        vael_time_get_hrtime(&start);
    int result = vael_pm_exec_call_on_match(ctx->pm, ctx->pattern_id, ctx->user_arg, ctx->buf, ctx->len,
                                            offset + run->base, ctx->vbuf, &ctx->keep_going, words, "second");
    if (vael_pm_stats_take_exec_time) {
        vael_time_get_hrtime(&end);
        ctx->cb_time += vael_time_diff_usec(&start, &end);
    }
    if (result != 0)
        run->cb_result = result;
    return result;
}

// One exec of the second tier, timed with the user's time taken out.
int tier2_exec_once(const vael_pm_tier2_funcs &row, vael_pm_array_one_handle *entry, const unsigned char *buf,
                    uint32_t len, vael_vbuf *vbuf, uint32_t start, lst_list **queue, uint32_t exec_flags,
                    tier2_run_ctx *run) {
    vael_timeval t0, t1;
    if (vael_pm_stats_take_exec_time)
        vael_time_get_hrtime(&t0);
    run->ctx.cb_time = 0;
    int rc = row.exec(entry->tier2_h, buf, len, vbuf, start, queue, exec_flags, &run->ctx);
    if (vael_pm_stats_take_exec_time) {
        vael_time_get_hrtime(&t1);
        vael_pm_stats_common_update_exec_time(row.get_common_stats ? row.get_common_stats(entry->tier2_h) : nullptr,
                                              vael_time_diff_usec(&t0, &t1), run->ctx.cb_time);
    }
    return rc;
}

// Runs the entry's second tier over what it may see. `present` is the run's
// buffer for a start-anchored pattern's second look at the present buffer.
int vael_pm_exec_tier2(vael_pm_array_one_handle *entry, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                       lst_list **queue, uint32_t exec_flags, uint32_t offset, tier2_run_ctx *run,
                       bool history, const unsigned char *present, uint32_t present_len, uint32_t present_base) {
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[entry->tier2_type];
    const uint32_t start =
        entry->match_len && offset + 1 >= entry->match_len ? offset - entry->match_len + 1 : 0;
    if (history && row.has_start_anchor && row.has_start_anchor(entry->tier2_h)) {
        if (!(exec_flags & VAEL_PM_EXEC_CIRCUMFLEX_ONLY)) {
            if (tier2_exec_once(row, entry, buf, len, vbuf, start, queue, exec_flags, run) != 0)
                return VAEL_ERROR;
            if (!run->ctx.keep_going)
                return VAEL_OK;
        }
        if ((exec_flags & (VAEL_PM_EXEC_CIRCUMFLEX | VAEL_PM_EXEC_CIRCUMFLEX_ONLY)) && present) {
            // The present buffer alone, as data of its own.
            run->base = present_base;
            int rc = tier2_exec_once(row, entry, present, present_len, nullptr, 0, queue, exec_flags, run);
            run->base = 0;
            if (rc != 0)
                return VAEL_ERROR;
        }
        return VAEL_OK;
    }
    return tier2_exec_once(row, entry, buf, len, vbuf, start, queue, exec_flags, run);
}

// Hits that a second tier queued (one that does not deliver directly).
int vael_pm_exec_drain_tier2(lst_list *queue, tier2_run_ctx *run, const unsigned char *buf, uint32_t len,
                             vael_vbuf *vbuf, uint32_t exec_flags, uint32_t back_offset) {
    vael_pm_array_one_handle *entry = run->entry;
    while (vael_queue_size(queue) >= 1) {
        auto *hit = reinterpret_cast<vael_pmglob_match_data *>(vael_dequeue(queue));
        if (!hit)
            return VAEL_ERROR;
        int32_t id;
        uint32_t offset, hint, extra[2];
        vael_pmglob_match_data_get(hit, &id, &offset, &hint, extra);
        if (vbuf && vael_pmglob_is_match_offset_in_present_buffer(hit))
            offset += vael_vbuf_size(vbuf);
        if (exec_flags & VAEL_PM_EXEC_MATCH_START) {
            const vael_pm_tier2_funcs &row = pm_tier2_funcs[entry->tier2_type];
            extra[1] = row.find_match_start ? row.find_match_start(entry->tier2_h, buf, len, vbuf, exec_flags, hit,
                                                                   back_offset, entry->flags)
                                            : 0;
        }
        vael_pmglob_match_data_free(hit);
        run->base = 0;
        int result = vael_pm_exec_tier2_cb(&run->ctx, offset, extra, id);
        if (result != 0 || !run->ctx.keep_going)
            return result;
    }
    return VAEL_OK;
}

// The hand-over of one first-tier hit to the entry's second tier. *stop is
// set when the run ends here.
int vael_pm_exec_tier1_hit_to_tier2(vael_pm_handle *pm, vael_pm_array_one_handle *entry, uint32_t offset,
                                    const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, void *user_arg,
                                    uint32_t exec_flags, uint32_t back_offset, vael_pm_exec_flat *flat, bool *stop) {
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[entry->tier2_type];
    const unsigned char *t2_buf = buf;
    uint32_t t2_len = len;
    vael_vbuf *t2_vbuf = vbuf;
    vael_vbuf *cb_vbuf = vbuf;
    bool history = vbuf != nullptr;
    if (entry->flags & VAEL_PM_NO_HISTORY) {
        t2_vbuf = nullptr;
        cb_vbuf = nullptr;
        history = false;
    } else if (vbuf && (row.tier2_flags & VAEL_PM_TIER2_NEEDS_FLAT)) {
        const uint32_t total = vael_vbuf_size(vbuf) + (buf ? len : 0);
        if (vael_pm_exec_flatten_buffer(buf, len, vbuf, flat, total) != VAEL_OK) {
            *stop = true;
            return VAEL_ERROR;
        }
        t2_buf = flat->buf;
        t2_len = total;
        t2_vbuf = nullptr;
    }
    if (!t2_buf || !t2_len) {
        // No data for this pattern to see: a pattern without history whose
        // run has a virtual buffer only.
        if (!t2_vbuf)
            return VAEL_OK;
    } else if ((entry->flags & VAEL_PM_NO_HISTORY) && vbuf) {
        // The engine counts from the start of buf; the start bound too.
        const uint32_t vsize = vael_vbuf_size(vbuf);
        offset = offset >= vsize ? offset - vsize : 0;
    }

    tier2_run_ctx run = {{vael_pm_exec_tier2_cb, user_arg, pm, 1, entry->id, buf, len, cb_vbuf, 0}, entry, 0, 0};
    lst_list *queue = nullptr;
    const uint32_t present_base = vbuf ? vael_vbuf_size(vbuf) : 0;
    int rc = vael_pm_exec_tier2(entry, t2_buf, t2_len, t2_vbuf, &queue, exec_flags, offset, &run, history, buf,
                                buf ? len : 0, present_base);
    int result;
    if (run.cb_result != 0) {
        result = run.cb_result;
        *stop = true;
    } else if (rc != 0) {
        result = VAEL_ERROR;
        *stop = true;
    } else if (!run.ctx.keep_going) {
        result = VAEL_OK;
        *stop = true;
    } else {
        result = vael_pm_exec_drain_tier2(queue, &run, buf, len, t2_vbuf, exec_flags, back_offset);
        if (run.cb_result != 0)
            result = run.cb_result;
        *stop = result != 0 || !run.ctx.keep_going;
    }
    vael_queue_cleanup(queue);
    return result;
}

}  // namespace

extern "C" int vael_pm_exec_drain_tier1(vael_pm_handle *pm, lst_list *queue, const unsigned char *buf, uint32_t len,
                                        vael_vbuf *vbuf, void *user_arg, uint32_t exec_flags, uint32_t back_offset,
                                        vael_pm_exec_flat *flat) {
    while (vael_queue_size(queue) >= 1) {
        auto *hit = reinterpret_cast<vael_pmglob_match_data *>(vael_dequeue(queue));
        if (!hit)
            return VAEL_ERROR;
        int32_t id;
        uint32_t offset, hint, extra[2];
        vael_pmglob_match_data_get(hit, &id, &offset, &hint, extra);
        vael_pmglob_match_data_free(hit);
        // Every id a first tier can queue was checked against the pattern
        // count when the PM was compiled or loaded.
#ifndef NDEBUG
        if ((uint32_t)id >= pm->num_tier2) {
            VAEL_ASSERT_F(0, "%s: First tier hit with pattern id %d of %u\n", (int)id, pm->num_tier2);
            continue;
        }
#endif
        vael_pm_array_one_handle &entry = pm->pm_array[id];
        vael_counter_add(entry.tier1_matches, 1u);
        if (entry.tier2_h) {
            bool stop = false;
            int result = vael_pm_exec_tier1_hit_to_tier2(pm, &entry, offset, buf, len, vbuf, user_arg, exec_flags,
                                                         back_offset, flat, &stop);
            if (stop)
                return result;
            continue;
        }
        // Without a second tier the hit is final, and the LSS that hit is
        // the whole match: its start is exact.
        vael_counter_add(entry.matches, 1u);
        if (exec_flags & VAEL_PM_EXEC_MATCH_START)
            extra[1] = offset + 1 >= hint ? offset - hint + 1 : (uint32_t)-2;
        int keep_going = 1;
        int result = vael_pm_exec_call_on_match(pm, entry.id, user_arg, buf, len, offset, vbuf, &keep_going, extra,
                                                "first");
        if (result != 0 || !keep_going)
            return result;
    }
    return VAEL_OK;
}
