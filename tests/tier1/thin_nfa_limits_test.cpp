// The compile's state limit: at most 1,000 blocks of 1,000 states.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_internal.h"

namespace {

using namespace vael_test;

// A pattern of n bytes with no byte repeated next to itself, so it makes a
// chain of n partial states below the root's children.
std::string chain(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = (char)('a' + i % 7);
    return s;
}

TEST(ThinNfaLimits, AMillionStatesCompileOneMoreDoesNot) {
    // The root and 999,999 states of one pattern: the very last record of the
    // last block.
    {
        ThinNfa nfa({{chain(999999), 1}});
        ASSERT_NE(nfa.get(), nullptr);
        EXPECT_EQ(nfa.get()->state_num, 1000000u);
        std::vector<Hit> hits;
        EXPECT_EQ(nfa.exec("xx" + chain(999999), &hits), 0);
        EXPECT_EQ(hits, (std::vector<Hit>{{1, 1000000}}));
    }
    const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total();
    const intptr_t all_mem = qx_kmem_get_alloc_total();
    ScopedTopic topic("K_THINNFA", VAEL_DBG_ERR);
    LogCapture log;
    ThinNfa nfa({{"ab", 1}, {chain(1000000), 2}});
    EXPECT_EQ(nfa.get(), nullptr);
    ASSERT_NE(nfa.error().error_string, nullptr);
    EXPECT_STREQ(nfa.error().error_string, "Failed to allocate state");
    EXPECT_EQ(nfa.error().error_type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
    EXPECT_TRUE(log.contains("State 1000000 in block 1000 exceeds limit 1000")) << log.text();
    EXPECT_TRUE(log.contains("Failed to allocate a new state")) << log.text();
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem);
    EXPECT_EQ(qx_kmem_get_alloc_total(), all_mem);
}

}  // namespace
