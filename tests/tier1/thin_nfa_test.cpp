// The Thin NFA driven directly: anchors, offsets, masks, shared ids, and the state limit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_internal.h"

namespace {

using vael_test::Hit;
using vael_test::Pattern;
using vael_test::ThinNfa;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;

// Order, first-per-id and all-matches runs are the differential test's; here
// anchors, offsets and one id on several strings.
TEST(ThinNfaExec, AnchorsOffsetsAndSharedIds) {
    const auto kStart = VAEL_PM_LSS_START_ANCHOR, kEnd = VAEL_PM_LSS_END_ANCHOR;
    const struct {
        const char *name;
        std::vector<Pattern> patterns;
        std::string text;
        uint32_t flags, offset;
        std::vector<Hit> expected;  // in queue order
    } cases[] = {
        {"start anchor", {{"ab", 0, kStart}, {"b", 1}}, "abab", kAll, 0, {{0, 1}, {1, 1}, {1, 3}}},
        {"start anchor away from the start", {{"ab", 0, kStart}, {"b", 1}}, "xab", kAll, 0, {{1, 2}}},
        {"start anchor from an offset", {{"ab", 0, kStart}, {"b", 1}}, "abab", kAll, 2, {{1, 3}}},
        {"end anchor", {{"ab", 0, kEnd}, {"a", 1}}, "abab", kAll, 0, {{1, 0}, {1, 2}, {0, 3}}},
        {"end anchor not at the end", {{"ab", 0, kEnd}, {"a", 1}}, "aba", kAll, 0, {{1, 0}, {1, 2}}},
        {"offset keeps stream offsets", {{"ab", 0}}, "abxab", kAll, 1, {{0, 4}}},
        {"offset at the last byte", {{"ab", 0}}, "abxab", kAll, 4, {}},
        // The first entry of a text and id wins: anchored, length 3.
        {"same id twice", {{"abc", 4, kStart}, {"abc", 4}}, "xabc", 0, 0, {}},
        {"same id as a suffix", {{"abc", 9}, {"bc", 9}}, "abc", kAll, 0, {{9, 2}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ThinNfa nfa(c.patterns);
        ASSERT_NE(nfa.get(), nullptr);
        std::vector<Hit> hits;
        EXPECT_EQ(nfa.exec(c.text, &hits, c.flags, c.offset), 0);
        EXPECT_EQ(hits, c.expected);
    }
}

TEST(ThinNfaExec, MaskKeepAllFlagsAndRefusals) {
    ThinNfa nfa({{"abc", 0}, {"bc", 1}, {"c", 2}, {"zz", 40}, {"ab", 3, VAEL_PM_NEED_TIER2}});
    vael_test::RawMask mask(41);
    mask.set(0), mask.set(2), mask.set(40);
    std::vector<Hit> hits;
    ASSERT_EQ(nfa.exec("abc zz", &hits, 0, 0, mask.mask()), 0);
    EXPECT_EQ(hits, (std::vector<Hit>{{0, 2}, {2, 2}, {40, 5}}));
    // All matches keeps every hit, except those a second tier must confirm.
    ASSERT_EQ(nfa.exec("ab", &hits, kAll), 0);
    ASSERT_EQ(hits, (std::vector<Hit>{{3, 1}}));
    EXPECT_EQ(hits[0].match_flags, 0u);
    ASSERT_EQ(nfa.exec("zz", &hits, kAll), 0);
    EXPECT_EQ(hits[0].match_flags, VAEL_PMGLOB_MATCH_KEEP_ALL);

    vael_test::LogCapture quiet;
    const unsigned char data[] = "ab";
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_thin_nfa_exec(nullptr, data, 2, nullptr, 0, &queue, 0, nullptr), -1);
    EXPECT_EQ(vael_thin_nfa_exec(nfa.get(), nullptr, 2, nullptr, 0, &queue, 0, nullptr), -1);
    EXPECT_EQ(vael_thin_nfa_exec(nfa.get(), data, 0, nullptr, 0, &queue, 0, nullptr), -1);
    EXPECT_EQ(nfa.exec("abxab", &hits, kAll, 6), -1) << "an offset past the end";
    EXPECT_EQ(queue, nullptr);
    ThinNfa empty({{"ok", 0}, {"", 1}});
    EXPECT_EQ(empty.get(), nullptr);
    EXPECT_STREQ(empty.error().error_string, "Empty pattern");
}

// ---------------------------------------------------------------- the state limit: 1,000 blocks of 1,000

// A pattern of n bytes with no byte repeated next to itself, so it makes a
// chain of n partial states below the root's children.
std::string chain(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = (char)('a' + i % 7);
    return s;
}

TEST(ThinNfaLimits, AMillionStatesCompileOneMoreDoesNot) {
    // The root and 999,999 states of one pattern: the very last record of the
    // last block.
    {
        ThinNfa nfa({{chain(999999), 1}});
        ASSERT_NE(nfa.get(), nullptr);
        EXPECT_EQ(nfa.get()->state_num, 1000000u);
        EXPECT_EQ(nfa.hits("xx" + chain(999999)), (std::vector<Hit>{{1, 1000000}}));
    }
    const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total();
    const intptr_t all_mem = qx_kmem_get_alloc_total();
    vael_test::LogCapture quiet;
    ThinNfa nfa({{"ab", 1}, {chain(1000000), 2}});
    EXPECT_EQ(nfa.get(), nullptr);
    EXPECT_STREQ(nfa.error().error_string, "Failed to allocate state");
    EXPECT_EQ(nfa.error().error_type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem);
    EXPECT_EQ(qx_kmem_get_alloc_total(), all_mem);
}

}  // namespace
