// The word matcher: phrases and continuous words against texts, delimiters,
// case folding, bad input, the order of hits, the balance of crowded
// buckets, refusals, and a brute-force reference over random texts; the
// Unicode operations it rests on; words through the PM.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "runtime/vael_unicode.h"
#include "tests/support/vael_test_support.h"
#include "tests/tier1/wm_test_util.h"
#include "vael/vael_lookup3.h"

namespace {

using namespace vael_wm_test;

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

const Row kRows[] = {
    // Phrases stand between delimiters or the edges of the buffer.
    {"WholeBuffer", {{"foo bar", 1}}, "foo bar", {{1, 6}}},
    {"EndOfBuffer", {{"foo bar", 1}}, "say foo bar", {{1, 10}}},
    {"FollowedByPunctuation", {{"foo bar", 1}}, "foo bar.", {{1, 6}}},
    {"LongerWordAfter", {{"foo bar", 1}}, "foo barn", {}},
    {"LetterBefore", {{"foo bar", 1}}, "xfoo bar", {}},
    {"InnerTextMustMatch", {{"foo bar", 1}}, "foo  bar", {}},
    {"Twice", {{"foo bar", 1}}, "foo bar, foo bar", {{1, 6}, {1, 15}}},
    {"FiledUnderLaterWord", {{"a bcd", 1}}, "x a bcd", {{1, 6}}},
    {"FiledUnderLaterWordLetterBefore", {{"a bcd", 1}}, "xa bcd", {}},
    {"OneCharWord", {{"x", 1}}, "x y x", {{1, 0}, {1, 4}}},
    // Delimiters: white space and punctuation of Unicode, and < >.
    {"Punctuation", {{"foo", 1}}, "(foo), foo! foo's", {{1, 3}, {1, 9}, {1, 14}}},
    {"SymbolsAreNoDelimiters", {{"foo", 1}}, "foo+bar $foo foo=", {}},
    {"AngleBrackets", {{"foo", 1}}, "<foo>", {{1, 3}}},
    {"NonAsciiDelimiters", {{"foo", 1}}, "foo" NBSP "foo" IDEO_STOP "foo" EM_DASH, {{1, 2}, {1, 7}, {1, 13}}},
    {"NonAsciiLetterIsNoDelimiter", {{"caf", 1}}, "caf" E_ACUTE, {}},
    // Bad UTF-8 in the text is a delimiter, and nothing past the buffer is read.
    {"UndecodableFirstByte", {{"foo", 1}}, "\x80" "foo", {{1, 3}}},
    {"UndecodableInside", {{"bar", 1}}, "foo\xFF" "bar", {{1, 6}}},
    {"CutCharacterAtEnd", {{"foo", 1}}, "foo\xE2\x84", {{1, 2}}},
    {"CutCharacterEndsWord", {{"fo", 1}}, "fo\xC3", {{1, 1}}},
    // Case.
    {"CaselessAscii", {{"Foo Bar", 1, CL}}, "FOO bar fOo BaR", {{1, 6}, {1, 14}}},
    {"CaseSensitiveSharesBucket", {{"foo", 1}, {"foo", 2, CL}}, "FOO foo", {{2, 2}, {2, 6}, {1, 6}}},
    {"CaselessNonAscii", {{E_ACUTE "cole", 1, CL}}, E_ACUTE_CAP "COLE", {{1, 5}}},
    {"CaseSensitiveNonAscii", {{E_ACUTE "cole", 1}}, E_ACUTE_CAP "COLE " E_ACUTE "cole", {{1, 12}}},
    {"FoldChangesByteLength", {{"kelvin", 1, CL}}, KELVIN "elvin", {{1, 7}}},
    {"FoldShorterInText", {{KELVIN "elvin", 1, CL}}, "x KELVIN", {{1, 7}}},
    {"CapitalSharpS", {{"stra" SHARP_S "e", 1, CL}}, "STRA" SHARP_S_CAP "E", {{1, 7}}},
    {"SharpSIsNotSS", {{"stra" SHARP_S "e", 1, CL}}, "STRASSE", {}},
    // Continuous words hit anywhere.
    {"ContinuousInsideWord", {{"ab", 1, CONT}}, "xaby", {{1, 2}}},
    {"ContinuousOverlapping", {{"aa", 1, CONT}}, "aaaa", {{1, 1}, {1, 2}, {1, 3}}},
    {"ContinuousAcrossDelimiter", {{"a b", 1, CONT}}, "xa by", {{1, 3}}},
    {"ContinuousCaseless", {{E_ACUTE "t" E_ACUTE, 1, CONT | CL}}, "L'" E_ACUTE_CAP "T" E_ACUTE_CAP, {{1, 6}}},
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
    const auto hits = run(h.get(), "foo bar baz quux " KELVIN "elvin", VAEL_PM_EXEC_MATCH_START);
    ASSERT_EQ(hits.size(), 3u);
    EXPECT_EQ(hits[0].id, 1);
    EXPECT_EQ(hits[0].index, 2u);
    EXPECT_EQ(hits[0].start, 4u);
    EXPECT_EQ(hits[0].end, 10u);
    EXPECT_EQ(hits[1].id, 2);
    EXPECT_EQ(hits[1].index, 0u);
    EXPECT_EQ(hits[1].start, 12u);
    EXPECT_EQ(hits[2].id, 3);
    EXPECT_EQ(hits[2].start, 17u);
    EXPECT_EQ(hits[2].end, 24u);
    EXPECT_EQ(run(h.get(), "bar baz")[0].start, 0u);  // not asked for
}

// keep_going 0 ends the run at once; the run's counters are still kept. A
// word too long for the temporary buffer is in no bucket and is not hashed.
TEST(WordMatcher, KeepGoingStopsTheRunAndCounts) {
    vael_wm_update_phrase_temp_buffer(0);
    auto h = compile({{"a", 1}, {"b", 2}});
    ASSERT_TRUE(h);
    ASSERT_EQ(vael_wm_phrase_temp_buffer_size(), 1u);
    EXPECT_EQ(run(h.get(), "a b a b", 0, 2), (std::vector<WordHit>{{1, 0}, {2, 2}}));
    EXPECT_EQ(h->exec_stats[0].executed_words, 2u);
    run(h.get(), "zz a");
    EXPECT_EQ(h->exec_stats[0].executed_words, 3u);
    EXPECT_EQ(h->exec_stats[0].empty_bucket_mismatches, 1u);
    EXPECT_EQ(h->exec_stats[0].strcmp_mismatches, 0u);
}

TEST(WordMatcher, RunRefusals) {
    auto h = compile({{"foo", 1}});
    ASSERT_TRUE(h);
    vael_test::LogCapture log;
    vael_test::ScopedTopic topic("K_PM", VAEL_DBG_INFO);
    vael_test::ScopedTopic err_topic("K_ERROR", VAEL_DBG_ERR);
    Recorder r;
    vael_pm_exec_cb_ctx ctx{record_hit, &r, nullptr, 1, -1, nullptr, 0, nullptr, 0};
    const auto *text = reinterpret_cast<const unsigned char *>("foo");
    vael_vbuf *vbuf = vael_vbuf_create(100, 0);
    struct Case {
        void *h;
        const unsigned char *buf;
        uint32_t len;
        vael_vbuf *vbuf;
        uint32_t flags;
        const char *log;
    } cases[] = {
        {nullptr, text, 3, nullptr, 0, "recieved wrong params"},
        {h.get(), nullptr, 3, nullptr, 0, "recieved wrong params"},
        {h.get(), text, 0, nullptr, 0, "recieved wrong params"},
        {h.get(), text, 3, vbuf, 0, "WM doesn't support vbufs"},
        {h.get(), text, 3, nullptr, VAEL_PM_EXEC_CIRCUMFLEX, "not supported with match circumflex"},
        {h.get(), text, 3, nullptr, VAEL_PM_EXEC_CIRCUMFLEX_ONLY, "not supported with match circumflex"},
    };
    for (const Case &c : cases) {
        log.clear();
        EXPECT_EQ(vael_wm_exec(c.h, c.buf, c.len, c.vbuf, 0, nullptr, c.flags, nullptr, &ctx), -1) << c.log;
        EXPECT_TRUE(log.contains(c.log)) << log.text();
    }
    EXPECT_TRUE(r.hits.empty());
    vael_vbuf_destroy(vbuf);
    // A mask is ignored with a note.
    vael_test::RawMask mask(1);
    log.clear();
    EXPECT_EQ(vael_wm_exec(h.get(), text, 3, nullptr, 0, nullptr, 0, mask.mask(), &ctx), 0);
    EXPECT_TRUE(log.contains("PM mask passed - WM will ignore the masking")) << log.text();
    EXPECT_EQ(r.hits.size(), 1u);
}

struct BadWord {
    const char *name;
    Word word;
    const char *error;  // null: no text for the caller
    uint32_t type;
};

TEST(WordMatcher, CompileRefusals) {
    const BadWord rows[] = {
        {"OnlyDelimiters", {", .", 7}, "Invalid arguments (not valid utf8 or only delimiters phrase)", 0},
        {"NotUtf8", {"\xFF\xFE", 7}, "Invalid arguments (not valid utf8 or only delimiters phrase)", 0},
        {"CutCharacter", {"foo \xC3", 7}, "Invalid arguments (not valid utf8 or only delimiters phrase)", 0},
        {"ContinuousBadFirstChar", {"\x80" "ab", 7, CONT}, nullptr, 1},
    };
    for (const BadWord &r : rows) {
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
    const vael_wm_hash_stats &st = h->hash_stats;
    EXPECT_EQ(st.hash_size, VAEL_WM_COMPILE_HASH_SIZE);
    EXPECT_EQ(st.max_depth, 20u);
    EXPECT_EQ(st.rehashed_phrases, 1u);
    EXPECT_EQ(st.simple_phrases, 21u);
    EXPECT_EQ(st.continuous_words, 1u);
    EXPECT_EQ(st.empty_buckets, VAEL_WM_COMPILE_HASH_SIZE - 3);
    EXPECT_EQ(h->phrases_num, 22u);
    EXPECT_EQ(run(h.get(), "x common w120 y"), (std::vector<WordHit>{{21, 12}}));
    EXPECT_EQ(run(h.get(), "x common w119 y"), (std::vector<WordHit>{{20, 12}}));
    EXPECT_TRUE(run(h.get(), "x commonw120 y").empty());
}

TEST(WordMatcher, StatisticsAndDumpTexts) {
    auto h = compile({{"foo bar", 1}, {"foo", 2}, {"ab", 3, CONT}});
    ASSERT_TRUE(h);
    run(h.get(), "foo bar zz");
    vael_test::LogCapture log;
    vael_wm_stats_print(h.get(), 2);
    for (const char *line : {"Hash size for this wm handle is 131072\n", "Max depth in the hash is 2\n",
                             "Number of simple phrases in the hash 2\n", "Number of continuous words in the hash 1\n",
                             "Average length of a phrase is 4\n", "Average depth in the hash is 6\n",
                             "Number of Empty buckets in the hash is 131070\n",
                             "Number of Rehashed phrases in the hash is 0\n", "Number of executed words is 13\n"})
        EXPECT_TRUE(log.contains(line)) << line << log.text();
    log.clear();
    vael_wm_stats_print(h.get(), 1);
    EXPECT_FALSE(log.contains("Hash size"));
    EXPECT_TRUE(log.contains("Number of mismatches words in str cmp is"));
    log.clear();
    vael_wm_dump(h.get(), 0);
    // Lines come with the log's prefix; the bucket's lines follow each other.
    const size_t at = log.text().find("\tid 2, phrase flags 0, length 3\n");
    ASSERT_NE(at, std::string::npos) << log.text();
    EXPECT_LT(at, log.text().find("\tid 1, phrase flags 0, length 7\n"));
    EXPECT_LT(at, log.text().find("\t*** The bucket have 2 phrases ***\n"));
    EXPECT_TRUE(log.contains("histogram: 1 list in the hash with depth of 2.\n")) << log.text();
    EXPECT_TRUE(log.contains("histogram: 131070 lists in the hash with depth of 0.\n"));
    log.clear();
    vael_wm_dump(nullptr, 0);
    EXPECT_TRUE(log.contains("NULL wm_h"));
}

// ---------------------------------------------------------------- reference

// Letters and delimiters of the random texts, with their code points: ASCII
// and multi-byte, caseless pairs among them, and folds that change length.
struct Sym {
    const char *utf8;
    int32_t cp;
    int32_t folded;
    bool delim;
};
const Sym kAlphabet[] = {
    {"a", 'a', 'a', false},        {"A", 'A', 'a', false},          {"b", 'b', 'b', false},
    {E_ACUTE, 0xE9, 0xE9, false},  {E_ACUTE_CAP, 0xC9, 0xE9, false}, {SHARP_S, 0xDF, 0xDF, false},
    {SHARP_S_CAP, 0x1E9E, 0xDF, false}, {"k", 'k', 'k', false},     {KELVIN, 0x212A, 'k', false},
    {" ", ' ', ' ', true},         {",", ',', ',', true},           {NBSP, 0xA0, 0xA0, true},
};
constexpr size_t kLetters = 9;

struct RefWord {
    std::vector<size_t> syms;
    uint32_t flags;
    int32_t id;
};

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
    for (int round = 0; round < 300; round++) {
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
        for (int t = 0; t < 5; t++) {
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

TEST(WordMatcherUnicode, Classes) {
    struct {
        int32_t c;
        bool space, punct;
        int32_t fold;
    } rows[] = {
        {' ', true, false, ' '},      {'\t', true, false, '\t'},   {0xA0, true, false, 0xA0},
        {0x2028, true, false, 0x2028}, {',', false, true, ','},     {'_', false, true, '_'},
        {'+', false, false, '+'},     {'<', false, false, '<'},    {0x3002, false, true, 0x3002},
        {0xAB, false, true, 0xAB},    {'A', false, false, 'a'},    {0xC9, false, false, 0xE9},
        {0x1E9E, false, false, 0xDF}, {0xDF, false, false, 0xDF},  {0x212A, false, false, 'k'},
        {0x130, false, false, 0x130}, {0x3A3, false, false, 0x3C3}, {0x3C2, false, false, 0x3C3},
        {-1, false, false, -1},       {0x110000, false, false, 0x110000},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.c);
        EXPECT_EQ(tq_u_isspace(r.c) != 0, r.space);
        EXPECT_EQ(tq_u_ispunct(r.c) != 0, r.punct);
        EXPECT_EQ(tq_u_simple_fold_case(r.c), r.fold);
    }
    EXPECT_EQ(utf8_countTrailBytes[0x41], 0);
    EXPECT_EQ(utf8_countTrailBytes[0x80], 0);
    EXPECT_EQ(utf8_countTrailBytes[0xC3], 1);
    EXPECT_EQ(utf8_countTrailBytes[0xE2], 2);
    EXPECT_EQ(utf8_countTrailBytes[0xF0], 3);
    EXPECT_EQ(utf8_countTrailBytes[0xFC], 5);
    EXPECT_EQ(utf8_countTrailBytes[0xFF], 0);
}

TEST(WordMatcherUnicode, Compare) {
    struct {
        std::string text, other;
        uint32_t flags, text_used, other_used;
    } rows[] = {
        {"abcd", "abx", 0, 2, 2},
        {"abc", "abc", 0, 3, 3},
        {"ABC", "abc", TQ_UTF8_CMP_CASELESS, 3, 3},
        {"ABC", "abc", 0, 0, 0},
        {KELVIN "x", "kx", TQ_UTF8_CMP_CASELESS, 4, 2},
        {"xy" E_ACUTE_CAP, E_ACUTE, TQ_UTF8_CMP_CASELESS | TQ_UTF8_CMP_BACKWARD, 2, 2},
        {"zab", "xab", TQ_UTF8_CMP_BACKWARD, 2, 2},
        {"a\xFF" "b", "a\xFF" "b", 0, 3, 3},
        {"a\xC3", "a\xC3", TQ_UTF8_CMP_BACKWARD, 2, 2},
        {"\xA9", E_ACUTE, TQ_UTF8_CMP_BACKWARD, 0, 0},
        {"", "a", 0, 0, 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text + " / " + r.other);
        uint32_t tu = 99, ou = 99;
        tq_utf8_compare(reinterpret_cast<const uint8_t *>(r.text.data()), (uint32_t)r.text.size(), &tu,
                        reinterpret_cast<const uint8_t *>(r.other.data()), (uint32_t)r.other.size(), &ou, r.flags);
        EXPECT_EQ(tu, r.text_used);
        EXPECT_EQ(ou, r.other_used);
    }
}

// lookup3's published values of hashlittle.
TEST(WordMatcherUnicode, HashLittle) {
    EXPECT_EQ(vael_hashlittle("", 0, 0), 0xdeadbeefu);
    EXPECT_EQ(vael_hashlittle("", 0, 0xdeadbeef), 0xbd5b7ddeu);
    EXPECT_EQ(vael_hashlittle("Four score and seven years ago", 30, 0), 0x17770551u);
    EXPECT_EQ(vael_hashlittle("Four score and seven years ago", 30, 1), 0xcd628161u);
}

// ---------------------------------------------------------------- through the PM

struct PmHit {
    int32_t id;
    uint32_t offset;
    bool operator==(const PmHit &o) const { return id == o.id && offset == o.offset; }
};
struct PmRun {
    std::vector<PmHit> hits;
    size_t stop_after = 0;
};
int pm_cb(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
          int *keep_going) {
    auto *r = static_cast<PmRun *>(arg);
    r->hits.push_back({id, offset});
    if (r->stop_after && r->hits.size() >= r->stop_after)
        *keep_going = 0;
    return 0;
}

TEST(WordMatcherPm, WordsBesideStrings) {
    vael_pm_patterns *patterns = vael_pm_patterns_create();
    ASSERT_EQ(vael_pm_patterns_add_simple_pattern(patterns, "needle", 6, 10, 0), 0);
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, "hay stack", 9, 20, 0), 0);
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, E_ACUTE "t" E_ACUTE, 5, 21, CL), 0);
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile_with_wm(patterns, pm_cb, 0, &err, "wm test");
    ASSERT_TRUE(pm) << (err.error_string ? err.error_string : "");
    EXPECT_EQ(pm->tier1[0].tier1_type, (uint32_t)VAEL_PM_TIER1_WM);
    EXPECT_EQ(pm->tier1[1].tier1_type, (uint32_t)VAEL_PM_TIER1_STRING);
    EXPECT_EQ(pm->num_tier2, 1u);
    EXPECT_EQ(pm->stats.num_patterns, 3u);
    // Words are delivered during the scan, before any string of the run.
    const std::string text = "a needle in a hay stack, " E_ACUTE_CAP "T" E_ACUTE_CAP;
    PmRun r;
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                              nullptr, nullptr, &r, 0),
              0);
    EXPECT_EQ(r.hits, (std::vector<PmHit>{{20, 22}, {21, 29}, {10, 7}}));
    // keep_going 0 from a word ends the run: the string engine does not run.
    PmRun first;
    first.stop_after = 1;
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                              nullptr, nullptr, &first, 0),
              0);
    EXPECT_EQ(first.hits, (std::vector<PmHit>{{20, 22}}));
    // The word matcher refuses a vbuf and the circumflex flags: the run fails.
    vael_vbuf *vbuf = vael_vbuf_create(100, 0);
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>("x"), 1, vbuf, nullptr, &r, 0), -1);
    vael_vbuf_destroy(vbuf);
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>("x"), 1, nullptr, nullptr, &r,
                              VAEL_PM_EXEC_CIRCUMFLEX),
              -1);
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(patterns);
}

