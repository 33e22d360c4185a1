// The DFA image: read back it runs like its writer; damaged it is refused or runs safely.
#include <gtest/gtest.h>

#include <random>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::chain;
using vael_test::LogCapture;
using Image = std::vector<unsigned char>;

Image image_of(vael_dfa *dfa) {
    return vael_test::write_image(vael_dfa_calculate_size(dfa), [&](auto at, auto space) {
        return vael_dfa_serialize(dfa, at, space);
    });
}

// The first `size` bytes in an exact-size copy (a read past it is ASan's),
// read flat through the row's slot, or from a vbuf of blocks of `block`.
vael_dfa *load(const Image &image, size_t size, size_t block = 0) {
    Image cut(image.begin(), image.begin() + (long)size);
    uint32_t space = (uint32_t)size;
    if (!block) {
        const unsigned char *p = cut.data();
        auto *dfa = static_cast<vael_dfa *>(pm_tier2_funcs[VAEL_PM_TIER2_REM].deserialize(&p, &space, nullptr, nullptr));
        EXPECT_TRUE(!dfa || p == cut.data() + size);
        return dfa;
    }
    vael_vbuf *vbuf = vael_test::vbuf_of(cut.data(), size, block);
    vael_vbuf_iter iter{};
    vael_dfa *dfa = vael_dfa_deserialize(nullptr, &space, vbuf, &iter);
    vael_vbuf_destroy(vbuf);
    return dfa;
}

// Every hit field by field: the hint and the flags come from the states.
std::vector<std::vector<uint32_t>> hits(vael_dfa *dfa, const std::string &text) {
    lst_list *queue = nullptr;
    vael_dfa_exec(dfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, 0, &queue,
                  VAEL_PM_EXEC_ALL_MATCHES, nullptr);
    std::vector<std::vector<uint32_t>> out;
    for (const vael_test::Hit &h : vael_test::drain_queue(queue))
        out.push_back({(uint32_t)h.id, h.offset, h.match_flags, h.hint});
    return out;
}

struct Owned {
    vael_dfa *dfa = nullptr;
    ~Owned() { vael_dfa_destroy(dfa); }
};

TEST(DfaImage, LoadedMachinesRunLikeTheirWriters) {
    const char *patterns[] = {"abc", "a[0-9]+b", "^ab|cd$", "(ab|ba)*c", "x.{2}y", "[^a]bc", "(a|b)*abb", "0{2,4}1"};
    std::vector<std::pair<std::string, vael_dfa *>> machines;
    std::vector<std::unique_ptr<vael_test::Rem>> rems;
    for (const char *p : patterns) {
        rems.push_back(std::make_unique<vael_test::Rem>(p, vael_test::kRemDotAll, p[0] == 'x' ? VAEL_PM_CASELESS : 0));
        machines.emplace_back(p, rems.back()->get());
    }
    Owned one{chain(3)}, several{chain(VAEL_DFA_BLOCK_STATES + 20)};
    machines.emplace_back("chain of 3", one.dfa);
    machines.emplace_back("chain of two blocks", several.dfa);
    std::mt19937 rng(7);
    for (const auto &[what, orig] : machines) {
        ASSERT_NE(orig, nullptr) << what;
        const Image image = image_of(orig);
        const bool big = image.size() > 100000;  // a vbuf of small blocks would be millions of records
        for (size_t block : big ? std::vector<size_t>{0, 4096} : std::vector<size_t>{0, 1, 7, 64}) {
            Owned loaded{load(image, image.size(), block)};
            ASSERT_NE(loaded.dfa, nullptr) << what << " block " << block;
            EXPECT_EQ(vael_dfa_is_valid(loaded.dfa), 1);
            EXPECT_EQ(image_of(loaded.dfa), image) << what;
            std::vector<std::string> texts = {std::string(VAEL_DFA_BLOCK_STATES + 30, 'a')};
            for (int i = 0; i < 30; i++)
                texts.push_back(vael_test::random_word(rng, "abcdxyAB01\n", 0, 23));
            for (const std::string &text : texts)
                EXPECT_EQ(hits(loaded.dfa, text), hits(orig, text)) << what << " over '" << text.substr(0, 30) << "'";
        }
    }
}

void put(Image &image, size_t at, uint32_t v, size_t n = 4) { memcpy(image.data() + at, &v, n); }
uint32_t get(const Image &image, size_t at) {
    uint32_t v;
    memcpy(&v, image.data() + at, 4);
    return v;
}

