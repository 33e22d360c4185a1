// Regular expressions through the PM against PCRE run per pattern over the same data: which patterns match, where
// their matches end and start, in first-only and report-all runs; a virtual-buffer split gives what the flat run
// gives; a mask silences exactly its patterns. Every allocation failure of a Thin NFA, a PM and a regex compile, one
// at a time, with the byte accounts back where they were; a callback ends a run from either tier; an update.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <pcre.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "runtime/vael_runtime.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::LogCapture;
using vael_test::SplitText;
using vael_pm_test::collect;
using vael_pm_test::make_list;
using vael_pm_test::Rec;
using vael_test::Pattern;

struct Match {
    int32_t id;
    uint32_t start, end;
    bool operator<(const Match &o) const { return std::tie(id, end, start) < std::tie(o.id, o.end, o.start); }
    bool operator==(const Match &o) const { return id == o.id && start == o.start && end == o.end; }
};

void PrintTo(const Match &m, std::ostream *os) { *os << "{id " << m.id << ", " << m.start << "-" << m.end << "}"; }

struct Rx { std::string text; bool caseless; };

constexpr int32_t kIdBase = 100;
const std::string kAlphabet = "abcdzABZ01";

// literal, a repeated class or dot, maybe a second literal; sometimes anchored at the start or end.
Rx random_regex(std::mt19937 &rng) {
    static const char *kRepeats[] = {"[a-c]+", "d*", ".*", "[^a]+", "\\d+", "(ab|c)+", "[0-9a]*", ".+"};
    static const char *kFixed[] = {"", ".", "[bd]", "(a|cd)", "b?"};
    std::string s;
    if (rng() % 6 == 0)
        s += '^';
    s += vael_test::random_word(rng, "abcdz01", 2, 3);
    s += kFixed[rng() % 5];
    s += kRepeats[rng() % 8];
    if (rng() % 2)
        s += vael_test::random_word(rng, "abcdz01", 1, 2);
    if (rng() % 8 == 0)
        s += '$';
    return Rx{s, rng() % 4 == 0};
}

// PCRE alone over the whole text, with the options of the second tier.
std::vector<Match> reference(const std::vector<Rx> &set, const std::string &text, bool all,
                             const std::vector<bool> &exact) {
    std::vector<Match> out;
    std::vector<int> workspace(4096);
    for (size_t i = 0; i < set.size(); i++) {
        const char *msg;
        int at;
        int options = PCRE_UNGREEDY | PCRE_NO_AUTO_CAPTURE | PCRE_DOTALL | (set[i].caseless ? PCRE_CASELESS : 0);
        pcre *re = pcre_compile(set[i].text.c_str(), options, &msg, &at, nullptr);
        EXPECT_NE(re, nullptr) << set[i].text;
        if (!re)
            continue;
        for (int from = 0; all && exact[i] && from < (int)text.size(); from++) {
            int ov[3];
            if (pcre_dfa_exec(re, nullptr, text.data(), (int)text.size(), from, PCRE_DFA_SHORTEST | PCRE_ANCHORED, ov,
                              3, workspace.data(), (int)workspace.size()) >= 0)
                out.push_back(Match{kIdBase + (int32_t)i, (uint32_t)ov[0], (uint32_t)ov[1] - 1});
        }
        int from = 0;
        while (!(all && exact[i]) && from < (int)text.size()) {
            int ov[3];
            int rc = pcre_dfa_exec(re, nullptr, text.data(), (int)text.size(), from, PCRE_DFA_SHORTEST, ov, 3,
                                   workspace.data(), (int)workspace.size());
            if (rc < 0 || ov[1] <= from)
                break;
            out.push_back(Match{kIdBase + (int32_t)i, (uint32_t)ov[0], (uint32_t)ov[1] - 1});
            if (!all)
                break;
            from = ov[1];
        }
        pcre_free(re);
    }
    std::sort(out.begin(), out.end());
    return out;
}

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *, uint32_t *extra) {
    static_cast<std::vector<Match> *>(arg)->push_back(Match{id, extra[1], offset});
    return 0;
}

class RegexPm {
  public:
    explicit RegexPm(const std::vector<Rx> &set) {
        vael_pm_patterns *list = vael_pm_patterns_create();
        for (size_t i = 0; i < set.size(); i++) {
            std::string text = (set[i].caseless ? "{caseless}:" : "") + set[i].text;
            EXPECT_EQ(vael_pm_patterns_add_pattern(list, text.data(), (uint32_t)text.size(), kIdBase + (int32_t)i, 0),
                      0);
        }
        LogCapture quiet;
        pm_ = vael_pm_compile(list, nullptr, 0, &err_, "regex diff test");
        vael_pm_patterns_destroy(list);
        if (pm_)
            vael_pm_set_extended_match_cb(pm_, collect);
    }
    ~RegexPm() { vael_pm_destroy(pm_); }
    vael_pm_handle *get() const { return pm_; }
    const vael_pm_error &error() const { return err_; }
    std::vector<bool> exact() const {
        std::vector<bool> out;
        for (uint32_t i = 0; i < pm_->num_tier2; i++)
            out.push_back(pm_->pm_array[i].tier2_h == nullptr);
        return out;
    }

