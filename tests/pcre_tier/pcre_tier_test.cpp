// The PCRE tier: the options the flags give and the refusals with their exact texts and indexes; what a run delivers,
// pcre_dfa_exec against pcre_exec over random patterns, long inputs and PCRE's limits; the image, duplicate and
// destroy, and every allocation failure of compile, duplicate and load with the byte accounts back where they were.
// A host program that uses PCRE itself, beside the library: its blocks, made before, during and after the library's
// life and on threads of its own, are released by the allocator that made them (ASan reports any other), and none of
// them enters the library's accounts.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "pcre_tier/vael_pcre.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

// A handle that destroys itself, and a run that collects what the tier delivers through a run context.
struct HandleDeleter {
    void operator()(vael_pcre_handle *h) const { vael_pcre_destroy(h); }
};
using Handle = std::unique_ptr<vael_pcre_handle, HandleDeleter>;

inline Handle compile(const std::string &pattern, uint32_t pattern_flags = 0, uint32_t compile_flags = 0,
                      vael_pm_error *err = nullptr) {
    vael_pm_error local;
    if (!err)
        err = &local;
    vael_pm_error_init(err);
    vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                                      (uint32_t)pattern.size(), -1, pattern_flags);
    EXPECT_NE(s, nullptr);
    Handle h(static_cast<vael_pcre_handle *>(vael_pcre_compile(s, compile_flags, pattern_flags, err)));
    vael_pmglob_string_destroy(s);
    return h;
}

// One delivered match: the offset of its last byte and extra's second word.
struct Match {
    uint32_t last;
    uint32_t start;
    bool operator==(const Match &o) const { return last == o.last && start == o.start; }
};
inline void PrintTo(const Match &m, std::ostream *os) { *os << "{last " << m.last << ", start " << m.start << "}"; }

// What a run gave; stop_after > 0 writes 0 in keep_going at that match, fail_at > 0 returns non-zero there.
struct Run { int result = 0; std::vector<Match> matches; int stop_after = 0, fail_at = 0; };

inline int collect(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra, int32_t pattern_id) {
    auto *r = static_cast<Run *>(ctx->user_arg);
    EXPECT_EQ(pattern_id, -1);
    r->matches.push_back(Match{offset, extra[1]});
    const int n = (int)r->matches.size();
    if (r->stop_after == n)
        ctx->keep_going = 0;
    return r->fail_at == n ? 7 : 0;
}

inline Run run(vael_pcre_handle *h, const std::string &text, uint32_t exec_flags = 0, uint32_t start = 0,
               int stop_after = 0, int fail_at = 0) {
    Run r{0, {}, stop_after, fail_at};
    vael_pm_exec_cb_ctx ctx{};
    ctx.fn = collect;
    ctx.user_arg = &r;
    ctx.keep_going = 1;
    ctx.pattern_id = -1;
    r.result = vael_pcre_exec(h, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr,
                              start, nullptr, exec_flags, &ctx);
    return r;
}

// The image of a handle, whole.
inline std::vector<unsigned char> image_of(vael_pcre_handle *h) {
    return vael_test::write_image(vael_pcre_get_serialized_size(h), [&](unsigned char **at, uint32_t *space) {
        return vael_pcre_serialize(h, at, space);
    });
}

inline Handle load(const std::vector<unsigned char> &image, uint32_t size) {
    const unsigned char *p = image.data();
    uint32_t space = size;
    return Handle(static_cast<vael_pcre_handle *>(vael_pcre_deserialize(&p, &space, nullptr, nullptr)));
}

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
            const std::string text = vael_test::random_word(rng, "abcA\n", 0, 15);
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

