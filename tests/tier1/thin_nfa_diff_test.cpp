// Random pattern sets over small alphabets held against brute force, raw and through the PM,
// under every fold, full-state tunable and prefilter setting.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_prefilter.h"

namespace {

using vael_test::Hit;
using vael_test::Pattern;
using vael_test::ScopedGlobal;

struct Config { uint32_t compile_flags; int full_tiers; int max_partial; int contig; };

// The case in C escapes, for a failure's message.
std::string describe(const Config &c, const std::vector<Pattern> &patterns, const std::string &text) {
    std::ostringstream os;
    os << "compile_flags 0x" << std::hex << c.compile_flags << std::dec << ", full_tiers " << c.full_tiers
       << ", max_partial " << c.max_partial << ", contig " << c.contig << "\npatterns:";
    for (const auto &p : patterns)
        os << " " << testing::PrintToString(p.text) << "=" << p.id;
    return os.str() + "\ntext: " + testing::PrintToString(text);
}

class Generator {
  public:
    Generator(std::string alphabet, uint32_t seed) : alphabet_(std::move(alphabet)), rng_(seed) {}

    int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    bool chance(int percent) { return uniform(0, 99) < percent; }
    char symbol() { return alphabet_[uniform(0, (int)alphabet_.size() - 1)]; }

    std::string word(int min_len, int max_len) { return vael_test::random_word(rng_, alphabet_, min_len, max_len); }

    // Another spelling of `s` that folds to the same bytes under `flags`.
    std::string respell(std::string s, uint32_t flags) {
        for (char &c : s) {
            if ((flags & VAEL_PM_CASELESS) && std::isalpha((unsigned char)c) && chance(50))
                c = (char)(std::islower((unsigned char)c) ? std::toupper((unsigned char)c)
                                                          : std::tolower((unsigned char)c));
            if ((flags & VAEL_PM_DIGITLESS) && std::isdigit((unsigned char)c) && chance(50))
                c = (char)('0' + uniform(0, 9));
        }
        return s;
    }

    std::vector<Pattern> patterns(uint32_t flags) {
        std::vector<Pattern> out;
        const int n = uniform(1, 40);
        // Sets without short patterns give the prefilter's buckets longer
        // beginnings, whose offsets past them are no longer free.
        const int min_len = chance(40) ? uniform(2, 8) : 1;
        int32_t next_id = uniform(0, 5) * 100;
        auto add = [&](std::string text) { out.push_back({std::move(text), next_id++ * 3 + 1}); };
        if (chance(30)) {
            // A few stems, each followed by many different symbols: states
            // with wide fan-out, full or searched by halves.
            for (int stems = uniform(1, 3); stems > 0 && (int)out.size() < n; stems--) {
                const std::string stem = word(std::max(1, min_len - 1), std::max(3, min_len - 1));
                for (int k = uniform(2, (int)alphabet_.size()); k > 0 && (int)out.size() < n; k--)
                    add(stem + symbol());
            }
        }
        while ((int)out.size() < n) {
            if (!out.empty() && chance(15))
                add(respell(out[uniform(0, (int)out.size() - 1)].text, flags)); // same text, new id
            else if (!out.empty() && chance(15))
                add(out[uniform(0, (int)out.size() - 1)].text.substr(0, uniform(min_len, 10))); // a prefix
            else
                add(word(min_len, 10));
        }
        return out;
    }

    std::string text(const std::vector<Pattern> &patterns, uint32_t flags) {
        std::string t;
        const int len = chance(5) ? 0 : uniform(1, 300);
        while ((int)t.size() < len) {
            const int what = uniform(0, 99);
            if (what < 20)
                t += respell(patterns[uniform(0, (int)patterns.size() - 1)].text, flags);
            else if (what < 23)
                t += "\0\xffX5z"[uniform(0, 4)]; // bytes outside the alphabet
            else
                t += symbol();
        }
        t.resize(len);
        return t;
    }

  private:
    std::string alphabet_;
    std::mt19937 rng_;
};

// Hits of one run come in ascending end offset, and for one offset from the
// longest pattern down.
void expect_queue_order(const std::vector<Hit> &hits) {
    for (size_t i = 1; i < hits.size(); i++) {
        const Hit &a = hits[i - 1], &b = hits[i];
        if (a.offset > b.offset || (a.offset == b.offset && a.hint < b.hint))
            FAIL() << "hit " << i << " (id " << b.id << " at " << b.offset << ", length " << b.hint
                   << ") comes after id " << a.id << " at " << a.offset << ", length " << a.hint;
    }
}

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *) {
    static_cast<std::vector<Hit> *>(arg)->push_back(Hit{id, offset});
    return 0;
}

class ThinNfaDifferential : public testing::TestWithParam<const char *> {
  protected:
    // One pattern set under one configuration, over a few texts.
    void check_set(Generator &gen, const Config &cfg) {
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, cfg.full_tiers);
        ScopedGlobal partial(vael_thin_nfa_max_partial_trans, cfg.max_partial);
        ScopedGlobal contig(vael_thin_nfa_optimize_contig_chars, cfg.contig);

        const std::vector<Pattern> patterns = gen.patterns(cfg.compile_flags);
        std::map<int32_t, uint32_t> length_of;
        for (const auto &p : patterns)
            length_of[p.id] = (uint32_t)p.text.size();

