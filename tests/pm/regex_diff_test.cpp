// Regular expressions through the PM against PCRE run per pattern over the same data: which patterns match, where
// their matches end and start, in first-only and report-all runs; a virtual-buffer split gives what the flat run
// gives; a mask silences exactly its patterns.
#include <gtest/gtest.h>
#include <pcre.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tests/pm/pm_test_util.h"

namespace {

using vael_test::LogCapture;
using vael_test::SplitText;

struct Match {
    int32_t id;
    uint32_t start, end;
    bool operator<(const Match &o) const { return std::tie(id, end, start) < std::tie(o.id, o.end, o.start); }
    bool operator==(const Match &o) const { return id == o.id && start == o.start && end == o.end; }
};

void PrintTo(const Match &m, std::ostream *os) { *os << "{id " << m.id << ", " << m.start << "-" << m.end << "}"; }

struct Rx { std::string text; bool caseless; };

constexpr int32_t kIdBase = 100;
const char kAlphabet[] = "abcdzABZ01";

std::string random_literal(std::mt19937 &rng, int min_len, int max_len) {
    std::string s;
    int n = std::uniform_int_distribution<int>(min_len, max_len)(rng);
    for (int i = 0; i < n; i++)
        s += "abcdz01"[rng() % 7];
    return s;
}

// literal, a repeated class or dot, maybe a second literal; sometimes anchored at the start or end.
Rx random_regex(std::mt19937 &rng) {
    static const char *kRepeats[] = {"[a-c]+", "d*", ".*", "[^a]+", "\\d+", "(ab|c)+", "[0-9a]*", ".+"};
    static const char *kFixed[] = {"", ".", "[bd]", "(a|cd)", "b?"};
    std::string s;
    if (rng() % 6 == 0)
        s += '^';
    s += random_literal(rng, 2, 3);
    s += kFixed[rng() % 5];
    s += kRepeats[rng() % 8];
    if (rng() % 2)
        s += random_literal(rng, 1, 2);
    if (rng() % 8 == 0)
        s += '$';
    return Rx{s, rng() % 4 == 0};
}

std::string random_text(std::mt19937 &rng, size_t max_len) {
    std::string t;
    size_t n = std::uniform_int_distribution<size_t>(0, max_len)(rng);
    for (size_t i = 0; i < n; i++)
        t += kAlphabet[rng() % (sizeof kAlphabet - 1)];
    return t;
}

// PCRE alone over the whole text, with the options of the second tier.
std::vector<Match> reference(const std::vector<Rx> &set, const std::string &text, bool all,
                             const std::vector<bool> &exact) {
    std::vector<Match> out;
    std::vector<int> workspace(4096);
    for (size_t i = 0; i < set.size(); i++) {
        const char *msg;
        int at;
        int options = PCRE_UNGREEDY | PCRE_NO_AUTO_CAPTURE | PCRE_DOTALL | (set[i].caseless ? PCRE_CASELESS : 0);
        pcre *re = pcre_compile(set[i].text.c_str(), options, &msg, &at, nullptr);
        EXPECT_NE(re, nullptr) << set[i].text;
        if (!re)
            continue;
        for (int from = 0; all && exact[i] && from < (int)text.size(); from++) {
            int ov[3];
            if (pcre_dfa_exec(re, nullptr, text.data(), (int)text.size(), from, PCRE_DFA_SHORTEST | PCRE_ANCHORED, ov,
                              3, workspace.data(), (int)workspace.size()) >= 0)
                out.push_back(Match{kIdBase + (int32_t)i, (uint32_t)ov[0], (uint32_t)ov[1] - 1});
        }
        int from = 0;
        while (!(all && exact[i]) && from < (int)text.size()) {
            int ov[3];
            int rc = pcre_dfa_exec(re, nullptr, text.data(), (int)text.size(), from, PCRE_DFA_SHORTEST, ov, 3,
                                   workspace.data(), (int)workspace.size());
            if (rc < 0 || ov[1] <= from)
                break;
            out.push_back(Match{kIdBase + (int32_t)i, (uint32_t)ov[0], (uint32_t)ov[1] - 1});
            if (!all)
                break;
            from = ov[1];
        }
        pcre_free(re);
    }
    std::sort(out.begin(), out.end());
    return out;
}

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *, uint32_t *extra) {
    static_cast<std::vector<Match> *>(arg)->push_back(Match{id, extra[1], offset});
    return 0;
}

