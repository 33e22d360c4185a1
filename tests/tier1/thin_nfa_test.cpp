// The Thin NFA driven directly: the binary layout the compile produces, and
// what a run queues for a flat buffer.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_internal.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_test::ThinNfa;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;

// The ids of a state's pattern list, in list order.
std::vector<uint32_t> list_ids(const vael_thin_nfa *nfa, uint32_t state_offset) {
    std::vector<uint32_t> ids;
    const uint32_t id = nfa->bnfa[state_offset] >> BNFA_STATE_ID_SHIFT;
    for (const vael_thin_nfa_pattern_id *p = nfa->pattern_ids[id]; p; p = p->next)
        ids.push_back(p->id);
    return ids;
}

uint32_t kind(const vael_thin_nfa *nfa, uint32_t state_offset) {
    return nfa->bnfa[state_offset] & BNFA_STATE_KIND_MASK;
}

constexpr uint32_t kFull = 0;
constexpr uint32_t kFullFinite = BNFA_STATE_FINITE;
constexpr uint32_t kPartial = BNFA_STATE_PARTIAL;
constexpr uint32_t kPartialFinite = BNFA_STATE_PARTIAL | BNFA_STATE_FINITE;

// ------------------------------------------------------------------ layout

TEST(ThinNfaLayout, HeSheIsLaidOutWordForWord) {
    ThinNfa nfa({{"he", 1}, {"she", 2}});
    const vael_thin_nfa *h = nfa.get();
    ASSERT_NE(h, nullptr);
    vael_test::expect_bnfa_well_formed(h);
    EXPECT_EQ(h->state_num, 6u);
    EXPECT_EQ(h->flags, 0u);
    EXPECT_EQ(h->stats.num_states, 6u);
    EXPECT_EQ(h->stats.num_final_states, 2u);
    EXPECT_EQ(h->bnfa_full_size, 3084u);
    EXPECT_EQ(h->bnfa_size, 3112u);

    const auto offsets = vael_test::bnfa_state_offsets(h);
    const std::map<uint32_t, uint32_t> want = {{0, 0}, {1, 257}, {3, 514}, {2, 771}, {4, 773}, {5, 776}};
    EXPECT_EQ(offsets, want);

    const uint32_t *w = h->bnfa;
    EXPECT_EQ(w[0], 0x00000000u);
    EXPECT_EQ(w[257], 0x00000100u);
    EXPECT_EQ(w[514], 0x00000300u);
    EXPECT_EQ(w[771], 0x00000203u);
    EXPECT_EQ(w[772], 0x00000000u);
    EXPECT_EQ(w[773], 0x00000402u);
    EXPECT_EQ(w[774], 0x00010101u);
    EXPECT_EQ(w[775], 0x00030865u);
    EXPECT_EQ(w[776], 0x00000503u);
    EXPECT_EQ(w[777], 0x00000000u);

    for (unsigned c = 0; c < 256; c++) {
        const uint32_t want_h = c == 'e' ? 771 : c == 'h' ? 257 : c == 's' ? 514 : 0;
        EXPECT_EQ(w[257 + 1 + c], want_h) << "state h, byte " << c;
        const uint32_t want_root = c == 'h' ? 257 : c == 's' ? 514 : 0;
        EXPECT_EQ(w[1 + c], want_root) << "root, byte " << c;
    }
    EXPECT_EQ(list_ids(h, 771), (std::vector<uint32_t>{1}));
    EXPECT_EQ(list_ids(h, 776), (std::vector<uint32_t>{2, 1}));

    std::vector<Hit> hits;
    ASSERT_EQ(nfa.exec("ushers", &hits), 0);
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits[0].id, 2);
    EXPECT_EQ(hits[0].offset, 3u);
    EXPECT_EQ(hits[0].hint, 3u);
    EXPECT_EQ(hits[1].id, 1);
    EXPECT_EQ(hits[1].offset, 3u);
    EXPECT_EQ(hits[1].hint, 2u);
}

TEST(ThinNfaLayout, EmptyListIsOneFullStateLoopingToItself) {
    ThinNfa nfa({});
    const vael_thin_nfa *h = nfa.get();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->bnfa_size, 1028u);
    EXPECT_EQ(h->bnfa_full_size, 1028u);
    EXPECT_EQ(h->state_num, 1u);
    EXPECT_EQ(h->stats.num_final_states, 0u);
    EXPECT_EQ(h->pattern_ids[0], nullptr);
    EXPECT_EQ(h->bnfa[0], 0u);
    for (unsigned c = 0; c < 256; c++)
        EXPECT_EQ(h->bnfa[1 + c], 0u) << c;
    EXPECT_TRUE(nfa.hits("anything at all").empty());
}

