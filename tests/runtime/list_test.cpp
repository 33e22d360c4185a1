// The list, its queue and stack uses, pools and the integer hash, held against a std::deque model under random
// operations; every allocating operation of the list, the hash and the virtual buffer fails cleanly at each of its
// allocation sites: the container is left as it was and both byte accounts are back where they started.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_list.h"
#include "vael/vael_us_adaptor.h"
#include "vael/vael_vbuf.h"

namespace {

using vael_test::list_values;

// The library's comparator convention: 1 equal, 0 greater, -1 less.
int cmp_words(uintptr_t a, uintptr_t b) { return a == b ? 1 : (a > b ? 0 : -1); }
std::vector<uintptr_t> destroyed;
void record_destroy(uintptr_t v) { destroyed.push_back(v); }

TEST(List, RandomOperationsAgreeWithAModel) {
    for (uint32_t seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        destroyed.clear();
        lst_list *l = lst_create_destr(record_destroy);
        lst_set_comparator(l, cmp_words);
        std::deque<uintptr_t> m;
        const bool ascending = seed % 2;  // sorted inserts keep one order per list
        for (int step = 0; step < 300; step++) {
            const uintptr_t v = 1 + rng() % 9;
            uintptr_t got = 77;
            switch (rng() % 7) {
            case 0: ASSERT_NE(lst_insert(l, v), 0); m.push_back(v); break;
            case 1: ASSERT_NE(lst_insert_at_start(l, v), 0); m.push_front(v); break;
            case 2: {
                // Sorted inserts are defined on a sorted list only.
                if (!std::is_sorted(m.begin(), m.end(), [&](auto a, auto b) { return ascending ? a < b : a > b; }))
                    break;
                ASSERT_NE(ascending ? lst_insert_ascending(l, v) : lst_insert_descending(l, v), 0);
                auto at = ascending ? std::upper_bound(m.begin(), m.end(), v)
                                    : std::upper_bound(m.begin(), m.end(), v, std::greater<>());
                m.insert(at, v);
                break;
            }
            case 3:
                ASSERT_EQ(lst_remove_at_start(l, &got), m.empty() ? 0 : 1);
                ASSERT_EQ(got, m.empty() ? 77 : m.front());
                if (!m.empty()) m.pop_front();
                break;
            case 4: {
                auto it = std::find(m.begin(), m.end(), v);
                ASSERT_EQ(lst_delete_val_one(l, v) == 0, it != m.end());
                if (it != m.end()) { m.erase(it); ASSERT_EQ(destroyed.back(), v); }
                break;
            }
            case 5: {
                // Lookup from behind a cursor finds each equal value in turn.
                size_t found = 0;
                for (lst_cursor c = lst_lookup(l, nullptr, v, &got); c; c = lst_lookup(l, c, v, &got)) {
                    found++;
                    ASSERT_EQ(got, v);
                }
                ASSERT_EQ(found, (size_t)std::count(m.begin(), m.end(), v));
                break;
            }
            case 6: {
                lst_list *tail = lst_create();
                lst_insert(tail, v);
                lst_insert(tail, v + 10);
                lst_concat(l, tail);  // consumes tail
                m.push_back(v), m.push_back(v + 10);
                break;
            }
            }
            ASSERT_EQ(list_values(l), std::vector<uintptr_t>(m.begin(), m.end())) << "step " << step;
            ASSERT_EQ(lst_nelements(l), (intptr_t)m.size());
            ASSERT_EQ(lst_data(lst_last(l)), m.empty() ? 0 : m.back()) << "tail after step " << step;
        }
        const size_t before = destroyed.size();
        lst_destroy(l);
        EXPECT_EQ(destroyed.size() - before, m.size()) << "destroy runs the destructor on what is left";
    }
}

TEST(List, PoolIsReusedAcrossThreadsAndDrains) {
    uintptr_t pool = 0;
    const intptr_t start = qx_kmem_get_alloc_total();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&pool] {
            for (int round = 0; round < 200; round++) {
                lst_list *l = lst_create_with_pool(&pool, nullptr);
                for (uintptr_t i = 0; i < 50; i++)
                    lst_insert(l, i);
                uintptr_t sum = 0;
                while (lst_nelements(l) > 0)
                    sum += lst_dequeue(l);
                EXPECT_EQ(sum, 49u * 50u / 2u);
                lst_destroy(l);
            }
        });
    for (auto &t : threads)
        t.join();
    // A warm pool serves a fill without new memory.
    lst_list *l = lst_create_with_pool(&pool, nullptr);
    const intptr_t warm = qx_kmem_get_alloc_total();
    for (uintptr_t i = 0; i < 50; i++)
        lst_insert(l, i);
    EXPECT_EQ(qx_kmem_get_alloc_total(), warm);
    lst_destroy(l);
    lst_pool_drain(&pool);
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
}

TEST(Hash, IntegerKeys) {
    hash_table *h = _hash_create(0, hash_intvalue, hash_intcmp, 0, __FILE__, __LINE__);
    ASSERT_NE(h, nullptr);
    for (uintptr_t k = 1; k <= 1000; k++)
        ASSERT_NE(hash_insert(h, k * 7, k), 0);
    for (uintptr_t k = 1; k <= 7000; k++)
        ASSERT_EQ(hash_lookup(h, k), k % 7 ? 0 : k / 7) << k;
    hash_destroy(h);
}

