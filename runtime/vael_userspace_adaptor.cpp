// vael_userspace_adaptor.cpp - kernel-style services in a user-space process:
// the accounting allocator and its fail injection, leak records, the debug
// print and its topic switches, tunables read from the environment,
// assertions that never stop the program, mutexes, the clock, random bytes,
// and the printers of the kernel's memory-pool statistics.
//
// Nothing above this file knows whether it runs in a kernel or a process.

#include <fcntl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/random.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "runtime/vael_runtime.h"
#include "vael/vael_pm.h"
#include "vael/vael_thin_nfa.h"

int qx_assert_on = 0;
int qx_kdprintf_limit = 30;
int vael_multik_this_instance_num = 0;
int vael_multik_instance_num = 1;

int alloc_number = 0;
int global_pct = 0;
int fail_mem_method = 0;
vael_alloc_info *leaks = nullptr;

// Tunables of engines not in this build yet: defined here so the environment
// can set them from the start; the engines that read them own their meaning.
int vael_dfa_state_limit = 10000;
int vael_dfa_should_limit_states = 1;
int vael_pm_utf8_range_buffer_size = 4096;
int vael_pm_allow_null_in_pattern = 0;
int vael_pm_pcre_use_dfa_exec = 1;

vael_debug_filter_fn vael_debug_filter_set_filter = nullptr;
vael_debug_filter_fn vael_debug_filter_unset_filter = nullptr;

namespace {

// The accounts are relaxed atomics: runs on many threads allocate match
// records, and a lost update would leave a permanent false leak.
std::atomic<intptr_t> g_kmem_total{0};
std::atomic<intptr_t> g_pm_total{0};

constexpr const char kMemTopics[] = "K_MEMORY";

// ---------------------------------------------------------------- fail injection state
//
// The second method is a facility for single-threaded tests: plain words,
// no lock. With mode 0 an allocation only reads `g_fail_mode`.

constexpr int kFailSites = 2000;

struct FailSite {
    const char *caller;  // null: the slot is free
    const char *file;
    int line;
    int count;
};

int g_fail_mode = 0;
int g_fail_percent = 0;
int g_fail_threshold = 0;
int g_failures = 0;
FailSite g_fail_sites[kFailSites];

// A site that names no caller still needs a non-null key word: a null caller
// marks a free slot.
constexpr const char kNoCaller[] = "(null)";

int fail_site_slot(const char *caller, const char *file, int line) {
    // The key words are summed as they are, wrapping, and read as signed.
    uintptr_t sum = (uintptr_t)caller + (uintptr_t)file + (uintptr_t)(intptr_t)line;
    int slot = (int)((intptr_t)sum % kFailSites);
    return slot < 0 ? slot + kFailSites : slot;
}

// The site's slot, taking a free one for a new site; null when the table is
// full and the site is not in it.
FailSite *fail_site_find(const char *caller, const char *file, int line) {
    int start = fail_site_slot(caller, file, line);
    for (int i = 0; i < kFailSites; i++) {
        FailSite &s = g_fail_sites[(start + i) % kFailSites];
        if (!s.caller) {
            s = FailSite{caller, file, line, 0};
            return &s;
        }
        if (s.caller == caller && s.file == file && s.line == line)
            return &s;
    }
    return nullptr;
}

bool failmem_decide(const char *caller, const char *file, int line) {
    static const char kName[] = "failmem_decide";
    if (!caller)
        caller = kNoCaller;
    switch (g_fail_mode) {
    case 1: {
        bool fail = std::rand() % 100 < g_fail_percent;
        VAEL_LOG_AS(kName, VAEL_DBG_NOTICE, kMemTopics,
                    fail ? "%s: Random failure for %s (%d%%)\n" : "%s: No random failure for %s (%d%%)\n", caller,
                    g_fail_percent);
        return fail;
    }
    case 2: {
        FailSite *s = fail_site_find(caller, file, line);
        if (!s) {
            qx_panic_ex("fail injection table is full");
            return true;
        }
        bool fail = s->count == g_fail_threshold;
        if (s->count <= g_fail_threshold)
            s->count++;
        VAEL_LOG_AS(kName, VAEL_DBG_NOTICE, kMemTopics,
                    fail ? "%s: Caller %s(%s:%d) seen first time - fail\n"
                         : "%s: Caller %s(%s:%d) already seen - OK\n",
                    caller, file ? file : "", line);
        return fail;
    }
    default:
        return false;
    }
}

}  // namespace

