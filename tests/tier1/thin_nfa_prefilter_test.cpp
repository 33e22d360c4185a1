// The Thin NFA's candidate prefilter never passes over a pattern start; runs against brute force.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_prefilter.h"

namespace {

using vael_test::Hit;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_test::numbered;

std::vector<vael_thin_nfa_prefilter_find_fn> searches() {
    std::vector<vael_thin_nfa_prefilter_find_fn> out = {vael_thin_nfa_prefilter_find_plain_fn()};
    if (vael_thin_nfa_prefilter_find_avx2_fn())
        out.push_back(vael_thin_nfa_prefilter_find_avx2_fn());
    return out;
}

// A handle made from nothing but another one's BNFA, flags and translation
// table, as a loaded image makes it: no pattern lists, no prefilter.
vael_thin_nfa *bare_copy(const vael_thin_nfa *nfa) {
    vael_thin_nfa *copy = vael_thin_nfa_create(nfa->state_num, nfa->bnfa_size, nfa->bnfa_full_size);
    if (!copy)
        return nullptr;
    std::memcpy(copy->bnfa, nfa->bnfa, nfa->bnfa_size);
    copy->flags = nfa->flags;
    std::memcpy(copy->xlation_tab, nfa->xlation_tab, sizeof copy->xlation_tab);
    return copy;
}

// Over random sets and texts: every position where brute force finds a
// pattern's start passes the one-position test and the confirmation, and
// from every position both searches stop no later than the first such start
// and only where both pass.
TEST(ThinNfaPrefilter, NoPatternStartIsPassedOver) {
    std::mt19937 rng(4711);
    const std::string alphabet = "abcAB01";
    auto word = [&](size_t lo, size_t hi) { return vael_test::random_word(rng, alphabet, lo, hi); };
    const uint32_t folds[] = {0, VAEL_PM_CASELESS, VAEL_PM_DIGITLESS, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS};
#if defined(__SANITIZE_ADDRESS__)
    const int rounds = 48;  // every fold, tier count and text kind still meet
#else
    const int rounds = 200;
#endif
    for (int round = 0; round < rounds; round++) {
        const uint32_t flags = folds[round % 4];
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, round % 3 + 1);
        const size_t min_len = 1 + rng() % 8;
        std::vector<std::string> texts;
        // Every eighth set large: wider domains, and lengths that share
        // buckets or split among several.
        for (int n = round % 8 == 7 ? 600 : 1 + rng() % 30; n > 0; n--)
            texts.push_back(word(min_len, 20));
        const std::vector<Pattern> patterns = numbered(texts);
        vael_test::ThinNfa nfa(patterns, flags);
        ASSERT_NE(nfa.get(), nullptr);
        const vael_thin_nfa_prefilter_tables *pf = nfa.get()->prefilter;
        ASSERT_NE(pf, nullptr);
        // Half the texts made of the patterns themselves, so starts abound.
        std::string text = word(THIN_NFA_PREFILTER_LOAD, 200);
        if (round % 2)
            for (size_t i = 0; i < texts.size() && text.size() < 300; i++)
                text.insert(rng() % text.size(), texts[i]);
        const auto *data = reinterpret_cast<const unsigned char *>(text.data());
        const auto *end = data + text.size();
        const size_t positions = text.size() - (THIN_NFA_PREFILTER_LOAD - 1);
        std::vector<bool> candidate(positions), start(positions);
        std::vector<size_t> next_start(positions + 1, positions);  // the first start at or after a position
        for (size_t i = 0; i < positions; i++)
            candidate[i] =
                vael_thin_nfa_prefilter_test(pf, data + i) && vael_thin_nfa_prefilter_confirm(pf, data + i, end);
        for (const Hit &h : vael_test::brute_force_all(patterns, text, flags)) {
            size_t at = h.offset + 1 - h.hint;
            if (at < positions) {
                start[at] = true;
                EXPECT_TRUE(candidate[at]) << "round " << round << ": id " << h.id << " at " << at;
            }
        }
        for (size_t i = positions; i-- > 0;)
            next_start[i] = start[i] ? i : next_start[i + 1];
        for (auto find : searches()) {
            for (size_t from = 0; from < positions; from++) {
                const size_t got = (size_t)(find(pf, data + from, end) - data);
                ASSERT_GE(got, from) << "round " << round;
                ASSERT_LE(got, next_start[from]) << "round " << round << ", from " << from;
                ASSERT_TRUE(got == positions || candidate[got]) << "round " << round << ", from " << from;
            }
            // Fewer than the bytes a test reads left: the automaton reads them.
            for (size_t from = positions; from <= text.size(); from++)
                EXPECT_EQ(find(pf, data + from, data + text.size()), data + from);
        }
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

// A bare BNFA, as a load gives it, gets the tables of the compile; they are
// counted in the PM account, a rebuild replaces them, and every allocation
// failure leaves the handle without a filter.
TEST(ThinNfaPrefilter, BareBnfaGivesTheCompiledTables) {
    for (uint32_t flags : {0u, (uint32_t)VAEL_PM_CASELESS, (uint32_t)VAEL_PM_DIGITLESS}) {
        SCOPED_TRACE(flags);
        vael_test::ThinNfa nfa(numbered({"GET /index", "Host: ", "cmd=", "xYz9", "\x01\x02\x03\x04\x05"}), flags);
        ASSERT_NE(nfa.get(), nullptr);
        vael_thin_nfa *copy = bare_copy(nfa.get());
        ASSERT_NE(copy, nullptr);
        ASSERT_EQ(copy->prefilter, nullptr);
        const intptr_t before = vael_pmglob_memory_get_alloc_total();
        auto attempt = [&] { return vael_thin_nfa_prefilter_build(copy) == 0; };
        auto unchanged = [&] { return copy->prefilter == nullptr; };
        EXPECT_EQ(vael_test::failmem_walk(attempt, unchanged).rounds, 4);  // record, confirmation, table, success
        const size_t bytes = vael_thin_nfa_prefilter_memory(copy);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total() - before, (intptr_t)bytes);
        ASSERT_EQ(vael_thin_nfa_prefilter_build(copy), 0);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total() - before, (intptr_t)bytes);
        const vael_thin_nfa_prefilter_tables *a = nfa.get()->prefilter, *b = copy->prefilter;
        ASSERT_TRUE(a && b);
        EXPECT_EQ(std::make_tuple(a->domain_bits, a->domain_mask, a->confirm_lengths, a->fold),
                  std::make_tuple(b->domain_bits, b->domain_mask, b->confirm_lengths, b->fold));
        ASSERT_EQ(a->confirm_words, b->confirm_words);
        ASSERT_NE(a->confirm, nullptr);
        EXPECT_EQ(std::memcmp(a->confirm, b->confirm, sizeof(uint32_t) * a->confirm_words), 0);
        EXPECT_EQ(std::memcmp(a->table, b->table, sizeof(uint64_t) << a->domain_bits), 0);
        vael_thin_nfa_prefilter_free(copy);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
        EXPECT_EQ(vael_thin_nfa_prefilter_memory(copy), 0u);
        EXPECT_EQ(vael_test::failmem_walk_each_allocation(attempt, unchanged).rounds, 4);
        vael_thin_nfa_destroy(copy);
    }
}

