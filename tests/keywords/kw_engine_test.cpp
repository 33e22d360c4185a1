// The decision engine: the decision of each outcome, the range a keyword is
// given, and whole runs of rules over buffers, backtracking included, with
// stand-in keywords (kw_fake.h) so that the search is tested apart from the
// keywords' own matching.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "tests/keywords/kw_fake.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;

constexpr uint32_t A = VAEL_KW_PROP_ABSOLUTE, N = VAEL_KW_PROP_ANCHORED, C = VAEL_KW_PROP_CHANGES_OFFSET,
                   G = VAEL_KW_PROP_GIVE_UP_NO_MATCH;

TEST(KwDecision, CodeOfEachOutcome) {
    struct Case {
        uint32_t props;
        int matched;
        int code;
        const char *word;
    };
    const Case cases[] = {
        {N, 1, 0, "PASS"},
        {N | A, 1, 0, "PASS"},  // absolute alone is no marker
        {N | C, 1, 0, "PASS"},
        {0, 1, 1, "PASS_COME_BACK"},
        {C, 1, 1, "PASS_COME_BACK"},
        {N | A | C, 1, 2, "PASS_MARKER"},
        {A | C, 1, 3, "PASS_MARKER_COME_BACK"},
        {A | C | N, 0, 4, "BACKTRACK"},
        {G | N, 1, 0, "PASS"},  // give up matters only on a failure
        {G, 0, 5, "NO_MATCH"},
    };
    for (const auto &c : cases) {
        vael_kw_abs kw{};
        kw.props = c.props;
        const int code = vael_kw_mgr_keyword_decision(&kw, c.matched);
        EXPECT_EQ(code, c.code) << "props " << c.props << " matched " << c.matched;
        EXPECT_STREQ(vael_kw_decision_to_string(code), c.word);
    }
    EXPECT_STREQ(vael_kw_decision_to_string(-1), "NONE");
    EXPECT_STREQ(vael_kw_decision_to_string(6), "Unknown");
    EXPECT_STREQ(vael_kw_decision_to_string(-2), "Unknown");
}

TEST(KwDecision, RangeOfAKeyword) {
    struct Case {
        uint32_t props;
        int32_t user_offset;
        uint32_t depth;
        uint32_t offset;  // the present offset
        int ok;
        uint32_t start, size;
    };
    const uint32_t len = 10;
    const Case cases[] = {
        {A, 0, 0, 4, 1, 0, 10},     // absolute: from 0 whatever the offset
        {0, 0, 0, 4, 1, 4, 6},      // relative: from the present offset
        {0, 0, 0, 10, 1, 10, 0},    // at the very end: nothing to scan
        {A, 3, 0, 0, 1, 3, 7},      // offset moves the start and shrinks the size
        {A, 10, 0, 0, 1, 10, 0},    // exactly the rest
        {A, 11, 0, 0, 0, 0, 0},     // beyond it
        {0, -3, 0, 3, 1, 0, 10},    // a negative offset widens the range backward
        {0, -5, 0, 3, 0, 0, 0},     // but not before the start of the data
        {A, 2, 3, 0, 1, 2, 3},      // depth cuts the size
        {A, 2, 9, 0, 1, 2, 8},      // a depth above the rest does not grow it
    };
    for (const auto &c : cases) {
        vael_kw_abs kw{};
        kw.props = c.props;
        kw.user_offset = c.user_offset;
        kw.depth = c.depth;
        vael_kw_position pos{c.offset, 99, 0};
        uint32_t start = 0, size = 0;
        LogCapture quiet;
        const int rc = vael_kw_mgr_find_start_offset(&kw, &pos, len, 0, &start, &size);
        EXPECT_EQ(rc == 0, c.ok == 1) << "offset " << c.user_offset << " at " << c.offset;
        if (rc == 0) {
            EXPECT_EQ(start, c.start) << "offset " << c.user_offset << " at " << c.offset;
            EXPECT_EQ(size, c.size) << "offset " << c.user_offset << " at " << c.offset;
            EXPECT_EQ(pos.end, c.start + c.size);
        }
        EXPECT_EQ(pos.offset, c.offset) << "the present offset is not the range's business";
    }
    // Resumed, the saved position is the range as it stands.
    vael_kw_abs kw{};
    kw.props = A;
    kw.user_offset = 5;
    vael_kw_position pos{6, 9, 0};
    uint32_t start = 0, size = 0;
    ASSERT_EQ(vael_kw_mgr_find_start_offset(&kw, &pos, 10, 1, &start, &size), 0);
    EXPECT_EQ(start, 6u);
    EXPECT_EQ(size, 3u);
}

// A manager from a rule text, over fake keywords.
struct Rule {
    explicit Rule(const char *text) {
        vael_pm_error_init(&err);
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(text),
                                                          (uint32_t)std::strlen(text), -1, 0);
        LogCapture quiet;
        mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(s, 0, 0, &err));
        vael_pmglob_string_destroy(s);
    }
    ~Rule() { vael_kw_mgr_destroy(mgr); }
    Rule(const Rule &) = delete;
    Rule &operator=(const Rule &) = delete;
    vael_kw_mgr *mgr = nullptr;
    vael_pm_error err;
};

