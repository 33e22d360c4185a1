// Every allocating operation of the list, the hash and the virtual buffer fails cleanly at each of its allocation
// sites: the container is left as it was and both byte accounts are back where they started.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_list.h"
#include "vael/vael_vbuf.h"

namespace {

using vael_test::failmem_walk;
using vael_test::list_values;

int cmp_words(uintptr_t a, uintptr_t b) { return a == b ? 1 : (a > b ? 0 : -1); }

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
    struct Case {
        const char *name;
        std::function<void()> setup;
        std::function<bool()> attempt, failed_cleanly;
        int rounds;  // allocation sites + 1
    };
    const std::vector<Case> cases = {
        {"lst_create", [] {}, [&] { return (l = lst_create()) != nullptr; }, [&] { return !l; }, 2},
        {"vael_stack_create", [] {}, [&] { return (l = vael_stack_create(nullptr)) != nullptr; }, [&] { return !l; }, 2},
        {"lst_create_with_pool", [] {}, [&] { return (l = lst_create_with_pool(&pool, nullptr)) != nullptr; },
         [&] { return !l; }, 2},
        {"lst_insert", fresh_list, [&] { return lst_insert(l, 20) != 0; }, [&] { return lst_nelements(l) == 2; }, 2},
        {"lst_insert_at_start", fresh_list, [&] { return lst_insert_at_start(l, 20) != 0; },
         [&] { return list_values(l) == std::vector<uintptr_t>{10, 30}; }, 2},
        {"lst_insert_ascending", fresh_list, [&] { return lst_insert_ascending(l, 20) != 0; },
         [&] { return list_values(l) == std::vector<uintptr_t>{10, 30}; }, 2},
        {"lst_insert_descending", fresh_list, [&] { return lst_insert_descending(l, 20) != 0; },
         [&] { return list_values(l) == std::vector<uintptr_t>{10, 30}; }, 2},
        {"vael_enqueue", fresh_list, [&] { return vael_enqueue(l, 1) == 0; }, [&] { return lst_nelements(l) == 2; }, 2},
        {"_hash_create", [] {}, [&] { return (h = _hash_create(16, hash_intvalue, hash_intcmp, 0, "f", 1)) != nullptr; },
         [&] { return !h; }, 2},
        {"hash_insert", [&] { h = _hash_create(16, hash_intvalue, hash_intcmp, 0, "f", 1), hash_insert(h, 1, 100); },
         [&] { return hash_insert(h, 2, 200) != 0; }, [&] { return hash_lookup(h, 2) == 0 && hash_lookup(h, 1) == 100; },
         2},
        {"vael_vbuf_create", [] {}, [&] { return (v = vael_vbuf_create(8, 0)) != nullptr; }, [&] { return !v; }, 3},
        {"vael_vbuf_add_buffer_ex",
         [&] { v = vael_vbuf_create(8, 0), vael_vbuf_add_buffer_ex(v, a.data(), 4, nullptr, nullptr); },
         [&] { return vael_vbuf_add_buffer_ex(v, b.data(), 4, nullptr, nullptr) == 0; },
         [&] { return flat(v) == "abcd"; }, 3},
        // Out of memory in the compare reads as "not equal".
        {"vael_vbuf_compare_to_buffer",
         [&] { v = vael_vbuf_create(8, 0), vael_vbuf_add_buffer_ex(v, a.data(), 4, nullptr, nullptr); },
         [&] { return vael_vbuf_compare_to_buffer(v, "abcd", 4, 0) != 0; }, [] { return true; }, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        l = nullptr, h = nullptr, v = nullptr;
        c.setup();
        auto w = failmem_walk(c.attempt, c.failed_cleanly);
        EXPECT_EQ(w.rounds, c.rounds);
        lst_destroy(l);
        if (h)
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
