// The manager's grammar and the decision engine over stand-in keywords (kw_fake.h).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "tests/keywords/kw_fake.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;

constexpr uint32_t A = VAEL_KW_PROP_ABSOLUTE, N = VAEL_KW_PROP_ANCHORED, C = VAEL_KW_PROP_CHANGES_OFFSET,
                   G = VAEL_KW_PROP_GIVE_UP_NO_MATCH;

// A manager from a rule text; null with the error set when refused.
struct Rule {
    explicit Rule(const std::string &text) {
        vael_pm_error_init(&err);
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(text.data()),
                                                          (uint32_t)text.size(), -1, 0);
        LogCapture quiet;
        mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(s, 0, 0, &err));
        vael_pmglob_string_destroy(s);
    }
    ~Rule() { vael_kw_mgr_destroy(mgr); }
    vael_kw_mgr *mgr = nullptr;
    vael_pm_error err;
};

std::string rule_of(int keywords) {
    std::string rule;
    for (int i = 0; i < keywords; i++)
        rule += "length: min; ";
    return rule;
}

// Each keyword's create is handed its text from the name up to its ';',
// which becomes ','; the type goes by the name's prefix.
TEST(KwGrammar, KeywordTexts) {
    struct Case { std::string rule; std::vector<std::string> texts; std::vector<uint32_t> types; };
    const Case cases[] = {
        {R"(  data: "a" ;	length: 1 , min ;  )", {R"(data: "a",)", "length: 1, min,"}, {0, 1}},
        // Whitespace in front of ',' and ';' falls away outside quotes only.
        {R"(data: "a ,b ;" , depth 3;)", {R"(data: "a ,b ;", depth 3,)"}, {0}},
        // A ';' inside quotes or behind an escaped quote ends nothing; two
        // backslashes escape each other.
        {R"(data: "a\";b";)", {R"(data: "a\";b",)"}, {0}},
        {R"(data: "a\\"; test: 1;)", {R"(data: "a\\",)", "test: 1,"}, {0, 2}},
        // The delimiter clause: its character becomes '"', inside quotes too.
        {"  delim=' \t;data: 'ab';", {R"(data: "ab",)"}, {0}},
        {R"(delim=#;data: #a;b#; data: "c";)", {R"(data: "a;b",)", R"(data: "c",)"}, {0, 0}},
        {"test: 1; testing: 2; lengths: 3; dataX: 4;", {"test: 1,", "testing: 2,", "lengths: 3,", "dataX: 4,"},
         {2, 2, 1, 0}},
        {rule_of(100), std::vector<std::string>(100, "length: min,"), std::vector<uint32_t>(100, 1)},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        Rule rule(c.rule);
        ASSERT_NE(rule.mgr, nullptr) << c.rule;
        std::vector<std::string> texts;
        std::vector<uint32_t> types;
        for (uint32_t i = 0; i < rule.mgr->count; i++) {
            texts.push_back(kw_fake::text_of(rule.mgr->keywords[i]));
            types.push_back(rule.mgr->keywords[i]->type);
        }
        EXPECT_EQ(texts, c.texts) << c.rule;
        EXPECT_EQ(types, c.types) << c.rule;
    }
}

// The decision of each outcome (pass, marker, come back, backtrack, give
// up) shows in the call traces of the runs below.
TEST(KwDecision, RangeOfAKeyword) {
    struct Case {
        uint32_t props;
        int32_t user_offset;
        uint32_t depth, offset;  // offset: the present offset
        int from_backtrack, ok;
        uint32_t start, size;
    } cases[] = {
        {A, 0, 0, 4, 0, 1, 0, 10},  {0, 0, 0, 4, 0, 1, 4, 6},  {0, 0, 0, 10, 0, 1, 10, 0},
        {A, 3, 0, 0, 0, 1, 3, 7},   {A, 10, 0, 0, 0, 1, 10, 0}, {A, 11, 0, 0, 0, 0, 0, 0},
        {0, -3, 0, 3, 0, 1, 0, 10}, {0, -4, 0, 3, 0, 0, 0, 0},  {A, 2, 3, 0, 0, 1, 2, 3},
        {A, 2, 9, 0, 0, 1, 2, 8},   {0, 0, 0, 12, 0, 1, 12, 0},
        // Resumed, the saved position (offset 6, end 9) is the range.
        {A, 5, 0, 6, 1, 1, 6, 3},
    };
    for (const auto &c : cases) {
        vael_kw_abs kw{};
        kw.props = c.props;
        kw.user_offset = c.user_offset;
        kw.depth = c.depth;
        vael_kw_position pos{c.offset, 9, 0};
        uint32_t start = 0, size = 0;
        LogCapture quiet;
        const int rc = vael_kw_mgr_find_start_offset(&kw, &pos, 10, c.from_backtrack, &start, &size);
        SCOPED_TRACE(testing::Message() << "offset " << c.user_offset << " at " << c.offset);
        ASSERT_EQ(rc == 0, c.ok == 1);
        if (rc == 0) {
            EXPECT_EQ(std::vector<uint32_t>({start, size, pos.end}), std::vector<uint32_t>({c.start, c.size, c.start + c.size}));
        }
        EXPECT_EQ(pos.offset, c.offset);
    }
}

