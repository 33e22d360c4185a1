// A PM's copies: one loaded from its image and one made by vael_pm_duplicate scan exactly like the PM they came from;
// one image loaded twice is one PM; a broken image (cut, flipped, wrong magics, absurd sizes) is refused or loads to
// a PM that validates and scans safely; a row that cannot copy or travel fails cleanly, always with the memory
// accounts back where they started.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "rem/vael_dfa_internal.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_wm.h"

namespace {

using vael_test::LogCapture;
using vael_pm_test::collect;
using vael_pm_test::Hits;
using vael_pm_test::Rec;
using vael_pm_test::run;
using Image = std::vector<unsigned char>;

vael_pm_handle *compile(const std::vector<Rec> &recs) { return vael_pm_test::compile(recs, 100, "image test"); }

Image save(vael_pm_handle *pm) {
    unsigned char *buf = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(vael_pm_serialize(pm, &buf, &size), 0);
    Image image(buf, buf + size);
    if (buf)
        vael_pmglob_memory_kfree_ex_(buf, size, __func__, __FILE__, __LINE__);
    return image;
}

vael_pm_handle *load(const Image &image) {
    return vael_pm_deserialize(image.data(), (uint32_t)image.size(), collect, "image test load");
}

// Texts made of pieces that each kind of PM below finds, or nearly finds.
std::vector<std::string> texts() {
    const std::vector<std::string> pieces = {"GET /", "HOST:", "host:", "password", "abc123de", "abcde", "user=ab;",
                                             "cmd.exe", "axab", "k=1 ", "k=9 ", " free ", "money", "Free Money",
                                             " ", "\n", "a", "1", "\xff", std::string("\0", 1)};
#if defined(__SANITIZE_ADDRESS__)
    const int n = 25;
#else
    const int n = 60;
#endif
    std::mt19937 rng(11);
    std::vector<std::string> out(n);
    for (std::string &t : out)
        for (int k = rng() % 24; k > 0; k--)
            t += pieces[rng() % pieces.size()];
    return out;
}

struct RoundTrip { const char *name; std::vector<Rec> recs; };

// One row per kind of PM.
const std::vector<RoundTrip> kRoundTrips = {
    {"strings", {{'s', "GET /"}, {'s', "password"}, {'s', "abc"}, {'s', "a"}}},
    {"caseless", {{'s', "host:", VAEL_PM_CASELESS}, {'s', "PassWord", VAEL_PM_CASELESS}}},
    {"regex by PCRE", {{'p', "abc[0-9]+de"}, {'p', "user=[a-z]{2,5};"}, {'p', "(cmd|exec)\\.exe"}}},
    {"regex by REM", {{'r', "abc[0-9]+de"}, {'r', "user=[a-z]{2,5};"}, {'r', "x[^y]*yz"}}},
    {"keyword rules",
     {{'k', R"(data: "a", relative; data: "b", relative, depth 1;)", 0, "ax"},
      {'k', R"(data: "k="; test: 1, =, 0x39, 0, relative;)", 0, "k="}}},
    {"words", {{'w', "free money"}, {'w', "password"}}},
    {"mixed",
     {{'s', "GET /"}, {'s', "host:", VAEL_PM_CASELESS}, {'p', "x[^y]*yz", VAEL_PM_CASELESS},
      {'p', "abc[0-9]+de"}, {'r', "(cmd|exec)\\.exe"}, {'w', "money"},
      {'k', R"(data: "k="; test: 1, =, 0x39, 0, relative;)", 0, "k="}}},
};

TEST(PmImage, LoadedAndDuplicatedPmsScanLikeTheOriginal) {
    const auto all = texts();
    vael_test::ScopedGlobal sanity(vael_pm_serialize_during_sanity_check, 0);
    for (const RoundTrip &row : kRoundTrips) {
        SCOPED_TRACE(row.name);
        vael_pm_handle *pm = compile(row.recs);
        ASSERT_NE(pm, nullptr);
        std::vector<Hits> want;
        for (const std::string &t : all)
            for (uint32_t flags : {0u, VAEL_PM_EXEC_ALL_MATCHES})
                want.push_back(run(pm, t, flags));
        const Image image = save(pm);
        ASSERT_FALSE(image.empty());
        vael_pm_serialize_during_sanity_check = 1;
        const Image sane = save(pm);
        vael_pm_serialize_during_sanity_check = 0;
        const vael_pm_handle before = *pm;
        // The copy is a PM of its own, with its own handles and texts.
        vael_pm_handle *copy = vael_pm_duplicate(pm, "the copy");
        ASSERT_NE(copy, nullptr);
        EXPECT_NE(std::memcmp(copy->uuid, pm->uuid, 16), 0) << "a copy is a PM of its own";
        // The original goes first: while it lives, a load of its image is it.
        vael_pm_destroy(pm);
        vael_pm_handle *loaded = load(image);
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(std::memcmp(loaded->uuid, before.uuid, 16), 0);
        EXPECT_EQ(loaded->stats.compile_time, before.stats.compile_time);  // the sane image leaves times out
        size_t k = 0;
        for (const std::string &t : all)
            for (uint32_t flags : {0u, VAEL_PM_EXEC_ALL_MATCHES}) {
                ASSERT_EQ(run(loaded, t, flags), want[k]) << t;
                ASSERT_EQ(run(copy, t, flags), want[k++]) << "copy: " << t;
            }
        // The loaded PM writes the image it came from, but for its times.
        vael_pm_serialize_during_sanity_check = 1;
        EXPECT_EQ(save(loaded), sane);
        vael_pm_serialize_during_sanity_check = 0;
        vael_pm_destroy(loaded);
        vael_pm_destroy(copy);
    }
}

// A hit is counted from 0 after a load; a second load of a loaded image is
// the same PM, holding one more reference and taking the new callback.
TEST(PmImage, SameImageIsOnePm) {
    vael_pm_handle *pm = compile(kRoundTrips[0].recs);
    ASSERT_NE(pm, nullptr);
    run(pm, "GET / password", 0);
    const Image image = save(pm);
    vael_pm_destroy(pm);  // the uuid is free again: the next load builds
    vael_pm_handle *a = load(image);
    ASSERT_NE(a, nullptr);
    for (uint32_t i = 0; i < a->num_tier2; i++)
        EXPECT_EQ(a->pm_array[i].tier1_matches + a->pm_array[i].matches, 0u);
    const intptr_t pm_before = vael_pmglob_memory_get_alloc_total();
    vael_pm_handle *b = vael_pm_deserialize(image.data(), (uint32_t)image.size(), nullptr, "second holder");
    EXPECT_EQ(b, a);
    EXPECT_EQ(a->refcount, 2u);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_before);
    EXPECT_EQ(a->match_cb[vael_multik_this_instance_num], nullptr);
    vael_pm_destroy(b);
    EXPECT_EQ(a->magic, VAEL_PM_MAGIC_ALIVE);
    EXPECT_EQ(a->refcount, 1u);
    vael_pm_destroy(a);
}

