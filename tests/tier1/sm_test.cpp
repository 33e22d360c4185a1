// The string matcher: random sets held against the Thin NFA and a
// brute-force matcher (flat and over cut vbufs, every folding), exact cases
// with the lengths a hit carries, the shape of a built automaton, compile
// errors, the image beside the Thin NFA's, and the failure roads of the
// compile and the image load. Seeds are fixed.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "rem/vael_dfa_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tier1/vael_sm.h"

namespace {

using vael_test::Hit;
using vael_test::Pattern;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_FROM_PM;
constexpr uint32_t kBoth = VAEL_PM_CASELESS | VAEL_PM_DIGITLESS;

vael_pmglob_patterns *make_list(const std::vector<Pattern> &patterns) {
    vael_pmglob_patterns *list = vael_pmglob_patterns_create();
    for (const auto &p : patterns) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(p.text.data()),
                                                          (uint32_t)p.text.size(), p.id, p.flags);
        EXPECT_EQ(vael_pmglob_patterns_add(list, s), 0);
        vael_pmglob_string_destroy(s);
    }
    return list;
}

// A compiled SM with the list it was compiled from.
class Sm {
  public:
    Sm(const std::vector<Pattern> &patterns, uint32_t flags) : list_(make_list(patterns)) {
        vael_pm_error_init(&err_);
        dfa_ = vael_sm_compile(list_, flags, &err_);
    }
    ~Sm() {
        vael_dfa_destroy(dfa_);
        vael_pmglob_patterns_destroy(list_);
    }
    Sm(const Sm &) = delete;
    Sm &operator=(const Sm &) = delete;

    vael_dfa *get() const { return dfa_; }
    const vael_pm_error &error() const { return err_; }
    vael_pmglob_patterns *list() const { return list_; }

    std::vector<Hit> run(const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t flags) const {
        lst_list *queue = nullptr;
        EXPECT_EQ(vael_dfa_tier1_exec(dfa_, buf, len, vbuf, 0, &queue, flags, nullptr, nullptr), 0);
        return vael_test::sorted(vael_test::drain_queue(queue));
    }
    std::vector<Hit> run(const std::string &text, uint32_t flags = kAll) const {
        return run(reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, flags);
    }

  private:
    vael_pmglob_patterns *list_;
    vael_pm_error err_;
    vael_dfa *dfa_ = nullptr;
};

std::string first_string(vael_pmglob_patterns *list) {
    uintptr_t v = 0;
    lst_iterate(list, nullptr, &v);
    const auto *s = reinterpret_cast<const vael_pmglob_string *>(v);
    return std::string(reinterpret_cast<const char *>(s->pattern), s->size);
}

// ---------------------------------------------------------------- against the Thin NFA

struct DiffRow {
    std::string alphabet;
    uint32_t flags;
    uint32_t seed;
    int rounds;
    int min_patterns;
    int max_patterns;
    int min_len;
    int max_len;
};

