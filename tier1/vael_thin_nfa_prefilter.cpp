// vael_thin_nfa_prefilter.cpp - derives a handle's candidate filter from its
// BNFA and searches with it (see vael_thin_nfa_prefilter.h).
//
// The derivation walks the BNFA breadth-first from the root down to depth 8
// and lists the trie's edges there once; the enumerations of windows and
// confirmation keys then run on that list. The window
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
// The confirmation looks this deep: past the prefixes traffic shares with
// many patterns ("Host: ", "GET /"), which pass the window at every turn.
constexpr uint32_t kConfirmDepth = 8;
// Fewer bits per key than the window's bitmap: only the window's hits are
// confirmed, about one in fifty of them passes falsely.
constexpr uint32_t kConfirmBitsPerKey = 64;
// Past this many keys the bitmap, capped as the window's, would be too full
// to turn much away, and enumerating them too slow: no confirmation then.
constexpr uint32_t kMaxConfirmKeys = 1u << 18;
// Bitmap bits per distinct window: about 0.4% of the positions that start
// no pattern pass as candidates.
constexpr uint32_t kBitsPerWindow = 256;
constexpr uint32_t kMinTableLog2 = 12; // 512 bytes
// At most 128 KiB, and at most an eighth of the BNFA's size past the
// minimum: the filter stays small beside the automaton it serves.
constexpr uint32_t kMaxTableLog2 = 20;
// Raw spellings enumerated at most per window length; caseless or digitless
// sets with long windows can exceed it, and then get a shorter window.
constexpr uint32_t kMaxEnumerated = 1u << 20;

constexpr uint32_t kUnplaced = UINT32_MAX;
constexpr uint32_t kFiniteChild = 0x80000000u;

// The trie's top, down to kConfirmDepth: its states in breadth-first order
// (`queue`, word offsets), and per state of depth below kConfirmDepth its
// edges, one per raw byte that leads to a child, in `edge_child` (the
// child's place in the queue, kFiniteChild when it is finite) and
// `edge_byte`, those of place q from edge_first[q] to edge_first[q + 1].
// The BNFA is read twice, once to place the states and count the edges and
// once to list them; every enumeration after that runs on the lists.
struct Walk {
    const vael_thin_nfa *nfa;
    const uint32_t *bnfa;
    uint32_t words;       // of the BNFA
    uint32_t *place;      // per state ID: its place in the queue, kUnplaced beyond the walk
    uint32_t *queue;
    // Places of depth d run from level_start[d] to level_start[d + 1].
    uint32_t level_start[kConfirmDepth + 2];
    // Raw bytes by canonical byte: those of c from raw_first[c] to raw_first[c + 1].
    uint16_t raw_first[257];
    uint8_t raw_bytes[256];
    uint64_t edges;
    uint32_t *edge_first;
    uint32_t *edge_child;
    uint8_t *edge_byte;
};

bool valid_target(const Walk &w, uint32_t offset) {
    return offset < w.words && (w.bnfa[offset] >> BNFA_STATE_ID_SHIFT) < w.nfa->state_num;
}

uint32_t state_id(const Walk &w, uint32_t offset) { return w.bnfa[offset] >> BNFA_STATE_ID_SHIFT; }

void index_raw_bytes(Walk &w) {
    bool xlate = w.nfa->flags & THIN_NFA_FLAG_XLATION;
    uint16_t count[256] = {};
    for (uint32_t b = 0; b < 256; b++)
        count[xlate ? w.nfa->xlation_tab[b] : b]++;
    w.raw_first[0] = 0;
    for (uint32_t c = 0; c < 256; c++)
        w.raw_first[c + 1] = (uint16_t)(w.raw_first[c] + count[c]);
    uint16_t at[256];
    std::memcpy(at, w.raw_first, sizeof at);
    for (uint32_t b = 0; b < 256; b++)
        w.raw_bytes[at[xlate ? w.nfa->xlation_tab[b] : b]++] = (uint8_t)b;
}

