// The word matcher: delimiters, bad input, hit order, refusals, brute force, through the PM; its image, its
// duplicate, and every allocation failure of compile, duplicate and load with the byte accounts back where they were.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "runtime/vael_unicode.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tier1/vael_wm.h"
#include "vael/vael_lookup3.h"

namespace {

using Word = vael_test::Pattern;

struct WordHit {
    int32_t id;
    uint32_t end;        // offset of the hit's last byte
    uint32_t index = 0;  // the word's number, 0 for a character look-up
    uint32_t start = 0;  // with VAEL_PM_EXEC_MATCH_START
    bool operator==(const WordHit &o) const { return id == o.id && end == o.end; }
    bool operator<(const WordHit &o) const { return std::tie(end, id) < std::tie(o.end, o.id); }
};
void PrintTo(const WordHit &h, std::ostream *os) {
    *os << "{id " << h.id << ", end " << h.end << ", word " << h.index << ", start " << h.start << "}";
}

struct HandleFree {
    void operator()(vael_wm_handle *h) const { vael_wm_destroy(h); }
};
using Handle = std::unique_ptr<vael_wm_handle, HandleFree>;

Handle compile(const std::vector<Word> &words, vael_pm_error *err = nullptr) {
    vael_pm_error local;
    vael_pm_error_init(err ? err : &local);
    vael_pmglob_patterns *list = vael_test::string_list(words);
    auto *h = static_cast<vael_wm_handle *>(vael_wm_compile(list, 0, err ? err : &local));
    vael_pmglob_patterns_destroy(list);
    return Handle(h);
}

struct Recorder {
    std::vector<WordHit> hits;
    size_t stop_after = 0;  // clears keep_going at this many hits; 0: never
};

int record_hit(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra, int32_t id) {
    auto *r = static_cast<Recorder *>(ctx->user_arg);
    r->hits.push_back(WordHit{id, offset, extra[0], extra[1]});
    if (r->stop_after && r->hits.size() >= r->stop_after)
        ctx->keep_going = 0;
    return 0;
}

// The hits of one run in delivery order; *rc gets the run's result.
std::vector<WordHit> run(const vael_wm_handle *h, const std::string &text, uint32_t flags = 0,
                                size_t stop_after = 0, int *rc = nullptr) {
    Recorder r;
    r.stop_after = stop_after;
    vael_pm_exec_cb_ctx ctx{record_hit, &r, nullptr, 1, -1, nullptr, 0, nullptr, 0};
    const int result = vael_wm_exec(const_cast<vael_wm_handle *>(h),
                                    reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                    nullptr, 0, nullptr, flags, nullptr, &ctx);
    if (rc)
        *rc = result;
    else
        EXPECT_EQ(result, 0);
    return r.hits;
}

std::vector<WordHit> sorted(std::vector<WordHit> v) {
    std::sort(v.begin(), v.end());
    return v;
}

std::vector<unsigned char> image_of(vael_wm_handle *h) {
    return vael_test::write_image(vael_wm_get_serialize_size(h), [&](auto at, auto space) {
        return vael_wm_serialize(h, at, space);
    });
}

Handle load(const std::vector<unsigned char> &image, uint32_t size) {
    const unsigned char *at = image.data();
    uint32_t space = size;
    return Handle(static_cast<vael_wm_handle *>(vael_wm_deserialize(&at, &space, nullptr, nullptr)));
}

constexpr uint32_t CL = VAEL_PM_CASELESS;
constexpr uint32_t CONT = VAEL_PM_CONTINUOUS_WORD;

#define E_ACUTE "\xC3\xA9"        // é
#define E_ACUTE_CAP "\xC3\x89"    // É
#define SHARP_S "\xC3\x9F"        // ß
#define SHARP_S_CAP "\xE1\xBA\x9E" // ẞ, 3 bytes
#define KELVIN "\xE2\x84\xAA"     // Kelvin sign, folds to k
#define NBSP "\xC2\xA0"
#define IDEO_STOP "\xE3\x80\x82"  // 。
#define EM_DASH "\xE2\x80\x94"

struct Row {
    const char *name;
    std::vector<Word> words;
    std::string text;
    std::vector<WordHit> hits;  // in delivery order
};

// What the brute force below covers (folds, edges, continuous words) is not
// repeated here: these rows are the delimiters, bad UTF-8 and the order of
// delivery.
const Row kRows[] = {
    {"FollowedByPunctuation", {{"foo bar", 1}}, "say foo bar.", {{1, 10}}},
    {"FiledUnderLaterWord", {{"a bcd", 1}}, "x a bcd", {{1, 6}}},
    // Delimiters: white space and punctuation of Unicode, and < >.
    {"Punctuation", {{"foo", 1}}, "(foo), foo! foo's <foo>", {{1, 3}, {1, 9}, {1, 14}, {1, 21}}},
    {"SymbolsAreNoDelimiters", {{"foo", 1}}, "foo+bar $foo foo=", {}},
    {"NonAsciiDelimiters", {{"foo", 1}}, "foo" NBSP "foo" IDEO_STOP "foo" EM_DASH, {{1, 2}, {1, 7}, {1, 13}}},
    {"NonAsciiLetterIsNoDelimiter", {{"caf", 1}}, "caf" E_ACUTE, {}},
    // Bad UTF-8 in the text is a delimiter, and nothing past the buffer is read.
    {"UndecodableFirstByte", {{"foo", 1}}, "\x80" "foo", {{1, 3}}},
    {"UndecodableInside", {{"bar", 1}}, "foo\xFF" "bar", {{1, 6}}},
    {"CutCharacterAtEnd", {{"foo", 1}}, "foo\xE2\x84", {{1, 2}}},
    {"CutCharacterEndsWord", {{"fo", 1}}, "fo\xC3", {{1, 1}}},
    {"CaseSensitiveSharesBucket", {{"foo", 1}, {"foo", 2, CL}}, "FOO foo", {{2, 2}, {2, 6}, {1, 6}}},
    {"CaseSensitiveNonAscii", {{E_ACUTE "cole", 1}, {"a b", 2, CONT}}, E_ACUTE_CAP "COLE " E_ACUTE "cole xa by", {{1, 12}, {2, 17}}},
    {"SharpSIsNotSS", {{"stra" SHARP_S "e", 1, CL}}, "STRASSE", {}},
    {"OneCharWordSeenOnce", {{"x", 1}, {"zz", 2, CONT}}, "a x b", {{1, 2}}},
    {"CharacterLookupBeforeWord", {{"ab", 1}, {"b", 2, CONT}}, "ab", {{2, 1}, {1, 1}}},
    // Order: one bucket newest first.
    {"NewestFirst", {{"foo", 1}, {"foo", 2}}, "foo", {{2, 2}, {1, 2}}},
};

TEST(WordMatcher, Phrases) {
    for (const Row &r : kRows) {
        SCOPED_TRACE(r.name);
        auto h = compile(r.words);
        ASSERT_TRUE(h);
        EXPECT_EQ(run(h.get(), r.text), r.hits);
    }
}

// The extra words: the word's number (0 for a character look-up) and the
// start of the hit when asked for.
TEST(WordMatcher, WordIndexAndStart) {
    auto h = compile({{"bar baz", 1}, {"qu", 2, CONT}, {"kelvin", 3, CL}});
    ASSERT_TRUE(h);
    std::vector<std::tuple<int32_t, uint32_t, uint32_t, uint32_t>> got;  // id, word, start, end
    for (const WordHit &w : run(h.get(), "foo bar baz quux " KELVIN "elvin", VAEL_PM_EXEC_MATCH_START))
        got.emplace_back(w.id, w.index, w.start, w.end);
    EXPECT_EQ(got, (decltype(got){{1, 2, 4, 10}, {2, 0, 12, 13}, {3, 5, 17, 24}}));
    const auto plain = run(h.get(), "bar baz");
    ASSERT_EQ(plain.size(), 1u);
    EXPECT_EQ(plain[0].start, 0u);  // not asked for
}

// keep_going 0 ends the run at once, and the run's counters stop there. A
// word too long for the temporary buffer is in no bucket and is not hashed.
TEST(WordMatcher, KeepGoingStopsTheRunAndCounts) {
    vael_wm_update_phrase_temp_buffer(0);
    auto h = compile({{"a", 1}, {"b", 2}});
    ASSERT_TRUE(h);
    ASSERT_EQ(vael_wm_phrase_temp_buffer_size(), 1u);
    EXPECT_EQ(run(h.get(), "a b a b", 0, 2), (std::vector<WordHit>{{1, 0}, {2, 2}}));
    EXPECT_EQ(h->exec_stats[0].executed_words, 2u);
}

// A run the engine cannot do fails and delivers nothing; a mask is ignored.
TEST(WordMatcher, RunRefusals) {
    auto h = compile({{"foo", 1}});
    ASSERT_TRUE(h);
    Recorder r;
    vael_pm_exec_cb_ctx ctx{record_hit, &r, nullptr, 1, -1, nullptr, 0, nullptr, 0};
    const auto *text = reinterpret_cast<const unsigned char *>("foo");
    vael_vbuf *vbuf = vael_vbuf_create(100, 0);
    const struct { void *h; const unsigned char *buf; uint32_t len; vael_vbuf *vbuf; uint32_t flags; } cases[] = {
        {nullptr, text, 3, nullptr, 0},          {h.get(), nullptr, 3, nullptr, 0},
        {h.get(), text, 0, nullptr, 0},          {h.get(), text, 3, vbuf, 0},
        {h.get(), text, 3, nullptr, VAEL_PM_EXEC_CIRCUMFLEX}, {h.get(), text, 3, nullptr, VAEL_PM_EXEC_CIRCUMFLEX_ONLY},
    };
    for (const auto &c : cases)
        EXPECT_EQ(vael_wm_exec(c.h, c.buf, c.len, c.vbuf, 0, nullptr, c.flags, nullptr, &ctx), -1) << c.flags;
    EXPECT_TRUE(r.hits.empty());
    vael_vbuf_destroy(vbuf);
    vael_test::RawMask mask(1);
    EXPECT_EQ(vael_wm_exec(h.get(), text, 3, nullptr, 0, nullptr, 0, mask.mask(), &ctx), 0);
    EXPECT_EQ(r.hits.size(), 1u);
}

TEST(WordMatcher, CompileRefusals) {
    const struct {
        const char *name;
        Word word;
        const char *error;  // null: no text for the caller
        uint32_t type;
    } rows[] = {
        {"OnlyDelimiters", {", .", 7}, "Invalid arguments (not valid utf8 or only delimiters phrase)", 0},
        {"CutCharacter", {"foo \xC3", 7}, "Invalid arguments (not valid utf8 or only delimiters phrase)", 0},
        {"ContinuousBadFirstChar", {"\x80" "ab", 7, CONT}, nullptr, 1},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        vael_pm_error err;
        const intptr_t pm_before = vael_pmglob_memory_get_alloc_total();
        EXPECT_FALSE(compile({{"good one", 1}, r.word, {"never read", 3}}, &err));
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_before);
        EXPECT_EQ(err.pattern_id, 7);
        EXPECT_EQ(err.error_type, r.type);
        if (r.error)
            EXPECT_STREQ(err.error_string, r.error);
        else
            EXPECT_EQ(err.error_string, nullptr);
    }
    // Bytes that are not UTF-8 after the first character of a continuous word
    // are compared as they stand.
    auto h = compile({{"a\xFF", 1, CONT}});
    ASSERT_TRUE(h);
    EXPECT_EQ(run(h.get(), "xa\xFF"), (std::vector<WordHit>{{1, 2}}));
}

