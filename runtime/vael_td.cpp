// vael_td.cpp - the debug facility: topics with levels per module, the line
// prefix, and the sink that receives the output.
//
// A topic is a name such as "K_PM", switched on up to a level for a module.
// A message is wanted when any topic of its topic text is on at its level, or
// when the module's all-topics switch is. Output goes to standard error unless
// a host sets a sink. The facility is consulted only behind guards, never in
// an engine's inner loop.

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "vael/vael_us_adaptor.h"

namespace {

constexpr int kMaxTopics = 64;
constexpr int kMaxTopicLen = 32;
constexpr int kMaxModules = 16;

struct Topic {
    char name[kMaxTopicLen];
    int module;
    std::atomic<int> level;
};

// Topics are only ever added (or all removed at once by a test), so readers
// walk the table without the lock up to the published count.
Topic g_topics[kMaxTopics];
std::atomic<int> g_topic_count{0};
std::atomic<int> g_all_level[kMaxModules];
std::mutex g_topics_lock;

std::atomic<td_sink_fn> g_sink{nullptr};
std::atomic<void *> g_sink_ctx{nullptr};

bool valid_module(int module) { return module >= 0 && module < kMaxModules; }

Topic *find_topic(const char *name, size_t len, int module) {
    int n = g_topic_count.load(std::memory_order_acquire);
    for (int i = 0; i < n; i++) {
        Topic &t = g_topics[i];
        if (t.module == module && std::strlen(t.name) == len && std::memcmp(t.name, name, len) == 0)
            return &t;
    }
    return nullptr;
}

void emit(const char *text) {
    td_sink_fn sink = g_sink.load(std::memory_order_acquire);
    if (sink)
        sink(text, g_sink_ctx.load(std::memory_order_acquire));
    else
        std::fputs(text, stderr);
}

}  // namespace

extern "C" int tdAddTopic(const char *topic, int level, int module) {
    if (!topic || !valid_module(module))
        return -1;
    size_t len = std::strlen(topic);
    if (len == 0 || len >= kMaxTopicLen)
        return -1;
    std::lock_guard<std::mutex> guard(g_topics_lock);
    if (Topic *t = find_topic(topic, len, module)) {
        t->level.store(level, std::memory_order_relaxed);
        return 0;
    }
    int n = g_topic_count.load(std::memory_order_relaxed);
    if (n == kMaxTopics)
        return -1;
    Topic &t = g_topics[n];
    std::memcpy(t.name, topic, len + 1);
    t.module = module;
    t.level.store(level, std::memory_order_relaxed);
    g_topic_count.store(n + 1, std::memory_order_release);
    return 0;
}

extern "C" int tdTopicsPrintable(int level, const char *topics, int module, const char *delimiter) {
    if (!topics || !valid_module(module) || g_topic_count.load(std::memory_order_acquire) == 0)
        return 0;
    const char *delims = delimiter ? delimiter : " |";
    const char *p = topics;
    while (*p) {
        p += std::strspn(p, delims);
        size_t len = std::strcspn(p, delims);
        if (len == 0)
            break;
        const Topic *t = find_topic(p, len, module);
        if (t && level <= t->level.load(std::memory_order_relaxed))
            return 1;
        p += len;
    }
    return 0;
}

extern "C" int tdAllPrintable(int level, int module) {
    if (!valid_module(module))
        return 0;
    int all = g_all_level[module].load(std::memory_order_relaxed);
    return all > 0 && level <= all;
}

extern "C" void tdSetAllLevel(int level, int module) {
    if (valid_module(module))
        g_all_level[module].store(level, std::memory_order_relaxed);
}

extern "C" void tdResetTopics(void) {
    std::lock_guard<std::mutex> guard(g_topics_lock);
    g_topic_count.store(0, std::memory_order_release);
    for (auto &all : g_all_level)
        all.store(0, std::memory_order_relaxed);
}

extern "C" void tdSetSink(td_sink_fn sink, void *ctx) {
    g_sink_ctx.store(ctx, std::memory_order_release);
    g_sink.store(sink, std::memory_order_release);
}

extern "C" void tdVFunc(int module, unsigned mask, int no_prefix, const char *format, va_list args) {
    // One buffer per line keeps a line whole when threads print at once.
    char line[1024];
    int used = 0;
    if (!no_prefix)
        used = std::snprintf(line, sizeof line, "vael[%d]: ", module);
    va_list copy;
    va_copy(copy, args);
    int len = std::vsnprintf(line + used, sizeof line - used, format, args);
    if (len >= 0 && (size_t)len >= sizeof line - used && !g_sink.load(std::memory_order_acquire)) {
        // Too long for the buffer: straight to the stream, still whole. A
        // sink gets the line cut at the buffer's size.
        flockfile(stderr);
        if (!no_prefix)
            std::fprintf(stderr, "vael[%d]: ", module);
        std::vfprintf(stderr, format, copy);
        funlockfile(stderr);
    } else {
        emit(line);
    }
    va_end(copy);
}

extern "C" void tdFunc(int module, unsigned mask, int no_prefix, const char *format, ...) {
    va_list args;
    va_start(args, format);
    tdVFunc(module, mask, no_prefix, format, args);
    va_end(args);
}
