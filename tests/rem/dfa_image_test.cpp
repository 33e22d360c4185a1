// The DFA image: a machine written and read back, from a flat buffer and
// from a vbuf, runs exactly like the one that wrote it; the REM row carries
// it through its image slots; a cut, changed or absurd image is refused with
// its words, or gives a machine that runs safely; every allocation failure of
// a load leaves both accounts where they were.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;
using vael_test::Rem;
using vael_test::ScopedTopic;

using Image = std::vector<unsigned char>;

Image image_of(vael_dfa *dfa) {
    Image image(vael_dfa_calculate_size(dfa));
    unsigned char *p = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vael_dfa_serialize(dfa, &p, &space), 0);
    EXPECT_EQ(space, 0u);
    return image;
}

// An exact-size copy of the first `size` bytes, so a read past it is ASan's.
vael_dfa *load_flat(const Image &image, size_t size, uint32_t *left = nullptr) {
    Image cut(image.begin(), image.begin() + (long)size);
    const unsigned char *p = cut.data();
    uint32_t space = (uint32_t)size;
    vael_dfa *dfa = vael_dfa_deserialize(&p, &space, nullptr, nullptr);
    EXPECT_LE(p, cut.data() + size);
    if (left)
        *left = space;
    return dfa;
}

vael_dfa *load_vbuf(const Image &image, size_t block) {
    vael_vbuf *vbuf = vael_vbuf_create(UINT32_MAX, 0);
    for (size_t at = 0; at < image.size(); at += block)
        vael_vbuf_add_buffer_ex(vbuf, (void *)(image.data() + at), (uint32_t)std::min(block, image.size() - at), nullptr,
                                nullptr);
    vael_vbuf_iter iter{};
    uint32_t space = (uint32_t)image.size();
    vael_dfa *dfa = vael_dfa_deserialize(nullptr, &space, vbuf, &iter);
    if (dfa) {
        EXPECT_EQ(space, 0u);
    }
    vael_vbuf_destroy(vbuf);
    return dfa;
}

std::vector<Hit> hits(vael_dfa *dfa, const std::string &text) {
    lst_list *queue = nullptr;
    vael_dfa_exec(dfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, 0, &queue,
                  VAEL_PM_EXEC_ALL_MATCHES, nullptr);
    std::vector<Hit> out = vael_test::drain_queue(queue);
    return out;
}

// Hits compared field by field: the hint and the flags come from the state.
std::vector<std::vector<uint32_t>> fields(const std::vector<Hit> &hs) {
    std::vector<std::vector<uint32_t>> out;
    for (const Hit &h : hs)
        out.push_back({(uint32_t)h.id, h.offset, h.match_flags, h.hint});
    return out;
}

std::string random_text(std::mt19937 &rng, const std::string &alphabet, size_t max_len) {
    std::string text(rng() % (max_len + 1), ' ');
    for (char &c : text)
        c = alphabet[rng() % alphabet.size()];
    return text;
}

struct Owned {
    vael_dfa *dfa = nullptr;
    ~Owned() { vael_dfa_destroy(dfa); }
};

// A chain of `n` states, a finished machine: 'a' moves one state on, any
// other byte back to the start; the last state is final and stays.
vael_dfa *chain(uint32_t n) {
    vael_dfa *dfa = vael_dfa_create(0, nullptr);
    vael_dfa_set_state_limit(dfa, 0);
    std::vector<vael_dfa_state *> states;
    for (uint32_t i = 0; i < n; i++)
        states.push_back(vael_dfa_state_create(dfa));
    for (uint32_t i = 0; i < n; i++)
        for (unsigned c = 0; c < 256; c++)
            vael_dfa_state_add_trans(states[i], (unsigned char)c,
                                     i == n - 1 ? states[i] : c == 'a' ? states[i + 1] : states[0]);
    vael_dfa_state_set_final(states[n - 1], 5, 0, 0);
    vael_dfa_state_set_final(states[n - 1], 9, 0, 0);
    vael_dfa_set_initial_state(dfa, states[0]);
    return vael_dfa_finalize(dfa);
}

// ---------------------------------------------------------------- round trips

TEST(DfaImage, LoadedMachinesRunLikeTheirWriters) {
    const struct {
        const char *pattern;
        uint32_t pattern_flags;
    } rows[] = {
        {"abc", 0},          {"a[0-9]+b", 0}, {"^ab|cd$", 0}, {"(ab|ba)*c", 0},   {"x.{2}y", 0},
        {"[^a]bc", 0},       {"AbC", VAEL_PM_CASELESS},     {"(a|b)*abb", 0}, {"0{2,4}1", 0},
    };
    std::mt19937 rng(7);
    for (const auto &r : rows) {
        Rem rem(r.pattern, vael_test::kRemDotAll, r.pattern_flags);
        ASSERT_NE(rem.get(), nullptr) << r.pattern;
        const Image image = image_of(rem.get());
        ASSERT_EQ(image.size(), vael_dfa_calculate_size(rem.get()));
        for (size_t block : {0, 1, 7, 64}) {
            Owned loaded{block ? load_vbuf(image, block) : load_flat(image, image.size())};
            ASSERT_NE(loaded.dfa, nullptr) << r.pattern << " block " << block;
            EXPECT_EQ(vael_dfa_is_valid(loaded.dfa), 1);
            EXPECT_EQ(image_of(loaded.dfa), image) << r.pattern;
            EXPECT_EQ(vael_dfa_get_flags(loaded.dfa), vael_dfa_get_flags(rem.get()));
            for (int i = 0; i < 40; i++) {
                const std::string text = random_text(rng, "abcdxyABC01\n", 24);
                EXPECT_EQ(fields(hits(loaded.dfa, text)), fields(hits(rem.get(), text)))
                    << r.pattern << " over '" << text << "'";
            }
        }
    }
}

