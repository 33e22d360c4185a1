// The PCRE tier's compile: the text PCRE sees, the options the flags give, the refusals with their exact texts and
// indexes, and the test for constructs that pcre_dfa_exec would run by recursing.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/pcre_tier/pcre_test_util.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_pcre_test::compile;
using vael_pcre_test::Match;
using vael_pcre_test::run;

// Each flag bit shown by what the pattern then matches.
TEST(PcreCompile, OptionsFromFlags) {
    struct Row {
        const char *pattern; uint32_t pattern_flags, compile_flags; std::string text;
        std::vector<Match> want;  // all matches, with starts
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
    };
    for (const Row &r : rows) {
        auto h = compile(r.pattern, r.pattern_flags, r.compile_flags);
        ASSERT_TRUE(h) << r.pattern;
        auto got = run(h.get(), r.text, VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_MATCH_START);
        EXPECT_EQ(got.result, 0);
        EXPECT_EQ(got.matches, r.want) << r.pattern << " flags " << std::hex << r.pattern_flags << "/"
                                       << r.compile_flags;
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

// Under pcre_exec: a quantifier takes as little as it can (PCRE_UNGREEDY) and '?' behind it makes it greedy; the
// recursive constructs compile, carry bit 0x1, and run; a handle without the bit runs under either matcher.
TEST(PcreCompile, UngreedyAndRecursiveUnderPcreExec) {
    vael_test::ScopedGlobal exec_mode(vael_pm_pcre_use_dfa_exec, 0);
    struct Row { const char *pattern; const char *text; std::vector<Match> want; bool recursive; };
    const std::vector<Row> rows = {
        {"a+", "aaa", {{0, 0}, {1, 1}, {2, 2}}, false}, {"a+?", "aaa", {{2, 0}}, false},
        {"a{1,3}", "aaa", {{0, 0}, {1, 1}, {2, 2}}, false}, {"a{1,3}?", "aaa", {{2, 0}}, false},
        {"a.*b", "ab ab", {{1, 0}, {4, 3}}, false}, {"a.*?b", "ab ab", {{4, 0}}, false},
        {"(?=a)a", "ba", {{1, 1}}, true},
        {"(?>a+)b", "aab", {{2, 1}}, true}, // a lazy a+ inside an atomic group
        {"a(?R)?b", "xaabb", {{4, 1}}, true}, {"(?(?=a)ab|c)", "c ab", {{0, 0}, {3, 2}}, true},
        {"(?<=a)b", "bab", {{2, 2}}, true},
    };
    for (const Row &r : rows) {
        auto h = compile(r.pattern);
        ASSERT_TRUE(h) << r.pattern;
        EXPECT_EQ(h->flags, r.recursive ? (uint32_t)VAEL_PCRE_FLAG_RECURSIVE : 0u) << r.pattern;
        auto got = run(h.get(), r.text, VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_MATCH_START);
        EXPECT_EQ(got.matches, r.want) << r.pattern;
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

}  // namespace
