// Generated test buffers for keyword rules, each judged by the compiled rule itself (and PCRE for `pcre`).
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "cli/gen_buf.h"
#include "keywords/vael_kw_mgr.h"
#include "tests/keywords/kw_rule_run.h"
#include "tests/support/failmem_walk.h"
#include "vael/vael_kw_gen.h"

namespace {

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
        const kw_run::Mgr mgr = kw_run::compiled(row.rule);
        ASSERT_NE(mgr, nullptr);
        if (hit.buf != kFail) {
            EXPECT_NE(kw_run::verdict(mgr.get(), hit.buf), -1) << "the rule does not match its buffer";
        }
        EXPECT_EQ(kw_run::verdict(mgr.get(), miss.buf), -1) << "the rule matches the mismatch buffer";
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

}  // namespace
