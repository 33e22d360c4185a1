/*
 * vael_pm_regexp_verifier.h - the internal side of the syntax questions; the
 * public ones are in vael/vael_pm_verify.h.
 */
#ifndef VAEL_PM_REGEXP_VERIFIER_H
#define VAEL_PM_REGEXP_VERIFIER_H

#include <stdint.h>

#include "vael/vael_pm_verify.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A new text of `length` bytes in which each pair of backslashes, read from
 * the start, is "@@" and every other byte is copied, so that an escaped
 * backslash is never taken for the start of an escape. Free it with
 * qx_kfree_(text, length). Null when out of memory or for a length of 0. */
char *vael_pm_regexp_normalize_bslash(const char *pattern, uint32_t length);

/* Runs the table of conflicting meta characters over the pattern, its
 * backslash pairs blanked; a hit writes its row's code, type, text and the
 * offset of its last byte into *result, else *result stays as it was.
 * 0, or -1 when the run could not be made. */
int vael_pm_regexp_find_conflict(vael_pm_regexp_verify_handle *handle, const char *pattern, uint32_t length,
                                 vael_pm_regexp_result *result);

/* The older engine's validity test: negative when it refuses the NUL-ended
 * text. */
int tq_regvalidate(const char *text);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_REGEXP_VERIFIER_H */
