// The Thin NFA driven directly (anchors, offsets, masks, shared ids, the state limit); random pattern sets over small
// alphabets held against brute force, raw and through the PM, under every fold, full-state tunable and prefilter
// setting; over a stream of blocks then the present buffer against the flat run; its copies: duplicate and image
// scan like the original, damaged images are refused or safe. BNFA validation: one fault per check, the quick proof
// against the walk, and the dumps.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/jflap_reader.h"
#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_thin_nfa_prefilter.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;
using vael_test::ThinNfa;
using vael_test::numbered;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;
constexpr uint32_t kStart = VAEL_PM_LSS_START_ANCHOR, kEnd = VAEL_PM_LSS_END_ANCHOR;

// Order, first-per-id and all-matches runs are the differential test's; here
// anchors, offsets and one id on several strings.
TEST(ThinNfaExec, AnchorsOffsetsAndSharedIds) {
    const struct {
        const char *name;
        std::vector<Pattern> patterns;
        std::string text;
        uint32_t flags, offset;
        std::vector<Hit> expected;  // in queue order
    } cases[] = {
        {"start anchor", {{"ab", 0, kStart}, {"b", 1}}, "abab", kAll, 0, {{0, 1}, {1, 1}, {1, 3}}},
        {"start anchor away from the start", {{"ab", 0, kStart}, {"b", 1}}, "xab", kAll, 0, {{1, 2}}},
        {"start anchor from an offset", {{"ab", 0, kStart}, {"b", 1}}, "abab", kAll, 2, {{1, 3}}},
        {"end anchor", {{"ab", 0, kEnd}, {"a", 1}}, "abab", kAll, 0, {{1, 0}, {1, 2}, {0, 3}}},
        {"end anchor not at the end", {{"ab", 0, kEnd}, {"a", 1}}, "aba", kAll, 0, {{1, 0}, {1, 2}}},
        {"offset keeps stream offsets", {{"ab", 0}}, "abxab", kAll, 1, {{0, 4}}},
        {"offset at the last byte", {{"ab", 0}}, "abxab", kAll, 4, {}},
        // The first entry of a text and id wins: anchored, length 3.
        {"same id twice", {{"abc", 4, kStart}, {"abc", 4}}, "xabc", 0, 0, {}},
        {"same id as a suffix", {{"abc", 9}, {"bc", 9}}, "abc", kAll, 0, {{9, 2}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ThinNfa nfa(c.patterns);
        ASSERT_NE(nfa.get(), nullptr);
        std::vector<Hit> hits;
        EXPECT_EQ(nfa.exec(c.text, &hits, c.flags, c.offset), 0);
        EXPECT_EQ(hits, c.expected);
    }
}

TEST(ThinNfaExec, MaskKeepAllFlagsAndRefusals) {
    ThinNfa nfa({{"abc", 0}, {"bc", 1}, {"c", 2}, {"zz", 40}, {"ab", 3, VAEL_PM_NEED_TIER2}});
    vael_test::RawMask mask(41);
    mask.set(0), mask.set(2), mask.set(40);
    std::vector<Hit> hits;
    ASSERT_EQ(nfa.exec("abc zz", &hits, 0, 0, mask.mask()), 0);
    EXPECT_EQ(hits, (std::vector<Hit>{{0, 2}, {2, 2}, {40, 5}}));
    // All matches keeps every hit, except those a second tier must confirm.
    ASSERT_EQ(nfa.exec("ab", &hits, kAll), 0);
    ASSERT_EQ(hits, (std::vector<Hit>{{3, 1}}));
    EXPECT_EQ(hits[0].match_flags, 0u);
    ASSERT_EQ(nfa.exec("zz", &hits, kAll), 0);
    EXPECT_EQ(hits[0].match_flags, VAEL_PMGLOB_MATCH_KEEP_ALL);

    LogCapture quiet;
    const unsigned char data[] = "ab";
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_thin_nfa_exec(nullptr, data, 2, nullptr, 0, &queue, 0, nullptr), -1);
    EXPECT_EQ(vael_thin_nfa_exec(nfa.get(), nullptr, 2, nullptr, 0, &queue, 0, nullptr), -1);
    EXPECT_EQ(vael_thin_nfa_exec(nfa.get(), data, 0, nullptr, 0, &queue, 0, nullptr), -1);
    EXPECT_EQ(nfa.exec("abxab", &hits, kAll, 6), -1) << "an offset past the end";
    EXPECT_EQ(queue, nullptr);
    ThinNfa empty({{"ok", 0}, {"", 1}});
    EXPECT_EQ(empty.get(), nullptr);
    EXPECT_STREQ(empty.error().error_string, "Empty pattern");
}

// ---------------------------------------------------------------- the state limit: 1,000 blocks of 1,000

// A pattern of n bytes with no byte repeated next to itself, so it makes a
// chain of n partial states below the root's children.
std::string chain(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = (char)('a' + i % 7);
    return s;
}

TEST(ThinNfaLimits, AMillionStatesCompileOneMoreDoesNot) {
    // The root and 999,999 states of one pattern: the very last record of the
    // last block.
    {
        ThinNfa nfa({{chain(999999), 1}});
        ASSERT_NE(nfa.get(), nullptr);
        EXPECT_EQ(nfa.get()->state_num, 1000000u);
        EXPECT_EQ(nfa.hits("xx" + chain(999999)), (std::vector<Hit>{{1, 1000000}}));
    }
    const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total();
    const intptr_t all_mem = qx_kmem_get_alloc_total();
    LogCapture quiet;
    ThinNfa nfa({{"ab", 1}, {chain(1000000), 2}});
    EXPECT_EQ(nfa.get(), nullptr);
    EXPECT_STREQ(nfa.error().error_string, "Failed to allocate state");
    EXPECT_EQ(nfa.error().error_type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem);
    EXPECT_EQ(qx_kmem_get_alloc_total(), all_mem);
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
    const std::vector<Pattern> cdef = {{"abcdef", 0}, {"cd", 1}}, end_ab = {{"ab", 0, kEnd}},
                               start_ab = {{"ab", 0, kStart}, {"b", 1}};
    const struct {
        std::vector<Pattern> patterns;
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

using Image = std::vector<unsigned char>;

Image image_of(const vael_thin_nfa *nfa) {
    return vael_test::write_image(vael_thin_get_serialize_size(nfa), [&](auto at, auto space) {
        return vael_thin_nfa_serialize(nfa, at, space);
    });
}

struct Loaded {
    vael_thin_nfa *nfa = nullptr;
    ~Loaded() { vael_thin_nfa_destroy(nfa); }
};

vael_thin_nfa *load_flat(const Image &image, uint32_t size) {
    // An exact-size copy, so that a read past the cut is ASan's to catch.
    std::vector<unsigned char> cut(image.begin(), image.begin() + size);
    const unsigned char *p = cut.data();
    uint32_t space = size;
    return vael_thin_nfa_deserialize(&p, &space, nullptr, nullptr);
}

vael_thin_nfa *load_vbuf(const Image &image, uint32_t block) {
    vael_vbuf *vbuf = vael_test::vbuf_of(image.data(), image.size(), block);
    vael_vbuf_iter iter{};
    uint32_t space = (uint32_t)image.size();
    vael_thin_nfa *nfa = vael_thin_nfa_deserialize(nullptr, &space, vbuf, &iter);
    EXPECT_EQ(space, 0u);
    vael_vbuf_destroy(vbuf);
    return nfa;
}

// Every hit of a handle over a text, in queue order, flat or split into a
// vbuf of blocks.
std::vector<Hit> scan(vael_thin_nfa *nfa, const std::string &text, size_t block = 0) {
    vael_vbuf *vbuf = block ? vael_test::vbuf_of(text.data(), text.size(), block) : nullptr;
    lst_list *queue = nullptr;
    EXPECT_EQ(vael_thin_nfa_exec(nfa, block ? nullptr : reinterpret_cast<const unsigned char *>(text.data()),
                                 block ? 0 : (uint32_t)text.size(), vbuf, 0, &queue, VAEL_PM_EXEC_ALL_MATCHES, nullptr),
              0);
    vael_vbuf_destroy(vbuf);
    return vael_test::drain_queue(queue);
}

// Texts over the patterns' own alphabet, so that hits are many.
std::vector<std::string> random_texts(const std::vector<Pattern> &patterns, uint32_t seed, int count) {
    std::mt19937 rng(seed);
    std::string alphabet("xyz \n\0\xff", 7);
    for (const auto &p : patterns)
        alphabet += p.text;
    std::vector<std::string> texts;
    for (int i = 0; i < count; i++) {
        std::string t = vael_test::random_word(rng, alphabet, 0, 599);
        for (int k = 0; k < 3 && !patterns.empty(); k++)
            t.insert(rng() % (t.size() + 1), patterns[rng() % patterns.size()].text);
        texts.push_back(t);
    }
    return texts;
}

std::vector<Pattern> random_set(uint32_t seed, int count, size_t max_len) {
    std::mt19937 rng(seed);
    std::vector<Pattern> set;
    for (int i = 0; i < count; i++) {
        const std::string s = vael_test::random_word(rng, "abcdeABC019-\x80", 1, max_len);
        set.push_back(Pattern{s, i, (rng() % 4 == 0) ? (uint32_t)VAEL_PM_NEED_TIER2 : 0u});
    }
    return set;
}

// he/she with the defaults: states 0, 1 (h), 3 (s) full at word offsets 0,
// 257, 514; then 2 (he) at 771, 4 (sh) at 773, 5 (she) at 776.
const std::vector<Pattern> kHeShe = {{"he", 1}, {"she", 2}};

struct SetRow { const char *name; std::vector<Pattern> patterns; uint32_t compile_flags; };

std::vector<SetRow> set_rows() {
    return {
        {"plain", {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}, {"aaaa", 5}, {"a", 6}}, 0},
        {"caseless", {{"GET /", 1}, {"Host:", 2}, {"abc", 3}, {"ABD", 4}}, VAEL_PM_CASELESS},
        {"digitless", {{"id=123", 1}, {"9x9", 2}, {"v1.0", 3}}, VAEL_PM_DIGITLESS},
        {"caseless digitless", {{"Ab1", 1}, {"aB22", 2}}, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS},
        {"large", random_set(7, 1500, 12), 0},
        {"large caseless", random_set(8, 800, 6), VAEL_PM_CASELESS},
    };
}

// Duplicate, flat image and vbuf image of every kind of set scan exactly
// like the original, and give the same image again.
TEST(ThinNfaImage, CopiesScanLikeTheOriginal) {
    for (const SetRow &row : set_rows()) {
        SCOPED_TRACE(row.name);
        ThinNfa nfa(row.patterns, row.compile_flags);
        ASSERT_NE(nfa.get(), nullptr);
        const Image image = image_of(nfa.get());
        Loaded dup{vael_thin_nfa_duplicate(nfa.get())};
        Loaded flat{load_flat(image, (uint32_t)image.size())};
        // Blocks of one byte for the small images, cut anywhere for the rest.
        Loaded vb1{load_vbuf(image, image.size() < 20000 ? 1 : 7)};
        Loaded vb7{load_vbuf(image, image.size() < 20000 ? 7 : 1009)};
        for (const Loaded *copy : {&dup, &flat, &vb1, &vb7}) {
            ASSERT_NE(copy->nfa, nullptr);
            EXPECT_EQ(image_of(copy->nfa), image);
            EXPECT_EQ(copy->nfa->prefilter != nullptr, nfa.get()->prefilter != nullptr);
            EXPECT_EQ(vael_thin_nfa_is_valid(copy->nfa), 1);
        }
        // The same BNFA word for word scans alike; a few texts show that the
        // copies also carry the pattern lists and the prefilter.
        for (const std::string &text : random_texts(row.patterns, 11, 6)) {
            const std::vector<Hit> want = scan(nfa.get(), text), split = scan(nfa.get(), text, 13);
            for (const Loaded *copy : {&dup, &flat, &vb7}) {
                EXPECT_EQ(scan(copy->nfa, text), want);
                EXPECT_EQ(scan(copy->nfa, text, 13), split);
            }
        }
    }
}

// A refused image says why, in the engine's words.
TEST(ThinNfaImage, RefusalTexts) {
    ThinNfa nfa(kHeShe);
    const Image image = image_of(nfa.get());
    auto with_word = [&](size_t at, uint32_t value) {
        Image bad = image;
        std::memcpy(bad.data() + at, &value, 4);
        return bad;
    };
    const size_t mark_at = image.size() - 20;
    const char *const kCut = "vael_thin_nfa_deserialize: Wrong serialization magic (0 != 53525a4e) at the buffer end\n";
    const struct { Image image; const char *text; } rows[] = {
        {with_word(0, 0x53525A44),
         "vael_thin_nfa_deserialize: Trying to deserialize a DFA, not a Thin NFA (53525a44 != 53525A4E)\n"},
        {with_word(0, 0x12345678),
         "vael_thin_nfa_deserialize: Wrong serialization magic (12345678 != 53525a4e) at the buffer start\n"},
        {with_word(mark_at, 0x53525A54),
         "vael_thin_nfa_deserialize: Wrong serialization magic (53525a54 != 53525a4e) at the buffer end\n"},
        // Sizes the image cannot back: refused as a cut image, before any
        // allocation of that size.
        {with_word(12, 0xfffffff0u), kCut}, {with_word(8, 0x40000000u), kCut},
        {with_word(276 + 3112, 1000), kCut},  // a count past the end of the image
    };
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    ScopedTopic topic("K_THINNFA", VAEL_DBG_ERR);
    for (const auto &r : rows) {
        LogCapture log;
        Loaded back{load_flat(r.image, (uint32_t)r.image.size())};
        EXPECT_EQ(back.nfa, nullptr) << r.text;
        EXPECT_TRUE(log.contains(r.text)) << log.text();
    }
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

// Every cut and every single-byte change of a small image: refused, or a
// BNFA that validates and scans without fault (ASan watches the reads).
TEST(ThinNfaImage, CutsAndByteChanges) {
    ThinNfa nfa({{"he", 1}, {"she", 2}, {"hers", 3}}, VAEL_PM_CASELESS);
    const Image image = image_of(nfa.get());
    const std::vector<std::string> texts = {"ushers HERS she he", std::string(300, 'h') + "ers",
                                            "\x01\x02\xff hhsshe"};
    // Match queues keep their cells for the next run: none at either end.
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    const intptr_t kmem_start = qx_kmem_get_alloc_total();
    ScopedTopic thin("K_THINNFA", VAEL_DBG_ERR);
    ScopedTopic error("K_ERROR", VAEL_DBG_ERR);
    // A refusal names its reason in one of the engine's texts.
    auto read = [](const Image &bytes) {
        LogCapture log;
        vael_thin_nfa *back = load_flat(bytes, (uint32_t)bytes.size());
        bool named = false;
        for (const char *text : {" at the buffer start\n", " at the buffer end\n", "Trying to deserialize a DFA",
                                 " validation failed\n"})
            named = named || log.contains(text);
        EXPECT_TRUE(back || named) << bytes.size() << " bytes: " << log.text();
        return back;
    };
    size_t block = 0;
    auto use = [&](vael_thin_nfa *back) {
        EXPECT_EQ(vael_thin_nfa_is_valid(back), 1);
        for (const std::string &t : texts)
            scan(back, t, block++ % 3 + 1);
        vael_thin_nfa_destroy(back);
    };
    // Only the statistics' tail may be missing; the translation table, ids,
    // flags and statistics take any value.
    EXPECT_GT(vael_test::damage_walk(image, read, use, image.size() - 16), 0);
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem_start);
}

// Each allocation of the duplicate and of the load fails once; each failure
// gives null and leaves both accounts where they were.
TEST(ThinNfaImage, AllocationFailures) {
    ThinNfa nfa({{"he", 1}, {"she", 2}, {"hers", 3}, {"his", 4}});
    const Image image = image_of(nfa.get());
    vael_thin_nfa *copy = nullptr;
    LogCapture quiet;
    auto cleanly = [&] { return copy == nullptr; };
    auto w1 = vael_test::failmem_walk_each_allocation(
        [&] { return (copy = vael_thin_nfa_duplicate(nfa.get())) != nullptr; }, cleanly);
    EXPECT_GT(w1.rounds, 5);
    vael_thin_nfa_destroy(copy);
    copy = nullptr;
    auto w2 = vael_test::failmem_walk_each_allocation(
        [&] { return (copy = load_flat(image, (uint32_t)image.size())) != nullptr; }, cleanly);
    EXPECT_GT(w2.rounds, 5);
    vael_thin_nfa_destroy(copy);
}

// abc/abd: state 2 (ab) is partial with two transitions, c then d.
const std::vector<Pattern> kAbcAbd = {{"abc", 1}, {"abd", 2}};

struct Fault {
    const char *name;
    const std::vector<Pattern> *patterns;
    std::function<void(vael_thin_nfa *)> damage;
    std::vector<const char *> texts; // each must be in the log
};

void set_target(uint32_t *word, uint32_t offset) { *word = (*word & 0xffu) | offset << 8; }

std::vector<Fault> faults() {
    return {
        {"state past the end", &kHeShe, [](vael_thin_nfa *n) { n->bnfa_size -= 4; },
         {"thin_nfa_validate_state_in_range: State 5 at BNFA offset 776 (3104 bytes) partial header 8 - exceeds size 3108\n"}},
        {"finite state among the full non-finite", &kHeShe,
         [](vael_thin_nfa *n) { n->bnfa[257] |= BNFA_STATE_FINITE; },
         {"is smaller than its limit", ", flags = 1\n"}},
        {"full non-finite state past the limit", &kHeShe, [](vael_thin_nfa *n) { n->bnfa_full_size = 2056; },
         {"thin_nfa_validation_find_states: Full non-matching state at  0x", "is greater/equal than its limit"}},
        {"ID past state_num", &kHeShe, [](vael_thin_nfa *n) { n->bnfa[771] = 9u << 8 | 3; },
         {"thin_nfa_validation_find_states: State at BNFA offset 771 has ID 9 state_num=6\n"}},
        {"link into a state", &kHeShe, [](vael_thin_nfa *n) { set_target(&n->bnfa[775], 777); },
         {"thin_nfa_check_transition: State at BNFA offset 777 has ID 0 but this state is at 0\n",
          "thin_nfa_validation_scan_tree: Invalid transition for 65 from partial state 4\n"}},
        {"link past the end", &kHeShe, [](vael_thin_nfa *n) { n->bnfa[1 + 'x'] = 5000; },
         {"State -1 at BNFA offset 5000 (20000 bytes) header 4 - exceeds size 3112\n",
          "thin_nfa_validation_scan_tree: Invalid transition for 78 from full state 0\n"}},
        {"forward transition to a visited state", &kHeShe, [](vael_thin_nfa *n) { set_target(&n->bnfa[775], 771); },
         {"thin_nfa_check_transition: Forward transition 4 -> 2, but levels 2 -> 2\n"}},
        {"fail state on the same level", &kHeShe, [](vael_thin_nfa *n) { set_target(&n->bnfa[774], 771); },
         {"thin_nfa_check_transition: Fail state transition 4 -> 2, but levels 2 -> 2\n",
          "thin_nfa_validation_scan_tree: Invalid default state for state 4\n"}},
        {"unsorted transitions", &kAbcAbd,
         [](vael_thin_nfa *n) {
             uint32_t *s = n->bnfa + vael_test::bnfa_state_of(n, "ab");
             std::swap(s[2], s[3]);
         },
         {"thin_nfa_validation_scan_tree: Transitions from state 2 not sorted - 63 after 64\n"}},
        {"unreachable state", &kHeShe, [](vael_thin_nfa *n) { n->bnfa[257 + 1 + 'e'] = 0; },
         {"thin_nfa_validation_unvisited_states: State 2 never visited\n"}},
        {"finite state without patterns", &kHeShe,
         [](vael_thin_nfa *n) {
             vael_thin_nfa_free_pattern_ids(n->pattern_ids[2]);
             n->pattern_ids[2] = nullptr;
         },
         {"thin_nfa_validation_check_finite_states: State 2 is finite but has no pattern IDs\n"}},
        {"patterns on a state that is not finite", &kHeShe,
         [](vael_thin_nfa *n) { ASSERT_EQ(vael_thin_nfa_add_pattern_id(&n->pattern_ids[4], 7, 0, 2), 0); },
         {"thin_nfa_validation_check_finite_states: State 4 is not finite but has pattern ID 7\n"}},
    };
}

TEST(ThinNfaValidate, EachCheckCatchesItsFault) {
    ScopedTopic thin("K_THINNFA", VAEL_DBG_ERR);
    ScopedTopic error("K_ERROR", VAEL_DBG_ERR);
    for (const Fault &f : faults()) {
        SCOPED_TRACE(f.name);
        ThinNfa nfa(*f.patterns);
        ASSERT_NE(nfa.get(), nullptr);
        EXPECT_EQ(vael_thin_nfa_is_valid(nfa.get()), 1);
        vael_thin_nfa *copy = vael_thin_nfa_duplicate(nfa.get());
        ASSERT_NE(copy, nullptr);
        const uint32_t bnfa_size = copy->bnfa_size;
        f.damage(copy);
        {
            LogCapture log;
            EXPECT_EQ(vael_thin_nfa_is_valid(copy), 0);
            for (const char *text : f.texts)
                EXPECT_TRUE(log.contains(text)) << text << "\n---\n" << log.text();
            EXPECT_TRUE(log.contains(" validation failed\n")) << log.text();
        }
        copy->bnfa_size = bnfa_size; // the size the block was allocated with
        vael_thin_nfa_destroy(copy);
    }
}

// ---------------------------------------------------------------- the quick proof

struct Shape {
    const char *name;
    std::vector<Pattern> patterns;
    uint32_t compile_flags;
    int full_tiers;
};

std::vector<Pattern> random_set(unsigned seed, int count, const std::string &alphabet, size_t min_len) {
    std::mt19937 rng(seed);
    std::vector<Pattern> out;
    for (int id = 1; id <= count; id++)
        out.push_back({vael_test::random_word(rng, alphabet, min_len, min_len + 8), id});
    return out;
}

std::vector<Shape> shapes() {
    // Many transitions from one state and runs of one byte make full states
    // below the full tiers, whose parents the layout puts after them.
    return {
        {"he she his hers", {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}}, 0, 2},
        {"one byte and runs", {{"a", 1}, {"aaaa", 2}, {"xaaab", 3}, {"ba", 4}}, 0, 2},
        {"wide state", random_set(7, 40, "abcdefghijklmnop", 1), 0, 2},
        {"small alphabet", random_set(3, 60, "abcd", 2), 0, 1},
        {"three tiers", random_set(5, 30, "abcxyz", 1), 0, 3},
        {"caseless", random_set(9, 25, "aBcD1", 2), VAEL_PM_CASELESS, 2},
        {"digitless", random_set(11, 25, "ab0189", 2), VAEL_PM_DIGITLESS, 2},
        {"large", random_set(13, 2000, "abcdefgh", 3), 0, 2},
    };
}

TEST(ThinNfaQuickValidation, ProvesEveryCompiledShape) {
    for (const Shape &shape : shapes()) {
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, shape.full_tiers);
        ThinNfa nfa(shape.patterns, shape.compile_flags);
        ASSERT_NE(nfa.get(), nullptr) << shape.name;
        EXPECT_EQ(vael_thin_nfa_validate_quick(nfa.get()), 1) << shape.name;
        EXPECT_EQ(vael_thin_nfa_validate_walk(nfa.get()), 1) << shape.name;
    }
}