// Whole runs. `trace` is what the keywords were asked, in order:
// "^" marks a resumption, then the keyword's text, "@start+size".
TEST(KwRun, RulesOverBuffers) {
    struct Case {
        const char *rule;
        const char *buf;
        int rc;
        int is_match;
        uint32_t match_end;
        std::vector<std::string> trace;
    };
    const Case cases[] = {
        // The first place of "a" leaves no "b" right behind it; the engine
        // goes back and the second place does.
        {R"(data: "a", relative; data: "b", relative, depth 1;)", "axab", 0, 1, 3,
         {R"(data: "a", relative,@0+4)", R"(data: "b", relative, depth 1,@1+1)", R"(^data: "a", relative,@1+3)",
          R"(data: "b", relative, depth 1,@3+1)"}},
        // An absolute first keyword is a marker that leaves itself on the
        // stack: a failure later resumes it.
        {R"(data: "a"; data: "b", relative, depth 1;)", "axab", 0, 1, 3,
         {R"(data: "a",@0+4)", R"(data: "b", relative, depth 1,@1+1)", R"(^data: "a",@1+3)",
          R"(data: "b", relative, depth 1,@3+1)"}},
        // Two absolute keywords: the second fails for any history, and the
        // first is not resumed.
        {R"(data: "a"; data: "z";)", "aaa", 0, 0, 0, {R"(data: "a",@0+3)", R"(data: "z",@0+3)"}},
        // Going back two places: the pairs resume one byte behind the start
        // of their last find.
        {R"(data: "ab", relative; data: "cd", relative, depth 2;)", "abxxabcd", 0, 1, 7,
         {R"(data: "ab", relative,@0+8)", R"(data: "cd", relative, depth 2,@2+2)",
          R"(^data: "ab", relative,@2+6)", R"(data: "cd", relative, depth 2,@6+2)"}},
        // Three levels: the middle keyword is resumed, the first stays.
        {R"(data: "a", relative; data: "b", relative; data: "c", relative, depth 1;)", "abxabc", 0, 1, 5,
         {R"(data: "a", relative,@0+6)", R"(data: "b", relative,@1+5)", R"(data: "c", relative, depth 1,@2+1)",
          R"(^data: "b", relative,@2+4)", R"(data: "c", relative, depth 1,@5+1)"}},
        // A monotonous keyword behind order-preserving ones gives up: a
        // later start of it could only find less.
        {R"(data: "a", relative; data: "q", relative;)", "aaa", 0, 0, 0,
         {R"(data: "a", relative,@0+3)", R"(data: "q", relative,@1+2)"}},
        // Nothing moved the offset: the rule's pass is no match.
        {"length: min;", "abc", 0, 0, 0, {"length: min,@0+3"}},
        // A find at the very end leaves nothing behind it to look at.
        {R"(data: "c", relative; length: relative;)", "abc", 0, 0, 0,
         {R"(data: "c", relative,@0+3)", "length: relative,@3+0", R"(^data: "c", relative,@3+0)"}},
        // A negated keyword passes where its needle is absent and moves nothing.
        {R"(data: "x"; data: negated "q", relative;)", "xab", 0, 1, 0,
         {R"(data: "x",@0+3)", R"(data: negated "q", relative,@1+2)"}},
        {R"(data: "x"; data: negated "a", relative;)", "xab", 0, 0, 0,
         {R"(data: "x",@0+3)", R"(data: negated "a", relative,@1+2)", R"(^data: "x",@1+2)"}},
        // An offset before the data is the keyword's non-match (here one
        // that gives up); an offset that reaches 0 exactly is fine.
        {R"(data: "a", relative; data: "b", relative, offset -5;)", "xxab", 0, 0, 0,
         {R"(data: "a", relative,@0+4)"}},
        {R"(data: "a", relative; data: "b", relative, offset -3;)", "xxab", 0, 1, 3,
         {R"(data: "a", relative,@0+4)", R"(data: "b", relative, offset -3,@0+4)"}},
        // A next offset past the data is a non-match, not a failure.
        {R"(data: "a", far;)", "abc", 0, 0, 0, {R"(data: "a", far,@0+3)"}},
        // A keyword's own failure fails the run.
        {R"(data: "a"; data: "b", boom;)", "ab", -1, 0, 0, {R"(data: "a",@0+2)", R"(data: "b", boom,@0+2)"}},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        Rule rule(c.rule);
        ASSERT_NE(rule.mgr, nullptr) << c.rule;
        for (int pass = 0; pass < 2; pass++) {  // nothing of a run stays for the next
            kw_fake::trace().clear();
            int is_match = -1;
            uint32_t match_end = 12345;
            LogCapture quiet;
            const int rc = vael_kw_mgr_exec(rule.mgr, reinterpret_cast<const unsigned char *>(c.buf),
                                            (uint32_t)std::strlen(c.buf), &is_match, &match_end);
            EXPECT_EQ(rc, c.rc) << c.rule << " over " << c.buf;
            EXPECT_EQ(is_match, c.is_match) << c.rule << " over " << c.buf;
            if (c.is_match == 1) {
                EXPECT_EQ(match_end, c.match_end) << c.rule << " over " << c.buf;
            }
            EXPECT_EQ(kw_fake::trace(), c.trace) << c.rule << " over " << c.buf;
            EXPECT_EQ(kw_fake::first_prev_scan(), 0u) << "prev_scan words start each run at 0";
        }
    }
}

