// The PCRE tier's image, duplicate, validation and destroy, and every allocation failure of compile, duplicate and
// load with the byte accounts back where they were.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/pcre_tier/pcre_test_util.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_pcre_test::compile;
using vael_pcre_test::Handle;
using vael_pcre_test::image_of;
using vael_pcre_test::load;
using vael_pcre_test::Match;
using vael_pcre_test::run;

uint32_t word_at(const std::vector<unsigned char> &image, size_t at) {
    uint32_t w;
    std::memcpy(&w, image.data() + at, 4);
    return w;
}

// Texts over which a handle and its copies must agree.
const char *const kTexts[] = {"", "abc", "xxabcabcxx", "ab\ncd", "ABC abc", "aaaa bbbb", "a1b2c3"};

std::vector<std::vector<Match>> behaviour(vael_pcre_handle *h) {
    std::vector<std::vector<Match>> out;
    for (const char *t : kTexts)
        out.push_back(run(h, t, VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_MATCH_START).matches);
    return out;
}

// x* leaves pcre_study nothing to keep: the image holds no study data.
const struct { const char *pattern; uint32_t flags; } kPatterns[] = {
    {"abc", 0}, {"a.c", VAEL_PM_CASELESS}, {"[a-c]+", VAEL_PM_BOUND}, {"x*", 0}, {"^ab\\ncd$", VAEL_PCRE_MULTILINE},
};

// A handle read back from its image runs the same, keeps its flags and its compile figures, and writes the same image.
TEST(PcreImage, RoundTrip) {
    for (const auto &r : kPatterns) {
        auto h = compile(r.pattern, r.flags);
        ASSERT_TRUE(h) << r.pattern;
        h->stats.memory = 1234;
        h->stats.compile_time = 56;
        auto image = image_of(h.get());
        auto back = load(image, (uint32_t)image.size());
        ASSERT_TRUE(back) << r.pattern;
        EXPECT_TRUE(vael_pcre_is_valid(back.get()));
        EXPECT_EQ(back->stats.memory, 1234u);
        EXPECT_EQ(back->stats.compile_time, 56u);
        EXPECT_EQ(behaviour(back.get()), behaviour(h.get())) << r.pattern;
        EXPECT_EQ(image_of(back.get()), image) << r.pattern;
    }
}

// A cut image at every length, a wrong magic, a size PCRE would read past:
// null, a log line, and nothing left in the accounts.
TEST(PcreImage, BadImages) {
    auto h = compile("abc");
    ASSERT_TRUE(h);
    auto image = image_of(h.get());
    const uint32_t s = word_at(image, 0), t = word_at(image, 4 + s);
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++)
        EXPECT_FALSE(load(image, cut)) << "cut at " << cut;
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);

    struct Row { size_t at; uint32_t value; const char *log; };
    const Row rows[] = {
        {16 + s + t, 0x53525a54, "vael_pcre_deserialize: Wrong serialization magic (53525a54) at the buffer\n"},
        {0, 8, "vael_pcre_deserialize: Error in allocating the pcre_handle->re size 8\n"},
        {0, 0xfffffff0u, "vael_pcre_deserialize: Wrong serialization magic (0) at the buffer\n"},
        {4 + s, 12, "vael_pcre_deserialize: study data of 12 bytes is not of this PCRE"},
    };
    for (const Row &r : rows) {
        auto bad = image;
        std::memcpy(bad.data() + r.at, &r.value, 4);
        vael_test::LogCapture log;
        EXPECT_FALSE(load(bad, (uint32_t)bad.size())) << r.log;
        EXPECT_TRUE(log.contains(r.log)) << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
    }

    // Bytes that are not a pattern of this PCRE load (no check is made), fail
    // validation, run as no match, and are released whole.
    auto garbage = image;
    garbage[4] ^= 0xff; // PCRE's magic
    auto loaded = load(garbage, (uint32_t)garbage.size());
    ASSERT_TRUE(loaded);
    EXPECT_FALSE(vael_pcre_is_valid(loaded.get()));
    EXPECT_TRUE(run(loaded.get(), "abc").matches.empty());
    loaded.reset();
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