TEST(DfaImage, MachinesOfSeveralBlocksAndTheirRecordsAndCountersComeBack) {
    const uint32_t sizes[] = {3, VAEL_DFA_BLOCK_STATES + 20};
    for (uint32_t n : sizes) {
        Owned orig{chain(n)};
        ASSERT_NE(orig.dfa, nullptr);
        const Image image = image_of(orig.dfa);
        Owned loaded{load_flat(image, image.size())};
        ASSERT_NE(loaded.dfa, nullptr) << n;
        EXPECT_EQ(vael_dfa_is_valid(loaded.dfa), 1);
        EXPECT_EQ(loaded.dfa->num_of_blocks, orig.dfa->num_of_blocks);
        EXPECT_EQ(loaded.dfa->stats.num_of_states, orig.dfa->stats.num_of_states);
        EXPECT_EQ(loaded.dfa->stats.num_of_final_states, 2u);
        EXPECT_EQ(loaded.dfa->stats.common.memory, orig.dfa->stats.common.memory);
        const vael_dfa_state *last = vael_dfa_state_get_by_id(loaded.dfa, n - 1);
        std::vector<int32_t> ids;
        for (const vael_dfa_pattern_id *p = vael_dfa_state_get_pattern_ids(last); p; p = vael_dfa_pattern_id_next(p))
            ids.push_back(vael_dfa_pattern_id_get_id(p));
        EXPECT_EQ(ids, (std::vector<int32_t>{5, 9}));
        for (const std::string &text : {std::string(n + 3, 'a'), std::string(n - 1, 'a') + "b" + std::string(n, 'a')})
            EXPECT_EQ(fields(hits(loaded.dfa, text)), fields(hits(orig.dfa, text))) << n;
    }
}

TEST(DfaImage, TheRemRowCarriesItsMachineThroughItsImageSlots) {
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[VAEL_PM_TIER2_REM];
    Rem rem("ab+c");
    ASSERT_NE(rem.get(), nullptr);
    Image image(row.get_serialize_size(rem.get()));
    unsigned char *p = image.data();
    uint32_t space = (uint32_t)image.size();
    ASSERT_EQ(row.serialize(rem.get(), &p, &space), 0);
    EXPECT_EQ(space, 0u);
    const unsigned char *q = image.data();
    space = (uint32_t)image.size();
    Owned loaded{static_cast<vael_dfa *>(row.deserialize(&q, &space, nullptr, nullptr))};
    ASSERT_NE(loaded.dfa, nullptr);
    EXPECT_EQ(q, image.data() + image.size());
    EXPECT_EQ(row.is_valid(loaded.dfa), 1);
    EXPECT_EQ(fields(hits(loaded.dfa, "xabbbc abc ac")), fields(hits(rem.get(), "xabbbc abc ac")));
}

// ---------------------------------------------------------------- bad images

TEST(DfaImage, TooLittleSpaceWritesNothing) {
    Rem rem("abc");
    const uint32_t size = vael_dfa_calculate_size(rem.get());
    Image buf(size, 0xEE);
    unsigned char *p = buf.data();
    uint32_t space = size - 1;
    LogCapture log;
    EXPECT_EQ(vael_dfa_serialize(rem.get(), &p, &space), -1);
    EXPECT_EQ(space, size - 1);
    EXPECT_EQ(p, buf.data());
    EXPECT_EQ(buf, Image(size, 0xEE));
    EXPECT_EQ(vael_dfa_calculate_size(nullptr), 0u);
}

void put32(Image &image, size_t at, uint32_t v) { memcpy(image.data() + at, &v, 4); }
void put16(Image &image, size_t at, uint16_t v) { memcpy(image.data() + at, &v, 2); }