TEST(ThinNfaLayout, OneTextWithTwoIdsSharesOneState) {
    ThinNfa nfa({{"abc", 7}, {"abc", 3}});
    ASSERT_NE(nfa.get(), nullptr);
    EXPECT_EQ(nfa.get()->state_num, 4u);
    EXPECT_EQ(list_ids(nfa.get(), vael_test::bnfa_state_of(nfa.get(), "abc")), (std::vector<uint32_t>{7, 3}));
    const auto hits = nfa.hits("xabc");
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits[0], (Hit{7, 3}));
    EXPECT_EQ(hits[1], (Hit{3, 3}));
}

TEST(ThinNfaLayout, SameIdTwiceKeepsTheFirstFlagsAndLength) {
    // The second entry of id 4 would be unanchored; the first, anchored, wins.
    ThinNfa nfa({{"abc", 4, VAEL_PM_LSS_START_ANCHOR}, {"abc", 4, 0}});
    ASSERT_NE(nfa.get(), nullptr);
    const uint32_t id = nfa.get()->bnfa[vael_test::bnfa_state_of(nfa.get(), "abc")] >> BNFA_STATE_ID_SHIFT;
    const vael_thin_nfa_pattern_id *p = nfa.get()->pattern_ids[id];
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->next, nullptr);
    EXPECT_EQ(p->flags, VAEL_PM_LSS_START_ANCHOR);
    EXPECT_EQ(p->len, 3u);
    EXPECT_TRUE(nfa.hits("xabc").empty());
    EXPECT_EQ(nfa.hits("abc").size(), 1u);

    // Id 9 also ends "abc" as its suffix "bc": the state of "abc" keeps the
    // first entry, with length 3, and reports id 9 once.
    ThinNfa suffix({{"abc", 9}, {"bc", 9}});
    ASSERT_NE(suffix.get(), nullptr);
    auto hits = suffix.hits("abc");
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].hint, 3u);
    hits = suffix.hits("xbc");
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].hint, 2u);
}

TEST(ThinNfaLayout, SuffixEndStateHoldsLongerPatternFirst) {
    ThinNfa nfa({{"cd", 1}, {"abcd", 2}});
    ASSERT_NE(nfa.get(), nullptr);
    EXPECT_EQ(list_ids(nfa.get(), vael_test::bnfa_state_of(nfa.get(), "abcd")), (std::vector<uint32_t>{2, 1}));
    const auto hits = nfa.hits("abcd");
    ASSERT_EQ(hits.size(), 2u);
    EXPECT_EQ(hits[0].id, 2);
    EXPECT_EQ(hits[0].hint, 4u);
    EXPECT_EQ(hits[1].id, 1);
    EXPECT_EQ(hits[1].hint, 2u);
}

TEST(ThinNfaLayout, RunOfOneByteEndsInAFullState) {
    {
        ThinNfa nfa({{"a", 1}, {"aa", 2}, {"aaa", 3}});
        const vael_thin_nfa *h = nfa.get();
        ASSERT_NE(h, nullptr);
        vael_test::expect_bnfa_well_formed(h);
        EXPECT_EQ(kind(h, vael_test::bnfa_state_of(h, "a")), kFullFinite);    // full by depth
        EXPECT_EQ(kind(h, vael_test::bnfa_state_of(h, "aa")), kPartialFinite);
        EXPECT_EQ(kind(h, vael_test::bnfa_state_of(h, "aaa")), kFullFinite);  // end of the run
        EXPECT_EQ(vael_test::sorted(nfa.hits("aaaa", kAll)),
                  vael_test::brute_force_all({{"a", 1}, {"aa", 2}, {"aaa", 3}}, "aaaa", 0));
    }
    {
        // A run end that is not finite belongs to the leading full region.
        ThinNfa nfa({{"bbbbx", 1}});
        const uint32_t run_end = vael_test::bnfa_state_of(nfa.get(), "bbbb");
        EXPECT_EQ(kind(nfa.get(), run_end), kFull);
        EXPECT_LT(run_end * 4, nfa.get()->bnfa_full_size);
        EXPECT_EQ(kind(nfa.get(), vael_test::bnfa_state_of(nfa.get(), "bb")), kPartial);
        EXPECT_EQ(nfa.hits("bbbbbbbbbbx"), (std::vector<Hit>{{1, 10}}));
    }
    {
        ScopedGlobal contig(vael_thin_nfa_optimize_contig_chars, 0);
        ThinNfa nfa({{"a", 1}, {"aa", 2}, {"aaa", 3}});
        ASSERT_NE(nfa.get(), nullptr);
        EXPECT_EQ(kind(nfa.get(), vael_test::bnfa_state_of(nfa.get(), "aaa")), kPartialFinite);
        EXPECT_EQ(vael_test::sorted(nfa.hits("aaaaa", kAll)),
                  vael_test::brute_force_all({{"a", 1}, {"aa", 2}, {"aaa", 3}}, "aaaaa", 0));
    }
}

