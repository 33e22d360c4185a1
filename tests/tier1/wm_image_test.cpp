// The word matcher's image, its duplicate, and every allocation failure of
// compile, duplicate and load with the byte accounts back where they were.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tests/tier1/wm_test_util.h"

namespace {

using namespace vael_wm_test;

void put_u32(std::vector<unsigned char> &image, size_t at, uint32_t v) { std::memcpy(image.data() + at, &v, 4); }

// Phrases of every kind: caseless, continuous, non-ASCII, one filed under
// its second word, two in one bucket.
std::vector<Word> sample_words() {
    std::vector<Word> words;
    for (int i = 0; i < 21; i++)
        words.push_back({"common w" + std::to_string(100 + i), i + 1});
    words.push_back({"\xC3\xA9t\xC3\xA9", 30, VAEL_PM_CASELESS});
    words.push_back({"ab", 31, VAEL_PM_CONTINUOUS_WORD});
    words.push_back({"foo", 32});
    words.push_back({"foo", 33, VAEL_PM_CASELESS});
    return words;
}

const char *const kTexts[] = {"common w120, common w100", "\xC3\x89T\xC3\x89 xaby", "foo FOO", "nothing here"};

void expect_same_behaviour(const vael_wm_handle *a, const vael_wm_handle *b) {
    for (const char *t : kTexts)
        EXPECT_EQ(sorted(run(a, t)), sorted(run(b, t))) << t;
}

TEST(WordMatcherImage, RoundTrip) {
    auto h = compile(sample_words());
    ASSERT_TRUE(h);
    const auto image = image_of(h.get());
    ASSERT_EQ(image.size(), 20 + h->phrases_len + 14 * h->phrases_num + 24);
    EXPECT_EQ(std::string(image.begin(), image.begin() + 4), "HZRS");
    auto loaded = load(image, (uint32_t)image.size());
    ASSERT_TRUE(loaded);
    expect_same_behaviour(h.get(), loaded.get());
    // Each bucket comes back reversed, so twice is the original: counts and
    // statistics included.
    auto twice = load(image_of(loaded.get()), (uint32_t)image.size());
    ASSERT_TRUE(twice);
    EXPECT_EQ(image_of(twice.get()), image);

    // From a vbuf whose blocks cut through fields and phrases.
    vael_vbuf *vbuf = vael_test::vbuf_of(image.data(), image.size(), 7);
    vael_vbuf_iter iter{};
    uint32_t space = (uint32_t)image.size();
    Handle streamed(static_cast<vael_wm_handle *>(vael_wm_deserialize(nullptr, &space, vbuf, &iter)));
    vael_vbuf_destroy(vbuf);
    ASSERT_TRUE(streamed);
    EXPECT_EQ(space, 0u);
    expect_same_behaviour(h.get(), streamed.get());
}

// Every cut is refused; named damage is refused with its text; any other
// single-byte change is refused or gives a handle that scans safely.
TEST(WordMatcherImage, DamageIsRefused) {
    auto cut_me = compile({{"foo bar", 1}, {"x", 2, VAEL_PM_CONTINUOUS_WORD}, {"\xC3\xA9t\xC3\xA9", 3}});
    ASSERT_TRUE(cut_me);
    auto h = compile({{"foo bar", 1}});
    ASSERT_TRUE(h);
    const auto whole = image_of(cut_me.get());
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    const auto good = image_of(h.get());
    struct Row {
        const char *name;
        std::function<void(std::vector<unsigned char> &)> damage;
        const char *log;
    } rows[] = {
        {"Magic", [](auto &im) { im[0] = 'X'; }, "Wrong serialization magic"},
        {"HashSizeNotPowerOf2", [](auto &im) { put_u32(im, 4, 3); }, "Could not alloc the new hash table (size:3)"},
        {"HashSizeHuge", [](auto &im) { put_u32(im, 4, 1u << 31); }, "Could not alloc the new hash table"},
        {"BucketOutOfRange", [](auto &im) { put_u32(im, 20, VAEL_WM_COMPILE_HASH_SIZE); },
         "bucket number (131072) out of hash size (131072)"},
        {"BackOffsetPastPhrase", [](auto &im) { im[33] = 7; }, "back_offset (7) >= phrase_len (7)"},
        {"PhraseLongerThanImage", [](auto &im) { put_u32(im, 24, 0xFFFFFFF0u); }, "image cut in node"},
        {"PhrasesLengthDiffers", [](auto &im) { put_u32(im, 8, 8); }, "differs from the header"},
        {"MorePhrasesThanNodes", [](auto &im) { put_u32(im, 16, 2); }, "bucket number"},
    };
    vael_test::LogCapture log;
    vael_test::ScopedTopic topic("K_ERROR", VAEL_DBG_ERR);
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        auto image = good;
        r.damage(image);
        log.clear();
        EXPECT_FALSE(load(image, (uint32_t)image.size()));
        EXPECT_TRUE(log.contains(r.log)) << log.text();
    }
    auto read = [](const std::vector<unsigned char> &bytes) { return load(bytes, (uint32_t)bytes.size()).release(); };
    vael_test::damage_walk(whole, read, [](vael_wm_handle *loaded) {
        for (const char *t : kTexts)
            run(loaded, t);
        vael_wm_destroy(loaded);
    });
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
}

