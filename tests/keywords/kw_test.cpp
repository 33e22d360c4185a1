// Keyword rules. The manager's grammar and decision engine over a stand-in keyword, apart from the real keywords'
// matching; the keywords `data`, `length` and `test` one by one (texts, refusals, runs, scan memory, images) and the
// Boyer-Moore search of `data` against a naive one; rules of the real keywords: compiled, loaded and duplicated runs
// agree, refusals, image cuts, failures, pcre against re; generated test buffers, each judged by the rule itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "cli/gen_buf.h"
#include "keywords/vael_bm.h"
#include "keywords/vael_kw_keywords.h"
#include "keywords/vael_kw_mgr.h"
#include "pcre_tier/vael_pcre.h"
#include "runtime/vael_runtime.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_kw_gen.h"


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

// Every execute, in order: "^" for a resumption, the needle (or without one the keyword's name), "@start+size"; and
// the prev_scan word the first execute of a trace found.
std::vector<std::string> trace;
uint32_t first_prev_scan;

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
    if (trace.empty())
        first_prev_scan = *prev_scan;
    trace.push_back((from_backtrack ? "^" : "") + (needle.empty() ? text.substr(0, text.find(':')) : needle) + "@" +
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
        trace.clear();
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
using namespace std::string_literals;

// A keyword rule as the tests use it: compiled from its text, alone or in a PM, written to an image, loaded back and
// run over a buffer.
inline vael_kw_mgr *compile(const std::string &rule, vael_pm_error *err) {
    vael_pm_error_init(err);
    vael_pmglob_string *s =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(rule.data()), (uint32_t)rule.size(), -1, 0);
    vael_test::LogCapture quiet;
    auto *mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(s, 0, 0, err));
    vael_pmglob_string_destroy(s);
    return mgr;
}

inline std::string repeat(const std::string &text, int times) {
    std::string out;
    for (int i = 0; i < times; i++)
        out += text;
    return out;
}

using Mgr = std::unique_ptr<vael_kw_mgr, void (*)(void *)>;

// The rule compiled, destroyed with the scope.
inline Mgr compiled(const std::string &rule) {
    vael_pm_error err;
    Mgr mgr(compile(rule, &err), vael_kw_mgr_destroy);
    EXPECT_NE(mgr, nullptr) << rule << ": " << (err.error_string ? err.error_string : "");
    return mgr;
}

struct PmRule { std::string lss, rule; int32_t id; bool no_history; };

inline int on_match(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset,
                    vael_vbuf *, int *) {
    static_cast<std::vector<vael_test::Hit> *>(arg)->push_back(vael_test::Hit{id, offset});
    return 0;
}

// A PM of keyword rules; its matches go to the std::vector<Hit> given to the run.
inline vael_pm_handle *pm_compile(const std::vector<PmRule> &rules, vael_pm_error *err) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &r : rules)
        EXPECT_EQ((r.no_history ? vael_pm_patterns_add_pattern_kw_nohistory : vael_pm_patterns_add_pattern_kw)(
                      list, r.lss.data(), (uint32_t)r.lss.size(), r.rule.c_str(), r.id),
                  0);
    vael_test::LogCapture quiet;
    vael_pm_handle *pm = vael_pm_compile(list, on_match, 0, err, "kw test");
    vael_pm_patterns_destroy(list);
    return pm;
}

inline std::vector<unsigned char> image_of(vael_kw_mgr *mgr) {
    return vael_test::write_image(vael_kw_mgr_serialize_get_size(mgr), [&](unsigned char **at, uint32_t *space) {
        return vael_kw_mgr_serialize(mgr, at, space);
    });
}

// From a block of exactly `size` bytes, so a read past it is ASan's. With
// `quiet` off the load's log lines reach the caller's capture.
inline vael_kw_mgr *load(const std::vector<unsigned char> &image, uint32_t size, bool quiet = true) {
    auto *copy = static_cast<unsigned char *>(std::malloc(size ? size : 1));
    std::memcpy(copy, image.data(), size);
    const unsigned char *p = copy;
    uint32_t space = size;
    std::unique_ptr<vael_test::LogCapture> capture(quiet ? new vael_test::LogCapture : nullptr);
    auto *mgr = static_cast<vael_kw_mgr *>(vael_kw_mgr_deserialize(&p, &space, nullptr, nullptr));
    std::free(copy);
    return mgr;
}

// -1: no match; else the match's end.
inline int64_t verdict(vael_kw_mgr *mgr, const std::string &buf) {
    int is_match = 0;
    uint32_t end = 0;
    vael_test::LogCapture quiet;
    EXPECT_EQ(vael_kw_mgr_exec(mgr, (const unsigned char *)buf.data(), (uint32_t)buf.size(), &is_match, &end), 0);
    return is_match ? (int64_t)end : -1;
}

// Buffers and the end of the rule's match over each, -1 for none.
using Runs = std::vector<std::pair<std::string, int64_t>>;

// The verdicts of the rule as compiled, as loaded from its image and as
// duplicated, which must agree.
inline void expect_verdicts(const std::string &rule, const Runs &runs) {
    vael_pm_error err;
    vael_kw_mgr *mgr = compile(rule, &err);
    ASSERT_NE(mgr, nullptr) << rule << ": " << (err.error_string ? err.error_string : "");
    vael_test::LogCapture quiet;
    vael_kw_mgr *const all[] = {mgr, load(image_of(mgr), vael_kw_mgr_serialize_get_size(mgr)),
                               static_cast<vael_kw_mgr *>(vael_kw_mgr_duplicate(mgr))};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_NE(all[i], nullptr) << rule << " copy " << i;
        for (const auto &[buf, end] : runs)
            EXPECT_EQ(all[i] ? verdict(all[i], buf) : -2, end) << rule << " over '" << buf << "', copy " << i;
        vael_kw_mgr_destroy(all[i]);
    }
}

struct Refusal { std::string rule; const char *text; uint32_t type = 0; };