// Every cut and every single-byte change of a small image: refused, or a PM that validates and scans; the accounts
// end where they started.
TEST(PmImage, CutsAndFlipsAreSafe) {
    LogCapture quiet;
    // One full state (the root) is enough of that kind; the image stays small,
    // and every byte of it is cut at and flipped.
    vael_test::ScopedGlobal one_full_tier(vael_thin_nfa_full_tiers_num, 1);
    vael_pm_handle *pm = compile({{'s', "he"},
                                  {'k', R"(data: "s"; data: "h", relative, depth 1;)", 0, "sh"},
                                  {'p', "s[eh]l+s"}});
    ASSERT_NE(pm, nullptr);
    Image image = save(pm);
    vael_pm_destroy(pm);
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    // The word matcher's fold buffer is shared and kept at its largest; a
    // phrase of a load is never longer than the image.
    ASSERT_EQ(vael_wm_validate_phrase_temp_buffer((uint32_t)image.size()), 0);
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);  // cells kept by earlier runs
    auto kmem = [] { return qx_kmem_get_alloc_total(); };
    const intptr_t kmem_start = kmem();
    for (size_t cut = 0; cut < image.size(); cut++) {
        // A copy of exactly the cut size, so that ASan sees a read past it.
        Image part(image.begin(), image.begin() + (long)cut);
        EXPECT_EQ(vael_pm_deserialize(part.empty() ? nullptr : part.data(), (uint32_t)cut, collect, "cut"), nullptr)
            << cut;
    }
    // The stored PCRE program: PCRE's magic word, its size in front.
    const uint32_t pcre_magic = 0x50435245u;
    const auto program = std::search(image.begin(), image.end(), reinterpret_cast<const unsigned char *>(&pcre_magic),
                                     reinterpret_cast<const unsigned char *>(&pcre_magic) + 4);
    ASSERT_NE(program, image.end());
    uint32_t program_size;
    std::memcpy(&program_size, &*(program - 4), 4);
    const size_t program_at = (size_t)(program - image.begin());
    int loaded = 0;
    const std::string text = "she sells his hers shi he";
    for (size_t at = 0; at < image.size(); at++) {
        for (unsigned char x : {0x01, 0xff}) {
            Image bad = image;
            bad[at] ^= x;
            vael_pm_handle *p = load(bad);
            if (!p)
                continue;
            EXPECT_FALSE(at >= program_at && at < program_at + program_size) << "a changed PCRE program loads: " << at;
            loaded++;
            EXPECT_EQ(vael_pm_validate(p), 0);
            // A run may refuse what the rule now says (-1); it must not fault.
            Hits hits;
            for (uint32_t flags : {0u, VAEL_PM_EXEC_ALL_MATCHES})
                vael_pm_exec_ex(p, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                nullptr, nullptr, &hits, flags);
            vael_pm_destroy(p);
        }
    }
    EXPECT_GT(loaded, 0);  // flips in ids and statistics load
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
    EXPECT_EQ(kmem(), kmem_start);
}

