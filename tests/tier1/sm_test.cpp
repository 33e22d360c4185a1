// The string matcher against the Thin NFA and brute force (flat and over cut
// vbufs, every folding), the shape and errors of what it builds, its image
// beside the Thin NFA's, its failure roads, and its run table against the
// state records it is derived from, rebuilt by a copy and a load. Seeds are fixed.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <tuple>

#include "rem/vael_dfa_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tier1/vael_sm.h"

namespace {

using vael_test::Hit;
using vael_test::Pattern;
using Image = std::vector<unsigned char>;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_FROM_PM;
constexpr uint32_t kBoth = VAEL_PM_CASELESS | VAEL_PM_DIGITLESS;

// A compiled SM and the list it was compiled from.
struct Sm {
    Sm(const std::vector<Pattern> &patterns, uint32_t flags) : list(vael_test::string_list(patterns)) {
        vael_pm_error_init(&err);
        dfa = vael_sm_compile(list, flags, &err);
    }
    ~Sm() {
        vael_dfa_destroy(dfa);
        vael_pmglob_patterns_destroy(list);
    }
    vael_pmglob_patterns *list;
    vael_pm_error err;
    vael_dfa *dfa;
};

std::vector<Hit> run(vael_dfa *dfa, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t flags = kAll) {
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_dfa_tier1_exec(dfa, buf, len, vbuf, 0, &queue, flags, nullptr, nullptr), 0);
    return vael_test::sorted(vael_test::drain_queue(queue));
}
std::vector<Hit> run(vael_dfa *dfa, const std::string &text, uint32_t flags = kAll) {
    return run(dfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, flags);
}

Image sm_image(vael_dfa *dfa) {
    return vael_test::write_image(vael_dfa_calculate_size(dfa), [&](auto at, auto space) {
        return vael_dfa_serialize(dfa, at, space);
    });
}

// Through the row's loader, as the PM image reaches it.
vael_dfa *sm_load(const Image &image) {
    vael_pm_tier1_funcs row;
    vael_sm_init(&row);
    const unsigned char *at = image.data();
    uint32_t space = (uint32_t)image.size();
    return static_cast<vael_dfa *>(row.deserialize(&at, &space, nullptr, nullptr));
}

using Hits = std::vector<std::tuple<int32_t, uint32_t, uint32_t, uint32_t>>;

Hits run_split(vael_dfa *dfa, const vael_test::SplitText &split, uint32_t flags, const vael_pm_mask *mask) {
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_dfa_tier1_exec(dfa, split.present(), split.present_len(), split.vbuf(), 0, &queue, flags, mask,
                                  nullptr),
              0);
    Hits hits;  // queue order, every field: the order and the hints tell restarts apart
    for (const auto &h : vael_test::drain_queue(queue))
        hits.emplace_back(h.id, h.offset, h.match_flags, h.hint);
    return hits;
}

// Every entry of every state names a state, and a byte leads where its
// folded form leads.
void expect_complete(const vael_dfa *dfa, uint32_t flags) {
    uint32_t bad = 0;
    for (uint16_t b = 0; b < dfa->num_of_blocks; b++)
        for (uint32_t i = 0; i < dfa->block_used[b]; i++)
            for (unsigned c = 0; c < 256; c++) {
                const uint16_t e = dfa->blocks[b][i].trans[c];
                bad += e == VAEL_DFA_NO_STATE || !vael_dfa_state_get_by_id_fast(dfa, e) ||
                       e != dfa->blocks[b][i].trans[vael_test::fold((unsigned char)c, flags)];
            }
    EXPECT_EQ(bad, 0u);
}

