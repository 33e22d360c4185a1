// The frame of the pattern matcher: pattern lists, compile, run and delivery,
// the PM's life (refcount, magic, the PM list), masks and memory accounts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;

// What a callback saw, and how it should answer.
struct Recorder {
    std::vector<Hit> hits;
    std::vector<uint32_t> starts; // extra[1] of the extended callback
    int result = 0;               // returned from every call
    bool stop = false;            // write 0 to *keep_going
    bool saw_keep_going_1 = true;
    vael_pm_handle *pm = nullptr;
    const unsigned char *buf = nullptr;
    uint32_t len = 0;
    bool args_ok = true;
};

int record(vael_pm_handle *pm, int32_t id, void *arg, const unsigned char *buf, uint32_t len, uint32_t offset,
           vael_vbuf *vbuf, int *keep_going) {
    auto *r = static_cast<Recorder *>(arg);
    r->hits.push_back(Hit{id, offset});
    r->args_ok = r->args_ok && pm == r->pm && buf == r->buf && len == r->len && vbuf == nullptr;
    r->saw_keep_going_1 = r->saw_keep_going_1 && *keep_going == 1;
    if (r->stop)
        *keep_going = 0;
    return r->result;
}

int record_ext(vael_pm_handle *pm, int32_t id, void *arg, const unsigned char *buf, uint32_t len, uint32_t offset,
               vael_vbuf *vbuf, int *keep_going, uint32_t *extra) {
    static_cast<Recorder *>(arg)->starts.push_back(extra[1]);
    return record(pm, id, arg, buf, len, offset, vbuf, keep_going);
}

vael_pm_patterns *make_list(const std::vector<Pattern> &patterns) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &p : patterns)
        EXPECT_EQ(vael_pm_patterns_add_simple_pattern(list, p.text.data(), (uint32_t)p.text.size(), p.id, p.flags),
                  0);
    return list;
}

// A compiled PM that destroys itself.
class Pm {
  public:
    explicit Pm(const std::vector<Pattern> &patterns, uint32_t flags = 0, vael_pm_match_cb cb = record) {
        vael_pm_patterns *list = make_list(patterns);
        pm_ = vael_pm_compile(list, cb, flags, &err_, "frame test");
        vael_pm_patterns_destroy(list);
    }
    ~Pm() { vael_pm_destroy(pm_); }
    Pm(const Pm &) = delete;
    Pm &operator=(const Pm &) = delete;

    vael_pm_handle *get() const { return pm_; }
    const vael_pm_error &error() const { return err_; }

    int exec(const std::string &text, Recorder *r, uint32_t flags = 0, vael_pm_mask *mask = nullptr) const {
        r->hits.clear();
        r->starts.clear();
        r->pm = pm_;
        r->buf = reinterpret_cast<const unsigned char *>(text.data());
        r->len = (uint32_t)text.size();
        return vael_pm_exec_ex(pm_, r->buf, r->len, nullptr, mask, r, flags);
    }
    std::vector<Hit> hits(const std::string &text, uint32_t flags = 0, vael_pm_mask *mask = nullptr) const {
        Recorder r;
        EXPECT_EQ(exec(text, &r, flags, mask), 0);
        EXPECT_TRUE(r.args_ok);
        return r.hits;
    }

  private:
    vael_pm_handle *pm_ = nullptr;
    vael_pm_error err_;
};

bool in_pm_list(const vael_pm_handle *pm) {
    for (const vael_pm_handle *p = *vael_pm_global_data.list; p; p = p->next)
        if (p == pm)
            return true;
    return false;
}

// ------------------------------------------------------------------ compile

