// The manager's grammar and the decision engine over a stand-in keyword, so that they are tested apart from the real
// keywords' matching.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "runtime/vael_runtime.h"
#include "tests/keywords/kw_rule_run.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

// A fake keeps the text the manager handed to its create. The bytes between
// its first two '"' are a needle: it then acts as `data` does (floating,
// monotonous, moves the offset behind its find; resumed, it searches again
// from one byte behind the start of its last find). Without one it is a
// `length: 1, min,`: it matches when its range holds a byte. The words
// "relative", "negated", "depth N", "offset N" set what they say; "boom"
// makes its execute fail, "far" reports a next offset past the data.
namespace kw_fake {

struct Fake {
    vael_kw_abs base;
    uint32_t text_len;
    char *text;  // the create's text, NUL-ended
};

// Every execute, in order: "^" for a resumption, the needle (or without one
// the keyword's name), "@start+size".
std::vector<std::string> &trace() {
    static std::vector<std::string> t;
    return t;
}

// The prev_scan word the first execute of a trace found.
uint32_t &first_prev_scan() {
    static uint32_t v;
    return v;
}

const char *text_of(const vael_kw_abs *kw) { return reinterpret_cast<const Fake *>(kw)->text; }

void destroy(vael_kw_abs *kw) {
    auto *f = reinterpret_cast<Fake *>(kw);
    if (f->text)
        VAEL_PM_KFREE(f->text, f->text_len + 1);
    VAEL_PM_KFREE(f, sizeof(Fake));
}

vael_kw_abs *create(const char *text, uint32_t type, vael_pm_error *) {
    auto *f = static_cast<Fake *>(VAEL_PM_KMALLOC(sizeof(Fake)));
    if (!f)
        return nullptr;
    std::memset(f, 0, sizeof *f);
    f->text_len = (uint32_t)std::strlen(text);
    f->text = static_cast<char *>(VAEL_PM_KMALLOC(f->text_len + 1));
    if (!f->text) {
        destroy(&f->base);
        return nullptr;
    }
    std::memcpy(f->text, text, f->text_len + 1);
    const std::string s = text;
    auto has = [&](const char *word) { return s.find(word) != std::string::npos; };
    uint32_t &props = f->base.props;
    f->base.type = type;
    props = std::strchr(text, '"') ? 0x1D : 0x13;  // data-like, or length-like
    if (has("relative"))
        props &= ~VAEL_KW_PROP_ABSOLUTE;
    if (has("negated")) {
        f->base.flags |= VAEL_KW_FLAG_NEGATED;
        props = (props | VAEL_KW_PROP_ANCHORED | VAEL_KW_PROP_ORDER_PRESERVING) &
                ~(VAEL_KW_PROP_MONOTONOUS | VAEL_KW_PROP_CHANGES_OFFSET);
    }
    if (size_t at = s.find("depth "); at != std::string::npos) {
        f->base.depth = (uint32_t)std::atoi(text + at + 6);
        props &= ~VAEL_KW_PROP_MONOTONOUS;
    }
    if (size_t at = s.find("offset "); at != std::string::npos)
        f->base.user_offset = std::atoi(text + at + 7);
    return &f->base;
}

int execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *, uint32_t start, uint32_t size,
            int from_backtrack, uint32_t *prev_scan, uint32_t *next_offset, int *is_match) {
    const std::string text = text_of(kw);
    const size_t q1 = text.find('"'), q2 = text.find('"', q1 + 1);
    const std::string needle = q1 == std::string::npos ? "" : text.substr(q1 + 1, q2 - q1 - 1);
    if (trace().empty())
        first_prev_scan() = *prev_scan;
    trace().push_back((from_backtrack ? "^" : "") + (needle.empty() ? text.substr(0, text.find(':')) : needle) + "@" +
                      std::to_string(start) + "+" + std::to_string(size));
    *next_offset = start;
    *is_match = 0;
    *prev_scan = start + 1;
    if (text.find("boom") != std::string::npos)
        return -1;
    if (needle.empty()) {
        *is_match = size >= 1;
        return 0;
    }
    const uint32_t n = (uint32_t)needle.size();
    if (from_backtrack) {
        if (start < n)
            return 0;
        start -= n - 1;
        size += n - 1;
    }
    for (uint32_t i = start; i + n <= start + size && i + n <= len; i++) {
        if (std::memcmp(buf + i, needle.data(), n) == 0) {
            *next_offset = text.find("far") != std::string::npos ? len + 1 : i + n;
            *is_match = 1;
            return 0;
        }
    }
    return 0;
}