// Each flag bit shown by what the pattern then matches. Under pcre_exec (exec 1) a quantifier takes as little as it
// can (PCRE_UNGREEDY) and '?' behind it makes it greedy; the recursive constructs compile, carry their bit, and run.
TEST(PcreCompile, OptionsFromFlags) {
    struct Row {
        const char *pattern; uint32_t pattern_flags, compile_flags; std::string text;
        std::vector<Match> want;  // all matches, with starts
        int exec = 0; bool recursive = false;
    };
    const uint32_t ml = VAEL_PCRE_MULTILINE;
    const std::vector<Row> rows = {
        {"a.c", 0, 0, "a\nc", {{2, 0}}},                          // DOTALL by default
        {"a.c", VAEL_PCRE_NO_DOTALL, 0, "a\nc", {}}, {"abc", VAEL_PM_CASELESS, 0, "xABC", {{3, 1}}},
        {"abc", 0, VAEL_PM_CASELESS, "xABC", {{3, 1}}},             // compile flags count too
        {"abc", 0, 0, "xABC", {}}, {"^b", 0, 0, "a\nb", {}}, {"^b", ml, 0, "a\nb", {{2, 2}}},
        {"^b", ml | VAEL_PCRE_NEWLINE_CR, 0, "a\rb", {{2, 2}}}, {"^b", ml | VAEL_PCRE_NEWLINE_CR, 0, "a\nb", {}},
        {"^b", ml | VAEL_PCRE_NEWLINE_LF | VAEL_PCRE_NEWLINE_CR, 0, "a\rb", {}}, // LF wins
        {"^b", ml | VAEL_PCRE_NEWLINE_CRLF, 0, "a\r\nb", {{3, 3}}},
        {"^b", ml | VAEL_PCRE_NEWLINE_CRLF, 0, "a\rb", {}}, {"^b", ml | VAEL_PCRE_NEWLINE_ANY, 0, "a\rb", {{2, 2}}},
        {"^b", ml | VAEL_PCRE_NEWLINE_ANY, 0, "a\nb", {{2, 2}}},
        {".b", VAEL_PM_UTF8, 0, "\xc3\xa9" "b", {{2, 0}}},          // one character of two bytes
        {".b", 0, 0, "\xc3\xa9" "b", {{2, 1}}}, {"abc", VAEL_PM_BOUND, 0, "xabc abc", {{7, 5}}},
        {"^abc$", VAEL_PM_LITERAL, 0, "abc", {{2, 0}}},
        {"a|b$", 0, 0, "ab", {{1, 1}}},                             // (a|b)$
        {"a+", 0, 0, "aaa", {{0, 0}, {1, 1}, {2, 2}}, 1}, {"a+?", 0, 0, "aaa", {{2, 0}}, 1},
        {"a{1,3}", 0, 0, "aaa", {{0, 0}, {1, 1}, {2, 2}}, 1}, {"a{1,3}?", 0, 0, "aaa", {{2, 0}}, 1},
        {"a.*b", 0, 0, "ab ab", {{1, 0}, {4, 3}}, 1}, {"a.*?b", 0, 0, "ab ab", {{4, 0}}, 1},
        {"(?=a)a", 0, 0, "ba", {{1, 1}}, 1, true},
        {"(?>a+)b", 0, 0, "aab", {{2, 1}}, 1, true}, // a lazy a+ inside an atomic group
        {"a(?R)?b", 0, 0, "xaabb", {{4, 1}}, 1, true}, {"(?(?=a)ab|c)", 0, 0, "c ab", {{0, 0}, {3, 2}}, 1, true},
        {"(?<=a)b", 0, 0, "bab", {{2, 2}}, 1, true},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(testing::Message() << r.pattern << " flags " << std::hex << r.pattern_flags << "/"
                                        << r.compile_flags << " exec " << r.exec);
        vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, !r.exec);
        auto h = compile(r.pattern, r.pattern_flags, r.compile_flags);
        ASSERT_TRUE(h);
        EXPECT_EQ(h->flags, r.recursive ? (uint32_t)VAEL_PCRE_FLAG_RECURSIVE : 0u);
        auto got = run(h.get(), r.text, VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_MATCH_START);
        EXPECT_EQ(got.result, 0);
        EXPECT_EQ(got.matches, r.want);
    }
}

