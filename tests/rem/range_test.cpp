// Character ranges against a 256-bit reference and an independent UTF-8 matcher; refusals, failures.
#include <gtest/gtest.h>

#include <bitset>
#include <random>
#include <string>
#include <vector>

#include "pm/vael_pmglob_range.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/random_regex.h"
#include "tests/support/vael_test_support.h"

namespace {

// A reader of the UTF-8 range text ("\xHH" bytes and "[\xHH-\xHH]" spans), independent of the range code.
struct ByteSpan { unsigned lo, hi; };
using Alternative = std::vector<ByteSpan>;

// Parses a hexa text; false for anything else.
bool parse_hexa_text(const std::string &text, std::vector<Alternative> *alts) {
    alts->clear();
    alts->emplace_back();
    size_t i = 0;
    auto byte = [&](unsigned *v) {
        if (i + 4 > text.size() || text[i] != '\\' || text[i + 1] != 'x')
            return false;
        *v = (unsigned)std::stoul(text.substr(i + 2, 2), nullptr, 16);
        i += 4;
        return true;
    };
    while (i < text.size()) {
        if (text[i] == '|') {
            alts->emplace_back();
            i++;
        } else if (text[i] == '[') {
            i++;
            ByteSpan s{};
            if (!byte(&s.lo) || i >= text.size() || text[i++] != '-' || !byte(&s.hi) || i >= text.size() ||
                text[i++] != ']')
                return false;
            alts->back().push_back(s);
        } else {
            unsigned v;
            if (!byte(&v))
                return false;
            alts->back().push_back({v, v});
        }
    }
    if (alts->size() == 1 && alts->back().empty())
        alts->clear();
    return true;
}

bool matches(const std::vector<Alternative> &alts, const std::string &bytes) {
    for (const auto &alt : alts) {
        if (alt.size() != bytes.size())
            continue;
        bool ok = true;
        for (size_t k = 0; ok && k < alt.size(); k++) {
            auto b = (unsigned char)bytes[k];
            ok = b >= alt[k].lo && b <= alt[k].hi;
        }
        if (ok)
            return true;
    }
    return false;
}

using Bits = std::bitset<256>;

struct RangeDeleter {
    void operator()(vael_pmglob_range *r) const { vael_pmglob_range_destroy(r); }
};
using Range = std::unique_ptr<vael_pmglob_range, RangeDeleter>;

Range make_range(uint32_t flags = 0) { return Range(vael_pmglob_range_create(flags)); }

const vael_pmascii_range &ascii(const Range &r) { return *static_cast<const vael_pmascii_range *>(r->impl); }
const vael_pmutf8_range &utf8(const Range &r) { return *static_cast<const vael_pmutf8_range *>(r->impl); }

Bits flags_of(const Range &r) {
    Bits b;
    for (int c = 0; c < 256; c++)
        b[c] = ascii(r).chars[c] != 0;
    return b;
}

std::string text_of(const Range &r) {
    const auto &u = utf8(r);
    return std::string(reinterpret_cast<const char *>(u.buf), u.buf_used);
}

// A reference ASCII range: flags plus the span of bytes touched.
struct Reference {
    Bits bits;
    int first = 255, last = 0;
    void touch(int f, int l) {
        first = std::min(first, f);
        last = std::max(last, l);
    }
};

void expect_same(const Range &r, const Reference &ref, const std::string &what) {
    EXPECT_EQ(flags_of(r), ref.bits) << what;
    EXPECT_EQ(ascii(r).first, ref.first) << what;
    EXPECT_EQ(ascii(r).last, ref.last) << what;
    EXPECT_EQ(vael_pmglob_range_is_single(r.get()) != 0, ref.first == ref.last) << what;
}

// Adds of random spans, removals among them when `removals`.
void random_adds(std::mt19937 &rng, Range &r, Reference &ref, bool removals, std::string *log) {
    int ops = 1 + (int)(rng() % 6);
    for (int i = 0; i < ops; i++) {
        int f = (int)(rng() % 256), l = f + (int)(rng() % (256 - f));
        int positive = removals ? (int)(rng() % 2) : 1;
        // The top of the code points means the top byte to the ASCII form.
        uint32_t last = (l == 255 && rng() % 2) ? VAEL_PMUTF8_MAX_CODE_POINT : (uint32_t)l;
        ASSERT_EQ(vael_pmglob_range_add_range(r.get(), (uint32_t)f, last, positive, nullptr), 0);
        for (int c = f; c <= l; c++)
            ref.bits[c] = positive != 0;
        ref.touch(f, l);
        *log += " add(" + std::to_string(f) + "," + std::to_string(l) + "," + std::to_string(positive) + ")";
    }
}

TEST(PmglobRangeAscii, SpansAndMergeAgreeWithABitsetReference) {
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; round++) {
        std::string log;
        Range a = make_range(), b = make_range();
        Reference ra, rb;
        random_adds(rng, a, ra, true, &log);
        expect_same(a, ra, "a:" + log);
        if (rng() % 4 != 0)  // an untouched source must change nothing
            random_adds(rng, b, rb, true, &log);
        ASSERT_EQ(vael_pmglob_range_merge(b.get(), a.get(), (int)(rng() % 2)), 0);
        // Merge is union, and widens only by a source that was touched.
        ra.bits |= rb.bits;
        if (rb.first <= rb.last)
            ra.touch(rb.first, rb.last);
        expect_same(a, ra, "merged:" + log);
    }
}