TEST(WordMatcherPm, WordsOnlyAndRefusals) {
    vael_pm_patterns *patterns = vael_pm_patterns_create();
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, "ab", 2, 5, CONT), 0);
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile(patterns, pm_cb, 0, &err, "wm test");
    ASSERT_TRUE(pm);
    EXPECT_EQ(pm->pm_array, nullptr);
    EXPECT_EQ(pm->num_tier2, 0u);
    EXPECT_EQ(pm->tier1[0].tier1_type, (uint32_t)VAEL_PM_TIER1_WM);
    EXPECT_EQ(pm->tier1[1].tier1_h, nullptr);
    EXPECT_GT(pm_tier1_funcs[VAEL_PM_TIER1_WM].get_common_stats(pm->tier1[0].tier1_h)->memory, 0u);
    PmRun r;
    EXPECT_EQ(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>("xaby"), 4, nullptr, nullptr, &r, 0), 0);
    EXPECT_EQ(r.hits, (std::vector<PmHit>{{5, 2}}));
    vael_pm_destroy(pm);
    // A bad phrase fails the compile with its user id and the engine's text.
    ASSERT_EQ(vael_pm_patterns_add_word(patterns, "--", 2, 6, 0), 0);
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    EXPECT_EQ(vael_pm_compile(patterns, pm_cb, 0, &err, "wm test"), nullptr);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
    EXPECT_EQ(err.pattern_id, 6);
    EXPECT_EQ(err.error_type, 0u);
    EXPECT_STREQ(err.error_string, "Invalid arguments (not valid utf8 or only delimiters phrase)");
    vael_pm_patterns_destroy(patterns);
}

}  // namespace
