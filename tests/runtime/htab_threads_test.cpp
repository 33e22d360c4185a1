// Handle tables on many threads: eight workers each own a table and change it under its lock while calling
// vael_htab_expire and reading other tables through the registry; one more thread creates and destroys tables, some
// while a reader is inside them.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "runtime/vael_htab_internal.h"
#include "vael/vael_apps.h"

namespace {

using Key = std::vector<uint32_t>;

constexpr int kWorkers = 8, kOpsPerWorker = 6000;

struct Worker {
    vael_mutex *lock = nullptr;
    int id = -1;
    // Entries without a timer, which nothing but the worker changes.
    std::map<Key, uint32_t> lasting;
    int mismatches = 0;
};

int count_entries(int, vael_htab *, vael_htab_entry *, void *ctx) {
    ++*static_cast<int *>(ctx);
    return 1;
}

void work(Worker &w, int n, const std::atomic<bool> &churn_running) {
    const uint32_t flags[] = {0, VAEL_HTAB_EXPIRE, VAEL_HTAB_EXPIRE_GRADUAL | VAEL_HTAB_REFRESH, VAEL_HTAB_EXPIRE};
    const std::string name = "worker" + std::to_string(n);
    if (vael_htab_create(name.c_str(), 64, flags[n % 4], nullptr, nullptr, nullptr, &w.lock, &w.id, nullptr) != 0)
        return;
    std::mt19937 rng((unsigned)n);
    for (int op = 0; op < kOpsPerWorker; op++) {
        // Keys of even first word never get a timer; odd ones may expire.
        const Key k{(uint32_t)(rng() % 64), (uint32_t)n};
        const bool lasting = k[0] % 2 == 0;
        const uint32_t v = rng();
        MtMutexLock(w.lock);
        switch (rng() % 4) {
        case 0:
        case 1:
            if (vael_htab_set(w.id, k.data(), 2, &v, 1, lasting ? 0 : 1 + rng() % 2, nullptr) == 0 && lasting)
                w.lasting[k] = v;
            break;
        case 2: {
            uint32_t got = 0;
            int len = 1, result = 0;
            const bool found = vael_htab_get(w.id, k.data(), 2, &got, &len, 1, &result) == 0;
            w.mismatches += lasting && (found != (w.lasting.count(k) != 0) || (found && got != w.lasting[k]));
            break;
        }
        default:
            if (vael_htab_del(w.id, k.data(), 2, "worker") == 0 && lasting)
                w.lasting.erase(k);
            break;
        }
        MtMutexUnLock(w.lock);
        // Never while holding the own lock: both take table locks.
        if (op % 4 == 0)
            vael_htab_expire();
        if (op % 64 == 0 && churn_running) {
            int entries = 0;
            vael_htab_get_table(nullptr, (int)(rng() % VAEL_HTAB_MAX_TABLES), nullptr, count_entries, &entries);
            vael_htab_get_table("churn", -1, nullptr, count_entries, &entries);
        }
    }
}

void release_lock(void *lock) {
    tqlock_lock_term(static_cast<vael_mutex **>(lock));
    delete static_cast<vael_mutex **>(lock);
}

// Creates and destroys tables; the pending callback of a destroy that found
// a reader inside releases that table's lock.
void churn(std::atomic<bool> &running) {
    std::mt19937 rng(99);
    for (int round = 0; round < 400; round++) {
        auto *lock = new vael_mutex *(nullptr);
        int id = -1;
        const uint32_t flags = (round % 3 == 0) ? VAEL_HTAB_EXPIRE_GRADUAL : (round % 3 == 1 ? VAEL_HTAB_EXPIRE : 0);
        EXPECT_EQ(tqlock_lock_init(lock), 0);
        EXPECT_EQ(vael_htab_create("churn", 16, flags, nullptr, nullptr, nullptr, lock, &id, nullptr), 0);
        MtMutexLock(*lock);
        for (uint32_t i = 0; i < 8; i++) {
            const uint32_t k[] = {i, (uint32_t)round};
            vael_htab_set(id, k, 2, k, 2, flags ? 1 + rng() % 3 : 0, nullptr);
        }
        const int rc = vael_htab_destroy_ex(id, release_lock, lock);
        MtMutexUnLock(*lock);
        if (rc == 1)
            release_lock(lock);
        if (round % 16 == 0)
            std::this_thread::yield();
    }
    running = false;
}

TEST(HtabThreads, WorkersAndChurnKeepEveryTableWhole) {
    const intptr_t kmem = qx_kmem_get_alloc_total();
    std::vector<Worker> workers(kWorkers);
    for (auto &w : workers)
        ASSERT_EQ(tqlock_lock_init(&w.lock), 0);
    std::atomic<bool> churn_running{true};
    std::vector<std::thread> threads;
    for (int n = 0; n < kWorkers; n++)
        threads.emplace_back(work, std::ref(workers[n]), n, std::cref(churn_running));
    threads.emplace_back(churn, std::ref(churn_running));
    for (auto &t : threads)
        t.join();

    for (auto &w : workers) {
        ASSERT_GE(w.id, 0);
        EXPECT_EQ(w.mismatches, 0);
        // Every lasting entry is there with its last value.
        for (const auto &[k, v] : w.lasting) {
            uint32_t got = 0;
            int len = 1;
            EXPECT_TRUE(vael_htab_get(w.id, k.data(), 2, &got, &len, 0, nullptr) == 0 && got == v) << k[0];
        }
        EXPECT_EQ(vael_htab_destroy(w.id), 1);
        tqlock_lock_term(&w.lock);
    }
    EXPECT_EQ(vael_htab_find("churn"), -1) << "every pending table was freed by its last reader";
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
}

}  // namespace