TEST(DfaImage, BrokenImagesAreRefusedWithTheirWords) {
    ScopedTopic dfa_topic("K_DFA", VAEL_DBG_ERR);
    Rem rem("abc");
    const Image good = image_of(rem.get());
    const size_t state0 = 16, stats = good.size() - 20;
    const struct {
        const char *what;
        void (*change)(Image &, size_t, size_t);
        const char *words;
    } rows[] = {
        {"head magic", [](Image &i, size_t, size_t) { put32(i, 0, 0x53525A4E); }, "Wrong serialization magic (53525a4e)"},
        {"state magic", [](Image &i, size_t s, size_t) { i[s] = 'X'; }, "Wrong serialization magic"},
        {"statistics magic", [](Image &i, size_t, size_t st) { i[st] = 'X'; }, "Wrong serialization magic"},
        {"absurd count", [](Image &i, size_t, size_t) { put32(i, 8, 0x00FFFFFF); }, "Illegal machine in the buffer"},
        {"count past the bytes", [](Image &i, size_t, size_t) { put32(i, 8, 4000); }, "Illegal machine in the buffer"},
        {"index size", [](Image &i, size_t, size_t) { put16(i, 14, 4); }, "Illegal machine in the buffer"},
        {"initial id", [](Image &i, size_t, size_t) { put16(i, 12, 900); }, "Illegal initial state 900"},
        {"state id", [](Image &i, size_t s, size_t) { put16(i, s + 12, 1); }, "Illegal state record 0"},
        {"table size", [](Image &i, size_t s, size_t) { put32(i, s + 8, 257); }, "Illegal state record 0"},
        {"entry past the states", [](Image &i, size_t, size_t) { put16(i, 16 + 18 + 2 * 'q', 700); }, "names no state"},
        {"no target", [](Image &i, size_t, size_t) { put16(i, 16 + 18, 0xFFFF); }, "names no state"},
        {"pattern count", [](Image &i, size_t, size_t) { put32(i, 16 + 18 + 512, 0x10000000); }, "Illegal number of pattern ids"},
        {"states list",
         [](Image &i, size_t s, size_t) {
             uint32_t patterns = 0;
             memcpy(&patterns, i.data() + s + 18 + 512, 4);
             put32(i, s + 18 + 512 + 4 + 12 * patterns, 1);
         },
         "states_list cannot be deserialized"},
    };
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    for (const auto &r : rows) {
        Image bad = good;
        r.change(bad, state0, stats);
        LogCapture log;
        Owned loaded{load_flat(bad, bad.size())};
        EXPECT_EQ(loaded.dfa, nullptr) << r.what;
        EXPECT_TRUE(log.contains(r.words)) << r.what << ": " << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start) << r.what;
    }
}

TEST(DfaImage, EveryCutIsRefusedAndEveryFlipRefusedOrSafe) {
    Rem rem("a[bc]d");
    const Image image = image_of(rem.get());
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    LogCapture quiet;
    for (size_t size = 0; size < image.size(); size++) {
        Owned loaded{load_flat(image, size)};
        EXPECT_EQ(loaded.dfa, nullptr) << "cut at " << size;
    }
    size_t accepted = 0;
    for (size_t at = 0; at < image.size(); at++) {
        for (unsigned char mask : {0x01, 0x80, 0xFF}) {
            Image bad = image;
            bad[at] ^= mask;
            Owned loaded{load_flat(bad, bad.size())};
            if (!loaded.dfa)
                continue;
            accepted++;
            for (const char *text : {"abd", "xacd abd", "aaaa\n", ""})
                hits(loaded.dfa, text);
            EXPECT_EQ(image_of(loaded.dfa).size(), image.size()) << at;
        }
    }
    EXPECT_GT(accepted, 0u);  // flips of counters and unused entries load
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

TEST(DfaImage, AMachineWithAStatesListCannotBeReadBack) {
    Owned orig{chain(3)};
    vael_dfa_state_set_correlating_state(vael_dfa_state_get_by_id(orig.dfa, 1), vael_dfa_state_get_by_id(orig.dfa, 2));
    const Image image = image_of(orig.dfa);
    LogCapture log;
    Owned loaded{load_flat(image, image.size())};
    EXPECT_EQ(loaded.dfa, nullptr);
    EXPECT_TRUE(log.contains("states_list cannot be deserialized"));
    vael_dfa_clean_states_list(orig.dfa);
}

TEST(DfaImageFailmem, EveryAllocationOfALoadFailsCleanly) {
    Rem rem("a(b|cd)*e");
    Owned two{chain(4)};
    for (vael_dfa *orig : {rem.get(), two.dfa}) {
        const Image image = image_of(orig);
        vael_dfa *copy = nullptr;
        auto cleanly = [&] { return copy == nullptr; };
        LogCapture quiet;
        auto w1 = vael_test::failmem_walk([&] { return (copy = load_flat(image, image.size())) != nullptr; }, cleanly);
        EXPECT_GT(w1.rounds, 1);
        vael_dfa_destroy(copy);
        copy = nullptr;
        auto w2 = vael_test::failmem_walk_each_allocation(
            [&] { return (copy = load_vbuf(image, 5)) != nullptr; }, cleanly);
        EXPECT_GT(w2.rounds, 1);
        vael_dfa_destroy(copy);
        copy = nullptr;
        // Writing allocates nothing: under injection it still succeeds.
        auto w3 = vael_test::failmem_walk([&] { return image_of(orig) == image; }, cleanly);
        EXPECT_EQ(w3.rounds, 1);
    }
}

}  // namespace
