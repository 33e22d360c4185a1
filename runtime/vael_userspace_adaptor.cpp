// vael_userspace_adaptor.cpp - kernel-style services in a user-space process:
// the accounting allocator, the debug print and its topic switches,
// assertions that never stop the program, mutexes and the clock.
//
// Nothing above this file knows whether it runs in a kernel or a process.

#include <pthread.h>
#include <strings.h>
#include <sys/time.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "runtime/vael_runtime.h"

int qx_assert_on = 0;
int vael_multik_this_instance_num = 0;
int vael_multik_instance_num = 1;

namespace {

// The accounts are relaxed atomics: runs on many threads allocate match
// records, and a lost update would leave a permanent false leak.
std::atomic<intptr_t> g_kmem_total{0};
std::atomic<intptr_t> g_pm_total{0};

}  // namespace

// ---------------------------------------------------------------- allocation

extern "C" void *qx_kmalloc_ex_(size_t size, const char *caller, int flags, const char *file, int line) {
    // malloc(0) may answer null, which would read as a failure.
    void *p = std::malloc(size ? size : 1);
    if (!p) {
        VAEL_LOG_AS("qx_kmalloc_ex", VAEL_DBG_ERR, "K_MEMORY", "%s: Failed to allocate %d bytes for %s\n",
                    (int)size, caller ? caller : "");
        return nullptr;
    }
    g_kmem_total.fetch_add((intptr_t)size, std::memory_order_relaxed);
    return p;
}

extern "C" void qx_kfree_(void *ptr, size_t size) {
    if (!ptr)
        return;
    g_kmem_total.fetch_sub((intptr_t)size, std::memory_order_relaxed);
    std::free(ptr);
}

extern "C" size_t qx_kmem_max_efficient_size(void) { return 0x400000; }

extern "C" intptr_t qx_kmem_get_alloc_total(void) { return g_kmem_total.load(std::memory_order_relaxed); }

extern "C" void *vael_pmglob_memory_kmalloc_ex_(size_t size, const char *caller, int flags, const char *file,
                                                int line) {
    void *p = qx_kmalloc_ex_(size, caller, flags, file, line);
    if (p)
        g_pm_total.fetch_add((intptr_t)size, std::memory_order_relaxed);
    return p;
}

extern "C" void vael_pmglob_memory_kfree_ex_(void *ptr, size_t size, const char *caller, const char *file,
                                             int line) {
    if (!ptr)
        return;
    g_pm_total.fetch_sub((intptr_t)size, std::memory_order_relaxed);
    qx_kfree_(ptr, size);
}

extern "C" intptr_t vael_pmglob_memory_get_alloc_total(void) { return g_pm_total.load(std::memory_order_relaxed); }

// ---------------------------------------------------------------- debug print

extern "C" void vael_us_adaptor_kdprintf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    tdVFunc(VAEL_DBG_MODULE, 65535, 0, format, args);
    va_end(args);
}

extern "C" void vael_us_adaptor_kdprintf_no_prefix(const char *format, ...) {
    va_list args;
    va_start(args, format);
    tdVFunc(VAEL_DBG_MODULE, 65535, 1, format, args);
    va_end(args);
}

extern "C" int vael_us_adaptor_printable(int level, const char *topics) {
    return tdTopicsPrintable(level, topics, VAEL_DBG_MODULE, " |") ||
           tdTopicsPrintable(level, "K_ALL", VAEL_DBG_MODULE, " |") || tdAllPrintable(level, VAEL_DBG_MODULE);
}

