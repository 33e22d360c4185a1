/*
 * vael_pm_verify.h - syntax questions a management tool asks before a
 * pattern goes into a policy.
 *
 * Three validity questions: does a regular expression compile in this
 * library (vael_pm_verify_syntax), does it compile in the older regular
 * expression engine (vael_regexp_verify_syntax), and will the word matcher
 * take a phrase (vael_wm_verify_syntax). And one migration question: would a
 * pattern mean the same in both engines? That one is answered by a small PM
 * of the meta characters on which the two engines differ, run over the
 * pattern's own text (vael_pm_regexp_verify_*).
 *
 * In this build the older engine's validity test is the C library's POSIX
 * extended regular expressions, compiled case-insensitively, which is how
 * that engine reads patterns.
 */
#ifndef VAEL_PM_VERIFY_H
#define VAEL_PM_VERIFY_H

#include <stdint.h>

#include "vael/vael_pm.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The answer to the migration question. code and type are the values below;
 * text is a constant of the library; offset is the position in the pattern
 * of the last byte of the construct found, or VAEL_PM_REGEXP_NO_OFFSET. */
typedef struct vael_pm_regexp_result {
    vael_pm_error error; /* details of this library's refusal, when that is the answer */
    int32_t code;        /* 0 for success, else one of VAEL_PM_REGEXP_* */
    uint32_t type;       /* VAEL_PM_REGEXP_TYPE_* */
    const char *text;    /* what was found, for the tool's user */
    uint32_t offset;     /* where in the pattern */
} vael_pm_regexp_result;

#define VAEL_PM_REGEXP_NO_OFFSET 0xffffffffu

/* Values of vael_pm_regexp_result.type. */
#define VAEL_PM_REGEXP_TYPE_SUCCESS    0 /* the pattern means the same in both */
#define VAEL_PM_REGEXP_TYPE_ERROR      1 /* can't migrate as written: refused here, or an anchor inside */
#define VAEL_PM_REGEXP_TYPE_DIFFERENCE 2 /* a construct or flag the older engine reads otherwise */
#define VAEL_PM_REGEXP_TYPE_SETUP      3 /* the setting of the question: the case rule, or a failed run */

/* Values of vael_pm_regexp_result.code outside the meta character table. */
#define VAEL_PM_REGEXP_SUCCESS             0
#define VAEL_PM_REGEXP_INTERNAL           -1 /* the table could not be run */
#define VAEL_PM_REGEXP_CASE_MISMATCH      -2 /* the older engine is caseless, this compile is not */
#define VAEL_PM_REGEXP_COMPILE_FLAGS      -3 /* compile flags the older engine lacks */
#define VAEL_PM_REGEXP_PATTERN_FLAGS      -4 /* pattern flags the older engine lacks */
#define VAEL_PM_REGEXP_METADATA           -5 /* the pattern carries metadata */
#define VAEL_PM_REGEXP_PM_SYNTAX          -6 /* this library refuses the pattern */
#define VAEL_PM_REGEXP_REGEXP_SYNTAX      -7 /* the older engine refuses the pattern */

/* Compile flag bits that the older engine has no counterpart for. */
#define VAEL_PM_REGEXP_UNSUPPORTED_COMPILE_FLAGS 0x7au

typedef struct vael_pm_regexp_verify_handle vael_pm_regexp_verify_handle;

/* Compiles the table of conflicting meta characters; null on failure. The
 * library must be started. One handle may answer from many threads. */
vael_pm_regexp_verify_handle *vael_pm_regexp_verify_init(void);
/* Destroys the handle and its PM. Null is allowed. */
void vael_pm_regexp_verify_fini(vael_pm_regexp_verify_handle *handle);
/* Fills *result with the first difference found, in the order: case, flags,
 * this library's syntax, the older engine's syntax, metadata, the table.
 * 0 when result->code is 0, else -1. */
int vael_pm_regexp_verify_identical_meaning(vael_pm_regexp_verify_handle *handle, const char *pattern,
                                            uint32_t length, uint32_t compile_flags, uint32_t pattern_flags,
                                            vael_pm_regexp_result *result);

/* 0 when the pattern, with its flags, compiles here; -1 with details in
 * *error (which may be null) when not. */
int vael_pm_verify_syntax(const char *pattern, uint32_t length, uint32_t compile_flags, uint32_t pattern_flags,
                          vael_pm_error *error);
/* 0 when the older engine reads the NUL-ended pattern, -1 when not. */
int vael_regexp_verify_syntax(const char *pattern);
/* 0 when the word matcher takes the phrase (valid UTF-8 with at least one
 * character that is no delimiter), -1 with the reason in *error. */
int vael_wm_verify_syntax(const char *phrase, uint32_t length, vael_pm_error *error);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_VERIFY_H */
