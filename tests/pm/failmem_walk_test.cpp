// Every allocation failure of a compile, a pattern list and an add, one at a
// time: each failed round must fail as the interface says and leave both
// byte accounts where they were; the round after the last site succeeds and
// its result must work.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "runtime/vael_runtime.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::failmem_walk;
using vael_test::Pattern;

// Deterministic strings with few shared prefixes, so the trie is large.
std::vector<Pattern> many_patterns(int count, int len) {
    std::vector<Pattern> out;
    uint32_t x = 2463534242u;
    for (int i = 0; i < count; i++) {
        std::string s;
        for (int j = 0; j < len; j++) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            s += (char)('a' + x % 26);
        }
        out.push_back(Pattern{s, i, 0});
    }
    return out;
}

vael_pmglob_patterns *make_string_list(const std::vector<Pattern> &patterns) {
    vael_pmglob_patterns *list = vael_pmglob_patterns_create();
    for (const auto &p : patterns) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(p.text.data()),
                                                          (uint32_t)p.text.size(), p.id, p.flags);
        EXPECT_EQ(vael_pmglob_patterns_add(list, s), 0);
        vael_pmglob_string_destroy(s);
    }
    return list;
}

// The ids the NFA reports over `text`, deduplicated.
std::set<int32_t> nfa_ids(vael_thin_nfa *nfa, const std::string &text) {
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_thin_nfa_exec(nfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                 nullptr, 0, &queue, VAEL_PM_EXEC_ALL_MATCHES, nullptr),
              0);
    std::set<int32_t> ids;
    while (lst_nelements(queue) > 0) {
        auto *d = reinterpret_cast<vael_pmglob_match_data *>(vael_dequeue(queue));
        ids.insert(d->id);
        vael_pmglob_match_data_free(d);
    }
    lst_destroy(queue);
    return ids;
}

std::string concat(const std::vector<Pattern> &patterns, const char *sep) {
    std::string text;
    for (const auto &p : patterns)
        text += p.text + sep;
    return text;
}

// Each operation is walked both ways: once per site, and once per allocation.
enum class Walker { kSites, kEachAllocation };

const char *walker_name(Walker w) { return w == Walker::kSites ? "sites" : "each_allocation"; }

template <class Attempt, class FailedCleanly>
vael_test::FailmemWalk run_walk(Walker w, Attempt &&attempt, FailedCleanly &&failed_cleanly) {
    if (w == Walker::kSites)
        return failmem_walk(attempt, failed_cleanly);
    return vael_test::failmem_walk_each_allocation(attempt, failed_cleanly);
}

// ---------------------------------------------------------------- Thin NFA compile

struct ThinNfaWalkCase {
    const char *name;
    std::vector<Pattern> patterns;
    uint32_t compile_flags;
    std::string text;          // data the compiled NFA is run over
    uint32_t min_states;       // the trie must be at least this large
};

void PrintTo(const ThinNfaWalkCase &c, std::ostream *os) { *os << c.name; }

class ThinNfaCompileWalk : public ::testing::TestWithParam<ThinNfaWalkCase> {};

// Texts the compile may give the caller; a failed translation table gives none.
const std::set<std::string> kThinNfaErrors = {
    "Failed to allocate compilation information", "Failed to allocate state", "Failed to save pattern information",
    "Failed to copy pattern IDs", "Failed to allocate offset list", "Failed to allocate BNFA",
    "Failed to allocate prefilter",
};