    // The text with its first `cuts` bytes as history blocks, cut at the
    // given places, and the rest as the present buffer.
    std::vector<Match> run(const std::string &text, uint32_t flags, std::vector<size_t> cuts = {},
                           vael_pm_mask *mask = nullptr) const {
        std::vector<Match> got;
        const SplitText split(text, cuts);
        LogCapture quiet;
        int rc = vael_pm_exec_ex(pm_, split.present(), split.present_len(), split.vbuf(), mask, &got,
                                 flags | VAEL_PM_EXEC_MATCH_START);
        // A run over no data at all is refused by the first tier.
        EXPECT_EQ(rc, text.empty() ? -1 : 0);
        std::sort(got.begin(), got.end());
        return got;
    }

  private:
    vael_pm_handle *pm_ = nullptr;
    vael_pm_error err_{};
};

TEST(RegexDifferential, PmAgreesWithPcrePerPattern) {
#if defined(__SANITIZE_ADDRESS__)
    const int rounds = 100;  // each run is several times slower under the sanitizer
#else
    const int rounds = 400;
#endif
    std::mt19937 rng(20261123);
    int compared = 0, matched = 0, exact_patterns = 0;
    for (int round = 0; round < rounds; round++) {
        std::vector<Rx> set;
        const int n = 1 + (int)(rng() % 8);
        for (int i = 0; i < n; i++)
            set.push_back(random_regex(rng));
        RegexPm pm(set);
        ASSERT_NE(pm.get(), nullptr) << set[0].text << ": " << (pm.error().error_string ? pm.error().error_string : "");
        for (bool e : pm.exact())
            exact_patterns += e;
        for (int t = 0; t < 4; t++) {
            const std::string text = vael_test::random_word(rng, kAlphabet, 0, 200);
            if (text.empty())
                continue;
            SCOPED_TRACE("round " + std::to_string(round) + " text " + text);
            for (bool all : {false, true}) {
                const std::vector<Match> want = reference(set, text, all, pm.exact());
                EXPECT_EQ(pm.run(text, all ? VAEL_PM_EXEC_ALL_MATCHES : 0), want) << "all " << all << " " << [&] { std::string s; for (auto &r : set) s += r.text + (r.caseless ? "(i) " : " "); return s; }();
                compared++;
                matched += !want.empty();
            }
        }
    }
    // The generator must reach both outcomes for the comparison to mean much.
    EXPECT_GT(matched, compared / 5);
    EXPECT_LT(matched, compared);
    EXPECT_GT(exact_patterns, 0);
}

// A virtual-buffer split gives what the flat run gives; a mask silences exactly its patterns.
TEST(RegexDifferential, SplitsAndMasksAgreeWithTheFlatRun) {
    std::mt19937 rng(77);
    for (int round = 0; round < 80; round++) {
        std::vector<Rx> set;
        for (int i = 0, n = 1 + (int)(rng() % 6); i < n; i++)
            set.push_back(random_regex(rng));
        RegexPm pm(set);
        ASSERT_NE(pm.get(), nullptr);
        vael_pm_mask *mask = vael_pm_mask_create(pm.get());
        ASSERT_NE(mask, nullptr);
        std::vector<bool> on(set.size());
        for (size_t i = 0; i < set.size(); i++)
            if ((on[i] = rng() % 2)) {
                ASSERT_EQ(vael_pm_mask_set(mask, kIdBase + (int32_t)i), 0);
            }
        const std::string text = vael_test::random_word(rng, kAlphabet, 0, 160) + "ab";
        std::vector<size_t> cuts;
        for (int c = 0, k = 1 + (int)(rng() % 3); c < k; c++)
            cuts.push_back(rng() % (text.size() + 1));
        std::sort(cuts.begin(), cuts.end());
        SCOPED_TRACE("round " + std::to_string(round) + " text " + text);
        for (uint32_t flags : {0u, (uint32_t)VAEL_PM_EXEC_ALL_MATCHES}) {
            const std::vector<Match> flat = pm.run(text, flags);
            EXPECT_EQ(pm.run(text, flags, cuts), flat) << "flags " << flags;
            std::vector<Match> want;
            for (const Match &m : flat)
                if (on[m.id - kIdBase])
                    want.push_back(m);
            EXPECT_EQ(pm.run(text, flags, {}, mask), want) << "flags " << flags;
        }
        vael_pm_mask_destroy(mask);
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

// Deterministic strings with few shared prefixes, so the trie is large.
std::vector<Pattern> many_patterns(int count, int len) {
    std::mt19937 rng(2463534242u);
    std::vector<Pattern> out;
    for (int i = 0; i < count; i++)
        out.push_back(Pattern{vael_test::random_word(rng, "abcdefghijklmnopqrstuvwxyz", len, len), i, 0});
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