// Each rule is refused with its text and error type, alone and through the PM
// with the user's id, with nothing held.
inline void expect_refusals(const std::vector<Refusal> &cases) {
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rule);
        const intptr_t before = vael_pmglob_memory_get_alloc_total(), kbefore = qx_kmem_get_alloc_total();
        vael_pm_error err;
        EXPECT_EQ(compile(c.rule, &err), nullptr);
        EXPECT_STREQ(err.error_string ? err.error_string : "", c.text);
        EXPECT_EQ(err.error_type, c.type);
        EXPECT_EQ(pm_compile({{"zz", R"(data: "zz";)", 1, false}, {"ab", c.rule, 42, false}}, &err), nullptr);
        EXPECT_EQ(err.pattern_id, 42);
        EXPECT_STREQ(err.error_string ? err.error_string : "", c.text);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kbefore);
    }
}

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
        {repeat("length: min; ", 100), std::vector<std::string>(100, "length: min,"),
         std::vector<uint32_t>(100, 1)},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        const Mgr mgr = compiled(c.rule);
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
        const Mgr mgr = compiled(c.rule);
        ASSERT_NE(mgr, nullptr);
        for (int pass = 0; pass < 2; pass++) {  // nothing of a run stays for the next
            SCOPED_TRACE(testing::Message() << c.rule << " over " << c.buf << " pass " << pass);
            kw_fake::trace.clear();
            int is_match = -1;
            uint32_t match_end = 12345;
            LogCapture quiet;
            EXPECT_EQ(vael_kw_mgr_exec(mgr.get(), reinterpret_cast<const unsigned char *>(c.buf),
                                       (uint32_t)std::strlen(c.buf), &is_match, &match_end),
                      c.rc);
            EXPECT_EQ(is_match, c.is_match);
            EXPECT_EQ(c.is_match == 1 ? match_end : c.match_end, c.match_end);
            EXPECT_EQ(kw_fake::trace, c.trace);
            EXPECT_EQ(kw_fake::first_prev_scan, 0u);
        }
    }
}

