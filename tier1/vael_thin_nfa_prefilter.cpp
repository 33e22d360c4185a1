// vael_thin_nfa_prefilter.cpp - derives a handle's candidate filter from its
// BNFA and searches with it (see vael_thin_nfa_prefilter.h).
//
// The derivation walks the trie's top depth first, straight on the BNFA with
// one frame per level and no other memory: once 16 levels deep for the
// confirmation's keys and the count of pattern beginnings per length, which
// deals the buckets, and once 8 levels deep to fill the first stage's table.

#include "tier1/vael_thin_nfa_prefilter.h"

#include <immintrin.h>

#include <cstring>

#include "runtime/vael_runtime.h"

extern "C" {
int vael_thin_nfa_prefilter = THIN_NFA_PREFILTER_AUTO;
}

namespace {

constexpr const char *kThinTopics = "K_THINNFA | K_PM";
constexpr uint32_t kDepth = THIN_NFA_PREFILTER_DEPTH;
constexpr uint32_t kBuckets = THIN_NFA_PREFILTER_BUCKETS;
// The confirmation looks this deep: past the prefixes that traffic shares
// with many patterns ("Content-Type: ", "session="), which pass the first
// stage at every turn and would otherwise each send the automaton down a
// long walk back to its root.
constexpr uint32_t kConfirmDepth = THIN_NFA_PREFILTER_CONFIRM_DEPTH;
// Confirmation bits per state of the BNFA: the keys are at most one per
// state, in practice about one in five, which gives about 1% false passes
// per length tested.
constexpr uint32_t kConfirmBitsPerState = 32;
constexpr uint32_t kMinConfirmLog2 = 12; // 512 bytes
// The confirmation's bitmap at most 256 KiB and a quarter of the BNFA's
// size past the minimum, the first stage's table a quarter too: the filter
// stays small beside the automaton it serves.
constexpr uint32_t kMaxConfirmLog2 = 21;
// Domain bits: a byte and up to 6 bits of the next. Each bit more halves the
// chance that text collides with a beginning at an offset, and doubles the
// table. Up to 32 KiB it sits in the first-level cache; past that it grows
// only while text would still collide with a beginning at an offset more
// often than about one time in two, and the largest sets keep it in the
// second-level cache.
constexpr uint32_t kMinDomainBits = 8;
constexpr uint32_t kCacheDomainBits = 12;
constexpr uint32_t kMaxDomainBits = 14;
constexpr uint32_t kEntriesPerBeginning = 16;
constexpr uint32_t kEntriesPerBeginningPastCache = 2;

// Raw bytes by canonical byte, with case folded as the domain folds
// it: those of c from first[c] to first[c + 1], each once.
struct RawBytes {
    uint16_t first[257];
    uint8_t bytes[256];
};

void index_raw_bytes(const vael_thin_nfa *nfa, uint8_t fold, RawBytes &raw) {
    const bool xlate = nfa->flags & THIN_NFA_FLAG_XLATION;
    auto canonical = [&](uint32_t b) -> uint32_t { return xlate ? nfa->xlation_tab[b] : b; };
    // A folded raw byte is listed under its canonical byte once: with case
    // folded, a letter and its other case are one entry. Other bytes may
    // fold onto it under other canonical bytes, so a pair is what is seen.
    uint64_t seen[256 * 256 / 64] = {};
    auto first_time = [&](uint32_t b) {
        const uint32_t key = canonical(b) << 8 | (uint8_t)(b | fold);
        const bool fresh = !((seen[key >> 6] >> (key & 63)) & 1u);
        seen[key >> 6] |= 1ull << (key & 63);
        return fresh;
    };
    uint16_t count[256] = {};
    for (uint32_t b = 0; b < 256; b++)
        if (first_time(b))
            count[canonical(b)]++;
    raw.first[0] = 0;
    for (uint32_t c = 0; c < 256; c++)
        raw.first[c + 1] = (uint16_t)(raw.first[c] + count[c]);
    uint16_t at[256];
    std::memcpy(at, raw.first, sizeof at);
    std::memset(seen, 0, sizeof seen);
    for (uint32_t b = 0; b < 256; b++)
        if (first_time(b))
            raw.bytes[at[canonical(b)]++] = (uint8_t)(b | fold);
}

// One state on the walk's path from the root: the trie's edges below it are
// taken one at a time, the partial state's transitions by index, the full
// state's table by canonical byte.
struct Frame {
    uint32_t offset;
    uint32_t next; // the next transition index, or the next byte of a full table
    uint32_t fail; // a full state's fail state; it tells children from folded fail transitions
};

// A depth-first walk of the trie's top, with the path's canonical bytes in
// path[0 .. depth). The BNFA names each state's children: a partial state's
// transitions are all children; a full state's entry for c is a child
// exactly when it differs from the fail state's step by c, which is what
// the build folded in for every byte without a child. No allocation: the
// stack holds one frame per level. A walk that visits more states than the
// BNFA holds (a BNFA whose links do not form a trie) stops and fails.
struct Walk {
    const vael_thin_nfa *nfa;
    const uint32_t *bnfa;
    uint32_t words;
    const RawBytes *raw;
    bool xlate;
    uint8_t path[kConfirmDepth];
};

bool state_fits(const Walk &w, uint32_t offset) {
    if (offset >= w.words || (w.bnfa[offset] >> BNFA_STATE_ID_SHIFT) >= w.nfa->state_num)
        return false;
    if (!(w.bnfa[offset] & BNFA_STATE_PARTIAL))
        return w.words - offset >= BNFA_FULL_STATE_WORDS;
    return w.words - offset >= 2 && w.words - offset - 2 >= (w.bnfa[offset + 1] & 0xffu);
}

// The automaton's step from `offset` by canonical byte c, down the fail
// chain as the run takes it; the chain is bounded against a malformed BNFA.
uint32_t step_offset(const Walk &w, uint32_t offset, uint32_t c) {
    for (uint32_t hops = 0; hops <= w.nfa->state_num; hops++) {
        const uint32_t *s = w.bnfa + offset;
        if (!(*s & BNFA_STATE_PARTIAL))
            return s[1 + c];
        if (const uint32_t *next = vael_thin_nfa_get_next_state(s, w.bnfa, (unsigned char)c))
            return (uint32_t)(next - w.bnfa);
        offset = s[1] >> 8;
        if (!state_fits(w, offset))
            return 0;
    }
    return 0;
}

// The fail state of the state that path[0 .. depth) leads to: where the
// automaton stands after path[1 .. depth) from the root.
uint32_t fail_of(const Walk &w, uint32_t depth) {
    uint32_t offset = 0;
    for (uint32_t i = 1; i < depth; i++) {
        offset = step_offset(w, offset, w.path[i]);
        if (!state_fits(w, offset))
            return 0;
    }
    return offset;
}

// Calls visit(depth, offset) for every state of depth 1 ..
// max_depth, parents first; 0, or -1 when the walk ran over its budget.
template <class F>
int walk_trie(Walk &w, uint32_t max_depth, F &&visit) {
    Frame stack[kConfirmDepth + 1];
    uint32_t depth = 0;
    stack[0] = Frame{0, 0, 0};
    uint64_t budget = w.nfa->state_num;
    for (;;) {
        Frame &f = stack[depth];
        const uint32_t *s = w.bnfa + f.offset;
        uint32_t c = 0, child = 0;
        bool found = false;
        if (*s & BNFA_STATE_PARTIAL) {
            const uint32_t n = s[1] & 0xffu;
            while (f.next < n && !found) {
                const uint32_t word = s[2 + f.next++];
                c = word & 0xffu;
                child = word >> 8;
                found = state_fits(w, child);
            }
        } else {
            while (f.next < 256 && !found) {
                c = f.next++;
                if (w.xlate && w.nfa->xlation_tab[c] != c)
                    continue;
                child = s[1 + c];
                if (depth == 0)
                    found = child != 0;
                else
                    found = child != step_offset(w, f.fail, c);
                found = found && state_fits(w, child);
            }
        }
        if (!found) {
            if (depth == 0)
                return 0;
            depth--;
            continue;
        }
        if (budget-- == 0)
            return -1;
        w.path[depth] = (uint8_t)c;
        visit(depth + 1, child);
        if (depth + 1 < max_depth) {
            depth++;
            stack[depth] = Frame{child, 0, 0};
            const uint32_t *t = w.bnfa + child;
            if (!(*t & BNFA_STATE_PARTIAL)) {
                stack[depth].fail = fail_of(w, depth);
            } else {
                // The children are visited later, each a cache miss of its
                // own unless asked for now, all at once.
                const uint32_t n = t[1] & 0xffu;
                for (uint32_t i = 0; i < n; i++)
                    if ((t[2 + i] >> 8) < w.words)
                        __builtin_prefetch(w.bnfa + (t[2 + i] >> 8));
            }
        }
    }
}

// The key of the first len bytes (or of a tag) of the text lo, hi.
void set_confirm(vael_thin_nfa_prefilter_tables *pf, uint64_t lo, uint64_t hi, uint32_t len) {
    if (len < 8)
        lo &= (1ull << (8 * len)) - 1;
    if (len < 8 || len == THIN_NFA_PREFILTER_TAG_PREFIX8)
        hi = 0;
    else if (len < 16)
        hi &= (1ull << (8 * (len - 8))) - 1;
    uint32_t h = vael_thin_nfa_prefilter_confirm_hash(pf, lo, hi, len);
    pf->confirm[h >> 5] |= 1u << (h & 31);
}


// How the beginnings are dealt into buckets: those of each length 1..8 (a
// beginning of 8 bytes stands for every longer pattern) belong to a group
// of neighbouring lengths, which gets `count[len]` buckets from `first[len]`
// on and holds `size[len]` beginnings; a group's beginnings are split among
// its buckets in walk order, so that siblings share a bucket and its offsets
// stay selective.
struct Deal {
    uint32_t first[kDepth + 1];
    uint32_t count[kDepth + 1];
    uint32_t size[kDepth + 1];
};

// The expected share of positions that a bucket of n beginnings, the
// shortest len bytes long, lets pass: text matching one of them outright
// (taken at 4 bits of surprise per byte of traffic), or colliding with some
// beginning at each of its len - 1 full offsets.
double bucket_cost(double n, uint32_t len, uint32_t domain_bits) {
    double outright = n;
    double collide = 1.0;
    for (uint32_t i = 0; i < len; i++)
        outright /= 16.0;
    for (uint32_t i = 1; i < len; i++)
        collide *= n / (double)(1u << domain_bits) < 1.0 ? n / (double)(1u << domain_bits) : 1.0;
    const double cost = outright + collide;
    return cost < 1.0 ? cost : 1.0;
}

// Groups of neighbouring lengths and the buckets each group gets, chosen by
// dynamic programming over the lengths for the least total cost; a group's
// beginnings are tested only as deep as its shortest.
Deal deal_buckets(const uint32_t (&beginnings)[kDepth + 1], uint32_t domain_bits) {
    constexpr double kInf = 1e300;
    // best[i][m]: lengths 1..i dealt into m buckets; from[i][m]: where the
    // last group begins, and take[i][m] the buckets it gets.
    double best[kDepth + 1][kBuckets + 1];
    uint32_t from[kDepth + 1][kBuckets + 1] = {}, take[kDepth + 1][kBuckets + 1] = {};
    for (auto &row : best)
        for (double &cell : row)
            cell = kInf;
    for (uint32_t m = 0; m <= kBuckets; m++)
        best[0][m] = 0;
    for (uint32_t i = 1; i <= kDepth; i++) {
        for (uint32_t j = i; j-- > 0;) {
            // The group of lengths j + 1 .. i.
            uint32_t n = 0, shortest = 0;
            for (uint32_t len = i; len > j; len--)
                if (beginnings[len]) {
                    n += beginnings[len];
                    shortest = len;
                }
            for (uint32_t m = 0; m <= kBuckets; m++) {
                if (n == 0) {
                    if (best[j][m] < best[i][m]) {
                        best[i][m] = best[j][m];
                        from[i][m] = j;
                        take[i][m] = 0;
                    }
                    continue;
                }
                for (uint32_t t = 1; t <= m && t <= n; t++) {
                    if (best[j][m - t] >= kInf)
                        continue;
                    const double cost = best[j][m - t] + t * bucket_cost((double)n / t, shortest, domain_bits);
                    if (cost < best[i][m]) {
                        best[i][m] = cost;
                        from[i][m] = j;
                        take[i][m] = t;
                    }
                }
            }
        }
    }
    Deal deal = {};
    uint32_t m = kBuckets, next = 0;
    for (uint32_t i = kDepth; i > 0;) {
        const uint32_t j = from[i][m], t = take[i][m];
        uint32_t n = 0;
        for (uint32_t len = j + 1; len <= i; len++)
            n += beginnings[len];
        for (uint32_t len = j + 1; len <= i; len++) {
            deal.first[len] = next;
            deal.count[len] = t;
            deal.size[len] = n;
        }
        next += t;
        m -= t;
        i = j;
    }
    return deal;
}

// Tells the beginnings among the states a walk visits, parents first: a
// path of 8 bytes, or a shorter one that ends in a finite state (the paths
// below it need no beginnings of their own, for the shorter pattern's start
// is a candidate already).
struct Beginnings {
    uint32_t under = 0; // depth of the finite state the walk is below; 0: none

