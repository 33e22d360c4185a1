// The regular-expression machine. NFA and subset construction, simulated here and held against std::regex and the
// DFA. DFAs: minimization against the input's language and an independent Moore minimizer; the image, read back it
// runs like its writer, damaged it is refused or runs safely; known machines' table and CSV, and the JFLAP XML read
// back as the machine. The REM tier: compile refusals, runs over flat and virtual buffers, the PM row, allocation
// failures; and against PCRE on random expressions and texts: match ends, and starts by brute force.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "rem/vael_dfa_internal.h"
#include "rem/vael_rem_tier.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/jflap_reader.h"
#include "tests/support/pcre_whole.h"
#include "tests/support/random_regex.h"
#include "tests/support/vael_test_support.h"

// Helpers of the REM tier's tests: a compiled machine with its owner, and a run that gives the queued hits as plain
// records.
namespace vael_test {

// Dot-all, as the frame's compile passes it.
constexpr uint32_t kRemDotAll = 0x1;

struct RemHit {
    uint32_t offset;
    uint32_t hint;
    uint32_t match_flags;
    bool operator==(const RemHit &o) const {
        return offset == o.offset && hint == o.hint && match_flags == o.match_flags;
    }
};

inline void PrintTo(const RemHit &h, std::ostream *os) {
    *os << "{" << h.offset << " hint " << h.hint << " flags " << h.match_flags << "}";
}

class Rem {
  public:
    Rem(const std::string &pattern, uint32_t compile_flags = kRemDotAll, uint32_t pattern_flags = 0,
        uint32_t string_flags = 0) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                                          (uint32_t)pattern.size(), VAEL_PM_REM_DEFAULT_ID,
                                                          string_flags);
        vael_pm_error_init(&err_);
        LogCapture quiet;
        dfa_ = static_cast<vael_dfa *>(vael_rem_compile(s, compile_flags, pattern_flags, &err_));
        vael_pmglob_string_destroy(s);
    }
    ~Rem() { vael_dfa_destroy(dfa_); }
    Rem(const Rem &) = delete;
    Rem &operator=(const Rem &) = delete;
    vael_dfa *get() const { return dfa_; }
    const vael_pm_error &error() const { return err_; }

    // The text's first cuts as history blocks, the rest as the present
    // buffer (none when the cuts reach the end).
    std::vector<RemHit> run(const std::string &text, uint32_t exec_flags, std::vector<size_t> cuts = {},
                            uint32_t start = 0, int *rc_out = nullptr) const {
        const SplitText split(text, cuts);
        lst_list *queue = nullptr;
        int rc = vael_dfa_exec(dfa_, split.present(), split.present_len(), split.vbuf(), start, &queue, exec_flags,
                               nullptr);
        if (rc_out)
            *rc_out = rc;
        std::vector<RemHit> out;
        for (const Hit &h : drain_queue(queue)) {
            EXPECT_EQ(h.id, VAEL_PM_REM_DEFAULT_ID);
            out.push_back(RemHit{h.offset, h.hint, h.match_flags});
        }
        return out;
    }

    std::vector<uint32_t> ends(const std::string &text, uint32_t exec_flags, std::vector<size_t> cuts = {}) const {
        std::vector<uint32_t> out;
        for (const RemHit &h : run(text, exec_flags, cuts))
            out.push_back(h.offset);
        return out;
    }

  private:
    vael_dfa *dfa_ = nullptr;
    vael_pm_error err_{};
};