// Whole runs; the trace is what the keywords were asked, in order.
TEST(KwRun, RulesOverBuffers) {
    struct Case { const char *rule, *buf; int rc, is_match; uint32_t match_end; std::vector<std::string> trace; };
    const Case cases[] = {
        // The first "a" has no "b" right behind it: back, and the second has.
        {R"(data: "a", relative; data: "b", relative, depth 1;)", "axab", 0, 1, 3,
         {R"(data: "a", relative,@0+4)", R"(data: "b", relative, depth 1,@1+1)", R"(^data: "a", relative,@1+3)",
          R"(data: "b", relative, depth 1,@3+1)"}},
        // An absolute first keyword is a marker that leaves itself on the
        // stack: a failure later resumes it.
        {R"(data: "a"; data: "b", relative, depth 1;)", "axab", 0, 1, 3,
         {R"(data: "a",@0+4)", R"(data: "b", relative, depth 1,@1+1)", R"(^data: "a",@1+3)",
          R"(data: "b", relative, depth 1,@3+1)"}},
        // Two absolute keywords: the second fails for any history.
        {R"(data: "a"; data: "z";)", "aaa", 0, 0, 0, {R"(data: "a",@0+3)", R"(data: "z",@0+3)"}},
        {R"(data: "ab", relative; data: "cd", relative, depth 2;)", "abxxabcd", 0, 1, 7,
         {R"(data: "ab", relative,@0+8)", R"(data: "cd", relative, depth 2,@2+2)",
          R"(^data: "ab", relative,@2+6)", R"(data: "cd", relative, depth 2,@6+2)"}},
        // Three levels: the middle keyword is resumed, the first stays.
        {R"(data: "a", relative; data: "b", relative; data: "c", relative, depth 1;)", "abxabc", 0, 1, 5,
         {R"(data: "a", relative,@0+6)", R"(data: "b", relative,@1+5)", R"(data: "c", relative, depth 1,@2+1)",
          R"(^data: "b", relative,@2+4)", R"(data: "c", relative, depth 1,@5+1)"}},
        // A monotonous keyword behind order-preserving ones gives up.
        {R"(data: "a", relative; data: "q", relative;)", "aaa", 0, 0, 0,
         {R"(data: "a", relative,@0+3)", R"(data: "q", relative,@1+2)"}},
        // Nothing moved the offset: the rule's pass is no match.
        {"length: min;", "abc", 0, 0, 0, {"length: min,@0+3"}},
        {R"(data: "c", relative; length: relative;)", "abc", 0, 0, 0,
         {R"(data: "c", relative,@0+3)", "length: relative,@3+0", R"(^data: "c", relative,@3+0)"}},
        {R"(data: "x"; data: negated "q", relative;)", "xab", 0, 1, 0,
         {R"(data: "x",@0+3)", R"(data: negated "q", relative,@1+2)"}},
        {R"(data: "x"; data: negated "a", relative;)", "xab", 0, 0, 0,
         {R"(data: "x",@0+3)", R"(data: negated "a", relative,@1+2)", R"(^data: "x",@1+2)"}},
        // An offset before the data is the keyword's non-match, here one
        // that gives up; one that reaches 0 exactly is fine.
        {R"(data: "a", relative; data: "b", relative, offset -5;)", "xxab", 0, 0, 0,
         {R"(data: "a", relative,@0+4)"}},
        {R"(data: "a", relative; data: "b", relative, offset -3;)", "xxab", 0, 1, 3,
         {R"(data: "a", relative,@0+4)", R"(data: "b", relative, offset -3,@0+4)"}},
        // A next offset past the data is a non-match; a keyword's own
        // failure fails the run.
        {R"(data: "a", far;)", "abc", 0, 0, 0, {R"(data: "a", far,@0+3)"}},
        {R"(data: "a"; data: "b", boom;)", "ab", -1, 0, 0, {R"(data: "a",@0+2)", R"(data: "b", boom,@0+2)"}},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        Rule rule(c.rule);
        ASSERT_NE(rule.mgr, nullptr) << c.rule;
        for (int pass = 0; pass < 2; pass++) {  // nothing of a run stays for the next
            SCOPED_TRACE(testing::Message() << c.rule << " over " << c.buf << " pass " << pass);
            kw_fake::trace().clear();
            int is_match = -1;
            uint32_t match_end = 12345;
            LogCapture quiet;
            EXPECT_EQ(vael_kw_mgr_exec(rule.mgr, reinterpret_cast<const unsigned char *>(c.buf),
                                       (uint32_t)std::strlen(c.buf), &is_match, &match_end),
                      c.rc);
            EXPECT_EQ(is_match, c.is_match);
            EXPECT_EQ(c.is_match == 1 ? match_end : c.match_end, c.match_end);
            EXPECT_EQ(kw_fake::trace(), c.trace);
            EXPECT_EQ(kw_fake::first_prev_scan(), 0u);
        }
    }
}