TEST_P(ThinNfaCompileWalk, EveryAllocationFailureIsClean) {
    const ThinNfaWalkCase &c = GetParam();
    vael_pmglob_patterns *list = make_string_list(c.patterns);
    std::set<int32_t> want;
    for (const auto &p : c.patterns)
        want.insert(p.id);
    for (Walker walker : {Walker::kSites, Walker::kEachAllocation}) {
        SCOPED_TRACE(walker_name(walker));
        vael_pm_error err;
        vael_thin_nfa *nfa = nullptr;
        int textless = 0;
        vael_test::ScopedTopic topic("K_THINNFA", VAEL_DBG_ERR);
        vael_test::LogCapture log;
        auto walk = run_walk(
            walker,
            [&] {
                vael_pm_error_init(&err);
                nfa = vael_thin_nfa_compile(list, c.compile_flags, &err);
                return nfa != nullptr;
            },
            [&] {
                if (!err.error_string) {
                    textless++;
                    return err.error_type == VAEL_PM_ERROR_INTERNAL;
                }
                return err.error_type == VAEL_PM_ERROR_INTERNAL && kThinNfaErrors.count(err.error_string) == 1;
            });
        ASSERT_NE(nfa, nullptr);
        RecordProperty(std::string("rounds_") + walker_name(walker), walk.rounds);
        EXPECT_GT(walk.rounds, 1);
        // Each failed round stopped at its one injected failure.
        EXPECT_EQ(walk.injected, walk.rounds - 1);
        // Only the translation table fails without words for the caller.
        EXPECT_EQ(textless, (c.compile_flags & (VAEL_PM_CASELESS | VAEL_PM_DIGITLESS)) ? 1 : 0);
        if (c.min_states > 1000 && walker == Walker::kEachAllocation) {
            EXPECT_NE(log.text().find("for state 1000\n"), std::string::npos) << "the second block never failed";
        }
        EXPECT_GE(nfa->state_num, c.min_states);
        EXPECT_EQ(nfa_ids(nfa, c.text), want);
        vael_thin_nfa_destroy(nfa);
    }
    vael_pmglob_patterns_destroy(list);
}

std::vector<ThinNfaWalkCase> thin_nfa_walk_cases() {
    std::vector<Pattern> large = many_patterns(200, 12);
    return {
        {"Plain", {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}}, 0, "ushers his", 9},
        {"Caseless", {{"Foo", 1}, {"bAr", 2}}, VAEL_PM_CASELESS, "FOO bar", 7},
        {"Digitless", {{"a1b", 1}, {"x99", 2}}, VAEL_PM_DIGITLESS, "a7b x00", 7},
        {"CaselessDigitless", {{"Ab1", 1}, {"ab2c", 2}}, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS, "aB9C", 5},
        // More states than one block holds: the block site is called twice.
        {"TwoStateBlocks", large, 0, concat(large, " "), 1001},
        {"TwoStateBlocksCaseless", large, VAEL_PM_CASELESS, concat(large, "|"), 1001},
    };
}

INSTANTIATE_TEST_SUITE_P(Sets, ThinNfaCompileWalk, ::testing::ValuesIn(thin_nfa_walk_cases()),
                         [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- PM compile

vael_pm_patterns *make_pm_patterns(const std::vector<Pattern> &patterns) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &p : patterns)
        EXPECT_EQ(vael_pm_patterns_add_simple_pattern(list, p.text.data(), (uint32_t)p.text.size(), p.id, p.flags), 0);
    return list;
}

int collect_id(vael_pm_handle *, int32_t pattern_id, void *user_arg, const unsigned char *, uint32_t, uint32_t,
               vael_vbuf *, int *) {
    static_cast<std::set<int32_t> *>(user_arg)->insert(pattern_id);
    return 0;
}

struct PmWalkCase {
    const char *name;
    std::vector<Pattern> patterns;
    std::string text;
    uint32_t compile_flags = 0;
};

void PrintTo(const PmWalkCase &c, std::ostream *os) { *os << c.name; }

class PmCompileWalk : public ::testing::TestWithParam<PmWalkCase> {};

