// The compile of regular expressions into a PM: how each pattern is split
// between the tiers, and every allocation failure of the compile, one at a
// time, with the byte accounts back where they started.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;

using vael_pm_test::collect;
using vael_pm_test::make_list;
using vael_pm_test::Rec;

std::string bytes(const unsigned char *p, uint32_t n) { return p ? std::string((const char *)p, n) : "<null>"; }

// What the compile made of each pattern: its saved LSS text, its saved
// second-tier text, its row, and its flags.
TEST(RegexCompile, EntriesSplitPatternsBetweenTheTiers) {
    const uint32_t kTier2 = VAEL_PM_TIER2_PCRE, kNone = VAEL_PM_TIER2_NONE;
    const struct {
        const char *name;
        std::vector<Rec> recs;
        // per entry: lss_str, re_str, tier2 row, bits that must be set in flags
        std::vector<std::tuple<std::string, std::string, uint32_t, uint32_t>> want;
    } cases[] = {
        {"RegexWithClass", {{'p', "abc[0-9]+de"}}, {{"abc", "abc[0-9]+de", kTier2, 0}}},
        {"WhollyAString", {{'p', "abc"}}, {{"abc", "<null>", kNone, 0}}},
        {"AlternationOfStrings", {{'p', "abc|xyz"}}, {{"abc|xyz", "<null>", kNone, VAEL_PM_MULTI_LSS}}},
        {"AnchoredString", {{'p', "^abc"}}, {{"^abc", "<null>", kNone, 0}}},
        {"UserLss", {{'l', "a.*bcd", 0, "bcd"}}, {{"bcd", "a.*bcd", kTier2, 0}}},
        {"UserLssByMetadata", {{'p', "{LSS(bc)}:a.*bcd"}}, {{"bc", "a.*bcd", kTier2, 0}}},
        // The second tier reads the user's own text; only the LSS comes
        // from the template.
        {"Bound", {{'p', "{bound}:ab+c"}}, {{"bc", "ab+c", kTier2, VAEL_PM_BOUND | VAEL_PM_BOUNDED_LEFT}}},
        // "^(abc)$" is the anchored string: the LSS proves it.
        {"BoundBothAnchors", {{'p', "{bound}:^abc$"}}, {{"^abc$", "<null>", kNone, VAEL_PM_BOUND}}},
        {"CaseCheckedString",
         {{'s', "abc", VAEL_PM_CASELESS}, {'s', "def"}},
         {{"abc", "<null>", kNone, VAEL_PM_CASELESS}, {"def", "def", kTier2, 0}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vael_pm_patterns *list = make_list(c.recs);
        vael_pm_error err;
        LogCapture quiet;
        vael_pm_handle *pm = vael_pm_compile(list, nullptr, 0, &err, "regex compile test");
        ASSERT_NE(pm, nullptr) << (err.error_string ? err.error_string : "");
        ASSERT_EQ(pm->num_tier2, c.want.size());
        uint32_t compiled = 0;
        for (uint32_t i = 0; i < pm->num_tier2; i++) {
            const vael_pm_array_one_handle &e = pm->pm_array[i];
            const auto &[lss, re, row, bits] = c.want[i];
            EXPECT_EQ(bytes(e.lss_str, e.lss_size), lss);
            EXPECT_EQ(bytes(e.re_str, e.re_size), re);
            EXPECT_EQ(e.tier2_type, row);
            EXPECT_EQ(e.tier2_h != nullptr, row != kNone);
            EXPECT_EQ(e.flags & bits, bits);
            compiled += row != kNone;
        }
        EXPECT_EQ(pm->stats.num_tier2_compiled, compiled);
        vael_pm_destroy(pm);
        vael_pm_patterns_destroy(list);
    }
}

TEST(RegexCompile, BoundedTemplatesWrapTheText) {
    const struct {
        const char *text;
        const char *want;
        bool left;
    } cases[] = {
        {"abc", "^(abc)|.*\\W(abc)", true}, {"^abc", "^(abc)", false}, {"abc$", "^(abc)|.*\\W(abc)$", true},
        {"^abc$", "^(abc)$", false},
        {"a\\$", "^(a\\)|.*\\W(a\\)$", true},  // a plain byte test: an escaped '$' counts
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        vael_pm_one_pattern *p = vael_pm_patterns_one_pattern_create(
            nullptr, 0, reinterpret_cast<const unsigned char *>(c.text), (uint32_t)strlen(c.text), 1, 0, 0, 0);
        ASSERT_EQ(vael_pm_create_bounded_patt(p), 0);
        EXPECT_EQ(bytes(p->re->pattern, p->re->size), c.want);
        EXPECT_EQ((p->flags & VAEL_PM_BOUNDED_LEFT) != 0, c.left);
        vael_pm_patterns_one_pattern_destroy(p);
    }
}

// A set with every kind of record: regexes with found and given LSS, a
// multi-LSS alternation, a bound pattern and a case-checked string.
std::vector<Rec> mixed_set() {
    return {{'p', "abc[0-9]+de"},       {'p', "GET /[a-z]+\\.php"}, {'p', "x(yz|wv)q"},
            {'l', "a.*bcd", 0, "bcd"},  {'p', "{bound}:ab+c"},     {'s', "Hello", VAEL_PM_CASELESS},
            {'s', "world"}};
}
const char kMixedText[] = "abc12de GET /index.php xwvq z abbc hello world";
const vael_pm_test::Hits kMixedWant = {{1, 6}, {2, 21}, {3, 26}, {5, 33}, {6, 39}, {7, 45}};  // sorted

// The mixed set compiles through every allocation failure, and the compile
// that succeeds runs end to end.
TEST(RegexCompile, FailsCleanlyAtEveryAllocation) {
    vael_pm_patterns *list = make_list(mixed_set());
    LogCapture quiet;
    vael_pm_error err;
    vael_pm_handle *pm = nullptr;
    auto attempt = [&] { return (pm = vael_pm_compile(list, collect, 0, &err, "walk")) != nullptr; };
    // Some deep failures leave no message (a first tier's translation
    // table); the user's id is there whenever a pattern was at fault.
    auto clean = [&] { return !pm && err.pattern_id >= -1 && err.pattern_id <= 7; };
    auto w = vael_test::failmem_walk_each_allocation(attempt, clean);
    EXPECT_TRUE(w.succeeded);
    EXPECT_GT(w.rounds, 20);
    EXPECT_EQ(vael_pm_test::run(pm, kMixedText, 0), kMixedWant);
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(list);
}

int other_collect(vael_pm_handle *pm, int32_t id, void *arg, const unsigned char *buf, uint32_t len, uint32_t offset,
                  vael_vbuf *vbuf, int *keep_going) {
    return collect(pm, id, arg, buf, len, offset, vbuf, keep_going);
}

struct Answer {
    int result;
    int keep_going;
    int calls = 0;
};

int answer(vael_pm_handle *, int32_t, void *arg, const unsigned char *, uint32_t, uint32_t, vael_vbuf *,
           int *keep_going) {
    auto *a = static_cast<Answer *>(arg);
    a->calls++;
    *keep_going = a->keep_going;
    return a->result;
}

// A match ends the run alike from the first tier (strings) and from the
// second (a regex): the callback's value comes back unchanged, and
// keep_going 0 ends the run with 0.
TEST(RegexRun, CallbackEndsTheRunFromEitherTier) {
    const struct {
        int result, keep_going;
        int want_rc;
        bool all;  // every match is told
    } rows[] = {{0, 1, 0, true}, {7, 1, 7, false}, {-5, 1, -5, false}, {0, 0, 0, false}};
    const struct {
        std::vector<Rec> recs;
        const char *text;  // three matches
    } sets[] = {{{{'s', "ab"}, {'s', "cd"}}, "ab cd ab"}, {{{'p', "a[0-9]+b"}}, "a1b a22b a333b"}};
    LogCapture quiet;
    for (const auto &set : sets) {
        vael_pm_patterns *list = make_list(set.recs);
        vael_pm_error err;
        vael_pm_handle *pm = vael_pm_compile(list, answer, 0, &err, "regex run test");
        ASSERT_NE(pm, nullptr);
        for (const auto &r : rows) {
            Answer a{r.result, r.keep_going};
            EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(set.text),
                                      (uint32_t)strlen(set.text), nullptr, nullptr, &a, VAEL_PM_EXEC_ALL_MATCHES),
                      r.want_rc)
                << set.text;
            EXPECT_EQ(a.calls, r.all ? 3 : 1) << set.text;
        }
        vael_pm_destroy(pm);
        vael_pm_patterns_destroy(list);
    }
}