// The stack holds one position per slot; a push beyond is refused, and a
// pop restores three words and leaves the keyword's prev_scan word.
TEST(KwRun, StackBounds) {
    kw_fake::Install fakes;
    Rule rule(R"(data: "a", relative, depth 2;)");  // floating: it pushes
    ASSERT_NE(rule.mgr, nullptr);
    uint32_t slots[8] = {0, 0, 0, 77, 0, 0, 0, 0};
    vael_kw_stack stack{0, 1, slots};
    vael_kw_position pos{5, 9, 0};
    int from_backtrack = 7;
    LogCapture quiet;
    ASSERT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 1), 0);
    EXPECT_EQ(stack.depth, 1u);
    EXPECT_EQ(pos.kw_index, VAEL_KW_INDEX_END);
    EXPECT_EQ(from_backtrack, 0);
    pos.kw_index = 0;
    EXPECT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 1), -1);
    pos = {0, 0, 0};
    ASSERT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 0), 0);
    EXPECT_EQ(std::vector<uint32_t>({(uint32_t)from_backtrack, stack.depth, pos.offset, pos.end, pos.kw_index, slots[3]}),
              std::vector<uint32_t>({1, 0, 5, 9, 0, 77}));
    ASSERT_EQ(vael_kw_mgr_decision(rule.mgr, &stack, &pos, &from_backtrack, 0), 0);  // empty: the run ends
    EXPECT_EQ(pos.kw_index, VAEL_KW_INDEX_END);
    EXPECT_EQ(from_backtrack, 0);
}

// The exec slot of the KW row (its deliveries: through the PM in the rules
// test) fails on the callback's refusal and on its stack's allocation
// failure, with nothing held.
TEST(KwRun, SecondTierExecFailures) {
    kw_fake::Install fakes;
    Rule rule(R"(data: "b", relative;)");
    ASSERT_NE(rule.mgr, nullptr);
    vael_pm_exec_cb_ctx ctx{[](vael_pm_exec_cb_ctx *, uint32_t, uint32_t *, int32_t) { return 3; },
                            nullptr, nullptr, 1, 9, nullptr, 0, nullptr, 0};
    const auto *buf = reinterpret_cast<const unsigned char *>("abab");
    LogCapture quiet;
    EXPECT_EQ(vael_kw_mgr_tier2_exec(rule.mgr, buf, 4, nullptr, 0, nullptr, 0, &ctx), -1);

    const intptr_t before = qx_kmem_get_alloc_total();
    vael_us_adaptor_failmem_set(2, 0);
    int is_match = 7;
    uint32_t end = 0;
    const int rc = vael_kw_mgr_exec(rule.mgr, buf, 4, &is_match, &end);
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(is_match, 0);
    EXPECT_EQ(qx_kmem_get_alloc_total(), before);
}

}  // namespace
