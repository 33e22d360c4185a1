// The keyword manager: the rule grammar (what text each keyword is handed),
// the refusals and their texts, the property rule, the image with its cuts
// and corruptions, and allocation failures on every road. Stand-in keywords
// (kw_fake.h) take the keywords' place.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "tests/keywords/kw_fake.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;

vael_pmglob_string *rule_string(const std::string &text) {
    return vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), -1,
                                     0);
}

vael_kw_mgr *compile(const std::string &text, vael_pm_error *err) {
    vael_pm_error_init(err);
    vael_pmglob_string *s = rule_string(text);
    LogCapture quiet;
    auto *mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(s, 0, 0, err));
    vael_pmglob_string_destroy(s);
    return mgr;
}

std::vector<std::string> texts_of(const vael_kw_mgr *mgr) {
    std::vector<std::string> texts;
    for (uint32_t i = 0; i < mgr->count; i++)
        texts.push_back(kw_fake::text_of(mgr->keywords[i]));
    return texts;
}

std::string rule_of(int keywords) {
    std::string rule;
    for (int i = 0; i < keywords; i++)
        rule += "length: min; ";
    return rule;
}

// What each keyword's create is handed: its text from the name up to its
// ';', which becomes ','.
TEST(KwGrammar, KeywordTexts) {
    struct Case {
        std::string rule;
        std::vector<std::string> texts;
        std::vector<uint32_t> types;
    };
    const Case cases[] = {
        {R"(data: "a";)", {R"(data: "a",)"}, {0}},
        {R"(  data: "a" ;	length: 1 , min ;  )", {R"(data: "a",)", "length: 1, min,"}, {0, 1}},
        // Whitespace in front of ',' and ';' falls away outside quotes only.
        {R"(data: "a" , nocase ;)", {R"(data: "a", nocase,)"}, {0}},
        {R"(data: "a ,b ;" , depth 3;)", {R"(data: "a ,b ;", depth 3,)"}, {0}},
        // A ';' inside quotes does not end a keyword, nor does one behind an
        // escaped quote; two backslashes escape each other.
        {R"(data: "a;b";)", {R"(data: "a;b",)"}, {0}},
        {R"(data: "a\";b";)", {R"(data: "a\";b",)"}, {0}},
        {R"(data: "a\\"; test: 1;)", {R"(data: "a\\",)", "test: 1,"}, {0, 2}},
        // The delimiter clause: its character becomes '"', inside quotes too.
        {R"(delim=';data: 'abc';)", {R"(data: "abc",)"}, {0}},
        {"  delim=' \t;data: 'ab';", {R"(data: "ab",)"}, {0}},
        {R"(delim=#;data: #a;b#; data: "c";)", {R"(data: "a;b",)", R"(data: "c",)"}, {0, 0}},
        // Types by prefix: the keyword refuses what is behind the name.
        {"test: 1; testing: 2; lengths: 3; dataX: 4;", {"test: 1,", "testing: 2,", "lengths: 3,", "dataX: 4,"},
         {2, 2, 1, 0}},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        vael_pm_error err;
        vael_kw_mgr *mgr = compile(c.rule, &err);
        ASSERT_NE(mgr, nullptr) << c.rule;
        EXPECT_EQ(texts_of(mgr), c.texts) << c.rule;
        std::vector<uint32_t> types;
        for (uint32_t i = 0; i < mgr->count; i++)
            types.push_back(mgr->keywords[i]->type);
        EXPECT_EQ(types, c.types) << c.rule;
        vael_kw_mgr_destroy(mgr);
    }
}