TEST(DfaImage, BrokenImagesAreRefusedWithTheirWords) {
    vael_test::ScopedTopic topic("K_DFA", VAEL_DBG_ERR);
    vael_test::Rem rem("abc");
    const Image good = image_of(rem.get());
    const size_t table = 16 + 18, patterns = table + 512, stats = good.size() - 20;
    const struct { const char *what; size_t at; uint32_t value; size_t bytes; const char *words; } rows[] = {
        {"head magic", 0, 0x53525A4E, 4, "Wrong serialization magic (53525a4e)"},
        {"state magic", 16, 0, 1, "Wrong serialization magic"},
        {"statistics magic", stats, 0, 1, "Wrong serialization magic"},
        {"absurd count", 8, 0x00FFFFFF, 4, "Illegal machine in the buffer"},
        {"count past the bytes", 8, 4000, 4, "Illegal machine in the buffer"},
        {"index size", 14, 4, 2, "Illegal machine in the buffer"},
        {"initial id", 12, 900, 2, "Illegal initial state 900"},
        {"state id", 16 + 12, 1, 2, "Illegal state record 0"},
        {"table size", 16 + 8, 257, 4, "Illegal state record 0"},
        {"entry past the states", table + 2 * 'q', 700, 2, "names no state"},
        {"no target", table, 0xFFFF, 2, "names no state"},
        {"pattern count", patterns, 0x10000000, 4, "Illegal number of pattern ids"},
        {"states list", patterns + 4 + 12 * get(good, patterns), 1, 4, "states_list cannot be deserialized"},
    };
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    for (const auto &r : rows) {
        Image bad = good;
        put(bad, r.at, r.value, r.bytes);
        LogCapture log;
        Owned loaded{load(bad, bad.size())};
        EXPECT_EQ(loaded.dfa, nullptr) << r.what;
        EXPECT_TRUE(log.contains(r.words)) << r.what << ": " << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start) << r.what;
    }
    // One byte short of the size: nothing is written.
    Image buf(good.size(), 0xEE);
    unsigned char *p = buf.data();
    uint32_t space = (uint32_t)good.size() - 1;
    LogCapture log;
    EXPECT_EQ(vael_dfa_serialize(rem.get(), &p, &space), -1);
    EXPECT_TRUE(p == buf.data() && space == good.size() - 1 && buf == Image(good.size(), 0xEE));
}

TEST(DfaImage, EveryCutIsRefusedAndEveryFlipRefusedOrSafe) {
    vael_test::Rem rem("a[bc]d");
    const Image image = image_of(rem.get());
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    LogCapture quiet;
    // Every third size read from a vbuf of blocks of 5.
    auto read = [](const Image &bytes) { return load(bytes, bytes.size(), bytes.size() % 3 == 0 ? 5 : 0); };
    const int accepted = vael_test::damage_walk(image, read, [](vael_dfa *dfa) {
        for (const char *text : {"abd", "xacd abd", "aaaa\n"})
            hits(dfa, text);
        vael_dfa_destroy(dfa);
    });
    EXPECT_GT(accepted, 0);  // flips of counters and of entries to other states load
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

TEST(DfaImageFailmem, EveryAllocationOfALoadFailsCleanly) {
    vael_test::Rem rem("a(b|cd)*e");
    Owned two{chain(4)};
    for (vael_dfa *orig : {rem.get(), two.dfa}) {
        const Image image = image_of(orig);
        vael_dfa *copy = nullptr;
        auto cleanly = [&] { return copy == nullptr; };
        LogCapture quiet;
        EXPECT_GT(vael_test::failmem_walk([&] { return (copy = load(image, image.size())) != nullptr; }, cleanly).rounds, 1);
        vael_dfa_destroy(copy);
        EXPECT_GT(vael_test::failmem_walk_each_allocation([&] { return (copy = load(image, image.size(), 5)) != nullptr; },
                                                          cleanly).rounds,
                  1);
        vael_dfa_destroy(copy);
        copy = nullptr;
        // Writing allocates nothing: under injection it succeeds at once.
        EXPECT_EQ(vael_test::failmem_walk([&] { return image_of(orig) == image; }, cleanly).rounds, 1);
    }
}

}  // namespace
