// Every allocating operation of the list, the hash and the virtual buffer
// fails cleanly at each of its allocation sites: the container is left as it
// was and both byte accounts are back where they started.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_list.h"
#include "vael/vael_vbuf.h"

namespace {

using vael_test::failmem_walk;

int cmp_words(uintptr_t a, uintptr_t b) { return a == b ? 1 : (a > b ? 0 : -1); }

// The buffer's bytes, read without allocating (the check runs while
// allocations are being failed).
std::string flat(vael_vbuf *v) {
    char out[64];
    uint32_t n = vael_vbuf_size(v) ? vael_vbuf_defrag(v, 0, vael_vbuf_size(v), out, sizeof out) : 0;
    return std::string(out, n);
}

TEST(ContainerFailmem, ListCreation) {
    uintptr_t pool = 0;
    for (int kind = 0; kind < 3; kind++) {
        lst_list *l = nullptr;
        auto w = failmem_walk(
            [&] {
                l = kind == 0 ? lst_create() : kind == 1 ? vael_stack_create(nullptr) : lst_create_with_pool(&pool, nullptr);
                return l != nullptr;
            },
            [&] { return l == nullptr; });
        EXPECT_EQ(w.rounds, 2) << kind;
        lst_destroy(l);
    }
}

TEST(ContainerFailmem, EveryInsertLeavesTheListAsItWas) {
    using Insert = int (*)(lst_list *, uintptr_t);
    const Insert inserts[] = {lst_insert, lst_insert_at_end, lst_insert_at_start, lst_insert_ascending,
                              lst_insert_descending};
    for (Insert insert : inserts) {
        lst_list *l = lst_create();
        lst_set_comparator(l, cmp_words);
        for (uintptr_t v : {10, 30})
            lst_insert(l, v);
        const std::vector<uintptr_t> before = vael_test::list_values(l);
        auto w = failmem_walk([&] { return insert(l, 20) != 0; }, [&] { return vael_test::list_values(l) == before; });
        EXPECT_EQ(w.rounds, 2);
        EXPECT_EQ(lst_nelements(l), 3);
        lst_destroy(l);
    }
    lst_list *q = vael_queue_create();
    auto w = failmem_walk([&] { return vael_enqueue(q, 1) == 0; }, [&] { return lst_nelements(q) == 0; });
    EXPECT_EQ(w.rounds, 2);
    lst_list *s = vael_stack_create(nullptr);
    w = failmem_walk([&] { return vael_stack_push(s, 1) == 0; }, [&] { return vael_stack_size(s) == 0; });
    EXPECT_EQ(w.rounds, 2);
    vael_queue_cleanup(q);
    vael_stack_cleanup(s);
}

TEST(ContainerFailmem, HashCreateAndInsert) {
    hash_table *h = nullptr;
    auto w = failmem_walk(
        [&] { return (h = _hash_create(16, hash_intvalue, hash_intcmp, 0, __FILE__, __LINE__)) != nullptr; },
        [&] { return h == nullptr; });
    EXPECT_EQ(w.rounds, 2); // the table and its buckets come from one site here
    ASSERT_NE(h, nullptr);
    ASSERT_NE(hash_insert(h, 1, 100), 0);
    w = failmem_walk([&] { return hash_insert(h, 2, 200) != 0; }, [&] { return hash_lookup(h, 2) == 0; });
    EXPECT_EQ(w.rounds, 2);
    EXPECT_EQ(hash_lookup(h, 1), 100u);
    EXPECT_EQ(hash_lookup(h, 2), 200u);
    hash_destroy(h);
}

TEST(ContainerFailmem, VbufCreateAddAndCompare) {
    vael_vbuf *v = nullptr;
    auto w = failmem_walk([&] { return (v = vael_vbuf_create(8, 0)) != nullptr; }, [&] { return v == nullptr; });
    EXPECT_EQ(w.rounds, 3); // the header and its block list
    ASSERT_NE(v, nullptr);

    std::string a = "abcd", b = "efgh", c = "ij";
    ASSERT_EQ(vael_vbuf_add_buffer_ex(v, a.data(), 4, nullptr, nullptr), 0);
    // A new record and its list cell.
    w = failmem_walk([&] { return vael_vbuf_add_buffer_ex(v, b.data(), 4, nullptr, nullptr) == 0; },
                     [&] { return flat(v) == "abcd"; });
    EXPECT_EQ(w.rounds, 3);
    EXPECT_TRUE(vael_vbuf_compare_to_buffer(v, "abcdefgh", 8, 0));

    // Out of memory in the compare reads as "not equal" and leaks nothing.
    bool same = true;
    w = failmem_walk([&] { return (same = vael_vbuf_compare_to_buffer(v, "abcdefgh", 8, 0)) != 0; },
                     [&] { return !same; });
    EXPECT_EQ(w.rounds, 2);
    vael_vbuf_destroy(v);

    // Evicting reuses the victim's record, so only the list cell can fail. The
    // eviction has happened by then: the failed add leaves an empty buffer
    // (the record is released), and the next add succeeds.
    v = vael_vbuf_create(4, 0);
    ASSERT_EQ(vael_vbuf_add_buffer_ex(v, a.data(), 4, nullptr, nullptr), 0);
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_EQ(vael_vbuf_add_buffer_ex(v, c.data(), 2, nullptr, nullptr), -1);
    EXPECT_EQ(vael_us_adaptor_num_failures(), 1);
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_EQ(vael_vbuf_size(v), 0u);
    EXPECT_EQ(vael_vbuf_add_buffer_ex(v, c.data(), 2, nullptr, nullptr), 0);
    EXPECT_EQ(flat(v), "ij");
    vael_vbuf_destroy(v);
}

}  // namespace