// Words of the BNFA, and the leading region's bound, changed in ways
// that break links, kinds, order, levels and the finite flags.
TEST(ThinNfaQuickValidation, NeverProvesWhatTheWalkRefuses) {
    for (const Shape &shape : shapes()) {
        if (shape.patterns.size() > 100)
            continue;
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, shape.full_tiers);
        ThinNfa nfa(shape.patterns, shape.compile_flags);
        ASSERT_NE(nfa.get(), nullptr);
        vael_thin_nfa *n = nfa.get();
        // Offsets of a few states to point links at: the root, the next
        // state, the last one.
        std::vector<uint32_t> targets = {0, BNFA_FULL_STATE_WORDS, n->bnfa_full_size / 4, n->bnfa_size / 4 - 3};
        const uint32_t words = n->bnfa_size / 4;
        // Where the proof fails the walk decides anyway; it runs only now
        // and then there, to show that the damage was both kinds.
        int proven = 0, refused = 0, tries = 0;
        auto check = [&](const char *what, uint32_t at) {
            LogCapture quiet;
            if (vael_thin_nfa_validate_quick(n) == 1) {
                proven++;
                EXPECT_EQ(vael_thin_nfa_validate_walk(n), 1) << shape.name << ": " << what << " at word " << at;
            } else if (tries++ % 16 == 0 && vael_thin_nfa_validate_walk(n) == 0) {
                refused++;
            }
        };
        // Full tables are long and alike: a sample of their entries, and
        // of a large BNFA's partial states.
        const uint32_t step = words / 1000 + 1;
        for (uint32_t at = 0; at < words; at += at == 0 ? 1 : (at < n->bnfa_full_size / 4 ? 13 : 1) * step) {
            const uint32_t saved = n->bnfa[at];
            const uint32_t changes[] = {saved ^ 1u, saved ^ 2u, saved ^ 0x100u, saved + 0x100u, saved - 0x100u,
                                        UINT32_MAX};
            for (uint32_t changed : changes) {
                n->bnfa[at] = changed;
                check("bits", at);
            }
            for (uint32_t t : targets) {
                n->bnfa[at] = (saved & 0xffu) | t << 8;
                check("low byte kept, link moved", at);
                n->bnfa[at] = t;
                check("full entry moved", at);
            }
            n->bnfa[at] = saved;
        }
        const uint32_t full_size = n->bnfa_full_size;
        for (uint32_t size : {0u, full_size - 4, full_size + 4, full_size + BNFA_FULL_STATE_BYTES}) {
            n->bnfa_full_size = size;
            check("leading region", size);
        }
        n->bnfa_full_size = full_size;
        EXPECT_EQ(vael_thin_nfa_validate_quick(n), 1) << shape.name;
        // The damage was both kinds, or the test proves little.
        EXPECT_GT(proven, 0) << shape.name;
        EXPECT_GT(refused, 0) << shape.name;
    }
}