TEST(FrameCompile, EmptyOrNullListGivesNoPmAndNoMessage) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    ASSERT_NE(list, nullptr);
    vael_pm_error err = {123, 0, "stale", 9};
    {
        LogCapture log;
        EXPECT_EQ(vael_pm_compile(list, record, 0, &err, "frame test"), nullptr);
        EXPECT_TRUE(log.contains("Illegal number of patterns and words")) << log.text();
    }
    EXPECT_EQ(err.error_string, nullptr);
    EXPECT_EQ(err.pattern_id, -1);
    EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
    EXPECT_EQ(err.error_index, 0u);
    vael_pm_patterns_destroy(list);

    LogCapture log;
    err = {123, 0, "stale", 9};
    EXPECT_EQ(vael_pm_compile(nullptr, record, 0, &err, "frame test"), nullptr);
    EXPECT_EQ(err.error_string, nullptr);
    EXPECT_EQ(err.pattern_id, -1);
    EXPECT_EQ(vael_pm_compile(nullptr, record, 0, nullptr, "frame test"), nullptr);
    EXPECT_TRUE(log.contains("Invalid arguments; patterns: (nil)")) << log.text();
    EXPECT_TRUE(log.contains("caller frame test")) << log.text();
}

TEST(FrameCompile, EmptyPatternCannotBeAdded) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    {
        LogCapture log;
        EXPECT_EQ(vael_pm_patterns_add_simple_pattern(list, "abc", 0, 1, 0), -1);
        EXPECT_TRUE(log.contains(": Invalid arguments: pattern: ")) << log.text();
        EXPECT_TRUE(log.contains("LSS_len: 0,")) << log.text();
    }
    {
        LogCapture quiet;
        EXPECT_EQ(vael_pm_patterns_add_simple_pattern(list, nullptr, 3, 1, 0), -1);
        EXPECT_EQ(vael_pm_patterns_add_simple_pattern(nullptr, "abc", 3, 1, 0), -1);
    }
    EXPECT_EQ(lst_nelements(list), 0);
    EXPECT_EQ(vael_pm_patterns_add_simple_pattern(list, "abc", 3, 1, 0), 0);
    EXPECT_EQ(lst_nelements(list), 1);
    vael_pm_patterns_destroy(list);
    vael_pm_patterns_destroy(nullptr);
}

TEST(FrameCompile, LssShorterThanTheMinimumFailsWithTheUsersId) {
    ScopedGlobal min_lss(vael_pm_min_lss_size, 3);
    const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total();
    const intptr_t all_mem = qx_kmem_get_alloc_total();
    {
        LogCapture log;
        Pm pm({{"abc", 1}, {"ab", 42}, {"xy", 43}});
        EXPECT_EQ(pm.get(), nullptr);
        EXPECT_TRUE(log.contains("lss of pattern ID 42 is shorter than the miminum length (3)")) << log.text();
        ASSERT_NE(pm.error().error_string, nullptr);
        EXPECT_STREQ(pm.error().error_string, "The pattern's LSS is too short");
        EXPECT_EQ(pm.error().error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL);
        EXPECT_EQ(pm.error().pattern_id, 42);
    }
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem) << "a failed compile holds no memory";
    EXPECT_EQ(qx_kmem_get_alloc_total(), all_mem);

    Pm pm({{"abc", 1}, {"ab", 42, VAEL_PM_SHORT_LSS}});
    ASSERT_NE(pm.get(), nullptr);
    EXPECT_EQ(pm.hits("xabc"), (std::vector<Hit>{{42, 2}, {1, 3}}));
}

TEST(FrameCompile, PmHoldsItsPatternsAndOneStringEngine) {
    Pm pm({{"alpha", 10}, {"beta", 20}, {"gamma", 30}});
    vael_pm_handle *h = pm.get();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->magic, VAEL_PM_MAGIC_ALIVE);
    EXPECT_EQ(std::memcmp(&h->magic, "nimp", 4), 0);
    EXPECT_EQ(h->refcount, 1u);
    EXPECT_STREQ(h->name, "frame test");
    EXPECT_EQ(h->tier1[0].tier1_type, (uint32_t)VAEL_PM_TIER1_STRING);
    EXPECT_NE(h->tier1[0].tier1_h, nullptr);
    EXPECT_EQ(h->tier1[1].tier1_type, (uint32_t)VAEL_PM_TIER1_NONE);
    EXPECT_EQ(h->tier1[1].tier1_h, nullptr);
    ASSERT_EQ(h->num_tier2, 3u);
    EXPECT_EQ(h->stats.num_patterns, 3u);
    const char *texts[] = {"alpha", "beta", "gamma"};
    for (uint32_t i = 0; i < 3; i++) {
        const vael_pm_array_one_handle &e = h->pm_array[i];
        EXPECT_EQ(e.id, (int32_t)(10 * (i + 1)));
        EXPECT_EQ(e.tier2_type, (uint32_t)VAEL_PM_TIER2_NONE);
        EXPECT_EQ(e.tier2_h, nullptr);
        EXPECT_EQ(e.re_str, nullptr);
        ASSERT_EQ(e.lss_size, std::strlen(texts[i]));
        EXPECT_EQ(std::memcmp(e.lss_str, texts[i], e.lss_size), 0);
    }
}