TEST(SmDiff, SameHitsAsTheThinNfaAndBruteForceFlatAndOverCutVbufs) {
    struct Row {
        std::string alphabet; uint32_t flags; int rounds, min_patterns, max_patterns, max_len; uint16_t blocks;
    };
    const Row rows[] = {
        {"ab", 0, 15, 1, 12, 5, 1},         {"abc", 0, 15, 1, 25, 6, 1},
        {"aAbBzZ", VAEL_PM_CASELESS, 15, 1, 20, 5, 1}, {"a0179", VAEL_PM_DIGITLESS, 15, 1, 20, 5, 1},
        {"xX05", kBoth, 15, 1, 20, 4, 1},   {std::string("\0\x01\xfe\xff", 4), 0, 15, 1, 20, 5, 1},
        {"abcdefghijklmnopqrstuvwxyz", 0, 1, 900, 900, 12, 2},  // packed ids
    };
    std::mt19937 rng(1);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (const auto &row : rows) {
        auto word = [&](int lo, int hi) { return vael_test::random_word(rng, row.alphabet, lo, hi); };
        for (int round = 0; round < row.rounds; round++) {
            SCOPED_TRACE("alphabet " + row.alphabet + " round " + std::to_string(round));
            std::vector<Pattern> patterns;
            for (int i = 0, n = uniform(row.min_patterns, row.max_patterns); i < n; i++)
                patterns.push_back({word(row.blocks == 2 ? 10 : 1, row.max_len), i});
            std::string text;
            while (text.size() < 300)
                text += uniform(0, 3) == 0 ? patterns[uniform(0, (int)patterns.size() - 1)].text : word(1, 4);
            const Sm sm(patterns, row.flags);
            const vael_test::ThinNfa thin(patterns, row.flags);
            ASSERT_NE(sm.dfa, nullptr);
            EXPECT_EQ(sm.dfa->num_of_blocks, row.blocks);
            expect_complete(sm.dfa, row.flags);
            const auto want = vael_test::brute_force_all(patterns, text, row.flags);
            EXPECT_EQ(run(sm.dfa, text), want);
            for (const Hit &h : run(sm.dfa, text))
                EXPECT_EQ(h.hint, patterns[h.id].text.size()) << "the length of a hit of " << h.id;
            EXPECT_EQ(vael_test::sorted(thin.hits(text, kAll)), want);
            EXPECT_EQ(run(sm.dfa, text, VAEL_PM_EXEC_FROM_PM), vael_test::first_per_id(want));
            std::vector<size_t> cuts;
            for (int i = uniform(1, 6); i > 0; i--)
                cuts.push_back((size_t)uniform(0, (int)text.size()));
            std::sort(cuts.begin(), cuts.end());
            const vael_test::SplitText split(text, cuts);
            std::vector<Hit> thin_split;
            thin.exec_raw(split.present(), split.present_len(), &thin_split, kAll, 0, nullptr, split.vbuf());
            EXPECT_EQ(run(sm.dfa, split.present(), split.present_len(), split.vbuf()), want);
            EXPECT_EQ(vael_test::sorted(thin_split), want);
        }
    }
}

// Hits and their lengths are the differential test's; the compile also folds
// the caller's list in place.
TEST(SmCases, TheCompileFoldsTheCallersList) {
    const struct { std::vector<Pattern> patterns; uint32_t flags; std::string list_reads; } rows[] = {
        {{{"bcX", 1}, {"abcd", 2}}, 0, "bcX"}, {{{"HeLLo", 1}}, VAEL_PM_CASELESS, "hello"},
        {{{"a7", 1}}, VAEL_PM_DIGITLESS, "a0"}, {{{"X1y", 1}}, kBoth, "x0y"},
    };
    for (const auto &row : rows) {
        const Sm sm(row.patterns, row.flags);
        uintptr_t v = 0;
        lst_iterate(sm.list, nullptr, &v);
        EXPECT_EQ(reinterpret_cast<const char *>(reinterpret_cast<vael_pmglob_string *>(v)->pattern), row.list_reads);
    }
}

std::vector<Pattern> random_strings(int count, int len) {
    std::mt19937 rng(3);
    std::vector<Pattern> out;
    for (int i = 0; i < count; i++) {
        std::string s;
        for (int k = 0; k < len; k++)
            s += (char)std::uniform_int_distribution<int>(1, 255)(rng);
        out.push_back({s, i});
    }
    return out;
}

TEST(SmErrors, RefusedListsNameThePatternAndTheReason) {
    // A trie has a state per distinct prefix and a root; the store has ids
    // for VAEL_DFA_MAX_STATES.
    const auto many = random_strings(2200, 32);
    std::set<std::string> prefixes;
    int32_t first_over = -1;
    for (size_t i = 0; i < many.size() && first_over < 0; i++) {
        for (size_t n = 1; n <= 32; n++)
            prefixes.insert(many[i].text.substr(0, n));
        if (1 + prefixes.size() > VAEL_DFA_MAX_STATES)
            first_over = many[i].id;
    }
    struct Row { std::vector<Pattern> patterns; uint32_t type; std::string text; int32_t pattern_id; };
    const Row rows[] = {
        {{{"ab", 1}, {"", 5}}, VAEL_PM_ERROR_ILLEGAL, "Empty pattern", 5},
        {many, VAEL_PM_ERROR_COMPLEX, "The strings need more states than the string matcher can hold", first_over},
    };
    for (const auto &row : rows) {
        const intptr_t before = vael_pmglob_memory_get_alloc_total();
        vael_test::LogCapture log;
        {
            const Sm sm(row.patterns, 0);
            EXPECT_EQ(sm.dfa, nullptr);
            EXPECT_EQ(std::make_tuple(std::string(sm.err.error_string ? sm.err.error_string : "(null)"),
                                      sm.err.error_type, sm.err.pattern_id),
                      std::make_tuple(row.text, row.type, row.pattern_id));
        }
        EXPECT_FALSE(log.contains("Assert")) << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
    }
}

