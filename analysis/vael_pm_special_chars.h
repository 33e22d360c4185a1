/*
 * vael_pm_special_chars.h - the LSS that a caller wrote, as an LSS object.
 *
 * In this build a user's LSS is taken byte for byte as it stands: its one
 * candidate is the text itself, escapes and all, as the literal flag asks.
 * The normalising parse of escapes and classes is not here yet.
 */
#ifndef VAEL_PM_SPECIAL_CHARS_H
#define VAEL_PM_SPECIAL_CHARS_H

#include <stdint.h>

#include "analysis/vael_pm_lss_finder.h"
#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An LSS object with the user's text as its one candidate; null for a null
 * string or out of memory. *lss_flags is left as it was: a plain text holds
 * no anchors. */
vael_pm_lss *vael_pm_special_chars_create_normalized_lss(const vael_pmglob_string *lss, uint32_t literal,
                                                         uint32_t digitless, uint32_t *lss_flags);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_SPECIAL_CHARS_H */
