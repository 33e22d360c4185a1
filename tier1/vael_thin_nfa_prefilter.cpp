// vael_thin_nfa_prefilter.cpp - derives a handle's candidate filter from its
// BNFA and searches with it (see vael_thin_nfa_prefilter.h).
//
// The derivation walks the trie's top depth first, straight on the BNFA with
// one frame per level and no other memory: once 16 levels deep for the
// shortest pattern, the spellings per depth and the confirmation's keys, and
// once as deep as the window reaches for the window's bitmap. The window
// length is the shortest pattern's length, capped at 4, so every position
// where a pattern starts shows a full window of that pattern's beginning.

#include "tier1/vael_thin_nfa_prefilter.h"

#include <immintrin.h>

#include <cstring>

#include "runtime/vael_runtime.h"

extern "C" {
int vael_thin_nfa_prefilter = THIN_NFA_PREFILTER_AUTO;
}

namespace {

constexpr const char *kThinTopics = "K_THINNFA | K_PM";
constexpr uint32_t kMaxWindow = 4;
constexpr uint32_t kMaxStride = 4;
// The confirmation looks this deep: past the prefixes that traffic shares
// with many patterns ("Content-Type: ", "session="), which pass the window
// at every turn and would otherwise each send the automaton down a long
// walk back to its root.
constexpr uint32_t kConfirmDepth = THIN_NFA_PREFILTER_CONFIRM_DEPTH;
// Confirmation bits per state of the BNFA: the keys are at most one per
// state, in practice about one in five, which gives about 1% false passes
// per length tested.
constexpr uint32_t kConfirmBitsPerState = 32;
// Bitmap bits per distinct window: about 0.4% of the positions that start
// no pattern pass as candidates.
constexpr uint32_t kBitsPerWindow = 256;
constexpr uint32_t kMinTableLog2 = 12; // 512 bytes
// The window's bitmap at most 128 KiB and an eighth of the BNFA's size past
// the minimum, the confirmation's at most 256 KiB and a quarter of it: the
// filter stays small beside the automaton it serves.
constexpr uint32_t kMaxTableLog2 = 20;
constexpr uint32_t kMaxConfirmLog2 = 21;
// Raw spellings enumerated at most per window length; caseless or digitless
// sets with long windows can exceed it, and then get a shorter window.
constexpr uint64_t kMaxEnumerated = 1u << 20;

// Raw bytes by canonical byte, with case folded as the window's hash folds
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
    uint32_t next;      // the next transition index, or the next byte of a full table
    uint32_t fail;      // a full state's fail state; it tells children from folded fail transitions
    uint64_t spellings; // raw spellings of the path, case folded
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

// Calls visit(depth, offset, spellings) for every state of depth 1 ..
// max_depth, parents first; 0, or -1 when the walk ran over its budget.
template <class F>
int walk_trie(Walk &w, uint32_t max_depth, F &&visit) {
    Frame stack[kConfirmDepth + 1];
    uint32_t depth = 0;
    stack[0] = Frame{0, 0, 0, 1};
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
        const uint32_t multiplicity = w.raw->first[c + 1] - w.raw->first[c];
        uint64_t spellings = f.spellings * (multiplicity ? multiplicity : 1);
        if (spellings > (1ull << 40))
            spellings = 1ull << 40;
        visit(depth + 1, child, spellings);
        if (depth + 1 < max_depth) {
            depth++;
            stack[depth] = Frame{child, 0, 0, spellings};
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

// The window's hash of every raw spelling of path[from .. from + window).
void set_window_spellings(const Walk &w, vael_thin_nfa_prefilter_tables *pf, uint32_t from, uint32_t window,
                          uint32_t i, uint32_t bytes) {
    if (i == window) {
        uint32_t h = vael_thin_nfa_prefilter_hash(pf, bytes);
        pf->table[h >> 5] |= 1u << (h & 31);
        return;
    }
    const uint32_t c = w.path[from + i];
    for (uint32_t r = w.raw->first[c]; r < w.raw->first[c + 1]; r++)
        set_window_spellings(w, pf, from, window, i + 1, bytes | (uint32_t)w.raw->bytes[r] << (8 * i));
}

uint32_t window_mask(uint32_t window) { return window >= 4 ? 0xffffffffu : (1u << (8 * window)) - 1; }

inline uint32_t load32(const unsigned char *p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

inline uint32_t test_bit(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p) {
    uint32_t h = vael_thin_nfa_prefilter_hash(pf, load32(p));
    return (pf->table[h >> 5] >> (h & 31)) & 1u;
}

// The first start at or past `from` that a hit in m vouches for and that
// passes its own window and the confirmation, or null. Bit i of m: a window
// of some pattern's first window + stride - 1 bytes shows at p + i * stride,
// so a pattern may start up to stride - 1 bytes before it.
inline const unsigned char *first_confirmed(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p,
                                            uint32_t m, const unsigned char *from, const unsigned char *end) {
    const ptrdiff_t back = (ptrdiff_t)pf->stride - 1;
    if (back == 0) {
        // Each hit is its own position's window: only the confirmation is left.
        for (; m; m &= m - 1) {
            const unsigned char *t = p + __builtin_ctz(m);
            if (vael_thin_nfa_prefilter_confirm(pf, t, end))
                return t;
        }
        return nullptr;
    }
    for (; m; m &= m - 1) {
        const unsigned char *j = p + (ptrdiff_t)__builtin_ctz(m) * (ptrdiff_t)pf->stride;
        const unsigned char *t = j - from > back ? j - back : from;
        for (; t <= j; t++)
            if (test_bit(pf, t) && vael_thin_nfa_prefilter_confirm(pf, t, end))
                return t;
    }
    return nullptr;
}

// Tests every position from p on, beginning stride - 1 bytes before it
// (not before `from`): starts there were vouched for by no tested position.
const unsigned char *find_tail(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p,
                               const unsigned char *from, const unsigned char *last, const unsigned char *end) {
    const ptrdiff_t back = (ptrdiff_t)pf->stride - 1;
    for (p = p - from > back ? p - back : from; p < last; p++)
        if (test_bit(pf, p) && vael_thin_nfa_prefilter_confirm(pf, p, end))
            return p;
    return last;
}

const unsigned char *find_plain(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p,
                                const unsigned char *end) {
    if (end - p < (ptrdiff_t)THIN_NFA_PREFILTER_LOAD)
        return p;
    const unsigned char *from = p;
    const unsigned char *last = end - (THIN_NFA_PREFILTER_LOAD - 1);
    const ptrdiff_t s = pf->stride;
    // Eight independent tests and one branch: the loads overlap in flight.
    while (last - p > 7 * s) {
        uint32_t m = 0;
        for (uint32_t i = 0; i < 8; i++)
            m |= test_bit(pf, p + i * s) << i;
        if (m)
            if (const unsigned char *q = first_confirmed(pf, p, m, from, end))
                return q;
        p += 8 * s;
    }
    return find_tail(pf, p, from, last, end);
}

// The constants of one AVX2 search.
struct Avx2Consts {
    __m256i windows, mask, fold, mul, low5;
    __m128i shift;
};

// The hashes of the windows at q + k * stride, k = 0..7: k = 0..3 from the
// low lane, loaded at q, 4..7 from the high lane, loaded at q + 4 * stride.
__attribute__((target("avx2"), always_inline)) inline __m256i hash_avx2(const Avx2Consts &c, const unsigned char *q,
                                                                         ptrdiff_t s) {
    __m256i v = _mm256_loadu2_m128i(reinterpret_cast<const __m128i *>(q + 4 * s),
                                    reinterpret_cast<const __m128i *>(q));
    __m256i w = _mm256_or_si256(_mm256_and_si256(_mm256_shuffle_epi8(v, c.windows), c.mask), c.fold);
    return _mm256_srl_epi32(_mm256_mullo_epi32(w, c.mul), c.shift);
}

// Bit k set: the window at q + k * stride hits. The table words come in by
// one gather, which measured faster than eight scalar loads; shifting bit
// h & 31 of each to the top lets one movemask collect them.
__attribute__((target("avx2"), always_inline)) inline uint32_t test_avx2(const Avx2Consts &c, const uint32_t *table,
                                                                          const unsigned char *q, ptrdiff_t s) {
    __m256i h = hash_avx2(c, q, s);
    __m256i g = _mm256_i32gather_epi32(reinterpret_cast<const int *>(table), _mm256_srli_epi32(h, 5), 4);
    g = _mm256_sllv_epi32(g, _mm256_andnot_si256(h, c.low5));
    return (uint32_t)_mm256_movemask_ps(_mm256_castsi256_ps(g));
}

__attribute__((target("avx2"))) const unsigned char *find_avx2(const vael_thin_nfa_prefilter_tables *pf,
                                                                const unsigned char *p, const unsigned char *end) {
    if (end - p < (ptrdiff_t)THIN_NFA_PREFILTER_LOAD)
        return p;
    const unsigned char *from = p;
    const unsigned char *last = end - (THIN_NFA_PREFILTER_LOAD - 1);
    const ptrdiff_t s = pf->stride;
    Avx2Consts c;
    alignas(32) int8_t windows[32];
    for (int k = 0; k < 4; k++)
        for (int b = 0; b < 4; b++)
            windows[4 * k + b] = windows[16 + 4 * k + b] = (int8_t)(k * s + b);
    c.windows = _mm256_load_si256(reinterpret_cast<const __m256i *>(windows));
    c.mask = _mm256_set1_epi32((int)pf->window_mask);
    c.fold = _mm256_set1_epi32((int)pf->fold);
    c.mul = _mm256_set1_epi32((int)0x9e3779b1u);
    c.shift = _mm_cvtsi32_si128((int)pf->hash_shift);
    c.low5 = _mm256_set1_epi32(31);
    // Sixteen tested positions read 12 * stride + 16 bytes.
    const uint32_t *table = pf->table;
    while (end - p >= 12 * s + 16) {
        uint32_t m = test_avx2(c, table, p, s) | test_avx2(c, table, p + 8 * s, s) << 8;
        if (m)
            if (const unsigned char *q = first_confirmed(pf, p, m, from, end))
                return q;
        p += 16 * s;
    }
    return find_tail(pf, p, from, last, end);
}

bool cpu_has_avx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

// Read once, as the process starts.
const bool kCpuHasAvx2 = cpu_has_avx2();

}  // namespace

extern "C" int vael_thin_nfa_prefilter_build(vael_thin_nfa *nfa) {
    if (!nfa || !nfa->bnfa || nfa->state_num == 0 || nfa->bnfa_size < BNFA_FULL_STATE_BYTES)
        return -1;
    const bool xlate = nfa->flags & THIN_NFA_FLAG_XLATION;
    // Letters differ from their other case in bit 5 alone, so with case
    // folded a window and its respellings hash alike.
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
    // keys, so one walk both finds the set's shape and fills it.
    uint32_t log2 = kMinTableLog2;
    while (log2 < kMaxConfirmLog2 && (1ull << log2) < (uint64_t)nfa->state_num * kConfirmBitsPerState &&
           (1ull << (log2 + 1)) / 8 <= nfa->bnfa_size / 4)
        log2++;
    pf->confirm_shift = 64 - log2;
    pf->confirm_words = 1u << (log2 - 5);
    const size_t confirm_bytes = sizeof(uint32_t) * (size_t)pf->confirm_words;
    pf->confirm = static_cast<uint32_t *>(VAEL_PM_KMALLOC(confirm_bytes));
    if (!pf->confirm) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter confirmation of %d bytes\n",
                 (int)confirm_bytes);
        VAEL_PM_KFREE(pf, sizeof *pf);
        return -1;
    }
    std::memset(pf->confirm, 0, confirm_bytes);

    // The one deep walk: the shortest pattern, the spellings per depth that
    // size the window, and the confirmation's keys.
    uint32_t shortest = kConfirmDepth + 1, lengths = 0;
    uint64_t spellings[kMaxWindow + kMaxStride] = {};
    uint64_t lo = 0, hi = 0;
    int walked = walk_trie(w, kConfirmDepth, [&](uint32_t d, uint32_t offset, uint64_t n) {
        // path[0 .. d) in two words, as the search loads the data; the hash
        // keeps the first d bytes.
        std::memcpy(&lo, w.path, 8);
        std::memcpy(&hi, w.path + 8, 8);
        if (d < kMaxWindow + kMaxStride)
            spellings[d] += n;
        const bool finite = w.bnfa[offset] & BNFA_STATE_FINITE;
        if (finite && d < shortest)
            shortest = d;
        if (finite || d == kConfirmDepth) {
            lengths |= 1u << d;
            set_confirm(pf, lo, hi, d);
        }
        if (d == 8)
            set_confirm(pf, lo, 0, THIN_NFA_PREFILTER_TAG_PREFIX8);
    });
    pf->confirm_lengths = lengths;
    if (walked != 0 || lengths == 0) {
        // Not a trie, or no pattern at all: the automaton reads every byte.
        VAEL_LOG(VAEL_DBG_NOTICE, "K_THINNFA", "%s: no prefilter for this BNFA\n");
        VAEL_PM_KFREE(pf->confirm, confirm_bytes);
        VAEL_PM_KFREE(pf, sizeof *pf);
        vael_thin_nfa_prefilter_free(nfa);
        return 0;
    }

    uint32_t window = shortest < kMaxWindow ? shortest : kMaxWindow;
    // With every pattern at least window + stride - 1 bytes long, a
    // pattern's start lies at most stride - 1 bytes before a tested
    // position where one of its first stride windows shows.
    uint32_t stride = 1;
    if (shortest >= kMaxWindow + 1)
        stride = shortest - kMaxWindow + 1 < kMaxStride ? shortest - kMaxWindow + 1 : kMaxStride;
    // A set whose spellings are too many gets no stride, then a shorter
    // window.
    while (spellings[window + stride - 1] * stride > kMaxEnumerated && !(window == 1 && stride == 1)) {
        if (stride > 1)
            stride = 1;
        else
            window--;
    }
    pf->window = window;
    pf->stride = stride;
    pf->window_mask = window_mask(window);
    pf->fold = caseless ? 0x20202020u & pf->window_mask : 0;
    const uint32_t depth = window + stride - 1;
    const uint64_t distinct = spellings[depth] * stride;
    log2 = kMinTableLog2;
    while (log2 < kMaxTableLog2 && (1ull << log2) < distinct * kBitsPerWindow &&
           (1ull << (log2 + 1)) / 8 <= nfa->bnfa_size / 8)
        log2++;
    pf->hash_shift = 32 - log2;
    pf->table_words = 1u << (log2 - 5);
    const size_t table_bytes = sizeof(uint32_t) * (size_t)pf->table_words;
    pf->table = static_cast<uint32_t *>(VAEL_PM_KMALLOC(table_bytes));
    if (!pf->table) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter table of %d bytes\n", (int)table_bytes);
        VAEL_PM_KFREE(pf->confirm, confirm_bytes);
        VAEL_PM_KFREE(pf, sizeof *pf);
        return -1;
    }
    std::memset(pf->table, 0, table_bytes);
    // The shallow walk: every spelling of the windows at offsets
    // 0 .. stride - 1 of every path of `depth` bytes.
    walk_trie(w, depth, [&](uint32_t d, uint32_t, uint64_t) {
        if (d == depth)
            for (uint32_t k = 0; k < stride; k++)
                set_window_spellings(w, pf, k, window, 0, 0);
    });
    vael_thin_nfa_prefilter_free(nfa);
    nfa->prefilter = pf;
    VAEL_LOG(VAEL_DBG_NOTICE, "K_THINNFA", "%s: prefilter window %u stride %u, %u + %u bytes\n", window, stride,
             (unsigned)table_bytes, (unsigned)confirm_bytes);
    return 0;
}

extern "C" void vael_thin_nfa_prefilter_free(vael_thin_nfa *nfa) {
    if (!nfa || !nfa->prefilter)
        return;
    vael_thin_nfa_prefilter_tables *pf = nfa->prefilter;
    if (pf->table)
        VAEL_PM_KFREE(pf->table, sizeof(uint32_t) * (size_t)pf->table_words);
    if (pf->confirm)
        VAEL_PM_KFREE(pf->confirm, sizeof(uint32_t) * (size_t)pf->confirm_words);
    VAEL_PM_KFREE(pf, sizeof *pf);
    nfa->prefilter = nullptr;
}

extern "C" size_t vael_thin_nfa_prefilter_memory(const vael_thin_nfa *nfa) {
    if (!nfa || !nfa->prefilter)
        return 0;
    const vael_thin_nfa_prefilter_tables *pf = nfa->prefilter;
    return sizeof(vael_thin_nfa_prefilter_tables) + sizeof(uint32_t) * (size_t)pf->table_words +
           (pf->confirm ? sizeof(uint32_t) * (size_t)pf->confirm_words : 0);
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