// ------------------------------------------------------------------ run

TEST(FrameExec, DeliversByEndOffsetLongestFirst) {
    struct Case {
        const char *name;
        std::vector<Pattern> patterns;
        std::string text;
        uint32_t flags;
        std::vector<Hit> expected;
    };
    const std::vector<Case> cases = {
        {"suffixes at one end", {{"he", 1}, {"she", 2}, {"hers", 3}, {"his", 4}}, "ushers his", kAll,
         {{2, 3}, {1, 3}, {3, 5}, {4, 9}}},
        {"same string, two ids", {{"abc", 1}, {"abc", 2}}, "xxabc", 0, {{1, 4}, {2, 4}}},
        {"same user id twice", {{"abc", 9}, {"xyz", 9}}, "abc xyz", 0, {{9, 2}, {9, 6}}},
        {"same string and id twice", {{"abc", 9}, {"abc", 9}}, "abc", 0, {{9, 2}, {9, 2}}},
        {"first end per pattern", {{"ab", 1}, {"b", 2}}, "ababab", 0, {{1, 1}, {2, 1}}},
        {"every end with all matches", {{"ab", 1}, {"b", 2}}, "ababab", kAll,
         {{1, 1}, {2, 1}, {1, 3}, {2, 3}, {1, 5}, {2, 5}}},
        {"no hit", {{"needle", 1}}, "haystack", 0, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Pm pm(c.patterns);
        ASSERT_NE(pm.get(), nullptr);
        EXPECT_EQ(pm.hits(c.text, c.flags), c.expected);
    }
}

TEST(FrameExec, NoDataIsRefused) {
    Pm pm({{"ab", 1}});
    ASSERT_NE(pm.get(), nullptr);
    const unsigned char data[] = "ab";
    for (const unsigned char *buf : {(const unsigned char *)nullptr, data}) {
        LogCapture log;
        Recorder r;
        const uint32_t len = buf ? 0 : 2;
        EXPECT_EQ(vael_pm_exec_ex(pm.get(), buf, len, nullptr, nullptr, &r, 0), -1);
        EXPECT_TRUE(r.hits.empty());
        EXPECT_TRUE(log.contains("Illegal arguments")) << log.text();
    }
    LogCapture log;
    EXPECT_EQ(vael_pm_exec_ex(nullptr, data, 2, nullptr, nullptr, nullptr, 0), -1);
    EXPECT_TRUE(log.contains("Invalid arguments")) << log.text();
}

TEST(FrameExec, CallbackEndsTheRun) {
    Pm pm({{"a", 1}, {"b", 2}, {"c", 3}});
    ASSERT_NE(pm.get(), nullptr);
    const std::string text = "abcabc";

    Recorder r;
    r.result = 7;
    EXPECT_EQ(pm.exec(text, &r, kAll), 7);
    EXPECT_EQ(r.hits, (std::vector<Hit>{{1, 0}}));

    r = Recorder{};
    r.result = -1;
    EXPECT_EQ(pm.exec(text, &r), -1);
    EXPECT_EQ(r.hits.size(), 1u);

    r = Recorder{};
    r.stop = true;
    EXPECT_EQ(pm.exec(text, &r, kAll), 0);
    EXPECT_EQ(r.hits, (std::vector<Hit>{{1, 0}}));

    r = Recorder{};
    EXPECT_EQ(pm.exec(text, &r, kAll), 0);
    EXPECT_EQ(r.hits.size(), 6u);
    EXPECT_TRUE(r.saw_keep_going_1);
    EXPECT_TRUE(r.args_ok);
}

TEST(FrameExec, WithoutCallbackHitsOnlyCount) {
    Pm pm({{"ab", 1}, {"zz", 2}}, 0, nullptr);
    ASSERT_NE(pm.get(), nullptr);
    const std::string text = "abab";
    for (int run = 0; run < 2; run++)
        EXPECT_EQ(vael_pm_exec_ex(pm.get(), reinterpret_cast<const unsigned char *>(text.data()), 4, nullptr, nullptr,
                                  nullptr, kAll),
                  0);
    EXPECT_EQ(vael_pm_exec_ex(pm.get(), reinterpret_cast<const unsigned char *>(text.data()), 4, nullptr, nullptr,
                              nullptr, 0),
              0);
    EXPECT_EQ(pm.get()->pm_array[0].tier1_matches, 5u);
    EXPECT_EQ(pm.get()->pm_array[0].matches, 5u);
    EXPECT_EQ(pm.get()->pm_array[1].tier1_matches, 0u);
    EXPECT_EQ(pm.get()->pm_array[1].matches, 0u);
}

TEST(FrameExec, MatchStartGoesToTheExtendedCallback) {
    Pm pm({{"abc", 1}, {"c", 2}, {"bcab", 3}});
    ASSERT_NE(pm.get(), nullptr);
    ASSERT_EQ(vael_pm_set_extended_match_cb(pm.get(), record_ext), 0);
    Recorder r;
    ASSERT_EQ(pm.exec("abcabc", &r, kAll | VAEL_PM_EXEC_MATCH_START), 0);
    EXPECT_EQ(r.hits, (std::vector<Hit>{{1, 2}, {2, 2}, {3, 4}, {1, 5}, {2, 5}}));
    EXPECT_EQ(r.starts, (std::vector<uint32_t>{0, 2, 1, 3, 5}));

    ASSERT_EQ(pm.exec("abc", &r, 0), 0);
    EXPECT_EQ(r.starts, (std::vector<uint32_t>{0, 0})) << "no start unless asked";

    // A null extended callback switches back to the regular one.
    ASSERT_EQ(vael_pm_set_extended_match_cb(pm.get(), nullptr), 0);
    ASSERT_EQ(pm.exec("abc", &r, VAEL_PM_EXEC_MATCH_START), 0);
    EXPECT_EQ(r.hits.size(), 2u);
    EXPECT_TRUE(r.starts.empty());

    LogCapture log;
    EXPECT_EQ(vael_pm_set_extended_match_cb(nullptr, record_ext), -1);
    EXPECT_TRUE(log.contains("pm is NULL or has wrong magic")) << log.text();
}

TEST(FrameExec, CaselessAndDigitless) {
    {
        Pm pm({{"AbC", 1}}, VAEL_PM_CASELESS);
        EXPECT_EQ(pm.hits("xaBcABC"), (std::vector<Hit>{{1, 3}}));
    }
    {
        // Caseless as a compile flag, or on every pattern.
        Pm pm({{"abc", 1, VAEL_PM_CASELESS}, {"XyZ", 2}}, VAEL_PM_CASELESS);
        ASSERT_NE(pm.get(), nullptr);
        EXPECT_EQ(pm.hits("ABC xyz"), (std::vector<Hit>{{1, 2}, {2, 6}}));
        Pm each({{"abc", 1, VAEL_PM_CASELESS}, {"XyZ", 2, VAEL_PM_CASELESS}});
        EXPECT_EQ(each.hits("ABC xyz"), (std::vector<Hit>{{1, 2}, {2, 6}}));
    }
    {
        // One caseless pattern makes the string engine caseless; a
        // case-sensitive pattern beside it would need a second tier to check
        // its case, so it is refused rather than matched wrongly.
        std::vector<Pattern> mixed = {{"abc", 1, VAEL_PM_CASELESS}, {"XyZ", 2}};
        vael_pm_patterns *list = make_list(mixed);
        vael_pm_error err;
        EXPECT_EQ(vael_pm_compile(list, nullptr, 0, &err, "frame-test"), nullptr);
        EXPECT_EQ(err.pattern_id, 2);
        EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL);
        ASSERT_NE(err.error_string, nullptr);
        EXPECT_NE(std::string(err.error_string).find("case-sensitive"), std::string::npos);
        vael_pm_patterns_destroy(list);
    }
    {
        Pm pm({{"abc", 1}, {"XyZ", 2}});
        EXPECT_TRUE(pm.hits("ABC xyz").empty());
    }
    {
        Pm pm({{"a1", 1}}, VAEL_PM_DIGITLESS);
        EXPECT_EQ(pm.hits("a7"), (std::vector<Hit>{{1, 1}}));
    }
}