// Every refusal: the exact text, the error type and the index. Indexes count in the pre-processed text.
TEST(PcreCompile, Refusals) {
    const char *kRecursive = "Recursive operations are not supported in PM for pcre_dfa_exec";
    const uint32_t v = VAEL_PM_VERIFY_SYNTAX;
    struct Row { const char *pattern; uint32_t flags; const char *message; uint32_t index; };  // message null: compiles
    const Row rows[] = {
        // recursive constructs under pcre_dfa_exec (the scan's own table is below)
        {"(?=a)b", 0, kRecursive, 0}, {"(?<=a)b", 0, kRecursive, 0}, {"(?:ab)++c", 0, kRecursive, 0},
        {"(?<n>a)\\g<n>", 0, kRecursive, 0},
        // PCRE's own texts
        {"a(", 0, "missing )", 0}, {"[a", 0, "missing terminating ] for character class", 0},
        {"(a)\\1", 0, "reference to non-existent subpattern", 0}, // no capture groups
        // the plain compile accepts what only the verification refuses
        {"a+?", 0, nullptr, 0}, {"(?:a)b", 0, nullptr, 0}, {"a$b", 0, nullptr, 0},
        // syntax verification
        {"(?=a)b", v, "'(?' is not supported", 0}, {"(?:a)", v, "'(?' is not supported", 0},
        {"(*UTF8)a", v, "'(*' is not supported", 0},
        {"a+?", v, "Question mark '?' after one of the quantifiers '+', '*', '?' or '}' is not supported", 1},
        {"^a+?$", v, "Question mark '?' after one of the quantifiers '+', '*', '?' or '}' is not supported", 3},
        {"a{2}?", v, "Question mark '?' after one of the quantifiers '+', '*', '?' or '}' is not supported", 3},
        {"a*+", v, "Plus '+' after one of the quantifiers '+', '*', '?' or '}' is not supported", 1},
        {"[[]", v, "Opening bracket '[' inside a character class is not supported", 1},
        {"[-a]", v, "Hyphen '-' in the beginning or end of a character class is not supported", 1},
        {"[a-]", v, "Hyphen '-' in the beginning or end of a character class is not supported", 2},
        {"[^-a]", v, "Hyphen '-' in the beginning or end of a character class is not supported", 2},
        {"[a^]", v, "Circumflex '^' in the middle of a character class is not supported", 2},
        {"a$b", v, "Dollar '$' in the middle of a pattern is not supported", 1},
        {"a]", v, "Closing bracket ']' that is not closing a character class is not supported", 1},
        {"a^b", v, "Circumflex '^' in the middle of a pattern is not supported", 1},
        {"a\\qb", v, "Invalid letter after backslash", 2}, {"a\\b", v, "Invalid letter after backslash", 2},
        {"a\\qb", v | VAEL_PM_BOUND, "Invalid letter after backslash", 5},
        {"abc", v | VAEL_PM_BOUND, nullptr, 0}, // the wrapping's own \b passes
        {"^a[^b-c]\\d\\$\\x41$", v, nullptr, 0},
        {"a[]b]", v, "Closing bracket ']' that is not closing a character class is not supported", 4},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.pattern);
        vael_pm_error err;
        auto h = compile(r.pattern, r.flags, 0, &err);
        EXPECT_EQ(h == nullptr, r.message != nullptr);
        EXPECT_STREQ(err.error_string, r.message);
        EXPECT_EQ(err.error_type, r.message ? (uint32_t)VAEL_PM_ERROR_ILLEGAL : (uint32_t)VAEL_PM_ERROR_INTERNAL);
        EXPECT_EQ(err.error_index, r.index);
        EXPECT_EQ(err.pattern_id, -1);
    }
}