// ---------------------------------------------------------------- dumps

std::string dump(const vael_thin_nfa *nfa, int format, int *rc) {
    LogCapture log;
    *rc = vael_thin_nfa_dump(nfa, format);
    return log.text();
}

TEST(ThinNfaDump, XmlAndCsv) {
    ThinNfa nfa(kHeShe);
    int rc = -1;
    // The default edges (to the root) are left out, the fail edges to the
    // root too; state 4 (sh) keeps its fail edge to state 1 (h).
    vael_test::Automaton fa;
    std::string why;
    ASSERT_TRUE(vael_test::read_jflap(dump(nfa.get(), VAEL_THIN_NFA_DUMP_XML, &rc), fa, why)) << why;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(std::make_pair(fa.initial, fa.finals), std::make_pair(0, std::set<int>{2, 5}));
    EXPECT_EQ(fa.edges, (decltype(fa.edges){{0, {{"h", 1}, {"s", 3}}}, {1, {{"e", 2}, {"h", 1}, {"s", 3}}},
                                            {3, {{"h", 4}, {"s", 3}}}, {4, {{"", 1}, {"e", 5}}}}));
    // Every byte has its column: 256 names, then a row of 256 per state.
    std::string csv = dump(nfa.get(), VAEL_THIN_NFA_DUMP_CSV, &rc);
    size_t header = csv.find("Transition table:\n") + 18;
    std::string names = csv.substr(header, csv.find('\n', header) - header);
    EXPECT_EQ(std::count(names.begin(), names.end(), ','), 255);
    for (const char *part : {"0x00,0x01,0x02,", ",0x1F,space,!,dquote,#", ",+,comma,-,", ",&,quote,(,", ",[,bslash,],"})
        EXPECT_NE(names.find(part), std::string::npos) << part;

    // With the failure edges to the initial state shown, the XML grows by
    // them; an unknown format is refused.
    {
        ScopedGlobal all(vael_thin_nfa_xml_omit_fail_to_init, 0);
        std::string xml = dump(nfa.get(), VAEL_THIN_NFA_DUMP_XML, &rc);
        EXPECT_NE(xml.find("<read>OTHER</read>"), std::string::npos);
        EXPECT_NE(xml.find("<read/>"), std::string::npos);
    }
    ScopedTopic error("K_ERROR", VAEL_DBG_ERR);
    EXPECT_NE(dump(nfa.get(), 2, &rc).find("vael_thin_nfa_dump: Invalid dump format 2\n"), std::string::npos);
    EXPECT_EQ(rc, -1);
}

