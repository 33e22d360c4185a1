// The LSS against PCRE over random expressions: every subject PCRE matches contains an LSS string.
#include <gtest/gtest.h>
#include <pcre.h>

#include <algorithm>
#include <string>
#include <vector>

#include "analysis/vael_pm_lss_finder.h"
#include "tests/support/random_regex.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_apps.h"

namespace {

std::string lower(std::string s) {
    for (char &c : s)
        c = (char)vael_test::fold((unsigned char)c, VAEL_PM_CASELESS);
    return s;
}

class LssAgainstPcre : public testing::TestWithParam<bool> {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(vael_apps_init(nullptr), 0); }
    static void TearDownTestSuite() { vael_apps_fini(); }
};

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
