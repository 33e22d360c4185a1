// vael_pm_special_chars.cpp - a user's LSS as an LSS object, taken byte for
// byte as it stands.

#include "analysis/vael_pm_special_chars.h"

#include "runtime/vael_runtime.h"

extern "C" vael_pm_lss *vael_pm_special_chars_create_normalized_lss(const vael_pmglob_string *lss, uint32_t literal,
                                                                    uint32_t digitless, uint32_t *lss_flags) {
    (void)literal;
    (void)digitless;
    (void)lss_flags;
    if (!lss)
        return nullptr;
    vael_pm_lss *out = vael_pm_lss_create(__func__);
    if (!out)
        return nullptr;
    vael_pm_lss_candidate *can = vael_pm_lss_candidate_create_simple(lss->pattern, lss->size);
    if (!can || vael_pm_lss_add_candidate(out, &can) != 0) {
        vael_pm_lss_candidate_destructor(reinterpret_cast<uintptr_t>(can));
        vael_pm_lss_destroy(out);
        return nullptr;
    }
    return out;
}
