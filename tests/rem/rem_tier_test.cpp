// The REM tier: compile refusals, runs over flat and virtual buffers, the PM row, allocation failures; and against
// PCRE on random expressions and texts: match ends, and starts by brute force.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/pcre_whole.h"

namespace {

using vael_test::LogCapture;
using vael_test::Rem;
using vael_test::RemHit;
using vael_test::WholeMatch;

constexpr uint32_t kMultiline = 0x40;
constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;
constexpr uint32_t kKeep = VAEL_PMGLOB_MATCH_KEEP_ALL;
constexpr uint32_t kPresent = VAEL_PMGLOB_MATCH_PRESENT;

TEST(RemCompile, RefusalsCarryWordsTypeAndPositionInTheUsersPattern) {
    const struct {
        const char *pattern;
        const char *error;  // null: refused without words; "": any words
        uint32_t type;
        uint32_t index;
    } rows[] = {
        {"", nullptr, VAEL_PM_ERROR_INTERNAL, 0},
        {"a)", "Correlating '(' for ')' is missing", VAEL_PM_ERROR_ILLEGAL, 2},
        // The unmatched ')' is the wrapping's: the index is capped at the end.
        {"ab)cd", "Correlating '(' for ')' is missing", VAEL_PM_ERROR_ILLEGAL, 5},
        {"a[bc", "Could not find closing bracket ']'", VAEL_PM_ERROR_ILLEGAL, 4},
        {"a{x", "Illegal sequence beginning with '{': '{' must be followed by a digit", VAEL_PM_ERROR_ILLEGAL, 2},
        {"a{3,2}", "", VAEL_PM_ERROR_ILLEGAL, ~0u},
        // Past the state limit while the NFA is built, and in the subset construction.
        {"ab(cd){4000}", "This pattern is too complex. Consider rewriting the pattern.", VAEL_PM_ERROR_COMPLEX, 12},
        {"(a|b)*a(a|b){13}", "This pattern is too complex. Consider rewriting the pattern.", VAEL_PM_ERROR_COMPLEX, 0},
    };
    for (const auto &row : rows) {
        Rem rem(row.pattern);
        EXPECT_EQ(rem.get(), nullptr) << row.pattern;
        const char *got = rem.error().error_string;
        EXPECT_EQ(got != nullptr, row.error != nullptr) << row.pattern;
        EXPECT_EQ(std::string(got && row.error && *row.error ? got : ""), row.error ? row.error : "") << row.pattern;
        EXPECT_EQ(rem.error().error_type, row.type) << row.pattern;
        EXPECT_TRUE(row.type != VAEL_PM_ERROR_ILLEGAL || row.index == ~0u || rem.error().error_index == row.index)
            << row.pattern << " at " << rem.error().error_index;
    }
}

TEST(RemExec, RestartsCarryTheHintAndMatchFlags) {
    Rem rem("abc");
    ASSERT_NE(rem.get(), nullptr);
    EXPECT_EQ(rem.run("abcabc", kAll), (std::vector<RemHit>{{2, 0, kKeep | kPresent}, {5, 3, kKeep | kPresent}}));
    // Behind a virtual buffer the offsets are of the whole data and the
    // present flag stays off.
    EXPECT_EQ(rem.run("abcabc", kAll, {4}), (std::vector<RemHit>{{2, 0, kKeep}, {5, 3, kKeep}}));
    EXPECT_EQ(rem.run("xabcabc", kAll, {}, 2), (std::vector<RemHit>{{6, 2, kKeep | kPresent}}));
    EXPECT_EQ(rem.run("xabcabc", kAll, {3}, 1), (std::vector<RemHit>{{3, 1, kKeep}, {6, 4, kKeep}}));
}

TEST(RemExec, VirtualBufferSplitsGiveWhatTheFlatRunGives) {
    const char *patterns[] = {"ab+c", "a.*d", "(a|bc){2}", "^a[bc]*", "c[^d]?d$", "b{2,3}", "(ab|c)*d"};
    std::mt19937 rng(1123);
    for (const char *p : patterns) {
        Rem rem(p);
        ASSERT_NE(rem.get(), nullptr) << p;
        for (int t = 0; t < 40; t++) {
            const std::string text = vael_test::random_word(rng, "abcd", 1, 24);
            const size_t n = text.size();
            std::vector<size_t> cuts;
            for (size_t at = 0; at < n;) {
                at += 1 + rng() % 5;
                cuts.push_back(std::min(at, rng() % 3 ? n - 1 : n));
            }
            for (uint32_t flags : {0u, kAll, kAll | VAEL_PM_EXEC_FROM_PM})
                EXPECT_EQ(rem.ends(text, flags, cuts), rem.ends(text, flags)) << p << " over " << text;
        }
    }
}

// ---------------------------------------------------------------- through the PM

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
    const struct { std::string text; std::vector<PmHit> hits; } rows[] = {
        {"xx abc12de yy", {{10, 3, 9}}},      {"abcde abc7de", {{10, 6, 11}}},
        {"xyyyz abc1de", {{11, 0, 4}, {10, 6, 11}}}, {" xyz", {}}, {"qst qrt", {{12, 4, 6}}},            {"qrt!", {}},
        {"say HELLO big World", {{13, 4, 18}}},
    };
    for (const auto &row : rows) {
        std::vector<PmHit> got;
        EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(row.text.data()),
                                  (uint32_t)row.text.size(), nullptr, nullptr, &got, VAEL_PM_EXEC_MATCH_START),
                  0);
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

