// The debug facility: topics with levels per module, the all-topics switch,
// the line prefix, the sink, and the guard of VAEL_LOG.
#include <gtest/gtest.h>

#include <string>
#include <thread>
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
        tdSetSink(nullptr, nullptr);
        tdResetTopics();
        vael_us_adaptor_debug_init();
    }
};

struct Query {
    int level;
    const char *topics;
    int module;
    bool printable;
};

TEST_F(DebugFacility, TopicsAreWantedUpToTheirLevelInTheirModule) {
    ASSERT_EQ(tdAddTopic("K_PM", 3, kModule), 0);
    ASSERT_EQ(tdAddTopic("K_DFA", 1, kModule), 0);
    ASSERT_EQ(tdAddTopic("K_REM", 4, 6), 0);
    const Query queries[] = {
        {1, "K_PM", kModule, true},
        {3, "K_PM", kModule, true},
        {4, "K_PM", kModule, false},
        {1, "K_DFA", kModule, true},
        {2, "K_DFA", kModule, false},
        {4, "K_DFA | K_PM", kModule, false},
        {3, "K_DFA | K_PM", kModule, true},  // any topic of the text will do
        {3, "K_PM|K_DFA", kModule, true},
        {3, "  K_KW |  | K_PM  ", kModule, true},
        {1, "K_PMX", kModule, false},       // whole names only
        {1, "K_P", kModule, false},
        {1, "K_REM", kModule, false},       // another module's topic
        {4, "K_REM", 6, true},
        {1, "K_PM", 6, false},
        {1, "", kModule, false},
        {1, "K_PM", -1, false},
        {1, "K_PM", 99, false},
    };
    for (const auto &q : queries)
        EXPECT_EQ(tdTopicsPrintable(q.level, q.topics, q.module, " |") != 0, q.printable)
            << q.level << " '" << q.topics << "' module " << q.module;
    EXPECT_EQ(tdTopicsPrintable(1, nullptr, kModule, " |"), 0);
    // Another delimiter set splits differently.
    EXPECT_NE(tdTopicsPrintable(1, "K_KW,K_DFA", kModule, ","), 0);
    EXPECT_EQ(tdTopicsPrintable(1, "K_KW,K_DFA", kModule, " |"), 0);
}

TEST_F(DebugFacility, AddingAgainSetsTheLevelEitherWay) {
    tdAddTopic("K_VBUF", 4, kModule);
    EXPECT_NE(tdTopicsPrintable(4, "K_VBUF", kModule, " |"), 0);
    tdAddTopic("K_VBUF", 1, kModule);
    EXPECT_EQ(tdTopicsPrintable(2, "K_VBUF", kModule, " |"), 0);
    EXPECT_NE(tdTopicsPrintable(1, "K_VBUF", kModule, " |"), 0);
    tdAddTopic("K_VBUF", 0, kModule);
    EXPECT_EQ(tdTopicsPrintable(1, "K_VBUF", kModule, " |"), 0);
}

TEST_F(DebugFacility, RefusesWhatItCannotHold) {
    EXPECT_EQ(tdAddTopic(nullptr, 3, kModule), -1);
    EXPECT_EQ(tdAddTopic("", 3, kModule), -1);
    EXPECT_EQ(tdAddTopic("K_PM", 3, -1), -1);
    EXPECT_EQ(tdAddTopic("K_PM", 3, 16), -1);
    EXPECT_EQ(tdAddTopic(std::string(31, 'T').c_str(), 3, kModule), 0);
    EXPECT_EQ(tdAddTopic(std::string(32, 'T').c_str(), 3, kModule), -1);
    EXPECT_NE(tdTopicsPrintable(3, std::string(31, 'T').c_str(), kModule, " |"), 0);

    tdResetTopics();
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(tdAddTopic(("T" + std::to_string(i)).c_str(), 2, kModule), 0) << i;
    EXPECT_EQ(tdAddTopic("ONE_TOO_MANY", 2, kModule), -1);
    EXPECT_EQ(tdAddTopic("T5", 4, kModule), 0) << "a known topic still takes a new level";
    EXPECT_NE(tdTopicsPrintable(4, "T5", kModule, " |"), 0);
    EXPECT_NE(tdTopicsPrintable(2, "T63", kModule, " |"), 0);
}

TEST_F(DebugFacility, AllTopicsSwitchAndKAll) {
    EXPECT_EQ(tdAllPrintable(1, kModule), 0);
    EXPECT_EQ(vael_us_adaptor_printable(1, "K_HTAB"), 0);
    tdSetAllLevel(2, kModule);
    EXPECT_NE(tdAllPrintable(2, kModule), 0);
    EXPECT_EQ(tdAllPrintable(3, kModule), 0);
    EXPECT_EQ(tdAllPrintable(1, 6), 0);
    EXPECT_NE(vael_us_adaptor_printable(2, "K_HTAB"), 0);
    EXPECT_EQ(vael_us_adaptor_printable(3, "K_HTAB"), 0);
    tdSetAllLevel(0, kModule);
    EXPECT_EQ(tdAllPrintable(0, kModule), 0) << "0 is off, not level 0";

    // K_ALL is a topic that stands for every other.
    tdAddTopic("K_ALL", 4, kModule);
    EXPECT_NE(vael_us_adaptor_printable(4, "K_HTAB"), 0);
    EXPECT_NE(vael_us_adaptor_printable(4, "K_THINNFA | K_PM"), 0);
    EXPECT_EQ(tdTopicsPrintable(4, "K_HTAB", kModule, " |"), 0) << "the facility itself knows no K_ALL";
}