TEST(FrameExec, AnchorFlagsOfAPatternReachTheStringEngine) {
    Pm pm({{"ab", 1, VAEL_PM_LSS_START_ANCHOR}, {"cd", 2, VAEL_PM_LSS_END_ANCHOR}, {"ab", 3}, {"cd", 4}});
    ASSERT_NE(pm.get(), nullptr);
    EXPECT_EQ(pm.hits("ab cd ab cd", kAll), (std::vector<Hit>{{1, 1}, {3, 1}, {4, 4}, {3, 7}, {2, 10}, {4, 10}}));
    EXPECT_EQ(pm.hits("xab cdx", kAll), (std::vector<Hit>{{3, 2}, {4, 5}}));
}

TEST(FrameExec, ThreadsScanningOnePmSeeTheSameHits) {
    Pm pm({{"he", 1}, {"she", 2}, {"hers", 3}, {"his", 4}, {"s", 5}});
    ASSERT_NE(pm.get(), nullptr);
    std::string text;
    for (int i = 0; i < 200; i++)
        text += "ushers his hers shell ";
    const std::vector<Hit> expected = pm.hits(text, kAll);
    ASSERT_GT(expected.size(), 1000u);

    constexpr int kThreads = 4;
    std::vector<std::vector<Hit>> seen(kThreads);
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            for (int run = 0; run < 25; run++) {
                Recorder r;
                if (pm.exec(text, &r, kAll) != 0 || r.hits != expected)
                    failures[t]++;
                seen[t] = r.hits;
            }
        });
    }
    for (auto &th : threads)
        th.join();
    for (int t = 0; t < kThreads; t++) {
        EXPECT_EQ(failures[t], 0) << "thread " << t;
        EXPECT_EQ(seen[t], expected) << "thread " << t;
    }
}

