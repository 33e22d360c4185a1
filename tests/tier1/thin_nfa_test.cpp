// The Thin NFA driven directly: the binary layout the compile produces, what
// a run queues for a flat buffer beyond what the differential test checks
// (anchors, start offsets, masks, one id on several strings), and the limit
// on states.
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_internal.h"

namespace {

using vael_test::brute_force_all;
using vael_test::Hit;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_test::sorted;
using vael_test::ThinNfa;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;

// A layout kept word for word: images and dumps are read by other programs.
TEST(ThinNfaLayout, HeSheIsLaidOutWordForWord) {
    ThinNfa nfa({{"he", 1}, {"she", 2}});
    const vael_thin_nfa *h = nfa.get();
    ASSERT_NE(h, nullptr);
    vael_test::expect_bnfa_well_formed(h);
    EXPECT_EQ(h->bnfa_full_size, 3084u);
    EXPECT_EQ(h->bnfa_size, 3112u);
    EXPECT_EQ(vael_test::bnfa_state_offsets(h),
              (std::map<uint32_t, uint32_t>{{0, 0}, {1, 257}, {3, 514}, {2, 771}, {4, 773}, {5, 776}}));
    const std::vector<uint32_t> tail(h->bnfa + 771, h->bnfa + 778);
    EXPECT_EQ(tail, (std::vector<uint32_t>{0x203, 0, 0x402, 0x10101, 0x30865, 0x503, 0}));
    for (unsigned c = 0; c < 256; c++) {
        EXPECT_EQ(h->bnfa[258 + c], c == 'e' ? 771u : c == 'h' ? 257u : c == 's' ? 514u : 0u) << "state h, " << c;
        EXPECT_EQ(h->bnfa[1 + c], c == 'h' ? 257u : c == 's' ? 514u : 0u) << "root, " << c;
    }
    // The state of "she" lists the longer pattern first.
    std::vector<uint32_t> ids;
    for (const vael_thin_nfa_pattern_id *p = h->pattern_ids[5]; p; p = p->next)
        ids.push_back(p->id);
    EXPECT_EQ(ids, (std::vector<uint32_t>{2, 1}));
}

// Which states are full: the first tiers, a state with 64 children or more,
// and the end of a run of one byte; everything else is partial. Each row
// must also keep the BNFA's structural rules and find what brute force finds.
TEST(ThinNfaLayout, StateKinds) {
    const uint32_t kFull = 0, kFinite = BNFA_STATE_FINITE, kPartial = BNFA_STATE_PARTIAL;
    std::vector<Pattern> fan63, fan64;
    for (int i = 0; i < 64; i++)
        (i < 63 ? fan63 : fan64).push_back({std::string("xy") + (char)('A' + i), i});
    fan64.insert(fan64.begin(), fan63.begin(), fan63.end());
    const struct {
        const char *name;
        std::vector<Pattern> patterns;
        int tiers, contig;
        std::string path;
        uint32_t kind;
    } cases[] = {
        {"full by depth", {{"a", 1}, {"aa", 2}, {"aaa", 3}}, 2, 1, "a", kFull | kFinite},
        {"partial below the tiers", {{"a", 1}, {"aa", 2}, {"aaa", 3}}, 2, 1, "aa", kPartial | kFinite},
        {"end of a run", {{"a", 1}, {"aa", 2}, {"aaa", 3}}, 2, 1, "aaa", kFull | kFinite},
        {"run end, no optimisation", {{"a", 1}, {"aa", 2}, {"aaa", 3}}, 2, 0, "aaa", kPartial | kFinite},
        {"run end, not finite", {{"bbbbx", 1}}, 2, 1, "bbbb", kFull},
        {"inside a run", {{"bbbbx", 1}}, 2, 1, "bb", kPartial},
        {"63 children", fan63, 2, 1, "xy", kPartial},
        {"64 children", fan64, 2, 1, "xy", kFull},
        {"no tiers: root child", {{"he", 1}, {"she", 2}, {"hers", 3}}, 0, 0, "h", kPartial},
        {"no tiers, a run of one byte", {{"he", 1}, {"she", 2}, {"hers", 3}}, 0, 1, "h", kFull},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, c.tiers), contig(vael_thin_nfa_optimize_contig_chars, c.contig);
        ThinNfa nfa(c.patterns);
        ASSERT_NE(nfa.get(), nullptr);
        vael_test::expect_bnfa_well_formed(nfa.get());
        EXPECT_EQ(nfa.get()->bnfa[vael_test::bnfa_state_of(nfa.get(), c.path)] & BNFA_STATE_KIND_MASK, c.kind);
        std::string text = "xyxy" + c.path;
        for (const auto &p : c.patterns)
            text += p.text + "." + p.text + p.text;
        EXPECT_EQ(sorted(nfa.hits(text, kAll)), brute_force_all(c.patterns, text, 0));
    }
}

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