// The stack holds one position per slot; a push beyond is refused, and a
// pop restores three words and leaves the keyword's prev_scan word.
TEST(KwRun, StackBounds) {
    kw_fake::Install fakes;
    const Mgr mgr = compiled(R"(data: "a", relative, depth 2;)");  // floating: it pushes
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
    const Mgr mgr = compiled(R"(data: "b", relative;)");
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

// Each rule, as compiled, loaded from its image and duplicated, over buffers: the end of its match, -1 for none.
TEST(KwRules, Verdicts) {
    const std::string pad(40, '.');
    const std::pair<std::string, Runs> cases[] = {
        // Back to a number: the first "k=" is followed by the wrong digit (the engine's backtracking over strings is
        // held to its traces in the engine test, over real keywords through the PM below).
        {R"(data: "k="; test: 1, =, 0x39, 0, relative;)", {{"k=1 k=9", 5}, {"k=1 k=8", -1}}},
        // Numbers in either byte order.
        {"data: \"|00|\"; test: 2, =, 1001, 0, relative, little;", {{"\x00\xe9\x03"s, 0}}},
        {"data: \"|00|\"; test: 2, =, 1001, 0, relative, big;", {{"\x00\x03\xe9"s, 0}}},
        // jump: 5 * 4 = 20, aligned 20, plus 2: 22 from the field at 2.
        {"data: \"L\"; jump: 1, 0, relative, multiplier 4, align, post_offset 2;", {{"xL\x05" + pad, 23}}},
        // Rounding comes before post_offset: 5 -> 8 -> 9.
        {"jump: 1, 0, align, post_offset 1;", {{"\x05" + pad, 8}}}, {"jump: 1, 0, align;", {{"\x05" + pad, 7}}},
        // The move counts from the field's start, here at 1 by the offset.
        {"jump: 1, 1;", {{"x\x02yz", 2}}},
        {"jump: 1, 010;", {{"0123456789\x02yz", 11}}},  // base 10, not octal
        {"jump: 2, 0, little;", {{"\x03\x00z"s + "z", 2}}}, {"jump: 2, 0;", {{"\x00\x03zz"s, 2}}},
        // Text fields: base 16 unless told, read up to the first non-digit.
        {"data: \"ab\"; jump: 4, 0, relative, string;", {{"ab-1,xyz", 0}, {"ab10" + pad, 17}}},
        {"data: \"ab\"; jump: 4, 0, relative, string, dec, multiplier 2;", {{"ab3,xxxxx", 7}}},
        {"jump: 4, 0, string;", {{"-1,x", -1}}},  // before the start
        {"data: \"ab\"; jump: 1, 0, relative, from_beginning;", {{"ab\x03xyz", 2}}},
        {"data: \"ab\"; jump: 1, 0, relative, from_beginning, post_offset -4;", {{"ab\x03xyz", -1}}},
        // Back to the buffer's start, not before it.
        {"data: \"ab\"; jump: 1, 0, relative, post_offset -4; data: \"x\", relative, depth 1;", {{"xab\x01", 0}}},
        {"data: \"ab\"; jump: 1, 0, relative, post_offset -5; data: \"x\", relative, depth 1;", {{"xab\x01", -1}}},
        // To exactly the end matches; one past it does not.
        {"jump: 1, 0;", {{"\x04xyz", 3}, {"\x05xyz", -1}}},
        // A field that runs past the end: no match, nothing read past it.
        {"data: \"ab\"; jump: 2, 0, relative;", {{"ab\x01", -1}}},
        {"data: \"ab\"; jump: 4, 0, relative, multiplier 2147483647;", {{"ab\xff\xff\xff\xff" + pad, -1}}},
        // Over a record to the field behind it.
        {"jump: 1, 0, post_offset 1; test: 1, =, 65, 0, relative;", {{"\x02xyAz", 2}}},
        {"data: \"R\"; jump: 1, 0, relative, post_offset 1; data: \"ok\", relative, depth 2;", {{"R\x03" "abcok", 6}}},
        // pcre and re.
        {R"(pcre: "/a/i";)", {{"xA", 1}, {"xb", -1}}}, {R"(pcre: "/a/", nocase;)", {{"xA", 1}}},
        {R"(data: "x"; pcre: "/b+/R";)", {{"bxbb", 2}, {"bx", -1}}},  // shortest match
        {R"(pcre: "m|a/b|"; pcre: "m#^c#iR", nmon;)", {{"xa/bC", 4}, {"xa/bxc", -1}}},
        {R"(pcre: "/^a/";)", {{"ab", 0}, {"ba", -1}}},
        {R"(data: "k"; pcre: "/^v/", relative;)", {{"kv", 1}, {"kxv", -1}}},  // '^' is the range's start
        {R"(data: "x"; pcre: !"/a/", relative;)", {{"xbc", 0}, {"xba", -1}}},
        {R"(pcre: "/b/", depth 2;)", {{"xb", 1}, {"xxb", -1}}},
        {R"(pcre: "/b/", offset 2;)", {{"bxb", 2}, {"bbx", -1}}},
        {R"(pcre: "/a/qz";)", {{"a", 0}}},  // unknown flags are ignored
        // The first match has no 'z' behind it: the search resumes behind it.
        {R"(pcre: "/a[0-9]/"; data: "z", relative, depth 1;)", {{"a1xa2z", 5}, {"a1xa2x", -1}}},
        {R"(re: "/a[0-9]/"; data: "z", relative, depth 1;)", {{"a1xa2z", 5}, {"a1xa2x", -1}}},
        {R"(pcre: "/aa/"; data: "b", relative, depth 1;)", {{"aaab", -1}, {"aaaab", 4}}},  // no overlap
        {R"(data: "L"; jump: 1, 0, relative; pcre: "/^ok/", relative;)", {{"L\004abcok", 6}, {"L\003abcok", -1}}},
    };
    for (const auto &[rule, runs] : cases)
        expect_verdicts(rule, runs);
}

// Refused rules: the text the author reads, the keyword's own first.
TEST(KwRules, Refusals) {
    const char *illegal = "Keyword rule given by the user is illegal";
    const char *unsupported = "Keyword's attribute is not supported";
    const char *bad_len = "The length of the numeric value that should be extracted is illegal";
    const char *empty = "Empty regexp or missing delimiter in pcre keyword";
    const char *slash = "Regexp needs to be enclosed in delimiter / in pcre keyword";
    const char *delim = "Space/letter/digit cannot be used as ending delimiter in pcre keyword";
    const char *recursive = "Recursive operations are not supported in PM for pcre_dfa_exec";
    expect_refusals({
        {R"(data: "a"; dataX: "b";)", unsupported}, {R"(data: "|4|";)", "incomplete hex data in data keyword"},
        {R"(data: "a"; data: "b")", illegal, 1}, {R"(data: "a;)", illegal, 1}, {"   \t ", illegal, 1},
        {"delim=';", illegal, 1}, {"delim=' x;data: 'a';", illegal, 1}, {"delim=", illegal, 1},
        {R"(data: "a"; Data: "b";)", "Rule contains illegal keyword name"},
        {"data: \"a\"; jump: 1, 0, signed;", unsupported}, {R"(data: "a"; pcre: "/(?=a)b/";)", recursive},
        {repeat("length: 1, min; ", 101), "Rule contains too many keywords", 2},
        // jump
        {"jump: 5, 0;", bad_len}, {"jump: 12, 0, string;", bad_len}, {"jump: 2, 0, signed;", unsupported},
        {"jump: 2, 0, unsigned, relative;", unsupported},
        {"jump: 1, 0, multiplier -2;", "Illegal negative multiplier in jump keyword"},
        {"jump: 1, 0, multiplier 0;", "Illegal negative multiplier in jump keyword"},
        {"jump: 1, 0, multiplier;", "Failed to retrieve the multiplier in jump keyword"},
        {"jump: 1, 0, post_offset x;", "Failed to retrieve the post offset in jump keyword"},
        {"jump: 0x2, 0;", "Failed to retrieve the length in jump keyword"},
        {"jump: 1;", "Failed to retrieve the offset in jump keyword"},
        {"jump: 1, -1;", "Illegal negative offset for absolute keyword"},
        {"jump: 1, 0, hex;",
         "The number types attributes (hex, oct and dec) can only be used with string attribute in keyword"},
        {"jump: 1, 0, align, align;", "Keyword's attribute cannot be set twice for the same keyword"},
        // pcre and re
        {R"(pcre: "//";)", empty}, {R"(pcre: "/";)", empty}, {R"(re: "m|a";)", empty}, {"relative;", empty},
        {"pcre: /a/, nocase;", "Regexp needs to be enclosed in quotation marks (\") in pcre keyword"},
        {R"(pcre: "x/a/";)", slash}, {R"(pcre: "a";)", slash}, {R"(pcre: "";)", slash},
        {R"(pcre: "m a ";)", delim}, {R"(re: "mxax";)", delim}, {R"(pcre: "m1a1";)", delim},
        {R"(pcre: "m";)", "No delimiter in pcre keyword"},
        {"pcre:, nocase;", "Failed to retrieve the first attribute in pcre keyword"},
        {R"(pcre: "/(?=a)b/";)", recursive}, {R"(pcre: "/a(?R)?b/";)", recursive}, {R"(pcre: "/(?>a)/";)", recursive},
        {R"(pcre: "/a/", offset -1;)", "Illegal negative offset for absolute keyword"},
        {R"(pcre: "/a/", caret;)", unsupported}, {R"(pcre: "/a(/";)", "missing )"},
    });
    vael_pm_error err;
    LogCapture quiet;
    EXPECT_EQ(vael_pm_compile_keywords(nullptr, 0, 0, &err), nullptr);
}

const char kRule[] = R"(data: "ab|43|", nocase; test: 2, >, 5, 0, relative, string; length: 1, min, relative;)";

// Every cut of an image and the corruptions the checks name are refused
// with nothing held; whole, it loads from memory and from small blocks.
TEST(KwRules, ImageCutsAndCorruptions) {
    const Mgr mgr = compiled(kRule);
    ASSERT_NE(mgr, nullptr);
    const auto image = image_of(mgr.get());
    std::vector<unsigned char> small(image.size() - 1, 0xee);
    unsigned char *p = small.data();
    uint32_t space = (uint32_t)small.size();
    LogCapture log;
    EXPECT_EQ(vael_kw_mgr_serialize(mgr.get(), &p, &space), -1);
    EXPECT_TRUE(p == small.data() && small[0] == 0xee);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++) {
        EXPECT_EQ(load(image, cut, false), nullptr) << "cut at " << cut;
        ASSERT_EQ(vael_pmglob_memory_get_alloc_total(), before) << "cut at " << cut;
    }
    auto with_word = [&](size_t at, uint32_t value) {
        auto copy = image;
        std::memcpy(copy.data() + at, &value, 4);
        return copy;
    };
    struct Case { std::vector<unsigned char> bytes; const char *log; } cases[] = {
        {with_word(0, 0x53525a48), "Wrong serialization magic (53525a48)"},
        {with_word(4, 101), "keywords number is too big (101 > 100)"},
        {with_word(8, 6), "can't add keyword, invalid keyword type 6"},
        {with_word(8, VAEL_KW_TYPE_JUMP), "failed to deserialize keyword 0 (jump)"},
        {with_word(8, VAEL_KW_TYPE_TEST), "failed to deserialize keyword"},
        {with_word(image.size() - 12, 0), "Wrong serialization magic (0)"},
    };
    vael_test::ScopedTopic all("K_KW", VAEL_DBG_INFO), errors("K_ERROR", VAEL_DBG_INFO);
    for (const auto &c : cases) {
        log.clear();
        EXPECT_EQ(load(c.bytes, (uint32_t)c.bytes.size(), false), nullptr) << c.log;
        EXPECT_TRUE(log.contains(c.log)) << c.log << ": " << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before) << c.log;
    }
    for (size_t block : {1, 5}) {  // every keyword kind read across blocks
        vael_vbuf *vbuf = vael_test::vbuf_of(image.data(), image.size(), block);
        vael_vbuf_iter iter{};
        space = (uint32_t)image.size();
        auto *whole = static_cast<vael_kw_mgr *>(vael_kw_mgr_deserialize(nullptr, &space, vbuf, &iter));
        vael_vbuf_destroy(vbuf);
        ASSERT_NE(whole, nullptr);
        EXPECT_EQ(image_of(whole), image);
        EXPECT_EQ(verdict(whole, "xABC12z"), 3);
        vael_kw_mgr_destroy(whole);
    }
}

// Compile, duplicate and load walk through the allocation failures of rules
// with every kind of keyword: each allocation in turn for the plain ones,
// each site once where PCRE compiles (its allocations are many, and a load
// compiles again). The survivors judge alike.
TEST(KwRules, AllocationFailures) {
    const std::string plain = std::string(kRule) + " jump: 1, 0, relative, align;";
    for (const std::string &text : {plain, plain + R"( pcre: "/a+b/i"; re: "/c+d/", relative;)"}) {
        SCOPED_TRACE(text);
        const bool each = text == plain;
        auto walk = [&](auto attempt, auto clean) {
            return each ? vael_test::failmem_walk_each_allocation(attempt, clean)
                        : vael_test::failmem_walk(attempt, clean);
        };
        vael_pmglob_string *rule =
            vael_pmglob_string_create((const unsigned char *)text.data(), (uint32_t)text.size(), -1, 0);
        vael_pm_error err;
        vael_kw_mgr *mgr = nullptr, *dup = nullptr, *loaded = nullptr;
        LogCapture quiet;
        auto compile_rule = [&] {
            vael_pm_error_init(&err);
            return (mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(rule, 0, 0, &err))) != nullptr;
        };
        // A keyword names its own allocation failures, some as illegal.
        EXPECT_GE(walk(compile_rule, [&] { return err.error_string != nullptr; }).rounds, 8);
        vael_pmglob_string_destroy(rule);
        ASSERT_NE(mgr, nullptr);
        auto duplicate = [&] { return (dup = static_cast<vael_kw_mgr *>(vael_kw_mgr_duplicate(mgr))) != nullptr; };
        EXPECT_GE(walk(duplicate, [] { return true; }).rounds, each ? 8 : 3);
        const auto image = image_of(mgr);
        auto load_image = [&] { return (loaded = load(image, (uint32_t)image.size())) != nullptr; };
        EXPECT_GE(walk(load_image, [] { return true; }).rounds, each ? 7 : 3);
        for (const char *buf : {"xABC12zaab\x01" "c.ccd", "xABC12z", "ab"})
            for (vael_kw_mgr *m : {dup, loaded})
                EXPECT_EQ(verdict(m, buf), verdict(mgr, buf)) << buf;
        for (vael_kw_mgr *m : {mgr, dup, loaded})
            vael_kw_mgr_destroy(m);
    }
}

// A first-tier hit on the rule's LSS runs the rule over the whole data: with
// history one flat buffer in the run's numbering, without it the present
// buffer alone.
TEST(KwRules, ThroughThePm) {
    vael_pm_error err;
    vael_pm_handle *pm = pm_compile({{"ab", R"(data: "ab", relative; data: "cd", relative, depth 2;)", 7, false},
                                     {"ab", R"(data: "ab"; data: "cd", relative, depth 2;)", 8, true},
                                     {"zz", R"(data: "x";)", 9, false}},
                                    &err);
    ASSERT_NE(pm, nullptr) << (err.error_string ? err.error_string : "");
    // Bytes before the cut are history.
    struct Case { std::string text; std::vector<size_t> cuts; std::vector<vael_test::Hit> hits; } cases[] = {
        {"abxxabcd", {}, {{7, 7}, {8, 7}}}, {"abxxab", {}, {}}, {"xx", {}, {}},
        {"xxabcd", {4}, {{7, 5}}}, {"xxababcd", {4}, {{7, 7}, {8, 3}}},
    };
    for (const auto &c : cases) {
        const vael_test::SplitText split(c.text, c.cuts);
        std::vector<vael_test::Hit> hits;
        LogCapture quiet;
        EXPECT_EQ(vael_pm_exec_ex(pm, split.present(), split.present_len(), split.vbuf(), nullptr, &hits, 0), 0);
        EXPECT_EQ(hits, c.hits) << c.text;
    }
    vael_pm_destroy(pm);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr int kBuffers = 100;
#else
constexpr int kBuffers = 300;
#endif

// Expressions of the grammar both engines share give the same verdicts and
// offsets, from the buffer's start and from a range behind a string.
TEST(KwPcre, AgainstRe) {
    const char *expressions[] = {"ab", "a+b", "[0-9]+x", "ab?c", "a(b|c)a", "x[a-c]+", "^ab", "a.c", "(ab)+c", "AB"};
    std::mt19937 rng(7);
    for (const char *e : expressions)
        for (const char *form : {"%s: \"/%s/i\";", "data: \"x\"; %s: \"/%s/\", relative;"}) {
            char pcre[100], re[100];
            std::snprintf(pcre, sizeof pcre, form, "pcre", e);
            std::snprintf(re, sizeof re, form, "re", e);
            const Mgr a = compiled(pcre), b = compiled(re);
            ASSERT_TRUE(a && b);
            for (int n = 0; n < kBuffers; n++) {
                const std::string buf = vael_test::random_word(rng, "abcxX01", 0, 11);
                EXPECT_EQ(verdict(a.get(), buf), verdict(b.get(), buf)) << e << " over " << buf;
            }
        }
}

// The expression compiles with the rule: a run allocates the engine's stack
// and, under pcre_dfa_exec, PCRE's workspace, and gives both back.
TEST(KwPcre, NothingCompiledPerRun) {
    const Mgr mgr = compiled(R"(data: "k"; pcre: "/v+w/", relative;)");
    ASSERT_NE(mgr, nullptr);
    for (int dfa : {1, 0}) {
        vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, dfa);
        const intptr_t before = vael_pmglob_memory_get_alloc_total(), kbefore = qx_kmem_get_alloc_total();
        const int allocations = alloc_number;
        EXPECT_EQ(verdict(mgr.get(), "xxkvvw"), 5);
        EXPECT_EQ(alloc_number - allocations, 1 + dfa);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kbefore);
    }
}