std::vector<Pattern> fan_out(const std::string &stem, int children, unsigned first = 'A', unsigned step = 1) {
    std::vector<Pattern> patterns;
    for (int i = 0; i < children; i++)
        patterns.push_back({stem + (char)(first + step * i), i});
    return patterns;
}

TEST(ThinNfaLayout, SixtyFourChildrenMakeAStateFull) {
    for (int children : {63, 64}) {
        SCOPED_TRACE(children);
        const auto patterns = fan_out("xy", children);
        ThinNfa nfa(patterns);
        const vael_thin_nfa *h = nfa.get();
        ASSERT_NE(h, nullptr);
        vael_test::expect_bnfa_well_formed(h);
        const uint32_t stem = vael_test::bnfa_state_of(h, "xy");
        if (children == 63) {
            EXPECT_EQ(kind(h, stem), kPartial);
            EXPECT_EQ(h->bnfa[stem + 1] & 0xffu, 63u);
        } else {
            EXPECT_EQ(kind(h, stem), kFull);
            EXPECT_LT(stem * 4, h->bnfa_full_size);
        }
        for (const auto &p : patterns)
            EXPECT_EQ(nfa.hits("." + p.text + "."), (std::vector<Hit>{{p.id, 3}})) << p.text;
        EXPECT_TRUE(nfa.hits("xy!xy xy").empty());
    }
}

TEST(ThinNfaLayout, NoFullTiersLeavesOnlyTheRootFull) {
    ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, 0);
    const std::vector<Pattern> patterns = {{"he", 1}, {"she", 2}, {"hers", 3}};
    {
        ScopedGlobal contig(vael_thin_nfa_optimize_contig_chars, 0);
        ThinNfa nfa(patterns);
        const vael_thin_nfa *h = nfa.get();
        ASSERT_NE(h, nullptr);
        vael_test::expect_bnfa_well_formed(h);
        EXPECT_EQ(h->bnfa_full_size, 1028u);
        EXPECT_EQ(kind(h, vael_test::bnfa_state_of(h, "h")), kPartial);
        EXPECT_EQ(kind(h, vael_test::bnfa_state_of(h, "s")), kPartial);
        EXPECT_EQ(vael_test::sorted(nfa.hits("ushers she hers", kAll)),
                  vael_test::brute_force_all(patterns, "ushers she hers", 0));
    }
    {
        // With the run optimisation each child of the root ends a run of one
        // byte, and such a state is full whatever its depth.
        ThinNfa nfa(patterns);
        const vael_thin_nfa *h = nfa.get();
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(kind(h, vael_test::bnfa_state_of(h, "h")), kFull);
        EXPECT_EQ(kind(h, vael_test::bnfa_state_of(h, "he")), kPartialFinite);
        EXPECT_EQ(vael_test::sorted(nfa.hits("ushers she hers", kAll)),
                  vael_test::brute_force_all(patterns, "ushers she hers", 0));
    }
}

// ------------------------------------------------------------------ runs

struct RunCase {
    const char *name;
    std::vector<Pattern> patterns;
    std::string text;
    uint32_t flags;
    std::vector<Hit> expected; // in queue order
};

