/*
 * vael_us_adaptor.h - the runtime services the library is written against:
 * the accounting allocator with its fail injection, the debug print with its
 * topics and levels, assertions that never stop the program, tunables read
 * from the environment, locks, the clock, random bytes, and the printers of
 * the kernel's memory-pool statistics.
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

/* ---------------------------------------------------------------- allocation */

/* flags is accepted for the interface and ignored; memory is not zeroed.
 * caller, file and line name the call site for fail injection: each site
 * passes its own constant texts, which are told apart by address. */
void *qx_kmalloc_ex_(size_t size, const char *caller, int flags, const char *file, int line);
void qx_kfree_(void *ptr, size_t size);
size_t qx_kmem_max_efficient_size(void);
/* Bytes in use through qx_kmalloc_ex_. */
intptr_t qx_kmem_get_alloc_total(void);

void *vael_pmglob_memory_kmalloc_ex_(size_t size, const char *caller, int flags, const char *file, int line);
void vael_pmglob_memory_kfree_ex_(void *ptr, size_t size, const char *caller, const char *file, int line);
/* Bytes in use by PMs and engines. */
intptr_t vael_pmglob_memory_get_alloc_total(void);
/* Reports the PM account ("PM: %d bytes leaked." or "PM: NO memory Leaks.")
 * and, when it is not zero, runs check_leaks_. Gives the account. */
intptr_t vael_pmglob_memory_check_leaks(int panic, int print);

/* Allocations so far, counted by qx_kmalloc_ex_. */
extern int alloc_number;

/* Fail injection, first method: with global_pct 0 nothing fails. Otherwise
 * fail_mem_method 1 fails the allocation whose number equals global_pct,
 * 2 every allocation numbered above it, 3 every allocation whose number is a
 * multiple of it. Any other method fails nothing. */
extern int global_pct;
extern int fail_mem_method;
/* Non-zero when the first method fails the allocation now being counted. */
int qx_kmem_fail_decide(void);

/* Fail injection, second method, a facility for single-threaded tests.
 * mode 1: `value` percent of allocations fail at random.
 * mode 2: every call site fails once, at its first call; then never again.
 * mode 3: as 2, but each site fails at its call number value + 1.
 * Any other mode switches injection off. Every call clears the failure
 * count; modes 2 and 3 forget the sites seen. */
void vael_us_adaptor_failmem_set(int mode, int value);
/* Allocations failed by the second method since the last failmem_set. */
int vael_us_adaptor_num_failures(void);

/* Leak records. qx_kmalloc_ex_ and qx_kfree_ do not keep them in this build:
 * a host that wants them calls insert_alloc_info and remove_alloc_info. The
 * records themselves come from the C library, not the account. */
#define VAEL_ALLOC_INFO_TEXT 50
#define VAEL_ALLOC_INFO_STACK 30
#define VAEL_ALLOC_REASON_NOT_FREED  0
#define VAEL_ALLOC_REASON_WRONG_SIZE 1
typedef struct vael_alloc_info {
    void *addr;
    uint32_t size;
    int reason;      /* VAEL_ALLOC_REASON_* */
    int reason_data; /* the wrong size given to free */
    char caller[VAEL_ALLOC_INFO_TEXT];
    char file[VAEL_ALLOC_INFO_TEXT];
    int line;
    struct vael_alloc_info *next;
    /* Call stack lines; an unused line starts with NUL. */
    char stack[VAEL_ALLOC_INFO_STACK][VAEL_ALLOC_INFO_TEXT];
} vael_alloc_info;

/* Head of the leak list, newest first. */
extern vael_alloc_info *leaks;
/* A record at the head of the list; null when out of memory. */
vael_alloc_info *insert_alloc_info(void *addr, uint32_t size, const char *caller, const char *file, int line);
/* With the size allocated, unlinks and frees the record of addr (result 0).
 * With another size, keeps it as a wrong-size leak (result 1). -1 when addr
 * has no record. */
int remove_alloc_info(void *addr, uint32_t size);
void print_leaks(void);
void alloc_error_print(int reason, int data);
/* print non-zero prints the leak list; panic 1 panics. */
void check_leaks_(int panic, int print);

/* ---------------------------------------------------------------- debug print */

/* One line through the debug facility. The _no_prefix form continues a line
 * printed in pieces. */