// Refusals by the field at fault: the line in the log and no PM.
TEST(PmImage, BrokenFieldsAreRefusedWithTheirText) {
    vael_pm_handle *pm = compile({{'s', "abc"}, {'p', "de[0-9]f"}});
    ASSERT_NE(pm, nullptr);
    const Image good = save(pm);
    vael_pm_destroy(pm);
    const uint32_t rec0 = 32;  // the first record follows the header
    const uint32_t end = (uint32_t)good.size();
    // A row writes `value` at `at`; UINT32_MAX appends it instead.
    const struct { const char *name; uint32_t at, value; const char *text; } cases[] = {
        {"image magic", 0, 0x12345678u, "Wrong serialization magic (12345678)"},
        {"PM magic", 20, 0x706d6665u, "Wrong PM magic (706d6665) at the buffer"},
        {"count absurd", 28, 0x7fffffffu, "No space left in the buffer after vael_ex_tier2_deserialize"},
        {"count zero", 28, 0, "Number of patterns (num_tier2) in the buffer is 0 (illegal)"},
        {"record magic", rec0, 0x53525A44u, "Wrong serialization magic (53525a44) at the buffer"},
        {"LSS size zero", rec0 + 12, 0, "Illegal LSS size in the buffer"},
        {"LSS size absurd", rec0 + 12, 0xfffffff0u, "Wrong serialization magic (0) at the buffer"},
        {"statistics magic", end - 32, 0x53525A4Eu, "Wrong serialization magic (53525a4e) at the buffer (2)"},
        {"extra bytes", UINT32_MAX, 0, "wrong serialization buffer size, left 4 bytes"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Image bad = good;
        if (c.at == UINT32_MAX)
            bad.insert(bad.end(), 4, 0);
        else
            std::memcpy(bad.data() + c.at, &c.value, 4);
        LogCapture log;
        vael_test::ScopedTopic topic("K_PM", VAEL_DBG_INFO);
        EXPECT_EQ(load(bad), nullptr);
        EXPECT_TRUE(log.contains(c.text)) << log.text();
    }
}

// The run indexes patterns by what the first tier reports unchecked: an image whose first tier names an id past the
// pattern count is refused at load, the last id is not, under either string engine.
TEST(PmImage, FirstTierIdsAreCheckedOnceAtLoad) {
    // The id written over the one "abc" reports, and the refusal (null: the image loads).
    const struct { const char *name; uint32_t id; const char *text; } cases[] = {
        {"the last pattern", 1, nullptr},
        {"one past the count", 2, "First tier reports pattern id 2, but the PM has 2 patterns\n"},
        {"the largest id", UINT32_MAX, "First tier reports pattern id 4294967294, but the PM has 2 patterns\n"},
    };
    // Rewrites every record of internal id 0 in the engine's states.
    auto rewrite_thin = [](void *h, uint32_t id) {
        auto *nfa = static_cast<vael_thin_nfa *>(h);
        for (uint32_t state = 0; state < nfa->state_num; state++)
            for (vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state]; p; p = p->next)
                if (p->id == 0)
                    p->id = id;
    };
    auto rewrite_sm = [](void *h, uint32_t id) {
        auto *dfa = static_cast<vael_dfa *>(h);
        for (uint32_t state = 0; state < dfa->current_state_id; state++)
            for (vael_dfa_pattern_id *p = vael_dfa_state_get_by_id(dfa, state)->patterns; p; p = p->next)
                if (p->pattern_id == 0)
                    p->pattern_id = (int32_t)id;
    };
    const struct { int thin; void (*rewrite)(void *, uint32_t); } engines[] = {{1, rewrite_thin}, {0, rewrite_sm}};
    const int saved = vael_pm_tier1_use_thin_nfa;
    for (const auto &engine : engines) {
        vael_apps_fini();
        vael_pm_tier1_use_thin_nfa = engine.thin;
        ASSERT_EQ(vael_apps_init(nullptr), 0);
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(c.name) + (engine.thin ? ", Thin NFA" : ", SM"));
            vael_pm_handle *pm = compile({{'s', "abc"}, {'s', "de"}});
            ASSERT_NE(pm, nullptr);
            ASSERT_EQ(pm->tier1[0].tier1_type, (uint32_t)VAEL_PM_TIER1_STRING);
            engine.rewrite(pm->tier1[0].tier1_h, c.id);
            const Image image = save(pm);
            vael_pm_destroy(pm);
            const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
            LogCapture log;
            vael_test::ScopedTopic pm_topic("K_PM", VAEL_DBG_ERR);
            vael_test::ScopedTopic thin_topic("K_THINNFA", VAEL_DBG_NOTICE);
            vael_pm_handle *loaded = load(image);
            EXPECT_EQ(loaded == nullptr, c.text != nullptr);
            if (c.text) {
                EXPECT_TRUE(log.contains(std::string("vael_tier1_deserialize: ") + c.text)) << log.text();
            }
            const size_t proof = log.text().find("validation succeeded");
            if (engine.thin) {
                EXPECT_NE(proof, std::string::npos) << log.text();
                EXPECT_EQ(log.text().find("validation succeeded", proof + 1), std::string::npos) << "proven once";
            }
            if (loaded) {
                // "abc" now reports the second pattern, whose user id is 101.
                EXPECT_EQ(run(loaded, "xabcx", 0), (Hits{{101, 3}}));
                vael_pm_destroy(loaded);
            }
            EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
        }
    }
    vael_apps_fini();
    vael_pm_tier1_use_thin_nfa = saved;
    ASSERT_EQ(vael_apps_init(nullptr), 0);
}