// A 21st phrase filed under one word goes under its second word, whose
// look-up compares the text on both sides of it.
TEST(WordMatcher, CrowdedBucketRehashes) {
    std::vector<Word> words;
    for (int i = 0; i < 21; i++)
        words.push_back({"common w" + std::to_string(100 + i), i + 1});
    words.push_back({"alone", 99, CONT});
    auto h = compile(words);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->hash_stats.max_depth, 20u);
    EXPECT_EQ(h->hash_stats.rehashed_phrases, 1u);
    EXPECT_EQ(run(h.get(), "x common w120 y"), (std::vector<WordHit>{{21, 12}}));
    EXPECT_EQ(run(h.get(), "x common w119 y"), (std::vector<WordHit>{{20, 12}}));
    EXPECT_TRUE(run(h.get(), "x commonw120 y").empty());
}

// ---------------------------------------------------------------- reference

// Letters and delimiters of the random texts, with their code points: ASCII
// and multi-byte, caseless pairs among them, and folds that change length.
struct Sym { const char *utf8; int32_t cp; int32_t folded; bool delim; };
const Sym kAlphabet[] = {
    {"a", 'a', 'a', false},        {"A", 'A', 'a', false},          {"b", 'b', 'b', false},
    {E_ACUTE, 0xE9, 0xE9, false},  {E_ACUTE_CAP, 0xC9, 0xE9, false}, {SHARP_S, 0xDF, 0xDF, false},
    {SHARP_S_CAP, 0x1E9E, 0xDF, false}, {"k", 'k', 'k', false},     {KELVIN, 0x212A, 'k', false},
    {"z", 'z', 'z', false},        {"Z", 'Z', 'z', false},
    {" ", ' ', ' ', true},         {",", ',', ',', true},           {NBSP, 0xA0, 0xA0, true},
};
constexpr size_t kLetters = 11;