        vael_test::ThinNfa nfa(patterns, cfg.compile_flags);
        ASSERT_NE(nfa.get(), nullptr) << describe(cfg, patterns, "");
        vael_test::expect_bnfa_well_formed(nfa.get());
        ASSERT_FALSE(HasFailure()) << describe(cfg, patterns, "");

        vael_pm_patterns *list = vael_pm_patterns_create();
        for (const auto &p : patterns)
            ASSERT_EQ(vael_pm_patterns_add_simple_pattern(list, p.text.data(), (uint32_t)p.text.size(), p.id, 0), 0);
        vael_pm_error err;
        vael_pm_handle *pm = vael_pm_compile(list, collect, cfg.compile_flags, &err, "differential");
        vael_pm_patterns_destroy(list);
        ASSERT_NE(pm, nullptr) << describe(cfg, patterns, "");

        for (int t = 0; t < 5 && !HasFailure(); t++) {
            const std::string text = gen.text(patterns, cfg.compile_flags);
            SCOPED_TRACE(describe(cfg, patterns, text));
            const auto all = vael_test::brute_force_all(patterns, text, cfg.compile_flags);
            const auto first = vael_test::first_per_id(all);
            const int want_rc = text.empty() ? -1 : 0;

            // An empty buffer is refused with an assertion, kept out of the
            // output and checked to be the expected one.
            vael_test::LogCapture log;

            // The queue of the plain run, which every prefilter run must
            // repeat in the same order.
            std::vector<Hit> plain_all, plain_first;
            for (int mode : vael_test::all_prefilter_modes()) {
                ScopedGlobal prefilter(vael_thin_nfa_prefilter, mode);
                SCOPED_TRACE("prefilter " + std::to_string(mode));
                std::vector<Hit> hits;
                ASSERT_EQ(nfa.exec(text, &hits, VAEL_PM_EXEC_ALL_MATCHES), want_rc);
                expect_queue_order(hits);
                if (mode == THIN_NFA_PREFILTER_OFF)
                    plain_all = hits;
                EXPECT_EQ(hits, plain_all);
                for (const auto &h : hits)
                    ASSERT_TRUE(h.hint == length_of[h.id] && h.match_flags == VAEL_PMGLOB_MATCH_KEEP_ALL)
                        << "hit of id " << h.id << " at " << h.offset << ": length " << h.hint << ", flags "
                        << h.match_flags;
                EXPECT_EQ(vael_test::sorted(hits), all);

                ASSERT_EQ(nfa.exec(text, &hits, 0), want_rc);
                expect_queue_order(hits);
                if (mode == THIN_NFA_PREFILTER_OFF)
                    plain_first = hits;
                EXPECT_EQ(hits, plain_first);
                EXPECT_EQ(vael_test::sorted(hits), first);

                // Under digitless a string with a digit is confirmed by a
                // second tier that checks its digits: only the Thin NFA folds.
                for (uint32_t flags : {VAEL_PM_EXEC_ALL_MATCHES, 0u}) {
                    if (cfg.compile_flags & VAEL_PM_DIGITLESS)
                        break;
                    std::vector<Hit> delivered;
                    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()),
                                              (uint32_t)text.size(), nullptr, nullptr, &delivered, flags),
                              want_rc);
                    EXPECT_TRUE(std::is_sorted(delivered.begin(), delivered.end(),
                                               [](const Hit &a, const Hit &b) { return a.offset < b.offset; }));
                    EXPECT_EQ(vael_test::sorted(delivered), flags ? all : first) << "through the PM, flags " << flags;
                }
            }
            EXPECT_EQ(log.contains("Illegal arguments"), text.empty()) << log.text();
        }
        vael_pm_destroy(pm);
    }
};

TEST_P(ThinNfaDifferential, AgreesWithBruteForce) {
    const std::string alphabet = GetParam();
    uint32_t seed = 2166136261u; // FNV-1a of the alphabet: one fixed seed per suite
    for (unsigned char c : alphabet)
        seed = (seed ^ c) * 16777619u;
    Generator gen(alphabet, seed);
    const uint32_t folds[] = {0, VAEL_PM_CASELESS, VAEL_PM_DIGITLESS, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS};
    const int max_partials[] = {1, 2, 6, 7, 63};
    // Every combination of folding, full tiers, fan-out limit and run
    // optimisation, each with its own random pattern set.
    int sets = 0;
    for (int contig = 0; contig < 2; contig++)
        for (int max_partial : max_partials)
            for (int tiers = 0; tiers < 4; tiers++)
                for (uint32_t fold : folds) {
                    check_set(gen, Config{fold, tiers, max_partial, contig});
                    ASSERT_FALSE(HasFailure()) << "stopped after the first failing set";
                    sets++;
                }
    EXPECT_EQ(sets, 160);
}

// "ab" and "abc" make overlaps and repeats; the mixed set folds under both
// flags; the wide one gives states with many children.
const char *const kAlphabetNames[] = {"TwoLetters", "ThreeLetters", "MixedCaseAndDigits", "TwelveLetters"};
INSTANTIATE_TEST_SUITE_P(Alphabets, ThinNfaDifferential, testing::Values("ab", "abc", "aAbBzZ0172", "abcdefghijkl"),
                         [](const testing::TestParamInfo<const char *> &info) {
                             return std::string(kAlphabetNames[info.index]);
                         });

}  // namespace