TEST(SmImage, RoundTripAndCutOrFlippedImagesAreRefusedOrRunSafely) {
    const Sm sm({{"ab", 1}, {"b", 2}}, VAEL_PM_CASELESS);
    const Image image = sm_image(sm.dfa);
    const std::string text = "xAbab b";
    vael_dfa *whole = sm_load(image);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(run(whole, text), run(sm.dfa, text));
    vael_dfa_destroy(whole);
    vael_test::LogCapture quiet;
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    const int loaded = vael_test::damage_walk(image, sm_load, [&](vael_dfa *dfa) {
        EXPECT_EQ(vael_dfa_is_valid(dfa), 1);
        run(dfa, text);
        vael_dfa_destroy(dfa);
    });
    EXPECT_GT(loaded, 0);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
    // A Thin NFA's image, as a PM image written under the other engine holds it, is refused by name.
    const vael_test::ThinNfa thin({{"ab", 1}});
    const auto thin_image = vael_test::write_image(vael_thin_get_serialize_size(thin.get()), [&](auto at, auto space) {
        return vael_thin_nfa_serialize(thin.get(), at, space);
    });
    const vael_test::ScopedTopic errors("K_SM", VAEL_DBG_ERR);
    vael_test::LogCapture log;
    EXPECT_EQ(sm_load(thin_image), nullptr);
    EXPECT_TRUE(log.contains("Trying to deserialize a Thin NFA, not an SM DFA")) << log.text();
}

TEST(SmFailmem, CompileAndImageLoadFailCleanlyAtEveryAllocation) {
    vael_test::LogCapture quiet;
    Sm sm({{"He", 1}, {"SHE", 2}, {"his", 3}, {"hers", 4}, {"7up", 5}}, 0);
    vael_dfa_destroy(sm.dfa);
    const auto walk = vael_test::failmem_walk_each_allocation(
        [&] {
            vael_pm_error_init(&sm.err);
            return (sm.dfa = vael_sm_compile(sm.list, kBoth, &sm.err)) != nullptr;
        },
        [&] { return sm.dfa == nullptr && sm.err.error_string != nullptr; });
    EXPECT_GT(walk.injected, 10);
    // A copy and a load rebuild the run table, which the image leaves out.
    const Image image = sm_image(sm.dfa);
    vael_dfa *made = nullptr;
    const auto done = [&] { return made == nullptr; };
    for (const auto &make : {std::function<vael_dfa *()>([&] { return sm_load(image); }),
                             std::function<vael_dfa *()>([&] { return vael_dfa_duplicate(sm.dfa); })}) {
        const auto copied = vael_test::failmem_walk_each_allocation([&] { return (made = make()) != nullptr; }, done);
        EXPECT_GT(copied.injected, 1);
        ASSERT_NE(made, nullptr);
        ASSERT_NE(made->run_next, nullptr);
        EXPECT_EQ(sm_image(made), image);
        EXPECT_EQ(run(made, "xhers7UP SHE"), run(sm.dfa, "xhers7UP SHE"));
        vael_dfa_destroy(made);
    }
}

TEST(SmRun, TableRunEqualsTheRecordRunUnderEveryExecFlag) {
    constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_FROM_PM;
    const struct {
        size_t literals, length;  // the second set needs more than one block
        uint32_t compile_flags;
    } sets[] = {{40, 5, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS}, {1200, 24, 0}};
    const uint32_t exec_rows[] = {kAll, VAEL_PM_EXEC_ALL_MATCHES, VAEL_PM_EXEC_FROM_PM, VAEL_PM_EXEC_FIRST_MATCH_ONLY,
                                  kAll | VAEL_PM_EXEC_CIRCUMFLEX, VAEL_PM_EXEC_CIRCUMFLEX_ONLY};
    const uint32_t pattern_flags[] = {0, 0, VAEL_PM_LSS_START_ANCHOR, VAEL_PM_LSS_END_ANCHOR, VAEL_PM_BOUND};
    std::mt19937 rng(28);
    for (const auto &set : sets) {
        std::vector<vael_test::Pattern> patterns;
        for (size_t k = 0; k < set.literals; k++)
            patterns.push_back(
                {vael_test::random_word(rng, "abc1 ", 1, set.length), (int32_t)k, pattern_flags[rng() % 5]});
        Sm sm(patterns, set.compile_flags);
        vael_dfa *table = sm.dfa;
        ASSERT_NE(table, nullptr);
        ASSERT_NE(table->run_next, nullptr);
        EXPECT_EQ(table->num_of_blocks > 1, set.literals > 100);
        vael_dfa *records = vael_dfa_duplicate(table);
        ASSERT_NE(records, nullptr);
        vael_dfa_run_table_free(records);
        vael_test::RawMask mask((uint32_t)set.literals);
        for (uint32_t id = 0; id < set.literals; id += 3)
            mask.set(id);
        for (int round = 0; round < 30; round++) {
            const std::string text = vael_test::random_word(rng, "abcABC1 9x", 0, 299);
            std::vector<size_t> cuts;
            for (size_t n = rng() % 4; n && !text.empty(); n--)
                cuts.push_back(rng() % text.size());
            std::sort(cuts.begin(), cuts.end());
            const vael_test::SplitText split(text, cuts);
            if (!split.present() && !split.vbuf())
                continue;
            for (uint32_t flags : exec_rows)
                for (const vael_pm_mask *m : {(const vael_pm_mask *)nullptr, (const vael_pm_mask *)mask.mask()})
                    EXPECT_EQ(run_split(table, split, flags, m), run_split(records, split, flags, m))
                        << text << " flags " << std::hex << flags << " mask " << (m != nullptr);
        }
        vael_dfa_destroy(records);
    }
}

}  // namespace