TEST(PcreCompile, RecursiveOpScan) {
    const std::pair<int, std::vector<const char *>> rows[] = {
        {1, {"(?=a)", "(?!a)", "(?<=a)", "(?<!a)", "(?>a)", "(?(1)a|b)", "(?R)", "(?0)", "(?1)", "(?+1)", "(?-1)",
             "(?&n)", "(?P>n)", "\\g<n>", "\\g'1'", "(a)++", "(a)*+", "(a)?+", "(a){2,3}+", "x[a](?=b)"}},
        {0, {"\\(?=a\\)", "[(?=]", "\\Q(?=\\E", "(?:a)", "(?i)a", "(?<n>a)", "(?P<n>a)", "(?P=n)", "(?#(?=)a", "a++",
             "(a)+", "(a){2}", "\\g{1}", "\\g1", "[]a(?=]", "[^]a(?>]", "[[:alpha:](?=]", "(?|a|b)", "(?C1)a", "\\c(",
             "a{2}+"}},
    };
    for (const auto &[recursive, texts] : rows)
        for (const char *text : texts)
            EXPECT_EQ(vael_pcre_pattern_uses_recursive_op(text, 0), recursive) << text;
}

// Texts over which a handle and its copies must agree.
const char *const kTexts[] = {"", "abc", "xxabcabcxx", "ab\ncd", "ABC abc", "aaaa bbbb", "a1b2c3"};

std::vector<std::vector<Match>> behaviour(vael_pcre_handle *h) {
    std::vector<std::vector<Match>> out;
    for (const char *t : kTexts)
        out.push_back(run(h, t, VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_MATCH_START).matches);
    return out;
}

// A cut image at every length, a wrong magic, a size PCRE would read past:
// null, a log line, and nothing left in the accounts.
TEST(PcreImage, BadImages) {
    auto h = compile("abc");
    ASSERT_TRUE(h);
    auto image = image_of(h.get());
    uint32_t s, t;  // the sizes of the pattern and of its study data, each in front of it
    std::memcpy(&s, image.data(), 4);
    std::memcpy(&t, image.data() + 4 + s, 4);
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++)
        EXPECT_FALSE(load(image, cut)) << "cut at " << cut;
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);

    struct Row { size_t at; uint32_t value; const char *log; };
    const Row rows[] = {
        {16 + s + t, 0x53525a54, "vael_pcre_deserialize: Wrong serialization magic (53525a54) at the buffer\n"},
        {0, 8, "vael_pcre_deserialize: Error in allocating the pcre_handle->re size 8\n"},
        {0, 0xfffffff0u, "vael_pcre_deserialize: Wrong serialization magic (0) at the buffer\n"},
        {4 + s, 12, "vael_pcre_deserialize: study data of 12 bytes is not of this PCRE"},
    };
    for (const Row &r : rows) {
        auto bad = image;
        std::memcpy(bad.data() + r.at, &r.value, 4);
        vael_test::LogCapture log;
        EXPECT_FALSE(load(bad, (uint32_t)bad.size())) << r.log;
        EXPECT_TRUE(log.contains(r.log)) << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
    }

    // Bytes that are not a pattern of this PCRE load (no check is made), fail
    // validation, run as no match, and are released whole.
    auto garbage = image;
    garbage[4] ^= 0xff; // PCRE's magic
    auto loaded = load(garbage, (uint32_t)garbage.size());
    ASSERT_TRUE(loaded);
    EXPECT_FALSE(vael_pcre_is_valid(loaded.get()));
    EXPECT_TRUE(run(loaded.get(), "abc").matches.empty());
    loaded.reset();
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

TEST(PcreImage, ArgumentsAndSpace) {
    auto h = compile("abc");
    ASSERT_TRUE(h);
    const uint32_t size = vael_pcre_get_serialized_size(h.get());
    std::vector<unsigned char> buf(size);
    unsigned char *p = buf.data();
    uint32_t space = size - 1;
    vael_test::LogCapture quiet;
    EXPECT_EQ(vael_pcre_serialize(h.get(), &p, &space), -1);
    EXPECT_EQ(p, buf.data());
    EXPECT_EQ(space, size - 1);

    // pcre_free_re releases a compiled pattern of the library, size and all.
    auto freed = compile("free me");
    ASSERT_TRUE(freed);
    size_t re_size = 0;
    ASSERT_EQ(pcre_fullinfo(freed->re, nullptr, PCRE_INFO_SIZE, &re_size), 0);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    pcre_free_re(freed->re);
    freed->re = nullptr;
    EXPECT_GE(before - vael_pmglob_memory_get_alloc_total(), (intptr_t)re_size);
}