// A BNFA whose links do not form a trie (every root entry leads to one state
// that loops on itself) would walk without end: it gets no filter, and runs
// read every byte.
TEST(ThinNfaPrefilter, BnfaThatIsNoTrieGetsNoFilter) {
    const uint32_t loop = BNFA_FULL_STATE_WORDS;
    vael_thin_nfa *nfa = vael_thin_nfa_create(2, 4 * (loop + 3), BNFA_FULL_STATE_BYTES);
    ASSERT_NE(nfa, nullptr);
    nfa->bnfa[0] = 0;
    for (uint32_t b = 0; b < 256; b++)
        nfa->bnfa[1 + b] = loop;
    nfa->bnfa[loop] = 1u << BNFA_STATE_ID_SHIFT | BNFA_STATE_PARTIAL;
    nfa->bnfa[loop + 1] = 1;                   // one transition, fail to the root
    nfa->bnfa[loop + 2] = 'a' | loop << 8;     // back to itself
    EXPECT_EQ(vael_thin_nfa_prefilter_build(nfa), 0);
    EXPECT_EQ(nfa->prefilter, nullptr);
    vael_thin_nfa_destroy(nfa);
}

// Whole runs under every setting against brute force, over texts long enough
// for the vector loops, where candidates are everywhere, or sit at every
// distance from the ends of the vector steps and of the data.
TEST(ThinNfaPrefilter, AdversarialTextsAgreeWithBruteForce) {
    std::string first_bytes, spaced, dense;
    for (int i = 0; i < 300; i++)
        first_bytes += "acgx"[(i * 7 + i / 5) % 4];
    for (int gap = 0; gap < 40; gap++)
        spaced += std::string(gap, '.') + "acgt";
    for (int i = 0; i < 200; i++)
        dense += (i % 3) ? "ab" : "a";
    std::vector<std::string> wide = {"cgt", "tacg"};
    std::string wide_text = spaced;
    for (int b = 0; b < 80; b++) {
        wide.push_back(std::string("acg") + (char)(0x30 + b) + "xyz0123456789abc");
        if (b % 7 == 0)
            wide_text += wide.back() + ".acgt" + (char)(0x30 + b) + "xyz012345678.";
    }
    struct Row {
        const char *name;
        std::vector<std::string> patterns;
        uint32_t compile_flags;
        std::string text;
    };
    const Row rows[] = {
        {"every byte a candidate",
         {first_bytes.substr(10, 4), first_bytes.substr(77, 5), first_bytes.substr(150, 9), "xxxx"},
         0,
         first_bytes},
        {"one-byte patterns", {"a", "x"}, 0, first_bytes},
        {"one-byte and long", {"g", "acgtacgtacgt", "cgx"}, 0, first_bytes + spaced},
        {"candidates at every distance", {"acgt", "cgt.", "t..."}, 0, spaced},
        {"candidate in the last bytes", {"acgt", "gt"}, 0, std::string(61, '.') + "acgt"},
        {"pattern cut by the end", {"acgtz"}, 0, std::string(45, '.') + "acgtz" + std::string(20, '.') + "acgt"},
        {"overlaps", {"abab", "ba", "aab"}, 0, dense},
        {"caseless", {"AcGt", "tACG"}, VAEL_PM_CASELESS, spaced + "ACGT.acgt.tacg"},
        {"digitless", {"a1c2", "9x"}, VAEL_PM_DIGITLESS, spaced + "a5c7.a1c2.3x"},
        // Buckets of beginnings shorter than 8 bytes: the offsets past them are free.
        {"shortest of five", {"acgta", "gtacgtac"}, 0, first_bytes + spaced + spaced},
        {"shortest of eight", {"acgtacgt", "t....acgt", "xacgxacgxa"}, 0, spaced + first_bytes + spaced},
        // Text full of a long pattern's first bytes that the confirmation
        // turns away, with the pattern itself among them.
        {"shared prefixes", {"Host: abc", "Host: abd1"}, 0,
         std::string("Host: www.Host: ab.Host: abc.Host: Host: abd1Host: abcHost: ab")},
        {"caseless, long beginnings", {"AcGtAc", "TACGTACG"}, VAEL_PM_CASELESS, spaced + "ACGTAC.acgtac.tacgtacg"},
        // A state three bytes down with more children than a partial state
        // holds is full: its table mixes children with fail transitions.
        {"wide fan-out below the root", wide, 0, wide_text},
        {"wide fan-out, caseless", wide, VAEL_PM_CASELESS, wide_text},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const std::vector<Pattern> patterns = numbered(row.patterns);
        vael_test::ThinNfa nfa(patterns, row.compile_flags);
        ASSERT_NE(nfa.get(), nullptr);
        const auto all = vael_test::brute_force_all(patterns, row.text, row.compile_flags);
        ASSERT_FALSE(all.empty());
        for (int mode : vael_test::all_prefilter_modes()) {
            ScopedGlobal prefilter(vael_thin_nfa_prefilter, mode);
            // Every start offset, so the scan begins at every alignment.
            for (uint32_t offset = 0; offset < 20; offset++) {
                std::vector<Hit> want;
                for (const Hit &h : all)
                    if (h.offset + 1 - h.hint >= offset)
                        want.push_back(h);
                std::vector<Hit> hits;
                ASSERT_EQ(nfa.exec(row.text, &hits, VAEL_PM_EXEC_ALL_MATCHES, offset), 0);
                ASSERT_EQ(vael_test::sorted(hits), want) << "prefilter " << mode << ", offset " << offset;
            }
        }
    }
}

}  // namespace
