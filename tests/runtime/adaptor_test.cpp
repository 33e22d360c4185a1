// The runtime adaptor: debug flags from the environment, the byte accounts,
// both fail-injection methods, leak records, assertions, tunables, locks,
// clock, random bytes, the memory-pool printers and the allocation helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;

constexpr const char kPrefix[] = "vael[5]: ";

std::string prefixed(const std::string &line) { return kPrefix + line; }

// Sets or unsets one environment variable for the scope.
class ScopedEnv {
  public:
    ScopedEnv(const char *name, const char *value) : name_(name) {
        if (const char *old = std::getenv(name)) {
            had_ = true;
            old_ = old;
        }
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv() {
        if (had_)
            setenv(name_, old_.c_str(), 1);
        else
            unsetenv(name_);
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

  private:
    const char *name_;
    bool had_ = false;
    std::string old_;
};

bool on_at(const char *topic, int level) { return tdTopicsPrintable(level, topic, VAEL_DBG_MODULE, " |") != 0; }

// A topic that is on exactly up to `level`.
void expect_level(const char *topic, int level) {
    EXPECT_TRUE(on_at(topic, level)) << topic << " at " << level;
    EXPECT_FALSE(on_at(topic, level + 1)) << topic << " above " << level;
}

// Topics changed by a test are put back as the library starts them.
class DebugFlags : public ::testing::Test {
  protected:
    void TearDown() override {
        tdResetTopics();
        vael_us_adaptor_debug_init();
    }
};

// ---------------------------------------------------------------- debug flags

struct DebugEnvCase {
    const char *debug;
    const char *level_word;
    std::vector<const char *> topics;
    int level;
};

TEST_F(DebugFlags, EnvironmentTurnsTopicsOnAtTheLevelNamed) {
    const DebugEnvCase cases[] = {
        {"pm dfa", "INFO", {"K_PM", "K_DFA"}, 4},
        {"pm dfa", "LOUD", {"K_PM", "K_DFA"}, 3},  // unknown word: the default
        {"pm", nullptr, {"K_PM"}, 3},
        {"Pm,dfa\tREM\r\nhtab", "err", {"K_PM", "K_DFA", "K_REM", "K_HTAB"}, 1},
        {",, kw ,", "Wrn", {"K_KW"}, 2},
        {"vbuf", "notice", {"K_VBUF"}, 3},
        {"pcre", "none", {"K_PCRE"}, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.debug) + " / " + (c.level_word ? c.level_word : "(unset)"));
        tdResetTopics();
        ScopedEnv debug("VAEL_DEBUG", c.debug);
        ScopedEnv level("VAEL_DEBUG_LEVEL", c.level_word);
        ScopedEnv flow("VAEL_DEBUG_FLOW", nullptr);
        vael_us_adaptor_debug_init();
        for (const char *topic : c.topics)
            expect_level(topic, c.level);
        // Errors and warnings are on from the start, whatever was asked.
        expect_level("K_ERROR", 3);
        expect_level("K_WARNING", 3);
        EXPECT_FALSE(on_at("K_THINNFA", 0));
    }
}

TEST_F(DebugFlags, FlowTopicsAreOnAtInfo) {
    tdResetTopics();
    ScopedEnv debug("VAEL_DEBUG", nullptr);
    ScopedEnv flow("VAEL_DEBUG_FLOW", "pm all");
    ScopedEnv level("VAEL_DEBUG_LEVEL", "err");  // not for flow topics
    vael_us_adaptor_debug_init();
    expect_level("FL_PM", 4);
    expect_level("FL_ALL", 4);
    EXPECT_FALSE(on_at("K_PM", 0));
}

TEST_F(DebugFlags, SetDebugFlagsPrefixesAndUpperCases) {
    tdResetTopics();
    vael_us_adaptor_set_debug_flags("memory misc", "info", "K_");
    vael_us_adaptor_set_debug_flags("dfa", "INFO", nullptr);
    vael_us_adaptor_set_debug_flags(nullptr, "INFO", "K_");  // nothing to turn on
    expect_level("K_MEMORY", 4);
    expect_level("K_MISC", 4);
    expect_level("DFA", 4);
    EXPECT_FALSE(on_at("memory", 0));
    // A word too long for a topic turns nothing on and breaks nothing.
    std::string huge(400, 'x');
    vael_us_adaptor_set_debug_flags(huge.c_str(), "INFO", "K_");
    expect_level("K_MISC", 4);
}

TEST_F(DebugFlags, InitReadsTopicsSeedAndTunables) {
    ScopedGlobal partial(vael_thin_nfa_max_partial_trans, vael_thin_nfa_max_partial_trans);
    tdResetTopics();
    ScopedEnv debug("VAEL_DEBUG", "kw");
    ScopedEnv level("VAEL_DEBUG_LEVEL", nullptr);
    ScopedEnv tunable("vael_thin_nfa_max_partial_trans", "17");
    vael_us_adaptor_init();
    expect_level("K_KW", 3);
    expect_level("K_ERROR", 3);
    EXPECT_EQ(vael_thin_nfa_max_partial_trans, 17);
}

TEST(DebugCallbacks, RegisterStoresBothHooks) {
    auto set = [](const char *) { return 1; };
    auto unset = [](const char *) { return 2; };
    vael_debug_register_callbacks(set, unset);
    ASSERT_NE(vael_debug_filter_set_filter, nullptr);
    ASSERT_NE(vael_debug_filter_unset_filter, nullptr);
    EXPECT_EQ(vael_debug_filter_set_filter("x"), 1);
    EXPECT_EQ(vael_debug_filter_unset_filter("x"), 2);
    vael_debug_register_callbacks(nullptr, nullptr);
    EXPECT_EQ(vael_debug_filter_set_filter, nullptr);
    EXPECT_EQ(vael_debug_filter_unset_filter, nullptr);
}

// ---------------------------------------------------------------- accounts

TEST(Accounts, EachAllocationIsCountedAndFreedBySize) {
    for (size_t size : {size_t{0}, size_t{1}, size_t{100}, size_t{4096}}) {
        SCOPED_TRACE(size);
        const intptr_t kmem = qx_kmem_get_alloc_total();
        const intptr_t pm = vael_pmglob_memory_get_alloc_total();
        const int number = alloc_number;

        void *a = qx_kmalloc_ex_(size, "accounts", 0, "accounts.c", 1);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(alloc_number, number + 1);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kmem + (intptr_t)size);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm);