// Cuts and a wrong engine row are refused with nothing held (the walks of
// compile, duplicate and load over rules with these keywords are the rules'
// test's).
TEST(KwPcre, ImageCutsAndAWrongRow) {
    const Mgr mgr = compiled(R"(pcre: "/a+b/i"; data: "k", relative; re: "/c+d/", relative;)");
    ASSERT_NE(mgr, nullptr);
    auto image = image_of(mgr.get());
    const Mgr copy(load(image, (uint32_t)image.size()), vael_kw_mgr_destroy);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(verdict(copy.get(), "xAABkcd"), 6);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++)
        EXPECT_EQ(load(image, cut), nullptr) << cut;
    for (uint32_t row : {2u, 3u, 0xffffffffu}) {
        std::memcpy(image.data() + 8 + 4 + 28, &row, 4);  // the pcre keyword's row
        EXPECT_EQ(load(image, (uint32_t)image.size()), nullptr) << row;
    }
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
}

const vael_kw_gen_ctx kCtx = {vael::cli::gen_fill, vael::cli::gen_regex};
const std::string kFail = VAEL_KW_GEN_FAIL_TEXT;
const std::string kMiss = VAEL_KW_GEN_MISS_TEXT;

struct Generated { int rc = -2; std::string buf; };

// Generated into a heap block of its own, so that a write past the caller's
// size is ASan's to see; the accounts return to where they were, so the
// keywords made for either road are given back. The failure lines are kept off
// the output unless the caller reads them.
Generated generate(const std::string &rule, int match, bool quiet = true) {
    std::unique_ptr<vael_test::LogCapture> capture(quiet ? new vael_test::LogCapture : nullptr);
    const intptr_t kmem = qx_kmem_get_alloc_total(), pm = vael_pmglob_memory_get_alloc_total();
    vael_pmglob_string *s =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(rule.data()), (uint32_t)rule.size(), -1, 0);
    const uint32_t size = 4096;
    auto *block = static_cast<unsigned char *>(std::malloc(size));
    uint32_t len = size;
    Generated g;
    g.rc = vael_kw_mgr_gen_test_buf(s, block, &len, match, 0, &kCtx);
    EXPECT_LE(len, size) << rule;
    if (g.rc == 0 && len <= size)
        g.buf.assign(reinterpret_cast<const char *>(block), len);
    std::free(block);
    vael_pmglob_string_destroy(s);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem) << rule;
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm) << rule;
    return g;
}

