/*
 * vael_runtime.h - the internal face of the runtime adaptor: allocation,
 * logging and assertion macros that every module of the library uses.
 *
 * Allocation macros name the calling function, file and line, which is the
 * key by which fail injection tells one allocation site from another.
 * Logging macros check the topic guard before the arguments are evaluated,
 * and pass the calling function's name as the first "%s" of the text.
 */
#ifndef VAEL_RUNTIME_H
#define VAEL_RUNTIME_H

#include <stddef.h>
#include <stdint.h>

#include "vael/vael_us_adaptor.h"

/* General memory, counted in the process-wide account. */
#define VAEL_KMALLOC(size) qx_kmalloc_ex_((size), __func__, 0, __FILE__, __LINE__)
#define VAEL_KFREE(ptr, size) qx_kfree_((ptr), (size))

/* Memory owned by a PM or an engine, counted in the PM account as well. */
#define VAEL_PM_KMALLOC(size) vael_pmglob_memory_kmalloc_ex_((size), __func__, 0, __FILE__, __LINE__)
#define VAEL_PM_KFREE(ptr, size) vael_pmglob_memory_kfree_ex_((ptr), (size), __func__, __FILE__, __LINE__)

/* Memory owned by a PM with `slack` bytes behind it that only wide reads
 * touch: the general account counts size + slack, the PM account size. */
#ifdef __cplusplus
extern "C" {
#endif
void *vael_pmglob_memory_kmalloc_padded_ex_(size_t size, size_t slack, const char *caller, int flags,
                                            const char *file, int line);
void vael_pmglob_memory_kfree_padded_ex_(void *ptr, size_t size, size_t slack);
#ifdef __cplusplus
}
#endif
#define VAEL_PM_KMALLOC_PADDED(size, slack) \
    vael_pmglob_memory_kmalloc_padded_ex_((size), (slack), __func__, 0, __FILE__, __LINE__)
#define VAEL_PM_KFREE_PADDED(ptr, size, slack) vael_pmglob_memory_kfree_padded_ex_((ptr), (size), (slack))

/* A debug line of `level` under `topics`; fmt's first "%s" is the caller's
 * name. Arguments are evaluated only when the line is wanted. */
#define VAEL_LOG(level, topics, fmt, ...)                                                 \
    do {                                                                                  \
        if (vael_us_adaptor_printable((level), (topics)))                                 \
            vael_us_adaptor_kdprintf((fmt), __func__ __VA_OPT__(, ) __VA_ARGS__);          \
    } while (0)

/* The same, with an explicit name where the text is fixed to one. */
#define VAEL_LOG_AS(name, level, topics, fmt, ...)                                        \
    do {                                                                                  \
        if (vael_us_adaptor_printable((level), (topics)))                                 \
            vael_us_adaptor_kdprintf((fmt), (name)__VA_OPT__(, ) __VA_ARGS__);             \
    } while (0)

#ifdef __cplusplus
extern "C" {
#endif
/* Prints "Assert at (file:line)", then the reason, then calls qx_panic_ex,
 * which returns: the caller's next statement runs. */
void vael_assert_fail(const char *file, int line, const char *format, ...) __attribute__((format(printf, 3, 4)));
/* Prints "QX-1: func: reason (file:line)" and calls qx_panic_ex. */
void vael_soft_assert_fail(const char *func, const char *reason, const char *file, int line);
#ifdef __cplusplus
}
#endif

/* Soft assertion: a check that costs nothing unless qx_assert_on is set, for
 * conditions a production build trusts. The condition is not evaluated when
 * the switch is off. */
#define VAEL_SOFT_ASSERT(cond, reason)                                                    \
    do {                                                                                  \
        if (qx_assert_on && !(cond))                                                      \
            vael_soft_assert_fail(__func__, (reason), __FILE__, __LINE__);                \
    } while (0)

/* Hard assertion with a plain reason text: checked and reported always. */
#define VAEL_ASSERT(cond, text)                                                           \
    do {                                                                                  \
        if (!(cond))                                                                      \
            vael_assert_fail(__FILE__, __LINE__, "%s", (text));                           \
    } while (0)

/* Hard assertion whose reason text takes the caller's name as its first "%s". */
#define VAEL_ASSERT_F(cond, fmt, ...)                                                     \
    do {                                                                                  \
        if (!(cond))                                                                      \
            vael_assert_fail(__FILE__, __LINE__, (fmt), __func__ __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

#endif /* VAEL_RUNTIME_H */
