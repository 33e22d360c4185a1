// Rules of the real keywords: compiled, loaded and duplicated runs agree; refusals; image cuts; failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/keywords/kw_rule_run.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::LogCapture;

using kw_run::compile;
using kw_run::image_of;
using kw_run::load;
using kw_run::verdict;

struct PmRule { std::string lss, rule; int32_t id; bool no_history; };

int on_match(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
             int *) {
    static_cast<std::vector<vael_test::Hit> *>(arg)->push_back(vael_test::Hit{id, offset});
    return 0;
}

vael_pm_handle *pm_compile(const std::vector<PmRule> &rules, vael_pm_error *err) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &r : rules)
        EXPECT_EQ((r.no_history ? vael_pm_patterns_add_pattern_kw_nohistory : vael_pm_patterns_add_pattern_kw)(
                      list, r.lss.data(), (uint32_t)r.lss.size(), r.rule.c_str(), r.id),
                  0);
    LogCapture quiet;
    vael_pm_handle *pm = vael_pm_compile(list, on_match, 0, err, "kw test");
    vael_pm_patterns_destroy(list);
    return pm;
}

TEST(KwRules, OverBuffers) {
    struct Case {
        std::string rule;
        std::string buf;
        int64_t end;  // -1: no match
    };
    using namespace std::string_literals;
    const Case cases[] = {
        // The first "a" has no "b" right behind it; going back finds the second.
        {R"(data: "a", relative; data: "b", relative, depth 1;)", "axab", 3},
        {R"(data: "a"; data: "b", relative, depth 1;)", "axab", 3},
        {R"(data: "ab", relative; data: "cd", relative, depth 2;)", "abxxabcd", 7},
        // Back to a number: the first "k=" is followed by the wrong digit.
        {R"(data: "k="; test: 1, =, 0x39, 0, relative;)", "k=1 k=9", 5},
        {R"(data: "k="; test: 1, =, 0x39, 0, relative;)", "k=1 k=8", -1},
        // Nothing moved the offset: the pass is no match.
        {"test: 1, =, 97, 0;", "a", -1},
        // A find at the very end leaves no byte to test.
        {R"(data: "c", relative; test: 1, =, 0, 0, relative;)", "abc", -1},
        // Negation: passes where the string is absent, moves nothing.
        {R"(data: "x"; data: !"q", relative;)", "xab", 0}, {R"(data: "x"; data: !"a", relative;)", "xab", -1},
        // A negative offset may reach back to the start, not before it.
        {R"(data: "a", relative; data: "b", relative, offset -3;)", "xxab", 3}, {R"(data: "b", offset 1;)", "bab", 2},
        // Lengths behind a string.
        {R"(data: "GET "; length: 5, min, relative;)", "GET /abcd", 3},
        {R"(data: "GET "; length: 2, exact, relative;)", "GET /a", 3},
        {R"(data: "GET "; length: 2, max, relative;)", "GET /abc", -1},
        // Numbers: binary in either order, text in a base.
        {"data: \"|00|\"; test: 2, =, 1001, 0, relative, little;", "\x00\xe9\x03"s, 0},
        {"data: \"|00|\"; test: 2, =, 1001, 0, relative, big;", "\x00\x03\xe9"s, 0},
        {R"(data: "len="; test: 3, >, 99, 0, relative, string, dec;)", "len=250;", 3},
        {"data: \"|ff|\"; test: 1, <, 0, -1, relative, signed;", "\xff"s, 0},
        // Attributes and text forms of data.
        {R"(data: "abc", nocase;)", "xABC", 3}, {R"(data: "ab", caret;)", "abx", 1},
        {R"(data: "b", depth 2;)", "aab", -1}, {R"(delim=';data: 'a;b';)", "xa;b", 3},
        {R"(data: "a|3b|b";)", "xa;b", 3},
    };
    for (const auto &c : cases)
        kw_run::expect_verdicts(c.rule, {{c.buf, c.end}});
}

