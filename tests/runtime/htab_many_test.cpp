// Lookups of many keys at once against one lookup per key, over tables whose chains mix key widths and value counts,
// at batch sizes around the depth of the overlapped fetches.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "htab_support.h"

namespace htab_test {
namespace {

TEST(HtabMany, AgreesWithOneLookupPerKey) {
    struct Case {
        int bins;       // 1 puts every entry in one chain
        int nkeys;      // width of the looked-up keys
        int count;      // keys per call
        int dest_words; // row width of dest
    };
    const Case cases[] = {
        {1, 2, 0, 1},     {1, 2, 1, 1},     {1, 2, 17, 3},   {64, 2, 7, 1},    {64, 2, 16, 1},
        {64, 2, 33, 2},   {64, 1, 40, 1},   {64, 3, 40, 3},  {4096, 2, 500, 1}, {4096, 2, 500, 3},
        {4096, 17, 50, 2}, {4096, 1, 300, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE("bins " + std::to_string(c.bins) + " nkeys " + std::to_string(c.nkeys) + " count " +
                     std::to_string(c.count) + " dest_words " + std::to_string(c.dest_words));
        Table t("many", c.bins, 0);
        std::mt19937 rng((uint32_t)(c.count * 131 + c.nkeys));
        // Small words: keys of every width share leading words, so a chain
        // holds keys that differ only in their width or their last word.
        auto random_key = [&](int width) {
            Key k((size_t)width);
            for (auto &w : k)
                w = rng() % 4;
            return k;
        };
        for (int i = 0; i < 400; i++) {
            const int width = (int)(rng() % 3) + 1;
            std::vector<uint32_t> vals(rng() % 3 + 1, (uint32_t)i);
            ASSERT_EQ(t.set(random_key(i % 5 == 0 ? c.nkeys : width), vals), 0);
        }
        std::vector<uint32_t> keys;
        for (int i = 0; i < c.count; i++) {
            Key k = random_key(c.nkeys);
            keys.insert(keys.end(), k.begin(), k.end());
        }
        keys.push_back(0); // behind the last key: never a null array, never read

        const uint32_t kUntouched = 0xdeadbeef;
        std::vector<uint32_t> dest((size_t)c.count * (size_t)c.dest_words + 1, kUntouched);
        std::vector<int> results((size_t)c.count + 1, 99);
        const int found = vael_htab_get_many(t.id(), keys.data(), c.nkeys, c.count, dest.data(), c.dest_words,
                                             results.data());
        int want_found = 0;
        for (int i = 0; i < c.count; i++) {
            const Key k(keys.begin() + (long)i * c.nkeys, keys.begin() + (long)(i + 1) * c.nkeys);
            const std::vector<uint32_t> want = t.get(k);
            const uint32_t *row = dest.data() + (size_t)i * (size_t)c.dest_words;
            if (want.empty()) {
                ASSERT_EQ(results[(size_t)i], VAEL_HTAB_GET_MISSING) << i;
            } else if ((int)want.size() > c.dest_words) {
                ASSERT_EQ(results[(size_t)i], VAEL_HTAB_GET_NO_ROOM) << i;
                ASSERT_EQ(row[0], kUntouched) << i;
            } else {
                ASSERT_EQ(results[(size_t)i], (int)want.size()) << i;
                ASSERT_EQ(std::vector<uint32_t>(row, row + want.size()), want) << i;
                want_found++;
            }
        }
        EXPECT_EQ(found, want_found);
        EXPECT_EQ(dest.back(), kUntouched);
        EXPECT_EQ(results.back(), 99);
    }
}

TEST(HtabMany, InvalidArgumentsAndTablesAreRefused) {
    Table t("many refusals", 16, 0);
    const uint32_t key[2] = {1, 2};
    uint32_t one = 7;
    ASSERT_EQ(vael_htab_set(t.id(), key, 2, &one, 1, VAEL_HTAB_TMO_KEEP, nullptr), 0);
    uint32_t dest[2] = {0, 0};
    int results[2] = {0, 0};
    struct Case {
        const char *what;
        int id;
        const uint32_t *keys;
        int nkeys;
        int count;
        uint32_t *dest;
        int dest_words;
        int *results;
        int want;
    };
    const Case cases[] = {
        {"valid", t.id(), key, 2, 1, dest, 1, results, 1},
        {"no table", VAEL_HTAB_MAX_TABLES - 1, key, 2, 1, dest, 1, results, -1},
        {"id out of range", VAEL_HTAB_MAX_TABLES, key, 2, 1, dest, 1, results, -1},
        {"null keys", t.id(), nullptr, 2, 1, dest, 1, results, -1},
        {"no key words", t.id(), key, 0, 1, dest, 1, results, -1},
        {"negative count", t.id(), key, 2, -1, dest, 1, results, -1},
        {"null dest", t.id(), key, 2, 1, nullptr, 1, results, -1},
        {"no dest words", t.id(), key, 2, 1, dest, 0, results, -1},
        {"null results", t.id(), key, 2, 1, dest, 1, nullptr, -1},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(vael_htab_get_many(c.id, c.keys, c.nkeys, c.count, c.dest, c.dest_words, c.results), c.want)
            << c.what;
    }
    EXPECT_EQ(dest[0], 7u);
}

}  // namespace
}  // namespace htab_test
