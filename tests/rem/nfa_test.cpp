// NFA and subset construction, simulated here and held against std::regex and the DFA.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::all_strings;

constexpr uint32_t kExact = VAEL_DFA_NO_FINAL_SINK;  // judge at the end: the DFA accepts exactly L

class Nfa : public ::testing::Test {
  protected:
    // The library's start made the states hash already; a second init
    // leaves it as it is, and it stays for the REM tier after this suite.
    static void SetUpTestSuite() { ASSERT_EQ(vael_nfa_init(), 0); }
};

using Env = vael_nfa_env *;
using Builder = std::function<vael_nfa *(Env)>;

vael_nfa *chars(vael_nfa_env *env, const char *s) {
    return vael_nfa_build_chars(env, reinterpret_cast<const unsigned char *>(s), (uint32_t)strlen(s));
}

// A class of the bytes of `set`, negated on request, or the empty class.
vael_nfa *range(vael_nfa_env *env, const char *set, bool negated = false) {
    vael_pmascii_range r{};
    r.first = 255;
    r.last = 0;
    for (const char *p = set; *p; p++) {
        const uint8_t c = (uint8_t)*p;
        r.chars[c] = 1;
        r.first = std::min(r.first, c);
        r.last = std::max(r.last, c);
    }
    r.negated = negated ? 1 : 0;
    return vael_nfa_build_range(env, &r);
}

vael_nfa *any_star(vael_nfa_env *env) { return vael_nfa_build_kleene(range(env, "", true)); }

// The epsilon closure of a set of NFA states, as the test sees the graph.
std::set<vael_dfa_state *> closure(std::set<vael_dfa_state *> set) {
    std::vector<vael_dfa_state *> work(set.begin(), set.end());
    while (!work.empty()) {
        vael_dfa_state *s = work.back();
        work.pop_back();
        for (uintptr_t v : vael_test::list_values(vael_dfa_state_get_states_list(s)))
            if (set.insert(reinterpret_cast<vael_dfa_state *>(v)).second)
                work.push_back(reinterpret_cast<vael_dfa_state *>(v));
    }
    return set;
}

// Simulates the finished NFA: whether the string is in its language, and
// whether a prefix of at least one byte is (what a DFA with the absorbing
// final state accepts: its initial state is final for the empty string
// only, and a final set reached after a byte is the sink).
struct Sim { bool whole = false, prefix = false; };
Sim simulate(vael_nfa *nfa, const std::string &s) {
    vael_dfa_state *end = vael_nfa_get_end(nfa);
    std::set<vael_dfa_state *> cur = closure({vael_nfa_get_start(nfa)});
    Sim r;
    for (unsigned char c : s) {
        std::set<vael_dfa_state *> next;
        for (vael_dfa_state *st : cur)
            if (vael_dfa_state *t = vael_dfa_state_get_next_state(st, c))
                next.insert(t);
        cur = closure(next);
        r.prefix = r.prefix || cur.count(end) > 0;
    }
    r.whole = cur.count(end) > 0;
    return r;
}

bool dfa_accepts(vael_dfa *dfa, const std::string &s) {
    vael_dfa_state *st = vael_dfa_get_initial_state(dfa);
    for (unsigned char c : s)
        st = vael_dfa_state_get_next_state(st, c);
    return vael_dfa_state_is_final(st);
}

struct Language {
    const char *name;
    uint32_t flags;
    Builder build;
    const char *regex;  // the same language for std::regex (ECMAScript)
};

// The build operations in short.
vael_nfa *C(vael_nfa *a, vael_nfa *b) { return vael_nfa_build_concat(a, b); }
vael_nfa *A(vael_nfa *a, vael_nfa *b) { return vael_nfa_build_alternate(a, b); }
vael_nfa *K(vael_nfa *a) { return vael_nfa_build_kleene(a); }
vael_nfa *Q(vael_nfa *a, uint32_t n) { return vael_nfa_build_quantify(a, n); }