// A finished chain of n states: 'a' moves on, any other byte goes back to the
// start; the last state is final with two pattern ids and stays. Past 7767
// states it is a machine of several blocks with packed tables.
inline vael_dfa *chain(uint32_t n, uint32_t flags = 0) {
    vael_dfa *dfa = vael_dfa_create(flags, nullptr);
    vael_dfa_set_state_limit(dfa, 0);
    std::vector<vael_dfa_state *> s;
    for (uint32_t i = 0; i < n; i++)
        s.push_back(vael_dfa_state_create(dfa));
    for (uint32_t i = 0; i < n; i++)
        for (unsigned c = 0; c < 256; c++)
            vael_dfa_state_add_trans(s[i], (unsigned char)c, i == n - 1 ? s[i] : c == 'a' ? s[i + 1] : s[0]);
    vael_dfa_state_set_final(s[n - 1], 5, 0, 0);
    vael_dfa_state_set_final(s[n - 1], 9, 0, 0);
    vael_dfa_set_initial_state(dfa, s[0]);
    return vael_dfa_finalize(dfa);
}

// Every string over the alphabet up to max_len bytes, shortest first.
inline std::vector<std::string> all_strings(const std::string &alphabet, size_t max_len) {
    std::vector<std::string> out{""};
    for (size_t i = 0; i < out.size(); i++)
        if (out[i].size() < max_len)
            for (char c : alphabet)
                out.push_back(out[i] + c);
    return out;
}

// A random expression of letters of `letters`, in a group when it is an
// alternation, so that anchors put around it hold for all of it.
template <class Rng>
std::string random_expression(Rng &rng, const char *letters) {
    RegexGrammar grammar;
    grammar.letters.assign(letters, letters + std::char_traits<char>::length(letters));
    grammar.depth = 1;
    grammar.repeat_percent = 70;
    RegexGenerator g(grammar, (uint32_t)rng());
    const RegexNode e = g.expression();
    return e.kids.size() > 1 ? "(" + e.text + ")" : e.text;
}

}  // namespace vael_test