        void *b = vael_pmglob_memory_kmalloc_ex_(size, "accounts", 16, "accounts.c", 2);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(alloc_number, number + 2);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kmem + 2 * (intptr_t)size);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm + (intptr_t)size);

        vael_pmglob_memory_kfree_ex_(b, size, "accounts", "accounts.c", 3);
        qx_kfree_(a, size);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm);
    }
    // Null frees count nothing.
    const intptr_t kmem = qx_kmem_get_alloc_total();
    qx_kfree_(nullptr, 64);
    vael_pmglob_memory_kfree_ex_(nullptr, 64, "accounts", "accounts.c", 4);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
    EXPECT_EQ(qx_kmem_max_efficient_size(), 0x400000u);
}

TEST(Accounts, WrongSizeFreeLeavesTheAccountOffByTheDifference) {
    const intptr_t start = qx_kmem_get_alloc_total();
    void *a = qx_kmalloc_ex_(100, "accounts", 0, "accounts.c", 10);
    ASSERT_NE(a, nullptr);
    qx_kfree_(a, 60);
    EXPECT_EQ(qx_kmem_get_alloc_total(), start + 40);
    // The other way round brings it back: nothing but the figure noticed.
    void *b = qx_kmalloc_ex_(10, "accounts", 0, "accounts.c", 11);
    ASSERT_NE(b, nullptr);
    qx_kfree_(b, 50);
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
}

