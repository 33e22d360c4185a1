// Many threads on the library at once, as a host runs it: runs over one PM on eight threads while another thread
// compiles and destroys PMs of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::Pattern;

using HitSet = std::set<std::pair<int32_t, uint32_t>>;

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *) {
    static_cast<HitSet *>(arg)->insert({id, offset});
    return 0;
}

vael_pm_handle *compile(const std::vector<Pattern> &patterns, const char *caller) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &p : patterns)
        vael_pm_patterns_add_simple_pattern(list, p.text.data(), (uint32_t)p.text.size(), p.id, p.flags);
    vael_pm_handle *pm = vael_pm_compile(list, collect, 0, nullptr, caller);
    vael_pm_patterns_destroy(list);
    return pm;
}

TEST(Threads, EightScannersOnOnePmWhileAnotherThreadCompilesAndDestroys) {
    constexpr int kScanners = 8;
    constexpr int kRounds = 40;
    const std::vector<Pattern> patterns = {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}, {"sh", 5}, {"ushe", 6}};
    std::string text;
    for (int i = 0; i < 400; i++)
        text += "ushers his shell, she sells; ";
    HitSet want;
    for (const auto &h : vael_test::brute_force_all(patterns, text, 0))
        want.insert({h.id, h.offset});

    vael_pm_handle *pm = compile(patterns, "threads");
    ASSERT_NE(pm, nullptr);
    const auto *data = reinterpret_cast<const unsigned char *>(text.data());
    std::atomic<int> scanners_left{kScanners};
    std::vector<int> wrong(kScanners, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kScanners; t++) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; round++) {
                HitSet got;
                if (vael_pm_exec_ex(pm, data, (uint32_t)text.size(), nullptr, nullptr, &got,
                                    VAEL_PM_EXEC_ALL_MATCHES) != 0 ||
                    got != want)
                    wrong[t]++;
            }
            scanners_left--;
        });
    }
    int compiled = 0, compile_failures = 0;
    threads.emplace_back([&] {
        // At least a few PMs, then as many as the scanners leave time for.
        for (int i = 0; i < 4 || scanners_left > 0; i++) {
            vael_pm_handle *other = compile({{"other" + std::to_string(i), i}, {"sh", 100}}, "threads-other");
            if (!other) {
                compile_failures++;
                continue;
            }
            HitSet got;
            const unsigned char two[] = "sh";
            vael_pm_exec_ex(other, two, 2, nullptr, nullptr, &got, 0);
            compile_failures += got != HitSet{{100, 1}};
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