TEST_F(DebugFacility, PrefixUnlessSuppressed) {
    LogCapture log;
    tdFunc(kModule, 65535, 0, "one %d\n", 1);
    tdFunc(kModule, 65535, 0, "two: ");
    tdFunc(kModule, 65535, 1, "%s", "piece");
    tdFunc(kModule, 65535, 1, " end\n");
    tdFunc(7, 65535, 0, "seven\n");
    EXPECT_EQ(log.text(), "vael[5]: one 1\nvael[5]: two: piece end\nvael[7]: seven\n");

    log.clear();
    vael_us_adaptor_kdprintf("%s: %u bytes\n", "f", 12u);
    vael_us_adaptor_kdprintf("line: ");
    vael_us_adaptor_kdprintf_no_prefix("%02x", 0xab);
    vael_us_adaptor_kdprintf_no_prefix("\n");
    EXPECT_EQ(log.text(), "vael[5]: f: 12 bytes\nvael[5]: line: ab\n");
}

TEST_F(DebugFacility, StandardErrorWhenNoSink) {
    tdSetSink(nullptr, nullptr);
    ::testing::internal::CaptureStderr();
    tdFunc(kModule, 65535, 0, "to stderr %d\n", 3);
    tdFunc(kModule, 65535, 1, "bare\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "vael[5]: to stderr 3\nbare\n");
}

TEST_F(DebugFacility, LongLinesStayWholeOnTheStream) {
    const std::string body(3000, 'z');
    tdSetSink(nullptr, nullptr);
    ::testing::internal::CaptureStderr();
    tdFunc(kModule, 65535, 0, "%s\n", body.c_str());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "vael[5]: " + body + "\n");

    // A sink gets the line cut at the facility's line size.
    LogCapture log;
    tdFunc(kModule, 65535, 0, "%s\n", body.c_str());
    EXPECT_EQ(log.text().size(), 1023u);
    EXPECT_EQ(log.text().rfind("vael[5]: zzz", 0), 0u);
}

int g_evaluated;
int costly() {
    g_evaluated++;
    return 42;
}

void log_from_here() { VAEL_LOG(VAEL_DBG_NOTICE, "K_KW | K_PM", "%s: value %d\n", costly()); }

TEST_F(DebugFacility, LogGuardComesBeforeTheArguments) {
    LogCapture log;
    g_evaluated = 0;
    log_from_here();
    EXPECT_EQ(g_evaluated, 0);
    EXPECT_EQ(log.text(), "");

    tdAddTopic("K_PM", VAEL_DBG_ERR, kModule);  // below the message's level
    log_from_here();
    EXPECT_EQ(g_evaluated, 0);

    tdAddTopic("K_KW", VAEL_DBG_NOTICE, kModule);
    log_from_here();
    EXPECT_EQ(g_evaluated, 1);
    EXPECT_EQ(log.text(), "vael[5]: log_from_here: value 42\n");

    log.clear();
    VAEL_LOG_AS("fixed_name", VAEL_DBG_ERR, "K_PM", "%s: no more\n");
    EXPECT_EQ(log.text(), "vael[5]: fixed_name: no more\n");
}

TEST_F(DebugFacility, SinkGetsItsContext) {
    struct Seen {
        int calls = 0;
        std::string text;
    } seen;
    tdSetSink(
        [](const char *text, void *ctx) {
            auto *s = static_cast<Seen *>(ctx);
            s->calls++;
            s->text += text;
        },
        &seen);
    tdFunc(kModule, 65535, 0, "a\n");
    tdFunc(kModule, 65535, 1, "b\n");
    tdSetSink(nullptr, nullptr);
    ::testing::internal::CaptureStderr();
    tdFunc(kModule, 65535, 1, "c\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "c\n");
    EXPECT_EQ(seen.calls, 2);
    EXPECT_EQ(seen.text, "vael[5]: a\nb\n");
}

// Readers walk the table while a writer adds topics: no torn names, and every
// topic added is found afterwards.
TEST_F(DebugFacility, TopicsAddedWhileOthersRead) {
    std::vector<std::thread> readers;
    std::atomic<bool> done{false};
    for (int t = 0; t < 3; t++)
        readers.emplace_back([&] {
            while (!done.load())
                (void)tdTopicsPrintable(3, "W0 | W10 | W40", kModule, " |");
        });
    for (int i = 0; i < 50; i++)
        ASSERT_EQ(tdAddTopic(("W" + std::to_string(i)).c_str(), 3, kModule), 0);
    done = true;
    for (auto &r : readers)
        r.join();
    for (int i = 0; i < 50; i++)
        EXPECT_NE(tdTopicsPrintable(3, ("W" + std::to_string(i)).c_str(), kModule, " |"), 0) << i;
}

}  // namespace