std::string hex(const std::string &bytes) { return vael::cli::escape_bytes(bytes); }

// Every keyword, relative and absolute: the exact matching buffer ('.' is
// filler), or the failure text where none can be made. The rule must match
// the one and not match the mismatch buffer.
TEST(KwGenTestBuf, RulesJudgeTheirOwnBuffers) {
    const struct { const char *rule; std::string buf; } rows[] = {
        {"data: \"abc\";", "abc........"}, {"data: \"abc\", offset 2;", "..abc........"},
        {"data: \"x\"; data: \"yz\", relative;", "xyz........"},
        {"data: \"x\"; data: \"yz\", relative, offset 2;", "x..yz........"},
        {"data: \"x\"; data: \"yz\", depth 4, offset 3;", "x..yz........"},
        {"data: \"k\"; data: \"ab\", caret, relative;", "kab........"}, {"data: \"AbC\", nocase;", "abc........"},
        {"data: \"|41 42|\\;\";", "AB;........"}, {"delim='; data: 'q'; data: !'zz', relative;", "q........"},
        {"length: 20, exact; data: \"z\";", "z" + std::string(19, '.')},
        {"data: \"abc\"; length: 20, exact;", "abc" + std::string(17, '.')},
        {"data: \"abc\"; length: 4, exact, relative;", "abc...."}, {"data: \"abc\"; length: 10, max;", "abc......"},
        {"data: \"abc\"; length: 4090, min, relative;", "abc" + std::string(4092, '.')},
        {"test: 2, =, 0x4142, 0; data: \"z\", offset 2;", "ABz........"},
        {"data: \"k\"; test: 2, >, 20000, 0, relative, little;", "k!N......"},
        {"data: \"k\"; test: 1, <, 0, 0, relative, signed;", "k\xff......."},
        {"data: \"k\"; test: 3, =, 255, 0, relative, string;", "kff......"},
        {"data: \"k\"; test: 4, =, -5, 0, relative, string, dec;", "k-5......"},
        {"data: \"k\"; test: 2, =, 10, 0, relative, string, oct;", "k12......"},
        {"data: \"k\"; test: 1, !=, 65, 0, relative;", "kB......."},
        {"data: \"k\"; test: 1, !<, 65, 0, relative;", "kB......."},
        {"data: \"ab\"; test: 1, =, 65, 1, relative;", "ab.A......"},
        {"data: \"q\"; jump: 1, 0, relative; data: \"z\", relative;", "q\x01z........"},
        {"jump: 2, 0, little, multiplier 4, align, post_offset 2; data: \"e\", relative;",
         std::string("\x02\x00........e........", 19)},
        {"jump: 1, 0, string; data: \"z\", relative;", "1z........"},
        {"data: \"ab\"; jump: 1, 0, relative, from_beginning; data: \"c\", relative;", "ab\x03" "c........"},
        {"pcre: \"/a(b|cd)*e{2,3}/\";", "aee........"}, {"pcre: \"/[^abc]x/\"; data: \"!\", relative;", "dx!........"},
        {"re: \"/X+Y/i\";", "xy........"}, {"data: \"k\"; pcre: \"/^mn/\", relative;", "kmn........"},
        {"data: \"a\"; re: \"/q/\", depth 5, offset 1, relative;", "a.q........"},
        {"pcre: !\"/z/\"; data: \"y\";", "y........"},
        // None can be made.
        {"data: \"x\"; test: 1, =, 1, 0;", kFail}, {"data: \"x\"; jump: 1, 0;", kFail},
        {"data: \"x\"; pcre: \"/^y/\";", kFail}, {"data: \"x\"; pcre: \"/y/\", depth 3;", kFail},
        {"data: \"x\"; test: 1, &, 1, 0, relative;", kFail}, {"data: \"abcdef\", depth 3;", kFail},
        {"test: 1, =, 300, 0;", kFail}, {"test: 1, <, 0, 0;", kFail}, {"length: 5, exact; data: \"abcdef\";", kFail},
        {"data: \"abc\"; length: 2, exact;", kFail}, {"length: 5000, exact;", kFail},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.rule);
        const Generated hit = generate(row.rule, 1);
        ASSERT_EQ(hit.rc, 0);
        EXPECT_EQ(hex(hit.buf), hex(row.buf));
        const Generated miss = generate(row.rule, 0);
        EXPECT_EQ(miss.rc, 0);
        EXPECT_EQ(miss.buf, kMiss);
        const Mgr mgr = compiled(row.rule);
        ASSERT_NE(mgr, nullptr);
        if (hit.buf != kFail) {
            EXPECT_NE(verdict(mgr.get(), hit.buf), -1) << "the rule does not match its buffer";
        }
        EXPECT_EQ(verdict(mgr.get(), miss.buf), -1) << "the rule matches the mismatch buffer";
    }
}

// Calls that give -1, and the failure to make a buffer, each with the line
// the operator reads.
TEST(KwGenTestBuf, Refusals) {
    unsigned char buf[64];
    uint32_t len = sizeof buf;
    vael_test::LogCapture log;
    vael_test::ScopedTopic topic("K_KW", VAEL_DBG_ERR);
    EXPECT_EQ(vael_kw_mgr_gen_test_buf(nullptr, buf, &len, 1, 0, &kCtx), -1);
    EXPECT_TRUE(log.contains("vael_kw_mgr_gen_test_buf: No keywords rule.\n")) << log.text();
    EXPECT_EQ(generate("data: \"abc\"", 1, false).rc, -1);
    EXPECT_EQ(generate("lenght: 3, exact;", 0, false).rc, -1);
    EXPECT_TRUE(log.contains("failed to add keywords. error is Rule contains illegal keyword name\n"));
    EXPECT_EQ(generate("data: \"x\"; test: 1, =, 1, 0;", 1, false).buf, kFail);
    EXPECT_TRUE(log.contains("vael_kw_mgr_gen_test_buf: --==ERROR==-- Fail to gen buffer\n"));
}

