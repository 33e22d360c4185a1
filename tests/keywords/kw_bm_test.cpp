// Boyer-Moore tables and search, held against the tables' defining steps
// and a naive search.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "keywords/vael_bm.h"
#include "pm/vael_pm_strings.h"

namespace {

const unsigned char *u(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.data()); }

struct Tables {
    uint16_t *skip = nullptr;
    uint16_t *shift = nullptr;
    uint32_t max_len_skip = 0;
    uint32_t m = 0;
    Tables(const std::string &pattern, bool caseless) : m((uint32_t)pattern.size()) {
        skip = vael_bm_create_skiptable(u(pattern), m, caseless);
        shift = vael_bm_create_shifttable(u(pattern), m, &max_len_skip);
    }
    ~Tables() { vael_bm_destroy(skip, shift, m); }
    std::vector<int> shift_vector() const { return std::vector<int>(shift, shift + m); }
};

// The shift table by its defining steps, quadratic and plain.
std::vector<int> reference_shift(const std::string &p, uint32_t *max_len_skip) {
    const int m = (int)p.size();
    std::vector<int> L(m, 0);
    for (int k = 1; k < m; k++)
        while (L[k] < m - k && p[m - 1 - L[k]] == p[m - k - 1 - L[k]])
            L[k]++;
    int period = 0;
    for (int k = 1; k < m; k++)
        if (L[k] == m - k)
            period = k;
    std::vector<int> shift(m);
    for (int i = 0; i < m; i++)
        shift[i] = i < period ? period : m;
    for (int k = m - 1; k >= 1; k--)
        shift[m - 1 - L[k]] = k;
    *max_len_skip = period ? period : m;
    return shift;
}

int proper_borders(const std::string &p) {
    int n = 0;
    for (size_t len = 1; len < p.size(); len++)
        n += p.compare(0, len, p, p.size() - len, len) == 0;
    return n;
}

std::vector<uint32_t> naive_all(const std::string &hay, const std::string &needle, bool caseless) {
    std::vector<uint32_t> out;
    for (size_t pos = 0; pos + needle.size() <= hay.size(); pos++) {
        bool eq = true;
        for (size_t j = 0; j < needle.size() && eq; j++)
            eq = (caseless ? to_lower(hay[pos + j]) : (unsigned char)hay[pos + j]) == (unsigned char)needle[j];
        if (eq)
            out.push_back((uint32_t)pos);
    }
    return out;
}

// Every find, restarting one byte behind the last.
std::vector<uint32_t> bm_all(const std::string &hay, const std::string &needle, bool caseless) {
    Tables t(needle, caseless);
    std::vector<uint32_t> out;
    uint32_t start = 0;
    for (;;) {
        int found = 0;
        uint32_t at = caseless ? vael_bm_ci_search(u(hay), (uint32_t)hay.size(), u(needle), t.m, t.skip, t.shift,
                                                   start, &found)
                               : vael_bm_search(u(hay), (uint32_t)hay.size(), u(needle), t.m, t.skip, t.shift, start,
                                                &found);
        if (!found)
            return out;
        out.push_back(at);
        start = at + 1;
    }
}

TEST(KwBmTables, ShiftTableExamples) {
    struct Case {
        const char *pattern;
        std::vector<int> shift;
        uint32_t max_len_skip;
    } cases[] = {
        {"abab", {2, 2, 4, 1}, 2},
        // The k = 1 border "aa" writes entry 0 with 1 over the period's 2.
        {"aaa", {1, 2, 3}, 2},
        {"a", {1}, 1},
        {"abc", {3, 3, 1}, 3},  // no border: the period is m
        {"abaaba", {5, 5, 3, 5, 2, 1}, 5},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pattern);
        Tables t(c.pattern, false);
        ASSERT_NE(t.shift, nullptr);
        EXPECT_EQ(t.shift_vector(), c.shift);
        EXPECT_EQ(t.max_len_skip, c.max_len_skip);
    }
}

TEST(KwBmTables, ShiftTableMatchesItsDefiningSteps) {
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; round++) {
        const int alphabet = 1 + (int)(rng() % 3);
        const int m = 1 + (int)(rng() % 24);
        std::string p;
        for (int i = 0; i < m; i++)
            p += (char)('a' + rng() % alphabet);
        SCOPED_TRACE(p);
        uint32_t want_period = 0;
        std::vector<int> want = reference_shift(p, &want_period);
        Tables t(p, false);
        ASSERT_EQ(t.shift_vector(), want);
        ASSERT_EQ(t.max_len_skip, want_period);
    }
}