// Every allocation of the writer, the reader and the duplicate fails once.
TEST(PmImage, FailInjectionWalks) {
    std::vector<Rec> recs = kRoundTrips.back().recs;
    recs.push_back({'s', "a long string, " + std::string(200, 'x')});
    vael_pm_handle *pm = compile(recs);
    ASSERT_NE(pm, nullptr);
    unsigned char *buf = nullptr;
    uint32_t size = 0;
    auto w = vael_test::failmem_walk_each_allocation([&] { return vael_pm_serialize(pm, &buf, &size) == 0; },
                                                     [&] { return buf == nullptr && size == 0; });
    EXPECT_GE(w.rounds, 2);
    const Image image(buf, buf + size);
    vael_pmglob_memory_kfree_ex_(buf, size, __func__, __FILE__, __LINE__);
    const std::string text = "GET / k=9 abc12de";
    const Hits want = run(pm, text, 0);
    EXPECT_EQ(want.size(), 3u);

    vael_pm_handle *copy = nullptr;
    w = vael_test::failmem_walk_each_allocation([&] { return (copy = vael_pm_duplicate(pm, "walk")) != nullptr; },
                                                [&] { return copy == nullptr; });
    EXPECT_GT(w.rounds, 10);
    EXPECT_EQ(run(copy, text, 0), want);
    vael_pm_destroy(copy);
    vael_pm_destroy(pm);

    vael_pm_handle *loaded = nullptr;
    w = vael_test::failmem_walk_each_allocation([&] { return (loaded = load(image)) != nullptr; },
                                                [&] { return loaded == nullptr; });
    EXPECT_GT(w.rounds, 10);
    EXPECT_EQ(run(loaded, text, 0), want);
    vael_pm_destroy(loaded);
}

// The vbuf reader takes an image split in blocks of any size.
TEST(PmImage, LoadsFromVbuf) {
    vael_pm_handle *pm = compile(kRoundTrips.back().recs);
    ASSERT_NE(pm, nullptr);
    Image image = save(pm);
    const Hits want = run(pm, "GET / k=9 xAyz money", VAEL_PM_EXEC_ALL_MATCHES);
    vael_pm_destroy(pm);
    for (uint32_t block : {1u, 3u, 64u, 100000u}) {
        SCOPED_TRACE(block);
        vael_vbuf *vbuf = vael_vbuf_create(UINT32_MAX, 0);
        for (size_t at = 0; at < image.size(); at += block)
            vael_vbuf_add_buffer_ex(vbuf, image.data() + at, (uint32_t)std::min<size_t>(block, image.size() - at),
                                    nullptr, nullptr);
        vael_pm_handle *p = vael_pm_deserialize_vbuf(vbuf, (uint32_t)image.size(), collect, "vbuf");
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(run(p, "GET / k=9 xAyz money", VAEL_PM_EXEC_ALL_MATCHES), want);
        vael_pm_destroy(p);
        LogCapture quiet;
        EXPECT_EQ(vael_pm_deserialize_vbuf(vbuf, (uint32_t)image.size() - 1, collect, "vbuf cut"), nullptr);
        vael_vbuf_destroy(vbuf);
    }
}

}  // namespace