struct CompileCase { const char *pattern; uint32_t flags; };
const CompileCase kCompileCases[] = {
    {"abc[0-9]+de", 0},
    {"x*", 0}, // no study data: the library's own extra block, and an image without it
    {"^word$", VAEL_PM_BOUND | VAEL_PM_CASELESS}, {"^ab\\ncd$", VAEL_PCRE_MULTILINE},
    {"a+?", VAEL_PM_VERIFY_SYNTAX}, // refused after its text was made
    {"(?=a)b", 0},                   // refused after PCRE compiled it
};

// Each failed round gives null; a refused pattern's round after the last site gives null too, with its own message.
TEST(PcreFailmem, Compile) {
    for (const CompileCase &c : kCompileCases) {
        const bool refused = (c.flags & VAEL_PM_VERIFY_SYNTAX) || c.pattern[0] == '(';
        Handle kept;
        vael_pm_error err;
        vael_pmglob_string *text = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(c.pattern),
                                                             (uint32_t)strlen(c.pattern), -1, c.flags);
        ASSERT_NE(text, nullptr);
        auto attempt = [&] {
            vael_pm_error_init(&err);
            kept.reset(static_cast<vael_pcre_handle *>(vael_pcre_compile(text, 0, c.flags, &err)));
            return kept != nullptr || (refused && err.error_type == VAEL_PM_ERROR_ILLEGAL);
        };
        auto failed_cleanly = [&] { return !kept && err.error_type == VAEL_PM_ERROR_INTERNAL; };
        auto w = vael_test::failmem_walk_each_allocation(attempt, failed_cleanly);
        EXPECT_GE(w.rounds, 2) << c.pattern;
        if (!refused) {
            ASSERT_TRUE(kept) << c.pattern;
            EXPECT_TRUE(vael_pcre_is_valid(kept.get())) << c.pattern;
        }
        vael_pmglob_string_destroy(text);
    }
}

// The copies run as the original and keep its flags and compile figures, the loaded one writes the same image; under
// pcre_exec the recursive pattern compiles, and its bit must travel too.
TEST(PcreFailmem, DuplicateAndLoad) {
    vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, 0);
    for (const CompileCase &c : kCompileCases) {
        if (c.flags & VAEL_PM_VERIFY_SYNTAX)
            continue;
        SCOPED_TRACE(c.pattern);
        auto h = compile(c.pattern, c.flags);
        ASSERT_TRUE(h);
        h->stats.memory = 1234;
        h->stats.compile_time = 56;
        const auto want = behaviour(h.get());
        const uint32_t flags = h->flags;
        const auto image = image_of(h.get());
        Handle kept;
        const std::function<vael_pcre_handle *()> copies[] = {
            [&] { return static_cast<vael_pcre_handle *>(vael_pcre_duplicate(h.get())); },
            [&] { return load(image, (uint32_t)image.size()).release(); }};
        for (const auto &copy : copies) {
            kept.reset();  // the walk's accounts start without the other copy
            vael_test::failmem_walk_each_allocation([&] { return (kept.reset(copy()), kept != nullptr); },
                                                    [&] { return !kept; });
            ASSERT_TRUE(kept);
            h.reset();  // the copy owns nothing of the original
            EXPECT_TRUE(vael_pcre_is_valid(kept.get()));
            EXPECT_EQ(behaviour(kept.get()), want);
            EXPECT_EQ(kept->flags, flags);
            EXPECT_EQ(std::make_pair(kept->stats.memory, kept->stats.compile_time), std::make_pair(1234u, 56u));
        }
        EXPECT_EQ(image_of(kept.get()), image);
    }
}

// What a host does: compile, study, match, and keep the blocks.
struct HostPattern { pcre *re = nullptr; pcre_extra *extra = nullptr; };

HostPattern host_compile(const char *pattern) {
    HostPattern p;
    const char *message = nullptr;
    int offset = 0;
    p.re = pcre_compile(pattern, 0, &message, &offset, nullptr);
    EXPECT_NE(p.re, nullptr) << pattern;
    if (p.re)
        p.extra = pcre_study(p.re, 0, &message);
    return p;
}