// Refused rules: the text the author reads and its type, and nothing held.
TEST(KwGrammar, RefusedRules) {
    struct Case {
        std::string rule;
        const char *text;
        uint32_t type;
        const char *log;  // the manager's own trace, when it has one
    };
    const char *illegal = "Keyword rule given by the user is illegal";
    const Case cases[] = {
        {R"(data: "a")", illegal, 1, "missing ';' for keyword 0"},
        {R"(data: "a"; data: "b")", illegal, 1, "missing ';' for keyword 1"},
        {R"(data: "a;)", illegal, 1, "missing ';' for keyword 0"},
        {"", illegal, 1, "an empty rule"},
        {"   \t ", illegal, 1, "an empty rule"},
        {"delim=';", illegal, 1, "an empty rule"},
        {"delim='", illegal, 1, "missing ';' after delimiter"},
        {"delim=' x;data: 'a';", illegal, 1, "missing ';' after delimiter"},
        {"delim=", illegal, 1, "missing ';' after delimiter"},
        {"foo: 1;", "Rule contains illegal keyword name", 0, "illegal keyword name in keyword 0"},
        {R"(data: "a"; Data: "b";)", "Rule contains illegal keyword name", 0, "illegal keyword name in keyword 1"},
        // The keyword's own words come first.
        {R"(data: "a"; data: refuse;)", kw_fake::kFakeRefused, 0, "failed to create keyword 1 (data)"},
        // Keywords not in this build are refused by name, never half-run.
        {R"(re: "/a/";)", "Rule contains a keyword that is not in this build", 0, "keyword 0 (re) is not in this build"},
        {"data: \"a\"; jump: 1, 0;", "Rule contains a keyword that is not in this build", 0, "(jump)"},
        {R"(pcre: "/a/";)", "Rule contains a keyword that is not in this build", 0, "(pcre)"},
        {rule_of(101), "Rule contains too many keywords", 2, "max keywords reached (100)"},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        const intptr_t before = vael_pmglob_memory_get_alloc_total();
        const intptr_t kbefore = qx_kmem_get_alloc_total();
        vael_pm_error err;
        vael_pm_error_init(&err);
        vael_pmglob_string *s = rule_string(c.rule);
        LogCapture log;
        void *mgr = vael_pm_compile_keywords(s, 0, 0, &err);
        vael_pmglob_string_destroy(s);
        EXPECT_EQ(mgr, nullptr) << c.rule;
        ASSERT_NE(err.error_string, nullptr) << c.rule;
        EXPECT_STREQ(err.error_string, c.text) << c.rule;
        EXPECT_EQ(err.error_type, c.type) << c.rule;
        EXPECT_TRUE(log.contains(c.log)) << c.rule << ": " << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before) << c.rule;
        EXPECT_EQ(qx_kmem_get_alloc_total(), kbefore) << c.rule;
    }
    // The most keywords a rule may have.
    vael_pm_error err;
    vael_kw_mgr *mgr = compile(rule_of(100), &err);
    ASSERT_NE(mgr, nullptr);
    EXPECT_EQ(mgr->count, 100u);
    vael_kw_mgr_destroy(mgr);
    // A null rule.
    LogCapture log;
    EXPECT_EQ(vael_pm_compile_keywords(nullptr, 0, 0, &err), nullptr);
    EXPECT_TRUE(log.contains("vael_pm_compile_keywords: No keywords rule.\n"));
}

// Which keywords give up at once on failure: an absolute one, and a
// monotonous one while all before it preserve order.
TEST(KwGrammar, GiveUpProperty) {
    struct Case {
        std::string rule;
        std::vector<bool> give_up;
    };
    const Case cases[] = {
        {R"(data: "a"; data: "b";)", {true, true}},
        {R"(data: "a", relative; data: "b", relative;)", {true, true}},
        // depth clears monotonous: nothing to give up on.
        {R"(data: "a", relative, depth 2; data: "b", relative;)", {false, true}},
        // A keyword that moves the offset and doesn't preserve order ends
        // the run of order-preserving ones.
        {R"(data: "a", relative, unordered; data: "b", relative;)", {true, false}},
        {R"(length: relative; data: "b", relative;)", {false, true}},
    };
    kw_fake::Install fakes;
    for (const auto &c : cases) {
        vael_pm_error err;
        vael_kw_mgr *mgr = compile(c.rule, &err);
        ASSERT_NE(mgr, nullptr) << c.rule;
        std::vector<bool> give_up;
        for (uint32_t i = 0; i < mgr->count; i++)
            give_up.push_back((mgr->keywords[i]->props & VAEL_KW_PROP_GIVE_UP_NO_MATCH) != 0);
        EXPECT_EQ(give_up, c.give_up) << c.rule;
        vael_kw_mgr_destroy(mgr);
    }
}