struct Config { uint32_t compile_flags; int full_tiers; int max_partial; int contig; };

// The case in C escapes, for a failure's message.
std::string describe(const Config &c, const std::vector<Pattern> &patterns, const std::string &text) {
    std::ostringstream os;
    os << "compile_flags 0x" << std::hex << c.compile_flags << std::dec << ", full_tiers " << c.full_tiers
       << ", max_partial " << c.max_partial << ", contig " << c.contig << "\npatterns:";
    for (const auto &p : patterns)
        os << " " << testing::PrintToString(p.text) << "=" << p.id;
    return os.str() + "\ntext: " + testing::PrintToString(text);
}

class Generator {
  public:
    Generator(std::string alphabet, uint32_t seed) : alphabet_(std::move(alphabet)), rng_(seed) {}

    int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    bool chance(int percent) { return uniform(0, 99) < percent; }
    char symbol() { return alphabet_[uniform(0, (int)alphabet_.size() - 1)]; }

    std::string word(int min_len, int max_len) { return vael_test::random_word(rng_, alphabet_, min_len, max_len); }

    // Another spelling of `s` that folds to the same bytes under `flags`.
    std::string respell(std::string s, uint32_t flags) {
        for (char &c : s) {
            if ((flags & VAEL_PM_CASELESS) && std::isalpha((unsigned char)c) && chance(50))
                c = (char)(std::islower((unsigned char)c) ? std::toupper((unsigned char)c)
                                                          : std::tolower((unsigned char)c));
            if ((flags & VAEL_PM_DIGITLESS) && std::isdigit((unsigned char)c) && chance(50))
                c = (char)('0' + uniform(0, 9));
        }
        return s;
    }

