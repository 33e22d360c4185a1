// The REM tier: the anchor wrapping, compile refusals with their words and
// positions, runs over flat and virtual buffers (anchors, restarts, hints,
// first-only, the word bound), row 0 of the second-tier table through the
// PM, and allocation failures all along vael_rem_compile.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::LogCapture;
using vael_test::Rem;
using vael_test::RemHit;

constexpr uint32_t kMultiline = 0x40;
constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;
constexpr uint32_t kKeep = VAEL_PMGLOB_MATCH_KEEP_ALL;
constexpr uint32_t kPresent = VAEL_PMGLOB_MATCH_PRESENT;

TEST(RemWrap, PatternsAreWrappedByTheirAnchors) {
    struct Row {
        const char *pattern;
        uint32_t flags;
        uint32_t string_flags;
        const char *wrapped;  // null: no buffer
        int dollar, caret;
        uint32_t prefix_size;
    };
    const Row rows[] = {
        {"abc", 0, 0, ".*(abc).*", 0, 0, 3},
        {"^abc", 0, 0, "(abc).*", 0, 1, 1},
        {"abc$", 0, 0, ".*(abc)", 1, 0, 3},
        {"^abc$", 0, 0, "(abc)", 1, 1, 1},
        {"^abc", kMultiline, 0, "(.*\\n|)(abc).*", 0, 0, 8},
        {"^abc", kMultiline | 0x20, 0, "(.*\\r|.*\\n|)(abc).*", 0, 0, 13},
        {"^abc", kMultiline | 0x10, 0, "(.*\\r\\n|)(abc).*", 0, 0, 10},
        {"^abc", kMultiline | 0x8, 0, "(.*\\r|)(abc).*", 0, 0, 8},
        {"abc$", kMultiline, 0, ".*(abc)(\\n.*|)", 1, 0, 3},
        {"abc$", kMultiline | 0x20, 0, ".*(abc)(\\r.*|\\n.*|)", 1, 0, 3},
        {"abc", 0, VAEL_PM_BOUND, ".*(abc)", 0, 0, 3},
        {"a\\$", 0, 0, ".*(a\\$).*", 0, 0, 3},
        {"$", 0, 0, ".*()", 1, 0, 3},
        {"^", 0, 0, "().*", 0, 1, 1},
        {"a^b$c", 0, 0, ".*(a^b$c).*", 0, 0, 3},
        {"", 0, 0, nullptr, 0, 0, 0},
    };
    for (const Row &row : rows) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(row.pattern),
                                                          (uint32_t)std::strlen(row.pattern), -1, row.string_flags);
        uint32_t size = 0, prefix = 0;
        int dollar = -1, caret = -1;
        unsigned char *buf = vael_rem_get_anchored_buf(s, &size, row.flags, &dollar, &caret, &prefix);
        if (row.wrapped) {
            ASSERT_NE(buf, nullptr) << row.pattern;
            EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), size), row.wrapped) << row.pattern;
            qx_kfree_(buf, size);
        } else {
            EXPECT_EQ(buf, nullptr) << row.pattern;
        }
        EXPECT_EQ(dollar, row.dollar) << row.pattern;
        EXPECT_EQ(caret, row.caret) << row.pattern;
        EXPECT_EQ(prefix, row.prefix_size) << row.pattern;
        vael_pmglob_string_destroy(s);
    }
}

TEST(RemCompile, RefusalsCarryWordsTypeAndPositionInTheUsersPattern) {
    struct Row {
        const char *pattern;
        const char *error;  // null: refused without words
        uint32_t type;
        uint32_t index;
    };
    const Row rows[] = {
        {"", nullptr, VAEL_PM_ERROR_INTERNAL, 0},
        {"a)", "Correlating '(' for ')' is missing", VAEL_PM_ERROR_ILLEGAL, 2},
        // The unmatched ')' is the wrapping's: the index is capped at the end.
        {"ab)cd", "Correlating '(' for ')' is missing", VAEL_PM_ERROR_ILLEGAL, 5},
        {"a[bc", "Could not find closing bracket ']'", VAEL_PM_ERROR_ILLEGAL, 4},
        {"a{x", "Illegal sequence beginning with '{': '{' must be followed by a digit", VAEL_PM_ERROR_ILLEGAL, 2},
        {"ab.{40}", "This pattern is too complex. Consider rewriting the pattern.", VAEL_PM_ERROR_COMPLEX, 7},
    };
    for (const Row &row : rows) {
        Rem rem(row.pattern);
        EXPECT_EQ(rem.get(), nullptr) << row.pattern;
        if (row.error) {
            EXPECT_STREQ(rem.error().error_string, row.error) << row.pattern;
        } else {
            EXPECT_EQ(rem.error().error_string, nullptr) << row.pattern;
        }
        EXPECT_EQ(rem.error().error_type, row.type) << row.pattern;
        if (row.error && row.type == VAEL_PM_ERROR_ILLEGAL) {
            EXPECT_EQ(rem.error().error_index, row.index) << row.pattern;
        }
    }
}

