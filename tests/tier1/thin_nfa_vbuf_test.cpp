// The Thin NFA over a stream: a virtual buffer of blocks, then the present
// buffer. The automaton's state carries from block to block, offsets count
// from the start of the stream, and the end of the data is the last block
// when the present buffer is empty. Stream runs are held against the flat
// run without the prefilter, under every prefilter setting.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/vael_test_support.h"

namespace {

using vael_test::Hit;
using vael_test::ScopedGlobal;
using vael_test::ThinNfa;

// Patterns numbered from 0, with their flags.
std::vector<vael_test::Pattern> numbered(const std::vector<std::pair<std::string, uint32_t>> &patterns) {
    std::vector<vael_test::Pattern> out;
    for (const auto &[text, flags] : patterns)
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

std::vector<Hit> run(const ThinNfa &e, vael_vbuf *vbuf, const std::string &flat, uint32_t offset,
                     uint32_t flags = VAEL_PM_EXEC_ALL_MATCHES, int *rc_out = nullptr) {
    std::vector<Hit> hits;
    const int rc = e.exec(flat, &hits, flags, offset, nullptr, vbuf);
    if (rc_out)
        *rc_out = rc;
    else
        EXPECT_EQ(rc, 0);
    return hits;
}

// Blocks and a present buffer: the state carries across blocks, offsets count
// from the start of the stream, the end anchor needs the last byte of the
// data (the last block when the present buffer is empty), a start offset skips
// the bytes before it, and one past the end is refused.
TEST(ThinNfaStream, BlocksPresentBufferAnchorsAndOffsets) {
    const auto kStart = VAEL_PM_LSS_START_ANCHOR, kEnd = VAEL_PM_LSS_END_ANCHOR;
    const struct {
        std::vector<std::pair<std::string, uint32_t>> patterns;
        uint32_t compile_flags;
        std::vector<std::string> blocks;
        std::string present;
        uint32_t offset;
        std::vector<Hit> hits;
        int rc;
    } rows[] = {
        {{{"abcdef", 0}, {"cd", 0}}, 0, {"xxab", "c", "de", "fyy"}, "", 0, {{1, 5}, {0, 7}}, 0},
        {{{"abcdef", 0}, {"cd", 0}}, 0, {"xxab", "c", "de", "fyy"}, "abcdef", 0, {{1, 5}, {0, 7}, {1, 13}, {0, 15}}, 0},
        {{{"ab", 0}}, 0, {"xab", "ab"}, "", 0, {{0, 2}, {0, 4}}, 0},
        {{{"ab", kEnd}}, 0, {"ab", "ab"}, "", 0, {{0, 3}}, 0},
        {{{"ab", kEnd}}, 0, {"ab", "ab"}, "xab", 0, {{0, 6}}, 0},
        {{{"ab", kEnd}}, 0, {"ab", "ab"}, "abx", 0, {}, 0},
        {{{"ab", kStart}, {"b", 0}}, 0, {"a", "bab"}, "", 0, {{0, 1}, {1, 1}, {1, 3}}, 0},
        {{{"ab", kStart}, {"b", 0}}, 0, {"a", "bab"}, "", 1, {{1, 1}, {1, 3}}, 0},
        {{{"ab", kStart}, {"b", 0}}, 0, {"a", "bab"}, "b", 3, {{1, 3}, {1, 4}}, 0},
        {{{"ab", kStart}, {"b", 0}}, 0, {"a", "bab"}, "abab", 6, {{1, 7}}, 0},
        {{{"a", 0}}, 0, {"aa"}, "", 2, {}, 0},
        {{{"a", 0}}, 0, {"aa"}, "aa", 4, {}, 0},
        {{{"a", 0}}, 0, {"aa"}, "aa", 5, {}, -1},
        {{{"abc1", 0}}, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS, {"xA", "B", "c7ABC", "9"}, "", 0, {{0, 4}, {0, 8}}, 0},
    };
    for (const auto &row : rows) {
        ThinNfa e(numbered(row.patterns), row.compile_flags);
        Stream s(row.blocks);
        int rc = 0;
        EXPECT_EQ(run(e, s.vbuf, row.present, row.offset, VAEL_PM_EXEC_ALL_MATCHES, &rc), row.hits)
            << row.blocks[0] << " + " << row.present << " from " << row.offset;
        EXPECT_EQ(rc, row.rc);
    }
}

// Random texts split at random places must give the flat scan's hits.
TEST(ThinNfaStream, RandomSplitsMatchTheFlatScan) {
    std::mt19937 rng(20261122);
    const std::string alphabet = "abcA1";
    for (int round = 0; round < 300; round++) {
        auto random_text = [&](size_t len) {
            std::string t;
            for (size_t i = 0; i < len; i++)
                t += alphabet[rng() % alphabet.size()];
            return t;
        };
        std::vector<std::pair<std::string, uint32_t>> patterns;
        int n = 1 + (int)(rng() % 12);
        for (int i = 0; i < n; i++)
            patterns.emplace_back(random_text(1 + rng() % 6), 0);
        uint32_t flags = (round % 3 == 0) ? VAEL_PM_CASELESS : 0;
        ThinNfa e(numbered(patterns), flags);
        std::string text = random_text(1 + rng() % 200);

        std::vector<std::string> blocks;
        for (size_t pos = 0; pos < text.size();) {
            size_t len = (rng() % 4 == 0) ? 1 : 1 + rng() % 20;
            len = std::min(len, text.size() - pos);
            blocks.push_back(text.substr(pos, len));
            pos += len;
        }
        // Keep a random number of blocks as history and the rest as the
        // present buffer, which may be empty.
        size_t keep = rng() % (blocks.size() + 1);
        std::string present;
        for (size_t i = keep; i < blocks.size(); i++)
            present += blocks[i];
        blocks.resize(keep);
        if (blocks.empty() && present.empty())
            continue;
        Stream s(blocks);
        for (uint32_t exec_flags : {0u, (uint32_t)VAEL_PM_EXEC_ALL_MATCHES}) {
            std::vector<Hit> expected;
            {
                ScopedGlobal off(vael_thin_nfa_prefilter, THIN_NFA_PREFILTER_OFF);
                expected = run(e, nullptr, text, 0, exec_flags);
            }
            for (int mode : vael_test::all_prefilter_modes()) {
                ScopedGlobal prefilter(vael_thin_nfa_prefilter, mode);
                ASSERT_EQ(run(e, s.vbuf, present, 0, exec_flags), expected)
                    << "round " << round << " prefilter " << mode << " text " << text;
                ASSERT_EQ(run(e, nullptr, text, 0, exec_flags), expected)
                    << "round " << round << " prefilter " << mode << " flat, text " << text;
            }
        }
    }
}

// Short texts cut into two at every position, once as two blocks and once as
// a block and the present buffer: a pattern whose beginning is cut off by the
// end of a block is found all the same, whatever part of it the prefilter
// could not see. Sets with 1-byte patterns, long patterns, and both; texts
// where every byte may start a pattern, and texts where candidates fall just
// before a cut.
TEST(ThinNfaStream, EverySplitOfShortTextsMatchesTheFlatScan) {
    struct Case {
        std::vector<std::string> patterns;
        uint32_t compile_flags;
        std::string text;
    };
    const std::string long_text = "zz" + std::string(30, 'x') + "abcdefgh" + std::string(27, 'y') + "abcd";
    const Case cases[] = {
        {{"abcd", "bcde", "cdefgh"}, 0, "xxabcdefghxabcdxbcdex"},
        {{"abcd", "bcde", "cdefgh"}, 0, long_text},
        {{"a"}, 0, "aaaaaaaaaa"},
        {{"a", "b", "abcdefgh"}, 0, "xabcdefgxabcdefghbbb"},
        {{"abababab", "bab", "ab"}, 0, "abababababababababab"},
        {{"q", "abcdefghij"}, 0, "abcdefghi" + long_text + "abcdefghij"},
        {{"Abc1", "xYz"}, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS, "aBc9XyZabC0xyzABC1"},
        {{"Hello", "World"}, VAEL_PM_CASELESS, "hElLoWoRlDhelloworldHELLOWORLD"},
    };
    for (const Case &c : cases) {
        std::vector<std::pair<std::string, uint32_t>> patterns;
        for (const auto &p : c.patterns)
            patterns.emplace_back(p, 0);
        ThinNfa e(numbered(patterns), c.compile_flags);
        for (uint32_t exec_flags : {0u, (uint32_t)VAEL_PM_EXEC_ALL_MATCHES}) {
            std::vector<Hit> expected;
            {
                ScopedGlobal off(vael_thin_nfa_prefilter, THIN_NFA_PREFILTER_OFF);
                expected = run(e, nullptr, c.text, 0, exec_flags);
            }
            ASSERT_FALSE(expected.empty()) << c.text;
            for (int mode : vael_test::all_prefilter_modes()) {
                ScopedGlobal prefilter(vael_thin_nfa_prefilter, mode);
                for (size_t cut = 1; cut < c.text.size(); cut++) {
                    const std::string head = c.text.substr(0, cut), tail = c.text.substr(cut);
                    Stream two({head, tail});
                    ASSERT_EQ(run(e, two.vbuf, "", 0, exec_flags), expected)
                        << "blocks cut at " << cut << ", prefilter " << mode << ", text " << c.text;
                    Stream one({head});
                    ASSERT_EQ(run(e, one.vbuf, tail, 0, exec_flags), expected)
                        << "present buffer from " << cut << ", prefilter " << mode << ", text " << c.text;
                }
            }
        }
    }
}

// The PM delivers hits found in the history with stream offsets, and hands
// the callback the run's buffers.
TEST(ThinNfaStream, PmRunOverHistoryAndPresentBuffer) {
    struct Seen {
        std::vector<Hit> hits;
        vael_vbuf *vbuf;
    } seen{{}, nullptr};
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