struct RefWord { std::vector<size_t> syms; uint32_t flags; int32_t id; };

std::string spell(const std::vector<size_t> &syms) {
    std::string s;
    for (size_t i : syms)
        s += kAlphabet[i].utf8;
    return s;
}

// Every occurrence of every word, found by trying each start.
std::vector<WordHit> reference(const std::vector<RefWord> &words, const std::vector<size_t> &text) {
    std::vector<uint32_t> offset(text.size() + 1, 0);
    for (size_t i = 0; i < text.size(); i++)
        offset[i + 1] = offset[i] + (uint32_t)std::string(kAlphabet[text[i]].utf8).size();
    std::vector<WordHit> hits;
    for (const RefWord &w : words) {
        const bool caseless = w.flags & CL;
        for (size_t s = 0; s + w.syms.size() <= text.size(); s++) {
            bool equal = true;
            for (size_t k = 0; k < w.syms.size() && equal; k++) {
                const Sym &a = kAlphabet[text[s + k]], &b = kAlphabet[w.syms[k]];
                equal = caseless ? a.folded == b.folded : a.cp == b.cp;
            }
            const size_t e = s + w.syms.size();
            if (equal && !(w.flags & CONT))
                equal = (s == 0 || kAlphabet[text[s - 1]].delim) && (e == text.size() || kAlphabet[text[e]].delim);
            if (equal)
                hits.push_back({w.id, offset[e] - 1});
        }
    }
    return sorted(hits);
}

