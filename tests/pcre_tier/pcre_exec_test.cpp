// The PCRE tier's run: what reaches the run context, with which offsets and starts; pcre_dfa_exec against pcre_exec
// over random patterns and texts; long inputs and PCRE's own limits.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/pcre_tier/pcre_test_util.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_pcre_test::compile;
using vael_pcre_test::Match;
using vael_pcre_test::run;

const uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;
const uint32_t kStart = VAEL_PM_EXEC_MATCH_START;

// One table, run under both matchers: they agree on every row. What anchors and repeats match is for the
// differential tests; these rows are the run's own arguments and answers.
TEST(PcreExec, Delivery) {
    struct RunRow {
        const char *pattern; std::string text; uint32_t exec_flags, start; int stop_after, fail_at, result;
        std::vector<Match> want;
    };
    const std::vector<RunRow> rows = {
        {"a", "aaa", kAll | kStart, 0, 0, 0, 0, {{0, 0}, {1, 1}, {2, 2}}},
        {"a", "aaa", kStart, 0, 0, 0, 0, {{0, 0}}},                  // first match only
        {"a", "aaa", kAll, 0, 0, 0, 0, {{0, 0}, {1, 0}, {2, 0}}},    // no start asked: 0
        {"a", "aaa", kAll | kStart, 2, 0, 0, 0, {{2, 2}}},           // from the start offset
        {"a", "aaa", kAll, 3, 0, 0, 0, {}},                          // start at the end
        {"a", "aaa", kAll, 7, 0, 0, 0, {}},
        {"x*", "abc", kAll, 0, 0, 0, 0, {}},                         // an empty match is not told
        {"b+", "abbcb", kAll | kStart, 0, 0, 0, 0, {{1, 1}, {2, 2}, {4, 4}}},
        {"a", "aaa", kAll, 0, 2, 0, 0, {{0, 0}, {1, 0}}},            // keep_going 0 ends the run
        {"a", "aaa", kAll, 0, 0, 2, -1, {{0, 0}, {1, 0}}},           // a failing function: -1
        {"a", "", kAll, 0, 0, 0, 0, {}},
        {"a.c", std::string("a\0c", 3), kStart, 0, 0, 0, 0, {{2, 0}}}, // NUL in the data
    };
    for (int dfa : {1, 0}) {
        vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, dfa);
        for (const RunRow &r : rows) {
            auto h = compile(r.pattern);
            ASSERT_TRUE(h) << r.pattern;
            auto got = run(h.get(), r.text, r.exec_flags, r.start, r.stop_after, r.fail_at);
            EXPECT_EQ(got.result, r.result) << r.pattern << " over '" << r.text << "' dfa " << dfa;
            EXPECT_EQ(got.matches, r.want) << r.pattern << " over '" << r.text << "' dfa " << dfa;
        }
    }
}

// Random patterns over a small alphabet, so that matches are frequent.
std::string random_pattern(std::mt19937 &rng, int depth = 0) {
    auto pick = [&](int n) { return (int)(rng() % (unsigned)n); };
    std::string out;
    const int items = 1 + pick(4);
    for (int i = 0; i < items; i++) {
        std::string atom;
        switch (pick(depth < 2 ? 9 : 7)) {
        case 0: case 1: case 2: atom = std::string(1, "abc"[pick(3)]); break;
        case 3: atom = "."; break;
        case 4: atom = pick(2) ? "[ab]" : "[^a]"; break;
        case 5: atom = pick(2) ? "\\n" : "[a-c]"; break;
        case 6: atom = std::string(1, "abc"[pick(3)]) + "|" + std::string(1, "abc"[pick(3)]); atom = "(?:" + atom + ")"; break;
        default: atom = "(?:" + random_pattern(rng, depth + 1) + (pick(2) ? "|" + random_pattern(rng, depth + 1) : "") + ")";
        }
        static const char *const kQuant[] = {"", "", "", "*", "+", "?", "{1,2}", "{2}", "*?", "+?", "{0,3}"};
        out += atom + kQuant[pick(11)];
    }
    if (pick(8) == 0)
        out = "^" + out;
    if (pick(8) == 0)
        out += "$";
    return out;
}

