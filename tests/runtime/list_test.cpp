// The list, its queue and stack uses, pools, and the integer hash.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/vael_test_support.h"
#include "vael/vael_list.h"
#include "vael/vael_us_adaptor.h"

namespace {

// The library's comparator convention: 1 equal, 0 greater, -1 less.
int cmp_words(uintptr_t a, uintptr_t b) { return a == b ? 1 : (a > b ? 0 : -1); }

std::vector<uintptr_t> destroyed;
void record_destroy(uintptr_t v) { destroyed.push_back(v); }

TEST(List, EndsAndFrontRemoval) {
    lst_list *l = lst_create();
    ASSERT_NE(l, nullptr);
    EXPECT_NE(lst_insert(l, 2), 0);
    EXPECT_NE(lst_insert_at_end(l, 3), 0);
    EXPECT_NE(lst_insert_at_start(l, 1), 0);
    EXPECT_EQ(vael_test::list_values(l), (std::vector<uintptr_t>{1, 2, 3}));
    EXPECT_EQ(lst_nelements(l), 3);
    EXPECT_EQ(lst_data(lst_first(l)), 1u);
    EXPECT_EQ(lst_data(lst_last(l)), 3u);

    uintptr_t v = 99;
    EXPECT_EQ(lst_remove_at_start(l, &v), 1);
    EXPECT_EQ(v, 1u);
    EXPECT_NE(lst_dequeue2(l, &v), 0);
    EXPECT_EQ(v, 2u);
    EXPECT_EQ(lst_dequeue(l), 3u);
    // Empty: nothing removed, value untouched, cursors null.
    v = 42;
    EXPECT_EQ(lst_dequeue2(l, &v), 0);
    EXPECT_EQ(lst_remove_at_start(l, &v), 0);
    EXPECT_EQ(v, 42u);
    EXPECT_EQ(lst_first(l), nullptr);
    EXPECT_EQ(lst_last(l), nullptr);
    EXPECT_EQ(lst_data(nullptr), 0u);
    // Appending after the list ran empty relinks the tail.
    EXPECT_NE(lst_insert(l, 7), 0);
    EXPECT_EQ(vael_test::list_values(l), (std::vector<uintptr_t>{7}));
    lst_destroy(l);
}

TEST(List, NullListIsEmptyAndHarmless) {
    EXPECT_LT(lst_nelements(nullptr), 1);
    lst_destroy(nullptr);
    uintptr_t v = 5;
    EXPECT_EQ(lst_iterate(nullptr, nullptr, &v), nullptr);
    EXPECT_EQ(v, 5u);
    EXPECT_EQ(lst_insert(nullptr, 1), 0);
}

TEST(List, DestroyRunsDestructorOnRemainingOnly) {
    destroyed.clear();
    lst_list *l = lst_create_destr(record_destroy);
    for (uintptr_t i = 1; i <= 4; i++)
        lst_insert(l, i);
    EXPECT_EQ(lst_dequeue(l), 1u); // ownership went to the caller
    EXPECT_EQ(lst_delete_val_one(l, 3), 0);
    EXPECT_EQ(destroyed, (std::vector<uintptr_t>{3}));
    EXPECT_LT(lst_delete_val_one(l, 3), 0);
    lst_destroy(l);
    EXPECT_EQ(destroyed, (std::vector<uintptr_t>{3, 2, 4}));
}

TEST(List, DeleteFixesTail) {
    lst_list *l = lst_create();
    lst_insert(l, 1);
    lst_insert(l, 2);
    EXPECT_EQ(lst_delete_val_one(l, 2), 0);
    EXPECT_EQ(lst_data(lst_last(l)), 1u);
    lst_insert(l, 3);
    EXPECT_EQ(vael_test::list_values(l), (std::vector<uintptr_t>{1, 3}));
    lst_destroy(l);
}

TEST(List, OrderedInsertion) {
    struct Case {
        bool ascending;
        std::vector<uintptr_t> in, out;
    } cases[] = {
        {true, {5, 1, 4, 2, 3}, {1, 2, 3, 4, 5}},
        {true, {2, 2, 1}, {1, 2, 2}},
        {false, {5, 1, 4, 2, 3}, {5, 4, 3, 2, 1}},
        {false, {1, 3, 3}, {3, 3, 1}},
    };
    for (const Case &c : cases) {
        lst_list *l = lst_create();
        lst_set_comparator(l, cmp_words);
        for (uintptr_t v : c.in)
            EXPECT_NE(c.ascending ? lst_insert_ascending(l, v) : lst_insert_descending(l, v), 0);
        EXPECT_EQ(vael_test::list_values(l), c.out);
        EXPECT_EQ(lst_data(lst_last(l)), c.out.back());
        lst_destroy(l);
    }
}

TEST(List, LookupWalksFromBehindTheCursor) {
    lst_list *l = lst_create();
    uintptr_t v = 77;
    lst_set_comparator(l, cmp_words);
    EXPECT_EQ(lst_lookup(l, nullptr, 1, &v), nullptr);
    EXPECT_EQ(v, 77u);
    for (uintptr_t x : {4, 9, 4, 1})
        lst_insert(l, x);
    lst_cursor first = lst_lookup(l, nullptr, 4, &v);
    ASSERT_NE(first, nullptr);
    lst_cursor second = lst_lookup(l, first, 4, &v);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(lst_lookup(l, second, 4, &v), nullptr);
    lst_destroy(l);
}

TEST(List, CursorSurvivesAppends) {
    lst_list *l = lst_create();
    lst_insert(l, 1);
    uintptr_t v;
    lst_cursor c = lst_iterate(l, nullptr, &v);
    EXPECT_EQ(lst_iterate(l, c, &v), nullptr);
    lst_insert(l, 2);
    ASSERT_NE(lst_iterate(l, c, &v), nullptr);
    EXPECT_EQ(v, 2u);
    lst_destroy(l);
}

TEST(List, ConcatMovesAndConsumes) {
    lst_list *a = lst_create(), *b = lst_create(), *empty = lst_create(), *c = lst_create();
    lst_insert(a, 1);
    lst_insert(b, 2);
    lst_insert(b, 3);
    lst_concat(a, b);
    EXPECT_EQ(vael_test::list_values(a), (std::vector<uintptr_t>{1, 2, 3}));
    lst_concat(a, empty);
    EXPECT_EQ(lst_nelements(a), 3);
    lst_concat(c, a); // into an empty target
    EXPECT_EQ(vael_test::list_values(c), (std::vector<uintptr_t>{1, 2, 3}));
    lst_insert(c, 4);
    EXPECT_EQ(lst_data(lst_last(c)), 4u);
    lst_destroy(c);
}

TEST(QueueAndStack, Disciplines) {
    lst_list *q = vael_queue_create();
    EXPECT_EQ(vael_enqueue(q, 1), 0);
    EXPECT_EQ(vael_enqueue(q, 0), 0);
    EXPECT_EQ(vael_enqueue(q, 2), 0);
    EXPECT_EQ(vael_queue_size(q), 3);
    EXPECT_EQ(vael_dequeue(q), 1u);
    EXPECT_EQ(vael_dequeue(q), 0u); // a stored 0 reads like empty, but is taken
    EXPECT_EQ(vael_queue_size(q), 1);
    EXPECT_EQ(vael_dequeue(q), 2u);
    EXPECT_EQ(vael_dequeue(q), 0u);
    vael_queue_cleanup(q);

    lst_list *s = vael_stack_create(nullptr);
    EXPECT_EQ(vael_stack_top(s), 0u);
    EXPECT_EQ(vael_stack_pop(s), 0u);
    EXPECT_EQ(vael_stack_size(s), 0);
    vael_stack_push(s, 1);
    vael_stack_push(s, 2);
    EXPECT_EQ(vael_stack_top(s), 2u);
    EXPECT_EQ(vael_stack_pop(s), 2u);
    EXPECT_EQ(vael_stack_pop(s), 1u);
    EXPECT_EQ(vael_stack_size(s), 0);
    vael_stack_cleanup(s);
}

TEST(ListPool, ReusesCellsAndDrains) {
    uintptr_t pool = 0;
    intptr_t start = qx_kmem_get_alloc_total();
    lst_list *l = lst_create_with_pool(&pool, nullptr);
    for (uintptr_t i = 0; i < 100; i++)
        lst_insert(l, i);
    while (lst_nelements(l) > 0)
        lst_dequeue(l);
    intptr_t warm = qx_kmem_get_alloc_total();
    // A warm pool serves a second fill without new memory.
    for (uintptr_t i = 0; i < 100; i++)
        lst_insert(l, i);
    EXPECT_EQ(qx_kmem_get_alloc_total(), warm);
    EXPECT_EQ(vael_test::list_values(l).size(), 100u);
    lst_destroy(l);
    lst_pool_drain(&pool);
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
    EXPECT_EQ(pool, 0u);
}

TEST(ListPool, SharedAcrossThreads) {
    uintptr_t pool = 0;
    intptr_t start = qx_kmem_get_alloc_total();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
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
    }
    for (auto &t : threads)
        t.join();
    lst_pool_drain(&pool);
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
}

TEST(Hash, IntegerKeys) {
    hash_table *h = _hash_create(0, hash_intvalue, hash_intcmp, 0, __FILE__, __LINE__);
    ASSERT_NE(h, nullptr);
    for (uintptr_t k = 1; k <= 1000; k++)
        ASSERT_NE(hash_insert(h, k * 7, k), 0);
    for (uintptr_t k = 1; k <= 1000; k++)
        EXPECT_EQ(hash_lookup(h, k * 7), k);
    EXPECT_EQ(hash_lookup(h, 3), 0u);
    hash_destroy(h);
    EXPECT_EQ(_hash_create(0, nullptr, hash_intcmp, 0, __FILE__, __LINE__), nullptr);
}

}  // namespace