TEST(SmDiff, SameHitsAsTheThinNfaAndBruteForceFlatAndOverCutVbufs) {
    const DiffRow rows[] = {
        {"ab", 0, 1, 40, 1, 12, 1, 5},
        {"abc", 0, 2, 40, 1, 25, 1, 6},
        {"aAbB", VAEL_PM_CASELESS, 3, 40, 1, 20, 1, 5},
        {"a0179", VAEL_PM_DIGITLESS, 4, 40, 1, 20, 1, 5},
        {"xX05", kBoth, 5, 40, 1, 20, 1, 4},
        {std::string("\0\x01\xfe\xff", 4), 0, 6, 30, 1, 20, 1, 5},
        // More than one block of states: the run reads packed ids.
        {"abcdefghijklmnopqrstuvwxyz", 0, 7, 1, 900, 900, 10, 12},
    };
    for (const auto &row : rows) {
        std::mt19937 rng(row.seed);
        const std::string &alphabet = row.alphabet;
        auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
        auto word = [&](int lo, int hi) {
            std::string w;
            for (int n = uniform(lo, hi); n > 0; n--)
                w += alphabet[uniform(0, (int)alphabet.size() - 1)];
            return w;
        };
        for (int round = 0; round < row.rounds; round++) {
            std::vector<Pattern> patterns;
            for (int i = 0, n = uniform(row.min_patterns, row.max_patterns); i < n; i++)
                patterns.push_back({word(row.min_len, row.max_len), i});
            std::string text;
            while (text.size() < 300)
                text += uniform(0, 3) == 0 ? patterns[uniform(0, (int)patterns.size() - 1)].text : word(1, 4);
            SCOPED_TRACE("seed " + std::to_string(row.seed) + " round " + std::to_string(round));

            const Sm sm(patterns, row.flags);
            const vael_test::ThinNfa thin(patterns, row.flags);
            ASSERT_NE(sm.get(), nullptr) << sm.error().error_string;
            ASSERT_NE(thin.get(), nullptr);
            const auto want = vael_test::brute_force_all(patterns, text, row.flags);
            EXPECT_EQ(sm.run(text), want);
            EXPECT_EQ(vael_test::sorted(thin.hits(text, kAll)), want);
            EXPECT_EQ(sm.run(text, VAEL_PM_EXEC_FROM_PM), vael_test::first_per_id(want));

            std::vector<size_t> cuts;
            for (int i = uniform(1, 6); i > 0; i--)
                cuts.push_back((size_t)uniform(0, (int)text.size()));
            std::sort(cuts.begin(), cuts.end());
            const vael_test::SplitText split(text, cuts);
            std::vector<Hit> thin_split;
            thin.exec_raw(split.present(), split.present_len(), &thin_split, kAll, 0, nullptr, split.vbuf());
            EXPECT_EQ(sm.run(split.present(), split.present_len(), split.vbuf(), kAll), want);
            EXPECT_EQ(vael_test::sorted(thin_split), want);
        }
    }
}

// ---------------------------------------------------------------- exact cases

struct Expected {
    int32_t id;
    uint32_t end;
    uint32_t len;  // the hint a hit carries: the string's own length
};