TEST(KwGrammar, EscapedQuote) {
    struct Case {
        const char *text;
        uint32_t index;
        int escaped;
    };
    const Case cases[] = {
        {R"(a")", 1, 0}, {R"(\")", 1, 1}, {R"(\\")", 2, 0}, {R"(\\\")", 3, 1}, {R"(")", 0, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(vael_kw_mgr_is_escaped(c.text, c.index), c.escaped) << c.text;
}

// ---------------------------------------------------------------- image

std::vector<unsigned char> image_of(void *mgr) {
    const uint32_t size = vael_kw_mgr_serialize_get_size(mgr);
    std::vector<unsigned char> image(size);
    unsigned char *p = image.data();
    uint32_t space = size;
    EXPECT_EQ(vael_kw_mgr_serialize(mgr, &p, &space), 0);
    EXPECT_EQ(space, 0u);
    return image;
}

// Loads from an exact heap copy, so that a read past its end is caught.
void *load(const unsigned char *bytes, uint32_t size, uint32_t *space_left = nullptr) {
    auto *copy = static_cast<unsigned char *>(std::malloc(size ? size : 1));
    if (size)
        std::memcpy(copy, bytes, size);
    const unsigned char *p = copy;
    uint32_t space = size;
    LogCapture quiet;
    void *mgr = vael_kw_mgr_deserialize(&p, &space, nullptr, nullptr);
    if (space_left)
        *space_left = space;
    std::free(copy);
    return mgr;
}

const char kImageRule[] = R"(data: "ab", relative; length: min; test: 4, =, 1, 0;)";

TEST(KwImage, RoundTrip) {
    kw_fake::Install fakes;
    vael_pm_error err;
    vael_kw_mgr *mgr = compile(kImageRule, &err);
    ASSERT_NE(mgr, nullptr);
    mgr->stats.memory = 1234;
    mgr->stats.compile_time = 56;
    const auto image = image_of(mgr);
    // Three keywords of 28 bytes and their texts, which lost the blanks
    // between keywords.
    ASSERT_EQ(image.size(), 12u + 8 + 3 * (4 + 28) + std::strlen(kImageRule) - 2);
    EXPECT_EQ(std::memcmp(image.data(), "GZRS", 4), 0);
    EXPECT_EQ(std::memcmp(image.data() + image.size() - 12, "SZRS", 4), 0);

    uint32_t left = 99;
    auto *loaded = static_cast<vael_kw_mgr *>(load(image.data(), (uint32_t)image.size(), &left));
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(texts_of(loaded), texts_of(mgr));
    for (uint32_t i = 0; i < mgr->count; i++)
        EXPECT_EQ(std::memcmp(loaded->keywords[i], mgr->keywords[i], sizeof(vael_kw_abs)), 0)
            << "keyword " << i << ": the properties fixed at parse time travel as they are";
    EXPECT_EQ(loaded->stats.memory, 1234u);
    EXPECT_EQ(image_of(loaded), image);

    // From a virtual buffer of small blocks, the same manager.
    vael_vbuf *vbuf = vael_vbuf_create(1u << 20, 0);
    for (size_t at = 0; at < image.size(); at += 5)
        ASSERT_EQ(vael_vbuf_add_buffer_ex(vbuf, const_cast<unsigned char *>(image.data()) + at,
                                          (uint32_t)std::min<size_t>(5, image.size() - at), nullptr, nullptr),
                  0);
    vael_vbuf_iter iter{};
    uint32_t space = (uint32_t)image.size();
    auto *from_vbuf = static_cast<vael_kw_mgr *>(vael_kw_mgr_deserialize(nullptr, &space, vbuf, &iter));
    ASSERT_NE(from_vbuf, nullptr);
    EXPECT_EQ(image_of(from_vbuf), image);
    vael_kw_mgr_destroy(from_vbuf);
    vael_vbuf_destroy(vbuf);

    void *dup = vael_kw_mgr_duplicate(mgr);
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(image_of(dup), image);
    vael_kw_mgr_destroy(dup);
    vael_kw_mgr_destroy(loaded);

    // Too small a space is refused before anything is written.
    std::vector<unsigned char> small(image.size() - 1, 0xee);
    unsigned char *p = small.data();
    uint32_t small_space = (uint32_t)small.size();
    LogCapture log;
    EXPECT_EQ(vael_kw_mgr_serialize(mgr, &p, &small_space), -1);
    EXPECT_EQ(p, small.data());
    EXPECT_EQ(small[0], 0xee);
    EXPECT_TRUE(log.contains("serialization buffer is too small")) << log.text();
    EXPECT_EQ(vael_kw_mgr_serialize(nullptr, &p, &small_space), -1);
    EXPECT_TRUE(log.contains("vael_kw_mgr_serialize: Invalid arguments\n"));
    vael_kw_mgr_destroy(mgr);
}

// Every cut of an image, and the corruptions the checks name, are refused
// with nothing held and nothing read past the end.
TEST(KwImage, CutsAndCorruptions) {
    kw_fake::Install fakes;
    vael_pm_error err;
    vael_kw_mgr *mgr = compile(kImageRule, &err);
    ASSERT_NE(mgr, nullptr);
    const auto image = image_of(mgr);
    vael_kw_mgr_destroy(mgr);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    for (uint32_t cut = 0; cut < image.size(); cut++) {
        void *m = load(image.data(), cut);
        EXPECT_EQ(m, nullptr) << "cut at " << cut;
        vael_kw_mgr_destroy(m);
        ASSERT_EQ(vael_pmglob_memory_get_alloc_total(), before) << "cut at " << cut;
    }
    auto with_word = [&](size_t at, uint32_t value) {
        auto copy = image;
        std::memcpy(copy.data() + at, &value, 4);
        return copy;
    };
    const uint32_t first_kw_size = 28 + (uint32_t)std::strlen(R"(data: "ab", relative,)");
    struct Case {
        std::vector<unsigned char> bytes;
        const char *log;
    };
    const Case cases[] = {
        {with_word(0, 0x53525a48), "Wrong serialization magic (53525a48)"},
        {with_word(4, 101), "keywords number is too big (101 > 100)"},
        {with_word(8, 6), "can't add keyword, invalid keyword type 6"},
        // A keyword not in this build, and one whose own record disagrees
        // with the type in front of it.
        {with_word(8, VAEL_KW_TYPE_JUMP), "failed to deserialize keyword 0 (jump)"},
        {with_word(8, 1), "failed to deserialize keyword 0 (length)"},
        {with_word(image.size() - 12, 0), "Wrong serialization magic (0)"},
        {with_word(8 + 4 + first_kw_size, 7), "invalid keyword type 7"},
    };
    vael_test::ScopedTopic all("K_KW", VAEL_DBG_INFO);
    vael_test::ScopedTopic errors("K_ERROR", VAEL_DBG_INFO);
    for (const auto &c : cases) {
        LogCapture log;
        auto *copy = static_cast<unsigned char *>(std::malloc(c.bytes.size()));
        std::memcpy(copy, c.bytes.data(), c.bytes.size());
        const unsigned char *p = copy;
        uint32_t space = (uint32_t)c.bytes.size();
        void *m = vael_kw_mgr_deserialize(&p, &space, nullptr, nullptr);
        std::free(copy);
        EXPECT_EQ(m, nullptr) << c.log;
        vael_kw_mgr_destroy(m);
        EXPECT_TRUE(log.contains(c.log)) << c.log << ": " << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before) << c.log;
    }
    uint32_t space = 8;
    LogCapture quiet;
    EXPECT_EQ(vael_kw_mgr_deserialize(nullptr, &space, nullptr, nullptr), nullptr);
}