class RegexPm {
  public:
    explicit RegexPm(const std::vector<Rx> &set) {
        vael_pm_patterns *list = vael_pm_patterns_create();
        for (size_t i = 0; i < set.size(); i++) {
            std::string text = (set[i].caseless ? "{caseless}:" : "") + set[i].text;
            EXPECT_EQ(vael_pm_patterns_add_pattern(list, text.data(), (uint32_t)text.size(), kIdBase + (int32_t)i, 0),
                      0);
        }
        LogCapture quiet;
        pm_ = vael_pm_compile(list, nullptr, 0, &err_, "regex diff test");
        vael_pm_patterns_destroy(list);
        if (pm_)
            vael_pm_set_extended_match_cb(pm_, collect);
    }
    ~RegexPm() { vael_pm_destroy(pm_); }
    vael_pm_handle *get() const { return pm_; }
    const vael_pm_error &error() const { return err_; }
    std::vector<bool> exact() const {
        std::vector<bool> out;
        for (uint32_t i = 0; i < pm_->num_tier2; i++)
            out.push_back(pm_->pm_array[i].tier2_h == nullptr);
        return out;
    }

    // The text with its first `cuts` bytes as history blocks, cut at the
    // given places, and the rest as the present buffer.
    std::vector<Match> run(const std::string &text, uint32_t flags, std::vector<size_t> cuts = {},
                           vael_pm_mask *mask = nullptr) const {
        std::vector<Match> got;
        const SplitText split(text, cuts);
        LogCapture quiet;
        int rc = vael_pm_exec_ex(pm_, split.present(), split.present_len(), split.vbuf(), mask, &got,
                                 flags | VAEL_PM_EXEC_MATCH_START);
        // A run over no data at all is refused by the first tier.
        EXPECT_EQ(rc, text.empty() ? -1 : 0);
        std::sort(got.begin(), got.end());
        return got;
    }

  private:
    vael_pm_handle *pm_ = nullptr;
    vael_pm_error err_{};
};

TEST(RegexDifferential, PmAgreesWithPcrePerPattern) {
#if defined(__SANITIZE_ADDRESS__)
    const int rounds = 100;  // each run is several times slower under the sanitizer
#else
    const int rounds = 400;
#endif
    std::mt19937 rng(20261123);
    int compared = 0, matched = 0, exact_patterns = 0;
    for (int round = 0; round < rounds; round++) {
        std::vector<Rx> set;
        const int n = 1 + (int)(rng() % 8);
        for (int i = 0; i < n; i++)
            set.push_back(random_regex(rng));
        RegexPm pm(set);
        ASSERT_NE(pm.get(), nullptr) << set[0].text << ": " << (pm.error().error_string ? pm.error().error_string : "");
        for (bool e : pm.exact())
            exact_patterns += e;
        for (int t = 0; t < 4; t++) {
            const std::string text = random_text(rng, 200);
            if (text.empty())
                continue;
            SCOPED_TRACE("round " + std::to_string(round) + " text " + text);
            for (bool all : {false, true}) {
                const std::vector<Match> want = reference(set, text, all, pm.exact());
                EXPECT_EQ(pm.run(text, all ? VAEL_PM_EXEC_ALL_MATCHES : 0), want) << "all " << all << " " << [&] { std::string s; for (auto &r : set) s += r.text + (r.caseless ? "(i) " : " "); return s; }();
                compared++;
                matched += !want.empty();
            }
        }
    }
    // The generator must reach both outcomes for the comparison to mean much.
    EXPECT_GT(matched, compared / 5);
    EXPECT_LT(matched, compared);
    EXPECT_GT(exact_patterns, 0);
}

// A virtual-buffer split gives what the flat run gives; a mask silences exactly its patterns.
TEST(RegexDifferential, SplitsAndMasksAgreeWithTheFlatRun) {
    std::mt19937 rng(77);
    for (int round = 0; round < 80; round++) {
        std::vector<Rx> set;
        for (int i = 0, n = 1 + (int)(rng() % 6); i < n; i++)
            set.push_back(random_regex(rng));
        RegexPm pm(set);
        ASSERT_NE(pm.get(), nullptr);
        vael_pm_mask *mask = vael_pm_mask_create(pm.get());
        ASSERT_NE(mask, nullptr);
        std::vector<bool> on(set.size());
        for (size_t i = 0; i < set.size(); i++)
            if ((on[i] = rng() % 2)) {
                ASSERT_EQ(vael_pm_mask_set(mask, kIdBase + (int32_t)i), 0);
            }
        const std::string text = random_text(rng, 160) + "ab";
        std::vector<size_t> cuts;
        for (int c = 0, k = 1 + (int)(rng() % 3); c < k; c++)
            cuts.push_back(rng() % (text.size() + 1));
        std::sort(cuts.begin(), cuts.end());
        SCOPED_TRACE("round " + std::to_string(round) + " text " + text);
        for (uint32_t flags : {0u, (uint32_t)VAEL_PM_EXEC_ALL_MATCHES}) {
            const std::vector<Match> flat = pm.run(text, flags);
            EXPECT_EQ(pm.run(text, flags, cuts), flat) << "flags " << flags;
            std::vector<Match> want;
            for (const Match &m : flat)
                if (on[m.id - kIdBase])
                    want.push_back(m);
            EXPECT_EQ(pm.run(text, flags, {}, mask), want) << "flags " << flags;
        }
        vael_pm_mask_destroy(mask);
    }
}

}  // namespace