// Both roads give back every keyword they made, and every allocation failure
// on the way leaves the accounts where they were: a failed parse is -1, a
// failed expression text the failure text.
TEST(KwGenTestBuf, AllocationFailuresLeaveNothingHeld) {
    const std::string rule = "data: \"ab\"; pcre: \"/c+d/\", relative; re: \"/e/\", relative;";
    for (int match = 0; match <= 1; match++) {
        Generated g;
        const auto walk = vael_test::failmem_walk(
            [&] {
                g = generate(rule, match);
                return g.rc == 0 && g.buf != kFail;
            },
            [&] { return g.rc == -1 || g.buf == kFail; });
        EXPECT_GT(walk.rounds, 3);
        EXPECT_EQ(g.buf, match ? "abcde........" : kMiss);
    }
}

const unsigned char *u(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.data()); }
const vael_kw_vtable &vt(uint32_t type) { return *vael_kw_table[type].vtable; }

// A keyword from its text as written in a rule; the manager hands the text
// over with its ';' made a ','.
struct Keyword {
    vael_kw_abs *kw = nullptr;
    vael_pm_error err{};
    uint32_t type;
    explicit Keyword(std::string text) {
        vael_pm_error_init(&err);
        if (text.back() == ';')
            text.back() = ',';
        type = text.rfind("data", 0) == 0 ? VAEL_KW_TYPE_DATA
               : text.rfind("length", 0) == 0 ? VAEL_KW_TYPE_LENGTH : VAEL_KW_TYPE_TEST;
        kw = vt(type).create(text.c_str(), type, &err);
    }
    ~Keyword() { vt(type).destroy(kw); }
    std::string error() const { return err.error_string ? err.error_string : ""; }
    vael_kw_data *data() const { return reinterpret_cast<vael_kw_data *>(kw); }
};

std::vector<unsigned char> keyword_image(vael_kw_abs *kw) {
    std::vector<unsigned char> image(vt(kw->type).get_serialized_size(kw));
    unsigned char *pos = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vt(kw->type).serialize(kw, &pos, &space), 0);
    EXPECT_EQ(space, 0u);
    return image;
}

