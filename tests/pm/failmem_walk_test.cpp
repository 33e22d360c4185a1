// Every allocation failure of a Thin NFA compile and a PM compile, one at a time: each failed round must fail as the
// interface says and leave both byte accounts where they were; the round after the last site succeeds and its result
// must work.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "runtime/vael_runtime.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_pm_test::collect;
using vael_test::Pattern;

// Deterministic strings with few shared prefixes, so the trie is large.
std::vector<Pattern> many_patterns(int count, int len) {
    std::vector<Pattern> out;
    uint32_t x = 2463534242u;
    for (int i = 0; i < count; i++) {
        std::string s;
        for (int j = 0; j < len; j++) {
            x ^= x << 13, x ^= x >> 17, x ^= x << 5;
            s += (char)('a' + x % 26);
        }
        out.push_back(Pattern{s, i, 0});
    }
    return out;
}

struct WalkCase {
    const char *name;
    std::vector<Pattern> patterns;
    uint32_t compile_flags;
    std::string text;  // holds every pattern
};

std::vector<WalkCase> walk_cases() {
    const std::vector<Pattern> large = many_patterns(200, 12);
    std::string all;
    for (const auto &p : large)
        all += p.text + " ";
    return {
        {"Plain", {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}}, 0, "ushers his"},
        {"Caseless", {{"Foo", 1, VAEL_PM_CASELESS}, {"bAr", 2, VAEL_PM_CASELESS}}, VAEL_PM_CASELESS, "FOO bar"},
        {"CaselessDigitless", {{"Ab1", 1, VAEL_PM_CASELESS}, {"ab2c", 2, VAEL_PM_CASELESS}},
         VAEL_PM_CASELESS | VAEL_PM_DIGITLESS, "aB9C"},
        // More states than one block holds: the block site is called twice.
        {"TwoStateBlocks", large, 0, all},
    };
}

class CompileWalk : public ::testing::TestWithParam<WalkCase> {};

// The texts the Thin NFA compile may give; a failed translation table gives none.
const std::set<std::string> kThinNfaErrors = {
    "Failed to allocate compilation information", "Failed to allocate state", "Failed to save pattern information",
    "Failed to copy pattern IDs", "Failed to allocate offset list", "Failed to allocate BNFA",
    "Failed to allocate prefilter"};

TEST_P(CompileWalk, ThinNfaAndPmFailCleanlyAtEveryAllocation) {
    const WalkCase &c = GetParam();
    std::set<int32_t> want;
    for (const auto &p : c.patterns)
        want.insert(p.id);
    vael_test::LogCapture quiet;
    vael_pmglob_patterns *strings = vael_test::string_list(c.patterns);
    // Out of memory, the only texts are the engines' own (a second tier's is PCRE's), never the frame's.
    vael_pm_error err;
    auto engine_text = [&] {
        return !err.error_string || kThinNfaErrors.count(err.error_string) ||
               std::string(err.error_string) == "failed to get memory";
    };
    vael_thin_nfa *nfa = nullptr;
    auto w = vael_test::failmem_walk_each_allocation(
        [&] {
            vael_pm_error_init(&err);
            return (nfa = vael_thin_nfa_compile(strings, c.compile_flags, &err)) != nullptr;
        },
        [&] { return err.error_type == VAEL_PM_ERROR_INTERNAL && engine_text(); });
    EXPECT_EQ(w.injected, w.rounds - 1) << "each failed round stopped at its one injected failure";
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_thin_nfa_exec(nfa, reinterpret_cast<const unsigned char *>(c.text.data()), (uint32_t)c.text.size(),
                                 nullptr, 0, &queue, 0, nullptr),
              0);
    std::set<int32_t> got;
    for (const auto &h : vael_test::drain_queue(queue))
        got.insert(h.id);
    EXPECT_EQ(got, want);
    vael_thin_nfa_destroy(nfa);
    vael_pmglob_patterns_destroy(strings);

    vael_pm_patterns *list = vael_pm_test::pattern_list(c.patterns);
    vael_pm_handle *pm = nullptr;
    auto attempt = [&] { return (pm = vael_pm_compile(list, collect, c.compile_flags, &err, "walk")) != nullptr; };
    auto clean = [&] {
        return !pm && err.error_type == VAEL_PM_ERROR_INTERNAL && engine_text() &&
               (err.pattern_id == -1 || want.count(err.pattern_id));
    };
    // The large set is here for the Thin NFA's second state block; a PM compile fails at no site of its own there
    // that the small sets miss, and failing each of its many allocations would take minutes.
    w = c.patterns.size() > 16 ? vael_test::failmem_walk(attempt, clean)
                               : vael_test::failmem_walk_each_allocation(attempt, clean);
    EXPECT_GT(w.rounds, 5);
    got.clear();
    for (const auto &hit : vael_pm_test::run(pm, c.text, 0))
        got.insert(hit.first);
    // Under digitless only the Thin NFA folds: the PM checks a string's own digits.
    if (!(c.compile_flags & VAEL_PM_DIGITLESS)) {
        EXPECT_EQ(got, want);
    }
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(list);
}

INSTANTIATE_TEST_SUITE_P(Sets, CompileWalk, ::testing::ValuesIn(walk_cases()),
                         [](const auto &info) { return std::string(info.param.name); });

// The walk itself: a site called in a loop fails once per site walk but at every call in the walk of each allocation;
// a failure without injection stops it; a leaking failure road is reported in the round that leaks.
TEST(FailmemWalkHelper, SeesWhatItShould) {
    int calls = 0;
    bool leak = false;
    void *kept = nullptr;
    auto build = [&] {
        void *blocks[3] = {};
        for (int i = 0; i < 3; i++) {
            calls++;
            if (!(blocks[i] = VAEL_KMALLOC(8))) {
                for (int j = leak ? 1 : 0; j < i; j++)
                    VAEL_KFREE(blocks[j], 8);
                kept = leak && i ? blocks[0] : nullptr;  // this road forgets the first block
                return false;
            }
        }
        for (void *b : blocks)
            VAEL_KFREE(b, 8);
        return true;
    };
    auto sites = vael_test::failmem_walk(build, [] { return true; });
    EXPECT_EQ(sites.rounds, 2);
    EXPECT_EQ(calls, 1 + 3);
    calls = 0;
    auto each = vael_test::failmem_walk_each_allocation(build, [] { return true; });
    EXPECT_EQ(each.rounds, 4);
    EXPECT_EQ(calls, 1 + 2 + 3 + 3);

    const struct {
        const char *name;
        std::function<void()> walk;
        std::vector<std::string> messages;
    } faulty[] = {
        {"no injection", [] { vael_test::failmem_walk([] { return false; }, [] { return true; }); },
         {"round 1 failed with no allocation failed by injection", "no successful round in 1"}},
        {"leak",
         [&] {
             leak = true;
             vael_test::failmem_walk_each_allocation(build, [] { return true; });
         },
         {"general account after failed round 2", "no successful round in 2"}},
    };
    for (const auto &f : faulty) {
        SCOPED_TRACE(f.name);
        ::testing::TestPartResultArray results;
        {
            ::testing::ScopedFakeTestPartResultReporter reporter(
                ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
            f.walk();
        }
        ASSERT_EQ(results.size(), (int)f.messages.size());
        for (int i = 0; i < results.size(); i++)
            EXPECT_NE(std::string(results.GetTestPartResult(i).message()).find(f.messages[i]), std::string::npos)
                << results.GetTestPartResult(i).message();
    }
    VAEL_KFREE(kept, 8);
    EXPECT_TRUE(build()) << "injection is off after a walk";
}

}  // namespace
