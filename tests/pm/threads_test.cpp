// Many threads on the library at once, as a host runs it: runs over one PM on eight threads while another thread
// compiles and destroys PMs of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/pm/pm_test_util.h"

namespace {

using vael_pm_test::collect;
using vael_pm_test::Hits;
using vael_test::Pattern;

TEST(Threads, EightScannersOnOnePmWhileAnotherThreadCompilesAndDestroys) {
    constexpr int kScanners = 8;
    constexpr int kRounds = 40;
    const std::vector<Pattern> patterns = {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}, {"sh", 5}, {"ushe", 6}};
    std::string text;
    for (int i = 0; i < 400; i++)
        text += "ushers his shell, she sells; ";
    Hits want;
    for (const auto &h : vael_test::brute_force_all(patterns, text, 0))
        want.push_back({h.id, h.offset});
    std::sort(want.begin(), want.end());

    vael_pm_handle *pm = vael_pm_test::compile_strings(patterns, collect, 0, nullptr, "threads");
    ASSERT_NE(pm, nullptr);
    std::atomic<int> scanners_left{kScanners};
    std::vector<int> wrong(kScanners, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kScanners; t++) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; round++)
                wrong[t] += vael_pm_test::run(pm, text, VAEL_PM_EXEC_ALL_MATCHES) != want;
            scanners_left--;
        });
    }
    int compiled = 0, compile_failures = 0;
    threads.emplace_back([&] {
        // At least a few PMs, then as many as the scanners leave time for.
        for (int i = 0; i < 4 || scanners_left > 0; i++) {
            const std::vector<Pattern> others = {{"other" + std::to_string(i), i}, {"sh", 100}};
            vael_pm_handle *other = vael_pm_test::compile_strings(others, collect);
            if (!other) {
                compile_failures++;
                continue;
            }
            compile_failures += vael_pm_test::run(other, "sh", 0) != Hits{{100, 1}};
            vael_pm_destroy(other);
            compiled++;
        }
    });
    for (auto &th : threads)
        th.join();

    for (int t = 0; t < kScanners; t++)
        EXPECT_EQ(wrong[t], 0) << "scanner " << t;
    EXPECT_EQ(compile_failures, 0);
    EXPECT_GE(compiled, 4);
    // Counts may be lost when runs meet; none may be made up.
    uint64_t matches = 0, tier1_matches = 0;
    for (uint32_t i = 0; i < pm->num_tier2; i++) {
        matches += pm->pm_array[i].matches;
        tier1_matches += pm->pm_array[i].tier1_matches;
    }
    EXPECT_LE(tier1_matches, (uint64_t)kScanners * kRounds * want.size());
    EXPECT_GT(matches, 0u);
    EXPECT_LE(matches, (uint64_t)kScanners * kRounds * want.size());
    vael_pm_destroy(pm);
}

}  // namespace
