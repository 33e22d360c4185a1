// The Thin NFA over a stream of blocks then the present buffer, held against the flat run.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/vael_test_support.h"

namespace {

using vael_test::Hit;
using vael_test::ScopedGlobal;
using vael_test::ThinNfa;

// Patterns numbered from 0.
std::vector<vael_test::Pattern> numbered(const std::vector<std::string> &texts, uint32_t flags = 0) {
    std::vector<vael_test::Pattern> out;
    for (const auto &text : texts)
        out.push_back({text, (int32_t)out.size(), flags});
    return out;
}

// Blocks of a vbuf that point into strings the caller keeps alive.
struct Stream {
    std::vector<std::string> blocks;
    vael_vbuf *vbuf = vael_vbuf_create(UINT32_MAX, 0);
    explicit Stream(std::vector<std::string> b) : blocks(std::move(b)) {
        for (auto &s : blocks)
            EXPECT_EQ(vael_vbuf_add_buffer_ex(vbuf, s.data(), (uint32_t)s.size(), nullptr, nullptr), 0);
    }
    ~Stream() { vael_vbuf_destroy(vbuf); }
};

// The text cut into history blocks before `present_from` and the present
// buffer after it, under every prefilter setting and both run kinds, must
// give the flat run's hits without the prefilter.
void expect_stream_like_flat(const ThinNfa &e, const std::string &text, const std::vector<size_t> &cuts,
                             size_t present_from) {
    std::vector<size_t> history;
    for (size_t cut : cuts)
        history.push_back(std::min(cut, present_from));
    history.push_back(present_from);
    const vael_test::SplitText split(text, history);
    for (uint32_t flags : {0u, (uint32_t)VAEL_PM_EXEC_ALL_MATCHES}) {
        std::vector<Hit> want, got;
        {
            ScopedGlobal off(vael_thin_nfa_prefilter, THIN_NFA_PREFILTER_OFF);
            ASSERT_EQ(e.exec(text, &want, flags), 0);
        }
        for (int mode : vael_test::all_prefilter_modes()) {
            ScopedGlobal prefilter(vael_thin_nfa_prefilter, mode);
            ASSERT_EQ(e.exec_raw(split.present(), split.present_len(), &got, flags, 0, nullptr, split.vbuf()), 0);
            ASSERT_EQ(got, want) << "prefilter " << mode << ", present buffer from " << present_from << ", text "
                                 << text;
            ASSERT_EQ(e.exec(text, &got, flags), 0);
            ASSERT_EQ(got, want) << "prefilter " << mode << ", flat, text " << text;
        }
    }
}

// Blocks and a present buffer: the state carries across blocks, offsets count
// from the start of the stream, the end anchor needs the last byte of the
// data (the last block when the present buffer is empty), a start offset skips
// the bytes before it, and one past the end is refused.
TEST(ThinNfaStream, BlocksPresentBufferAnchorsAndOffsets) {
    const auto kStart = VAEL_PM_LSS_START_ANCHOR, kEnd = VAEL_PM_LSS_END_ANCHOR;
    const std::vector<vael_test::Pattern> cdef = {{"abcdef", 0}, {"cd", 1}}, end_ab = {{"ab", 0, kEnd}},
                                          start_ab = {{"ab", 0, kStart}, {"b", 1}};
    const struct {
        std::vector<vael_test::Pattern> patterns;
        uint32_t compile_flags;
        std::vector<std::string> blocks;
        std::string present;
        uint32_t offset;
        std::vector<Hit> hits;
        int rc;
    } rows[] = {
        {cdef, 0, {"xxab", "c", "de", "fyy"}, "", 0, {{1, 5}, {0, 7}}, 0},
        {cdef, 0, {"xxab", "c", "de", "fyy"}, "abcdef", 0, {{1, 5}, {0, 7}, {1, 13}, {0, 15}}, 0},
        {end_ab, 0, {"ab", "ab"}, "", 0, {{0, 3}}, 0},
        {end_ab, 0, {"ab", "ab"}, "xab", 0, {{0, 6}}, 0},
        {end_ab, 0, {"ab", "ab"}, "abx", 0, {}, 0},
        {end_ab, 0, {"xa", "b"}, "", 0, {{0, 2}}, 0},  // a last block of one byte is still the last
        {start_ab, 0, {"a", "bab"}, "", 0, {{0, 1}, {1, 1}, {1, 3}}, 0},
        {start_ab, 0, {"a", "bab"}, "", 1, {{1, 1}, {1, 3}}, 0},
        {start_ab, 0, {"a", "bab"}, "b", 3, {{1, 3}, {1, 4}}, 0},
        {start_ab, 0, {"a", "bab"}, "abab", 6, {{1, 7}}, 0},
        {{{"a", 0}}, 0, {"aa"}, "", 2, {}, 0},
        {{{"a", 0}}, 0, {"aa"}, "aa", 4, {}, 0},
        {{{"a", 0}}, 0, {"aa"}, "aa", 5, {}, -1},
        {{{"abc1", 0}}, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS, {"xA", "B", "c7ABC", "9"}, "", 0, {{0, 4}, {0, 8}}, 0},
    };
    for (const auto &row : rows) {
        ThinNfa e(row.patterns, row.compile_flags);
        Stream s(row.blocks);
        std::vector<Hit> hits;
        EXPECT_EQ(e.exec(row.present, &hits, VAEL_PM_EXEC_ALL_MATCHES, row.offset, nullptr, s.vbuf), row.rc);
        EXPECT_EQ(hits, row.hits) << row.blocks[0] << " + " << row.present << " from " << row.offset;
    }
}

// Random texts split at random places must give the flat scan's hits.
TEST(ThinNfaStream, RandomSplitsMatchTheFlatScan) {
    std::mt19937 rng(20261122);
    const std::string alphabet = "abczA1Z";
    for (int round = 0; round < 300; round++) {
        std::vector<std::string> patterns;
        for (int n = 1 + (int)(rng() % 12); n > 0; n--)
            patterns.push_back(vael_test::random_word(rng, alphabet, 1, 6));
        ThinNfa e(numbered(patterns), (round % 3 == 0) ? VAEL_PM_CASELESS : 0);
        const std::string text = vael_test::random_word(rng, alphabet, 1, 200);
        // Cuts of 1 to 20 bytes, and a random part of the text as history.
        std::vector<size_t> cuts;
        for (size_t at = 0; at < text.size(); cuts.push_back(at))
            at += (rng() % 4 == 0) ? 1 : 1 + rng() % 20;
        expect_stream_like_flat(e, text, cuts, rng() % (text.size() + 1));
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

// Short texts cut into two at every position, once as two blocks and once as
// a block and the present buffer: a pattern whose beginning is cut off by the
// end of a block is found all the same, whatever part of it the prefilter
// could not see. Sets with 1-byte patterns, long patterns, and both; texts
// where every byte may start a pattern, and texts where candidates fall just
// before a cut.
TEST(ThinNfaStream, EverySplitOfShortTextsMatchesTheFlatScan) {
    const std::string long_text = "zz" + std::string(30, 'x') + "abcdefgh" + std::string(27, 'y') + "abcd";
    const struct { std::vector<std::string> patterns; uint32_t compile_flags; std::string text; } cases[] = {
        {{"abcd", "bcde", "cdefgh"}, 0, "xxabcdefghxabcdxbcdex"},
        {{"abcd", "bcde", "cdefgh"}, 0, long_text},
        {{"a"}, 0, "aaaaaaaaaa"},
        {{"a", "b", "abcdefgh"}, 0, "xabcdefgxabcdefghbbb"},
        {{"abababab", "bab", "ab"}, 0, "abababababababababab"},
        {{"q", "abcdefghij"}, 0, "abcdefghi" + long_text + "abcdefghij"},
        {{"Abc1", "xYz"}, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS, "aBc9XyZabC0xyzABC1"},
        {{"Hello", "World"}, VAEL_PM_CASELESS, "hElLoWoRlDhelloworldHELLOWORLD"},
    };
    for (const auto &c : cases) {
        ThinNfa e(numbered(c.patterns), c.compile_flags);
        ASSERT_FALSE(e.hits(c.text).empty()) << c.text;
        for (size_t cut = 1; cut < c.text.size(); cut++) {
            expect_stream_like_flat(e, c.text, {cut}, c.text.size());  // two blocks
            expect_stream_like_flat(e, c.text, {}, cut);               // a block and the present buffer
            ASSERT_FALSE(HasFailure()) << "cut at " << cut;
        }
    }
}

// The PM delivers hits found in the history with stream offsets, and hands
// the callback the run's buffers.
TEST(ThinNfaStream, PmRunOverHistoryAndPresentBuffer) {
    struct Seen { std::vector<Hit> hits; vael_vbuf *vbuf; } seen{{}, nullptr};
    auto cb = [](vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset,
                 vael_vbuf *vbuf, int *) -> int {
        auto *s = static_cast<Seen *>(arg);
        s->hits.push_back(Hit{id, offset});
        s->vbuf = vbuf;
        return 0;
    };
    vael_pm_patterns *p = vael_pm_patterns_create();
    vael_pm_patterns_add_simple_pattern(p, "GET /", 5, 10, 0);
    vael_pm_patterns_add_simple_pattern(p, "HTTP", 4, 20, 0);
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile(p, cb, 0, &err, "stream-test");
    vael_pm_patterns_destroy(p);
    ASSERT_NE(pm, nullptr);
    Stream s({"GE", "T /x H"});
    const std::string present = "TTP/1.1";
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(present.data()), (uint32_t)present.size(),
                              s.vbuf, nullptr, &seen, 0),
              0);
    EXPECT_EQ(seen.hits, (std::vector<Hit>{{10, 4}, {20, 10}}));
    EXPECT_EQ(seen.vbuf, s.vbuf);
    // History alone, no present buffer.
    seen.hits.clear();
    EXPECT_EQ(vael_pm_exec_ex(pm, nullptr, 0, s.vbuf, nullptr, &seen, 0), 0);
    EXPECT_EQ(seen.hits, (std::vector<Hit>{{10, 4}}));
    vael_pm_destroy(pm);
}

}  // namespace