// Calls f(raw byte, child offset) for each raw byte that takes the state at
// `offset` (of depth d) to one of its children in the trie. A full state's
// table mixes children with fail transitions folded in at build time; the
// two are told apart by depth: a fail transition from a state of depth d
// leads to a state of depth d or less, already placed, a child lies at
// d + 1 and is either unplaced yet or placed on that level.
template <class F>
void for_each_child(const Walk &w, uint32_t offset, uint32_t d, F &&f) {
    const uint32_t *s = w.bnfa + offset;
    auto is_child = [&](uint32_t t) {
        uint32_t q = w.place[state_id(w, t)];
        return q == kUnplaced || (q >= w.level_start[d + 1] && q < w.level_start[d + 2]);
    };
    if (!(*s & BNFA_STATE_PARTIAL)) {
        if (offset + BNFA_FULL_STATE_WORDS > w.words)
            return;
        for (uint32_t b = 0; b < 256; b++) {
            uint32_t t = s[1 + b];
            if (valid_target(w, t) && is_child(t))
                f(b, t);
        }
        return;
    }
    if (offset + 2 > w.words)
        return;
    uint32_t n = s[1] & 0xffu;
    if (offset + 2 + n > w.words)
        return;
    for (uint32_t i = 0; i < n; i++) {
        uint32_t c = s[2 + i] & 0xffu;
        uint32_t t = s[2 + i] >> 8;
        if (!valid_target(w, t))
            continue;
        // Explicit transitions hold canonical bytes; every raw byte that
        // translates to one takes it.
        for (uint32_t r = w.raw_first[c]; r < w.raw_first[c + 1]; r++)
            f(w.raw_bytes[r], t);
    }
}

// Places depths 0..8 breadth-first and counts the edges above depth 8;
// returns the shortest pattern's length, or kConfirmDepth + 1 when none
// ends above depth 9.
uint32_t place_states(Walk &w) {
    std::memset(w.place, 0xff, sizeof(uint32_t) * (size_t)w.nfa->state_num);
    w.place[state_id(w, 0)] = 0;
    w.queue[0] = 0;
    w.level_start[0] = 0;
    w.level_start[1] = 1;
    w.edges = 0;
    uint32_t tail = 1, shortest = kConfirmDepth + 1;
    for (uint32_t d = 0; d < kConfirmDepth; d++) {
        // Level d + 1 grows as level d is read.
        w.level_start[d + 2] = UINT32_MAX;
        for (uint32_t q = w.level_start[d]; q < w.level_start[d + 1]; q++) {
            for_each_child(w, w.queue[q], d, [&](uint32_t, uint32_t t) {
                w.edges++;
                uint32_t id = state_id(w, t);
                if (w.place[id] != kUnplaced)
                    return;
                w.place[id] = tail;
                w.queue[tail++] = t;
                if ((w.bnfa[t] & BNFA_STATE_FINITE) && d + 1 < shortest)
                    shortest = d + 1;
            });
        }
        w.level_start[d + 2] = tail;
    }
    return shortest;
}

// Lists the edges place_states counted, into arrays of that size.
void list_edges(Walk &w) {
    uint32_t e = 0;
    for (uint32_t d = 0; d < kConfirmDepth; d++) {
        for (uint32_t q = w.level_start[d]; q < w.level_start[d + 1]; q++) {
            w.edge_first[q] = e;
            for_each_child(w, w.queue[q], d, [&](uint32_t b, uint32_t t) {
                w.edge_child[e] = w.place[state_id(w, t)] | ((w.bnfa[t] & BNFA_STATE_FINITE) ? kFiniteChild : 0);
                w.edge_byte[e++] = (uint8_t)b;
            });
        }
    }
    w.edge_first[w.level_start[kConfirmDepth]] = e;
}

template <class F>
void for_each_edge(const Walk &w, uint32_t q, F &&f) {
    for (uint32_t e = w.edge_first[q]; e < w.edge_first[q + 1]; e++)
        f(w.edge_byte[e], w.edge_child[e]);
}

struct Fill {
    const Walk *walk;
    vael_thin_nfa_prefilter_tables *pf; // table null while counting
    uint32_t window;
    uint32_t stride;
    uint32_t enumerated;
};