// The buffer's bytes, read without allocating (the check runs while allocations are being failed).
std::string flat(vael_vbuf *v) {
    char out[64];
    const uint32_t n = vael_vbuf_size(v) ? vael_vbuf_defrag(v, 0, vael_vbuf_size(v), out, sizeof out) : 0;
    return std::string(out, n);
}

TEST(ContainerFailmem, EveryOperationFailsCleanly) {
    uintptr_t pool = 0;
    std::string a = "abcd", b = "efgh";
    lst_list *l = nullptr;
    hash_table *h = nullptr;
    vael_vbuf *v = nullptr;
    auto fresh_list = [&] {
        l = lst_create();
        lst_set_comparator(l, cmp_words);
        lst_insert(l, 10), lst_insert(l, 30);
    };
    auto add = [&](std::string &bytes) { return vael_vbuf_add_buffer_ex(v, bytes.data(), 4, nullptr, nullptr); };
    auto fresh_vbuf = [&] { v = vael_vbuf_create(8, 0), add(a); };
    auto list_unchanged = [&] { return list_values(l) == std::vector<uintptr_t>{10, 30}; };
    auto no_list = [&] { return !l; };
    auto new_hash = [] { return _hash_create(16, hash_intvalue, hash_intcmp, 0, "f", 1); };
    // rounds: allocation sites + 1.
    struct Case { const char *name; std::function<void()> setup; std::function<bool()> attempt, clean; int rounds; };
    const std::vector<Case> cases = {
        {"lst_create", [] {}, [&] { return (l = lst_create()) != nullptr; }, no_list, 2},
        {"vael_stack_create", [] {}, [&] { return (l = vael_stack_create(nullptr)) != nullptr; }, no_list, 2},
        {"lst_create_with_pool", [] {}, [&] { return (l = lst_create_with_pool(&pool, nullptr)) != nullptr; }, no_list,
         2},
        {"lst_insert", fresh_list, [&] { return lst_insert(l, 20) != 0; }, list_unchanged, 2},
        {"lst_insert_at_start", fresh_list, [&] { return lst_insert_at_start(l, 20) != 0; }, list_unchanged, 2},
        {"lst_insert_ascending", fresh_list, [&] { return lst_insert_ascending(l, 20) != 0; }, list_unchanged, 2},
        {"lst_insert_descending", fresh_list, [&] { return lst_insert_descending(l, 20) != 0; }, list_unchanged, 2},
        {"vael_enqueue", fresh_list, [&] { return vael_enqueue(l, 1) == 0; }, list_unchanged, 2},
        {"_hash_create", [] {}, [&] { return (h = new_hash()) != nullptr; }, [&] { return !h; }, 2},
        {"hash_insert", [&] { h = new_hash(), hash_insert(h, 1, 100); }, [&] { return hash_insert(h, 2, 200) != 0; },
         [&] { return hash_lookup(h, 2) == 0 && hash_lookup(h, 1) == 100; }, 2},
        {"vael_vbuf_create", [] {}, [&] { return (v = vael_vbuf_create(8, 0)) != nullptr; }, [&] { return !v; }, 3},
        {"vael_vbuf_add_buffer_ex", fresh_vbuf, [&] { return add(b) == 0; }, [&] { return flat(v) == "abcd"; }, 3},
        // Out of memory in the compare reads as "not equal".
        {"vael_vbuf_compare_to_buffer", fresh_vbuf, [&] { return vael_vbuf_compare_to_buffer(v, "abcd", 4, 0) != 0; },
         [] { return true; }, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        l = nullptr, h = nullptr, v = nullptr;
        c.setup();
        auto w = vael_test::failmem_walk(c.attempt, c.clean);
        EXPECT_EQ(w.rounds, c.rounds);
        lst_destroy(l);
        hash_destroy(h);
        if (v)
            vael_vbuf_destroy(v);
    }
    lst_pool_drain(&pool);
}

// Evicting reuses the victim's record, so only the list cell can fail.
TEST(ContainerFailmem, FailedAddAfterEvictionLeavesAnEmptyBuffer) {
    std::string a = "abcd", c = "ij";
    vael_vbuf *v = vael_vbuf_create(4, 0);
    ASSERT_EQ(vael_vbuf_add_buffer_ex(v, a.data(), 4, nullptr, nullptr), 0);
    const intptr_t start = qx_kmem_get_alloc_total();
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_EQ(vael_vbuf_add_buffer_ex(v, c.data(), 2, nullptr, nullptr), -1);
    EXPECT_EQ(vael_us_adaptor_num_failures(), 1);
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_EQ(vael_vbuf_size(v), 0u);
    EXPECT_LT(qx_kmem_get_alloc_total(), start) << "the evicted record is freed";
    EXPECT_EQ(vael_vbuf_add_buffer_ex(v, c.data(), 2, nullptr, nullptr), 0);
    EXPECT_EQ(flat(v), "ij");
    vael_vbuf_destroy(v);
}

}  // namespace