TEST(RemCompile, BracesWithMinAboveMaxAreRefused) {
    Rem rem("a{3,2}");
    EXPECT_EQ(rem.get(), nullptr);
    ASSERT_NE(rem.error().error_string, nullptr);
    EXPECT_EQ(rem.error().error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL);
}

// Hits of one run: end offsets, the hint each carried and its match flags.
TEST(RemExec, HitsOfAFlatRun) {
    struct Row {
        const char *pattern;
        uint32_t compile_flags;
        uint32_t pattern_flags;
        uint32_t string_flags;
        const char *text;
        uint32_t exec_flags;
        std::vector<uint32_t> ends;
    };
    const Row rows[] = {
        // Without all-matches the absorbing final state asks again at every
        // byte; the queue keeps one.
        {"abc", 1, 0, 0, "xxabcxabc", 0, {4}},
        {"abc", 1, 0, 0, "xxabcxabc", kAll, {4, 8}},
        {"abc", 1, 0, 0, "xxabxbc", kAll, {}},
        // A first-tier run never restarts: every byte in the sink counts.
        {"abc", 1, 0, 0, "abcab", kAll | VAEL_PM_EXEC_FROM_PM, {2, 3, 4}},
        {"abc", 1, 0, 0, "abcabc", kAll | VAEL_PM_EXEC_FIRST_MATCH_ONLY, {2}},
        {"^abc", 1, 0, 0, "abcabc", 0, {2}},
        {"^abc", 1, 0, 0, "xabc", kAll, {}},
        {"abc$", 1, 0, 0, "abcabc", kAll, {5}},
        {"abc$", 1, 0, 0, "abcx", kAll, {}},
        {"^abc$", 1, 0, 0, "abc", kAll, {2}},
        {"^abc$", 1, 0, 0, "abcabc", kAll, {}},
        // MULTILINE: '$' at a line end reports at the end of the data.
        {"abc$", 1 | kMultiline, 0, 0, "abc\nxyz", 0, {6}},
        {"abc$", 1 | kMultiline, 0, 0, "abcd\nxyz", 0, {}},
        {"^abc", 1 | kMultiline, 0, 0, "x\nabc", 0, {4}},
        {"^abc", 1 | kMultiline, 0, 0, "xabc", 0, {}},
        // Without dot-all the dot leaves out the line end.
        {"a.c", 0, 0, 0, "a\nc", kAll, {}},
        {"a.c", 1, 0, 0, "a\nc", kAll, {2}},
        {"AbC", 1, VAEL_PM_CASELESS, 0, "xaBc", 0, {3}},
        {"AbC", 1, 0, 0, "xaBc", 0, {}},
        // A bound pattern wants a non-word byte or the end after it.
        {"abc", 1, 0, VAEL_PM_BOUND, "abcd abc", kAll, {7}},
        {"abc", 1, 0, VAEL_PM_BOUND, "abc d", kAll, {2}},
        {"a{0}", 1, 0, 0, "xyz", 0, {0}},
        {"a{2,3}b", 1, 0, 0, "ab aab aaaab", kAll, {5, 11}},
        {"(ab|c)+d", 1, 0, 0, "abcabd cd", kAll, {5, 8}},
        {"[^abc]x", 1, 0, 0, "axbxdx", kAll, {5}},
        // A span in a negated bracket excludes nothing in this language.
        {"[^a-c]x", 1, 0, 0, "axbxdx", kAll, {1, 3, 5}},
    };
    for (const Row &row : rows) {
        Rem rem(row.pattern, row.compile_flags, row.pattern_flags, row.string_flags);
        ASSERT_NE(rem.get(), nullptr) << row.pattern;
        EXPECT_EQ(rem.ends(row.text, row.exec_flags), row.ends) << row.pattern << " over " << row.text;
    }
}

TEST(RemExec, RestartsCarryTheHintAndMatchFlags) {
    Rem rem("abc");
    ASSERT_NE(rem.get(), nullptr);
    const std::vector<RemHit> all = rem.run("abcabc", kAll);
    EXPECT_EQ(all, (std::vector<RemHit>{{2, 0, kKeep | kPresent}, {5, 3, kKeep | kPresent}}));
    // Behind a virtual buffer the offsets are of the whole data and the
    // present flag stays off.
    EXPECT_EQ(rem.run("abcabc", kAll, {4}), (std::vector<RemHit>{{2, 0, kKeep}, {5, 3, kKeep}}));
    EXPECT_EQ(rem.run("xabcabc", kAll, {}, 2), (std::vector<RemHit>{{6, 2, kKeep | kPresent}}));
    EXPECT_EQ(rem.run("xabcabc", kAll, {3}, 1), (std::vector<RemHit>{{3, 1, kKeep}, {6, 4, kKeep}}));
}