TEST(SmCases, HitsLengthsAndTheFoldedList) {
    struct Row {
        const char *name;
        std::vector<Pattern> patterns;
        uint32_t flags;
        std::string text;
        std::vector<Expected> hits;
        std::string list_reads;  // the caller's first string after the compile
    };
    const Row rows[] = {
        {"suffixes end at the longer one's end", {{"abcd", 1}, {"bcd", 2}, {"cd", 3}}, 0, "xabcd",
         {{1, 4, 4}, {2, 4, 3}, {3, 4, 2}}, "abcd"},
        {"a suffix met through a fail link", {{"bcx", 1}, {"abcd", 2}, {"c", 3}}, 0, "abcx",
         {{3, 2, 1}, {1, 3, 3}}, "bcx"},
        {"overlapping repeats", {{"aa", 1}}, 0, "aaaa", {{1, 1, 2}, {1, 2, 2}, {1, 3, 2}}, "aa"},
        {"one string, two ids", {{"ab", 1}, {"ab", 2}}, 0, "ab", {{1, 1, 2}, {2, 1, 2}}, "ab"},
        {"case kept without the flag", {{"Ab", 1}}, 0, "ab AB Ab", {{1, 7, 2}}, "Ab"},
        {"caseless folds the list in place", {{"HeLLo", 1}}, VAEL_PM_CASELESS, "hello HELLO",
         {{1, 4, 5}, {1, 10, 5}}, "hello"},
        {"digitless stores 7 as 0 and hits every digit", {{"a7", 1}}, VAEL_PM_DIGITLESS, "a0 a9 a7 b1 A7",
         {{1, 1, 2}, {1, 4, 2}, {1, 7, 2}}, "a0"},
        {"both foldings", {{"X1y", 1}}, kBoth, "x9Y X0y", {{1, 2, 3}, {1, 6, 3}}, "x0y"},
        {"binary bytes", {{std::string("\0\xff", 2), 1}}, 0, std::string("\xff\0\xff\0", 4), {{1, 2, 2}},
         std::string("\0\xff", 2)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Sm sm(row.patterns, row.flags);
        ASSERT_NE(sm.get(), nullptr);
        std::vector<Hit> want;
        for (const auto &e : row.hits)
            want.push_back(Hit{e.id, e.end, 0, e.len});
        const auto got = sm.run(row.text);
        ASSERT_EQ(got, want);
        for (size_t i = 0; i < got.size(); i++)
            EXPECT_EQ(got[i].hint, want[i].hint) << "hit " << i;
        EXPECT_EQ(first_string(sm.list()), row.list_reads);
    }
}

// ---------------------------------------------------------------- shape

TEST(SmShape, EveryStateHasAllTransitionsToStatesOfTheMachine) {
    struct Row {
        const char *name;
        uint32_t flags;
        int patterns;
        int len;
        uint16_t blocks;
    };
    const Row rows[] = {
        {"small", 0, 5, 4, 1},
        {"caseless", VAEL_PM_CASELESS, 40, 6, 1},
        {"digitless", VAEL_PM_DIGITLESS, 40, 6, 1},
        {"two blocks", 0, 900, 12, 2},
    };
    std::mt19937 rng(11);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<Pattern> patterns;
        for (int i = 0; i < row.patterns; i++) {
            std::string s;
            for (int k = 0; k < row.len; k++)
                s += (char)std::uniform_int_distribution<int>(0, 255)(rng);
            patterns.push_back({s, i});
        }
        const Sm sm(patterns, row.flags);
        ASSERT_NE(sm.get(), nullptr);
        vael_dfa *dfa = sm.get();
        EXPECT_EQ(vael_dfa_is_valid(dfa), 1);
        EXPECT_EQ(dfa->num_of_blocks, row.blocks);
        // The root and one state per byte of each string at most.
        EXPECT_LE(vael_dfa_get_num_of_states(dfa), (uint32_t)(1 + row.patterns * row.len));
        uint32_t missing = 0, strays = 0, unfolded = 0;
        for (uint16_t b = 0; b < dfa->num_of_blocks; b++) {
            for (uint32_t i = 0; i < dfa->block_used[b]; i++) {
                const vael_dfa_state &s = dfa->blocks[b][i];
                for (unsigned c = 0; c < 256; c++) {
                    const uint16_t e = s.trans[c];
                    if (e == VAEL_DFA_NO_STATE)
                        missing++;
                    else if (!vael_dfa_state_get_by_id_fast(dfa, e))
                        strays++;
                    else if (e != s.trans[vael_test::fold((unsigned char)c, row.flags)])
                        unfolded++;
                }
            }
        }
        EXPECT_EQ(missing, 0u);
        EXPECT_EQ(strays, 0u);
        EXPECT_EQ(unfolded, 0u) << "a byte and its folded form must lead to one state";
    }
}

// ---------------------------------------------------------------- compile errors

std::vector<Pattern> many_random_strings() {
    std::vector<Pattern> out;
    std::mt19937 rng(3);
    for (int i = 0; i < 2200; i++) {
        std::string s;
        for (int k = 0; k < 32; k++)
            s += (char)std::uniform_int_distribution<int>(0, 255)(rng);
        out.push_back({s, i});
    }
    return out;
}

// The id of the first string whose trie path would take the machine past
// the store's last state: a trie has a state per distinct prefix, and a root.
int32_t first_over_state_limit() {
    std::set<std::string> prefixes;
    for (const auto &p : many_random_strings()) {
        for (size_t n = 1; n <= p.text.size(); n++)
            prefixes.insert(p.text.substr(0, n));
        if (1 + prefixes.size() > VAEL_DFA_MAX_STATES)
            return p.id;
    }
    return -1;
}

