// The pcre and re keywords: as compiled, loaded and duplicated, against each other, refusals, images.
#include <random>

#include "pcre_tier/vael_pcre.h"
#include "tests/keywords/kw_rule_run.h"

namespace {

TEST(KwPcre, Matches) {
    const std::pair<std::string, std::vector<std::pair<std::string, int64_t>>> cases[] = {
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
            vael_kw_mgr *m[2];
            for (int i = 0; i < 2; i++) {
                char rule[100];
                std::snprintf(rule, sizeof rule, form, i ? "re" : "pcre", e);
                vael_pm_error err;
                m[i] = kw_run::compile(rule, &err);
                ASSERT_NE(m[i], nullptr) << rule << ": " << (err.error_string ? err.error_string : "");
            }
            for (int n = 0; n < kBuffers; n++) {
                std::string buf(rng() % 12, ' ');
                for (char &c : buf)
                    c = "abcxX01"[rng() % 7];
                EXPECT_EQ(kw_run::verdict(m[0], buf), kw_run::verdict(m[1], buf)) << e << " over " << buf;
            }
            vael_kw_mgr_destroy(m[0]);
            vael_kw_mgr_destroy(m[1]);
        }
}

TEST(KwPcre, Refusals) {
    const char *empty = "Empty regexp or missing delimiter in pcre keyword";
    const char *quotes = "Regexp needs to be enclosed in quotation marks (\") in pcre keyword";
    const char *slash = "Regexp needs to be enclosed in delimiter / in pcre keyword";
    const char *delim = "Space/letter/digit cannot be used as ending delimiter in pcre keyword";
    const char *recursive = "Recursive operations are not supported in PM for pcre_dfa_exec";
    kw_run::expect_refusals({
        {R"(pcre: "//";)", empty}, {R"(pcre: "/";)", empty}, {R"(re: "m|a";)", empty}, {"relative;", empty},
        {"pcre: /a/, nocase;", quotes}, {R"(pcre: "x/a/";)", slash}, {R"(pcre: "a";)", slash},
        {R"(pcre: "";)", slash}, {R"(pcre: "m a ";)", delim}, {R"(re: "mxax";)", delim},
        {R"(pcre: "m1a1";)", delim}, {R"(pcre: "m";)", "No delimiter in pcre keyword"},
        {"pcre:, nocase;", "Failed to retrieve the first attribute in pcre keyword"},
        {R"(pcre: "/(?=a)b/";)", recursive}, {R"(pcre: "/a(?R)?b/";)", recursive}, {R"(pcre: "/(?>a)/";)", recursive},
        {R"(pcre: "/a/", caret;)", "Keyword's attribute is not supported"},
        {R"(pcre: "/a/", offset -1;)", "Illegal negative offset for absolute keyword"},
        {R"(pcre: "/a(/";)", "missing )"},
    });
}

// The expression compiles with the rule: a run allocates the engine's stack
// and, under pcre_dfa_exec, PCRE's workspace, and gives both back.
TEST(KwPcre, NothingCompiledPerRun) {
    vael_pm_error err;
    vael_kw_mgr *mgr = kw_run::compile(R"(data: "k"; pcre: "/v+w/", relative;)", &err);
    ASSERT_NE(mgr, nullptr);
    for (int dfa : {1, 0}) {
        vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, dfa);
        const intptr_t before = vael_pmglob_memory_get_alloc_total(), kbefore = qx_kmem_get_alloc_total();
        const int allocations = alloc_number;
        EXPECT_EQ(kw_run::verdict(mgr, "xxkvvw"), 5);
        EXPECT_EQ(alloc_number - allocations, 1 + dfa);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kbefore);
    }
    vael_kw_mgr_destroy(mgr);
}

// Cuts and a wrong engine row are refused with nothing held (the walks of
// compile, duplicate and load over rules with these keywords are the rules'
// test's).
TEST(KwPcre, ImageCutsAndAWrongRow) {
    const std::string rule = R"(pcre: "/a+b/i"; data: "k", relative; re: "/c+d/", relative;)";
    vael_pm_error err;
    vael_kw_mgr *mgr = kw_run::compile(rule, &err);
    ASSERT_NE(mgr, nullptr);
    auto image = kw_run::image_of(mgr);
    vael_kw_mgr *copy = kw_run::load(image, (uint32_t)image.size());
    EXPECT_EQ(kw_run::verdict(copy, "xAABkcd"), 6);
    vael_kw_mgr_destroy(copy);
    vael_kw_mgr_destroy(mgr);
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