    bool is_one(uint32_t depth, bool finite) {
        if (under && depth <= under)
            under = 0;
        if (under || depth > kDepth || !(finite || depth == kDepth))
            return false;
        under = depth < kDepth ? depth : 0;
        return true;
    }
};

// Visits every beginning: visit(len).
template <class F>
int walk_beginnings(Walk &w, F &&visit) {
    Beginnings beginnings;
    return walk_trie(w, kDepth, [&](uint32_t d, uint32_t offset) {
        if (beginnings.is_one(d, w.bnfa[offset] & BNFA_STATE_FINITE))
            visit(d);
    });
}

// Clears bucket bit b at offset k in every entry whose domain the raw bytes
// of canonical c0, then c1, can show (c1 < 0: the next byte is free).
void allow(const Walk &w, vael_thin_nfa_prefilter_tables *pf, uint32_t k, uint32_t b, uint32_t c0, int c1) {
    const uint64_t bit = 1ull << (8 * (7 - k) + b);
    const uint32_t high = 1u << (pf->domain_bits - 8);
    const RawBytes &raw = *w.raw;
    const uint32_t n0 = raw.first[c0 + 1] - raw.first[c0];
    const uint32_t n1 = c1 < 0 ? 0 : raw.first[c1 + 1] - raw.first[c1];
    // Past 256 spellings of a pair (a translation that folds many bytes
    // together) the next byte is taken as free: fewer refusals, same hits.
    if (c1 < 0 || n0 * n1 > 256) {
        for (uint32_t r = raw.first[c0]; r < raw.first[c0 + 1]; r++)
            for (uint32_t h = 0; h < high; h++)
                pf->table[((raw.bytes[r] | pf->fold) & 0xffu) | h << 8] &= ~bit;
        return;
    }
    for (uint32_t r0 = raw.first[c0]; r0 < raw.first[c0 + 1]; r0++)
        for (uint32_t r1 = raw.first[c1]; r1 < raw.first[c1 + 1]; r1++) {
            const uint32_t load = raw.bytes[r0] | (uint32_t)raw.bytes[r1] << 8;
            pf->table[(load | pf->fold) & pf->domain_mask] &= ~bit;
        }
}

// The first stage's table: every beginning allowed in its bucket at each of
// its offsets, and each bucket free at the offsets past its shortest.
void fill_table(Walk &w, vael_thin_nfa_prefilter_tables *pf, const Deal &deal) {
    const size_t entries = (size_t)1 << pf->domain_bits;
    std::memset(pf->table, 0xff, entries * sizeof(uint64_t));
    uint32_t seen[kBuckets] = {}; // beginnings dealt so far, per group by its first bucket
    uint32_t shortest[kBuckets];
    for (uint32_t &len : shortest)
        len = kDepth;
    walk_beginnings(w, [&](uint32_t len) {
        const uint32_t group = deal.first[len];
        // The walk meets the beginnings that were counted, in the same
        // order; the bound only keeps a bucket in its group regardless.
        const uint32_t share = (uint32_t)((uint64_t)seen[group]++ * deal.count[len] / deal.size[len]);
        const uint32_t b = group + (share < deal.count[len] ? share : deal.count[len] - 1);
        if (len < shortest[b])
            shortest[b] = len;
        for (uint32_t k = 0; k < len; k++)
            allow(w, pf, k, b, w.path[k], k + 1 < len ? w.path[k + 1] : -1);
    });
    uint64_t free_offsets = 0;
    for (uint32_t b = 0; b < kBuckets; b++)
        for (uint32_t k = shortest[b]; k < kDepth; k++)
            free_offsets |= 1ull << (8 * (7 - k) + b);
    if (free_offsets)
        for (size_t d = 0; d < entries; d++)
            pf->table[d] &= ~free_offsets;
}

// The search. The register holds, in byte i, the buckets refused so far to
// a start at block - 7 + i; the lookup at block + j is ORed in shifted by j
// bytes. After the block's lookups, bytes 0..7 have seen all 8 offsets of
// their starts, and bytes 8..15 carry into the next block.
template <bool kFold>
__attribute__((always_inline)) inline const unsigned char *find_blocks(const vael_thin_nfa_prefilter_tables *pf,
                                                                        const unsigned char *p,
                                                                        const unsigned char *end) {
    if (end - p < (ptrdiff_t)THIN_NFA_PREFILTER_LOAD)
        return p;
    const unsigned char *last = end - (THIN_NFA_PREFILTER_LOAD - 1);
    const uint64_t *table = pf->table;
    const uint32_t mask = pf->domain_mask;
    // The fold is bit 5 of every byte, set once per word.
    const uint64_t fold = kFold ? 0x2020202020202020ull : 0;
    // The lookups of one block, shifted into place. The domains come out of
    // two 64-bit loads, at the block and one byte on, which keeps the load
    // ports for the table.
    auto at = [&](uint64_t word, uint32_t shift) {
        return _mm_loadl_epi64(reinterpret_cast<const __m128i *>(table + ((word >> shift) & mask)));
    };
    auto lookups = [&](const unsigned char *block) {
        uint64_t w0, w1;
        std::memcpy(&w0, block, 8);
        std::memcpy(&w1, block + 1, 8);
        w0 |= fold;
        w1 |= fold;
        const __m128i e0 = at(w0, 0), e1 = _mm_slli_si128(at(w1, 0), 1);
        const __m128i e2 = _mm_slli_si128(at(w0, 16), 2), e3 = _mm_slli_si128(at(w1, 16), 3);
        const __m128i e4 = _mm_slli_si128(at(w0, 32), 4), e5 = _mm_slli_si128(at(w1, 32), 5);
        const __m128i e6 = _mm_slli_si128(at(w0, 48), 6), e7 = _mm_slli_si128(at(w1, 48), 7);
        return _mm_or_si128(_mm_or_si128(_mm_or_si128(e0, e1), _mm_or_si128(e2, e3)),
                            _mm_or_si128(_mm_or_si128(e4, e5), _mm_or_si128(e6, e7)));
    };
    // The first start of `open`, counted from `base`, that the confirmation
    // lets stand; `last` once past it; null when none.
    auto first_standing = [&](const unsigned char *base, uint32_t open) -> const unsigned char * {
        for (; open; open &= open - 1) {
            const unsigned char *q = base + __builtin_ctz(open);
            if (q >= last)
                return last;
            if (vael_thin_nfa_prefilter_confirm(pf, q, end))
                return q;
        }
        return nullptr;
    };
    // The starts before p, bytes 0..6 of the first block, are refused.
    __m128i carry = _mm_set_epi64x(0, 0x00ffffffffffffffll);
    const __m128i ones = _mm_set1_epi32(-1);
    const unsigned char *block = p;
    // Two blocks a turn, one test of their 16 finished starts: a block's
    // lookups read up to block + 8.
    while (end - block >= (ptrdiff_t)(8 + THIN_NFA_PREFILTER_LOAD)) {
        const __m128i a = _mm_or_si128(carry, lookups(block));
        const __m128i b = lookups(block + 8);
        const __m128i done = _mm_unpacklo_epi64(a, _mm_or_si128(_mm_srli_si128(a, 8), b));
        carry = _mm_srli_si128(b, 8);
        uint32_t open = ~(uint32_t)_mm_movemask_epi8(_mm_cmpeq_epi8(done, ones)) & 0xffffu;
        if (__builtin_expect(open != 0, 0))
            if (const unsigned char *q = first_standing(block - 7, open))
                return q;
        block += 16;
    }
    if (end - block >= (ptrdiff_t)THIN_NFA_PREFILTER_LOAD) {
        const __m128i a = _mm_or_si128(carry, lookups(block));
        uint32_t open = ~(uint32_t)_mm_movemask_epi8(_mm_cmpeq_epi8(a, ones)) & 0xffu;
        if (const unsigned char *q = open ? first_standing(block - 7, open) : nullptr)
            return q;
        block += 8;
    }
    // The starts the blocks did not finish, each looked up alone.
    for (const unsigned char *q = block - 7 > p ? block - 7 : p; q < last; q++)
        if (vael_thin_nfa_prefilter_test(pf, q) && vael_thin_nfa_prefilter_confirm(pf, q, end))
            return q;
    return last;
}

const unsigned char *find_plain(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p,
                                const unsigned char *end) {
    return pf->fold ? find_blocks<true>(pf, p, end) : find_blocks<false>(pf, p, end);
}

// The same loops built for AVX2 and BMI2: three-operand vector forms and
// flagless shifts. On the AMD machines measured so far they run no faster
// than the SSE2 build; the two stay apart so each can be tuned and tested.
__attribute__((target("avx2,bmi,bmi2"))) const unsigned char *find_avx2(const vael_thin_nfa_prefilter_tables *pf,
                                                                         const unsigned char *p,
                                                                         const unsigned char *end) {
    return pf->fold ? find_blocks<true>(pf, p, end) : find_blocks<false>(pf, p, end);
}

bool cpu_has_avx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2");
}