TEST_P(PmCompileWalk, EveryAllocationFailureIsClean) {
    const PmWalkCase &c = GetParam();
    vael_pm_patterns *patterns = make_pm_patterns(c.patterns);
    std::set<int32_t> want;
    for (const auto &p : c.patterns)
        want.insert(p.id);
    for (Walker walker : {Walker::kSites, Walker::kEachAllocation}) {
        SCOPED_TRACE(walker_name(walker));
        vael_pm_error err;
        vael_pm_handle *pm = nullptr;
        vael_test::LogCapture quiet;
        auto walk = run_walk(
            walker,
            [&] {
                pm = vael_pm_compile(patterns, collect_id, c.compile_flags, &err, "failmem-walk");
                return pm != nullptr;
            },
            // Out of memory is internal, whether or not a text was set.
            [&] { return pm == nullptr && err.error_type == VAEL_PM_ERROR_INTERNAL; });
        ASSERT_NE(pm, nullptr);
        RecordProperty(std::string("rounds_") + walker_name(walker), walk.rounds);
        EXPECT_GT(walk.rounds, 1);
        EXPECT_EQ(walk.injected, walk.rounds - 1);

        std::set<int32_t> got;
        EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(c.text.data()),
                                  (uint32_t)c.text.size(), nullptr, nullptr, &got, 0),
                  0);
        EXPECT_EQ(got, want);
        vael_pm_destroy(pm);
    }
    vael_pm_patterns_destroy(patterns);
}

std::vector<PmWalkCase> pm_walk_cases() {
    std::vector<Pattern> many = many_patterns(120, 10);
    return {
        {"OnePattern", {{"/etc/passwd", 7}}, "GET /etc/passwd"},
        {"Plain", {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}}, "ushers his"},
        {"MixedCaseless", {{"Select", 1, VAEL_PM_CASELESS}, {"union", 2}}, "SELECT x UNION", VAEL_PM_CASELESS},
        {"Digitless", {{"id=1", 1}, {"q", 2}}, "id=5 q", VAEL_PM_DIGITLESS},
        {"TwoStateBlocks", many, concat(many, " ")},
    };
}

INSTANTIATE_TEST_SUITE_P(Sets, PmCompileWalk, ::testing::ValuesIn(pm_walk_cases()),
                         [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- pattern lists

TEST(PatternListWalk, CreateFailsToNull) {
    vael_pm_patterns *list = nullptr;
    vael_test::LogCapture quiet;
    auto walk = failmem_walk(
        [&] {
            list = vael_pm_patterns_create();
            return list != nullptr;
        },
        [&] { return list == nullptr; });
    ASSERT_NE(list, nullptr);
    RecordProperty("rounds", walk.rounds);
    EXPECT_GT(walk.rounds, 1);
    EXPECT_EQ(lst_nelements(list), 0);
    vael_pm_patterns_destroy(list);
}

// The values of a list, in order: a failed add must leave exactly these.
TEST(PatternListWalk, FailedAddLeavesTheListAsItWas) {
    vael_pm_patterns *list = make_pm_patterns({{"alpha", 1}, {"beta", 2}});
    ASSERT_NE(list, nullptr);
    const std::vector<uintptr_t> before = vael_test::list_values(list);
    int rc = 0;
    vael_test::LogCapture quiet;
    auto walk = failmem_walk(
        [&] {
            rc = vael_pm_patterns_add_simple_pattern(list, "gamma", 5, 3, VAEL_PM_CASELESS);
            return rc == VAEL_OK;
        },
        [&] { return rc == VAEL_ERROR && vael_test::list_values(list) == before; });
    RecordProperty("rounds", walk.rounds);
    EXPECT_GT(walk.rounds, 1);
    EXPECT_EQ(walk.injected, walk.rounds - 1);

    // The successful add is the third record, and the list compiles.
    ASSERT_EQ(lst_nelements(list), 3);
    std::vector<uintptr_t> after = vael_test::list_values(list);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
    auto *added = reinterpret_cast<vael_pm_one_pattern *>(after.back());
    EXPECT_EQ(added->id, 3);
    EXPECT_EQ(added->flags, VAEL_PM_CASELESS);
    ASSERT_NE(added->lss, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(added->lss->pattern), added->lss->size), "gamma");

    vael_pm_error err;
    std::set<int32_t> got;
    vael_pm_handle *pm = vael_pm_compile(list, collect_id, VAEL_PM_CASELESS, &err, "failmem-walk");
    ASSERT_NE(pm, nullptr);
    const std::string text = "alpha beta GAMMA";
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr,
                              nullptr, &got, 0),
              0);
    EXPECT_EQ(got, (std::set<int32_t>{1, 2, 3}));
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(list);
}

