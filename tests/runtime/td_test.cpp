// The debug facility: topics with levels per module, the line prefix, the
// sink, and the guard of VAEL_LOG.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/vael_runtime.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;
constexpr int kModule = VAEL_DBG_MODULE;

// Each test starts with no topics and leaves the library's defaults behind.
class DebugFacility : public ::testing::Test {
  protected:
    void SetUp() override { tdResetTopics(); }
    void TearDown() override {
        tdResetTopics();
        vael_us_adaptor_debug_init();
    }
};

TEST_F(DebugFacility, TopicsAreWantedUpToTheirLevelInTheirModule) {
    ASSERT_EQ(tdAddTopic("K_PM", 3, kModule), 0);
    ASSERT_EQ(tdAddTopic("K_DFA", 4, kModule), 0);
    ASSERT_EQ(tdAddTopic("K_DFA", 1, kModule), 0);  // adding again sets the level either way
    ASSERT_EQ(tdAddTopic("K_REM", 4, 6), 0);
    const std::string longest(31, 'T');
    ASSERT_EQ(tdAddTopic(longest.c_str(), 3, kModule), 0);
    const struct {
        int level;
        const char *topics;
        int module;
        bool printable;
    } queries[] = {
        {3, "K_PM", kModule, true},         {4, "K_PM", kModule, false},  {1, "K_DFA", kModule, true},
        {2, "K_DFA", kModule, false},       {3, "K_DFA | K_PM", kModule, true},  // any topic will do
        {3, "  K_KW |  | K_PM  ", kModule, true}, {1, "K_PMX", kModule, false},  // whole names only
        {1, "K_P", kModule, false},         {1, "K_REM", kModule, false},  // another module's topic
        {4, "K_REM", 6, true},              {1, "", kModule, false},      {1, "K_PM", 99, false},
        {3, longest.c_str(), kModule, true},
    };
    for (const auto &q : queries)
        EXPECT_EQ(tdTopicsPrintable(q.level, q.topics, q.module, " |") != 0, q.printable)
            << q.level << " '" << q.topics << "' module " << q.module;
    // What the table cannot hold is refused.
    for (const char *bad : {"", "TTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTT"})
        EXPECT_EQ(tdAddTopic(bad, 3, kModule), -1) << bad;
    EXPECT_EQ(tdAddTopic("K_PM", 3, 16), -1);
    tdResetTopics();
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(tdAddTopic(("T" + std::to_string(i)).c_str(), 2, kModule), 0) << i;
    EXPECT_EQ(tdAddTopic("ONE_TOO_MANY", 2, kModule), -1);
    EXPECT_EQ(tdAddTopic("T5", 4, kModule), 0) << "a known topic still takes a new level";
}

int g_evaluated;
int costly() { return ++g_evaluated; }
void log_from_here() { VAEL_LOG(VAEL_DBG_NOTICE, "K_KW | K_PM", "%s: value %d\n", costly()); }

TEST_F(DebugFacility, LinesGuardsAndSinks) {
    LogCapture log;
    g_evaluated = 0;
    log_from_here();                              // no topic: the arguments are not computed
    tdAddTopic("K_PM", VAEL_DBG_ERR, kModule);    // below the message's level
    log_from_here();
    EXPECT_EQ(g_evaluated, 0);
    tdAddTopic("K_KW", VAEL_DBG_NOTICE, kModule);
    log_from_here();
    tdFunc(kModule, 65535, 0, "two: ");
    tdFunc(kModule, 65535, 1, "%s\n", "piece");
    tdFunc(7, 65535, 0, "seven\n");
    vael_us_adaptor_kdprintf("%s: %u\n", "f", 12u);
    EXPECT_EQ(log.text(), "vael[5]: log_from_here: value 1\nvael[5]: two: piece\nvael[7]: seven\nvael[5]: f: 12\n");

    // A sink gets lines cut at the facility's line size; the standard error
    // stream gets them whole.
    const std::string body(3000, 'z');
    log.clear();
    tdFunc(kModule, 65535, 0, "%s\n", body.c_str());
    EXPECT_EQ(log.text().size(), 1023u);
    tdSetSink(nullptr, nullptr);
    ::testing::internal::CaptureStderr();
    tdFunc(kModule, 65535, 0, "%s\n", body.c_str());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "vael[5]: " + body + "\n");
}

}  // namespace