TEST(RemExec, AnchoredFinalCountsOnlyOnTheVeryLastByte) {
    Rem rem("abc$");
    ASSERT_NE(rem.get(), nullptr);
    EXPECT_EQ(rem.ends("abc", kAll, {3}), (std::vector<uint32_t>{2}));         // the vbuf ends the data
    EXPECT_EQ(rem.ends("abcabc", kAll, {3}), (std::vector<uint32_t>{5}));      // the flat buffer ends it
    EXPECT_EQ(rem.ends("abcx", kAll, {3}), (std::vector<uint32_t>{}));         // a flat buffer follows
    EXPECT_EQ(rem.ends("ababc", kAll, {2, 4, 5}), (std::vector<uint32_t>{4})); // split across pieces
}

TEST(RemExec, IllegalArgumentsAreRefused) {
    Rem rem("abc");
    ASSERT_NE(rem.get(), nullptr);
    lst_list *queue = nullptr;
    LogCapture log;
    EXPECT_EQ(vael_dfa_exec(rem.get(), nullptr, 0, nullptr, 0, &queue, 0, nullptr), -1);
    EXPECT_TRUE(log.contains("Illegal arguments"));
    EXPECT_EQ(queue, nullptr);
}

TEST(RemExec, VirtualBufferSplitsGiveWhatTheFlatRunGives) {
    const char *patterns[] = {"ab+c", "a.*d", "(a|bc){2}", "^a[bc]*", "c[^d]?d$", "b{2,3}", "(ab|c)*d"};
    std::mt19937 rng(1123);
    for (const char *p : patterns) {
        Rem rem(p);
        ASSERT_NE(rem.get(), nullptr) << p;
        for (int t = 0; t < 40; t++) {
            std::string text;
            const size_t n = 1 + rng() % 24;
            for (size_t i = 0; i < n; i++)
                text += "abcd"[rng() % 4];
            std::vector<size_t> cuts;
            for (size_t at = 0; at < n;) {
                at += 1 + rng() % 5;
                cuts.push_back(std::min(at, rng() % 3 ? n - 1 : n));
            }
            for (uint32_t flags : {0u, kAll, kAll | VAEL_PM_EXEC_FROM_PM}) {
                std::vector<uint32_t> flat = rem.ends(text, flags);
                EXPECT_EQ(rem.ends(text, flags, cuts), flat) << p << " over " << text;
            }
        }
    }
}

// ---------------------------------------------------------------- the row

TEST(RemRow, RowZeroIsTheRemTier) {
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[VAEL_PM_TIER2_REM];
    EXPECT_STREQ(row.name, "REM");
    EXPECT_EQ(row.tier2_flags, VAEL_PM_TIER2_REUSABLE);
    struct Row {
        const char *pattern;
        uint32_t flags;
        int anchored;
    };
    const Row rows[] = {{"^abc", 1, 1}, {"^abc", 1 | kMultiline, 0}, {"abc$", 1, 0}, {"abc", 1, 0}};
    for (const Row &r : rows) {
        Rem rem(r.pattern, r.flags);
        ASSERT_NE(rem.get(), nullptr);
        EXPECT_EQ(row.has_start_anchor(rem.get()), r.anchored) << r.pattern << " flags " << r.flags;
        void *copy = row.duplicate(rem.get());
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(row.is_valid(copy), 1);
        row.destroy(copy);
    }
    vael_pm_tier2_funcs again{};
    LogCapture log;
    EXPECT_EQ(vael_rem_init(&again), -1);
    EXPECT_TRUE(log.contains("called when already initialized"));
}

struct PmHit {
    int32_t id;
    uint32_t start, end;
    bool operator==(const PmHit &o) const { return id == o.id && start == o.start && end == o.end; }
};
void PrintTo(const PmHit &h, std::ostream *os) { *os << "{" << h.id << ": " << h.start << "-" << h.end << "}"; }

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *, uint32_t *extra) {
    static_cast<std::vector<PmHit> *>(arg)->push_back(PmHit{id, extra[1], offset});
    return 0;
}

vael_pm_patterns *rem_list(const std::vector<std::string> &patterns) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (size_t i = 0; i < patterns.size(); i++)
        EXPECT_EQ(vael_pm_patterns_add_pattern(list, patterns[i].data(), (uint32_t)patterns[i].size(), 10 + (int)i,
                                               VAEL_PM_USE_REM),
                  0);
    return list;
}