TEST(SmErrors, RefusedListsNameThePatternAndTheReason) {
    struct Row {
        const char *name;
        std::function<std::vector<Pattern>()> patterns;
        uint32_t type;
        std::string text;
        int32_t pattern_id;
    };
    const Row rows[] = {
        {"an empty string", [] { return std::vector<Pattern>{{"ab", 1}, {"", 5}}; }, VAEL_PM_ERROR_ILLEGAL,
         "Empty pattern", 5},
        {"more states than the store holds", many_random_strings, VAEL_PM_ERROR_COMPLEX,
         "The strings need more states than the string matcher can hold", first_over_state_limit()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const intptr_t before = vael_pmglob_memory_get_alloc_total();
        {
            vael_test::LogCapture quiet;
            const Sm sm(row.patterns(), 0);
            EXPECT_EQ(sm.get(), nullptr);
            ASSERT_NE(sm.error().error_string, nullptr);
            EXPECT_EQ(std::string(sm.error().error_string), row.text);
            EXPECT_EQ(sm.error().error_type, row.type);
            EXPECT_EQ(sm.error().pattern_id, row.pattern_id);
            EXPECT_FALSE(quiet.contains("Assert")) << quiet.text();
        }
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
    }
}

// ---------------------------------------------------------------- images

using Image = std::vector<unsigned char>;
using Hits = std::set<std::pair<int32_t, uint32_t>>;

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *) {
    static_cast<Hits *>(arg)->insert({id, offset});
    return 0;
}

// Stops and starts the library with the string engine of the row.
void restart(int use_thin_nfa) {
    vael_apps_fini();
    vael_pm_tier1_use_thin_nfa = use_thin_nfa;
    ASSERT_EQ(vael_apps_init(nullptr), 0);
}

Hits scan(vael_pm_handle *pm, const std::string &text) {
    Hits hits;
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                              nullptr, nullptr, &hits, VAEL_PM_EXEC_ALL_MATCHES),
              0);
    return hits;
}

TEST(SmImage, APmImageLoadsOnlyUnderTheEngineThatWroteIt) {
    struct Row {
        int writer_thin;
        int reader_thin;
        const char *refusal;  // null: it loads and finds what the writer found
    };
    const Row rows[] = {
        {0, 0, nullptr},
        {1, 1, nullptr},
        {0, 1, "Trying to deserialize a DFA, not a Thin NFA"},
        {1, 0, "Trying to deserialize a Thin NFA, not an SM DFA"},
    };
    const std::string text = "ushers say she HERS his hers";
    const int saved = vael_pm_tier1_use_thin_nfa;
    for (const auto &row : rows) {
        SCOPED_TRACE("writer thin " + std::to_string(row.writer_thin) + ", reader thin " +
                     std::to_string(row.reader_thin));
        restart(row.writer_thin);
        EXPECT_STREQ(pm_tier1_funcs[VAEL_PM_TIER1_STRING].name, row.writer_thin ? "Thin NFA" : "SM");
        vael_pm_patterns *list = vael_pm_patterns_create();
        int id = 1;
        for (const char *p : {"he", "she", "his", "hers"})
            ASSERT_EQ(vael_pm_patterns_add_simple_pattern(list, p, (uint32_t)strlen(p), id++, 0), 0);
        vael_pm_error err;
        vael_pm_handle *pm = vael_pm_compile(list, collect, VAEL_PM_CASELESS, &err, "sm image test");
        vael_pm_patterns_destroy(list);
        ASSERT_NE(pm, nullptr);
        const Hits want = scan(pm, text);
        EXPECT_EQ(want.size(), 10u);
        unsigned char *buf = nullptr;
        uint32_t size = 0;
        ASSERT_EQ(vael_pm_serialize(pm, &buf, &size), 0);
        const Image image(buf, buf + size);
        vael_pmglob_memory_kfree_ex_(buf, size, __func__, __FILE__, __LINE__);
        vael_pm_destroy(pm);

        restart(row.reader_thin);
        const vael_test::ScopedTopic thin_topic("K_THINNFA", VAEL_DBG_ERR);
        vael_test::LogCapture log;
        vael_pm_handle *loaded = vael_pm_deserialize(image.data(), (uint32_t)image.size(), collect, "sm image test");
        if (row.refusal) {
            EXPECT_EQ(loaded, nullptr);
            EXPECT_TRUE(log.contains(row.refusal)) << log.text();
        } else {
            ASSERT_NE(loaded, nullptr) << log.text();
            EXPECT_EQ(scan(loaded, text), want);
        }
        vael_pm_destroy(loaded);
    }
    restart(saved);
}

