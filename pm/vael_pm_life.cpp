// vael_pm_life.cpp - new PMs made from existing ones: the update, which
// compiles a new list and takes over the old PM's second tiers where a row
// allows it, and the duplicate, which copies every engine handle through its
// row.

#include <cstring>

#include "pm/vael_pm_internal.h"
#include "runtime/vael_runtime.h"

namespace {

void copy_callbacks(vael_pm_handle *to, const vael_pm_handle *from) {
    std::memcpy(to->match_cb, from->match_cb, sizeof to->match_cb);
    std::memcpy(to->ext_match_cb, from->ext_match_cb, sizeof to->ext_match_cb);
}

}  // namespace

extern "C" vael_pm_handle *vael_pm_update(vael_pm_handle *old_pm, vael_pm_patterns *patterns, uint32_t flags,
                                          vael_pm_error *err, const char *caller) {
    if (!old_pm || !patterns) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Invalid arguments; patterns: %p, old_pm %p, caller %s\n",
                 (void *)patterns, (void *)old_pm, caller ? caller : "(null)");
        return nullptr;
    }
    vael_timeval start, end;
    vael_time_get_hrtime(&start);
    vael_pm_handle *pm =
        vael_pm_compile_ex(old_pm, patterns, old_pm->match_cb[vael_multik_this_instance_num], flags, err, caller);
    if (!pm)
        return nullptr;
    copy_callbacks(pm, old_pm);
    vael_time_get_hrtime(&end);
    pm->stats.update_time = vael_time_diff_usec(&start, &end);
    return pm;
}

namespace {

// A PM-owned copy of a saved text. Saved texts may hold any byte, NULs
// included, and are freed from the PM account: a plain byte copy into it.
int copy_saved_text(const unsigned char *text, uint32_t size, unsigned char **copy, uint32_t *copy_size) {
    *copy = nullptr;
    *copy_size = 0;
    if (!text || size == 0)
        return 0;
    *copy = static_cast<unsigned char *>(VAEL_PM_KMALLOC(size));
    if (!*copy)
        return -1;
    std::memcpy(*copy, text, size);
    *copy_size = size;
    return 0;
}

int vael_pm_duplicate_tier1(vael_pm_handle *pm, const vael_pm_handle *orig) {
    for (int i = 0; i < VAEL_PM_MAX_TIER1; i++) {
        const vael_pm_tier1_slot &from = orig->tier1[i];
        if (!from.tier1_h)
            continue;
        const vael_pm_tier1_funcs &row = pm_tier1_funcs[from.tier1_type];
        void *h = row.duplicate ? row.duplicate(from.tier1_h) : nullptr;
        if (!h) {
            VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Failed to duplicate the %s handle\n",
                     row.name ? row.name : "first-tier");
            return -1;
        }
        pm->tier1[i] = vael_pm_tier1_slot{from.tier1_type, h};
    }
    return 0;
}

int vael_pm_duplicate_tier2(vael_pm_handle *pm, const vael_pm_handle *orig) {
    for (uint32_t i = 0; i < orig->num_tier2; i++) {
        const vael_pm_array_one_handle &from = orig->pm_array[i];
        vael_pm_array_one_handle &to = pm->pm_array[i];
        void *h = nullptr;
        if (from.tier2_h) {
            const vael_pm_tier2_funcs &row = pm_tier2_funcs[from.tier2_type];
            h = row.duplicate ? row.duplicate(from.tier2_h) : nullptr;
            if (!h) {
                VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Failed to duplicate the %s handle of pattern %d\n",
                         row.name ? row.name : "second-tier", from.id);
                return -1;
            }
        }
        // Counters start from 0; texts are the entry's own copies.
        to = vael_pm_array_one_handle{};
        to.type = from.type;
        to.id = from.id;
        to.match_len = from.match_len;
        to.flags = from.flags;
        to.tier2_type = h ? from.tier2_type : VAEL_PM_TIER2_NONE;
        to.tier2_h = h;
        if (copy_saved_text(from.re_str, from.re_size, &to.re_str, &to.re_size) != 0 ||
            copy_saved_text(from.lss_str, from.lss_size, &to.lss_str, &to.lss_size) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Failed to copy the texts of pattern %d\n", from.id);
            return -1;
        }
    }
    return 0;
}

}  // namespace

extern "C" vael_pm_handle *vael_pm_duplicate(vael_pm_handle *orig_pm, const char *caller) {
    if (!orig_pm) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Invalid arguments; orig_pm is NULL, caller %s\n",
                 caller ? caller : "(null)");
        return nullptr;
    }
    vael_pm_handle *pm = vael_pm_create_handle(orig_pm->num_tier2, orig_pm->match_cb[vael_multik_this_instance_num],
                                               orig_pm->flags, caller);
    if (!pm)
        return nullptr;
    copy_callbacks(pm, orig_pm);
    if (vael_pm_duplicate_tier1(pm, orig_pm) != 0 || vael_pm_duplicate_tier2(pm, orig_pm) != 0) {
        vael_pm_destroy(pm);
        return nullptr;
    }
    pm->stats = orig_pm->stats;
    // The copy joins the list before it is validated; a failed validation
    // takes it out again with the destroy.
    vael_pm_insert_to_pm_list_locked(pm);
    if (vael_pm_validate(pm) != 0) {
        vael_pm_destroy(pm);
        return nullptr;
    }
    return pm;
}
