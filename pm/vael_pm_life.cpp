// vael_pm_life.cpp - new PMs made from existing ones: the update, which
// compiles a new list and takes over the old PM's second tiers where a row
// allows it.

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