// What each text makes (properties, flags, depth, data's bytes) or the
// refusal the author reads.
TEST(KwKeyword, Create) {
    constexpr uint32_t X = VAEL_KW_FLAG_NUM_EXTRACT, Bin = X | VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_UNSIGNED,
                       Str = X | VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED;
    // error null: accepted.
    struct Case { const char *text, *error; uint32_t props = 0, flags = 0, depth = 0; std::string pattern = {}; };
    const Case cases[] = {
        {"data: \"ab|43 44|\\;\";", nullptr, 0x1D, 0, 0, "abCD;"},
        {"data: \"| 00  ff |x\";", nullptr, 0x1D, 0, 0, std::string("\0\xff" "x", 3)},
        {"data: \"a,b\\\"c\\:\\\\\";", nullptr, 0x1D, 0, 0, "a,b\"c:\\"},
        {"data: \"AbC\", nocase;", nullptr, 0x1D, VAEL_KW_FLAG_CASELESS, 0, "abc"},
        {"data: \"abc\", caret, relative;", nullptr, 0x1A, VAEL_KW_FLAG_CARET, 3, "abc"},
        {"data: ! \"a\", relative;", nullptr, 0x12, VAEL_KW_FLAG_NEGATED, 0, "a"},
        {"data:\"a\",depth 010,offset 2,", nullptr, 0x19, 0, 8, "a"}, {"length: 10, exact;", nullptr, 0x13, 0, 0, ""},
        {"length: 0x10, min;", nullptr, 0x17, 0, 0, ""},
        {"test: 2, >, 1000, 0, little;", nullptr, 0x13, X | VAEL_KW_FLAG_LITTLE | VAEL_KW_FLAG_UNSIGNED, 2, ""},
        {"test: 4, ! =, 5, 0;", nullptr, 0x13, Bin | VAEL_KW_FLAG_NEGATED, 4, ""},
        {"test: 11, =, 1, 0, oct, string;", nullptr, 0x13, Str, 11, ""},
        {"test: 2, =, 1, -1, relative;", nullptr, 0x12, Bin, 2, ""}, {"data: \"\";", "Empty data keyword"},
        {"data: \"a\\\";", "Backslash escape or hexmode is not completed in data keyword"},
        {"data: \"|4|\";", "incomplete hex data in data keyword"},
        {"data: \"|4 3|\";", "Space within hex number in data keyword"},
        {"data: \"|43\\;|\";", "Backslash in hex in data keyword"},
        {"data: \"a\\b\";", "Bad escape sequence in data keyword"},
        {"data: \"a\"b\";", "Non-escaped '\"' character in data keyword"},
        {"data: abc;", "Content needs to be enclosed in quotation marks (\") in data keyword"},
        {"data: \"a\", depth 3, caret;", "Depth attribute cannot be defined with caret attribute in data keyword"},
        {"data: \"a\", offset -1;", "Illegal negative offset for absolute keyword"},
        {"data: \"a\", offset 1, offset 2;", "Keyword's attribute cannot be set twice for the same keyword"},
        {"length: 10, relative;", "None of attributes (exact, min, max) was set in length keyword"},
        {"length: 10, exact, max;", "More than one attribute (exact, min, max) was set in length keyword"},
        {"length: 10, exact, relative", "Keyword's attribute is not supported"},  // the last row needs its comma
        {" \t", "Keyword's attribute is empty"},
        {"test: 2, =, 5, 0, string, unsigned;", "Both signed and unsigned attributes within keyword"},
        {"test: 5, =, 1, 0;", "The length of the numeric value that should be extracted is illegal"},
        {"test: 2, =, 1, 0, hex;",
         "The number types attributes (hex, oct and dec) can only be used with string attribute in keyword"},
        {"test: 2, =, 1, 0, string, hex, dec;",
         "Only one number type attribute (dec, hex and oct) is allowed in keyword"},
        {"test: 2, =, 1, 0, big, little;", "Big and little attributes cannot be used together in keyword"},
        {"test: 0x2, =, 1, 0;", "Failed to retrieve the length of the extracted test value in test keyword"},
        {"test: 2, !, 1, 0;", "Failed to retrieve the operator in test keyword"},
        {"test: 2, ~, 1, 0;", "Illegal operator in test keyword"},
        {"test: 2, =, z, 0;", "Failed to retrieve the value in test keyword"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Keyword k(c.text);
        if (c.error) {
            EXPECT_EQ(k.kw, nullptr);
            EXPECT_EQ(k.error(), c.error);
            EXPECT_EQ(k.err.error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL);
            continue;
        }
        ASSERT_NE(k.kw, nullptr) << k.error();
        EXPECT_EQ(k.kw->props, c.props);
        EXPECT_EQ(k.kw->flags, c.flags);
        EXPECT_EQ(k.kw->depth, c.depth);
        if (k.type == VAEL_KW_TYPE_DATA) {
            EXPECT_EQ(std::string(reinterpret_cast<char *>(k.data()->pattern), k.data()->pattern_len), c.pattern);
        }
    }
}

// One fresh run at the rule's present offset `offset`, over the range the
// engine gives; the verdict with the engine's negation applied.
TEST(KwKeyword, Execute) {
    const std::string word5 = std::string("\0\0\0\5", 4);
    // next_offset: for data where a find ends; the others move nothing.
    struct Case { const char *text; std::string data; uint32_t offset; int match; uint32_t next_offset; } cases[] = {
        {"data: \"abc\";", "xxabcxx", 0, 1, 5}, {"data: \"abc\";", "xxabxcx", 0, 0, 0},
        {"data: \"abc\";", "xxabc", 4, 1, 5}, {"data: \"abc\", relative;", "abcxx", 1, 0, 0},
        {"data: \"ab\", caret;", "xabx", 0, 0, 0}, {"data: \"ab\", caret, relative;", "xabx", 1, 1, 3},
        {"data: !\"a\";", "bcd", 0, 1, 0}, {"data: \"c\", depth 2;", "abc", 0, 0, 0},
        {"data: \"a\", offset -2, relative;", "abca", 3, 1, 4}, {"data: \"|C9|\", nocase;", "\xe9\xc9", 0, 1, 2},
        {"length: 10, exact;", std::string(10, 'x'), 7, 1, 0},  // absolute: true at any point of the rule
        {"length: 3, min, relative;", "abcde", 2, 1, 2}, {"length: 3, min, relative;", "abcde", 3, 0, 0},
        {"length: 3, max, relative;", "abcde", 3, 1, 3}, {"length: 3, max, relative;", "abcde", 0, 0, 0},
        {"length: 0, exact, relative;", "abcde", 5, 1, 5},
        {"test: 4, <, -1, 0;", word5, 0, 1, 0},  // v's bits, unsigned
        {"test: 4, <, -1, 0, signed;", word5, 0, 0, 0}, {"test: 4, >, -2, 0, signed;", "\xFF\xFF\xFF\xFF", 0, 1, 0},
        {"test: 4, =, 5, 98;", std::string(97, '\0') + word5, 0, 0, 0},
        {"test: 4, =, 5, 97;", std::string(97, '\0') + word5, 0, 1, 97},
        {"test: 4, !=, 5, 98;", std::string(97, '\0') + word5, 0, 0, 0},  // out of range, '!' or not
        {"test: 4, !=, 5, 0;", word5, 0, 0, 0},    {"test: 4, !=, 6, 0;", word5, 0, 1, 0},
        {"test: 1, !^, 7, 0;", "\x07", 0, 1, 0}, {"test: 1, ^, 7, 0;", "\x07", 0, 0, 0},
        {"test: 1, &, 6, 0;", "\x02", 0, 1, 0}, {"test: 1, &, 6, 0;", "\x01", 0, 0, 0},
        {"test: 1, |, 0, 0;", std::string("\0", 1), 0, 0, 0}, {"test: 1, |, 0, 0;", "\x01", 0, 1, 0},
        {"test: 1, >, 0x61, 0;", "b", 0, 1, 0}, {"test: 1, <, 0x61, 0;", "b", 0, 0, 0},
        {"test: 3, =, 255, 0, string;", "0ff", 0, 1, 0}, {"test: 3, =, 8, 0, string, oct;", "10", 0, 1, 0},
        {"test: 2, =, 0x0102, -1, relative;", "xx\x01\x02", 3, 1, 2},
        {"test: 1, !>, 0, 0, relative;", "abc", 3, 0, 3},  // nothing behind the offset
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " at " << c.offset);
        Keyword k(c.text);
        ASSERT_NE(k.kw, nullptr) << k.error();
        vael_kw_position pos{c.offset, 0, 0};
        uint32_t start = 0, size = 0, prev_scan = 0, next = 12345;
        int found = 0;
        if (vael_kw_mgr_find_start_offset(k.kw, &pos, (uint32_t)c.data.size(), 0, &start, &size) == 0) {
            ASSERT_EQ(vt(k.type).execute(k.kw, u(c.data), (uint32_t)c.data.size(), nullptr, start, size, 0,
                                         &prev_scan, &next, &found),
                      0);
            EXPECT_EQ((k.kw->flags & VAEL_KW_FLAG_NEGATED) ? !found : found, c.match);
            EXPECT_EQ(c.match ? next : c.next_offset, c.next_offset);
        } else {
            EXPECT_EQ(c.match, 0);
        }
    }
}

// Calls of one `data` keyword in a row over one buffer, as a backtracking rule makes them, its scan memory carried
// between them.
TEST(KwData, ScanMemoryAndResumption) {
    struct Call { uint32_t start, size; int from_backtrack, match; uint32_t next_offset, prev_scan_after; };
    const struct { const char *text; std::string data; std::vector<Call> calls; } rows[] = {
        // A first scan from 0 with no depth covers the whole buffer; reached again further on, the keyword does not
        // scan at all.
        {"data: \"a\", relative;", "xaxxxaxx", {{0, 8, 0, 1, 2, 1}, {3, 5, 0, 0, 0, 1}}},
        // With a depth the former scan covered [0, 4): the next one is narrowed to what lies behind it, a find that
        // straddles its end included.
        {"data: \"b\", relative, depth 4;", "aaaaabaa", {{0, 4, 0, 0, 0, 1}, {2, 4, 0, 1, 6, 3}}},
        {"data: \"bc\", relative, depth 4;", "aaabcaaa", {{0, 4, 0, 0, 0, 1}, {2, 4, 0, 1, 5, 3}}},
        {"data: \"b\", relative, depth 4;", "abaaaaaa", {{3, 4, 0, 0, 0, 4}, {1, 4, 0, 1, 2, 2}}},
        {"data: \"b\", relative, depth 2;", "aaaaabaa", {{0, 2, 0, 0, 0, 1}, {4, 2, 0, 1, 6, 5}}},
        // A negated keyword neither reads nor writes the memory; too short a range scans nothing.
        {"data: !\"a\", relative;", "bbbb", {{0, 4, 0, 0, 0, 0}, {1, 3, 0, 0, 0, 0}}},
        {"data: \"abc\", relative;", "abcabc", {{4, 2, 0, 0, 0, 0}}},
        // Resumed, the search goes back by the period behind the earlier find's start: 2 for "abab", so the overlap
        // is found; 3 for "abc".
        {"data: \"abab\", relative;", "abababab", {{0, 8, 0, 1, 4, 1}, {4, 4, 1, 1, 6, 1}, {6, 2, 1, 1, 8, 1},
                                                   {8, 0, 1, 0, 0, 1}}},
        {"data: \"abc\", relative;", "abcabc", {{0, 6, 0, 1, 3, 1}, {3, 3, 1, 1, 6, 1}, {6, 0, 1, 0, 0, 1}}},
        {"data: \"abc\", relative;", "abcabc", {{2, 4, 1, 0, 0, 0}}},
    };
    for (const auto &row : rows) {
        Keyword k(row.text);
        ASSERT_NE(k.kw, nullptr) << k.error();
        uint32_t prev_scan = 0;
        for (size_t i = 0; i < row.calls.size(); i++) {
            const Call &c = row.calls[i];
            SCOPED_TRACE(testing::Message() << row.text << " call " << i);
            uint32_t next = 0;
            int match = -1;
            ASSERT_EQ(vael_kw_data_execute(k.kw, u(row.data), (uint32_t)row.data.size(), nullptr, c.start, c.size,
                                           c.from_backtrack, &prev_scan, &next, &match),
                      0);
            EXPECT_EQ(match, c.match);
            EXPECT_EQ(match ? next : c.next_offset, c.next_offset);
            EXPECT_EQ(prev_scan, c.prev_scan_after);
        }
    }
}

