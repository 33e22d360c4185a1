// The compile of regular expressions into a PM: how each pattern is split between the tiers, and every allocation
// failure of the compile, one at a time, with the byte accounts back where they started.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::LogCapture;

using vael_pm_test::collect;
using vael_pm_test::make_list;
using vael_pm_test::Rec;

// A set with every kind of record: regexes with found and given LSS, a
// multi-LSS alternation, a bound pattern and a case-checked string.
std::vector<Rec> mixed_set() {
    return {{'p', "abc[0-9]+de"},       {'p', "GET /[a-z]+\\.php"}, {'p', "x(yz|wv)q"},
            {'l', "a.*bcd", 0, "bcd"},  {'p', "{bound}:ab+c"},     {'s', "Hello", VAEL_PM_CASELESS},
            {'s', "world"}};
}
const char kMixedText[] = "abc12de GET /index.php xwvq z abbc hello world";
const vael_pm_test::Hits kMixedWant = {{1, 6}, {2, 21}, {3, 26}, {5, 33}, {6, 39}, {7, 45}};  // sorted

// The mixed set compiles through every allocation failure, and the compile that succeeds runs end to end.
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

struct Answer { int result; int keep_going; int calls = 0; };

int answer(vael_pm_handle *, int32_t, void *arg, const unsigned char *, uint32_t, uint32_t, vael_vbuf *,
           int *keep_going) {
    auto *a = static_cast<Answer *>(arg);
    a->calls++;
    *keep_going = a->keep_going;
    return a->result;
}

// A match ends the run alike from the first tier (strings) and from the second (a regex): the callback's value comes
// back unchanged, and keep_going 0 ends the run with 0.
TEST(RegexRun, CallbackEndsTheRunFromEitherTier) {
    // What the callback answers, what the run returns, and whether every match is told.
    const struct { int result, keep_going, want_rc; bool all; } rows[] = {
        {0, 1, 0, true}, {7, 1, 7, false}, {-5, 1, -5, false}, {0, 0, 0, false}};
    // Each text holds three matches.
    const struct { std::vector<Rec> recs; const char *text; } sets[] = {
        {{{'s', "ab"}, {'s', "cd"}}, "ab cd ab"}, {{{'p', "a[0-9]+b"}}, "a1b a22b a333b"}};
    LogCapture quiet;
    for (const auto &set : sets) {
        vael_pm_handle *pm = vael_pm_test::compile(set.recs, 1, "regex run test", 0, answer);
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
    const struct { const char *name; std::vector<Rec> recs; uint32_t flags; } cases[] = {
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