// Both matchers search the start positions from left to right and stop at the first that has a match: so they agree
// on whether a match exists and on where it starts, and pcre_dfa_exec's shortest match ends no later.
TEST(PcreExec, DfaAndBacktrackingAgree) {
    std::mt19937 rng(20261122);
    int pairs = 0, matched = 0;
    for (int p = 0; p < 700; p++) {
        const std::string pattern = random_pattern(rng);
        vael_pm_error err;
        auto h = compile(pattern, (uint32_t)(rng() % 2) * VAEL_PM_CASELESS, 0, &err);
        ASSERT_TRUE(h) << pattern << ": " << (err.error_string ? err.error_string : "");
        for (int t = 0; t < 5; t++, pairs++) {
            std::string text;
            const int len = (int)(rng() % 16);
            for (int i = 0; i < len; i++)
                text += "abcA\n"[rng() % 5];
            const auto *buf = reinterpret_cast<const unsigned char *>(text.data());
            int rc[2], end[2], start[2];
            for (int dfa : {1, 0}) {
                vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, dfa);
                ASSERT_EQ(vael_pcre_exec_ex(h.get(), buf, (uint32_t)text.size(), 0, &rc[dfa], &end[dfa], &start[dfa]), 0);
            }
            const bool found_dfa = rc[1] >= 0, found_exec = rc[0] >= 0;
            ASSERT_EQ(found_dfa, found_exec) << "/" << pattern << "/ over '" << text << "'";
            if (!found_dfa)
                continue;
            matched++;
            EXPECT_EQ(start[1], start[0]) << "/" << pattern << "/ over '" << text << "'";
            EXPECT_LE(end[1], end[0]) << "/" << pattern << "/ over '" << text << "'";
        }
    }
    EXPECT_EQ(pairs, 3500);
    EXPECT_GT(matched, pairs / 4); // the comparison is not one of "no match" on both sides
    EXPECT_LT(matched, pairs);
}

// A long input: the match at the very end is found by both matchers, the ovector of three asks for nothing but the
// whole match, even of a pattern with a named group, and all matches of a long run are delivered.
TEST(PcreExec, LongInputs) {
    std::string text(1 << 20, 'x');
    text.replace(text.size() - 9, 9, "needle123");
    const uint32_t at = (uint32_t)text.size() - 9;
    std::string many;
    for (int i = 0; i < 300; i++)
        many += std::string(997, 'y') + "abc";
    for (int dfa : {1, 0}) {
        vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, dfa);
        auto h = compile("needle[0-9]+");
        ASSERT_TRUE(h);
        auto got = run(h.get(), text, kStart);
        EXPECT_EQ(got.matches, (std::vector<Match>{{at + 6, at}})) << "dfa " << dfa;
        auto named = compile("(?<word>needle)1(2)");
        ASSERT_TRUE(named);
        got = run(named.get(), text, kStart);
        EXPECT_EQ(got.matches, (std::vector<Match>{{at + 7, at}})) << "dfa " << dfa;
        auto abc = compile("abc");
        got = run(abc.get(), many, kAll | kStart);
        ASSERT_EQ(got.matches.size(), 300u) << "dfa " << dfa;
        EXPECT_EQ(got.matches[299], (Match{300 * 1000 - 1, 300 * 1000 - 3}));
    }
}

// PCRE's run-time errors are no failures: the run gives 0 and delivers nothing, and the log names the error.
// pcre_dfa_exec's workspace of 128000 ints overflows on deeply nested counted repeats; pcre_exec meets its built-in
// match limit on nested unlimited repeats.
TEST(PcreExec, LimitsCountAsNoMatch) {
    vael_test::ScopedTopic topic("K_PCRE", VAEL_DBG_NOTICE);
    struct Row { int dfa; const char *pattern; std::string text; int error; };
    const Row rows[] = {
        {1, "(?:a{0,200}){0,200}b", std::string(1500, 'a') + "c", PCRE_ERROR_DFA_WSSIZE},
        {0, "(?:a*)*b", std::string(3000, 'a'), PCRE_ERROR_MATCHLIMIT},
    };
    for (const Row &r : rows) {
        vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, r.dfa);
        auto h = compile(r.pattern);
        ASSERT_TRUE(h) << r.pattern;
        vael_test::LogCapture log;
        auto got = run(h.get(), r.text, kAll);
        EXPECT_EQ(got.result, 0) << r.pattern;
        EXPECT_TRUE(got.matches.empty()) << r.pattern;
        EXPECT_TRUE(log.contains("vael_pcre_exec_ex: pcre_exec returned error of type " + std::to_string(r.error)))
            << log.text();
        // The limit words of extra are off again after the run.
        EXPECT_EQ(h->extra->flags & (PCRE_EXTRA_MATCH_LIMIT | PCRE_EXTRA_MATCH_LIMIT_RECURSION), 0u);
    }
    // The match limit parameter is placed after each call and taken off before the next: no run is bound by it.
    vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, 0);
    vael_test::ScopedGlobal limit(vael_pm_pcre_match_limit, 1);
    auto h = compile("a.*b");
    ASSERT_TRUE(h);
    EXPECT_EQ(run(h.get(), "axxxxxxxxxxb axb", kAll).matches.size(), 2u);
}

}  // namespace