TEST(FrameExec, PmsCompiledAndDestroyedOnManyThreadsKeepTheListWhole) {
    vael_pm_handle *const before = *vael_pm_global_data.list;
    const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total();
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; i++) {
                Pm pm({{"thread" + std::to_string(t), t}, {"run" + std::to_string(i), i}});
                if (!pm.get() || pm.hits("xthread" + std::to_string(t)) != std::vector<Hit>{{t, 7}})
                    failures[t]++;
            }
        });
    }
    for (auto &th : threads)
        th.join();
    for (int t = 0; t < 4; t++)
        EXPECT_EQ(failures[t], 0) << "thread " << t;
    EXPECT_EQ(*vael_pm_global_data.list, before);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem);
}

// ------------------------------------------------------------------ life

TEST(FrameLifecycle, DestroyOfNullIsHarmless) { vael_pm_destroy(nullptr); }

TEST(FrameLifecycle, OverwrittenMagicIsRefused) {
    Pm pm({{"ab", 1}});
    vael_pm_handle *h = pm.get();
    ASSERT_NE(h, nullptr);
    h->magic = VAEL_PM_MAGIC_DEAD;
    {
        LogCapture log;
        Recorder r;
        EXPECT_EQ(pm.exec("ab", &r), -1);
        EXPECT_TRUE(r.hits.empty());
        EXPECT_TRUE(log.contains("Corrupted pm_handle,")) << log.text();
    }
    {
        LogCapture log;
        vael_pm_destroy(h);
        EXPECT_TRUE(log.contains("Corrupted pm_handler")) << log.text();
        EXPECT_TRUE(in_pm_list(h)) << "a refused destroy leaves the PM alone";
        EXPECT_EQ(h->refcount, 1u);
    }
    h->magic = VAEL_PM_MAGIC_ALIVE;
    EXPECT_EQ(pm.hits("ab"), (std::vector<Hit>{{1, 1}}));
}