Image sm_image(vael_dfa *dfa) {
    Image image(vael_dfa_calculate_size(dfa));
    unsigned char *at = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vael_dfa_serialize(dfa, &at, &space), 0);
    EXPECT_EQ(space, 0u);
    return image;
}

vael_dfa *sm_load(const Image &image) {
    vael_pm_tier1_funcs row;
    vael_sm_init(&row);
    const unsigned char *at = image.data();
    uint32_t space = (uint32_t)image.size();
    return static_cast<vael_dfa *>(row.deserialize(&at, &space, nullptr, nullptr));
}

TEST(SmImage, CutOrFlippedImagesAreRefusedOrRunSafely) {
    const Sm sm({{"ab", 1}, {"b", 2}}, VAEL_PM_CASELESS);
    ASSERT_NE(sm.get(), nullptr);
    const Image image = sm_image(sm.get());
    vael_dfa *whole = sm_load(image);
    ASSERT_NE(whole, nullptr);
    const std::string text = "xAbab b";
    {
        lst_list *queue = nullptr;
        ASSERT_EQ(vael_dfa_exec(whole, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                nullptr, 0, &queue, kAll, nullptr),
                  0);
        EXPECT_EQ(vael_test::sorted(vael_test::drain_queue(queue)), sm.run(text));
        vael_dfa_destroy(whole);
    }
    vael_test::LogCapture quiet;
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    for (size_t cut = 0; cut < image.size(); cut++) {
        const Image part(image.begin(), image.begin() + (long)cut);
        EXPECT_EQ(sm_load(part), nullptr) << "cut at " << cut;
    }
    int loaded = 0;
    for (size_t at = 0; at < image.size(); at++) {
        for (unsigned char bit : {0x01, 0x80}) {
            Image flipped = image;
            flipped[at] ^= bit;
            vael_dfa *dfa = sm_load(flipped);
            if (!dfa)
                continue;
            loaded++;
            EXPECT_EQ(vael_dfa_is_valid(dfa), 1) << "flip at " << at;
            lst_list *queue = nullptr;
            vael_dfa_exec(dfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr,
                          0, &queue, kAll, nullptr);
            vael_test::drain_queue(queue);
            vael_dfa_destroy(dfa);
        }
    }
    EXPECT_GT(loaded, 0) << "flips of a transition entry still make a machine";
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
}

// ---------------------------------------------------------------- failure roads

TEST(SmFailmem, CompileAndImageLoadFailCleanlyAtEveryAllocation) {
    const std::vector<Pattern> patterns = {{"He", 1}, {"SHE", 2}, {"his", 3}, {"hers", 4}, {"7up", 5}};
    vael_test::LogCapture quiet;
    {
        vael_pmglob_patterns *list = make_list(patterns);
        vael_pm_error err;
        vael_dfa *dfa = nullptr;
        const auto walk = vael_test::failmem_walk_each_allocation(
            [&] {
                vael_pm_error_init(&err);
                return (dfa = vael_sm_compile(list, kBoth, &err)) != nullptr;
            },
            [&] { return dfa == nullptr && err.error_string != nullptr; });
        EXPECT_GT(walk.injected, 10);
        EXPECT_EQ(vael_dfa_is_valid(dfa), 1);
        const Image image = sm_image(dfa);
        vael_dfa_destroy(dfa);
        vael_pmglob_patterns_destroy(list);

        vael_dfa *loaded = nullptr;
        const auto load_walk = vael_test::failmem_walk_each_allocation([&] { return (loaded = sm_load(image)) != nullptr; },
                                                                       [&] { return loaded == nullptr; });
        EXPECT_GT(load_walk.injected, 1);
        EXPECT_EQ(vael_dfa_calculate_size(loaded), image.size());
        vael_dfa_destroy(loaded);
    }
}

}  // namespace