// One byte short, a serialize writes nothing.
TEST(WordMatcherImage, SerializeRefusesAShortBuffer) {
    auto h = compile({{"foo bar", 1}});
    ASSERT_TRUE(h);
    vael_test::LogCapture quiet;
    std::vector<unsigned char> buf(vael_wm_get_serialize_size(h.get()));
    unsigned char *at = buf.data();
    uint32_t space = (uint32_t)buf.size() - 1;
    EXPECT_EQ(vael_wm_serialize(h.get(), &at, &space), -1);
    EXPECT_EQ(at, buf.data());
}

// ---------------------------------------------------------------- allocation failures

// The temporary buffer is process-wide and outlives every handle; the walks
// below start with it large enough, so that the accounts they compare hold
// only what the operation made. The walk of the buffer itself comes last.
void warm_temp_buffer() { ASSERT_EQ(vael_wm_validate_phrase_temp_buffer(4096), 0); }

TEST(WordMatcherFailmem, CompileDuplicateAndLoad) {
    warm_temp_buffer();
    vael_pmglob_patterns *list = vael_test::string_list(sample_words());
    auto h = compile(sample_words());
    ASSERT_TRUE(h);
    const auto image = image_of(h.get());
    void *made = nullptr;
    vael_pm_error err;
    const std::pair<const char *, std::function<void *()>> operations[] = {
        {"compile", [&] { return vael_wm_compile(list, 0, &err); }},
        {"duplicate", [&] { return vael_wm_duplicate(h.get()); }},
        {"load", [&] {
             const unsigned char *at = image.data();
             uint32_t space = (uint32_t)image.size();
             return vael_wm_deserialize(&at, &space, nullptr, nullptr);
         }},
    };
    for (const auto &[name, make] : operations) {
        auto w = vael_test::failmem_walk_each_allocation(
            [&] {
                vael_pm_error_init(&err);
                return (made = make()) != nullptr;
            },
            [&] { return err.error_type == VAEL_PM_ERROR_INTERNAL; });
        EXPECT_GE(w.rounds, 28) << name;  // handle, buckets, statistics, depths, a node per phrase
        vael_wm_destroy(made);
    }
    vael_pmglob_patterns_destroy(list);
}

// Without a temporary buffer a compile makes one; when that fails the
// compile is refused with the engine's text.
TEST(WordMatcherFailmem, TemporaryBuffer) {
    vael_pmglob_patterns *list = vael_test::string_list({{"foo bar", 1}});
    vael_wm_update_phrase_temp_buffer(0);
    vael_wm_handle *h = nullptr;
    vael_pm_error err;
    bool temp_failed = false;
    auto w = vael_test::failmem_walk_each_allocation(
        [&] {
            vael_pm_error_init(&err);
            h = static_cast<vael_wm_handle *>(vael_wm_compile(list, 0, &err));
            if (!h) {
                temp_failed |= err.error_string &&
                               std::string(err.error_string) == "Failed on validation/allocation of temp buffer";
                vael_wm_update_phrase_temp_buffer(0);
            }
            return h != nullptr;
        },
        [&] { return err.error_type == VAEL_PM_ERROR_INTERNAL; });
    EXPECT_TRUE(temp_failed);
    EXPECT_TRUE(w.succeeded);
    EXPECT_EQ(vael_wm_phrase_temp_buffer_size(), 15u);  // 7 bytes, half again, half again
    vael_wm_destroy(h);
    vael_pmglob_patterns_destroy(list);
}

}  // namespace