TEST(FrameLifecycle, DestroyWithMoreHoldersKeepsThePm) {
    vael_pm_patterns *list = make_list({{"ab", 1}});
    vael_pm_handle *pm = vael_pm_compile(list, record, 0, nullptr, "frame test");
    vael_pm_patterns_destroy(list);
    ASSERT_NE(pm, nullptr);
    pm->refcount = 2;
    {
        vael_test::ScopedTopic topic("K_PM", VAEL_DBG_NOTICE);
        LogCapture log;
        vael_pm_destroy(pm);
        EXPECT_TRUE(log.contains("more holders")) << log.text();
    }
    EXPECT_EQ(pm->refcount, 1u);
    EXPECT_EQ(pm->magic, VAEL_PM_MAGIC_ALIVE);
    EXPECT_TRUE(in_pm_list(pm));
    Recorder r;
    r.pm = pm;
    const unsigned char data[] = "xab";
    r.buf = data;
    r.len = 3;
    EXPECT_EQ(vael_pm_exec_ex(pm, data, 3, nullptr, nullptr, &r, 0), 0);
    EXPECT_EQ(r.hits, (std::vector<Hit>{{1, 2}}));
    vael_pm_destroy(pm);
    EXPECT_FALSE(in_pm_list(pm));
}

TEST(FrameLifecycle, PmListIsNewestFirstWithRunningIds) {
    vael_pm_handle *const before = *vael_pm_global_data.list;
    vael_pm_patterns *list = make_list({{"ab", 1}});
    vael_pm_handle *a = vael_pm_compile(list, record, 0, nullptr, "first");
    vael_pm_handle *b = vael_pm_compile(list, record, 0, nullptr, "second");
    vael_pm_patterns_destroy(list);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(a->pm_id, before ? before->pm_id + 1 : 0);
    EXPECT_EQ(*vael_pm_global_data.list, b);
    EXPECT_EQ(b->next, a);
    EXPECT_EQ(a->next, before);
    EXPECT_EQ(b->pm_id, a->pm_id + 1);
    EXPECT_NE(std::memcmp(a->uuid, b->uuid, sizeof a->uuid), 0);

    vael_pm_destroy(b);
    EXPECT_EQ(*vael_pm_global_data.list, a);
    vael_pm_destroy(a);
    EXPECT_EQ(*vael_pm_global_data.list, before);
}

TEST(FrameLifecycle, DestroyGivesBackEveryByte) {
    // Match queues keep their cells in a shared pool for the next run.
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
    const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total();
    const intptr_t all_mem = qx_kmem_get_alloc_total();
    {
        std::vector<Pattern> patterns;
        for (int i = 0; i < 100; i++)
            patterns.push_back({"pattern-" + std::to_string(i * 7919), i});
        Pm pm(patterns);
        ASSERT_NE(pm.get(), nullptr);
        EXPECT_GT(pm.get()->stats.memory, 0u);
        EXPECT_EQ(pm.get()->stats.num_patterns, 100u);
        vael_pm_mask *mask = vael_pm_mask_create(pm.get());
        ASSERT_NE(mask, nullptr);
        vael_pm_mask_set(mask, 3);
        Recorder r;
        r.stop = true; // leaves hits in the queue
        EXPECT_EQ(pm.exec("pattern-0 pattern-7919 pattern-15838", &r, kAll), 0);
        EXPECT_EQ(pm.hits("pattern-23757", 0, mask), (std::vector<Hit>{{3, 12}}));
        vael_pm_mask_destroy(mask);
    }
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem);
    EXPECT_EQ(qx_kmem_get_alloc_total(), all_mem);
}