TEST(WordMatcher, AgreesWithBruteForce) {
    std::mt19937 rng(20261123);
    auto pick = [&](size_t n) { return (size_t)(rng() % n); };
    // A compile clears a large table: under ASan fewer sets, more texts each.
#if defined(__SANITIZE_ADDRESS__)
    const int rounds = 80, texts = 12;
#else
    const int rounds = 300, texts = 5;
#endif
    for (int round = 0; round < rounds; round++) {
        std::vector<RefWord> ref;
        std::vector<Word> words;
        const size_t n = 1 + pick(6);
        for (size_t i = 0; i < n; i++) {
            RefWord w{{}, 0, (int32_t)i + 1};
            const size_t parts = 1 + pick(2);
            for (size_t p = 0; p < parts; p++) {
                if (p)
                    w.syms.push_back(kLetters + pick(sizeof kAlphabet / sizeof kAlphabet[0] - kLetters));
                for (size_t l = 0, len = 1 + pick(3); l < len; l++)
                    w.syms.push_back(pick(kLetters));
            }
            w.flags = (pick(2) ? CL : 0) | (pick(4) == 0 ? CONT : 0);
            ref.push_back(w);
            words.push_back({spell(w.syms), w.id, w.flags});
        }
        auto h = compile(words);
        ASSERT_TRUE(h);
        for (int t = 0; t < texts; t++) {
            std::vector<size_t> text(pick(40));
            for (size_t &c : text)
                c = pick(4) ? pick(kLetters) : pick(sizeof kAlphabet / sizeof kAlphabet[0]);
            const std::string bytes = spell(text);
            SCOPED_TRACE(bytes);
            if (bytes.empty())
                continue;
            ASSERT_EQ(sorted(run(h.get(), bytes)), reference(ref, text)) << "round " << round;
        }
    }
}