std::vector<Language> languages() {
    const uint32_t ci = VAEL_DFA_CASELESS;
    auto a_b = [](Env e) { return vael_nfa_build_concat(chars(e, "a"), vael_nfa_build_kleene(chars(e, "b"))); };
    return {
        {"chars", 0, [](Env e) { return chars(e, "ab"); }, "ab"},
        {"no chars", 0, [](Env e) { return chars(e, ""); }, ""},
        {"empty", 0, [](Env e) { return vael_nfa_build_empty_nfa(e); }, ""},
        {"class", 0, [](Env e) { return range(e, "ab"); }, "[ab]"},
        {"negated class", 0, [](Env e) { return range(e, "a", true); }, "[^a]"},
        {"empty class", 0, [](Env e) { return range(e, ""); }, "(?!)"}, {"concat kleene", 0, a_b, "ab*"},
        {"alternate", 0, [](Env e) { return vael_nfa_build_alternate(chars(e, "ab"), chars(e, "c")); }, "ab|c"},
        {"kleene of alternate", 0, [](Env e) { return K(A(chars(e, "a"), chars(e, "bc"))); }, "(a|bc)*"},
        {"quantify 0", 0, [](Env e) { return vael_nfa_build_quantify(chars(e, "ab"), 0); }, ""},
        {"quantify 1", 0, [](Env e) { return vael_nfa_build_quantify(chars(e, "ab"), 1); }, "ab"},
        {"quantify class 3", 0, [](Env e) { return vael_nfa_build_quantify(range(e, "ab"), 3); }, "[ab]{3}"},
        {"quantify loop 2", 0, [](Env e) { return Q(C(K(chars(e, "a")), chars(e, "b")), 2); }, "(a*b){2}"},
        {"quantify optional 4", 0, [](Env e) { return Q(A(chars(e, "a"), vael_nfa_build_empty_nfa(e)), 4); }, "a{0,4}"},
        {"nested quantify", 0, [](Env e) { return Q(C(chars(e, "c"), Q(chars(e, "ab"), 2)), 2); }, "(c(ab){2}){2}"},
        {"unanchored search", 0, [](Env e) { return C(C(any_star(e), chars(e, "ab")), any_star(e)); },
         "[\\s\\S]*ab[\\s\\S]*"},
        {"caseless chars", ci, [](Env e) { return chars(e, "Ab"); }, "ab"},
        {"caseless negated class", ci, [](Env e) { return range(e, "a", true); }, "[^a]"},
        {"caseless class", ci, [](Env e) { return vael_nfa_build_kleene(range(e, "A")); }, "a*"},
        {"caseless negated last letter", ci, [](Env e) { return range(e, "z", true); }, "[^z]"},
    };
}

const std::string kAlphabet = "abcAZ";
// Every string up to this length; shorter under ASan, where the simulation
// costs ten times.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kMaxLen = 4;
#else
constexpr size_t kMaxLen = 5;
#endif

TEST_F(Nfa, LanguagesAgreeWithRegexAndTheDfa) {
    const std::vector<std::string> strings = all_strings(kAlphabet, kMaxLen);
    for (const Language &lang : languages()) {
        SCOPED_TRACE(lang.name);
        const std::regex re(lang.regex, (lang.flags & VAEL_DFA_CASELESS) ? std::regex::icase : std::regex::ECMAScript);
        for (uint32_t mode : {kExact, 0u}) {
            vael_nfa_env *env = vael_nfa_env_create(lang.flags | mode, nullptr);
            ASSERT_NE(env, nullptr);
            vael_nfa *nfa = lang.build(env);
            ASSERT_NE(nfa, nullptr);
            EXPECT_EQ(vael_nfa_env_get_ref_count(env), 1u);  // every argument was consumed
            ASSERT_EQ(vael_nfa_env_finalize(env, nfa, 0), 0);
            vael_pm_error err;
            vael_pm_error_init(&err);
            vael_dfa *dfa = vael_nfa2dfa(env, 7, &err);
            ASSERT_NE(dfa, nullptr);
            // Complete, with no states lists left, and only the real id.
            for (uint32_t id = 0; id < vael_dfa_get_num_of_states(dfa); id++) {
                vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
                EXPECT_EQ(vael_dfa_state_get_states_list(s), nullptr);
                for (int c = 0; c < 256; c++)
                    ASSERT_NE(s->trans[c], VAEL_DFA_NO_STATE) << "state " << id << " byte " << c;
                if (vael_dfa_state_is_final(s)) {
                    ASSERT_NE(vael_dfa_state_get_pattern_ids(s), nullptr);
                    EXPECT_EQ(vael_dfa_pattern_id_get_id(vael_dfa_state_get_pattern_ids(s)), 7);
                    EXPECT_EQ(vael_dfa_pattern_id_next(vael_dfa_state_get_pattern_ids(s)), nullptr);
                }
            }
            int mismatches = 0;
            for (const std::string &s : strings) {
                const Sim sim = simulate(nfa, s);
                const bool expect_dfa = mode == kExact || s.empty() ? sim.whole : sim.prefix;
                if (mode == kExact && sim.whole != std::regex_match(s, re) && mismatches++ < 5)
                    ADD_FAILURE() << "NFA and regex differ on \"" << s << "\"";
                if (dfa_accepts(dfa, s) != expect_dfa && mismatches++ < 5)
                    ADD_FAILURE() << "DFA and NFA differ on \"" << s << "\" mode " << mode;
            }
            if (mode == 0) {
                // The absorbing final state is the first.
                vael_dfa_state *sink = vael_dfa_state_get_by_id(dfa, 0);
                EXPECT_TRUE(vael_dfa_state_is_final(sink));
                for (int c = 0; c < 256; c++)
                    EXPECT_EQ(vael_dfa_state_get_next_state(sink, (unsigned char)c), sink);
            }
            vael_dfa_destroy(dfa);
            EXPECT_EQ(vael_nfa_env_destroy(env), 0);
        }
    }
}

