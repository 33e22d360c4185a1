// htab_bench.cpp - handle tables against std::unordered_map, and the cost of
// expiring a burst of timers.
//
// Insert, lookup and delete of 1M entries with keys of two 32-bit words and
// one value word, the same keys (distinct, in a shuffled order) for both
// tables. The handle table runs the way its users run it, through the id,
// with the table's lock held around each batch; the map uses the identity
// hash of the 64-bit key, the usual and cheapest choice for random keys.
// The lookups run three ways: one vael_htab_get per key, vael_htab_get_many
// on batches of keys, and the map both inlined into the loop and behind a
// call of vael_htab_get's shape, which shows what the call boundary alone
// costs (see map_get).
//
// The bursts: 1M entries get a timeout of 1 within one second, and the caller
// makes 2M calls of vael_htab_expire per second (a packet path at 2M packets
// a second). The seconds are a stepped clock, so the run does not wait for
// them; each call still reads the real clock, as it would. Reported: the
// longest single call, for a gradual table (the entries spread over the
// second's calls) and for a regular one (all of them at the change of
// second).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <cstdint>
#include <numeric>
#include <random>
#include <unordered_map>
#include <vector>

#include "runtime/vael_htab_internal.h"
#include "vael/vael_apps.h"

namespace vael_bench {
namespace {

constexpr uint32_t kEntries = 1u << 20;
constexpr uint32_t kCallsPerSecond = 2u << 20;

struct Key2 {
    uint32_t w[2];
    bool operator==(const Key2 &o) const { return w[0] == o.w[0] && w[1] == o.w[1]; }
};

struct Key2Hash {
    size_t operator()(const Key2 &k) const { return std::hash<uint64_t>{}((uint64_t)k.w[1] << 32 | k.w[0]); }
};

using PeerMap = std::unordered_map<Key2, uint32_t, Key2Hash>;

// splitmix64 is a bijection of 64-bit words: distinct inputs, distinct keys.
uint64_t splitmix64(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

struct Keys {
    std::vector<Key2> insert_order;
    std::vector<Key2> lookup_order;
    Keys() {
        insert_order.resize(kEntries);
        for (uint32_t i = 0; i < kEntries; i++) {
            uint64_t x = splitmix64(i);
            insert_order[i] = Key2{{(uint32_t)x, (uint32_t)(x >> 32)}};
        }
        lookup_order = insert_order;
        std::shuffle(lookup_order.begin(), lookup_order.end(), std::mt19937_64(42));
    }
};

const Keys &keys() {
    static const Keys k;
    return k;
}

// A handle table with its lock.
class Htab {
  public:
    explicit Htab(uint32_t flags = 0, vael_htab_free_fn free_func = nullptr) {
        tqlock_lock_init(&lock_);
        vael_htab_create("bench", (int)kEntries, flags, free_func, nullptr, nullptr, &lock_, &id_, nullptr);
    }
    ~Htab() {
        vael_htab_destroy(id_);
        tqlock_lock_term(&lock_);
    }
    int id() const { return id_; }
    vael_mutex *lock() const { return lock_; }
    void fill(uint32_t timeout) {
        uint32_t v = 0;
        for (const Key2 &k : keys().insert_order) {
            v++;
            vael_htab_set(id_, k.w, 2, &v, 1, timeout, nullptr);
        }
    }

  private:
    vael_mutex *lock_ = nullptr;
    int id_ = -1;
};

void report_items(benchmark::State &state) {
    state.SetItemsProcessed((int64_t)state.iterations() * kEntries);
}

void BM_HtabInsert(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto t = std::make_unique<Htab>();
        state.ResumeTiming();
        MtMutexLock(t->lock());
        t->fill(VAEL_HTAB_TMO_KEEP);
        MtMutexUnLock(t->lock());
        state.PauseTiming();
        t.reset();
        state.ResumeTiming();
    }
    report_items(state);
}

void BM_UnorderedMapInsert(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto m = std::make_unique<PeerMap>();
        state.ResumeTiming();
        uint32_t v = 0;
        for (const Key2 &k : keys().insert_order)
            m->emplace(k, ++v);
        state.PauseTiming();
        m.reset();
        state.ResumeTiming();
    }
    report_items(state);
}

// The lookups also run at a quarter of the entries, where the table's bins
// (at most 512K) hold one entry each on average, as the map's buckets do.
std::vector<Key2> shuffled_first(uint32_t n) {
    std::vector<Key2> out(keys().insert_order.begin(), keys().insert_order.begin() + n);
    std::shuffle(out.begin(), out.end(), std::mt19937_64(n));
    return out;
}

void BM_HtabLookup(benchmark::State &state) {
    const uint32_t n = (uint32_t)state.range(0);
    Htab t;
    uint32_t v = 0;
    for (uint32_t i = 0; i < n; i++, v++)
        vael_htab_set(t.id(), keys().insert_order[i].w, 2, &v, 1, VAEL_HTAB_TMO_KEEP, nullptr);
    const std::vector<Key2> order = shuffled_first(n);
    uint64_t sum = 0;
    for (auto _ : state) {
        MtMutexLock(t.lock());
        for (const Key2 &k : order) {
            uint32_t got = 0;
            int len = 1;
            vael_htab_get(t.id(), k.w, 2, &got, &len, 0, nullptr);
            sum += got;
        }
        MtMutexUnLock(t.lock());
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * n);
}

// The peer holding the first n keys of the insert order.
PeerMap peer_map_of_first(uint32_t n) {
    PeerMap m;
    for (uint32_t i = 0; i < n; i++)
        m.emplace(keys().insert_order[i], i);
    return m;
}

void BM_UnorderedMapLookup(benchmark::State &state) {
    const uint32_t n = (uint32_t)state.range(0);
    const PeerMap m = peer_map_of_first(n);
    const std::vector<Key2> order = shuffled_first(n);
    uint64_t sum = 0;
    for (auto _ : state) {
        for (const Key2 &k : order) {
            auto it = m.find(k);
            if (it != m.end())
                sum += it->second;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * n);
}

// The same lookups handed over in batches of 256 keys, as a packet path
// that collects the keys of a batch of packets would.
void BM_HtabLookupMany(benchmark::State &state) {
    constexpr int kBatch = 256;
    const uint32_t n = (uint32_t)state.range(0);
    Htab t;
    uint32_t v = 0;
    for (uint32_t i = 0; i < n; i++, v++)
        vael_htab_set(t.id(), keys().insert_order[i].w, 2, &v, 1, VAEL_HTAB_TMO_KEEP, nullptr);
    const std::vector<Key2> order = shuffled_first(n);
    std::vector<uint32_t> got(kBatch);
    std::vector<int> results(kBatch);
    uint64_t sum = 0;
    for (auto _ : state) {
        MtMutexLock(t.lock());
        for (uint32_t i = 0; i < n; i += kBatch) {
            const int count = (int)std::min<uint32_t>(kBatch, n - i);
            vael_htab_get_many(t.id(), order[i].w, 2, count, got.data(), 1, results.data());
            for (int j = 0; j < count; j++)
                sum += got[j];
        }
        MtMutexUnLock(t.lock());
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * n);
}

// The map behind a call of vael_htab_get's shape that the compiler can't see
// into: what a lookup costs through any library boundary. Inlined into the
// loop, the map's lookups of several keys overlap; behind a call they mostly
// do not.
__attribute__((noinline)) int map_get(const PeerMap &m, const uint32_t *key, uint32_t *dest, int *len_inout,
                                      int *result_out) {
    auto it = m.find(Key2{{key[0], key[1]}});
    if (it == m.end()) {
        if (result_out)
            *result_out = VAEL_HTAB_GET_MISSING;
        return VAEL_ERROR;
    }
    *dest = it->second;
    *len_inout = 1;
    if (result_out)
        *result_out = VAEL_HTAB_GET_OK;
    return VAEL_OK;
}

void BM_UnorderedMapLookupCall(benchmark::State &state) {
    const uint32_t n = (uint32_t)state.range(0);
    const PeerMap m = peer_map_of_first(n);
    const std::vector<Key2> order = shuffled_first(n);
    uint64_t sum = 0;
    for (auto _ : state) {
        for (const Key2 &k : order) {
            uint32_t got = 0;
            int len = 1;
            map_get(m, k.w, &got, &len, nullptr);
            sum += got;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * n);
}

void BM_HtabDelete(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto t = std::make_unique<Htab>();
        t->fill(VAEL_HTAB_TMO_KEEP);
        state.ResumeTiming();
        MtMutexLock(t->lock());
        for (const Key2 &k : keys().lookup_order)
            vael_htab_del(t->id(), k.w, 2, "bench");
        MtMutexUnLock(t->lock());
        state.PauseTiming();
        t.reset();
        state.ResumeTiming();
    }
    report_items(state);
}

void BM_UnorderedMapDelete(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto m = std::make_unique<PeerMap>();
        uint32_t v = 0;
        for (const Key2 &k : keys().insert_order)
            m->emplace(k, ++v);
        state.ResumeTiming();
        for (const Key2 &k : keys().lookup_order)
            m->erase(k);
        state.PauseTiming();
        m.reset();
        state.ResumeTiming();
    }
    report_items(state);
}

// ---------------------------------------------------------------- the burst

uint32_t g_second = 0;

// The stepped second, after a read of the real clock that a caller's call
// would pay for.
uint32_t stepped_clock() {
    benchmark::DoNotOptimize(qx_abstime());
    return g_second;
}

struct BurstFigures {
    double longest_us = 0; // wall clock
    // The thread's own processor time: what a call cost, whether or not the
    // thread was descheduled in the middle of it (the clock read itself
    // adds a little to every call).
    double longest_cpu_us = 0;
    double mean_ns = 0;
    uint64_t calls = 0;
    uint64_t calls_over_1ms = 0;
    uint64_t calls_over_1ms_cpu = 0;
    uint64_t most_expired = 0; // entries that one call expired, at most
    // Calls by wall time in steps of 1 us, the last step taking the rest.
    std::vector<uint64_t> by_us = std::vector<uint64_t>(10001);
    double percentile_us(double p) const {
        uint64_t want = (uint64_t)((double)calls * p), seen = 0;
        for (size_t us = 0; us < by_us.size(); us++)
            if ((seen += by_us[us]) >= want)
                return (double)us + 1;
        return (double)by_us.size();
    }
};

uint64_t g_expired = 0;

void count_expired(const uint32_t *, int, const uint32_t *, int, int, const char *, void *) { g_expired++; }

// One second's calls, each timed alone. On a shared machine a call can be
// descheduled in the middle; the entries it expired tell that from work.
void timed_second(uint32_t calls, BurstFigures &f, double &total_ns) {
    for (uint32_t i = 0; i < calls; i++) {
        const uint64_t before = g_expired;
        timespec c0, c1;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c0);
        const auto t0 = std::chrono::steady_clock::now();
        vael_htab_expire();
        const auto t1 = std::chrono::steady_clock::now();
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c1);
        const double cpu_ns = (double)(c1.tv_sec - c0.tv_sec) * 1e9 + (double)(c1.tv_nsec - c0.tv_nsec);
        f.longest_cpu_us = std::max(f.longest_cpu_us, cpu_ns / 1000.0);
        f.calls_over_1ms_cpu += cpu_ns > 1e6;
        const double ns = (double)std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count();
        total_ns += ns;
        f.longest_us = std::max(f.longest_us, ns / 1000.0);
        f.calls_over_1ms += ns > 1e6;
        f.by_us[std::min<size_t>((size_t)(ns / 1000.0), f.by_us.size() - 1)]++;
        f.most_expired = std::max(f.most_expired, g_expired - before);
    }
    f.calls += calls;
}