namespace {

using vael_test::LogCapture;
using vael_test::Rem;
using vael_test::RemHit;
using vael_test::WholeMatch;
using vael_test::all_strings;
using vael_test::chain;

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

using Image = std::vector<unsigned char>;

Image image_of(vael_dfa *dfa) {
    return vael_test::write_image(vael_dfa_calculate_size(dfa), [&](auto at, auto space) {
        return vael_dfa_serialize(dfa, at, space);
    });
}

// The first `size` bytes in an exact-size copy (a read past it is ASan's),
// read flat through the row's slot, or from a vbuf of blocks of `block`.
vael_dfa *load(const Image &image, size_t size, size_t block = 0) {
    Image cut(image.begin(), image.begin() + (long)size);
    uint32_t space = (uint32_t)size;
    if (!block) {
        const unsigned char *p = cut.data();
        auto *dfa = static_cast<vael_dfa *>(pm_tier2_funcs[VAEL_PM_TIER2_REM].deserialize(&p, &space, nullptr, nullptr));
        EXPECT_TRUE(!dfa || p == cut.data() + size);
        return dfa;
    }
    vael_vbuf *vbuf = vael_test::vbuf_of(cut.data(), size, block);
    vael_vbuf_iter iter{};
    vael_dfa *dfa = vael_dfa_deserialize(nullptr, &space, vbuf, &iter);
    vael_vbuf_destroy(vbuf);
    return dfa;
}

// Every hit field by field: the hint and the flags come from the states.
std::vector<std::vector<uint32_t>> hits(vael_dfa *dfa, const std::string &text) {
    lst_list *queue = nullptr;
    vael_dfa_exec(dfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, 0, &queue,
                  VAEL_PM_EXEC_ALL_MATCHES, nullptr);
    std::vector<std::vector<uint32_t>> out;
    for (const vael_test::Hit &h : vael_test::drain_queue(queue))
        out.push_back({(uint32_t)h.id, h.offset, h.match_flags, h.hint});
    return out;
}

struct Owned {
    vael_dfa *dfa = nullptr;
    ~Owned() { vael_dfa_destroy(dfa); }
};

TEST(DfaImage, LoadedMachinesRunLikeTheirWriters) {
    const char *patterns[] = {"abc", "a[0-9]+b", "^ab|cd$", "(ab|ba)*c", "x.{2}y", "[^a]bc", "(a|b)*abb", "0{2,4}1"};
    std::vector<std::pair<std::string, vael_dfa *>> machines;
    std::vector<std::unique_ptr<vael_test::Rem>> rems;
    for (const char *p : patterns) {
        rems.push_back(std::make_unique<vael_test::Rem>(p, vael_test::kRemDotAll, p[0] == 'x' ? VAEL_PM_CASELESS : 0));
        machines.emplace_back(p, rems.back()->get());
    }
    Owned one{chain(3)}, several{chain(VAEL_DFA_BLOCK_STATES + 20)};
    machines.emplace_back("chain of 3", one.dfa);
    machines.emplace_back("chain of two blocks", several.dfa);
    std::mt19937 rng(7);
    for (const auto &[what, orig] : machines) {
        ASSERT_NE(orig, nullptr) << what;
        const Image image = image_of(orig);
        const bool big = image.size() > 100000;  // a vbuf of small blocks would be millions of records
        for (size_t block : big ? std::vector<size_t>{0, 4096} : std::vector<size_t>{0, 1, 7, 64}) {
            Owned loaded{load(image, image.size(), block)};
            ASSERT_NE(loaded.dfa, nullptr) << what << " block " << block;
            EXPECT_EQ(vael_dfa_is_valid(loaded.dfa), 1);
            EXPECT_EQ(image_of(loaded.dfa), image) << what;
            std::vector<std::string> texts = {std::string(VAEL_DFA_BLOCK_STATES + 30, 'a')};
            for (int i = 0; i < 30; i++)
                texts.push_back(vael_test::random_word(rng, "abcdxyAB01\n", 0, 23));
            for (const std::string &text : texts)
                EXPECT_EQ(hits(loaded.dfa, text), hits(orig, text)) << what << " over '" << text.substr(0, 30) << "'";
        }
    }
}

void put(Image &image, size_t at, uint32_t v, size_t n = 4) { memcpy(image.data() + at, &v, n); }
uint32_t get(const Image &image, size_t at) {
    uint32_t v;
    memcpy(&v, image.data() + at, 4);
    return v;
}

TEST(DfaImage, BrokenImagesAreRefusedWithTheirWords) {
    vael_test::ScopedTopic topic("K_DFA", VAEL_DBG_ERR);
    vael_test::Rem rem("abc");
    const Image good = image_of(rem.get());
    const size_t table = 16 + 18, patterns = table + 512, stats = good.size() - 20;
    const struct { const char *what; size_t at; uint32_t value; size_t bytes; const char *words; } rows[] = {
        {"head magic", 0, 0x53525A4E, 4, "Wrong serialization magic (53525a4e)"},
        {"state magic", 16, 0, 1, "Wrong serialization magic"},
        {"statistics magic", stats, 0, 1, "Wrong serialization magic"},
        {"absurd count", 8, 0x00FFFFFF, 4, "Illegal machine in the buffer"},
        {"count past the bytes", 8, 4000, 4, "Illegal machine in the buffer"},
        {"index size", 14, 4, 2, "Illegal machine in the buffer"},
        {"initial id", 12, 900, 2, "Illegal initial state 900"},
        {"state id", 16 + 12, 1, 2, "Illegal state record 0"},
        {"table size", 16 + 8, 257, 4, "Illegal state record 0"},
        {"entry past the states", table + 2 * 'q', 700, 2, "names no state"},
        {"no target", table, 0xFFFF, 2, "names no state"},
        {"pattern count", patterns, 0x10000000, 4, "Illegal number of pattern ids"},
        {"states list", patterns + 4 + 12 * get(good, patterns), 1, 4, "states_list cannot be deserialized"},
    };
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    for (const auto &r : rows) {
        Image bad = good;
        put(bad, r.at, r.value, r.bytes);
        LogCapture log;
        Owned loaded{load(bad, bad.size())};
        EXPECT_EQ(loaded.dfa, nullptr) << r.what;
        EXPECT_TRUE(log.contains(r.words)) << r.what << ": " << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start) << r.what;
    }
    // One byte short of the size: nothing is written.
    Image buf(good.size(), 0xEE);
    unsigned char *p = buf.data();
    uint32_t space = (uint32_t)good.size() - 1;
    LogCapture log;
    EXPECT_EQ(vael_dfa_serialize(rem.get(), &p, &space), -1);
    EXPECT_TRUE(p == buf.data() && space == good.size() - 1 && buf == Image(good.size(), 0xEE));
}

