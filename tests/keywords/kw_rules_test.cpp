// Rules of the real keywords over buffers: each rule run as compiled, as
// loaded from its image and as duplicated, which must agree; every cut of a
// real image; allocation failures over compile, duplicate and load.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;

vael_kw_mgr *compile(const std::string &rule, vael_pm_error *err) {
    vael_pm_error_init(err);
    vael_pmglob_string *s =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(rule.data()), (uint32_t)rule.size(), -1, 0);
    LogCapture quiet;
    auto *mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(s, 0, 0, err));
    vael_pmglob_string_destroy(s);
    return mgr;
}

std::vector<unsigned char> image_of(void *mgr) {
    std::vector<unsigned char> image(vael_kw_mgr_serialize_get_size(mgr));
    unsigned char *p = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vael_kw_mgr_serialize(mgr, &p, &space), 0);
    return image;
}

vael_kw_mgr *load(const std::vector<unsigned char> &image, uint32_t size) {
    auto *copy = static_cast<unsigned char *>(std::malloc(size ? size : 1));
    std::memcpy(copy, image.data(), size);
    const unsigned char *p = copy;
    uint32_t space = size;
    LogCapture quiet;
    auto *mgr = static_cast<vael_kw_mgr *>(vael_kw_mgr_deserialize(&p, &space, nullptr, nullptr));
    std::free(copy);
    return mgr;
}

// -1: no match; else the match's end.
int64_t verdict(vael_kw_mgr *mgr, const std::string &buf) {
    int is_match = 0;
    uint32_t end = 0;
    LogCapture quiet;
    const int rc = vael_kw_mgr_exec(mgr, reinterpret_cast<const unsigned char *>(buf.data()), (uint32_t)buf.size(),
                                    &is_match, &end);
    EXPECT_EQ(rc, 0);
    return is_match ? (int64_t)end : -1;
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
        {R"(data: "a"; data: "b", relative, depth 1;)", "axax", -1},
        {R"(data: "ab", relative; data: "cd", relative, depth 2;)", "abxxabcd", 7},
        // Back to a number: the first "k=" is followed by the wrong digit.
        {R"(data: "k="; test: 1, =, 0x39, 0, relative;)", "k=1 k=9", 5},
        {R"(data: "k="; test: 1, =, 0x39, 0, relative;)", "k=1 k=8", -1},
        // Nothing moved the offset: the pass is no match.
        {"test: 1, =, 97, 0;", "a", -1},
        {"length: 10, exact;", "0123456789", -1},
        // A find at the very end leaves no byte to test.
        {R"(data: "c", relative; test: 1, =, 0, 0, relative;)", "abc", -1},
        // Two absolute strings: the second fails for any history.
        {R"(data: "a"; data: "z";)", "aaa", -1},
        // Negation: passes where the string is absent, moves nothing.
        {R"(data: "x"; data: !"q", relative;)", "xab", 0},
        {R"(data: "x"; data: !"a", relative;)", "xab", -1},
        // A negative offset may reach back to the start, not before it.
        {R"(data: "a", relative; data: "b", relative, offset -3;)", "xxab", 3},
        {R"(data: "a", relative; data: "b", relative, offset -5;)", "xxab", -1},
        {R"(data: "b", offset 1;)", "bax", -1},
        {R"(data: "b", offset 1;)", "bab", 2},
        // Lengths behind a string.
        {R"(data: "GET "; length: 5, min, relative;)", "GET /abcd", 3},
        {R"(data: "GET "; length: 5, min, relative;)", "GET /a", -1},
        {R"(data: "GET "; length: 2, exact, relative;)", "GET /a", 3},
        {R"(data: "GET "; length: 2, max, relative;)", "GET /abc", -1},
        // Numbers: binary in either order, text in a base.
        {"data: \"|00|\"; test: 2, >, 1000, 0, relative, little;", "\x00\xe9\x03"s, 0},
        {"data: \"|00|\"; test: 2, >, 1000, 0, relative;", "\x00\x03\xe9"s, 0},
        {"data: \"|00|\"; test: 2, >, 1000, 0, relative;", "\x00\x03\xe7"s, -1},
        {R"(data: "len="; test: 3, >, 99, 0, relative, string, dec;)", "len=250;", 3},
        {R"(data: "len="; test: 3, >, 99, 0, relative, string, dec;)", "len=25;", -1},
        {"data: \"|ff|\"; test: 1, <, 0, -1, relative, signed;", "\xff"s, 0},
        // Attributes of data.
        {R"(data: "abc", nocase;)", "xABC", 3},
        {R"(data: "ab", caret;)", "xab", -1},
        {R"(data: "ab", caret;)", "abx", 1},
        {R"(data: "b", depth 2;)", "abc", 1},
        {R"(data: "b", depth 2;)", "aab", -1},
        // The text forms.
        {R"(delim=';data: 'a;b';)", "xa;b", 3},
        {R"(data: "\"q\"";)", R"(x"q")", 3},
        {R"(data: "a|3b|b";)", "xa;b", 3},
    };
    for (const auto &c : cases) {
        vael_pm_error err;
        vael_kw_mgr *mgr = compile(c.rule, &err);
        ASSERT_NE(mgr, nullptr) << c.rule << ": " << (err.error_string ? err.error_string : "");
        vael_kw_mgr *loaded = load(image_of(mgr), vael_kw_mgr_serialize_get_size(mgr));
        ASSERT_NE(loaded, nullptr) << c.rule;
        LogCapture quiet;
        auto *dup = static_cast<vael_kw_mgr *>(vael_kw_mgr_duplicate(mgr));
        ASSERT_NE(dup, nullptr) << c.rule;
        for (vael_kw_mgr *m : {mgr, loaded, dup})
            EXPECT_EQ(verdict(m, c.buf), c.end) << c.rule << (m == mgr ? " compiled" : m == dup ? " duplicated" : " loaded");
        vael_kw_mgr_destroy(dup);
        vael_kw_mgr_destroy(loaded);
        vael_kw_mgr_destroy(mgr);
    }
}