// Each allocation site of the parser, the NFA, the subset construction, the
// minimization and the finalization fails once, with brackets, groups, every
// repeat and both anchors in the pattern. Each stage walks its allocations
// one by one in its own tests; this walk checks the roads between them.
TEST(RemFailmem, EveryAllocationSiteOfACompileFailsCleanly) {
    const std::string p = "^a(b|c)*[^x]+y?d{1,2}z{1,}$";
    vael_pmglob_string *s =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(p.data()), (uint32_t)p.size(), -1, 0);
    vael_dfa *dfa = nullptr;
    vael_pm_error err;
    LogCapture quiet;
    vael_test::FailmemWalk w = vael_test::failmem_walk(
        [&] {
            vael_pm_error_init(&err);
            return (dfa = static_cast<vael_dfa *>(vael_rem_compile(s, 1, 0, &err))) != nullptr;
        },
        [&] { return dfa == nullptr; });
    EXPECT_GT(w.rounds, 15);
    vael_dfa_destroy(dfa);
    vael_pmglob_string_destroy(s);
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
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(list);
}

// Rounds of random expressions: fewer under ASan, where each costs ten times.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 100;
#else
constexpr int kRounds = 600;
#endif

struct Anchors { bool caret, dollar; };

// The earliest end at or after `from` of a match that starts at or after
// `from`; a match of the empty string is reported on the byte after it.
// -1 when there is none.
int earliest_end(const WholeMatch &m, const std::string &text, int from, Anchors a) {
    const int n = (int)text.size();
    for (int e = from - 1; e < n; e++) {
        if (a.dollar && e != n - 1)
            continue;
        for (int s = a.caret ? 0 : from; s <= e + 1; s++) {
            if (m.at(text, s, e))
                return std::max(e, from);
            if (a.caret)
                break;
        }
    }
    return -1;
}

std::vector<uint32_t> reference(const WholeMatch &m, const std::string &text, bool all, Anchors a) {
    std::vector<uint32_t> out;
    for (int from = 0; from < (int)text.size();) {
        const int e = earliest_end(m, text, from, a);
        if (e < 0)
            break;
        out.push_back((uint32_t)e);
        if (!all)
            break;
        from = e + 1;
    }
    return out;
}

std::string random_text(std::mt19937 &rng) { return vael_test::random_word(rng, "abcd", 1, 14); }

TEST(RemPcreDiff, SameMatchesAndEndsAsPcre) {
    std::mt19937 rng(20261123);
    int compared = 0, with_hits = 0, skipped = 0;
    for (int round = 0; round < kRounds; round++) {
        const Anchors a{rng() % 5 == 0, rng() % 5 == 0};
        const std::string body = vael_test::random_expression(rng, "abc");
        const std::string pattern = (a.caret ? "^" : "") + body + (a.dollar ? "$" : "");
        Rem rem(pattern);
        if (!rem.get()) {
            // Only the store's limit may refuse an expression of the grammar.
            EXPECT_EQ(rem.error().error_type, (uint32_t)VAEL_PM_ERROR_COMPLEX) << pattern;
            skipped++;
            continue;
        }
        WholeMatch m(body, PCRE_DOTALL);
        ASSERT_TRUE(m.ok()) << body;
        for (int t = 0; t < 8; t++) {
            const std::string text = random_text(rng);
            SCOPED_TRACE(pattern + " over " + text);
            const std::vector<uint32_t> first = reference(m, text, false, a);
            EXPECT_EQ(rem.ends(text, 0), first);
            // A caret pattern restarted behind a hit would be read from a new
            // start of data: report-all runs are compared without it.
            if (!a.caret) {
                EXPECT_EQ(rem.ends(text, kAll), reference(m, text, true, a));
            }
            compared++;
            with_hits += !first.empty();
        }
    }
    EXPECT_GT(with_hits, compared / 5);
    EXPECT_LT(skipped, kRounds / 20);
}

