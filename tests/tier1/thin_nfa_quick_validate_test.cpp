// The quick proof of a BNFA's soundness, held against the breadth-first walk
// that decides: on compiled automata of every shape it proves them (so a
// load takes the quick road), and under every single-word damage of small
// ones it never calls sound what the walk refuses.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_test::ThinNfa;

struct Shape {
    const char *name;
    std::vector<Pattern> patterns;
    uint32_t compile_flags;
    int full_tiers;
};

std::vector<Pattern> random_set(unsigned seed, int count, const std::string &alphabet, size_t min_len) {
    std::mt19937 rng(seed);
    std::vector<Pattern> out;
    for (int id = 1; id <= count; id++) {
        std::string text;
        for (size_t n = min_len + rng() % 9; n > 0; n--)
            text += alphabet[rng() % alphabet.size()];
        out.push_back({text, id});
    }
    return out;
}

std::vector<Shape> shapes() {
    // Many transitions from one state and runs of one byte make full states
    // below the full tiers, whose parents the layout puts after them.
    return {
        {"he she his hers", {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}}, 0, 2},
        {"one byte and runs", {{"a", 1}, {"aaaa", 2}, {"xaaab", 3}, {"ba", 4}}, 0, 2},
        {"wide state", random_set(7, 40, "abcdefghijklmnop", 1), 0, 2},
        {"small alphabet", random_set(3, 60, "abcd", 2), 0, 1},
        {"three tiers", random_set(5, 30, "abcxyz", 1), 0, 3},
        {"caseless", random_set(9, 25, "aBcD1", 2), VAEL_PM_CASELESS, 2},
        {"digitless", random_set(11, 25, "ab0189", 2), VAEL_PM_DIGITLESS, 2},
        {"large", random_set(13, 2000, "abcdefgh", 3), 0, 2},
    };
}

TEST(ThinNfaQuickValidation, ProvesEveryCompiledShape) {
    for (const Shape &shape : shapes()) {
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, shape.full_tiers);
        ThinNfa nfa(shape.patterns, shape.compile_flags);
        ASSERT_NE(nfa.get(), nullptr) << shape.name;
        EXPECT_EQ(vael_thin_nfa_validate_quick(nfa.get()), 1) << shape.name;
        EXPECT_EQ(vael_thin_nfa_validate_walk(nfa.get()), 1) << shape.name;
    }
}

// Words of the BNFA, and the leading region's bound, changed in ways
// that break links, kinds, order, levels and the finite flags.
TEST(ThinNfaQuickValidation, NeverProvesWhatTheWalkRefuses) {
    for (const Shape &shape : shapes()) {
        if (shape.patterns.size() > 100)
            continue;
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, shape.full_tiers);
        ThinNfa nfa(shape.patterns, shape.compile_flags);
        ASSERT_NE(nfa.get(), nullptr);
        vael_thin_nfa *n = nfa.get();
        // Offsets of a few states to point links at: the root, the next
        // state, the last one.
        std::vector<uint32_t> targets = {0, BNFA_FULL_STATE_WORDS, n->bnfa_full_size / 4, n->bnfa_size / 4 - 3};
        const uint32_t words = n->bnfa_size / 4;
        // Where the proof fails the walk decides anyway; it runs only now
        // and then there, to show that the damage was both kinds.
        int proven = 0, refused = 0, tries = 0;
        auto check = [&](const char *what, uint32_t at) {
            LogCapture quiet;
            if (vael_thin_nfa_validate_quick(n) == 1) {
                proven++;
                EXPECT_EQ(vael_thin_nfa_validate_walk(n), 1) << shape.name << ": " << what << " at word " << at;
            } else if (tries++ % 16 == 0 && vael_thin_nfa_validate_walk(n) == 0) {
                refused++;
            }
        };
        // Full tables are long and alike: a sample of their entries, and
        // of a large BNFA's partial states.
        const uint32_t step = words / 1000 + 1;
        for (uint32_t at = 0; at < words; at += (at < n->bnfa_full_size / 4 ? 13 : 1) * step) {
            const uint32_t saved = n->bnfa[at];
            const uint32_t changes[] = {saved ^ 1u, saved ^ 2u, saved ^ 0x100u, saved + 0x100u, saved - 0x100u};
            for (uint32_t changed : changes) {
                n->bnfa[at] = changed;
                check("bits", at);
            }
            for (uint32_t t : targets) {
                n->bnfa[at] = (saved & 0xffu) | t << 8;
                check("low byte kept, link moved", at);
                n->bnfa[at] = t;
                check("full entry moved", at);
            }
            n->bnfa[at] = saved;
        }
        const uint32_t full_size = n->bnfa_full_size;
        for (uint32_t size : {0u, full_size - 4, full_size + 4, full_size + BNFA_FULL_STATE_BYTES}) {
            n->bnfa_full_size = size;
            check("leading region", size);
        }
        n->bnfa_full_size = full_size;
        EXPECT_EQ(vael_thin_nfa_validate_quick(n), 1) << shape.name;
        // The damage was both kinds, or the test proves little.
        EXPECT_GT(proven, 0) << shape.name;
        EXPECT_GT(refused, 0) << shape.name;
    }
}

}  // namespace