// ---------------------------------------------------------------- allocation

extern "C" int qx_kmem_fail_decide(void) {
    int pct = global_pct;
    if (pct == 0)
        return 0;
    int n = __atomic_load_n(&alloc_number, __ATOMIC_RELAXED);
    switch (fail_mem_method) {
    case 1:
        return n == pct;
    case 2:
        return n > pct;
    case 3:
        return n % pct == 0;
    default:
        return 0;
    }
}

extern "C" void *qx_kmalloc_ex_(size_t size, const char *caller, int flags, const char *file, int line) {
    // The count is a C int for hosts and tests; many threads allocate match
    // records at once, so it is bumped atomically all the same.
    __atomic_fetch_add(&alloc_number, 1, __ATOMIC_RELAXED);
    bool fail = qx_kmem_fail_decide();
    if (!fail && g_fail_mode != 0 && failmem_decide(caller, file, line)) {
        fail = true;
        g_failures++;
    }
    // malloc(0) may answer null, which would read as a failure.
    void *p = fail ? nullptr : std::malloc(size ? size : 1);
    if (!p) {
        VAEL_LOG_AS("qx_kmalloc_ex", VAEL_DBG_ERR, kMemTopics, "%s: Failed to allocate %d bytes for %s\n", (int)size,
                    caller ? caller : "");
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

// A PM block with slack behind it for wide reads: one allocation of
// size + slack, the whole in the general account, only `size` in the PM
// account, so that figures read from the PM account stay those of the data.
extern "C" void *vael_pmglob_memory_kmalloc_padded_ex_(size_t size, size_t slack, const char *caller, int flags,
                                                       const char *file, int line) {
    void *p = qx_kmalloc_ex_(size + slack, caller, flags, file, line);
    if (p)
        g_pm_total.fetch_add((intptr_t)size, std::memory_order_relaxed);
    return p;
}

extern "C" void vael_pmglob_memory_kfree_padded_ex_(void *ptr, size_t size, size_t slack) {
    if (!ptr)
        return;
    g_pm_total.fetch_sub((intptr_t)size, std::memory_order_relaxed);
    qx_kfree_(ptr, size + slack);
}

extern "C" intptr_t vael_pmglob_memory_get_alloc_total(void) { return g_pm_total.load(std::memory_order_relaxed); }

extern "C" intptr_t vael_pmglob_memory_check_leaks(int panic, int print) {
    intptr_t total = vael_pmglob_memory_get_alloc_total();
    if (total != 0) {
        vael_us_adaptor_kdprintf("PM: %d bytes leaked.\n", (int)total);
        check_leaks_(panic, print);
    } else {
        vael_us_adaptor_kdprintf("PM: NO memory Leaks.\n");
    }
    return total;
}

extern "C" void vael_us_adaptor_failmem_set(int mode, int value) {
    // The name as operators have always seen it in these lines.
    static const char kName[] = "vael_us_adapator_failmem_set";
    switch (mode) {
    case 1:
        VAEL_LOG_AS(kName, VAEL_DBG_NOTICE, kMemTopics, "%s: Randomly fail %d%% of allocations\n", value);
        g_fail_mode = 1;
        g_fail_percent = value;
        break;
    case 2:
    case 3:
        g_fail_threshold = mode == 2 ? 0 : value;
        VAEL_LOG_AS(kName, VAEL_DBG_NOTICE, kMemTopics, "%s: Will fail each allocation once after %d\n",
                    g_fail_threshold);
        g_fail_mode = 2;
        std::memset(g_fail_sites, 0, sizeof g_fail_sites);
        break;
    default:
        g_fail_mode = 0;
        break;
    }
    g_failures = 0;
}

extern "C" int vael_us_adaptor_num_failures(void) { return g_failures; }

// ---------------------------------------------------------------- leak records

namespace {

// Hosts may record allocations from several threads.
pthread_mutex_t g_leaks_lock = PTHREAD_MUTEX_INITIALIZER;

// Copies at most 49 bytes and always ends the text.
void copy_text(char (&dst)[VAEL_ALLOC_INFO_TEXT], const char *src) {
    std::snprintf(dst, sizeof dst, "%s", src ? src : "");
}

// No portable unwinder is used in user space: the stack stays empty.
void save_stack(char (*stack)[VAEL_ALLOC_INFO_TEXT]) {
    for (int i = 0; i < VAEL_ALLOC_INFO_STACK; i++)
        stack[i][0] = '\0';
}

}  // namespace

extern "C" vael_alloc_info *insert_alloc_info(void *addr, uint32_t size, const char *caller, const char *file,
                                              int line) {
    // The record is not itself accounted: it describes the account.
    auto *info = static_cast<vael_alloc_info *>(std::malloc(sizeof(vael_alloc_info)));
    if (!info)
        return nullptr;
    info->addr = addr;
    info->size = size;
    info->reason = VAEL_ALLOC_REASON_NOT_FREED;
    info->reason_data = 0;
    copy_text(info->caller, caller);
    copy_text(info->file, file);
    info->line = line;
    save_stack(info->stack);
    pthread_mutex_lock(&g_leaks_lock);
    info->next = leaks;
    leaks = info;
    pthread_mutex_unlock(&g_leaks_lock);
    return info;
}

extern "C" int remove_alloc_info(void *addr, uint32_t size) {
    static const char kName[] = "remove_alloc_info";
    pthread_mutex_lock(&g_leaks_lock);
    vael_alloc_info **link = &leaks;
    while (*link && (*link)->addr != addr)
        link = &(*link)->next;
    vael_alloc_info *info = *link;
    if (!info) {
        pthread_mutex_unlock(&g_leaks_lock);
        VAEL_LOG_AS(kName, VAEL_DBG_ERR, kMemTopics, "%s: PROBLEM can not FIND allocation in leaks list\n");
        return -1;
    }
    if (info->size == size) {
        *link = info->next;
        pthread_mutex_unlock(&g_leaks_lock);
        std::free(info);
        return 0;
    }
    uint32_t allocated = info->size;
    info->reason = VAEL_ALLOC_REASON_WRONG_SIZE;
    info->reason_data = (int)size;
    pthread_mutex_unlock(&g_leaks_lock);
    VAEL_LOG_AS(kName, VAEL_DBG_ERR, kMemTopics, "%s: Error size given to qx_kfree %u (alllocated %u)\n", size,
                allocated);
    return 1;
}

extern "C" void alloc_error_print(int reason, int data) {
    if (reason == VAEL_ALLOC_REASON_NOT_FREED)
        vael_us_adaptor_kdprintf("Leak reason: %s\n", "not freed");
    else if (reason == VAEL_ALLOC_REASON_WRONG_SIZE)
        vael_us_adaptor_kdprintf("Leak reason: %s %d\n", "wrong size was given to free", data);
}

extern "C" void print_leaks(void) {
    pthread_mutex_lock(&g_leaks_lock);
    if (leaks)
        vael_us_adaptor_kdprintf("Leaks in: addr  size  caller   file   line\n");
    for (const vael_alloc_info *info = leaks; info; info = info->next) {
        vael_us_adaptor_kdprintf("Leak in: %p %u %s %s %d\n", info->addr, info->size, info->caller, info->file,
                                 info->line);
        alloc_error_print(info->reason, info->reason_data);
        for (int i = 0; i < VAEL_ALLOC_INFO_STACK && info->stack[i][0]; i++)
            vael_us_adaptor_kdprintf("%s\n", info->stack[i]);
    }
    pthread_mutex_unlock(&g_leaks_lock);
}

extern "C" void check_leaks_(int panic, int print) {
    if (print)
        print_leaks();
    if (panic == 1)
        qx_panic_ex("memory leaks");
}

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
        if (n >= (int)sizeof topic)
            n = (int)sizeof topic - 1;
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

extern "C" void vael_debug_register_callbacks(vael_debug_filter_fn set_filter, vael_debug_filter_fn unset_filter) {
    vael_debug_filter_set_filter = set_filter;
    vael_debug_filter_unset_filter = unset_filter;
}

// ---------------------------------------------------------------- start and stop

namespace {

struct Tunable {
    const char *name;
    int *value;
};

// In the order they are read and logged.
const Tunable kTunables[] = {
    {"vael_dfa_state_limit", &vael_dfa_state_limit},
    {"vael_dfa_should_limit_states", &vael_dfa_should_limit_states},
    {"vael_pm_min_lss_size", &vael_pm_min_lss_size},
    {"vael_pm_utf8_range_buffer_size", &vael_pm_utf8_range_buffer_size},
    {"vael_pm_default_back_offset_to_search_match_start", &vael_pm_default_back_offset_to_search_match_start},
    {"vael_thin_nfa_full_tiers_num", &vael_thin_nfa_full_tiers_num},
    {"vael_thin_nfa_max_partial_trans", &vael_thin_nfa_max_partial_trans},
    {"vael_thin_nfa_optimize_contig_chars", &vael_thin_nfa_optimize_contig_chars},
    {"vael_thin_nfa_prefilter", &vael_thin_nfa_prefilter},
    {"vael_pm_allow_null_in_pattern", &vael_pm_allow_null_in_pattern},
    {"vael_pm_pcre_use_dfa_exec", &vael_pm_pcre_use_dfa_exec},
    {"vael_pm_stats_take_exec_time", &vael_pm_stats_take_exec_time},
};

}  // namespace

extern "C" void vael_us_adaptor_globals_init(void) {
    for (const Tunable &t : kTunables) {
        const char *text = std::getenv(t.name);
        if (!text)
            continue;
        // A value that is not a number reads as 0, as strtol gives it.
        *t.value = (int)std::strtol(text, nullptr, 10);
        if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, "K_MISC"))
            vael_us_adaptor_kdprintf("Setting global parameter %s to %d\n", t.name, *t.value);
    }
}

