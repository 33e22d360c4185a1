/*
 * vael_us_adaptor.h - the runtime services the library is written against:
 * the accounting allocator, the debug print with its topics and levels,
 * assertions that never stop the program, locks and the clock.
 *
 * Every allocation of the library goes through qx_kmalloc_ex_, which keeps a
 * process-wide byte account; memory owned by PMs and engines is counted a
 * second time in the PM account, which compile figures are differences of.
 * The free takes the size that was allocated: every record knows its size.
 */
#ifndef VAEL_US_ADAPTOR_H
#define VAEL_US_ADAPTOR_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Debug levels. */
#define VAEL_DBG_NONE   0
#define VAEL_DBG_ERR    1 /* failures worth an operator's eye */
#define VAEL_DBG_WRN    2
#define VAEL_DBG_NOTICE 3 /* ordinary notes */
#define VAEL_DBG_INFO   4 /* entry traces */

/* The module id of every topic of this library. */
#define VAEL_DBG_MODULE 5

/* Allocation. flags is accepted for the interface and ignored; memory is not
 * zeroed. */
void *qx_kmalloc_ex_(size_t size, const char *caller, int flags, const char *file, int line);
void qx_kfree_(void *ptr, size_t size);
size_t qx_kmem_max_efficient_size(void);
/* Bytes in use through qx_kmalloc_ex_. */
intptr_t qx_kmem_get_alloc_total(void);

void *vael_pmglob_memory_kmalloc_ex_(size_t size, const char *caller, int flags, const char *file, int line);
void vael_pmglob_memory_kfree_ex_(void *ptr, size_t size, const char *caller, const char *file, int line);
/* Bytes in use by PMs and engines. */
intptr_t vael_pmglob_memory_get_alloc_total(void);

/* Debug print: one line through the debug facility. The _no_prefix form
 * continues a line printed in pieces. */
void vael_us_adaptor_kdprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
void vael_us_adaptor_kdprintf_no_prefix(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Non-zero when a message of `level` under `topics` (names divided by " |",
 * as "K_DFA | K_PM") is wanted. Callers check it before computing the
 * message's arguments. */
int vael_us_adaptor_printable(int level, const char *topics);

/* The debug facility. Topics are per module, each on up to a level. */
int tdAddTopic(const char *topic, int level, int module);
int tdTopicsPrintable(int level, const char *topics, int module, const char *delimiter);
int tdAllPrintable(int level, int module);
/* Turns every topic of a module on up to `level` (0 turns the switch off). */
void tdSetAllLevel(int level, int module);
/* Removes every topic of every module and the all-topics levels. */
void tdResetTopics(void);
/* no_prefix non-zero continues a line without the line prefix. */
void tdFunc(int module, unsigned mask, int no_prefix, const char *format, ...) __attribute__((format(printf, 4, 5)));
void tdVFunc(int module, unsigned mask, int no_prefix, const char *format, va_list args);
/* Where output goes: standard error by default. A sink receives each piece
 * as printed, prefix included; null puts standard error back. */
typedef void (*td_sink_fn)(const char *text, void *ctx);
void tdSetSink(td_sink_fn sink, void *ctx);

/* Turns on each topic of `list` (words divided by " ,\t\n\r", upper-cased and
 * appended to `prefix`) at the level named by `level_word` ("NONE", "ERR",
 * "WRN", "NOTICE", "INFO", any case; anything else or null gives NOTICE). */
void vael_us_adaptor_set_debug_flags(const char *list, const char *level_word, const char *prefix);
void vael_us_adaptor_debug_init(void);

void vael_us_adaptor_init(void);
void vael_us_adaptor_fini(void);

/* Assertions never stop the program: qx_panic_ex returns at once. */
extern int qx_assert_on;
void qx_panic_ex(const char *reason);
int vael_module_i_am_global(void);
extern int vael_multik_this_instance_num;
extern int vael_multik_instance_num;

/* Locks: a plain, non-recursive mutex. */
typedef struct vael_mutex vael_mutex;
vael_mutex *MtMutexCreate(int flags);
void MtMutexLock(vael_mutex *m);
void MtMutexUnLock(vael_mutex *m);
void MtMutexDestroy(vael_mutex *m);
int tqlock_lock_init(vael_mutex **lock);
void tqlock_lock_term(vael_mutex **lock);

/* Clock. */
typedef struct vael_timeval {
    uint32_t tv_sec;
    uint32_t tv_usec;
} vael_timeval;
void GetTime(vael_timeval *tv);
uint32_t qx_abstime(void);
void vael_time_get_hrtime(vael_timeval *tv);
/* (s2 - s1) * 1000000 + (u2 - u1), in 32 bits. */
uint32_t vael_time_diff_usec(const vael_timeval *start, const vael_timeval *end);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_US_ADAPTOR_H */