// Refused rules: the text the author reads, the keyword's own first; through
// the PM with the user's id; nothing held.
TEST(KwRules, Refusals) {
    const char *illegal = "Keyword rule given by the user is illegal";
    std::string too_many;
    for (int i = 0; i < 101; i++)
        too_many += "length: 1, min; ";
    struct Case { std::string rule; const char *text; uint32_t type; } cases[] = {
        {R"(data: "a"; dataX: "b";)", "Keyword's attribute is not supported", 0},
        {R"(data: "|4|";)", "incomplete hex data in data keyword", 0},
        {R"(data: "a"; data: "b")", illegal, 1}, {R"(data: "a;)", illegal, 1}, {"   \t ", illegal, 1},
        {"delim=';", illegal, 1}, {"delim=' x;data: 'a';", illegal, 1}, {"delim=", illegal, 1},
        {R"(data: "a"; Data: "b";)", "Rule contains illegal keyword name", 0},
        {"data: \"a\"; jump: 1, 0, signed;", "Keyword's attribute is not supported", 0},
        {R"(data: "a"; pcre: "/(?=a)b/";)", "Recursive operations are not supported in PM for pcre_dfa_exec", 0},
        {too_many, "Rule contains too many keywords", 2},
    };
    for (const auto &c : cases) {
        const intptr_t before = vael_pmglob_memory_get_alloc_total(), kbefore = qx_kmem_get_alloc_total();
        vael_pm_error err;
        EXPECT_EQ(compile(c.rule, &err), nullptr) << c.rule;
        EXPECT_STREQ(err.error_string ? err.error_string : "", c.text) << c.rule;
        EXPECT_EQ(err.error_type, c.type) << c.rule;
        EXPECT_EQ(pm_compile({{"zz", R"(data: "zz";)", 1, false}, {"ab", c.rule, 42, false}}, &err), nullptr);
        EXPECT_EQ(err.pattern_id, 42) << c.rule;
        EXPECT_STREQ(err.error_string ? err.error_string : "", c.text) << c.rule;
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before) << c.rule;
        EXPECT_EQ(qx_kmem_get_alloc_total(), kbefore) << c.rule;
    }
    vael_pm_error err;
    LogCapture quiet;
    EXPECT_EQ(vael_pm_compile_keywords(nullptr, 0, 0, &err), nullptr);
}

const char kRule[] = R"(data: "ab|43|", nocase; test: 2, >, 5, 0, relative, string; length: 1, min, relative;)";

// Every cut of an image and the corruptions the checks name are refused
// with nothing held; whole, it loads from memory and from small blocks.
TEST(KwRules, ImageCutsAndCorruptions) {
    vael_pm_error err;
    vael_kw_mgr *mgr = compile(kRule, &err);
    ASSERT_NE(mgr, nullptr);
    const auto image = image_of(mgr);
    std::vector<unsigned char> small(image.size() - 1, 0xee);
    unsigned char *p = small.data();
    uint32_t space = (uint32_t)small.size();
    LogCapture log;
    EXPECT_EQ(vael_kw_mgr_serialize(mgr, &p, &space), -1);
    EXPECT_TRUE(p == small.data() && small[0] == 0xee);
    vael_kw_mgr_destroy(mgr);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++) {
        vael_kw_mgr *m = load(image, cut, false);
        EXPECT_EQ(m, nullptr) << "cut at " << cut;
        vael_kw_mgr_destroy(m);
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
        vael_kw_mgr *m = load(c.bytes, (uint32_t)c.bytes.size(), false);
        EXPECT_EQ(m, nullptr) << c.log;
        vael_kw_mgr_destroy(m);
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
            vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), -1, 0);
        vael_pm_error err;
        vael_kw_mgr *mgr = nullptr, *dup = nullptr, *loaded = nullptr;
        LogCapture quiet;
        // A keyword names its own allocation failures, some as illegal.
        EXPECT_GE(walk(
                      [&] {
                          vael_pm_error_init(&err);
                          return (mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(rule, 0, 0, &err))) !=
                                 nullptr;
                      },
                      [&] { return err.error_string != nullptr; })
                      .rounds,
                  8);
        vael_pmglob_string_destroy(rule);
        ASSERT_NE(mgr, nullptr);
        EXPECT_GE(walk([&] { return (dup = static_cast<vael_kw_mgr *>(vael_kw_mgr_duplicate(mgr))) != nullptr; },
                       [] { return true; })
                      .rounds,
                  each ? 8 : 3);
        const auto image = image_of(mgr);
        EXPECT_GE(walk([&] { return (loaded = load(image, (uint32_t)image.size())) != nullptr; }, [] { return true; })
                      .rounds,
                  each ? 7 : 3);
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
    struct Case { std::string history, present; std::vector<vael_test::Hit> hits; } cases[] = {
        {"", "abxxabcd", {{7, 7}, {8, 7}}}, {"", "abxxab", {}}, {"", "xx", {}},
        {"xxab", "cd", {{7, 5}}}, {"xxab", "abcd", {{7, 7}, {8, 3}}},
    };
    for (const auto &c : cases) {
        std::vector<vael_test::Hit> hits;
        vael_vbuf *vbuf = nullptr;
        if (!c.history.empty()) {
            vbuf = vael_vbuf_create(1u << 20, 0);
            EXPECT_EQ(vael_vbuf_add_buffer_ex(vbuf, const_cast<char *>(c.history.data()),
                                              (uint32_t)c.history.size(), nullptr, nullptr),
                      0);
        }
        LogCapture quiet;
        EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(c.present.data()),
                                  (uint32_t)c.present.size(), vbuf, nullptr, &hits, 0),
                  0);
        vael_vbuf_destroy(vbuf);
        EXPECT_EQ(hits, c.hits) << c.history << "|" << c.present;
    }
    vael_pm_destroy(pm);
}

}  // namespace