TEST(PcreImage, ArgumentsAndSpace) {
    auto h = compile("abc");
    ASSERT_TRUE(h);
    const uint32_t size = vael_pcre_get_serialized_size(h.get());
    std::vector<unsigned char> buf(size);
    unsigned char *p = buf.data();
    uint32_t space = size - 1;
    vael_test::LogCapture quiet;
    EXPECT_EQ(vael_pcre_serialize(h.get(), &p, &space), -1);
    EXPECT_EQ(p, buf.data());
    EXPECT_EQ(space, size - 1);

    // pcre_free_re releases a compiled pattern of the library, size and all.
    auto freed = compile("free me");
    ASSERT_TRUE(freed);
    size_t re_size = 0;
    ASSERT_EQ(pcre_fullinfo(freed->re, nullptr, PCRE_INFO_SIZE, &re_size), 0);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    pcre_free_re(freed->re);
    freed->re = nullptr;
    EXPECT_GE(before - vael_pmglob_memory_get_alloc_total(), (intptr_t)re_size);
}


struct CompileCase { const char *pattern; uint32_t flags; };
const CompileCase kCompileCases[] = {
    {"abc[0-9]+de", 0},
    {"x*", 0}, // no study data: the library's own extra block
    {"^word$", VAEL_PM_BOUND | VAEL_PM_CASELESS},
    {"a+?", VAEL_PM_VERIFY_SYNTAX}, // refused after its text was made
    {"(?=a)b", 0},                   // refused after PCRE compiled it
};

// Each failed round gives null; a refused pattern's round after the last site gives null too, with its own message.
TEST(PcreFailmem, Compile) {
    for (const CompileCase &c : kCompileCases) {
        const bool refused = (c.flags & VAEL_PM_VERIFY_SYNTAX) || c.pattern[0] == '(';
        Handle kept;
        vael_pm_error err;
        vael_pmglob_string *text = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(c.pattern),
                                                             (uint32_t)strlen(c.pattern), -1, c.flags);
        ASSERT_NE(text, nullptr);
        auto attempt = [&] {
            vael_pm_error_init(&err);
            kept.reset(static_cast<vael_pcre_handle *>(vael_pcre_compile(text, 0, c.flags, &err)));
            return kept != nullptr || (refused && err.error_type == VAEL_PM_ERROR_ILLEGAL);
        };
        auto failed_cleanly = [&] { return !kept && err.error_type == VAEL_PM_ERROR_INTERNAL; };
        auto w = vael_test::failmem_walk_each_allocation(attempt, failed_cleanly);
        EXPECT_GE(w.rounds, 2) << c.pattern;
        if (!refused) {
            ASSERT_TRUE(kept) << c.pattern;
            EXPECT_TRUE(vael_pcre_is_valid(kept.get())) << c.pattern;
        }
        vael_pmglob_string_destroy(text);
    }
}

// The copies run as the original and keep its flags; under pcre_exec the recursive pattern compiles, and its bit
// must travel too.
TEST(PcreFailmem, DuplicateAndLoad) {
    vael_test::ScopedGlobal mode(vael_pm_pcre_use_dfa_exec, 0);
    for (const CompileCase &c : kCompileCases) {
        if (c.flags & VAEL_PM_VERIFY_SYNTAX)
            continue;
        auto h = compile(c.pattern, c.flags);
        ASSERT_TRUE(h);
        const auto want = behaviour(h.get());
        const uint32_t flags = h->flags;
        auto image = image_of(h.get());
        Handle kept;
        auto succeeded = [&] { return kept != nullptr; };
        auto failed_cleanly = [&] { return !kept; };

        auto dup = [&] {
            kept.reset(static_cast<vael_pcre_handle *>(vael_pcre_duplicate(h.get())));
            return succeeded();
        };
        vael_test::failmem_walk_each_allocation(dup, failed_cleanly);
        ASSERT_TRUE(kept);
        h.reset(); // the copy owns nothing of the original
        EXPECT_EQ(behaviour(kept.get()), want);
        EXPECT_EQ(kept->flags, flags) << c.pattern;
        kept.reset();

        auto flat = [&] {
            kept = load(image, (uint32_t)image.size());
            return succeeded();
        };
        vael_test::failmem_walk_each_allocation(flat, failed_cleanly);
        ASSERT_TRUE(kept);
        EXPECT_EQ(behaviour(kept.get()), want);
        EXPECT_EQ(kept->flags, flags) << c.pattern;
    }
}

}  // namespace
