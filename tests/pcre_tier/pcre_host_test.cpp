// A host program that uses PCRE itself, beside the library: its blocks, made before, during and after the library's
// life and on threads of its own, are released by the allocator that made them (ASan reports any other), and none of
// them enters the library's accounts.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/pcre_tier/pcre_test_util.h"

namespace {

using vael_pcre_test::compile;
using vael_pcre_test::run;

// What a host does: compile, study, match, and keep the blocks.
struct HostPattern { pcre *re = nullptr; pcre_extra *extra = nullptr; };

HostPattern host_compile(const char *pattern) {
    HostPattern p;
    const char *message = nullptr;
    int offset = 0;
    p.re = pcre_compile(pattern, 0, &message, &offset, nullptr);
    EXPECT_NE(p.re, nullptr) << pattern;
    if (p.re)
        p.extra = pcre_study(p.re, 0, &message);
    return p;
}

bool host_matches(const HostPattern &p, const char *text) {
    int ovector[30];
    return pcre_exec(p.re, p.extra, text, (int)strlen(text), 0, 0, ovector, 30) >= 0;
}

void host_free(HostPattern &p) {
    pcre_free(p.extra); // a host of this PCRE releases both through pcre_free
    pcre_free(p.re);
    p = HostPattern{};
}

int restart_pcre_tier() { return vael_pcre_init(&pm_tier2_funcs[VAEL_PM_TIER2_PCRE]); }

TEST(PcreHost, BlocksAroundAndBetweenLibraryCalls) {
    const intptr_t kmem_start = qx_kmem_get_alloc_total();
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();

    // The library's hooks are in: a host block is still the host's.
    HostPattern during = host_compile("host(a|b)+");
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
    auto lib = compile("lib[0-9]+");
    ASSERT_TRUE(lib);
    EXPECT_GT(vael_pmglob_memory_get_alloc_total(), pm_start);
    EXPECT_TRUE(host_matches(during, "xhostab"));
    EXPECT_EQ(run(lib.get(), "a lib42").matches.size(), 1u);

    // Stop: the hooks go back; a block made now is plain.
    vael_pcre_fini();
    auto *const stock_malloc = pcre_malloc;
    HostPattern after = host_compile("after");
    EXPECT_TRUE(host_matches(after, "xafter"));
    // A handle of the library outlives the stop and is released by it.
    EXPECT_EQ(run(lib.get(), "lib7").matches.size(), 1u);
    lib.reset();
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);

    // Start again: blocks of both earlier periods go to the stock free.
    ASSERT_EQ(restart_pcre_tier(), 0);
    EXPECT_NE(pcre_malloc, stock_malloc);
    host_free(during);
    host_free(after);
    auto lib2 = compile("again");
    ASSERT_TRUE(lib2);
    HostPattern between = host_compile("between");
    lib2.reset();
    EXPECT_TRUE(host_matches(between, "between"));
    host_free(between);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem_start);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

// A host that installs hooks of its own after the start keeps them at the
// stop; the library's compile refuses while they are in.
TEST(PcreHost, HostHooksSurviveTheStop) {
    vael_pcre_fini();
    auto *const stock_malloc = pcre_malloc;
    auto *const stock_free = pcre_free;
    ASSERT_EQ(restart_pcre_tier(), 0);
    static std::atomic<int> host_allocs;
    host_allocs = 0;
    auto host_malloc = [](size_t n) -> void * {
        host_allocs++;
        return malloc(n);
    };
    pcre_malloc = host_malloc;
    pcre_free = free;
    vael_pm_error err;
    EXPECT_FALSE(compile("abc", 0, 0, &err));
    EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
    vael_pcre_fini();
    EXPECT_EQ(pcre_malloc, static_cast<void *(*)(size_t)>(host_malloc));
    HostPattern p = host_compile("abc");
    EXPECT_GT(host_allocs.load(), 0);
    host_free(p);
    pcre_malloc = stock_malloc;
    pcre_free = stock_free;
    ASSERT_EQ(restart_pcre_tier(), 0);
    EXPECT_TRUE(compile("abc"));
}

// A host thread compiles, matches and frees while the library compiles and
// destroys on another: each call's blocks go by the thread it runs on.
TEST(PcreHost, ConcurrentHostThread) {
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    std::atomic<bool> ok{true};
    std::thread host([&] {
        for (int i = 0; i < 300; i++) {
            HostPattern p = host_compile("h[a-z]+o");
            if (!host_matches(p, "xhello"))
                ok = false;
            host_free(p);
        }
    });
    for (int i = 0; i < 300; i++) {
        auto h = compile("w[a-z]+d");
        ASSERT_TRUE(h);
        EXPECT_EQ(run(h.get(), "world").matches.size(), 1u);
    }
    host.join();
    EXPECT_TRUE(ok);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

}  // namespace