TEST(Accounts, CountsStayExactUnderThreads) {
    const intptr_t start = qx_kmem_get_alloc_total();
    const int number = alloc_number;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([] {
            for (int i = 0; i < 2000; i++) {
                void *p = qx_kmalloc_ex_(24, "threads", 0, "threads.c", 1);
                qx_kfree_(p, 24);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
    EXPECT_EQ(alloc_number, number + 8000);
}

// ---------------------------------------------------------------- fail injection, first method

// One allocation at a fixed site; true when it succeeded.
bool allocate_at(const char *caller, const char *file, int line, size_t size = 8) {
    void *p = qx_kmalloc_ex_(size, caller, 0, file, line);
    qx_kfree_(p, size);
    return p != nullptr;
}

struct FirstMethodCase {
    int method;
    int pct;
    std::vector<bool> succeeds;  // calls numbered 1, 2, ...
};

TEST(FailFirstMethod, MethodsCompareTheAllocationNumber) {
    const FirstMethodCase cases[] = {
        {1, 3, {true, true, false, true, true}},          // the third only
        {2, 2, {true, true, false, false, false}},        // all after the second
        {3, 3, {true, true, false, true, true, false}},   // every third
        {3, 1, {false, false, false}},
        {3, -3, {true, true, false, true}},               // signed modulo
        {2, -1, {false, false}},                          // signed compare
        {1, 0, {true, true, true}},                       // threshold 0 is off
        {2, 0, {true, true, true}},
        {0, 3, {true, true, true, true}},                 // unknown methods fail nothing
        {4, 3, {true, true, true, true}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("method " + std::to_string(c.method) + " pct " + std::to_string(c.pct));
        vael_us_adaptor_failmem_set(0, 0);
        const intptr_t kmem = qx_kmem_get_alloc_total();
        std::vector<bool> got;
        {
            ScopedGlobal number(alloc_number, 0);
            ScopedGlobal method(fail_mem_method, c.method);
            ScopedGlobal pct(global_pct, c.pct);
            for (size_t i = 0; i < c.succeeds.size(); i++)
                got.push_back(allocate_at("first", "first.c", 1));
        }
        EXPECT_EQ(got, c.succeeds);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
        // The failure count belongs to the second method.
        EXPECT_EQ(vael_us_adaptor_num_failures(), 0);
    }
    EXPECT_EQ(global_pct, 0);
    EXPECT_TRUE(allocate_at("first", "first.c", 1));
}

// ---------------------------------------------------------------- fail injection, second method

// Sites: (caller, file, line), the texts told apart by address.
const char kCallerA[] = "site_a";
const char kCallerB[] = "site_b";
const char kFile[] = "sites.c";

struct Call {
    const char *caller;
    int line;
    bool succeeds;
};

struct SiteCase {
    const char *name;
    int mode;
    int value;
    std::vector<Call> calls;
};

TEST(FailSecondMethod, SitesFailAtTheirCallNumberThresholdPlusOne) {
    const SiteCase cases[] = {
        {"mode 2: first call of each site",
         2,
         99,  // the value does not matter to mode 2
         {{kCallerA, 1, false}, {kCallerA, 1, true}, {kCallerB, 1, false}, {kCallerA, 1, true},
          {kCallerB, 1, true}, {kCallerA, 2, false}, {kCallerA, 2, true}, {kCallerA, 2, true}}},
        {"mode 3 value 1: second call of each site",
         3,
         1,
         {{kCallerA, 1, true}, {kCallerA, 1, false}, {kCallerA, 1, true}, {kCallerB, 1, true},
          {kCallerB, 1, false}, {kCallerA, 1, true}, {kCallerB, 1, true}}},
        {"mode 3 value 2: third call",
         3,
         2,
         {{kCallerA, 5, true}, {kCallerA, 5, true}, {kCallerA, 5, false}, {kCallerA, 5, true}, {kCallerA, 5, true}}},
        {"mode 3 value 0 is mode 2", 3, 0, {{kCallerB, 9, false}, {kCallerB, 9, true}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const intptr_t kmem = qx_kmem_get_alloc_total();
        vael_us_adaptor_failmem_set(c.mode, c.value);
        int expected_failures = 0;
        for (size_t i = 0; i < c.calls.size(); i++) {
            const Call &call = c.calls[i];
            EXPECT_EQ(allocate_at(call.caller, kFile, call.line), call.succeeds) << "call " << i;
            expected_failures += !call.succeeds;
        }
        EXPECT_EQ(vael_us_adaptor_num_failures(), expected_failures);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
    }
    vael_us_adaptor_failmem_set(0, 0);
}

TEST(FailSecondMethod, KeyComparesTextsByAddress) {
    static const char first[] = "same";
    static const char second[] = "same";
    ASSERT_NE((const void *)first, (const void *)second);
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_FALSE(allocate_at(first, kFile, 3));
    EXPECT_FALSE(allocate_at(second, kFile, 3));
    EXPECT_TRUE(allocate_at(first, kFile, 3));
    EXPECT_TRUE(allocate_at(second, kFile, 3));
    EXPECT_EQ(vael_us_adaptor_num_failures(), 2);
    vael_us_adaptor_failmem_set(0, 0);
}

TEST(FailSecondMethod, CollidingSitesAreKeptApartByProbing) {
    // Lines 2000 apart give the same slot.
    vael_us_adaptor_failmem_set(2, 0);
    for (int i = 0; i < 50; i++)
        EXPECT_FALSE(allocate_at(kCallerA, kFile, i * 2000)) << i;
    for (int i = 0; i < 50; i++)
        EXPECT_TRUE(allocate_at(kCallerA, kFile, i * 2000)) << i;
    EXPECT_EQ(vael_us_adaptor_num_failures(), 50);
    vael_us_adaptor_failmem_set(0, 0);
}

TEST(FailSecondMethod, FullTableFailsUnknownSitesOnly) {
    vael_us_adaptor_failmem_set(2, 0);
    for (int line = 0; line < 2000; line++)
        ASSERT_FALSE(allocate_at(kCallerB, kFile, line)) << line;
    EXPECT_FALSE(allocate_at(kCallerB, kFile, 5000));
    EXPECT_FALSE(allocate_at(kCallerB, kFile, 5000)) << "a site with no slot fails every time";
    EXPECT_TRUE(allocate_at(kCallerB, kFile, 1234));
    EXPECT_TRUE(allocate_at(kCallerB, kFile, 0));
    EXPECT_EQ(vael_us_adaptor_num_failures(), 2002);
    vael_us_adaptor_failmem_set(0, 0);
}

TEST(FailSecondMethod, SetClearsTheCountAndTheSites) {
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_FALSE(allocate_at(kCallerA, kFile, 77));
    EXPECT_EQ(vael_us_adaptor_num_failures(), 1);
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_EQ(vael_us_adaptor_num_failures(), 0);
    EXPECT_FALSE(allocate_at(kCallerA, kFile, 77)) << "the site is new again";
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_EQ(vael_us_adaptor_num_failures(), 0);
    EXPECT_TRUE(allocate_at(kCallerA, kFile, 78));
    vael_us_adaptor_failmem_set(7, 0);  // unknown modes are off
    EXPECT_TRUE(allocate_at(kCallerA, kFile, 79));
    EXPECT_EQ(vael_us_adaptor_num_failures(), 0);
}

TEST(FailSecondMethod, RandomModeByPercent) {
    vael_us_adaptor_failmem_set(1, 100);
    for (int i = 0; i < 20; i++)
        EXPECT_FALSE(allocate_at(kCallerA, kFile, 1));
    EXPECT_EQ(vael_us_adaptor_num_failures(), 20);
    vael_us_adaptor_failmem_set(1, 0);
    for (int i = 0; i < 20; i++)
        EXPECT_TRUE(allocate_at(kCallerA, kFile, 1));
    EXPECT_EQ(vael_us_adaptor_num_failures(), 0);
    vael_us_adaptor_failmem_set(1, 50);
    int failed = 0;
    for (int i = 0; i < 400; i++)
        failed += !allocate_at(kCallerA, kFile, 1);
    EXPECT_EQ(vael_us_adaptor_num_failures(), failed);
    EXPECT_GT(failed, 100);
    EXPECT_LT(failed, 300);
    vael_us_adaptor_failmem_set(0, 0);
}

TEST(FailSecondMethod, LogTexts) {
    ScopedTopic memory("K_MEMORY", VAEL_DBG_NOTICE);
    LogCapture log;
    static const char caller[] = "walker";
    static const char file[] = "w.c";

    vael_us_adaptor_failmem_set(1, 25);
    EXPECT_EQ(log.text(), prefixed("vael_us_adapator_failmem_set: Randomly fail 25% of allocations\n"));

    vael_us_adaptor_failmem_set(1, 100);
    log.clear();
    EXPECT_FALSE(allocate_at(caller, file, 12, 24));
    EXPECT_EQ(log.text(), prefixed("failmem_decide: Random failure for walker (100%)\n") +
                              prefixed("qx_kmalloc_ex: Failed to allocate 24 bytes for walker\n"));

    vael_us_adaptor_failmem_set(1, 0);
    log.clear();
    EXPECT_TRUE(allocate_at(caller, file, 12));
    EXPECT_EQ(log.text(), prefixed("failmem_decide: No random failure for walker (0%)\n"));

    log.clear();
    vael_us_adaptor_failmem_set(3, 1);
    EXPECT_TRUE(allocate_at(caller, file, 12));
    EXPECT_FALSE(allocate_at(caller, file, 12, 40));
    EXPECT_EQ(log.text(), prefixed("vael_us_adapator_failmem_set: Will fail each allocation once after 1\n") +
                              prefixed("failmem_decide: Caller walker(w.c:12) already seen - OK\n") +
                              prefixed("failmem_decide: Caller walker(w.c:12) seen first time - fail\n") +
                              prefixed("qx_kmalloc_ex: Failed to allocate 40 bytes for walker\n"));

    log.clear();
    vael_us_adaptor_failmem_set(2, 5);
    EXPECT_EQ(log.text(), prefixed("vael_us_adapator_failmem_set: Will fail each allocation once after 0\n"));

    log.clear();
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_TRUE(allocate_at(caller, file, 12));
    EXPECT_EQ(log.text(), "") << "no text with injection off";
}

// ---------------------------------------------------------------- leak records

class LeakRecords : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(leaks, nullptr) << "a test left leak records"; }
    void TearDown() override {
        while (leaks)
            remove_alloc_info(leaks->addr, leaks->size);
    }
};

std::string leak_line(const void *addr, unsigned size, const char *caller, const char *file, int line) {
    char text[256];
    std::snprintf(text, sizeof text, "Leak in: %p %u %s %s %d\n", addr, size, caller, file, line);
    return prefixed(text);
}

TEST_F(LeakRecords, PrintListsNewestFirstWithReasons) {
    int a = 0, b = 0;
    ASSERT_NE(insert_alloc_info(&a, 16, "make_a", "a.c", 10), nullptr);
    ASSERT_NE(insert_alloc_info(&b, 32, "make_b", "b.c", 20), nullptr);
    EXPECT_EQ(leaks->addr, &b);
    EXPECT_EQ(leaks->next->addr, &a);

    LogCapture log;
    print_leaks();
    EXPECT_EQ(log.text(), prefixed("Leaks in: addr  size  caller   file   line\n") +
                              leak_line(&b, 32, "make_b", "b.c", 20) + prefixed("Leak reason: not freed\n") +
                              leak_line(&a, 16, "make_a", "a.c", 10) + prefixed("Leak reason: not freed\n"));

    // A host's stack lines print under their record, up to the first empty one.
    std::snprintf(leaks->stack[0], VAEL_ALLOC_INFO_TEXT, "frame_one");
    std::snprintf(leaks->stack[1], VAEL_ALLOC_INFO_TEXT, "frame_two");
    log.clear();
    print_leaks();
    EXPECT_NE(log.text().find(prefixed("Leak reason: not freed\n") + prefixed("frame_one\n") + prefixed("frame_two\n") +
                              leak_line(&a, 16, "make_a", "a.c", 10)),
              std::string::npos)
        << log.text();
}

TEST_F(LeakRecords, WrongSizeKeepsTheRecordWithItsReason) {
    int a = 0;
    vael_alloc_info *info = insert_alloc_info(&a, 16, "make_a", "a.c", 10);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->reason, VAEL_ALLOC_REASON_NOT_FREED);

    ScopedTopic memory("K_MEMORY", VAEL_DBG_ERR);
    LogCapture log;
    EXPECT_EQ(remove_alloc_info(&a, 12), 1);
    EXPECT_EQ(log.text(), prefixed("remove_alloc_info: Error size given to qx_kfree 12 (alllocated 16)\n"));
    ASSERT_EQ(leaks, info);
    EXPECT_EQ(info->reason, VAEL_ALLOC_REASON_WRONG_SIZE);
    EXPECT_EQ(info->reason_data, 12);
    EXPECT_EQ(info->size, 16u);

    log.clear();
    print_leaks();
    EXPECT_EQ(log.text(), prefixed("Leaks in: addr  size  caller   file   line\n") +
                              leak_line(&a, 16, "make_a", "a.c", 10) +
                              prefixed("Leak reason: wrong size was given to free 12\n"));

    log.clear();
    EXPECT_EQ(remove_alloc_info(&a, 16), 0);
    EXPECT_EQ(leaks, nullptr);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(remove_alloc_info(&a, 16), -1);
    EXPECT_EQ(log.text(), prefixed("remove_alloc_info: PROBLEM can not FIND allocation in leaks list\n"));
}

TEST_F(LeakRecords, RemoveUnlinksFromAnyPlace) {
    int v[3];
    for (int i = 0; i < 3; i++)
        ASSERT_NE(insert_alloc_info(&v[i], 4 * (i + 1), "f", "x.c", i), nullptr);
    EXPECT_EQ(remove_alloc_info(&v[1], 8), 0);  // middle
    ASSERT_NE(leaks, nullptr);
    EXPECT_EQ(leaks->addr, &v[2]);
    ASSERT_NE(leaks->next, nullptr);
    EXPECT_EQ(leaks->next->addr, &v[0]);
    EXPECT_EQ(leaks->next->next, nullptr);
    EXPECT_EQ(remove_alloc_info(&v[0], 4), 0);  // last
    EXPECT_EQ(remove_alloc_info(&v[2], 12), 0); // head
    EXPECT_EQ(leaks, nullptr);
}

TEST_F(LeakRecords, TextsAreCutToFortyNineBytesAndTheStackIsEmpty) {
    std::string long_caller(80, 'c');
    std::string long_file(60, 'f');
    int a = 0;
    vael_alloc_info *info = insert_alloc_info(&a, 1, long_caller.c_str(), long_file.c_str(), 3);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(std::string(info->caller), long_caller.substr(0, 49));
    EXPECT_EQ(std::string(info->file), long_file.substr(0, 49));
    for (int i = 0; i < VAEL_ALLOC_INFO_STACK; i++)
        EXPECT_EQ(info->stack[i][0], '\0') << i;
    vael_alloc_info *unnamed = insert_alloc_info(&a + 1, 2, nullptr, nullptr, 0);
    ASSERT_NE(unnamed, nullptr);
    EXPECT_STREQ(unnamed->caller, "");
}

TEST_F(LeakRecords, CheckLeaksPrintsOnlyWhenAsked) {
    int a = 0;
    ASSERT_NE(insert_alloc_info(&a, 8, "f", "x.c", 1), nullptr);
    LogCapture log;
    check_leaks_(0, 0);
    check_leaks_(1, 0);  // the panic returns
    EXPECT_EQ(log.text(), "");
    check_leaks_(1, 1);
    EXPECT_EQ(log.text(), prefixed("Leaks in: addr  size  caller   file   line\n") + leak_line(&a, 8, "f", "x.c", 1) +
                              prefixed("Leak reason: not freed\n"));
    log.clear();
    remove_alloc_info(&a, 8);
    print_leaks();
    EXPECT_EQ(log.text(), "") << "an empty list prints nothing";
}

TEST_F(LeakRecords, PmAccountCheck) {
    ASSERT_EQ(vael_pmglob_memory_get_alloc_total(), 0) << "a PM or engine record is still held";
    LogCapture log;
    EXPECT_EQ(vael_pmglob_memory_check_leaks(0, 1), 0);
    EXPECT_EQ(log.text(), prefixed("PM: NO memory Leaks.\n"));

    void *p = VAEL_PM_KMALLOC(24);
    ASSERT_NE(p, nullptr);
    ASSERT_NE(insert_alloc_info(p, 24, "holder", "h.c", 5), nullptr);
    log.clear();
    EXPECT_EQ(vael_pmglob_memory_check_leaks(0, 1), 24);
    EXPECT_EQ(log.text(), prefixed("PM: 24 bytes leaked.\n") + prefixed("Leaks in: addr  size  caller   file   line\n") +
                              leak_line(p, 24, "holder", "h.c", 5) + prefixed("Leak reason: not freed\n"));
    log.clear();
    EXPECT_EQ(vael_pmglob_memory_check_leaks(0, 0), 24);
    EXPECT_EQ(log.text(), prefixed("PM: 24 bytes leaked.\n"));
    remove_alloc_info(p, 24);
    VAEL_PM_KFREE(p, 24);
}

// ---------------------------------------------------------------- assertions

TEST(Assertions, SoftFormOnlyUnderTheSwitch) {
    int evaluated = 0;
    auto fails = [&] {
        evaluated++;
        return false;
    };
    LogCapture log;
    {
        ScopedGlobal off(qx_assert_on, 0);
        VAEL_SOFT_ASSERT(fails(), "never seen");
    }
    EXPECT_EQ(evaluated, 0) << "the condition is not computed with the switch off";
    EXPECT_EQ(log.text(), "");
    int line = 0;
    {
        ScopedGlobal on(qx_assert_on, 1);
        VAEL_SOFT_ASSERT(!fails(), "holds");
        line = __LINE__ + 1;
        VAEL_SOFT_ASSERT(fails(), "Illegal arguments");
    }
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(log.text(), prefixed("QX-1: TestBody: Illegal arguments (" + std::string(__FILE__) + ":" +
                                   std::to_string(line) + ")\n"));
}

TEST(Assertions, HardFormAlwaysAndGoesOn) {
    LogCapture log;
    ScopedGlobal off(qx_assert_on, 0);
    int line = __LINE__ + 1;
    VAEL_ASSERT(1 + 1 == 3, "Illegal arguments");
    VAEL_ASSERT(true, "not printed");
    EXPECT_EQ(log.text(), prefixed("Assert at (" + std::string(__FILE__) + ":" + std::to_string(line) + ")\n") +
                              prefixed("Illegal arguments\n"));
    log.clear();
    line = __LINE__ + 1;
    VAEL_ASSERT_F(false, "%s: value %d\n", 42);
    EXPECT_EQ(log.text(), prefixed("Assert at (" + std::string(__FILE__) + ":" + std::to_string(line) + ")\n") +
                              prefixed("TestBody: value 42\n"));
    EXPECT_EQ(vael_module_i_am_global(), 1);
}

// ---------------------------------------------------------------- tunables

struct TunableCase {
    const char *name;
    int *global;
    const char *env;  // null: not in the environment
    int expected;
};

TEST(Tunables, ReadInBaseTenInTableOrderAndLogged) {
    const TunableCase cases[] = {
        {"vael_dfa_state_limit", &vael_dfa_state_limit, "12", 12},
        {"vael_dfa_should_limit_states", &vael_dfa_should_limit_states, "abc", 0},
        {"vael_pm_min_lss_size", &vael_pm_min_lss_size, "-3", -3},
        {"vael_pm_utf8_range_buffer_size", &vael_pm_utf8_range_buffer_size, "7x", 7},
        {"vael_pm_default_back_offset_to_search_match_start", &vael_pm_default_back_offset_to_search_match_start,
         " 42", 42},
        {"vael_thin_nfa_full_tiers_num", &vael_thin_nfa_full_tiers_num, "0x10", 0},
        {"vael_thin_nfa_max_partial_trans", &vael_thin_nfa_max_partial_trans, "010", 10},
        {"vael_thin_nfa_optimize_contig_chars", &vael_thin_nfa_optimize_contig_chars, "", 0},
        {"vael_pm_allow_null_in_pattern", &vael_pm_allow_null_in_pattern, "1", 1},
        {"vael_pm_pcre_use_dfa_exec", &vael_pm_pcre_use_dfa_exec, nullptr, 1},
        {"vael_pm_stats_take_exec_time", &vael_pm_stats_take_exec_time, "+5", 5},
    };
    std::vector<std::unique_ptr<ScopedGlobal>> saved;
    std::vector<std::unique_ptr<ScopedEnv>> env;
    std::string expected_log;
    for (const auto &c : cases) {
        saved.push_back(std::make_unique<ScopedGlobal>(*c.global, *c.global));
        env.push_back(std::make_unique<ScopedEnv>(c.name, c.env));
        if (c.env)
            expected_log += prefixed(std::string("Setting global parameter ") + c.name + " to " +
                                     std::to_string(c.expected) + "\n");
    }
    ASSERT_EQ(vael_pm_pcre_use_dfa_exec, 1) << "its default";
    EXPECT_EQ(qx_kdprintf_limit, 30);

    ScopedTopic misc("K_MISC", VAEL_DBG_NOTICE);
    LogCapture log;
    vael_us_adaptor_globals_init();
    for (const auto &c : cases)
        EXPECT_EQ(*c.global, c.expected) << c.name;
    EXPECT_EQ(log.text(), expected_log);
}

// ---------------------------------------------------------------- locks

TEST(Locks, MutexExcludesAndIsAccounted) {
    tqlock_init();
    const intptr_t kmem = qx_kmem_get_alloc_total();
    vael_mutex *lock = nullptr;
    ASSERT_EQ(tqlock_lock_init(&lock), 0);
    ASSERT_NE(lock, nullptr);
    EXPECT_GT(qx_kmem_get_alloc_total(), kmem);

    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; i++) {
                MtMutexLock(lock);
                counter++;
                MtMutexUnLock(lock);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(counter, 80000);

    tqlock_lock_term(&lock);
    EXPECT_EQ(lock, nullptr);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);

    vael_mutex *rw = nullptr;
    ASSERT_EQ(tqlock_rwlock_init(&rw, 1, 2), 0);
    ASSERT_NE(rw, nullptr);
    MtMutexLock(rw);
    MtMutexUnLock(rw);
    tqlock_rwlock_term(&rw);
    EXPECT_EQ(rw, nullptr);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
    tqlock_term();
}

TEST(Locks, InitFailsWhenTheMutexCannotBeMade) {
    vael_mutex *lock = reinterpret_cast<vael_mutex *>(0x1);
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_EQ(tqlock_lock_init(&lock), -1);
    EXPECT_EQ(lock, nullptr);
    vael_us_adaptor_failmem_set(2, 0);
    vael_mutex *rw = reinterpret_cast<vael_mutex *>(0x1);
    EXPECT_EQ(tqlock_rwlock_init(&rw, 0, 0), -1);
    EXPECT_EQ(rw, nullptr);
    vael_us_adaptor_failmem_set(0, 0);
}

// ---------------------------------------------------------------- clock and random

TEST(Clock, DifferencesInMicroseconds) {
    const struct {
        vael_timeval a, b;
        uint32_t diff;
    } cases[] = {
        {{10, 0}, {10, 5}, 5},
        {{10, 999999}, {11, 1}, 2},
        {{10, 500}, {12, 400}, 1999900},
        {{0, 0}, {5000, 0}, (uint32_t)(5000ull * 1000000ull)},  // wraps in 32 bits
    };
    for (const auto &c : cases)
        EXPECT_EQ(vael_time_diff_usec(&c.a, &c.b), c.diff);

    vael_timeval now;
    GetTime(&now);
    EXPECT_LT(now.tv_usec, 1000000u);
    EXPECT_LE((uint32_t)std::time(nullptr) - now.tv_sec, 1u);
    vael_timeval hr;
    vael_time_get_hrtime(&hr);
    EXPECT_GE(hr.tv_sec, now.tv_sec);
    EXPECT_LE(qx_abstime() - now.tv_sec, 1u);
}

TEST(Random, FillsEveryByteAndNoMore) {
    for (auto gen : {qxrand_gen, vael_krand_gen}) {
        for (size_t len : {size_t{0}, size_t{1}, size_t{7}, size_t{1000}}) {
            SCOPED_TRACE(len);
            // OR of eight fills: a byte left unwritten stays zero.
            std::vector<unsigned char> any(len, 0), buf(len + 1);
            for (int round = 0; round < 8; round++) {
                std::fill(buf.begin(), buf.end(), 0);
                buf[len] = 0xA5;
                gen(buf.data(), len);
                EXPECT_EQ(buf[len], 0xA5) << "written past the end";
                for (size_t i = 0; i < len; i++)
                    any[i] |= buf[i];
            }
            EXPECT_EQ(std::count(any.begin(), any.end(), 0), 0);
        }
    }
}

// ---------------------------------------------------------------- memory-pool statistics

vael_hmem_stat sample_hmem() {
    vael_hmem_stat s{};
    s.size_unit = 16;
    s.size_classes = 4;
    s.classes[0] = {2, 1, 100};
    s.classes[2] = {1, 0, 10};
    s.block_size = 4096;
    s.block_overhead = 32;
    s.blocks = 4;
    s.blocks_used = 3;
    s.bytes_allocated = 16484;
    s.initial_bytes = 16384;
    s.requested_bytes = 20000;
    s.limit_bytes = 65536;
    s.limit_pools = 8;
    s.pools = 2;
    s.bytes_used = 2000;
    s.peak_blocks = 4;
    s.peak_bytes = 3000;
    s.items = 110;
    s.allocs = 500;
    s.frees = 390;
    s.failed_allocs = 2;
    return s;
}

const char kHmemBrief[] =
    "\nHash kernel memory (hmem) statistics:\n"
    "  Total memory allocated: 16484 bytes in 4 4KB blocks using 2 pools\n"
    "  Initial memory allocated: 16384 bytes (Hash memory extended by 100 bytes)\n"
    "  Memory allocation  limit: 65536 bytes using 8 pools\n"
    "  Could not get all requested memory (20000 bytes) at driver initialization\n"
    "  Total memory bytes  used:     2196   unused:    14288 (86.68%)   peak:     3100\n"
    "  Total memory blocks used:        3   unused:        1 (25%)   peak:        4\n"
    "  Allocations: 500 alloc, 2 failed alloc, 390 free\n";

const char kHmemVerbose[] =
    "  Memory used for internal structures: 196 bytes\n"
    "  Total number of items: 110\n"
    "  Utilized blocks unused memory percentage: 82%\n"
    "  Detailed statistics according to item size:\n"
    "  Size  16:   Blocks:   2  Full blocks:   1  Nitems:   100 unused memory 80%\n"
    "  Size  48:   Blocks:   1  Full blocks:   0  Nitems:    10 unused memory 88%\n"
    "  *** use 'qx ctl debug memory' command to get detailed allocation report ***\n";

TEST(MemoryStats, HmemTexts) {
    vael_hmem_stat s = sample_hmem();
    LogCapture log;
    hmem_stat_prt(&s, 0);
    EXPECT_EQ(log.text(), kHmemBrief);
    log.clear();
    hmem_stat_prt(&s, 1);
    EXPECT_EQ(log.text(), std::string(kHmemBrief) + kHmemVerbose);
}

TEST(MemoryStats, HmemOfAnEmptySinglePool) {
    vael_hmem_stat s{};
    s.pools = 1;
    s.block_size = 8192;
    LogCapture log;
    hmem_stat_prt(&s, 1);
    EXPECT_EQ(log.text(),
              "\nHash kernel memory (hmem) statistics:\n"
              "  Total memory allocated: 0 bytes in 0 8KB blocks using 1 pool\n"
              "  Total memory bytes  used:        0   unused:        0 (0.00%)   peak:        0\n"
              "  Total memory blocks used:        0   unused:        0 (0%)   peak:        0\n"
              "  Allocations: 0 alloc, 0 failed alloc, 0 free\n"
              "  Memory used for internal structures: 0 bytes\n"
              "  Total number of items: 0\n"
              "  *** use 'qx ctl debug memory' command to get detailed allocation report ***\n");
}

vael_smem_stat sample_smem() { return vael_smem_stat{100, 150, 20, 30, 7, 50, 1, 43, 2, 64}; }

TEST(MemoryStats, SmemTexts) {
    vael_smem_stat s = sample_smem();
    LogCapture log;
    smem_stat_prt(&s, 1);
    EXPECT_EQ(log.text(),
              "\nSystem kernel memory (smem) statistics:\n"
              "  Total memory  bytes  used:      120   peak:      180\n"
              "    Blocking  memory  bytes   used:      100   peak:      150\n"
              "    Non-Blocking memory bytes used:       20   peak:       30\n"
              "  Allocations: 50 alloc, 1 failed alloc, 43 free, 2 failed free\n"
              "  Memory used for internal structures: 64 bytes\n"
              "  Total number of items: 7\n"
              "  *** use 'qx ctl debug memory' command to get detailed allocation report ***\n");

    // One kind in use: no breakdown.
    s.nonblocking_used = 0;
    log.clear();
    smem_stat_prt(&s, 0);
    EXPECT_EQ(log.text(),
              "\nSystem kernel memory (smem) statistics:\n"
              "  Total memory  bytes  used:      100   peak:      180\n"
              "  Allocations: 50 alloc, 1 failed alloc, 43 free, 2 failed free\n");
}

TEST(MemoryStats, KmemTexts) {
    vael_kmem_stat s{1000, 2000, 5, 9, 1, 4, 0, 48};
    const uint32_t external[2] = {3, 4};
    LogCapture log;
    kmem_stat_prt(&s, 1, external);
    EXPECT_EQ(log.text(),
              "\nKernel memory (kmem) statistics:\n"
              "  Total memory  bytes  used:     1000   peak:     2000\n"
              "\tAllocations: 9 alloc, 1 failed alloc, 4 free, 0 failed free\n"
              "\tExternal Allocations: 3 for packets, 4 for LVX\n"
              "\tMemory used for internal structures: 48 bytes\n"
              "\tTotal number of items: 5\n");
}

TEST(MemoryStats, HmemAggregateSumsCountersNotGeometry) {
    vael_hmem_stat total = sample_hmem();
    vael_hmem_stat one = sample_hmem();
    one.size_classes = 3;
    one.classes[3] = {9, 9, 9};  // beyond this instance's classes
    one.block_size = 1;
    one.size_unit = 1;
    one.block_overhead = 1;
    vael_hmem_stat before = total;
    hmem_stat_aggregate(&total, &one);

    EXPECT_EQ(total.classes[0].blocks, 4u);
    EXPECT_EQ(total.classes[0].full_blocks, 2u);
    EXPECT_EQ(total.classes[0].nitems, 200u);
    EXPECT_EQ(total.classes[2].nitems, 20u);
    EXPECT_EQ(total.classes[3].blocks, 0u);
    // Summed: pools, initial and requested bytes, and blocks to failed_allocs.
    EXPECT_EQ(total.pools, 4u);
    EXPECT_EQ(total.initial_bytes, 2 * before.initial_bytes);
    EXPECT_EQ(total.requested_bytes, 2 * before.requested_bytes);
    EXPECT_EQ(total.blocks, 8u);
    EXPECT_EQ(total.bytes_allocated, 2 * before.bytes_allocated);
    EXPECT_EQ(total.blocks_used, 6u);
    EXPECT_EQ(total.bytes_used, 4000u);
    EXPECT_EQ(total.peak_blocks, 8u);
    EXPECT_EQ(total.peak_bytes, 6000u);
    EXPECT_EQ(total.items, 220u);
    EXPECT_EQ(total.allocs, 1000u);
    EXPECT_EQ(total.frees, 780u);
    EXPECT_EQ(total.failed_allocs, 4u);
    // Not summed.
    EXPECT_EQ(total.limit_bytes, before.limit_bytes);
    EXPECT_EQ(total.limit_pools, before.limit_pools);
    EXPECT_EQ(total.block_size, before.block_size);
    EXPECT_EQ(total.size_unit, before.size_unit);
    EXPECT_EQ(total.size_classes, before.size_classes);
    EXPECT_EQ(total.block_overhead, before.block_overhead);
}

TEST(MemoryStats, SmemAndKmemAggregateEveryWord) {
    vael_smem_stat s = sample_smem(), s1 = sample_smem();
    smem_stat_aggregate(&s, &s1);
    vael_smem_stat s2 = sample_smem();
    const uint32_t *w = &s2.blocking_used;
    const uint32_t *sum = &s.blocking_used;
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(sum[i], 2 * w[i]) << "word " << i;

    vael_kmem_stat k{1, 2, 3, 4, 5, 6, 7, 8}, k1{10, 20, 30, 40, 50, 60, 70, 80};
    kmem_stat_aggregate(&k, &k1);
    const uint32_t *kw = &k.used;
    for (uint32_t i = 0; i < 8; i++)
        EXPECT_EQ(kw[i], 11 * (i + 1)) << "word " << i;

    // Only whole words of the size given, wrapping as counters do.
    uint32_t total[3] = {0xffffffffu, 1, 1};
    const uint32_t item[3] = {2, 2, 2};
    vael_stat_aggregate_add_all_ints(total, item, 8);
    EXPECT_EQ(total[0], 1u);
    EXPECT_EQ(total[1], 3u);
    EXPECT_EQ(total[2], 1u);
}

// ---------------------------------------------------------------- allocation helpers

struct Rec {
    uint32_t a;
    uint64_t b;
    char name[13];
};

TEST(AllocHelpers, ZeroedRecordsInTheRightAccount) {
    const intptr_t kmem = qx_kmem_get_alloc_total();
    const intptr_t pm = vael_pmglob_memory_get_alloc_total();
    Rec *r = VAEL_NEW_ZEROED(Rec);
    ASSERT_NE(r, nullptr);
    const Rec zero{};
    EXPECT_EQ(std::memcmp(r, &zero, sizeof zero), 0);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem + (intptr_t)sizeof(Rec));
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm);
    vael_free_bytes(vael_account::kmem, r, sizeof(Rec));

    Rec *arr = VAEL_PM_NEW_ZEROED_ARRAY(Rec, 10);
    ASSERT_NE(arr, nullptr);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(std::memcmp(&arr[i], &zero, sizeof zero), 0) << i;
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm + 10 * (intptr_t)sizeof(Rec));
    vael_free_bytes(vael_account::pm, arr, 10 * sizeof(Rec));
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm);

    // Counts that cannot be allocated ask the allocator nothing.
    const int number = alloc_number;
    EXPECT_EQ(VAEL_NEW_ZEROED_ARRAY(Rec, SIZE_MAX / sizeof(Rec) + 1), nullptr);
    EXPECT_EQ(VAEL_NEW_ZEROED_ARRAY(Rec, 0), nullptr);
    EXPECT_EQ(alloc_number, number);
}