// The keywords' own refusals reach the author first; the manager's general
// text only when none spoke.
TEST(KwRules, RefusalsNameTheFault) {
    struct Case {
        std::string rule;
        const char *text;
    };
    const Case cases[] = {
        {R"(data: "a"; dataX: "b";)", "Keyword's attribute is not supported"},
        {R"(test: 1, =, 0, 0; testing: 1;)", "Keyword's attribute is not supported"},
        {R"(data: "|4|";)", "incomplete hex data in data keyword"},
        {"test: 5, =, 1, 0;", "The length of the numeric value that should be extracted is illegal"},
        {"length: 3;", "None of attributes (exact, min, max) was set in length keyword"},
        {R"(data: "a", offset -1;)", "Illegal negative offset for absolute keyword"},
        {R"(data: "a")", "Keyword rule given by the user is illegal"},
        {R"(jump: 4, 0;)", "Rule contains a keyword that is not in this build"},
    };
    for (const auto &c : cases) {
        vael_pm_error err;
        EXPECT_EQ(compile(c.rule, &err), nullptr) << c.rule;
        EXPECT_STREQ(err.error_string ? err.error_string : "", c.text) << c.rule;
    }
}

const char kRule[] = R"(data: "ab|43|", nocase; test: 2, >, 5, 0, relative, string; length: 1, min, relative;)";

TEST(KwRules, EveryCutOfAnImage) {
    vael_pm_error err;
    vael_kw_mgr *mgr = compile(kRule, &err);
    ASSERT_NE(mgr, nullptr);
    const auto image = image_of(mgr);
    vael_kw_mgr_destroy(mgr);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++) {
        vael_kw_mgr *m = load(image, cut);
        EXPECT_EQ(m, nullptr) << "cut at " << cut;
        vael_kw_mgr_destroy(m);
        ASSERT_EQ(vael_pmglob_memory_get_alloc_total(), before) << "cut at " << cut;
    }
    vael_kw_mgr *whole = load(image, (uint32_t)image.size());
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(verdict(whole, "xABC12z"), 3);
    vael_kw_mgr_destroy(whole);
}

TEST(KwRules, AllocationFailures) {
    vael_pmglob_string *rule =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(kRule), std::strlen(kRule), -1, 0);
    vael_pm_error err;
    vael_kw_mgr *mgr = nullptr;
    auto walk = vael_test::failmem_walk_each_allocation(
        [&] {
            vael_pm_error_init(&err);
            LogCapture quiet;
            mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(rule, 0, 0, &err));
            return mgr != nullptr;
        },
        // A keyword names its own allocation failures, some as illegal.
        [&] { return err.error_string != nullptr; });
    EXPECT_GE(walk.rounds, 8);
    vael_pmglob_string_destroy(rule);
    ASSERT_NE(mgr, nullptr);

    void *dup = nullptr;
    walk = vael_test::failmem_walk_each_allocation(
        [&] {
            LogCapture quiet;
            dup = vael_kw_mgr_duplicate(mgr);
            return dup != nullptr;
        },
        [] { return true; });
    EXPECT_GE(walk.rounds, 8);
    vael_kw_mgr_destroy(dup);

    const auto image = image_of(mgr);
    vael_kw_mgr *loaded = nullptr;
    walk = vael_test::failmem_walk_each_allocation(
        [&] {
            loaded = load(image, (uint32_t)image.size());
            return loaded != nullptr;
        },
        [] { return true; });
    EXPECT_GE(walk.rounds, 7);
    vael_kw_mgr_destroy(loaded);
    vael_kw_mgr_destroy(mgr);
}

}  // namespace
