/*
 * vael_pm_selftest.h - driving a PM by hand from the control plane.
 *
 * An operator sets string and integer parameters through the control tools,
 * and the host calls the matching callback after each set: collect patterns
 * (an LSS, then its expression), compile them, run buffers, reset. Every
 * result goes to the debug log under K_PM. One test at a time per process;
 * the state is not guarded.
 */
#ifndef VAEL_PM_SELFTEST_H
#define VAEL_PM_SELFTEST_H

#include <stdint.h>

#include "vael/vael_pm.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PM_CALLBACK_TEST_TEXT_SIZE 300

/* String parameters: the next pattern's LSS, its expression, and a buffer to
 * run, in which "\xHH" stands for the byte HH. */
extern char pm_callback_test_compile_lss[PM_CALLBACK_TEST_TEXT_SIZE];
extern char pm_callback_test_compile_re[PM_CALLBACK_TEST_TEXT_SIZE];
extern char pm_callback_test_buffer[PM_CALLBACK_TEST_TEXT_SIZE];
/* Integer parameters whose set compiles the collected patterns, and drops
 * list and PM. Their values are not read. */
extern int pm_callback_test_compile;
extern int pm_callback_test_reset_test;

/* The callbacks, each 0 or -1. */
int pm_callback_test_compile_lss_cb(void);
int pm_callback_test_compile_re_cb(void);
int pm_callback_test_compile_cb(const char *name);
int pm_callback_test_buffer_cb(void);
int pm_callback_test_reset_test_cb(void);
/* Runs the compiled PM over a caller's buffer, taken as it is. */
int pm_callback_test_exec_buffer(const unsigned char *buf, uint32_t len);
/* The PM's match callback: logs the match and ends the run at the first. */
int pm_callback_test_match_func(vael_pm_handle *pm, int32_t pattern_id, void *user_arg, const unsigned char *buf,
                                uint32_t len, uint32_t offset, vael_vbuf *vbuf, int *keep_going);

/* One hexadecimal digit: 0 to 15, or -1 (logged) for any other byte. */
int pm_callback_test_hex_char_to_int(char c);
/* The value of `len` hexadecimal digits in *value: 0, or -1 (logged) for a
 * null text or a bad digit. */
int pm_callback_test_hex_string_to_int(const char *hex, uint32_t len, int *value);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PM_SELFTEST_H */