void run_burst(benchmark::State &state, uint32_t flags) {
    const auto saved = vael_htab_detail::set_clock(stepped_clock);
    BurstFigures f;
    int left = -1;
    for (auto _ : state) {
        g_second = qx_abstime();
        vael_htab_expire(); // the counters take this second
        Htab t(flags, count_expired);
        t.fill(1); // 1M timeouts, all in the slot of the next second
        for (uint32_t i = 0; i < kCallsPerSecond; i++)
            vael_htab_expire(); // the calls of the burst's second set the rate
        double total_ns = 0;
        f = BurstFigures{};
        for (int s = 0; s < 2; s++) {
            g_second++;
            timed_second(kCallsPerSecond, f, total_ns);
        }
        f.mean_ns = total_ns / (double)f.calls;
        left = vael_htab_nents(t.id());
    }
    vael_htab_detail::set_clock(saved);
    state.counters["longest_call_us"] = f.longest_us;
    state.counters["longest_call_cpu_us"] = f.longest_cpu_us;
    state.counters["most_expired_in_a_call"] = (double)f.most_expired;
    state.counters["calls_over_1ms"] = (double)f.calls_over_1ms;
    state.counters["calls_over_1ms_cpu"] = (double)f.calls_over_1ms_cpu;
    state.counters["p99.99_call_us"] = f.percentile_us(0.9999);
    state.counters["mean_call_ns"] = f.mean_ns;
    state.counters["calls"] = (double)f.calls;
    state.counters["entries_left"] = left;
}

void BM_HtabExpireBurstGradual(benchmark::State &state) { run_burst(state, VAEL_HTAB_EXPIRE_GRADUAL); }
void BM_HtabExpireBurstRegular(benchmark::State &state) { run_burst(state, VAEL_HTAB_EXPIRE); }

BENCHMARK(BM_HtabInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMapInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HtabLookup)->Arg(kEntries)->Arg(kEntries / 4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HtabLookupMany)->Arg(kEntries)->Arg(kEntries / 4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMapLookup)->Arg(kEntries)->Arg(kEntries / 4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMapLookupCall)->Arg(kEntries)->Arg(kEntries / 4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HtabDelete)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMapDelete)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HtabExpireBurstGradual)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HtabExpireBurstRegular)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vael_bench