const char *const kTexts[] = {"data: \"abab\", relative;", "data: \"AbC|00ff|\", nocase, depth 9, offset 3;",
                              "data: !\"x\", caret;", "length: 3, min, relative;",
                              "test: 3, !&, -7, 5, string, dec, relative;", "test: 2, >, 1000, 0, little;"};

// An image read back whole or damaged (cut, or from a virtual buffer: in the
// manager's image test).
TEST(KwKeyword, Images) {
    vael_test::LogCapture quiet;
    for (const char *text : kTexts) {
        SCOPED_TRACE(text);
        Keyword k(text);
        ASSERT_NE(k.kw, nullptr);
        const vael_kw_vtable &v = vt(k.type);
        const std::vector<unsigned char> image = keyword_image(k.kw);
        // Whole, it reads back as it was (every cut of a manager's image, these
        // keywords in it, is the rules' image test).
        const unsigned char *r = image.data();
        uint32_t space = (uint32_t)image.size();
        vael_kw_abs *back = v.deserialize(&r, &space, nullptr, nullptr);
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(space, 0u);
        EXPECT_EQ(std::memcmp(back, k.kw, sizeof(vael_kw_abs)), 0);
        EXPECT_EQ(keyword_image(back), image);
        EXPECT_TRUE(k.type != VAEL_KW_TYPE_DATA ||
                    !std::memcmp(reinterpret_cast<vael_kw_data *>(back)->skip_table, k.data()->skip_table, 512));
        v.destroy(back);
        // Fields that would make the search read or step where it must not,
        // and a wrong magic.
        const uint32_t m = k.type == VAEL_KW_TYPE_DATA ? k.data()->pattern_len : 0;
        struct Damage { uint32_t at, value, bytes; };
        std::vector<Damage> damages = {{0, 0x53525a4a, 4}};
        if (m)
            damages.insert(damages.end(), {{28, 0, 4}, {28, 0x7fffffff, 4}, {28, m + 1, 4}, {32, 0, 4},
                                           {32, m + 1, 4}, {36 + m, 0, 2}, {34 + 3 * m, 0, 2}});
        for (const auto &d : damages) {
            std::vector<unsigned char> bad = image;
            std::memcpy(&bad[d.at], &d.value, d.bytes);
            r = bad.data();
            space = (uint32_t)bad.size();
            back = v.deserialize(&r, &space, nullptr, nullptr);
            EXPECT_EQ(back, nullptr) << "damage at " << d.at;
            v.destroy(back);
        }
    }
}

unsigned char lower(unsigned char c) { return c >= 'A' && c <= 'Z' ? (unsigned char)(c + 32) : c; }

struct Tables {
    uint16_t *skip, *shift;
    uint32_t max_len_skip = 0, m;
    Tables(const std::string &p, bool caseless) : m((uint32_t)p.size()) {
        skip = vael_bm_create_skiptable(u(p), m, caseless);
        shift = vael_bm_create_shifttable(u(p), m, &max_len_skip);
    }
    ~Tables() { vael_bm_destroy(skip, shift, m); }
    uint32_t search(const std::string &hay, uint32_t start, bool caseless, const std::string &p, int *found) const {
        return (caseless ? vael_bm_ci_search : vael_bm_search)(u(hay), (uint32_t)hay.size(), u(p), m, skip, shift,
                                                              start, found);
    }
};

std::vector<uint32_t> naive_all(const std::string &hay, const std::string &p, bool caseless) {
    std::vector<uint32_t> out;
    for (size_t pos = 0; pos + p.size() <= hay.size(); pos++) {
        bool eq = true;
        for (size_t j = 0; j < p.size() && eq; j++)
            eq = (caseless ? lower(hay[pos + j]) : (unsigned char)hay[pos + j]) == (unsigned char)p[j];
        if (eq)
            out.push_back((uint32_t)pos);
    }
    return out;
}

// Every find, restarting one byte behind the last.
std::vector<uint32_t> bm_all(const std::string &hay, const std::string &p, bool caseless) {
    Tables t(p, caseless);
    std::vector<uint32_t> out;
    for (uint32_t start = 0;;) {
        int found = 0;
        const uint32_t at = t.search(hay, start, caseless, p, &found);
        if (!found)
            return out;
        out.push_back(at);
        start = at + 1;
    }
}

int proper_borders(const std::string &p) {
    int n = 0;
    for (size_t len = 1; len < p.size(); len++)
        n += p.compare(0, len, p, p.size() - len, len) == 0;
    return n;
}

TEST(KwBm, AgainstNaiveSearch) {
    std::mt19937 rng(11);
    const std::string alphabets[] = {"ab", "abzABZ", "abcABC", std::string("a\x80\xff", 3)};
    int complete_checked = 0;
    for (int round = 0; round < 4000; round++) {
        const std::string &alpha = alphabets[round % 4];
        const bool caseless = (round / 4) % 2;
        std::string p = vael_test::random_word(rng, alpha, 1, 8);
        const std::string hay = vael_test::random_word(rng, alpha, 0, 63);
        if (caseless)
            std::transform(p.begin(), p.end(), p.begin(), lower);
        SCOPED_TRACE(testing::Message() << "pattern " << p << " hay " << hay << " caseless " << caseless);
        const std::vector<uint32_t> want = naive_all(hay, p, caseless), got = bm_all(hay, p, caseless);
        // Every find is a true place, in rising order; with at most one
        // border the tables are safe and nothing is missed.
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_TRUE(std::find(want.begin(), want.end(), got[i]) != want.end()) << got[i];
            ASSERT_TRUE(i == 0 || got[i - 1] < got[i]);
        }
        if (proper_borders(p) <= 1) {
            ASSERT_EQ(got, want);
            complete_checked++;
        }
    }
    EXPECT_GT(complete_checked, 1000);
}

}  // namespace