    std::vector<Pattern> patterns(uint32_t flags) {
        std::vector<Pattern> out;
        const int n = uniform(1, 40);
        // Sets without short patterns give the prefilter's buckets longer
        // beginnings, whose offsets past them are no longer free.
        const int min_len = chance(40) ? uniform(2, 8) : 1;
        int32_t next_id = uniform(0, 5) * 100;
        auto add = [&](std::string text) { out.push_back({std::move(text), next_id++ * 3 + 1}); };
        if (chance(30)) {
            // A few stems, each followed by many different symbols: states
            // with wide fan-out, full or searched by halves.
            for (int stems = uniform(1, 3); stems > 0 && (int)out.size() < n; stems--) {
                const std::string stem = word(std::max(1, min_len - 1), std::max(3, min_len - 1));
                for (int k = uniform(2, (int)alphabet_.size()); k > 0 && (int)out.size() < n; k--)
                    add(stem + symbol());
            }
        }
        while ((int)out.size() < n) {
            if (!out.empty() && chance(15))
                add(respell(out[uniform(0, (int)out.size() - 1)].text, flags)); // same text, new id
            else if (!out.empty() && chance(15))
                add(out[uniform(0, (int)out.size() - 1)].text.substr(0, uniform(min_len, 10))); // a prefix
            else
                add(word(min_len, 10));
        }
        return out;
    }