extern "C" void vael_us_adaptor_init(void) {
    vael_us_adaptor_debug_init();
    std::srand((unsigned)std::time(nullptr));
    vael_us_adaptor_globals_init();
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

extern "C" void vael_soft_assert_fail(const char *func, const char *reason, const char *file, int line) {
    vael_us_adaptor_kdprintf("QX-1: %s: %s (%s:%d)\n", func, reason, file, line);
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

// The lock layer has no state of its own in user space.
extern "C" void tqlock_init(void) {}
extern "C" void tqlock_term(void) {}

extern "C" int tqlock_lock_init(vael_mutex **lock) {
    *lock = MtMutexCreate(0);
    return *lock ? 0 : -1;
}

extern "C" void tqlock_lock_term(vael_mutex **lock) {
    MtMutexDestroy(*lock);
    *lock = nullptr;
}

extern "C" int tqlock_rwlock_init(vael_mutex **lock, int a, int b) { return tqlock_lock_init(lock); }

extern "C" void tqlock_rwlock_term(vael_mutex **lock) { tqlock_lock_term(lock); }

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

// ---------------------------------------------------------------- random

namespace {

// Bytes from the kernel's generator; the count that could be had.
size_t kernel_random(unsigned char *buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = getrandom(buf + got, len - got, 0);
        if (n > 0) {
            got += (size_t)n;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;
    }
    if (got == len)
        return got;
    // Kernels without getrandom still have the device.
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return got;
    while (got < len) {
        ssize_t n = read(fd, buf + got, len - got);
        if (n > 0) {
            got += (size_t)n;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;
    }
    close(fd);
    return got;
}

}  // namespace

extern "C" void qxrand_gen(void *buf, size_t len) {
    auto *bytes = static_cast<unsigned char *>(buf);
    size_t got = kernel_random(bytes, len);
    // Last resort: the C library's generator, seeded at start.
    for (size_t i = got; i < len; i++)
        bytes[i] = (unsigned char)(std::rand() >> 7);
}

extern "C" void vael_krand_gen(void *buf, size_t len) { qxrand_gen(buf, len); }

// ---------------------------------------------------------------- memory-pool statistics

extern "C" void vael_stat_aggregate_add_all_ints(void *total, const void *item, uint32_t size) {
    auto *t = static_cast<unsigned char *>(total);
    auto *i = static_cast<const unsigned char *>(item);
    // Word by word through memcpy: the records need not be aligned.
    for (uint32_t off = 0; off + sizeof(uint32_t) <= size; off += sizeof(uint32_t)) {
        uint32_t a, b;
        std::memcpy(&a, t + off, sizeof a);
        std::memcpy(&b, i + off, sizeof b);
        a += b;
        std::memcpy(t + off, &a, sizeof a);
    }
}

extern "C" void hmem_stat_aggregate(vael_hmem_stat *total, const vael_hmem_stat *one) {
    uint32_t classes = one->size_classes < VAEL_HMEM_SIZE_CLASSES ? one->size_classes : VAEL_HMEM_SIZE_CLASSES;
    for (uint32_t c = 0; c < classes; c++) {
        total->classes[c].blocks += one->classes[c].blocks;
        total->classes[c].full_blocks += one->classes[c].full_blocks;
        total->classes[c].nitems += one->classes[c].nitems;
    }
    total->pools += one->pools;
    total->initial_bytes += one->initial_bytes;
    total->requested_bytes += one->requested_bytes;
    // The ten counters from blocks to failed_allocs.
    total->blocks += one->blocks;
    total->bytes_allocated += one->bytes_allocated;
    total->blocks_used += one->blocks_used;
    total->bytes_used += one->bytes_used;
    total->peak_blocks += one->peak_blocks;
    total->peak_bytes += one->peak_bytes;
    total->items += one->items;
    total->allocs += one->allocs;
    total->frees += one->frees;
    total->failed_allocs += one->failed_allocs;
}

extern "C" void smem_stat_aggregate(vael_smem_stat *total, const vael_smem_stat *one) {
    vael_stat_aggregate_add_all_ints(total, one, 10 * sizeof(uint32_t));
}

extern "C" void kmem_stat_aggregate(vael_kmem_stat *total, const vael_kmem_stat *one) {
    vael_stat_aggregate_add_all_ints(total, one, 32);
}

namespace {

// Reports go out whole, without the debug line prefix.
__attribute__((format(printf, 1, 2))) void prt(const char *format, ...) {
    va_list args;
    va_start(args, format);
    tdVFunc(VAEL_DBG_MODULE, 65535, 1, format, args);
    va_end(args);
}

void prt_line(const char *text) { prt("%s\n", text); }

constexpr const char kDetailedReport[] = "  *** use 'qx ctl debug memory' command to get detailed allocation report ***";

}  // namespace

extern "C" void hmem_stat_prt(const vael_hmem_stat *stat, int verbose) {
    if (!stat)
        return;
    const vael_hmem_stat &s = *stat;
    uint32_t overhead = s.block_overhead * s.blocks_used;
    uint32_t extra = s.bytes_allocated - s.block_size * s.blocks;

    prt_line("\nHash kernel memory (hmem) statistics:");
    prt("  Total memory allocated: %u bytes in %u %uKB blocks using %u pool%s\n", s.bytes_allocated, s.blocks,
        s.block_size / 1024, s.pools, s.pools < 2 ? "" : "s");
    if (s.bytes_allocated != s.initial_bytes) {
        prt("  Initial memory allocated: %u bytes (Hash memory extended by %u bytes)\n", s.initial_bytes,
            s.bytes_allocated - s.initial_bytes);
        prt("  Memory allocation  limit: %u bytes using %u pools\n", s.limit_bytes, s.limit_pools);
    }
    if (s.initial_bytes != s.requested_bytes)
        prt("  Could not get all requested memory (%u bytes) at driver initialization\n", s.requested_bytes);

    uint32_t used = overhead + extra + s.bytes_used;
    uint32_t unused = s.block_size * s.blocks - (overhead + s.bytes_used);
    double unused_pct = s.bytes_allocated ? (double)unused * 100.0 / (double)s.bytes_allocated : 0.0;
    prt("  Total memory bytes  used: %8u   unused: %8u (%.2f%%)   peak: %8u\n", used, unused, unused_pct,
        extra + s.peak_bytes);
    uint32_t blocks_unused = s.blocks - s.blocks_used;
    prt("  Total memory blocks used: %8u   unused: %8u (%u%%)   peak: %8u\n", s.blocks_used, blocks_unused,
        s.blocks ? blocks_unused * 100 / s.blocks : 0, s.peak_blocks);
    prt("  Allocations: %u alloc, %u failed alloc, %u free\n", s.allocs, s.failed_allocs, s.frees);
    if (!verbose)
        return;

    prt("  Memory used for internal structures: %u bytes\n", overhead + extra);
    prt("  Total number of items: %u\n", s.items);
    if (s.blocks_used != 0) {
        uint32_t payload = s.block_size - s.block_overhead;
        uint32_t whole = s.blocks_used * s.block_size;
        prt("  Utilized blocks unused memory percentage: %u%%\n",
            whole ? (payload * s.blocks_used - s.bytes_used) * 100 / whole : 0);
        prt_line("  Detailed statistics according to item size:");
        uint32_t classes = s.size_classes < VAEL_HMEM_SIZE_CLASSES ? s.size_classes : VAEL_HMEM_SIZE_CLASSES;
        for (uint32_t c = 0; c < classes; c++) {
            const vael_hmem_size_class &k = s.classes[c];
            if (k.blocks == 0)
                continue;
            uint32_t size = (c + 1) * s.size_unit;
            uint32_t room = payload * k.blocks;
            prt("  Size %3u:   Blocks:%4u  Full blocks:%4u  Nitems:%6u unused memory %2u%%\n", size, k.blocks,
                k.full_blocks, k.nitems, room ? (room - size * k.nitems) * 100 / room : 0);
        }
    }
    prt_line(kDetailedReport);
}

extern "C" void smem_stat_prt(const vael_smem_stat *stat, int verbose) {
    if (!stat)
        return;
    const vael_smem_stat &s = *stat;
    prt_line("\nSystem kernel memory (smem) statistics:");
    prt("  Total memory  bytes  used: %8u   peak: %8u\n", s.blocking_used + s.nonblocking_used,
        s.blocking_peak + s.nonblocking_peak);
    if (s.blocking_used != 0 && s.nonblocking_used != 0) {
        prt("    Blocking  memory  bytes   used: %8u   peak: %8u\n", s.blocking_used, s.blocking_peak);
        prt("    Non-Blocking memory bytes used: %8u   peak: %8u\n", s.nonblocking_used, s.nonblocking_peak);
    }
    prt("  Allocations: %u alloc, %u failed alloc, %u free, %u failed free\n", s.allocs, s.failed_allocs, s.frees,
        s.failed_frees);
    if (!verbose)
        return;
    prt("  Memory used for internal structures: %u bytes\n", s.internal_bytes);
    prt("  Total number of items: %d\n", (int)s.items);
    prt_line(kDetailedReport);
}

extern "C" void kmem_stat_prt(const vael_kmem_stat *stat, int count, const uint32_t *external) {
    if (!stat)
        return;
    const vael_kmem_stat &s = *stat;
    prt_line("\nKernel memory (kmem) statistics:");
    prt("  Total memory  bytes  used: %8u   peak: %8u\n", s.used, s.peak);
    prt("\tAllocations: %u alloc, %u failed alloc, %u free, %u failed free\n", s.allocs, s.failed_allocs, s.frees,
        s.failed_frees);
    prt("\tExternal Allocations: %u for packets, %u for LVX\n", external ? external[0] : 0u,
        external ? external[1] : 0u);
    prt("\tMemory used for internal structures: %u bytes\n", s.internal_bytes);
    prt("\tTotal number of items: %u\n", s.items);
}
