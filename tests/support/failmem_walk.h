// Walks an operation through the allocation failures it can meet.
//
// failmem_walk fails each allocation site once, at its first call (fail
// injection mode 2), and repeats the operation until it succeeds: rounds =
// sites + 1. failmem_walk_each_allocation fails the first allocation, then
// the second, and so on, reaching the roads where much is built already:
// rounds = allocations + 1. After each failed round both walks check that the
// operation failed as its interface promises and left both byte accounts
// where they were; leaks outside the accounts are ASan's to report.
#ifndef VAEL_TESTS_SUPPORT_FAILMEM_WALK_H
#define VAEL_TESTS_SUPPORT_FAILMEM_WALK_H

#include <gtest/gtest.h>

#include <cstdint>

#include "vael/vael_us_adaptor.h"

namespace vael_test {

struct FailmemWalk {
    int rounds = 0;          // the operation's calls, the successful one included
    int injected = 0;        // allocations failed by injection over the walk
    bool succeeded = false;  // the last round succeeded
};

namespace failmem_detail {

// Runs rounds until `attempt` succeeds. `arm(round)` sets injection up before
// a round; `injected()` tells how many failures were injected so far.
template <class Attempt, class FailedCleanly, class Arm, class Injected>
FailmemWalk walk(Attempt &attempt, FailedCleanly &failed_cleanly, Arm arm, Injected injected, int max_rounds) {
    FailmemWalk w;
    const intptr_t kmem_start = qx_kmem_get_alloc_total();
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    while (w.rounds < max_rounds) {
        const int before = w.injected;
        w.rounds++;
        arm(w.rounds);
        const bool ok = attempt();
        w.injected = injected();
        if (ok) {
            w.succeeded = true;
            break;
        }
        if (w.injected == before) {
            ADD_FAILURE() << "round " << w.rounds << " failed with no allocation failed by injection";
            break;
        }
        const bool clean = failed_cleanly();
        const intptr_t kmem = qx_kmem_get_alloc_total();
        const intptr_t pm = vael_pmglob_memory_get_alloc_total();
        EXPECT_TRUE(clean) << "round " << w.rounds << " did not fail cleanly";
        EXPECT_EQ(kmem, kmem_start) << "general account after failed round " << w.rounds;
        EXPECT_EQ(pm, pm_start) << "PM account after failed round " << w.rounds;
        // The first faulty round tells the story; the rounds after it would
        // only repeat it with a drifted account.
        if (!clean || kmem != kmem_start || pm != pm_start)
            break;
    }
    EXPECT_TRUE(w.succeeded) << "no successful round in " << w.rounds;
    return w;
}

}  // namespace failmem_detail

// `attempt()` runs the operation once and returns true when it succeeded; it
// keeps what a successful round built for the caller to use and free.
// `failed_cleanly()` is asked after each failed round and returns true when
// the failure was reported as promised (a null result with the error set, a
// -1, an unchanged list...). A walk stops at the first success, at the first
// round that fails without an injected failure (a fault of its own, which
// would repeat forever), or after `max_rounds`. Injection is off again when
// it returns.
template <class Attempt, class FailedCleanly>
FailmemWalk failmem_walk(Attempt &&attempt, FailedCleanly &&failed_cleanly, int max_rounds = 10000) {
    vael_us_adaptor_failmem_set(2, 0);
    FailmemWalk w = failmem_detail::walk(
        attempt, failed_cleanly, [](int) {}, [] { return vael_us_adaptor_num_failures(); }, max_rounds);
    vael_us_adaptor_failmem_set(0, 0);
    return w;
}

template <class Attempt, class FailedCleanly>
FailmemWalk failmem_walk_each_allocation(Attempt &&attempt, FailedCleanly &&failed_cleanly,
                                         int max_rounds = 100000) {
    const int saved_pct = global_pct;
    const int saved_method = fail_mem_method;
    int base = 0;
    int failed = 0;
    FailmemWalk w = failmem_detail::walk(
        attempt, failed_cleanly,
        [&](int round) {
            // Method 1 fails the allocation whose number equals global_pct.
            base = alloc_number;
            fail_mem_method = 1;
            global_pct = base + round;
        },
        [&] {
            if (alloc_number - base >= global_pct - base)
                failed++;
            return failed;
        },
        max_rounds);
    global_pct = saved_pct;
    fail_mem_method = saved_method;
    return w;
}

}  // namespace vael_test

#endif  // VAEL_TESTS_SUPPORT_FAILMEM_WALK_H