// ------------------------------------------------------------------ masks

TEST(FrameMask, BitsFollowUserIds) {
    Pm pm({{"aa", 10}, {"bb", 20}, {"cc", 30}, {"dd", 10}});
    ASSERT_NE(pm.get(), nullptr);
    const std::string text = "aa bb cc dd";
    vael_pm_mask *mask = vael_pm_mask_create(pm.get());
    ASSERT_NE(mask, nullptr);
    EXPECT_EQ(mask->mask_size, 1u);
    EXPECT_TRUE(pm.hits(text, 0, mask).empty()) << "a fresh mask silences everything";

    EXPECT_EQ(vael_pm_mask_set(mask, 20), 0);
    EXPECT_EQ(vael_pm_mask_set(mask, 30), 0);
    EXPECT_EQ(pm.hits(text, 0, mask), (std::vector<Hit>{{20, 4}, {30, 7}}));
    EXPECT_EQ(vael_pm_mask_unset(mask, 30), 0);
    EXPECT_EQ(pm.hits(text, 0, mask), (std::vector<Hit>{{20, 4}}));
    {
        LogCapture log;
        EXPECT_EQ(vael_pm_mask_set(mask, 99), -1);
        EXPECT_EQ(vael_pm_mask_unset(mask, 99), -1);
        EXPECT_TRUE(log.contains("vael_pm_mask_set: Can't find pattern 99 in pm_h")) << log.text();
    }

    // Of two entries with one user id only the first is reachable.
    EXPECT_EQ(vael_pm_mask_set(mask, 10), 0);
    EXPECT_EQ(pm.hits(text, 0, mask), (std::vector<Hit>{{10, 1}, {20, 4}}));

    vael_pm_mask *copy = vael_pm_mask_dup(mask);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(pm.hits(text, 0, copy), (std::vector<Hit>{{10, 1}, {20, 4}}));

    vael_pm_mask *other = vael_pm_mask_create(pm.get());
    vael_pm_mask_set(other, 20);
    vael_pm_mask_set(other, 30);
    EXPECT_EQ(vael_pm_mask_and(copy, other), 0);
    EXPECT_EQ(pm.hits(text, 0, copy), (std::vector<Hit>{{20, 4}}));
    EXPECT_EQ(pm.hits(text, 0, mask), (std::vector<Hit>{{10, 1}, {20, 4}})) << "the original is untouched";
    {
        LogCapture quiet;
        EXPECT_EQ(vael_pm_mask_and(copy, nullptr), -1);
        EXPECT_EQ(vael_pm_mask_dup(nullptr), nullptr);
        EXPECT_EQ(vael_pm_mask_create(nullptr), nullptr);
    }

    vael_pm_mask_destroy(other);
    vael_pm_mask_destroy(copy);
    vael_pm_mask_destroy(mask);
    vael_pm_mask_destroy(nullptr);
}

TEST(FrameMask, MaskOfAnotherPmIsRefused) {
    Pm pm({{"aa", 1}});
    Pm stranger({{"aa", 1}});
    ASSERT_NE(pm.get(), nullptr);
    ASSERT_NE(stranger.get(), nullptr);
    vael_pm_mask *mine = vael_pm_mask_create(pm.get());
    vael_pm_mask *theirs = vael_pm_mask_create(stranger.get());
    vael_pm_mask_set(theirs, 1);
    {
        LogCapture log;
        Recorder r;
        EXPECT_EQ(pm.exec("aa", &r, 0, theirs), -1);
        EXPECT_TRUE(r.hits.empty());
        EXPECT_TRUE(log.contains("unsuitable vael_pm_mask")) << log.text();
    }
    {
        LogCapture log;
        EXPECT_EQ(vael_pm_mask_and(mine, theirs), -1);
        EXPECT_TRUE(log.contains("Incompatible masks")) << log.text();
    }
    vael_pm_mask_destroy(theirs);
    vael_pm_mask_destroy(mine);
}

}  // namespace