// ---------------------------------------------------------------- Unicode operations

// lookup3's published values of hashlittle: images hold bucket numbers.
TEST(WordMatcherUnicode, HashLittle) {
    EXPECT_EQ(vael_hashlittle("", 0, 0xdeadbeef), 0xbd5b7ddeu);
    EXPECT_EQ(vael_hashlittle("Four score and seven years ago", 30, 1), 0xcd628161u);
}

// ---------------------------------------------------------------- through the PM

struct PmHit {
    int32_t id;
    uint32_t offset;
    bool operator==(const PmHit &o) const { return id == o.id && offset == o.offset; }
};
struct PmRun { std::vector<PmHit> hits; size_t stop_after = 0; };
int pm_cb(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
          int *keep_going) {
    auto *r = static_cast<PmRun *>(arg);
    r->hits.push_back({id, offset});
    if (r->stop_after && r->hits.size() >= r->stop_after)
        *keep_going = 0;
    return 0;
}

// Words beside strings: words are delivered during the scan, before any
// string of the run, and keep_going 0 from a word ends the run; the word
// matcher refuses a vbuf and the circumflex flags; a PM of words only runs;
// a bad phrase fails the compile with its user id and the engine's text.
TEST(WordMatcherPm, WordsBesideStringsAndAlone) {
    auto exec = [](vael_pm_handle *pm, const std::string &text, size_t stop_after, vael_vbuf *vbuf = nullptr,
                   uint32_t flags = 0) {
        PmRun r{{}, stop_after};
        const int rc = vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()),
                                       (uint32_t)text.size(), vbuf, nullptr, &r, flags);
        return rc ? std::vector<PmHit>{{-1, 0}} : r.hits;
    };
    vael_pm_patterns *patterns = vael_pm_patterns_create();
    ASSERT_EQ(vael_pm_patterns_add_simple_pattern(patterns, "needle", 6, 10, 0), 0);
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, "hay stack", 9, 20, 0), 0);
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, E_ACUTE "t" E_ACUTE, 5, 21, CL), 0);
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile_with_wm(patterns, pm_cb, 0, &err, "wm test");
    ASSERT_TRUE(pm) << (err.error_string ? err.error_string : "");
    const std::string text = "a needle in a hay stack, " E_ACUTE_CAP "T" E_ACUTE_CAP;
    EXPECT_EQ(exec(pm, text, 0), (std::vector<PmHit>{{20, 22}, {21, 29}, {10, 7}}));
    EXPECT_EQ(exec(pm, text, 1), (std::vector<PmHit>{{20, 22}}));
    vael_vbuf *vbuf = vael_vbuf_create(100, 0);
    EXPECT_EQ(exec(pm, "x", 0, vbuf), (std::vector<PmHit>{{-1, 0}}));
    vael_vbuf_destroy(vbuf);
    EXPECT_EQ(exec(pm, "x", 0, nullptr, VAEL_PM_EXEC_CIRCUMFLEX), (std::vector<PmHit>{{-1, 0}}));
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(patterns);

    patterns = vael_pm_patterns_create();
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, "ab", 2, 5, CONT), 0);
    pm = vael_pm_compile(patterns, pm_cb, 0, &err, "wm test");
    ASSERT_TRUE(pm);
    EXPECT_EQ(exec(pm, "xaby", 0), (std::vector<PmHit>{{5, 2}}));
    vael_pm_destroy(pm);
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, "--", 2, 6, 0), 0);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    EXPECT_EQ(vael_pm_compile(patterns, pm_cb, 0, &err, "wm test"), nullptr);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
    EXPECT_EQ(err.pattern_id, 6);
    EXPECT_STREQ(err.error_string, "Invalid arguments (not valid utf8 or only delimiters phrase)");
    vael_pm_patterns_destroy(patterns);
}

// ---------------------------------------------------------------- the image

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
    Handle dup(static_cast<vael_wm_handle *>(vael_wm_duplicate(h.get())));
    ASSERT_TRUE(dup);
    expect_same_behaviour(h.get(), dup.get());

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