// Every allocation site of every build operation and of the subset
// construction fails once; each failure consumes the arguments and leaves
// both accounts where they were.
TEST_F(Nfa, FailInjectionWalksBuildAndSubset) {
    for (const Language &lang : languages()) {
        SCOPED_TRACE(lang.name);
        uint32_t states = 0;
        bool refs_ok = true;
        int destroy_rc = 0;
        auto attempt = [&] {
            vael_nfa_env *env = vael_nfa_env_create(lang.flags, nullptr);
            if (!env)
                return false;
            vael_nfa *nfa = lang.build(env);
            vael_dfa *dfa = nullptr;
            if (nfa) {
                if (vael_nfa_env_finalize(env, nfa, 0) == 0)
                    dfa = vael_nfa2dfa(env, 1, nullptr);
                else
                    vael_nfa_destroy(nfa);
            } else {
                refs_ok = vael_nfa_env_get_ref_count(env) == 0;
            }
            if (dfa)
                states = vael_dfa_get_num_of_states(dfa);
            vael_dfa_destroy(dfa);
            destroy_rc = vael_nfa_env_destroy(env);
            return dfa != nullptr;
        };
        auto clean = [&] { return refs_ok && destroy_rc == 0; };
        vael_test::FailmemWalk w = vael_test::failmem_walk(attempt, clean);
        EXPECT_TRUE(w.succeeded);
        EXPECT_GE(w.rounds, 8) << "injected " << w.injected;
        EXPECT_GT(states, 0u);
    }
}

// Two threads compiling at once share only the states hash; each gets the
// machine a lone compile gets.
TEST_F(Nfa, TwoThreadsCompileTheSameShapes) {
    auto compile = [] {
        vael_nfa_env *env = vael_nfa_env_create(0, nullptr);
        vael_nfa *n = vael_nfa_build_concat(
            vael_nfa_build_concat(any_star(env), vael_nfa_build_quantify(vael_nfa_build_alternate(chars(env, "ab"), range(env, "cd")), 3)),
            any_star(env));
        vael_nfa_env_finalize(env, n, 0);
        vael_dfa *dfa = vael_nfa2dfa(env, 2, nullptr);
        std::vector<uint16_t> shape;
        for (uint32_t id = 0; dfa && id < vael_dfa_get_num_of_states(dfa); id++) {
            vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
            shape.insert(shape.end(), std::begin(s->trans), std::end(s->trans));
            shape.push_back((uint16_t)s->properties);
        }
        vael_dfa_destroy(dfa);
        vael_nfa_env_destroy(env);
        return shape;
    };
    const std::vector<uint16_t> lone = compile();
    ASSERT_GT(lone.size(), 257u * 4);
    int differ[2] = {0, 0};
    auto worker = [&](int t) {
        for (int i = 0; i < 40; i++)
            if (compile() != lone)
                differ[t]++;
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    EXPECT_EQ(differ[0] + differ[1], 0);
    EXPECT_EQ(vael_htab_nents(vael_states_hash_table_id()), 0);
}

}  // namespace
