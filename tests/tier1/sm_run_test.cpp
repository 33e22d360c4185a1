// The string matcher's run table against the state records it is derived
// from, under every exec flag, and the table's life beside the machine:
// rebuilt by a copy and a load, never part of the image. Seeds are fixed.
#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "rem/vael_dfa_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tier1/vael_sm.h"

namespace {

using Hits = std::vector<std::tuple<int32_t, uint32_t, uint32_t, uint32_t>>;
using Image = std::vector<unsigned char>;

vael_dfa *compile(vael_pmglob_patterns *list, const std::vector<vael_test::Pattern> &patterns, uint32_t flags) {
    for (const auto &p : patterns) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(p.text.data()),
                                                          (uint32_t)p.text.size(), p.id, p.flags);
        EXPECT_EQ(vael_pmglob_patterns_add(list, s), 0);
        vael_pmglob_string_destroy(s);
    }
    vael_pm_error err;
    vael_pm_error_init(&err);
    return vael_sm_compile(list, flags, &err);
}

Hits run(vael_dfa *dfa, const vael_test::SplitText &split, uint32_t flags, const vael_pm_mask *mask) {
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_dfa_tier1_exec(dfa, split.present(), split.present_len(), split.vbuf(), 0, &queue, flags, mask,
                                  nullptr),
              0);
    Hits hits;  // queue order, every field: the order and the hints tell restarts apart
    for (const auto &h : vael_test::drain_queue(queue))
        hits.emplace_back(h.id, h.offset, h.match_flags, h.hint);
    return hits;
}

Image image_of(vael_dfa *dfa) {
    Image image(vael_dfa_calculate_size(dfa));
    unsigned char *at = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vael_dfa_serialize(dfa, &at, &space), 0);
    return image;
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
        for (size_t k = 0; k < set.literals; k++) {
            std::string text;
            for (size_t n = 1 + rng() % set.length; n; n--)
                text += "abc1 "[rng() % 5];
            patterns.push_back({text, (int32_t)k, pattern_flags[rng() % 5]});
        }
        vael_pmglob_patterns *list = vael_pmglob_patterns_create();
        vael_dfa *table = compile(list, patterns, set.compile_flags);
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
            std::string text;
            for (size_t n = rng() % 300; n; n--)
                text += "abcABC1 9x"[rng() % 10];
            std::vector<size_t> cuts;
            for (size_t n = rng() % 4; n && !text.empty(); n--)
                cuts.push_back(rng() % text.size());
            std::sort(cuts.begin(), cuts.end());
            const vael_test::SplitText split(text, cuts);
            if (!split.present() && !split.vbuf())
                continue;
            for (uint32_t flags : exec_rows)
                for (const vael_pm_mask *m : {(const vael_pm_mask *)nullptr, (const vael_pm_mask *)mask.mask()})
                    EXPECT_EQ(run(table, split, flags, m), run(records, split, flags, m))
                        << text << " flags " << std::hex << flags << " mask " << (m != nullptr);
        }
        vael_dfa_destroy(records);
        vael_dfa_destroy(table);
        vael_pmglob_patterns_destroy(list);
    }
}

TEST(SmRun, CopiesAndLoadsRebuildTheTableOutsideTheImage) {
    vael_test::LogCapture quiet;
    vael_pmglob_patterns *list = vael_pmglob_patterns_create();
    vael_dfa *dfa = compile(list, {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}}, VAEL_PM_CASELESS);
    ASSERT_NE(dfa, nullptr);
    const Image image = image_of(dfa);
    vael_dfa *copy = nullptr;
    const auto walk = vael_test::failmem_walk_each_allocation([&] { return (copy = vael_dfa_duplicate(dfa)) != nullptr; },
                                                              [&] { return copy == nullptr; });
    EXPECT_GT(walk.injected, 2);
    ASSERT_NE(copy, nullptr);
    ASSERT_NE(copy->run_next, nullptr);
    vael_pm_tier1_funcs row;
    vael_sm_init(&row);
    const unsigned char *at = image.data();
    uint32_t space = (uint32_t)image.size();
    vael_dfa *loaded = static_cast<vael_dfa *>(row.deserialize(&at, &space, nullptr, nullptr));
    ASSERT_NE(loaded, nullptr);
    ASSERT_NE(loaded->run_next, nullptr);
    const std::string data = "ushers HIS shE";  // the split reads it in place
    const vael_test::SplitText text(data, {});
    for (vael_dfa *other : {copy, loaded}) {
        EXPECT_EQ(image_of(other), image);
        EXPECT_EQ(run(other, text, VAEL_PM_EXEC_ALL_MATCHES, nullptr), run(dfa, text, VAEL_PM_EXEC_ALL_MATCHES, nullptr));
        vael_dfa_destroy(other);
    }
    vael_dfa_destroy(dfa);
    vael_pmglob_patterns_destroy(list);
}

}  // namespace
