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

#include "tier1/vael_thin_nfa_prefilter.h"
#include "vael/vael_apps.h"

namespace {

using Hit = std::pair<int32_t, uint32_t>; // (id, end offset)

// Off, the plain search, and AVX2 where the CPU has it.
std::vector<int> prefilter_modes() {
    std::vector<int> modes = {THIN_NFA_PREFILTER_OFF, THIN_NFA_PREFILTER_PLAIN};
    if (vael_thin_nfa_prefilter_find_avx2_fn())
        modes.push_back(THIN_NFA_PREFILTER_AUTO);
    return modes;
}

class ScopedPrefilter {
  public:
    explicit ScopedPrefilter(int mode) : saved_(vael_thin_nfa_prefilter) { vael_thin_nfa_prefilter = mode; }
    ~ScopedPrefilter() { vael_thin_nfa_prefilter = saved_; }

  private:
    int saved_;
};

struct Engine {
    vael_thin_nfa *nfa = nullptr;
    explicit Engine(const std::vector<std::pair<std::string, uint32_t>> &patterns, uint32_t compile_flags = 0) {
        vael_pmglob_patterns *list = vael_pmglob_patterns_create();
        int32_t id = 0;
        for (const auto &[text, flags] : patterns) {
            vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(text.data()),
                                                              (uint32_t)text.size(), id++, flags);
            EXPECT_EQ(vael_pmglob_patterns_add(list, s), 0);
            vael_pmglob_string_destroy(s);
        }
        vael_pm_error err;
        vael_pm_error_init(&err);
        nfa = vael_thin_nfa_compile(list, compile_flags, &err);
        vael_pmglob_patterns_destroy(list);
        EXPECT_NE(nfa, nullptr);
    }
    ~Engine() { vael_thin_nfa_destroy(nfa); }
};

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

std::vector<Hit> drain(lst_list *queue) {
    std::vector<Hit> hits;
    while (vael_queue_size(queue) > 0) {
        auto *m = reinterpret_cast<vael_pmglob_match_data *>(vael_dequeue(queue));
        hits.emplace_back(m->id, m->offset);
        vael_pmglob_match_data_free(m);
    }
    lst_destroy(queue);
    return hits;
}

std::vector<Hit> run(const Engine &e, vael_vbuf *vbuf, const std::string &flat, uint32_t offset,
                     uint32_t flags = VAEL_PM_EXEC_ALL_MATCHES, int *rc_out = nullptr) {
    lst_list *queue = nullptr;
    int rc = vael_thin_nfa_exec(e.nfa, reinterpret_cast<const unsigned char *>(flat.data()), (uint32_t)flat.size(),
                                vbuf, offset, &queue, flags, nullptr);
    if (rc_out)
        *rc_out = rc;
    else
        EXPECT_EQ(rc, 0);
    return drain(queue);
}

TEST(ThinNfaStream, PatternSpanningBlocksIsFoundAtItsStreamOffset) {
    Engine e({{"abcdef", 0}, {"cd", 0}});
    Stream s({"xxab", "c", "de", "fyy"});
    EXPECT_EQ(run(e, s.vbuf, "", 0), (std::vector<Hit>{{1, 5}, {0, 7}}));
    // The same blocks followed by a present buffer: offsets continue.
    EXPECT_EQ(run(e, s.vbuf, "abcdef", 0), (std::vector<Hit>{{1, 5}, {0, 7}, {1, 13}, {0, 15}}));
}

TEST(ThinNfaStream, MatchInLastByteOfABlockIsReportedByThatBlock) {
    Engine e({{"ab", 0}});
    Stream s({"xab", "ab"});
    EXPECT_EQ(run(e, s.vbuf, "", 0), (std::vector<Hit>{{0, 2}, {0, 4}}));
}

TEST(ThinNfaStream, EndAnchorNeedsTheLastByteOfTheData) {
    Engine e({{"ab", VAEL_PM_LSS_END_ANCHOR}});
    Stream s({"ab", "ab"});
    // Empty present buffer: the last block ends the data.
    EXPECT_EQ(run(e, s.vbuf, "", 0), (std::vector<Hit>{{0, 3}}));
    // With a present buffer, only its end counts.
    EXPECT_EQ(run(e, s.vbuf, "xab", 0), (std::vector<Hit>{{0, 6}}));
    EXPECT_EQ(run(e, s.vbuf, "abx", 0), (std::vector<Hit>{}));
}

TEST(ThinNfaStream, StartAnchorAndStartOffset) {
    Engine e({{"ab", VAEL_PM_LSS_START_ANCHOR}, {"b", 0}});
    Stream s({"a", "bab"});
    EXPECT_EQ(run(e, s.vbuf, "", 0), (std::vector<Hit>{{0, 1}, {1, 1}, {1, 3}}));
    // Starting past the anchored match's start: it is not reported, offsets
    // stay counted from the start of the stream.
    EXPECT_EQ(run(e, s.vbuf, "", 1), (std::vector<Hit>{{1, 1}, {1, 3}}));
    EXPECT_EQ(run(e, s.vbuf, "b", 3), (std::vector<Hit>{{1, 3}, {1, 4}}));
    // An offset inside the present buffer skips into it.
    EXPECT_EQ(run(e, s.vbuf, "abab", 6), (std::vector<Hit>{{1, 7}}));
}

TEST(ThinNfaStream, OffsetAtOrPastTheEnd) {
    Engine e({{"a", 0}});
    Stream s({"aa"});
    EXPECT_EQ(run(e, s.vbuf, "", 2), (std::vector<Hit>{}));
    EXPECT_EQ(run(e, s.vbuf, "aa", 4), (std::vector<Hit>{}));
    int rc = 0;
    EXPECT_EQ(run(e, s.vbuf, "aa", 5, VAEL_PM_EXEC_ALL_MATCHES, &rc), (std::vector<Hit>{}));
    EXPECT_EQ(rc, -1);
}

TEST(ThinNfaStream, TranslatedBytesAcrossBlocks) {
    Engine e({{"abc1", 0}}, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS);
    Stream s({"xA", "B", "c7ABC", "9"});
    EXPECT_EQ(run(e, s.vbuf, "", 0), (std::vector<Hit>{{0, 4}, {0, 8}}));
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
        Engine e(patterns, flags);
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
                ScopedPrefilter off(THIN_NFA_PREFILTER_OFF);
                expected = run(e, nullptr, text, 0, exec_flags);
            }
            for (int mode : prefilter_modes()) {
                ScopedPrefilter prefilter(mode);
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
        Engine e(patterns, c.compile_flags);
        for (uint32_t exec_flags : {0u, (uint32_t)VAEL_PM_EXEC_ALL_MATCHES}) {
            std::vector<Hit> expected;
            {
                ScopedPrefilter off(THIN_NFA_PREFILTER_OFF);
                expected = run(e, nullptr, c.text, 0, exec_flags);
            }
            ASSERT_FALSE(expected.empty()) << c.text;
            for (int mode : prefilter_modes()) {
                ScopedPrefilter prefilter(mode);
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
        s->hits.emplace_back(id, offset);
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