// The highest start of a match that ends at `end`, from `hint` on.
int brute_start(const WholeMatch &m, const std::string &text, uint32_t hint, uint32_t end) {
    for (int s = (int)end; s >= (int)hint; s--)
        if (m.at(text, s, (int)end))
            return s;
    return -1;
}

TEST(RemPcreDiff, MatchStartIsTheHighestStartWithThatEnd) {
    std::mt19937 rng(4);
    int checked = 0;
    for (int round = 0; round < kRounds / 3; round++) {
        const std::string pattern = vael_test::random_expression(rng, "abc");
        WholeMatch m(pattern, PCRE_DOTALL);
        ASSERT_TRUE(m.ok());
        if (m.at("", 0, -1))
            continue;  // the empty match has no first byte to search for
        Rem rem(pattern);
        if (!rem.get())
            continue;
        for (int t = 0; t < 6; t++) {
            const std::string text = random_text(rng) + random_text(rng);
            SCOPED_TRACE(pattern + " over " + text);
            // The first `history` bytes in a virtual buffer: one text still.
            const uint32_t history = (uint32_t)(rng() % text.size());
            vael_vbuf *vbuf = vael_vbuf_create(1 << 16, 0);
            if (history)
                vael_vbuf_add_buffer_ex(vbuf, const_cast<char *>(text.data()), history, nullptr, nullptr);
            for (const RemHit &hit : rem.run(text, kAll)) {
                vael_pmglob_match_data d{VAEL_PM_REM_DEFAULT_ID, hit.offset, hit.match_flags, hit.hint, {0, 0}};
                const auto *buf = reinterpret_cast<const unsigned char *>(text.data());
                const int want = brute_start(m, text, hit.hint, hit.offset);
                EXPECT_EQ((int)vael_dfa_match_start_find(rem.get(), buf, (uint32_t)text.size(), nullptr, kAll, &d,
                                                         200, 0, 0),
                          want)
                    << "end " << hit.offset;
                EXPECT_EQ((int)vael_dfa_match_start_find(rem.get(), buf + history, (uint32_t)text.size() - history,
                                                         vbuf, kAll, &d, 200, 0, 0),
                          want)
                    << "end " << hit.offset << " history " << history;
                checked++;
            }
            vael_vbuf_destroy(vbuf);
        }
    }
    EXPECT_GT(checked, kRounds / 3);
}

TEST(RemMatchStart, BoundsAnchorsAndTheFallBackToPlainOffsets) {
    const std::string many = std::string(600, 'a') + "b";
    const struct {
        const char *pattern;
        std::string text;
        uint32_t history;  // bytes of the text in a virtual buffer before the rest
        uint32_t end, max_candidates;
        int anchored;
        uint32_t bound;
        uint32_t start;
    } rows[] = {
        // 600 candidates: past the limit the search runs over offsets, with
        // the same answer.
        {"a[ab]*b", many, 0, 600, 1000, 0, 0, 599}, {"a[ab]*b", many, 0, 600, 100, 0, 0, 599},
        {"b+", std::string(601, 'b'), 0, 600, 1000, 0, 0, 600},
        // An anchored machine answers 0 unless bounded on the left.
        {"^ab", "ab", 0, 1, 200, 1, 0, 0},
        // Bounded on the left: candidates sit behind non-word bytes only; the
        // virtual buffer and the present buffer are one text.
        {"b+c", "xx bbbc", 0, 6, 200, 0, VAEL_PM_BOUNDED_LEFT, 3},
        {"b+c", "xx bbbc", 4, 6, 200, 0, VAEL_PM_BOUNDED_LEFT, 3},
        // No match with that end from any start.
        {"b+c", "xx bbbc", 0, 5, 200, 0, 0, (uint32_t)-1},
    };
    for (const auto &r : rows) {
        Rem rem(r.pattern);
        ASSERT_NE(rem.get(), nullptr);
        vael_vbuf *vbuf = nullptr;
        if (r.history) {
            vbuf = vael_vbuf_create(1 << 16, 0);
            ASSERT_EQ(vael_vbuf_add_buffer_ex(vbuf, const_cast<char *>(r.text.data()), r.history, nullptr, nullptr), 0);
        }
        vael_pmglob_match_data d{VAEL_PM_REM_DEFAULT_ID, r.end, 0, 0, {0, 0}};
        const auto *buf = reinterpret_cast<const unsigned char *>(r.text.data()) + r.history;
        EXPECT_EQ(vael_dfa_match_start_find(rem.get(), buf, (uint32_t)r.text.size() - r.history, vbuf, kAll, &d,
                                            r.max_candidates, r.anchored, r.bound),
                  r.start)
            << r.pattern << " over " << r.text << " history " << r.history << " bound " << r.bound;
        vael_vbuf_destroy(vbuf);
    }
}

}  // namespace