// The engine and grammar tests never write an image of a fake.
const vael_kw_vtable kVtable = {create, execute, nullptr, nullptr, nullptr, destroy};

// Stands the fake in the rows of the keywords of this build while it lives.
class Install {
  public:
    Install() {
        for (int i = 0; i < VAEL_KW_TYPE_NUM; i++) {
            saved_[i] = vael_kw_table[i].vtable;
            if (i < VAEL_KW_TYPE_RE)
                vael_kw_table[i].vtable = &kVtable;
        }
        trace().clear();
    }
    ~Install() {
        for (int i = 0; i < VAEL_KW_TYPE_NUM; i++)
            vael_kw_table[i].vtable = saved_[i];
    }

  private:
    const vael_kw_vtable *saved_[VAEL_KW_TYPE_NUM];
};

}  // namespace kw_fake

namespace {

using vael_test::LogCapture;

constexpr uint32_t A = VAEL_KW_PROP_ABSOLUTE;

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
        {kw_run::repeat("length: min; ", 100), std::vector<std::string>(100, "length: min,"),
         std::vector<uint32_t>(100, 1)},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        const kw_run::Mgr mgr = kw_run::compiled(c.rule);
        ASSERT_NE(mgr, nullptr);
        std::vector<std::string> texts;
        std::vector<uint32_t> types;
        for (uint32_t i = 0; i < mgr->count; i++) {
            texts.push_back(kw_fake::text_of(mgr->keywords[i]));
            types.push_back(mgr->keywords[i]->type);
        }
        EXPECT_EQ(texts, c.texts) << c.rule;
        EXPECT_EQ(types, c.types) << c.rule;
    }
}

// The decision of each outcome (pass, marker, come back, backtrack, give
// up) shows in the call traces of the runs below.
TEST(KwDecision, RangeOfAKeyword) {
    // offset: the present offset; start and size: the range.
    struct Case { uint32_t props; int32_t user_offset; uint32_t depth, offset; int resumed, ok; uint32_t start, size; };
    const Case cases[] = {
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
        const int rc = vael_kw_mgr_find_start_offset(&kw, &pos, 10, c.resumed, &start, &size);
        SCOPED_TRACE(testing::Message() << "offset " << c.user_offset << " at " << c.offset);
        ASSERT_EQ(rc == 0, c.ok == 1);
        if (rc == 0) {
            EXPECT_EQ(std::make_tuple(start, size, pos.end), std::make_tuple(c.start, c.size, c.start + c.size));
        }
        EXPECT_EQ(pos.offset, c.offset);
    }
}