void vael_us_adaptor_kdprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
void vael_us_adaptor_kdprintf_no_prefix(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Non-zero when a message of `level` under `topics` (names divided by " |",
 * as "K_DFA | K_PM") is wanted: by one of its topics, by K_ALL, or by the
 * module's all-topics switch. Callers check it before computing the
 * message's arguments. */
int vael_us_adaptor_printable(int level, const char *topics);
/* Print limit of the kernel-style print. User space prints without a rate
 * limit; the word is kept for code that lowers it around long dumps. */
extern int qx_kdprintf_limit;

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
/* K_ERROR and K_WARNING at NOTICE, then the topics of VAEL_DEBUG at the level
 * of VAEL_DEBUG_LEVEL, then the flow topics of VAEL_DEBUG_FLOW at INFO. */
void vael_us_adaptor_debug_init(void);

/* The control-plane debug tool's hooks, kept for it by the library. */
typedef int (*vael_debug_filter_fn)(const char *filter);
extern vael_debug_filter_fn vael_debug_filter_set_filter;
extern vael_debug_filter_fn vael_debug_filter_unset_filter;
void vael_debug_register_callbacks(vael_debug_filter_fn set_filter, vael_debug_filter_fn unset_filter);

/* ---------------------------------------------------------------- start and stop */

/* Debug topics, the random seed, then the tunables of the environment. */
void vael_us_adaptor_init(void);
void vael_us_adaptor_fini(void);
/* Reads each tunable below that the environment names, in base 10. */
void vael_us_adaptor_globals_init(void);

/* Tunables of engines this build does not hold yet. They are read from the
 * environment like every tunable; the engines that read them own their
 * meaning. (The tunables of the PM frame and the Thin NFA are declared in
 * vael_pm.h and vael_thin_nfa.h.) */
extern int vael_dfa_state_limit;           /* default 10000 */
extern int vael_dfa_should_limit_states;   /* default 1 */
extern int vael_pm_utf8_range_buffer_size; /* default 4096 */
extern int vael_pm_allow_null_in_pattern;  /* default 0 */
extern int vael_pm_pcre_use_dfa_exec;      /* default 1 */

/* ---------------------------------------------------------------- assertions */

/* Assertions never stop the program: qx_panic_ex returns at once. */
extern int qx_assert_on;
void qx_panic_ex(const char *reason);
int vael_module_i_am_global(void);
extern int vael_multik_this_instance_num;
extern int vael_multik_instance_num;

/* ---------------------------------------------------------------- locks */

/* A plain, non-recursive mutex. */
typedef struct vael_mutex vael_mutex;
vael_mutex *MtMutexCreate(int flags);
void MtMutexLock(vael_mutex *m);
void MtMutexUnLock(vael_mutex *m);
void MtMutexDestroy(vael_mutex *m);
void tqlock_init(void);
void tqlock_term(void);
/* 0, or -1 when the mutex cannot be made. */
int tqlock_lock_init(vael_mutex **lock);
void tqlock_lock_term(vael_mutex **lock);
/* Readers and writers share one mutex here. */
int tqlock_rwlock_init(vael_mutex **lock, int a, int b);
void tqlock_rwlock_term(vael_mutex **lock);

/* ---------------------------------------------------------------- clock and random */

typedef struct vael_timeval {
    uint32_t tv_sec;
    uint32_t tv_usec;
} vael_timeval;
void GetTime(vael_timeval *tv);
uint32_t qx_abstime(void);
void vael_time_get_hrtime(vael_timeval *tv);
/* (s2 - s1) * 1000000 + (u2 - u1), in 32 bits. */
uint32_t vael_time_diff_usec(const vael_timeval *start, const vael_timeval *end);

/* Fill buf with len random bytes. */
void qxrand_gen(void *buf, size_t len);
void vael_krand_gen(void *buf, size_t len);

/* ---------------------------------------------------------------- memory-pool statistics */

/* Records a control tool fetches from a kernel module, one per instance. */
#define VAEL_HMEM_SIZE_CLASSES 500

typedef struct vael_hmem_size_class {
    uint32_t blocks;
    uint32_t full_blocks;
    uint32_t nitems;
} vael_hmem_size_class;

typedef struct vael_hmem_stat {
    vael_hmem_size_class classes[VAEL_HMEM_SIZE_CLASSES];
    uint32_t pools;
    uint32_t initial_bytes;
    uint32_t requested_bytes;
    uint32_t limit_bytes;
    uint32_t limit_pools;
    uint32_t blocks;
    uint32_t bytes_allocated;
    uint32_t blocks_used;
    uint32_t bytes_used;
    uint32_t peak_blocks;
    uint32_t peak_bytes;
    uint32_t items;
    uint32_t allocs;
    uint32_t frees;
    uint32_t failed_allocs;
    uint32_t block_size;
    uint32_t size_unit;
    uint32_t size_classes;
    uint32_t block_overhead;
} vael_hmem_stat;

typedef struct vael_smem_stat {
    uint32_t blocking_used;
    uint32_t blocking_peak;
    uint32_t nonblocking_used;
    uint32_t nonblocking_peak;
    uint32_t items;
    uint32_t allocs;
    uint32_t failed_allocs;
    uint32_t frees;
    uint32_t failed_frees;
    uint32_t internal_bytes;
} vael_smem_stat;

typedef struct vael_kmem_stat {
    uint32_t used;
    uint32_t peak;
    uint32_t items;
    uint32_t allocs;
    uint32_t failed_allocs;
    uint32_t frees;
    uint32_t failed_frees;
    uint32_t internal_bytes;
} vael_kmem_stat;

/* Adds one instance's record to a total. Limits and the pool geometry
 * (block size, size unit, size classes, overhead) are not summed. */
void hmem_stat_aggregate(vael_hmem_stat *total, const vael_hmem_stat *one);
void smem_stat_aggregate(vael_smem_stat *total, const vael_smem_stat *one);
void kmem_stat_aggregate(vael_kmem_stat *total, const vael_kmem_stat *one);
/* Adds `size` bytes of 32-bit counters word by word. */
void vael_stat_aggregate_add_all_ints(void *total, const void *item, uint32_t size);

/* Print a record through the debug facility, without the line prefix.
 * external holds two words: allocations for packets and for LVX. */
void hmem_stat_prt(const vael_hmem_stat *stat, int verbose);
void smem_stat_prt(const vael_smem_stat *stat, int verbose);
void kmem_stat_prt(const vael_kmem_stat *stat, int count, const uint32_t *external);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_US_ADAPTOR_H */
