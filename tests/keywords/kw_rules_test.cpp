// Rules of the real keywords: compiled, loaded and duplicated runs agree; refusals; image cuts; failures; the jump,
// pcre and re keywords in rules, pcre against re.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "pcre_tier/vael_pcre.h"
#include "tests/keywords/kw_rule_run.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::LogCapture;

using kw_run::image_of;
using kw_run::load;
using kw_run::pm_compile;
using kw_run::verdict;
using namespace std::string_literals;

// Each rule, as compiled, loaded from its image and duplicated, over buffers: the end of its match, -1 for none.
TEST(KwRules, Verdicts) {
    const std::string pad(40, '.');
    const std::pair<std::string, kw_run::Runs> cases[] = {
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
        {R"(re: "/a+b/";)", {{"xaab", 3}}},
        {R"(data: "L"; jump: 1, 0, relative; pcre: "/^ok/", relative;)", {{"L\004abcok", 6}, {"L\003abcok", -1}}},
    };
    for (const auto &[rule, runs] : cases)
        kw_run::expect_verdicts(rule, runs);
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
    kw_run::expect_refusals({
        {R"(data: "a"; dataX: "b";)", unsupported}, {R"(data: "|4|";)", "incomplete hex data in data keyword"},
        {R"(data: "a"; data: "b")", illegal, 1}, {R"(data: "a;)", illegal, 1}, {"   \t ", illegal, 1},
        {"delim=';", illegal, 1}, {"delim=' x;data: 'a';", illegal, 1}, {"delim=", illegal, 1},
        {R"(data: "a"; Data: "b";)", "Rule contains illegal keyword name"},
        {"data: \"a\"; jump: 1, 0, signed;", unsupported}, {R"(data: "a"; pcre: "/(?=a)b/";)", recursive},
        {kw_run::repeat("length: 1, min; ", 101), "Rule contains too many keywords", 2},
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
    const kw_run::Mgr mgr = kw_run::compiled(kRule);
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
            const kw_run::Mgr a = kw_run::compiled(pcre), b = kw_run::compiled(re);
            ASSERT_TRUE(a && b);
            for (int n = 0; n < kBuffers; n++) {
                std::string buf(rng() % 12, ' ');
                for (char &c : buf)
                    c = "abcxX01"[rng() % 7];
                EXPECT_EQ(kw_run::verdict(a.get(), buf), kw_run::verdict(b.get(), buf)) << e << " over " << buf;
            }
        }
}

// The expression compiles with the rule: a run allocates the engine's stack
// and, under pcre_dfa_exec, PCRE's workspace, and gives both back.
TEST(KwPcre, NothingCompiledPerRun) {
    const kw_run::Mgr mgr = kw_run::compiled(R"(data: "k"; pcre: "/v+w/", relative;)");
    ASSERT_NE(mgr, nullptr);
    for (int dfa : {1, 0}) {
        vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, dfa);
        const intptr_t before = vael_pmglob_memory_get_alloc_total(), kbefore = qx_kmem_get_alloc_total();
        const int allocations = alloc_number;
        EXPECT_EQ(kw_run::verdict(mgr.get(), "xxkvvw"), 5);
        EXPECT_EQ(alloc_number - allocations, 1 + dfa);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kbefore);
    }
}

// Cuts and a wrong engine row are refused with nothing held (the walks of
// compile, duplicate and load over rules with these keywords are the rules'
// test's).
TEST(KwPcre, ImageCutsAndAWrongRow) {
    const kw_run::Mgr mgr = kw_run::compiled(R"(pcre: "/a+b/i"; data: "k", relative; re: "/c+d/", relative;)");
    ASSERT_NE(mgr, nullptr);
    auto image = kw_run::image_of(mgr.get());
    const kw_run::Mgr copy(kw_run::load(image, (uint32_t)image.size()), vael_kw_mgr_destroy);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(kw_run::verdict(copy.get(), "xAABkcd"), 6);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++)
        EXPECT_EQ(kw_run::load(image, cut), nullptr) << cut;
    for (uint32_t row : {2u, 3u, 0xffffffffu}) {
        std::memcpy(image.data() + 8 + 4 + 28, &row, 4);  // the pcre keyword's row
        EXPECT_EQ(kw_run::load(image, (uint32_t)image.size()), nullptr) << row;
    }
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
}

}  // namespace