    std::string text(const std::vector<Pattern> &patterns, uint32_t flags) {
        std::string t;
        const int len = chance(5) ? 0 : uniform(1, 300);
        while ((int)t.size() < len) {
            const int what = uniform(0, 99);
            if (what < 20)
                t += respell(patterns[uniform(0, (int)patterns.size() - 1)].text, flags);
            else if (what < 23)
                t += "\0\xffX5z"[uniform(0, 4)]; // bytes outside the alphabet
            else
                t += symbol();
        }
        t.resize(len);
        return t;
    }

  private:
    std::string alphabet_;
    std::mt19937 rng_;
};

// Hits of one run come in ascending end offset, and for one offset from the
// longest pattern down.
void expect_queue_order(const std::vector<Hit> &hits) {
    for (size_t i = 1; i < hits.size(); i++) {
        const Hit &a = hits[i - 1], &b = hits[i];
        if (a.offset > b.offset || (a.offset == b.offset && a.hint < b.hint))
            FAIL() << "hit " << i << " (id " << b.id << " at " << b.offset << ", length " << b.hint
                   << ") comes after id " << a.id << " at " << a.offset << ", length " << a.hint;
    }
}

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *) {
    static_cast<std::vector<Hit> *>(arg)->push_back(Hit{id, offset});
    return 0;
}

