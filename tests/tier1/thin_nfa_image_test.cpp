// Thin NFA copies: duplicate and image scan like the original; damaged images are refused or safe.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tier1/vael_thin_nfa_prefilter.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedTopic;
using vael_test::ThinNfa;

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

}  // namespace
