// The Boyer-Moore search at its edges and against a naive one (the tables
// are what the search reads: a wrong entry misses or misplaces a find).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "keywords/vael_bm.h"

namespace {

const unsigned char *u(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.data()); }
unsigned char lower(unsigned char c) { return c >= 'A' && c <= 'Z' ? (unsigned char)(c + 32) : c; }

struct Tables {
    uint16_t *skip, *shift;
    uint32_t max_len_skip = 0, m;
    Tables(const std::string &p, bool caseless) : m((uint32_t)p.size()) {
        skip = vael_bm_create_skiptable(u(p), m, caseless);
        shift = vael_bm_create_shifttable(u(p), m, &max_len_skip);
    }
    ~Tables() { vael_bm_destroy(skip, shift, m); }
    uint32_t search(const std::string &hay, uint32_t start, bool caseless, const std::string &p, int *found) const {
        return (caseless ? vael_bm_ci_search : vael_bm_search)(u(hay), (uint32_t)hay.size(), u(p), m, skip, shift,
                                                              start, found);
    }
};

std::vector<uint32_t> naive_all(const std::string &hay, const std::string &p, bool caseless) {
    std::vector<uint32_t> out;
    for (size_t pos = 0; pos + p.size() <= hay.size(); pos++) {
        bool eq = true;
        for (size_t j = 0; j < p.size() && eq; j++)
            eq = (caseless ? lower(hay[pos + j]) : (unsigned char)hay[pos + j]) == (unsigned char)p[j];
        if (eq)
            out.push_back((uint32_t)pos);
    }
    return out;
}

// Every find, restarting one byte behind the last.
std::vector<uint32_t> bm_all(const std::string &hay, const std::string &p, bool caseless) {
    Tables t(p, caseless);
    std::vector<uint32_t> out;
    for (uint32_t start = 0;;) {
        int found = 0;
        const uint32_t at = t.search(hay, start, caseless, p, &found);
        if (!found)
            return out;
        out.push_back(at);
        start = at + 1;
    }
}

int proper_borders(const std::string &p) {
    int n = 0;
    for (size_t len = 1; len < p.size(); len++)
        n += p.compare(0, len, p, p.size() - len, len) == 0;
    return n;
}

TEST(KwBm, AgainstNaiveSearch) {
    std::mt19937 rng(11);
    const std::string alphabets[] = {"ab", "abzABZ", "abcABC", std::string("a\x80\xff", 3)};
    int complete_checked = 0;
    for (int round = 0; round < 4000; round++) {
        const std::string &alpha = alphabets[round % 4];
        const bool caseless = (round / 4) % 2;
        std::string p, hay;
        for (int i = 0, m = 1 + (int)(rng() % 8); i < m; i++)
            p += caseless ? (char)lower(alpha[rng() % alpha.size()]) : alpha[rng() % alpha.size()];
        for (int i = 0, n = (int)(rng() % 64); i < n; i++)
            hay += alpha[rng() % alpha.size()];
        SCOPED_TRACE(testing::Message() << "pattern " << p << " hay " << hay << " caseless " << caseless);
        const std::vector<uint32_t> want = naive_all(hay, p, caseless), got = bm_all(hay, p, caseless);
        // Every find is a true place, in rising order; with at most one
        // border the tables are safe and nothing is missed.
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_TRUE(std::find(want.begin(), want.end(), got[i]) != want.end()) << got[i];
            ASSERT_TRUE(i == 0 || got[i - 1] < got[i]);
        }
        if (proper_borders(p) <= 1) {
            ASSERT_EQ(got, want);
            complete_checked++;
        }
    }
    EXPECT_GT(complete_checked, 1000);
}

}  // namespace