class ThinNfaDifferential : public testing::TestWithParam<const char *> {
  protected:
    // One pattern set under one configuration, over a few texts.
    void check_set(Generator &gen, const Config &cfg) {
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, cfg.full_tiers);
        ScopedGlobal partial(vael_thin_nfa_max_partial_trans, cfg.max_partial);
        ScopedGlobal contig(vael_thin_nfa_optimize_contig_chars, cfg.contig);

        const std::vector<Pattern> patterns = gen.patterns(cfg.compile_flags);
        std::map<int32_t, uint32_t> length_of;
        for (const auto &p : patterns)
            length_of[p.id] = (uint32_t)p.text.size();

        ThinNfa nfa(patterns, cfg.compile_flags);
        ASSERT_NE(nfa.get(), nullptr) << describe(cfg, patterns, "");
        vael_test::expect_bnfa_well_formed(nfa.get());
        ASSERT_FALSE(HasFailure()) << describe(cfg, patterns, "");

        vael_pm_patterns *list = vael_pm_patterns_create();
        for (const auto &p : patterns)
            ASSERT_EQ(vael_pm_patterns_add_simple_pattern(list, p.text.data(), (uint32_t)p.text.size(), p.id, 0), 0);
        vael_pm_error err;
        vael_pm_handle *pm = vael_pm_compile(list, collect, cfg.compile_flags, &err, "differential");
        vael_pm_patterns_destroy(list);
        ASSERT_NE(pm, nullptr) << describe(cfg, patterns, "");