bool host_matches(const HostPattern &p, const char *text) {
    int ovector[30];
    return pcre_exec(p.re, p.extra, text, (int)strlen(text), 0, 0, ovector, 30) >= 0;
}

void host_free(HostPattern &p) {
    pcre_free(p.extra); // a host of this PCRE releases both through pcre_free
    pcre_free(p.re);
    p = HostPattern{};
}

int restart_pcre_tier() { return vael_pcre_init(&pm_tier2_funcs[VAEL_PM_TIER2_PCRE]); }

TEST(PcreHost, BlocksAroundAndBetweenLibraryCalls) {
    const intptr_t kmem_start = qx_kmem_get_alloc_total();
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();

    // The library's hooks are in: a host block is still the host's.
    HostPattern during = host_compile("host(a|b)+");
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
    auto lib = compile("lib[0-9]+");
    ASSERT_TRUE(lib);
    EXPECT_GT(vael_pmglob_memory_get_alloc_total(), pm_start);
    EXPECT_TRUE(host_matches(during, "xhostab"));
    EXPECT_EQ(run(lib.get(), "a lib42").matches.size(), 1u);

    // Stop: the hooks go back; a block made now is plain.
    vael_pcre_fini();
    auto *const stock_malloc = pcre_malloc;
    HostPattern after = host_compile("after");
    EXPECT_TRUE(host_matches(after, "xafter"));
    // A handle of the library outlives the stop and is released by it.
    EXPECT_EQ(run(lib.get(), "lib7").matches.size(), 1u);
    lib.reset();
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);

    // Start again: blocks of both earlier periods go to the stock free.
    ASSERT_EQ(restart_pcre_tier(), 0);
    EXPECT_NE(pcre_malloc, stock_malloc);
    host_free(during);
    host_free(after);
    auto lib2 = compile("again");
    ASSERT_TRUE(lib2);
    HostPattern between = host_compile("between");
    lib2.reset();
    EXPECT_TRUE(host_matches(between, "between"));
    host_free(between);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem_start);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

// A host that installs hooks of its own after the start keeps them at the
// stop; the library's compile refuses while they are in.
TEST(PcreHost, HostHooksSurviveTheStop) {
    vael_pcre_fini();
    auto *const stock_malloc = pcre_malloc;
    auto *const stock_free = pcre_free;
    ASSERT_EQ(restart_pcre_tier(), 0);
    static std::atomic<int> host_allocs;
    host_allocs = 0;
    auto host_malloc = [](size_t n) -> void * {
        host_allocs++;
        return malloc(n);
    };
    pcre_malloc = host_malloc;
    pcre_free = free;
    vael_pm_error err;
    EXPECT_FALSE(compile("abc", 0, 0, &err));
    EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
    vael_pcre_fini();
    EXPECT_EQ(pcre_malloc, static_cast<void *(*)(size_t)>(host_malloc));
    HostPattern p = host_compile("abc");
    EXPECT_GT(host_allocs.load(), 0);
    host_free(p);
    pcre_malloc = stock_malloc;
    pcre_free = stock_free;
    ASSERT_EQ(restart_pcre_tier(), 0);
    EXPECT_TRUE(compile("abc"));
}

// A host thread compiles, matches and frees while the library compiles and
// destroys on another: each call's blocks go by the thread it runs on.
TEST(PcreHost, ConcurrentHostThread) {
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    std::atomic<bool> ok{true};
    std::thread host([&] {
        for (int i = 0; i < 300; i++) {
            HostPattern p = host_compile("h[a-z]+o");
            if (!host_matches(p, "xhello"))
                ok = false;
            host_free(p);
        }
    });
    for (int i = 0; i < 300; i++) {
        auto h = compile("w[a-z]+d");
        ASSERT_TRUE(h);
        EXPECT_EQ(run(h.get(), "world").matches.size(), 1u);
    }
    host.join();
    EXPECT_TRUE(ok);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

}  // namespace