// Whole runs; the trace is what the keywords were asked, in order, each named by its needle.
TEST(KwRun, RulesOverBuffers) {
    struct Case { const char *rule, *buf; int rc, is_match; uint32_t match_end; std::vector<std::string> trace; };
    const Case cases[] = {
        // The first "a" has no "b" right behind it: back, and the second has.
        {R"(data: "a", relative; data: "b", relative, depth 1;)", "axab", 0, 1, 3,
         {"a@0+4", "b@1+1", "^a@1+3", "b@3+1"}},
        // An absolute first keyword is a marker that leaves itself on the
        // stack: a failure later resumes it.
        {R"(data: "a"; data: "b", relative, depth 1;)", "axab", 0, 1, 3, {"a@0+4", "b@1+1", "^a@1+3", "b@3+1"}},
        // Two absolute keywords: the second fails for any history.
        {R"(data: "a"; data: "z";)", "aaa", 0, 0, 0, {"a@0+3", "z@0+3"}},
        {R"(data: "ab", relative; data: "cd", relative, depth 2;)", "abxxabcd", 0, 1, 7,
         {"ab@0+8", "cd@2+2", "^ab@2+6", "cd@6+2"}},
        // Three levels: the middle keyword is resumed, the first stays.
        {R"(data: "a", relative; data: "b", relative; data: "c", relative, depth 1;)", "abxabc", 0, 1, 5,
         {"a@0+6", "b@1+5", "c@2+1", "^b@2+4", "c@5+1"}},
        // A monotonous keyword behind order-preserving ones gives up.
        {R"(data: "a", relative; data: "q", relative;)", "aaa", 0, 0, 0, {"a@0+3", "q@1+2"}},
        // Nothing moved the offset: the rule's pass is no match.
        {"length: min;", "abc", 0, 0, 0, {"length@0+3"}},
        {R"(data: "c", relative; length: relative;)", "abc", 0, 0, 0, {"c@0+3", "length@3+0", "^c@3+0"}},
        {R"(data: "x"; data: negated "q", relative;)", "xab", 0, 1, 0, {"x@0+3", "q@1+2"}},
        {R"(data: "x"; data: negated "a", relative;)", "xab", 0, 0, 0, {"x@0+3", "a@1+2", "^x@1+2"}},
        // An offset before the data is the keyword's non-match, here one
        // that gives up; one that reaches 0 exactly is fine.
        {R"(data: "a", relative; data: "b", relative, offset -5;)", "xxab", 0, 0, 0, {"a@0+4"}},
        {R"(data: "a", relative; data: "b", relative, offset -3;)", "xxab", 0, 1, 3, {"a@0+4", "b@0+4"}},
        // A next offset past the data is a non-match; a keyword's own
        // failure fails the run.
        {R"(data: "a", far;)", "abc", 0, 0, 0, {"a@0+3"}},
        {R"(data: "a"; data: "b", boom;)", "ab", -1, 0, 0, {"a@0+2", "b@0+2"}},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        const kw_run::Mgr mgr = kw_run::compiled(c.rule);
        ASSERT_NE(mgr, nullptr);
        for (int pass = 0; pass < 2; pass++) {  // nothing of a run stays for the next
            SCOPED_TRACE(testing::Message() << c.rule << " over " << c.buf << " pass " << pass);
            kw_fake::trace().clear();
            int is_match = -1;
            uint32_t match_end = 12345;
            LogCapture quiet;
            EXPECT_EQ(vael_kw_mgr_exec(mgr.get(), reinterpret_cast<const unsigned char *>(c.buf),
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
    const kw_run::Mgr mgr = kw_run::compiled(R"(data: "a", relative, depth 2;)");  // floating: it pushes
    ASSERT_NE(mgr, nullptr);
    uint32_t slots[8] = {0, 0, 0, 77, 0, 0, 0, 0};
    vael_kw_stack stack{0, 1, slots};
    vael_kw_position pos{5, 9, 0};
    int from_backtrack = 7;
    LogCapture quiet;
    ASSERT_EQ(vael_kw_mgr_decision(mgr.get(), &stack, &pos, &from_backtrack, 1), 0);
    EXPECT_EQ(std::make_tuple(stack.depth, pos.kw_index, from_backtrack), std::make_tuple(1u, VAEL_KW_INDEX_END, 0));
    pos.kw_index = 0;
    EXPECT_EQ(vael_kw_mgr_decision(mgr.get(), &stack, &pos, &from_backtrack, 1), -1);
    pos = {0, 0, 0};
    ASSERT_EQ(vael_kw_mgr_decision(mgr.get(), &stack, &pos, &from_backtrack, 0), 0);
    EXPECT_EQ(std::make_tuple(from_backtrack, stack.depth, pos.offset, pos.end, pos.kw_index, slots[3]),
              std::make_tuple(1, 0u, 5u, 9u, 0u, 77u));
    ASSERT_EQ(vael_kw_mgr_decision(mgr.get(), &stack, &pos, &from_backtrack, 0), 0);  // empty: the run ends
    EXPECT_EQ(std::make_pair(pos.kw_index, from_backtrack), std::make_pair(VAEL_KW_INDEX_END, 0));
}

// The exec slot of the KW row (its deliveries: through the PM in the rules
// test) fails on the callback's refusal and on its stack's allocation
// failure, with nothing held.
TEST(KwRun, SecondTierExecFailures) {
    kw_fake::Install fakes;
    const kw_run::Mgr mgr = kw_run::compiled(R"(data: "b", relative;)");
    ASSERT_NE(mgr, nullptr);
    vael_pm_exec_cb_ctx ctx{[](vael_pm_exec_cb_ctx *, uint32_t, uint32_t *, int32_t) { return 3; },
                            nullptr, nullptr, 1, 9, nullptr, 0, nullptr, 0};
    const auto *buf = reinterpret_cast<const unsigned char *>("abab");
    LogCapture quiet;
    EXPECT_EQ(vael_kw_mgr_tier2_exec(mgr.get(), buf, 4, nullptr, 0, nullptr, 0, &ctx), -1);

    int is_match = 7;
    uint32_t end = 0;
    auto walk = vael_test::failmem_walk([&] { return vael_kw_mgr_exec(mgr.get(), buf, 4, &is_match, &end) == 0; },
                                        [&] { return is_match == 0; });
    EXPECT_EQ(walk.rounds, 2);  // the stack is the run's one allocation
}

}  // namespace
