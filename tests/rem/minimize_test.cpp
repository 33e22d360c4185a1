// DFA minimization against the input's language and an independent Moore minimizer.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::all_strings;
using vael_test::LogCapture;

// The unminimized DFA of a pattern, as vael_rem_compile makes it before
// minimization.
vael_dfa *subset_dfa(const std::string &pattern, uint32_t flags = vael_test::kRemDotAll) {
    vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                                      (uint32_t)pattern.size(), -1, 0);
    vael_pm_error err;
    vael_pm_error_init(&err);
    LogCapture quiet;
    vael_nfa_env *env = vael_rem_pattern2nfa(s, flags, &err);
    vael_dfa *dfa = env ? vael_nfa2dfa(env, -1, &err) : nullptr;
    vael_nfa_env_destroy(env);
    vael_pmglob_string_destroy(s);
    return dfa;
}

vael_dfa_state *state(const vael_dfa *dfa, uint32_t id) { return vael_dfa_state_get_by_id(dfa, id); }

// What the machine says at the end of s: 0 not final, 1 final, 2 anchored
// final. The machine is not finalized: entries are linear ids.
int verdict(const vael_dfa *dfa, const std::string &s) {
    const vael_dfa_state *st = vael_dfa_get_initial_state(dfa);
    for (unsigned char c : s)
        st = state(dfa, st->trans[c]);
    if (!vael_dfa_state_is_final(st))
        return 0;
    return vael_dfa_state_is_anchored_final(st) ? 2 : 1;
}

// Moore's algorithm: classes by finality, refined by the classes of the 256
// targets until the number of classes stays.
uint32_t moore_count(const vael_dfa *dfa) {
    const uint32_t n = vael_dfa_get_num_of_states(dfa);
    std::vector<uint32_t> cls(n);
    for (uint32_t i = 0; i < n; i++)
        cls[i] = vael_dfa_state_is_final(state(dfa, i)) ? 1 : 0;
    uint32_t count = 0;
    for (;;) {
        std::map<std::vector<uint32_t>, uint32_t> sig;
        std::vector<uint32_t> next(n);
        for (uint32_t i = 0; i < n; i++) {
            std::vector<uint32_t> key{cls[i]};
            for (int c = 0; c < 256; c++)
                key.push_back(cls[state(dfa, i)->trans[c]]);
            next[i] = sig.emplace(key, (uint32_t)sig.size()).first->second;
        }
        if (sig.size() == count)
            return count;
        count = (uint32_t)sig.size();
        cls = next;
    }
}

void check_minimization(const std::string &pattern, uint32_t flags, const std::vector<std::string> &strings) {
    SCOPED_TRACE(pattern + " flags " + std::to_string(flags));
    vael_dfa *dfa = subset_dfa(pattern, flags);
    if (!dfa)
        return;  // too complex for the store: nothing to minimize
    const uint32_t expected = moore_count(dfa);
    LogCapture quiet;
    vael_dfa *min = vael_dfa_minimize(dfa);
    ASSERT_NE(min, nullptr);
    EXPECT_EQ(vael_dfa_get_num_of_states(min), expected);
    for (const std::string &s : strings)
        ASSERT_EQ(verdict(min, s), verdict(dfa, s)) << "over \"" << s << "\"";
    for (uint32_t id = 0; id < vael_dfa_get_num_of_states(min); id++) {
        const vael_dfa_state *st = state(min, id);
        EXPECT_EQ(vael_dfa_state_get_states_list(st), nullptr);  // correlations are cleaned
        if (vael_dfa_state_is_final(st)) {
            EXPECT_EQ(vael_dfa_pattern_id_next(vael_dfa_state_get_pattern_ids(st)), nullptr);
        }
    }
    vael_dfa_destroy(min);
    vael_dfa_destroy(dfa);
}

TEST(DfaMinimize, AcceptsWhatTheInputAcceptsWithTheFewestStates) {
    const std::vector<std::string> strings = all_strings("abc", 6);
    // The last byte value is a byte like any other: two states that differ
    // only on it stay apart.
    const std::vector<std::string> with_ff = all_strings("abc\xff", 5);
    const char *fixed[] = {"abc",       "^abc$",   "(a|b)",     "a(b|c)*c", "^(ab|a)*b$",
                           "a{0}",      "[^a]b$",  "((a|b)c)+", "a.b",      "a\\xffb",
                           "(a|\\xff)*b"};
    for (const char *p : fixed)
        for (uint32_t flags : {vael_test::kRemDotAll, 0u})
            check_minimization(p, flags, with_ff);
    std::mt19937 rng(6);
#if defined(__SANITIZE_ADDRESS__)
    const int random_patterns = 25;  // each costs ten times under ASan
#else
    const int random_patterns = 60;
#endif
    for (int i = 0; i < random_patterns; i++) {
        std::string p = vael_test::random_expression(rng, "abc");
        if (rng() % 3 == 0)
            p += "$";
        if (rng() % 3 == 0)
            p = "^" + p;
        check_minimization(p, vael_test::kRemDotAll, strings);
    }
}

// Thousands of states that stay apart: a wide machine, and a chain, which
// a pair table filled pass by pass splits one link per pass (hours at the
// state limit). The counts are known, so no reference minimizer runs.
TEST(DfaMinimize, ThousandsOfStates) {
    const std::string chain(1500, 'a');
    const struct { const char *pattern; std::vector<std::string> strings; uint32_t states; } rows[] = {
        {"(a|b)*a(a|b){10}$", all_strings("ab", 12), 2048},
        {"^a{1500}b", {chain + "b", chain.substr(1) + "b", chain + "ab", chain}, 1503},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pattern);
        vael_dfa *dfa = subset_dfa(row.pattern);
        ASSERT_NE(dfa, nullptr);
        LogCapture quiet;
        vael_dfa *min = vael_dfa_minimize(dfa);
        ASSERT_NE(min, nullptr);
        EXPECT_EQ(vael_dfa_get_num_of_states(min), row.states);
        for (const std::string &s : row.strings)
            EXPECT_EQ(verdict(min, s), verdict(dfa, s)) << s.size();
        vael_dfa_destroy(min);
        vael_dfa_destroy(dfa);
    }
}

TEST(DfaMinimize, EveryAllocationFailsCleanly) {
    vael_dfa *dfa = subset_dfa("a(b|c)*d{1,2}");
    ASSERT_NE(dfa, nullptr);
    vael_dfa *min = nullptr;
    LogCapture quiet;
    auto attempt = [&] {
        min = vael_dfa_minimize(dfa);
        return min != nullptr;
    };
    auto failed = [&] {
        // The input is the caller's still, with its lists cleaned.
        for (uint32_t id = 0; id < vael_dfa_get_num_of_states(dfa); id++)
            if (vael_dfa_state_get_states_list(state(dfa, id)))
                return false;
        return min == nullptr;
    };
    vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, failed);
    EXPECT_GT(w.rounds, 3);
    vael_dfa_destroy(min);
    vael_dfa_destroy(dfa);
}

}  // namespace