// Every raw spelling of every path of window + stride - 1 bytes from the
// root, each giving its windows at offsets 0 .. stride - 1.
void fill_windows(Fill &fill, uint32_t q, uint32_t d, uint64_t bytes) {
    if (fill.enumerated > kMaxEnumerated)
        return;
    if (d == fill.window + fill.stride - 1) {
        fill.enumerated += fill.stride;
        if (fill.pf->table) {
            for (uint32_t k = 0; k < fill.stride; k++) {
                uint32_t h = vael_thin_nfa_prefilter_hash(fill.pf, (uint32_t)(bytes >> (8 * k)));
                fill.pf->table[h >> 5] |= 1u << (h & 31);
            }
        }
        return;
    }
    for_each_edge(*fill.walk, q, [&](uint32_t b, uint32_t child) {
        fill_windows(fill, child & ~kFiniteChild, d + 1, bytes | ((uint64_t)b << (8 * d)));
    });
}

struct ConfirmFill {
    const Walk *walk;
    vael_thin_nfa_prefilter_tables *pf; // confirm null while counting
    uint32_t lengths;
    uint32_t enumerated;
};

// Every raw spelling of every path of kConfirmDepth bytes from the root,
// and of every shorter one that ends in a finite state. A pattern of length
// L starting at a position shows there either its first 8 bytes or, L < 8,
// all of its bytes, which end in a finite state: one of the keys is set.
void fill_confirm(ConfirmFill &fill, uint32_t child, uint32_t d, uint64_t bytes) {
    if (fill.enumerated > kMaxConfirmKeys)
        return;
    if (d > 0 && (d == kConfirmDepth || (child & kFiniteChild))) {
        fill.enumerated++;
        fill.lengths |= 1u << d;
        if (fill.pf->confirm) {
            uint64_t key = vael_thin_nfa_prefilter_confirm_key(bytes, d);
            uint32_t h = (uint32_t)((key * 0x9e3779b97f4a7c15ull) >> fill.pf->confirm_shift);
            fill.pf->confirm[h >> 5] |= 1u << (h & 31);
        }
        if (d == kConfirmDepth)
            return;
    }
    for_each_edge(*fill.walk, child & ~kFiniteChild, [&](uint32_t b, uint32_t next) {
        fill_confirm(fill, next, d + 1, bytes | ((uint64_t)b << (8 * d)));
    });
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

// Sizes and fills the confirmation of a filter whose window bitmap is
// built. A set with too many spellings goes without: 0. -1 on allocation
// failure.
int build_confirm(const Walk &w, vael_thin_nfa_prefilter_tables *pf) {
    ConfirmFill fill{&w, pf, 0, 0};
    fill_confirm(fill, 0, 0, 0);
    if (fill.enumerated > kMaxConfirmKeys || fill.enumerated == 0)
        return 0;
    uint32_t log2 = kMinTableLog2;
    while (log2 < kMaxTableLog2 && (1ull << log2) < (uint64_t)fill.enumerated * kConfirmBitsPerKey &&
           (1ull << (log2 + 1)) / 8 <= w.nfa->bnfa_size / 8)
        log2++;
    pf->confirm_shift = 64 - log2;
    pf->confirm_words = 1u << (log2 - 5);
    size_t bytes = sizeof(uint32_t) * (size_t)pf->confirm_words;
    pf->confirm = static_cast<uint32_t *>(VAEL_PM_KMALLOC(bytes));
    if (!pf->confirm) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter confirmation of %d bytes\n", (int)bytes);
        return -1;
    }
    std::memset(pf->confirm, 0, bytes);
    fill.enumerated = 0;
    fill_confirm(fill, 0, 0, 0);
    pf->confirm_lengths = fill.lengths;
    return 0;
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
    uint32_t n = nfa->state_num;
    Walk w{};
    w.nfa = nfa;
    w.bnfa = nfa->bnfa;
    w.words = nfa->bnfa_size / 4;
    index_raw_bytes(w);
    // Each allocation only after the one before it succeeded: a failure
    // ends the build at once.
    const size_t work_bytes = 2 * sizeof(uint32_t) * (size_t)n;
    size_t edge_bytes = 0;
    unsigned char *edge_block = nullptr;
    vael_thin_nfa_prefilter_tables *pf = nullptr;
    w.place = static_cast<uint32_t *>(VAEL_KMALLOC(work_bytes));
    if (w.place) {
        w.queue = w.place + n;
        pf = static_cast<vael_thin_nfa_prefilter_tables *>(VAEL_PM_KMALLOC(sizeof(vael_thin_nfa_prefilter_tables)));
    }
    uint32_t shortest = 0;
    if (pf) {
        shortest = place_states(w);
        const size_t listed = w.level_start[kConfirmDepth];
        edge_bytes = sizeof(uint32_t) * (listed + 1) + (sizeof(uint32_t) + 1) * (size_t)w.edges;
        // Edges are indexed by 32 bits; no real set comes near.
        if (w.edges < UINT32_MAX)
            edge_block = static_cast<unsigned char *>(VAEL_KMALLOC(edge_bytes));
    }
    int rc = -1;
    if (!edge_block) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter for %d states\n", (int)n);
    } else {
        w.edge_first = reinterpret_cast<uint32_t *>(edge_block);
        w.edge_child = w.edge_first + w.level_start[kConfirmDepth] + 1;
        w.edge_byte = reinterpret_cast<uint8_t *>(w.edge_child + w.edges);
        list_edges(w);
        std::memset(pf, 0, sizeof *pf);
        uint32_t window = shortest < kMaxWindow ? shortest : kMaxWindow;
        // With every pattern at least window + stride - 1 bytes long, a
        // pattern's start lies at most stride - 1 bytes before a tested
        // position where one of its first stride windows shows.
        uint32_t stride = 1;
        if (shortest >= kMaxWindow + 1)
            stride = shortest - kMaxWindow + 1 < kMaxStride ? shortest - kMaxWindow + 1 : kMaxStride;
        // A set whose spellings are too many gets no stride, then a shorter
        // window.
        Fill fill{&w, pf, window, stride, 0};
        for (;;) {
            fill.window = window;
            fill.stride = stride;
            fill.enumerated = 0;
            fill_windows(fill, 0, 0, 0);
            if (fill.enumerated <= kMaxEnumerated || (window == 1 && stride == 1))
                break;
            if (stride > 1)
                stride = 1;
            else
                window--;
        }
        pf->window = window;
        pf->stride = stride;
        pf->window_mask = window_mask(window);
        // Letters differ from their other case in bit 5 alone, so with case
        // folded a window and its respellings hash alike.
        bool caseless = (nfa->flags & THIN_NFA_FLAG_XLATION) && nfa->xlation_tab['A'] == 'a';
        pf->fold = caseless ? 0x20202020u & pf->window_mask : 0;
        const uint32_t depth = window + stride - 1;
        uint64_t distinct =
            caseless ? (uint64_t)(w.level_start[depth + 1] - w.level_start[depth]) * stride : fill.enumerated;
        uint32_t log2 = kMinTableLog2;
        while (log2 < kMaxTableLog2 && (1ull << log2) < distinct * kBitsPerWindow &&
               (1ull << (log2 + 1)) / 8 <= nfa->bnfa_size / 8)
            log2++;
        pf->hash_shift = 32 - log2;
        pf->table_words = 1u << (log2 - 5);
        size_t table_bytes = sizeof(uint32_t) * (size_t)pf->table_words;
        pf->table = static_cast<uint32_t *>(VAEL_PM_KMALLOC(table_bytes));
        if (!pf->table) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate prefilter table of %d bytes\n",
                     (int)table_bytes);
        } else {
            std::memset(pf->table, 0, table_bytes);
            fill.enumerated = 0;
            fill_windows(fill, 0, 0, 0);
            if (build_confirm(w, pf) != 0) {
                VAEL_PM_KFREE(pf->table, table_bytes);
                pf->table = nullptr;
            }
        }
        if (pf->table) {
            vael_thin_nfa_prefilter_free(nfa);
            nfa->prefilter = pf;
            pf = nullptr;
            rc = 0;
            VAEL_LOG(VAEL_DBG_NOTICE, "K_THINNFA", "%s: prefilter window %u, %u bytes, %u spellings\n",
                     nfa->prefilter->window, (unsigned)table_bytes, fill.enumerated);
        }
    }
    if (edge_block)
        VAEL_KFREE(edge_block, edge_bytes);
    if (pf)
        VAEL_PM_KFREE(pf, sizeof *pf);
    if (w.place)
        VAEL_KFREE(w.place, work_bytes);
    return rc;
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