// Read once, as the process starts.
const bool kCpuHasAvx2 = cpu_has_avx2();

size_t table_bytes(const vael_thin_nfa_prefilter_tables *pf) { return sizeof(uint64_t) << pf->domain_bits; }
size_t confirm_bytes(const vael_thin_nfa_prefilter_tables *pf) {
    return sizeof(uint32_t) * (size_t)pf->confirm_words;
}

void free_tables(vael_thin_nfa_prefilter_tables *pf) {
    if (pf->table)
        VAEL_PM_KFREE(pf->table, table_bytes(pf));
    if (pf->confirm)
        VAEL_PM_KFREE(pf->confirm, confirm_bytes(pf));
    VAEL_PM_KFREE(pf, sizeof *pf);
}

}  // namespace

extern "C" int vael_thin_nfa_prefilter_build(vael_thin_nfa *nfa) {
    if (!nfa || !nfa->bnfa || nfa->state_num == 0 || nfa->bnfa_size < BNFA_FULL_STATE_BYTES)
        return -1;
    const bool xlate = nfa->flags & THIN_NFA_FLAG_XLATION;
    // Letters differ from their other case in bit 5 alone, so with case
    // folded a domain and its respellings are one key.
    const bool caseless = xlate && nfa->xlation_tab['A'] == 'a';
    RawBytes raw;
    index_raw_bytes(nfa, caseless ? 0x20 : 0, raw);
    Walk w{nfa, nfa->bnfa, nfa->bnfa_size / 4, &raw, xlate, {}};
    if (!state_fits(w, 0) || (nfa->bnfa[0] & BNFA_STATE_PARTIAL))
        return -1;

    auto *pf = static_cast<vael_thin_nfa_prefilter_tables *>(VAEL_PM_KMALLOC(sizeof(vael_thin_nfa_prefilter_tables)));
    if (!pf) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter for %d states\n", (int)nfa->state_num);
        return -1;
    }
    std::memset(pf, 0, sizeof *pf);
    pf->xlation_tab = xlate ? nfa->xlation_tab : nullptr;
    // The confirmation is sized by the state count, an upper bound of its
    // keys, so one walk both counts the beginnings and fills it.
    uint32_t log2 = kMinConfirmLog2;
    while (log2 < kMaxConfirmLog2 && (1ull << log2) < (uint64_t)nfa->state_num * kConfirmBitsPerState &&
           (1ull << (log2 + 1)) / 8 <= nfa->bnfa_size / 4)
        log2++;
    pf->confirm_shift = 64 - log2;
    pf->confirm_words = 1u << (log2 - 5);
    pf->confirm = static_cast<uint32_t *>(VAEL_PM_KMALLOC(confirm_bytes(pf)));
    if (!pf->confirm) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter confirmation of %d bytes\n",
                 (int)confirm_bytes(pf));
        free_tables(pf);
        return -1;
    }
    std::memset(pf->confirm, 0, confirm_bytes(pf));

    // The deep walk: the confirmation's keys and the beginnings per length.
    uint32_t lengths = 0;
    uint32_t beginnings[kDepth + 1] = {};
    Beginnings tell;
    uint64_t lo = 0, hi = 0;
    int walked = walk_trie(w, kConfirmDepth, [&](uint32_t d, uint32_t offset) {
        // path[0 .. d) in two words, as the search loads the data; the hash
        // keeps the first d bytes.
        std::memcpy(&lo, w.path, 8);
        std::memcpy(&hi, w.path + 8, 8);
        const bool finite = w.bnfa[offset] & BNFA_STATE_FINITE;
        if (finite || d == kConfirmDepth) {
            lengths |= 1u << d;
            set_confirm(pf, lo, hi, d);
        }
        if (d == 8)
            set_confirm(pf, lo, 0, THIN_NFA_PREFILTER_TAG_PREFIX8);
        if (tell.is_one(d, finite))
            beginnings[d]++;
    });
    pf->confirm_lengths = lengths;
    if (walked != 0 || lengths == 0) {
        // Not a trie, or no pattern at all: the automaton reads every byte.
        VAEL_LOG(VAEL_DBG_NOTICE, "K_THINNFA", "%s: no prefilter for this BNFA\n");
        free_tables(pf);
        vael_thin_nfa_prefilter_free(nfa);
        return 0;
    }

    uint32_t total = 0;
    for (uint32_t n : beginnings)
        total += n;
    uint32_t bits = kMinDomainBits;
    auto wanted = [&](uint32_t bits) {
        const uint32_t per = bits < kCacheDomainBits ? kEntriesPerBeginning : kEntriesPerBeginningPastCache;
        return (1ull << bits) < (uint64_t)total * per;
    };
    while (bits < kMaxDomainBits && wanted(bits) &&
           (sizeof(uint64_t) << (bits + 1)) <= nfa->bnfa_size / 4)
        bits++;
    pf->domain_bits = bits;
    pf->domain_mask = (1u << bits) - 1;
    pf->fold = caseless ? 0x2020u & pf->domain_mask : 0;
    pf->table = static_cast<uint64_t *>(VAEL_PM_KMALLOC(table_bytes(pf)));
    if (!pf->table) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter table of %d bytes\n",
                 (int)table_bytes(pf));
        free_tables(pf);
        return -1;
    }
    fill_table(w, pf, deal_buckets(beginnings, bits));
    vael_thin_nfa_prefilter_free(nfa);
    nfa->prefilter = pf;
    VAEL_LOG(VAEL_DBG_NOTICE, "K_THINNFA", "%s: prefilter of %u beginnings, domain %u bits, %u + %u bytes\n",
             total, bits, (unsigned)table_bytes(pf), (unsigned)confirm_bytes(pf));
    return 0;
}