TEST(RemPm, UseRemPatternsMatchEndToEndWithTheirStarts) {
    const std::vector<std::string> patterns = {"abc[0-9]+de", "^xy+z", "q(r|s)t$", "{caseless}:hello.*world"};
    vael_pm_patterns *list = rem_list(patterns);
    vael_pm_error err{};
    LogCapture quiet;
    vael_pm_handle *pm = vael_pm_compile(list, nullptr, 0, &err, "rem pm test");
    vael_pm_patterns_destroy(list);
    ASSERT_NE(pm, nullptr) << (err.error_string ? err.error_string : "");
    vael_pm_set_extended_match_cb(pm, collect);
    for (uint32_t i = 0; i < pm->num_tier2; i++)
        EXPECT_EQ(pm->pm_array[i].tier2_type, (uint32_t)VAEL_PM_TIER2_REM);
    struct Row {
        std::string text;
        uint32_t flags;
        std::vector<PmHit> hits;
    };
    const std::vector<Row> rows = {
        {"xx abc12de yy", 0, {{10, 3, 9}}},
        {"abcde abc7de", 0, {{10, 6, 11}}},
        {"xyyyz abc1de", 0, {{11, 0, 4}, {10, 6, 11}}},
        {" xyz", 0, {}},
        {"qrt", 0, {{12, 0, 2}}},
        {"qst qrt", 0, {{12, 4, 6}}},
        {"qrt!", 0, {}},
        {"say HELLO big World", 0, {{13, 4, 18}}},
    };
    for (const Row &row : rows) {
        std::vector<PmHit> got;
        const int rc = vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(row.text.data()),
                                       (uint32_t)row.text.size(), nullptr, nullptr, &got, row.flags | VAEL_PM_EXEC_MATCH_START);
        EXPECT_EQ(rc, 0) << row.text;
        EXPECT_EQ(got, row.hits) << row.text;
    }
    // An update of the same list takes every DFA over.
    vael_pm_patterns *again = rem_list(patterns);
    vael_pm_handle *updated = vael_pm_update(pm, again, 0, &err, "rem pm test");
    vael_pm_patterns_destroy(again);
    ASSERT_NE(updated, nullptr);
    EXPECT_EQ(updated->stats.num_tier2_compiled, 0u);
    vael_pm_destroy(updated);
    vael_pm_destroy(pm);
}

// ---------------------------------------------------------------- allocation failures

TEST(RemFailmem, EveryAllocationOfACompileFailsCleanly) {
    const char *patterns[] = {"abc", "^a(b|c)*d{2,3}$", "[^x]+y?z{1,}"};
    for (const char *p : patterns) {
        SCOPED_TRACE(p);
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(p),
                                                          (uint32_t)std::strlen(p), -1, 0);
        vael_dfa *dfa = nullptr;
        vael_pm_error err;
        LogCapture quiet;
        auto attempt = [&] {
            vael_pm_error_init(&err);
            dfa = static_cast<vael_dfa *>(vael_rem_compile(s, 1, 0, &err));
            return dfa != nullptr;
        };
        auto failed = [&] { return dfa == nullptr; };
        vael_test::FailmemWalk w = vael_test::failmem_walk(attempt, failed);
        EXPECT_GT(w.injected, 0);
        vael_dfa_destroy(dfa);
        dfa = nullptr;
        if (p == patterns[0]) {
            // Every allocation in turn: quadratic in the compile's
            // allocations, so the smallest pattern only.
            vael_test::FailmemWalk each = vael_test::failmem_walk_each_allocation(attempt, failed);
            EXPECT_GT(each.rounds, w.rounds - 1);
            vael_dfa_destroy(dfa);
        }
        vael_pmglob_string_destroy(s);
    }
}

TEST(RemFailmem, APmCompileWithRemPatternsFailsCleanly) {
    vael_pm_patterns *list = rem_list({"abc[0-9]+de", "^x(y|z)*$"});
    vael_pm_handle *pm = nullptr;
    vael_pm_error err{};
    LogCapture quiet;
    vael_test::FailmemWalk w = vael_test::failmem_walk(
        [&] {
            pm = vael_pm_compile(list, nullptr, 0, &err, "rem failmem");
            return pm != nullptr;
        },
        [&] { return pm == nullptr; });
    EXPECT_GT(w.injected, 5);
    ASSERT_NE(pm, nullptr);
    EXPECT_EQ(pm->pm_array[0].tier2_type, (uint32_t)VAEL_PM_TIER2_REM);
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(list);
}

}  // namespace