TEST(DfaImage, EveryCutIsRefusedAndEveryFlipRefusedOrSafe) {
    vael_test::Rem rem("a[bc]d");
    const Image image = image_of(rem.get());
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    LogCapture quiet;
    // Every third size read from a vbuf of blocks of 5.
    auto read = [](const Image &bytes) { return load(bytes, bytes.size(), bytes.size() % 3 == 0 ? 5 : 0); };
    const int accepted = vael_test::damage_walk(image, read, [](vael_dfa *dfa) {
        for (const char *text : {"abd", "xacd abd", "aaaa\n"})
            hits(dfa, text);
        vael_dfa_destroy(dfa);
    });
    EXPECT_GT(accepted, 0);  // flips of counters and of entries to other states load
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

TEST(DfaImageFailmem, EveryAllocationOfALoadFailsCleanly) {
    vael_test::Rem rem("a(b|cd)*e");
    Owned two{chain(4)};
    for (vael_dfa *orig : {rem.get(), two.dfa}) {
        const Image image = image_of(orig);
        vael_dfa *copy = nullptr;
        auto cleanly = [&] { return copy == nullptr; };
        LogCapture quiet;
        EXPECT_GT(vael_test::failmem_walk([&] { return (copy = load(image, image.size())) != nullptr; }, cleanly).rounds, 1);
        vael_dfa_destroy(copy);
        EXPECT_GT(vael_test::failmem_walk_each_allocation([&] { return (copy = load(image, image.size(), 5)) != nullptr; },
                                                          cleanly).rounds,
                  1);
        vael_dfa_destroy(copy);
        copy = nullptr;
        // Writing allocates nothing: under injection it succeeds at once.
        EXPECT_EQ(vael_test::failmem_walk([&] { return image_of(orig) == image; }, cleanly).rounds, 1);
    }
}

std::string dump(vael_dfa *dfa, int format, int *rc = nullptr) {
    std::string out;
    const int r = vael_dfa_dump_to(
        dfa, format, [](const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }, &out);
    if (rc)
        *rc = r;
    return out;
}

using Edges = std::vector<std::vector<std::pair<std::string, int>>>;  // per state: letters -> target

// A finished machine of the edges; states in `finals` are final.
vael_dfa *machine(const Edges &edges, const std::set<int> &finals) {
    vael_dfa *dfa = vael_dfa_create(0, nullptr);
    std::vector<vael_dfa_state *> s;
    for (size_t i = 0; i < edges.size(); i++)
        s.push_back(vael_dfa_state_create(dfa));
    for (size_t i = 0; i < edges.size(); i++)
        for (const auto &[letters, target] : edges[i])
            for (char c : letters)
                vael_dfa_state_add_trans(s[i], (unsigned char)c, s[target]);
    for (int f : finals)
        vael_dfa_state_set_final(s[f], -1, 0, 0);
    vael_dfa_set_initial_state(dfa, s[0]);
    return vael_dfa_finalize(dfa);
}

std::string times(int n, const std::string &piece) {
    std::string s;
    while (n-- > 0)
        s += piece;
    return s;
}

TEST(DfaDump, CsvOfAKnownMachine) {
    // State 1 is never reached.
    vael_dfa *m = machine({{{"x", 2}}, {{"y", 0}}, {{"z", 2}, {"a", 0}}}, {2});
    int rc = -1;
    EXPECT_EQ(dump(m, VAEL_DFA_DUMP_CSV, &rc),
              "The dfa has 3 states.\nstate_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n"
              "0,0,0" + times(23, ", ") + ",2, , \n2,1,1,0" + times(24, ", ") + ",2\n");
    EXPECT_EQ(rc, 0);
    vael_dfa_destroy(m);
    // A machine's dump goes to the log in the format asked; an unknown one is refused.
    vael_test::Rem rem("ab");
    vael_test::LogCapture log;
    EXPECT_EQ(vael_rem_dump(rem.get(), 1), 0);
    EXPECT_EQ(vael_rem_dump(rem.get(), 7), -1);
    EXPECT_TRUE(log.contains("The dfa has"));
}

TEST(DfaDump, JflapXmlReadsBackAsTheMachine) {
    std::mt19937 rng(11);
    for (const char *pattern : {"ab", "a(b|c)*d", "abc|abd|x", "[a-m]q", "ABC", "(ab|ba){2}", "[^a]z", "^abc"}) {
      for (int format : {VAEL_DFA_DUMP_XML, VAEL_DFA_DUMP_XML_ALL}) {
        vael_test::Rem rem(pattern);
        vael_test::Automaton fa;
        std::string why;
        const std::string xml = dump(rem.get(), format);
        ASSERT_TRUE(vael_test::read_jflap(xml, fa, why)) << pattern << ": " << why << "\n" << xml;
        EXPECT_EQ(fa.initial, (int)vael_dfa_get_initial_state(rem.get())->id);
        for (int i = 0; i < 300; i++) {
            const vael_dfa_state *s = vael_dfa_get_initial_state(rem.get());
            int at = fa.initial;
            for (size_t n = 1 + rng() % 8; n > 0 && at != -1; n--) {
                const char c = "abcdqxz"[rng() % 7];
                s = vael_dfa_state_get_by_id_fast(rem.get(), s->trans[(unsigned char)c]);
                at = fa.step(at, c);
            }
            ASSERT_EQ(at, (int)s->id) << pattern;
            // The initial state carries no final mark, final or not.
            EXPECT_EQ(fa.finals.count(at) == 1, vael_dfa_state_is_final(s) && at != fa.initial) << pattern;
        }
      }
    }
    const std::string a_z = "abcdefghijklmnopqrstuvwxyz";
    const struct {
        Edges edges;
        std::map<std::string, int> reads;  // of state 0
    } groups[] = {
        {{{{a_z, 1}}, {{a_z, 1}}}, {{"OTHER", 1}}},
        {{{{"abcdefghijklm", 1}, {"nopqrstuvwxyz", 2}}, {}, {}}, {{"a|b|c|d|e|f|g|h|i|j|k|l|m", 1}, {"n|o|p|q|r|s|t|u|v|w|x|y|z", 2}}},
        {{{{"q", 1}}, {}}, {{"q", 1}}}, {{{{"az", 1}, {"b", 2}}, {}, {}}, {{"OTHER", 1}, {"b", 2}}},
    };
    for (const auto &g : groups) {
        vael_dfa *m = machine(g.edges, {});
        vael_test::Automaton fa;
        std::string why;
        EXPECT_TRUE(vael_test::read_jflap(dump(m, VAEL_DFA_DUMP_XML), fa, why)) << why;
        EXPECT_EQ(fa.edges[0], g.reads);
        vael_dfa_destroy(m);
    }
}

TEST(DfaDumpFailmem, EveryAllocationOfADumpFailsCleanly) {
    vael_test::Rem rem("a(b|c)d");
    for (int format : {VAEL_DFA_DUMP_TEXT, VAEL_DFA_DUMP_CSV, VAEL_DFA_DUMP_XML, VAEL_DFA_DUMP_XML_ALL}) {
        int rc = 0;
        auto ok = [&] { return dump(rem.get(), format, &rc), rc == 0; };
        EXPECT_GT(vael_test::failmem_walk(ok, [&] { return rc == -1; }).rounds, 1) << format;
    }
}

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