extern "C" void vael_thin_nfa_prefilter_free(vael_thin_nfa *nfa) {
    if (!nfa || !nfa->prefilter)
        return;
    free_tables(nfa->prefilter);
    nfa->prefilter = nullptr;
}

extern "C" size_t vael_thin_nfa_prefilter_memory(const vael_thin_nfa *nfa) {
    if (!nfa || !nfa->prefilter)
        return 0;
    const vael_thin_nfa_prefilter_tables *pf = nfa->prefilter;
    return sizeof *pf + table_bytes(pf) + confirm_bytes(pf);
}

extern "C" vael_thin_nfa_prefilter_find_fn vael_thin_nfa_prefilter_find_plain_fn(void) { return find_plain; }

extern "C" vael_thin_nfa_prefilter_find_fn vael_thin_nfa_prefilter_find_avx2_fn(void) {
    return kCpuHasAvx2 ? find_avx2 : nullptr;
}

extern "C" vael_thin_nfa_prefilter_find_fn vael_thin_nfa_prefilter_select(void) {
    switch (vael_thin_nfa_prefilter) {
        case THIN_NFA_PREFILTER_OFF:
            return nullptr;
        case THIN_NFA_PREFILTER_PLAIN:
            return find_plain;
        default:
            return kCpuHasAvx2 ? find_avx2 : find_plain;
    }
}