// ---------------------------------------------------------------- allocation failures

TEST(KwFailmem, CompileDuplicateDeserialize) {
    kw_fake::Install fakes;
    vael_pmglob_string *rule = rule_string(R"(delim=';data: 'a' , relative; length: min;)");
    vael_kw_mgr *mgr = nullptr;
    vael_pm_error err;
    auto walk = vael_test::failmem_walk_each_allocation(
        [&] {
            vael_pm_error_init(&err);
            LogCapture quiet;
            mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(rule, 0, 0, &err));
            return mgr != nullptr;
        },
        [&] { return err.error_string != nullptr && err.error_type == VAEL_PM_ERROR_INTERNAL; });
    EXPECT_GE(walk.rounds, 6);
    vael_pmglob_string_destroy(rule);
    ASSERT_NE(mgr, nullptr);

    void *dup = nullptr;
    walk = vael_test::failmem_walk_each_allocation(
        [&] {
            LogCapture quiet;
            dup = vael_kw_mgr_duplicate(mgr);
            return dup != nullptr;
        },
        [] { return true; });
    EXPECT_GE(walk.rounds, 6);
    vael_kw_mgr_destroy(dup);

    const auto image = image_of(mgr);
    void *loaded = nullptr;
    walk = vael_test::failmem_walk_each_allocation(
        [&] {
            loaded = load(image.data(), (uint32_t)image.size());
            return loaded != nullptr;
        },
        [] { return true; });
    EXPECT_GE(walk.rounds, 5);
    vael_kw_mgr_destroy(loaded);
    vael_kw_mgr_destroy(mgr);
}

}  // namespace