TEST(AllocHelpers, OwnerFreesWithTheSizeUnlessReleased) {
    const intptr_t kmem = qx_kmem_get_alloc_total();
    const intptr_t pm = vael_pmglob_memory_get_alloc_total();
    {
        auto one = VAEL_MAKE_OWNED(Rec);
        auto many = VAEL_PM_MAKE_OWNED_ARRAY(Rec, 3);
        ASSERT_TRUE(one);
        ASSERT_TRUE(many);
        one->a = 5;
        many.get()[2].b = 7;
        EXPECT_EQ(qx_kmem_get_alloc_total(), kmem + 4 * (intptr_t)sizeof(Rec));
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm + 3 * (intptr_t)sizeof(Rec));
    }
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm);

    auto kept = VAEL_PM_MAKE_OWNED(Rec);
    ASSERT_TRUE(kept);
    Rec *raw = kept.release();
    EXPECT_FALSE(kept);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm + (intptr_t)sizeof(Rec));
    VAEL_PM_KFREE(raw, sizeof(Rec));
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm);
}

// A builder with early exits: every road frees what it made.
Rec *build_pair(Rec **second) {
    auto a = VAEL_PM_MAKE_OWNED(Rec);
    if (!a)
        return nullptr;
    auto b = VAEL_PM_MAKE_OWNED_ARRAY(Rec, 2);
    if (!b)
        return nullptr;
    a->a = 1;
    *second = b.release();
    return a.release();
}

TEST(AllocHelpers, EachMacroIsASiteOfItsOwn) {
    Rec *first = nullptr, *second = nullptr;
    auto walk = vael_test::failmem_walk(
        [&] {
            first = build_pair(&second);
            return first != nullptr;
        },
        [&] { return first == nullptr; });
    EXPECT_EQ(walk.rounds, 3);
    EXPECT_EQ(walk.injected, 2);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->a, 1u);
    VAEL_PM_KFREE(first, sizeof(Rec));
    VAEL_PM_KFREE(second, 2 * sizeof(Rec));
}

}  // namespace