// ---------------------------------------------------------------- UTF-8 form

std::vector<Alternative> alternatives(const Range &r) {
    std::vector<Alternative> alts;
    EXPECT_TRUE(parse_hexa_text(text_of(r), &alts)) << text_of(r);
    return alts;
}

// Code points worth probing for a span: the encoding limits, the span's own
// edges, and some at random.
std::vector<uint32_t> probes(std::mt19937 &rng, std::initializer_list<uint32_t> edges) {
    std::vector<uint32_t> out = {0, 1, 0x7F, 0x80, 0x7FF, 0x800, 0xFFFF, 0x10000, 0xFFFFF, 0x100000, 0x10FFFF};
    for (uint32_t e : edges)
        for (int d = -1; d <= 1; d++)
            if ((int64_t)e + d >= 0 && (int64_t)e + d <= 0x10FFFF)
                out.push_back(e + d);
    for (int i = 0; i < 60; i++)
        out.push_back(rng() % 0x110000);
    return out;
}

uint32_t random_code_point(std::mt19937 &rng) {
    static const uint32_t kLimits[] = {0x80, 0x800, 0x10000, 0x110000};
    uint32_t limit = kLimits[rng() % 4];
    return rng() % limit;
}

// Alternatives never reach above the top code point F4 8F BF BF: the
// highest sequence of each is made of its spans' upper bytes.
void expect_under_the_top(const std::vector<Alternative> &alts, const std::string &text) {
    const std::vector<unsigned> top = {0xF4, 0x8F, 0xBF, 0xBF};
    for (const auto &alt : alts) {
        if (alt.size() != 4)
            continue;
        std::vector<unsigned> highest;
        for (const auto &span : alt)
            highest.push_back(span.hi);
        EXPECT_LE(highest, top) << text;
    }
}

TEST(PmglobRangeUtf8, SpanTextMatchesExactlyTheSpan) {
    std::mt19937 rng(19);
    for (int round = 0; round < 3000; round++) {
        uint32_t a = random_code_point(rng), b = random_code_point(rng);
        if (a > b)
            std::swap(a, b);
        Range r = make_range(VAEL_PM_UTF8);
        ASSERT_EQ(vael_pmglob_range_add_hexa_range(r.get(), a, b, 1, nullptr), 0);
        EXPECT_EQ(utf8(r).first, a);
        EXPECT_EQ(utf8(r).last, b);
        const auto alts = alternatives(r);
        expect_under_the_top(alts, text_of(r));
        // A walk that crosses into the F4 lead from below lowers the second
        // byte to 8F under F1..F3 too, so U+50000..U+7FFFF and U+90000..U+BFFFF
        // stay out: there the text is only sound, elsewhere exact.
        const bool exact = b < 0x100000 || a >= 0x100000;
        for (uint32_t cp : probes(rng, {a, b})) {
            bool in = cp >= a && cp <= b;
            bool matched = matches(alts, vael_test::encode_utf8(cp));
            if (exact || !in) {
                EXPECT_EQ(matched, in) << std::hex << "span " << a << "-" << b << " probe " << cp << " text "
                                       << text_of(r);
            }
        }
    }
}