// An update gives what a fresh compile of the new list gives, keeps the old
// PM's callback, and leaves the old PM working.
TEST(RegexUpdate, EqualsAFreshCompile) {
    LogCapture quiet;
    vael_pm_patterns *old_list = make_list(mixed_set());
    vael_pm_error err;
    vael_pm_handle *old_pm = vael_pm_compile(old_list, other_collect, 0, &err, "old");
    ASSERT_NE(old_pm, nullptr);
    const struct {
        const char *name;
        std::vector<Rec> recs;
        uint32_t flags;
    } cases[] = {
        {"Unchanged", mixed_set(), 0},
        {"OnePatternChanged", {{'p', "abc[0-9]+de"}, {'p', "GET /[a-z]+\\.php"}, {'p', "x(yz|wv)qq?"}}, 0},
        {"CompileFlagsChanged", mixed_set(), VAEL_PM_CASELESS},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vael_pm_patterns *list = make_list(c.recs);
        vael_pm_handle *fresh = vael_pm_compile(list, collect, c.flags, &err, "fresh");
        vael_pm_handle *updated = vael_pm_update(old_pm, list, c.flags, &err, "updated");
        ASSERT_NE(fresh, nullptr);
        ASSERT_NE(updated, nullptr);
        EXPECT_EQ(updated->match_cb[0], other_collect);
        EXPECT_EQ(updated->num_tier2, fresh->num_tier2);
        EXPECT_EQ(updated->stats.num_tier2_compiled, fresh->stats.num_tier2_compiled);
        for (uint32_t flags : {0u, (uint32_t)VAEL_PM_EXEC_ALL_MATCHES}) {
            const char *text = "ABC12DE abc12de GET /index.php xwvq xwvqq z abbc Hello world WORLD";
            EXPECT_EQ(vael_pm_test::run(updated, text, flags), vael_pm_test::run(fresh, text, flags));
        }
        vael_pm_destroy(updated);
        vael_pm_destroy(fresh);
        vael_pm_patterns_destroy(list);
    }
    EXPECT_EQ(vael_pm_test::run(old_pm, kMixedText, 0), kMixedWant);
    EXPECT_EQ(vael_pm_update(nullptr, old_list, 0, &err, "x"), nullptr);
    EXPECT_EQ(vael_pm_update(old_pm, nullptr, 0, &err, "x"), nullptr);

    vael_pm_handle *pm = nullptr;
    auto w = vael_test::failmem_walk_each_allocation(
        [&] { return (pm = vael_pm_update(old_pm, old_list, 0, &err, "walk")) != nullptr; }, [&] { return !pm; });
    EXPECT_TRUE(w.succeeded);
    EXPECT_EQ(vael_pm_test::run(pm, kMixedText, 0), kMixedWant);
    vael_pm_destroy(pm);
    vael_pm_destroy(old_pm);
    vael_pm_patterns_destroy(old_list);
}

}  // namespace