        for (int t = 0; t < 5 && !HasFailure(); t++) {
            const std::string text = gen.text(patterns, cfg.compile_flags);
            SCOPED_TRACE(describe(cfg, patterns, text));
            const auto all = vael_test::brute_force_all(patterns, text, cfg.compile_flags);
            const auto first = vael_test::first_per_id(all);
            const int want_rc = text.empty() ? -1 : 0;

            // An empty buffer is refused with an assertion, kept out of the
            // output and checked to be the expected one.
            LogCapture log;

            // The queue of the plain run, which every prefilter run must
            // repeat in the same order.
            std::vector<Hit> plain_all, plain_first;
            for (int mode : vael_test::all_prefilter_modes()) {
                ScopedGlobal prefilter(vael_thin_nfa_prefilter, mode);
                SCOPED_TRACE("prefilter " + std::to_string(mode));
                std::vector<Hit> hits;
                ASSERT_EQ(nfa.exec(text, &hits, VAEL_PM_EXEC_ALL_MATCHES), want_rc);
                expect_queue_order(hits);
                if (mode == THIN_NFA_PREFILTER_OFF)
                    plain_all = hits;
                EXPECT_EQ(hits, plain_all);
                for (const auto &h : hits)
                    ASSERT_TRUE(h.hint == length_of[h.id] && h.match_flags == VAEL_PMGLOB_MATCH_KEEP_ALL)
                        << "hit of id " << h.id << " at " << h.offset << ": length " << h.hint << ", flags "
                        << h.match_flags;
                EXPECT_EQ(vael_test::sorted(hits), all);

                ASSERT_EQ(nfa.exec(text, &hits, 0), want_rc);
                expect_queue_order(hits);
                if (mode == THIN_NFA_PREFILTER_OFF)
                    plain_first = hits;
                EXPECT_EQ(hits, plain_first);
                EXPECT_EQ(vael_test::sorted(hits), first);

                // Under digitless a string with a digit is confirmed by a
                // second tier that checks its digits: only the Thin NFA folds.
                for (uint32_t flags : {VAEL_PM_EXEC_ALL_MATCHES, 0u}) {
                    if (cfg.compile_flags & VAEL_PM_DIGITLESS)
                        break;
                    std::vector<Hit> delivered;
                    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()),
                                              (uint32_t)text.size(), nullptr, nullptr, &delivered, flags),
                              want_rc);
                    EXPECT_TRUE(std::is_sorted(delivered.begin(), delivered.end(),
                                               [](const Hit &a, const Hit &b) { return a.offset < b.offset; }));
                    EXPECT_EQ(vael_test::sorted(delivered), flags ? all : first) << "through the PM, flags " << flags;
                }
            }
            EXPECT_EQ(log.contains("Illegal arguments"), text.empty()) << log.text();
        }
        vael_pm_destroy(pm);
    }
};

TEST_P(ThinNfaDifferential, AgreesWithBruteForce) {
    const std::string alphabet = GetParam();
    uint32_t seed = 2166136261u; // FNV-1a of the alphabet: one fixed seed per suite
    for (unsigned char c : alphabet)
        seed = (seed ^ c) * 16777619u;
    Generator gen(alphabet, seed);
    const uint32_t folds[] = {0, VAEL_PM_CASELESS, VAEL_PM_DIGITLESS, VAEL_PM_CASELESS | VAEL_PM_DIGITLESS};
    const int max_partials[] = {1, 2, 6, 7, 63};
    // Every combination of folding, full tiers, fan-out limit and run
    // optimisation, each with its own random pattern set.
    int sets = 0;
    for (int contig = 0; contig < 2; contig++)
        for (int max_partial : max_partials)
            for (int tiers = 0; tiers < 4; tiers++)
                for (uint32_t fold : folds) {
                    check_set(gen, Config{fold, tiers, max_partial, contig});
                    ASSERT_FALSE(HasFailure()) << "stopped after the first failing set";
                    sets++;
                }
    EXPECT_EQ(sets, 160);
}

// "ab" and "abc" make overlaps and repeats; the mixed set folds under both
// flags; the wide one gives states with many children.
const char *const kAlphabetNames[] = {"TwoLetters", "ThreeLetters", "MixedCaseAndDigits", "TwelveLetters"};
INSTANTIATE_TEST_SUITE_P(Alphabets, ThinNfaDifferential, testing::Values("ab", "abc", "aAbBzZ0172", "abcdefghijkl"),
                         [](const testing::TestParamInfo<const char *> &info) {
                             return std::string(kAlphabetNames[info.index]);
                         });

}  // namespace