// A site called in a loop fails once per site walk, but at every call in the
// walk of each allocation.
TEST(FailmemWalkHelper, EachAllocationReachesLaterCallsOfASite) {
    int calls = 0;
    auto build = [&] {
        void *blocks[3] = {};
        for (int i = 0; i < 3; i++) {
            calls++;
            blocks[i] = VAEL_KMALLOC(8);
            if (!blocks[i]) {
                for (int j = 0; j < i; j++)
                    VAEL_KFREE(blocks[j], 8);
                return false;
            }
        }
        for (void *b : blocks)
            VAEL_KFREE(b, 8);
        return true;
    };
    auto sites = failmem_walk(build, [] { return true; });
    EXPECT_EQ(sites.rounds, 2);
    EXPECT_EQ(sites.injected, 1);
    EXPECT_EQ(calls, 1 + 3);

    calls = 0;
    const int pct = global_pct;
    auto each = vael_test::failmem_walk_each_allocation(build, [] { return true; });
    EXPECT_EQ(each.rounds, 4);
    EXPECT_EQ(each.injected, 3);
    EXPECT_EQ(calls, 1 + 2 + 3 + 3);
    EXPECT_EQ(global_pct, pct) << "the first method is put back";
    EXPECT_TRUE(build());
}

bool allocate_ok() {
    void *p = VAEL_KMALLOC(4);
    VAEL_KFREE(p, 4);
    return p != nullptr;
}

// The walk itself: a fault of the operation's own must stop it, not loop.
TEST(FailmemWalkHelper, StopsAtAFailureWithoutInjection) {
    int calls = 0;
    int rounds = 0;
    std::vector<std::string> messages;
    {
        ::testing::TestPartResultArray results;
        ::testing::ScopedFakeTestPartResultReporter reporter(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        rounds = failmem_walk(
                     [&] {
                         calls++;
                         return false;
                     },
                     [] { return true; })
                     .rounds;
        for (int i = 0; i < results.size(); i++)
            messages.push_back(results.GetTestPartResult(i).message());
    }
    EXPECT_EQ(rounds, 1);
    EXPECT_EQ(calls, 1);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("round 1 failed with no allocation failed by injection"), std::string::npos)
        << messages[0];
    EXPECT_TRUE(allocate_ok()) << "injection is off after the walk";
}

// And a leak on a failure road is seen in the round that leaks.
TEST(FailmemWalkHelper, ReportsALeakingFailureRoad) {
    void *kept = nullptr;
    std::vector<std::string> messages;
    {
        ::testing::TestPartResultArray results;
        ::testing::ScopedFakeTestPartResultReporter reporter(
            ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        failmem_walk(
            [&] {
                void *a = VAEL_KMALLOC(16);
                if (!a)
                    return false;
                void *b = VAEL_KMALLOC(32);
                if (!b) {
                    kept = a;  // this failure road forgets the first block
                    return false;
                }
                VAEL_KFREE(a, 16);
                VAEL_KFREE(b, 32);
                return true;
            },
            [] { return true; });
        for (int i = 0; i < results.size(); i++)
            messages.push_back(results.GetTestPartResult(i).message());
    }
    ASSERT_NE(kept, nullptr);
    VAEL_KFREE(kept, 16);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("general account after failed round 2"), std::string::npos) << messages[0];
    EXPECT_NE(messages[1].find("no successful round in 2"), std::string::npos) << messages[1];
}

}  // namespace
