// vael_pm_duplicate: a second PM with the same patterns, every engine handle
// copied through its row. The copy matches like the original (also once the
// original is gone), is a PM of its own, fails cleanly when a row cannot
// copy, and leaves the accounts where they were on every allocation failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;
using Hits = std::vector<std::pair<int32_t, uint32_t>>;

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *) {
    static_cast<Hits *>(arg)->push_back({id, offset});
    return 0;
}

struct Rec {
    bool regex;
    const char *text;
    uint32_t flags = 0;
};

// Strings (one caseless, so that the others go to PCRE for their case) and
// regular expressions for PCRE.
const std::vector<Rec> kMixed = {
    {false, "GET /"},          {false, "host:", VAEL_PM_CASELESS}, {false, "password"},
    {true, "abc[0-9]+de"},     {true, "user=[a-z]{2,5};"},          {true, "(cmd|exec)\\.exe"},
    {true, "x[^y]*yz", VAEL_PM_CASELESS},
};

vael_pm_handle *compile(const std::vector<Rec> &recs) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    int32_t id = 10;
    for (const Rec &r : recs) {
        auto len = (uint32_t)std::strlen(r.text);
        EXPECT_EQ(r.regex ? vael_pm_patterns_add_pattern(list, r.text, len, id, r.flags)
                          : vael_pm_patterns_add_simple_pattern(list, r.text, len, id, r.flags),
                  0);
        id++;
    }
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile(list, collect, 0, &err, "duplicate test");
    vael_pm_patterns_destroy(list);
    return pm;
}

std::vector<std::string> texts() {
    std::mt19937 rng(5);
    const std::vector<std::string> pieces = {"GET /", "HOST:", "Host:", "password", "abc123de", "abcde",
                                             "user=ab;", "user=abcdef;", "cmd.exe", "exec.exe", "X--yZ", "xyz",
                                             " ", "\n", "a", "1"};
    std::vector<std::string> out;
    for (int i = 0; i < 40; i++) {
        std::string t;
        for (int k = rng() % 30; k > 0; k--)
            t += pieces[rng() % pieces.size()];
        out.push_back(t);
    }
    return out;
}

Hits run(vael_pm_handle *pm, const std::string &text, uint32_t flags, size_t block = 0) {
    Hits hits;
    vael_vbuf *vbuf = block && !text.empty() ? vael_vbuf_create(UINT32_MAX, 0) : nullptr;
    for (size_t at = 0; vbuf && at < text.size(); at += block)
        vael_vbuf_add_buffer_ex(vbuf, const_cast<char *>(text.data()) + at, (uint32_t)std::min(block, text.size() - at),
                                nullptr, nullptr);
    if (!text.empty()) {
        EXPECT_EQ(vael_pm_exec_ex(pm, vbuf ? nullptr : reinterpret_cast<const unsigned char *>(text.data()),
                                  vbuf ? 0 : (uint32_t)text.size(), vbuf, nullptr, &hits, flags),
                  0);
    }
    vael_vbuf_destroy(vbuf);
    std::sort(hits.begin(), hits.end());
    return hits;
}

// The copy matches like the original, flat and split, also once the original
// is gone; it is a PM of its own, with its own handles and texts.
TEST(PmDuplicate, MatchesLikeTheOriginal) {
    vael_pm_handle *pm = compile(kMixed);
    ASSERT_NE(pm, nullptr);
    vael_pm_handle *copy = vael_pm_duplicate(pm, "the copy");
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->pm_id, pm->pm_id);
    EXPECT_NE(std::memcmp(copy->uuid, pm->uuid, 16), 0);
    EXPECT_STREQ(copy->name, "the copy");
    EXPECT_NE(copy->tier1[0].tier1_h, pm->tier1[0].tier1_h);
    int tier2 = 0;
    for (uint32_t i = 0; i < pm->num_tier2; i++) {
        const auto &a = pm->pm_array[i], &b = copy->pm_array[i];
        EXPECT_TRUE(!a.tier2_h || (b.tier2_h && a.tier2_h != b.tier2_h && a.tier2_type == b.tier2_type)) << i;
        EXPECT_TRUE(!a.re_str || a.re_str != b.re_str) << i;
        tier2 += a.tier2_h != nullptr;
    }
    EXPECT_GE(tier2, 4);
    const auto all = texts();
    std::vector<Hits> want;
    for (const auto &t : all) {
        want.push_back(run(pm, t, VAEL_PM_EXEC_ALL_MATCHES));
        EXPECT_EQ(run(copy, t, VAEL_PM_EXEC_ALL_MATCHES), want.back()) << t;
        EXPECT_EQ(run(copy, t, 0), run(pm, t, 0)) << t;
        EXPECT_EQ(run(copy, t, VAEL_PM_EXEC_ALL_MATCHES, 7), run(pm, t, VAEL_PM_EXEC_ALL_MATCHES, 7)) << t;
    }
    vael_pm_destroy(pm);
    for (size_t i = 0; i < all.size(); i++)
        EXPECT_EQ(run(copy, all[i], VAEL_PM_EXEC_ALL_MATCHES), want[i]) << all[i];
    vael_pm_destroy(copy);
}

TEST(PmDuplicate, FailsCleanly) {
    LogCapture quiet;
    EXPECT_EQ(vael_pm_duplicate(nullptr, "x"), nullptr);
    vael_pm_handle *pm = compile(kMixed);
    ASSERT_NE(pm, nullptr);
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    const intptr_t kmem_start = qx_kmem_get_alloc_total();
    // A row that cannot copy its handle: null, nothing left behind, and the
    // PM list as it was.
    for (int tier : {1, 2}) {
        SCOPED_TRACE(tier);
        void *(*&slot)(void *) = tier == 1 ? pm_tier1_funcs[pm->tier1[0].tier1_type].duplicate
                                           : pm_tier2_funcs[VAEL_PM_TIER2_PCRE].duplicate;
        void *(*saved)(void *) = slot;
        slot = nullptr;
        vael_pm_handle *head = *vael_pm_global_data.list;
        EXPECT_EQ(vael_pm_duplicate(pm, "no copy"), nullptr);
        EXPECT_EQ(*vael_pm_global_data.list, head);
        slot = saved;
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kmem_start);
    }
    // Every allocation of the duplicate fails once.
    vael_pm_handle *copy = nullptr;
    auto w = vael_test::failmem_walk_each_allocation([&] { return (copy = vael_pm_duplicate(pm, "walk")) != nullptr; },
                                                     [&] { return copy == nullptr; });
    EXPECT_GT(w.rounds, 10);
    EXPECT_EQ(run(copy, "xxabc12de GET /", 0), run(pm, "xxabc12de GET /", 0));
    vael_pm_destroy(copy);
    vael_pm_destroy(pm);
}

}  // namespace