// The stack holds one position per keyword; a push beyond that is refused,
// and a pop restores three words and leaves each keyword's prev_scan word.
TEST(KwRun, StackBounds) {
    kw_fake::Install fakes;
    Rule rule(R"(data: "a", relative, depth 2;)");  // floating, and it goes back
    ASSERT_NE(rule.mgr, nullptr);
    uint32_t slots[8] = {0, 0, 0, 77, 0, 0, 0, 0};
    vael_kw_stack stack{0, 1, slots};
    vael_kw_position pos{5, 9, 0};
    int from_backtrack = 7;
    ASSERT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 1), 0);
    EXPECT_EQ(stack.depth, 1u);
    EXPECT_EQ(pos.kw_index, VAEL_KW_INDEX_END) << "the last keyword passed";
    EXPECT_EQ(from_backtrack, 0);
    pos.kw_index = 0;
    LogCapture log;
    EXPECT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 1), -1);
    EXPECT_TRUE(log.contains("stack is full\n")) << log.text();
    pos = {0, 0, 0};
    ASSERT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 0), 0);
    EXPECT_EQ(from_backtrack, 1);
    EXPECT_EQ(stack.depth, 0u);
    EXPECT_EQ(pos.offset, 5u);
    EXPECT_EQ(pos.end, 9u);
    EXPECT_EQ(pos.kw_index, 0u);
    EXPECT_EQ(slots[3], 77u);
    // Failing with an empty stack ends the run.
    ASSERT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 0), 0);
    EXPECT_EQ(pos.kw_index, VAEL_KW_INDEX_END);
    EXPECT_EQ(from_backtrack, 0);
}

// The exec slot of the KW row: one delivery per matching run, the
// callback's refusal a failure.
struct Delivered {
    std::vector<uint32_t> offsets;
    int answer = 0;
};

int deliver(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra, int32_t pattern_id) {
    auto *d = static_cast<Delivered *>(ctx->user_arg);
    EXPECT_EQ(extra, nullptr);
    EXPECT_EQ(pattern_id, -1);
    d->offsets.push_back(offset);
    return d->answer;
}

TEST(KwRun, SecondTierExec) {
    kw_fake::Install fakes;
    Rule rule(R"(data: "b", relative;)");
    ASSERT_NE(rule.mgr, nullptr);
    Delivered d;
    vael_pm_exec_cb_ctx ctx{deliver, &d, nullptr, 1, 9, nullptr, 0, nullptr, 0};
    const auto *buf = reinterpret_cast<const unsigned char *>("abab");
    // The start, queue and flags are not the rule's business: the whole
    // buffer is searched.
    EXPECT_EQ(vael_kw_mgr_tier2_exec(rule.mgr, buf, 4, nullptr, 3, nullptr, 0xffffffffu, &ctx), 0);
    EXPECT_EQ(d.offsets, std::vector<uint32_t>{1});
    EXPECT_EQ(vael_kw_mgr_tier2_exec(rule.mgr, buf, 1, nullptr, 0, nullptr, 0, &ctx), 0);
    EXPECT_EQ(d.offsets.size(), 1u) << "no match, no delivery";
    Rule failing(R"(data: "b", boom;)");
    d.answer = 3;
    LogCapture log;
    EXPECT_EQ(vael_kw_mgr_tier2_exec(rule.mgr, buf, 4, nullptr, 0, nullptr, 0, &ctx), -1);
    EXPECT_TRUE(log.contains("user match callback returned VAEL_ERROR")) << log.text();
    EXPECT_EQ(vael_kw_mgr_tier2_exec(failing.mgr, buf, 4, nullptr, 0, nullptr, 0, &ctx), -1);
    EXPECT_TRUE(log.contains("vael_kw_mgr_tier2_exec: failed to execute the mgr\n")) << log.text();
}

// The run's one allocation failing is a failed run, with nothing held.
TEST(KwRun, StackAllocationFails) {
    kw_fake::Install fakes;
    Rule rule(R"(data: "a";)");
    ASSERT_NE(rule.mgr, nullptr);
    const intptr_t before = qx_kmem_get_alloc_total();
    vael_us_adaptor_failmem_set(2, 0);
    int is_match = 0;
    uint32_t end = 0;
    LogCapture log;
    const int rc = vael_kw_mgr_exec(rule.mgr, reinterpret_cast<const unsigned char *>("a"), 1, &is_match, &end);
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(is_match, 0);
    EXPECT_TRUE(log.contains("Failed to allocate 16 bytes for stack")) << log.text();
    EXPECT_EQ(qx_kmem_get_alloc_total(), before);
}

}  // namespace
