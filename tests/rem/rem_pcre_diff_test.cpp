// The REM against PCRE on random expressions and texts: match ends, and starts by brute force.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/rem/rem_support.h"
#include "tests/support/pcre_whole.h"

namespace {

using vael_test::Rem;
using vael_test::RemHit;
using vael_test::WholeMatch;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;
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