extern "C" void vael_us_adaptor_set_debug_flags(const char *list, const char *level_word, const char *prefix) {
    static const char *const kLevels[] = {"NONE", "ERR", "WRN", "NOTICE", "INFO"};
    int level = VAEL_DBG_NOTICE;
    if (level_word) {
        for (int i = 0; i < (int)(sizeof kLevels / sizeof kLevels[0]); i++)
            if (strcasecmp(level_word, kLevels[i]) == 0)
                level = i;
    }
    if (!list)
        return;
    if (!prefix)
        prefix = "";
    const char *delims = " ,\t\n\r";
    const char *p = list;
    while (*p) {
        p += std::strspn(p, delims);
        size_t len = std::strcspn(p, delims);
        if (len == 0)
            break;
        char topic[256];
        int n = std::snprintf(topic, sizeof topic, "%s", prefix);
        for (size_t i = 0; i < len && n + 1 < (int)sizeof topic; i++)
            topic[n++] = (char)std::toupper((unsigned char)p[i]);
        topic[n] = '\0';
        tdAddTopic(topic, level, VAEL_DBG_MODULE);
        p += len;
    }
}

extern "C" void vael_us_adaptor_debug_init(void) {
    vael_us_adaptor_set_debug_flags("error warning", nullptr, "K_");
    if (const char *topics = std::getenv("VAEL_DEBUG"))
        vael_us_adaptor_set_debug_flags(topics, std::getenv("VAEL_DEBUG_LEVEL"), "K_");
    if (const char *flow = std::getenv("VAEL_DEBUG_FLOW"))
        vael_us_adaptor_set_debug_flags(flow, "INFO", "FL_");
}

extern "C" void vael_us_adaptor_init(void) {
    vael_us_adaptor_debug_init();
    std::srand((unsigned)std::time(nullptr));
}

extern "C" void vael_us_adaptor_fini(void) {}

// ---------------------------------------------------------------- assertions

extern "C" void qx_panic_ex(const char *reason) {}

extern "C" void vael_assert_fail(const char *file, int line, const char *format, ...) {
    vael_us_adaptor_kdprintf("Assert at (%s:%d)\n", file, line);
    char reason[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
    size_t len = std::strlen(reason);
    vael_us_adaptor_kdprintf(len && reason[len - 1] == '\n' ? "%s" : "%s\n", reason);
    qx_panic_ex(reason);
}

extern "C" int vael_module_i_am_global(void) { return 1; }

// ---------------------------------------------------------------- locks

struct vael_mutex {
    pthread_mutex_t m;
};

extern "C" vael_mutex *MtMutexCreate(int flags) {
    auto *m = static_cast<vael_mutex *>(VAEL_KMALLOC(sizeof(vael_mutex)));
    if (!m)
        return nullptr;
    pthread_mutex_init(&m->m, nullptr);
    return m;
}

extern "C" void MtMutexLock(vael_mutex *m) { pthread_mutex_lock(&m->m); }
extern "C" void MtMutexUnLock(vael_mutex *m) { pthread_mutex_unlock(&m->m); }

extern "C" void MtMutexDestroy(vael_mutex *m) {
    if (!m)
        return;
    pthread_mutex_destroy(&m->m);
    VAEL_KFREE(m, sizeof(vael_mutex));
}

extern "C" int tqlock_lock_init(vael_mutex **lock) {
    *lock = MtMutexCreate(0);
    return *lock ? 0 : -1;
}

extern "C" void tqlock_lock_term(vael_mutex **lock) {
    MtMutexDestroy(*lock);
    *lock = nullptr;
}

// ---------------------------------------------------------------- clock

extern "C" void GetTime(vael_timeval *tv) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    tv->tv_sec = (uint32_t)now.tv_sec;
    tv->tv_usec = (uint32_t)now.tv_usec;
}

extern "C" uint32_t qx_abstime(void) {
    vael_timeval tv;
    GetTime(&tv);
    return tv.tv_sec;
}

extern "C" void vael_time_get_hrtime(vael_timeval *tv) { GetTime(tv); }

extern "C" uint32_t vael_time_diff_usec(const vael_timeval *start, const vael_timeval *end) {
    return (end->tv_sec - start->tv_sec) * 1000000u + (end->tv_usec - start->tv_usec);
}