TEST(ThinNfaExec, ReportsHitsInOrderOfEndThenLength) {
    const std::vector<RunCase> cases = {
        {"she and he end together", {{"he", 1}, {"she", 2}}, "ushers", 0, {{2, 3}, {1, 3}}},
        {"abcd with bcd and cd", {{"bcd", 1}, {"cd", 2}}, "abcd", 0, {{1, 3}, {2, 3}}},
        {"match in the last byte", {{"xyz", 5}}, "abcxyz", 0, {{5, 5}}},
        {"match is the whole buffer", {{"q", 5}}, "q", 0, {{5, 0}}},
        {"first end only per id", {{"ab", 1}}, "abab ab", 0, {{1, 1}}},
        {"every end with all matches", {{"ab", 1}}, "abab ab", kAll, {{1, 1}, {1, 3}, {1, 6}}},
        {"overlaps of one byte", {{"aa", 1}, {"a", 2}}, "aaa", kAll, {{2, 0}, {1, 1}, {2, 1}, {1, 2}, {2, 2}}},
        {"fall from a deep state", {{"abcx", 1}, {"bcd", 2}}, "abcd", 0, {{2, 3}}},
        {"prefix of another pattern", {{"abc", 1}, {"ab", 2}}, "abab abc", kAll, {{2, 1}, {2, 3}, {2, 6}, {1, 7}}},
        {"binary bytes", {{std::string("\0\xff", 2), 1}, {std::string("\xff\0", 2), 2}},
         std::string("\0\xff\0\xff", 4), kAll, {{1, 1}, {2, 2}, {1, 3}}},
        {"no hit", {{"needle", 1}}, "haystack with no needl", 0, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ThinNfa nfa(c.patterns);
        ASSERT_NE(nfa.get(), nullptr);
        EXPECT_EQ(nfa.hits(c.text, c.flags), c.expected);
    }
}

TEST(ThinNfaExec, PartialStatesWithManyTransitionsFindEveryChild) {
    // More than six transitions are searched by halves; hit every child and
    // miss every byte between, below and above them.
    for (int children : {7, 8, 13, 20, 63}) {
        SCOPED_TRACE(children);
        const auto patterns = fan_out("qz", children, 'A' - 1 + 2, 2); // 'B', 'D', ...
        ThinNfa nfa(patterns);
        ASSERT_NE(nfa.get(), nullptr);
        const uint32_t stem = vael_test::bnfa_state_of(nfa.get(), "qz");
        ASSERT_EQ(kind(nfa.get(), stem), kPartial);
        EXPECT_EQ(nfa.get()->bnfa[stem + 1] & 0xffu, (uint32_t)children);
        std::string text;
        for (unsigned c = 0; c < 256; c++)
            text += std::string("qz") + (char)c;
        EXPECT_EQ(vael_test::sorted(nfa.hits(text, kAll)), vael_test::brute_force_all(patterns, text, 0));
    }
}

TEST(ThinNfaExec, CaselessFoldsPatternsAndInput) {
    ThinNfa nfa({{"ABC", 0}, {"abc", 1}}, VAEL_PM_CASELESS);
    const vael_thin_nfa *h = nfa.get();
    ASSERT_NE(h, nullptr);
    vael_test::expect_bnfa_well_formed(h);
    EXPECT_EQ(h->state_num, 4u);
    EXPECT_EQ(h->flags & THIN_NFA_FLAG_XLATION, THIN_NFA_FLAG_XLATION);
    EXPECT_EQ(h->xlation_tab[(unsigned char)'Q'], 'q');
    EXPECT_EQ(list_ids(h, vael_test::bnfa_state_of(h, "abc")), (std::vector<uint32_t>{0, 1}));
    for (int form = 0; form < 8; form++) {
        std::string text = "abc";
        for (int i = 0; i < 3; i++)
            if (form & (1 << i))
                text[i] = (char)(text[i] - 32);
        SCOPED_TRACE(text);
        EXPECT_EQ(nfa.hits("-" + text), (std::vector<Hit>{{0, 3}, {1, 3}}));
    }
    EXPECT_TRUE(nfa.hits("ab-c").empty());
}

TEST(ThinNfaExec, DigitlessMakesAllDigitsOne) {
    ThinNfa nfa({{"a1", 0}}, VAEL_PM_DIGITLESS);
    ASSERT_NE(nfa.get(), nullptr);
    for (char d = '0'; d <= '9'; d++)
        EXPECT_EQ(nfa.hits(std::string("xa") + d), (std::vector<Hit>{{0, 2}})) << d;
    EXPECT_TRUE(nfa.hits("ab A1").empty()) << "digitless alone keeps case";

    ThinNfa both({{"X7y", 0}}, VAEL_PM_DIGITLESS | VAEL_PM_CASELESS);
    EXPECT_EQ(both.hits("x0Y"), (std::vector<Hit>{{0, 2}}));
    ThinNfa plain({{"a1", 0}});
    EXPECT_TRUE(plain.hits("a2").empty());
}

TEST(ThinNfaExec, HitsDoNotDependOnWhereAByteIsRead) {
    // The same patterns with different numbers of full tiers: bytes that the
    // fast loop reads raw in one automaton are translated in a step in
    // another; every form must find the same hits.
    const std::vector<Pattern> patterns = {{"HeLLo", 1}, {"lo w", 2}, {"LLL", 3}, {"o", 4}, {"Hell0 W0", 5}};
    const std::string text = "xHELLO WORLD hello world HeLlO W hElL0 w9 lLlLl";
    for (uint32_t flags : {VAEL_PM_CASELESS, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS}) {
        for (int tiers : {0, 1, 2, 3, 8}) {
            for (int contig : {0, 1}) {
                SCOPED_TRACE(testing::Message() << "flags " << flags << " tiers " << tiers << " contig " << contig);
                ScopedGlobal t(vael_thin_nfa_full_tiers_num, tiers);
                ScopedGlobal c(vael_thin_nfa_optimize_contig_chars, contig);
                ThinNfa nfa(patterns, flags);
                vael_test::expect_bnfa_well_formed(nfa.get());
                EXPECT_EQ(vael_test::sorted(nfa.hits(text, kAll)), vael_test::brute_force_all(patterns, text, flags));
            }
        }
    }
}

TEST(ThinNfaExec, MaskSkipsOnlyTheIdsItLacks) {
    ThinNfa nfa({{"abc", 0}, {"bc", 1}, {"c", 2}, {"zz", 40}});
    ASSERT_NE(nfa.get(), nullptr);
    vael_test::RawMask mask(41);
    mask.set(0);
    mask.set(2);
    std::vector<Hit> hits;
    ASSERT_EQ(nfa.exec("abc zz", &hits, 0, 0, mask.mask()), 0);
    EXPECT_EQ(hits, (std::vector<Hit>{{0, 2}, {2, 2}}));
    mask.set(40);
    ASSERT_EQ(nfa.exec("abc zz", &hits, 0, 0, mask.mask()), 0);
    EXPECT_EQ(hits, (std::vector<Hit>{{0, 2}, {2, 2}, {40, 5}}));
}

TEST(ThinNfaExec, StartAnchoredStringCountsOnlyAtStreamStart) {
    ThinNfa nfa({{"ab", 0, VAEL_PM_LSS_START_ANCHOR}, {"b", 1}});
    ASSERT_NE(nfa.get(), nullptr);
    EXPECT_EQ(nfa.hits("abab", kAll), (std::vector<Hit>{{0, 1}, {1, 1}, {1, 3}}));
    EXPECT_EQ(nfa.hits("xab", kAll), (std::vector<Hit>{{1, 2}}));
    std::vector<Hit> hits;
    // Scanning from offset 2 sees "ab" at 2..3, which does not start the stream.
    ASSERT_EQ(nfa.exec("abab", &hits, kAll, 2), 0);
    EXPECT_EQ(hits, (std::vector<Hit>{{1, 3}}));
    ASSERT_EQ(nfa.exec("ab", &hits, kAll, 1), 0);
    EXPECT_EQ(hits, (std::vector<Hit>{{1, 1}}));
}

TEST(ThinNfaExec, EndAnchoredStringCountsOnlyAtTheLastByte) {
    ThinNfa nfa({{"ab", 0, VAEL_PM_LSS_END_ANCHOR}, {"a", 1}});
    ASSERT_NE(nfa.get(), nullptr);
    EXPECT_EQ(nfa.hits("abab", kAll), (std::vector<Hit>{{1, 0}, {1, 2}, {0, 3}}));
    EXPECT_EQ(nfa.hits("aba", kAll), (std::vector<Hit>{{1, 0}, {1, 2}}));
    EXPECT_EQ(nfa.hits("ab"), (std::vector<Hit>{{1, 0}, {0, 1}}));
}

TEST(ThinNfaExec, StartOffsetSkipsBytesButKeepsStreamOffsets) {
    ThinNfa nfa({{"ab", 0}});
    ASSERT_NE(nfa.get(), nullptr);
    const std::string text = "abxab";
    const std::vector<std::pair<uint32_t, std::vector<Hit>>> cases = {
        {0, {{0, 1}, {0, 4}}}, {1, {{0, 4}}}, {3, {{0, 4}}}, {4, {}}, {5, {}},
    };
    for (const auto &[offset, expected] : cases) {
        std::vector<Hit> hits;
        EXPECT_EQ(nfa.exec(text, &hits, kAll, offset), 0) << offset;
        EXPECT_EQ(hits, expected) << offset;
    }
    // Past the end: the values stand as offset, buffer length, vbuf size.
    vael_test::ScopedTopic topic("K_THINNFA", VAEL_DBG_ERR);
    LogCapture log;
    std::vector<Hit> hits;
    EXPECT_EQ(nfa.exec(text, &hits, kAll, 6), -1);
    EXPECT_TRUE(hits.empty());
    EXPECT_TRUE(log.contains("Offset 6 too large, vbuf size 5, buffer size 0")) << log.text();
}

TEST(ThinNfaExec, AllMatchesKeepsEveryHitExceptForSecondTierStrings) {
    ThinNfa nfa({{"aa", 0}, {"ab", 1, VAEL_PM_NEED_TIER2}});
    ASSERT_NE(nfa.get(), nullptr);
    const std::string text = "aaaab ab";
    std::vector<Hit> hits;
    ASSERT_EQ(nfa.exec(text, &hits, kAll), 0);
    ASSERT_EQ(hits, (std::vector<Hit>{{0, 1}, {0, 2}, {0, 3}, {1, 4}}));
    for (const auto &h : hits)
        EXPECT_EQ(h.match_flags, h.id == 0 ? VAEL_PMGLOB_MATCH_KEEP_ALL : 0u);
    ASSERT_EQ(nfa.exec(text, &hits, 0), 0);
    ASSERT_EQ(hits, (std::vector<Hit>{{0, 1}, {1, 4}}));
    for (const auto &h : hits)
        EXPECT_EQ(h.match_flags, 0u);
}

TEST(ThinNfaExec, IllegalArgumentsFailWithAnAssertion) {
    ThinNfa nfa({{"ab", 0}});
    ASSERT_NE(nfa.get(), nullptr);
    const unsigned char data[] = "ab";
    struct {
        const char *name;
        vael_thin_nfa *nfa;
        const unsigned char *buf;
        uint32_t len;
    } cases[] = {
        {"null handle", nullptr, data, 2},
        {"null buffer", nfa.get(), nullptr, 2},
        {"zero length", nfa.get(), data, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        lst_list *queue = nullptr;
        EXPECT_EQ(vael_thin_nfa_exec(c.nfa, c.buf, c.len, nullptr, 0, &queue, 0, nullptr), -1);
        EXPECT_EQ(queue, nullptr);
        EXPECT_TRUE(log.contains("Assert at (")) << log.text();
        EXPECT_TRUE(log.contains("Illegal arguments")) << log.text();
    }
}

TEST(ThinNfaCompile, ThousandsOfStatesSpanSeveralStateBlocks) {
    std::mt19937 rng(20240611);
    auto letter = [&] { return (char)('a' + rng() % 26); };
    std::vector<Pattern> patterns;
    std::string text;
    for (int i = 0; i < 600; i++) {
        std::string p;
        for (int n = 5 + (int)(rng() % 8); n > 0; n--)
            p += letter();
        patterns.push_back({p, i});
        if (i % 3 == 0)
            text += p.substr(rng() % 3) + letter();
    }
    ThinNfa nfa(patterns, VAEL_PM_CASELESS);
    ASSERT_NE(nfa.get(), nullptr);
    EXPECT_GT(nfa.get()->state_num, 4000u);
    vael_test::expect_bnfa_well_formed(nfa.get());
    EXPECT_EQ(vael_test::sorted(nfa.hits(text, kAll)), vael_test::brute_force_all(patterns, text, VAEL_PM_CASELESS));
}

TEST(ThinNfaCompile, EmptyStringIsRefused) {
    ThinNfa nfa({{"ok", 0}, {"", 1}});
    EXPECT_EQ(nfa.get(), nullptr);
    EXPECT_NE(nfa.error().error_string, nullptr);
}

}  // namespace