TEST(KwBmTables, SkipTable) {
    Tables plain("abca", false);
    EXPECT_EQ(plain.skip['a'], 0);  // the last place wins
    EXPECT_EQ(plain.skip['b'], 2);
    EXPECT_EQ(plain.skip['c'], 1);
    EXPECT_EQ(plain.skip['A'], 4);
    EXPECT_EQ(plain.skip['z'], 4);
    Tables caseless("ab\xe9", true);
    EXPECT_EQ(caseless.skip['a'], 2);
    EXPECT_EQ(caseless.skip['A'], 2);
    EXPECT_EQ(caseless.skip['B'], 1);
    EXPECT_EQ(caseless.skip[0xe9], 0);
    EXPECT_EQ(caseless.skip[0xc9], 3);  // bytes from 0x80 have no case
}

TEST(KwBmSearch, Edges) {
    struct Case {
        std::string hay;
        std::string needle;
        bool caseless;
        uint32_t start;
        int found;
        uint32_t at;
    } cases[] = {
        {"abcd", "abcd", false, 0, 1, 0},  // as long as the buffer
        {"abce", "abcd", false, 0, 0, 0},
        {"abc", "abcd", false, 0, 0, 0},  // one longer: stops at once
        {"ababab", "abab", false, 0, 1, 0},
        {"ababab", "abab", false, 1, 1, 2},
        {"xxABAB", "abab", true, 0, 1, 2},
        {"xxABAB", "abab", false, 0, 0, 0},
        {"\x80\xff\xe9", "\xff\xe9", false, 0, 1, 1},
        {"\xc9", "\xe9", true, 0, 0, 0},  // the caseless table leaves high bytes alone
        {"abc", "", false, 2, 1, 2},      // an empty pattern is found at the start
        {"abc", "c", false, 3, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.needle << " in " << c.hay << " from " << c.start);
        Tables t(c.needle, c.caseless);
        int found = -1;
        uint32_t at = c.caseless ? vael_bm_ci_search(u(c.hay), (uint32_t)c.hay.size(), u(c.needle), t.m, t.skip,
                                                     t.shift, c.start, &found)
                                 : vael_bm_search(u(c.hay), (uint32_t)c.hay.size(), u(c.needle), t.m, t.skip,
                                                  t.shift, c.start, &found);
        EXPECT_EQ(found, c.found);
        if (found) {
            EXPECT_EQ(at, c.at);
        }
    }
    int found = -1;
    EXPECT_EQ(vael_bm_search_vbuf_opt(nullptr, u("a"), 1, nullptr, nullptr, 0, &found), 0);
}

// The period of a pattern with two borders or more is the shortest border's
// shift, and a mismatch early in such a pattern steps over an overlapping
// match: "abaaba" behind "Xbaaba" is passed over.
TEST(KwBmSearch, ShortestBorderPeriodPassesOverlapsOver) {
    EXPECT_EQ(bm_all("Xbaabaaba", "abaaba", false), std::vector<uint32_t>{});
    EXPECT_EQ(naive_all("Xbaabaaba", "abaaba", false), std::vector<uint32_t>{3});
}

TEST(KwBmSearch, AgainstNaiveSearch) {
    std::mt19937 rng(11);
    const std::string alphabets[] = {"ab", "abAB", "abcABC", std::string("a\x80\xff", 3)};
    int complete_checked = 0;
    for (int round = 0; round < 4000; round++) {
        const std::string &alpha = alphabets[round % 4];
        const bool caseless = (round / 4) % 2;
        std::string needle, hay;
        const int m = 1 + (int)(rng() % 8);
        const int n = (int)(rng() % 64);
        for (int i = 0; i < m; i++) {
            char c = alpha[rng() % alpha.size()];
            needle += caseless ? (char)to_lower((unsigned char)c) : c;
        }
        for (int i = 0; i < n; i++)
            hay += alpha[rng() % alpha.size()];
        SCOPED_TRACE(testing::Message() << "needle " << needle << " hay " << hay << " caseless " << caseless);
        const std::vector<uint32_t> want = naive_all(hay, needle, caseless);
        const std::vector<uint32_t> got = bm_all(hay, needle, caseless);
        // Every find is a true place, in rising order.
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_TRUE(std::find(want.begin(), want.end(), got[i]) != want.end()) << got[i];
            if (i) {
                ASSERT_LT(got[i - 1], got[i]);
            }
        }
        // With at most one border the tables are safe, and nothing is missed.
        if (proper_borders(needle) <= 1) {
            ASSERT_EQ(got, want);
            complete_checked++;
        }
    }
    EXPECT_GT(complete_checked, 1000);
}

}  // namespace