TEST(PmglobRangeUtf8, ExclusionsLeaveTheComplement) {
    std::mt19937 rng(23);
    for (int round = 0; round < 1500; round++) {
        Range r = make_range(VAEL_PM_UTF8);
        ASSERT_EQ(vael_pmglob_range_add_range(r.get(), 0, VAEL_PMUTF8_MAX_CODE_POINT, 1, nullptr), 0);
        std::vector<std::pair<uint32_t, uint32_t>> out;
        std::vector<uint32_t> edges;
        int n = 1 + (int)(rng() % 5);
        for (int i = 0; i < n; i++) {
            uint32_t a = random_code_point(rng), b = random_code_point(rng);
            if (rng() % 8 == 0)
                a = 0;  // an exclusion from 0 adds nothing in front of it
            if (rng() % 8 == 0)
                b = VAEL_PMUTF8_MAX_CODE_POINT;  // nor one up to the top behind it
            if (a > b)
                std::swap(a, b);
            out.push_back({a, b});
            edges.push_back(a);
            edges.push_back(b);
            ASSERT_EQ(vael_pmglob_range_add_range(r.get(), a, b, 0, nullptr), 0);
        }
        ASSERT_NE(utf8(r).logical_ranges, nullptr);
        ASSERT_EQ(vael_pmglob_range_handle_logical_range(r.get(), nullptr), 0);
        EXPECT_EQ(utf8(r).logical_ranges, nullptr);
        EXPECT_EQ(vael_pmglob_range_is_negate(r.get()), 1);
        const auto alts = alternatives(r);
        std::vector<uint32_t> all = probes(rng, {});
        all.insert(all.end(), edges.begin(), edges.end());
        for (uint32_t e : edges) {
            all.push_back(e > 0 ? e - 1 : e);
            all.push_back(e < 0x10FFFF ? e + 1 : e);
        }
        for (uint32_t cp : all) {
            bool excluded = false;
            for (auto [a, b] : out)
                excluded = excluded || (cp >= a && cp <= b);
            bool matched = matches(alts, vael_test::encode_utf8(cp));
            // The gap of the F4 crossing applies to the gaps' spans as well.
            if (excluded || cp < 0x40000 || cp >= 0x100000) {
                EXPECT_EQ(matched, !excluded) << std::hex << "probe " << cp << " text " << text_of(r);
            }
        }
    }
}

TEST(PmglobRangeUtf8, EncodingRoundTripsEveryCodePoint) {
    for (uint32_t cp = 0; cp <= VAEL_PMUTF8_MAX_CODE_POINT; cp++) {
        vael_pmutf8_char c;
        ASSERT_EQ(vael_pmutf8_range_num_to_utf8(cp, &c), 0);
        ASSERT_EQ(std::string(reinterpret_cast<char *>(c.bytes), c.num_of_bytes), vael_test::encode_utf8(cp));
        ASSERT_EQ(vael_pmutf8_range_utf8_to_num(&c), (int32_t)cp);
    }
    vael_pmutf8_char c;
    EXPECT_EQ(vael_pmutf8_range_num_to_utf8(0x110000, &c), -1);
    c = {{0xF7, 0xBF, 0xBF, 0xBF}, 4};
    EXPECT_EQ(vael_pmutf8_range_utf8_to_num(&c), -1);
    c.num_of_bytes = 5;
    EXPECT_EQ(vael_pmutf8_range_utf8_to_num(&c), -1);
}

// ---------------------------------------------------------------- refusals

TEST(PmglobRange, RefusalsCarryTheirWords) {
    const struct {
        uint32_t flags, first, last;
    } rows[] = {{0, 'z', 'a'}, {VAEL_PM_UTF8, 'z', 'a'}, {VAEL_PM_UTF8, 0, 0x110000}};
    for (const auto &row : rows) {
        Range r = make_range(row.flags);
        vael_pm_error err;
        vael_pm_error_init(&err);
        EXPECT_EQ(vael_pmglob_range_add_range(r.get(), row.first, row.last, 1, &err), -1);
        EXPECT_STREQ(err.error_string, "Illegal range inside brackets");
        EXPECT_EQ(err.error_type, 0u);
    }
    // Forms that differ do not merge; a negated UTF-8 range with nothing
    // excluded has no list to close.
    vael_test::LogCapture quiet;
    Range a = make_range(), u = make_range(VAEL_PM_UTF8);
    EXPECT_EQ(vael_pmglob_range_merge(a.get(), u.get(), 1), -1);
    vael_pmglob_range_negate(u.get());
    EXPECT_EQ(vael_pmglob_range_handle_logical_range(u.get(), nullptr), -1);
}

TEST(PmglobRange, AllocationFailuresLeaveNothingBehind) {
    for (uint32_t flags : {0u, (uint32_t)VAEL_PM_UTF8}) {
        vael_test::ScopedGlobal size(vael_pm_utf8_range_buffer_size, 16);
        vael_pmglob_range *built = nullptr;
        vael_pm_error err;
        auto attempt = [&] {
            vael_pm_error_init(&err);
            Range r(vael_pmglob_range_create(flags));
            if (!r)
                return false;
            // A long text, exclusions and their closing, a merge and a copy out.
            if (vael_pmglob_range_add_hexa_range(r.get(), 0x20, 0x10FFFF, 1, &err) != 0 ||
                vael_pmglob_range_add_range(r.get(), 0x30, 0x39, 0, &err) != 0 ||
                vael_pmglob_range_add_range(r.get(), 0x41, 0x5A, 0, &err) != 0 ||
                vael_pmglob_range_handle_logical_range(r.get(), &err) != 0)
                return false;
            Range other(vael_pmglob_range_create(flags));
            if (!other || vael_pmglob_range_merge(r.get(), other.get(), 1) != 0)
                return false;
            built = r.release();
            return true;
        };
        auto clean = [&] { return !built; };
        vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
        EXPECT_GT(w.rounds, 2) << flags;
        vael_pmglob_range_destroy(built);
    }
}

}  // namespace
