/*
 * vael_thin_nfa_internal.h - the Thin NFA handle and the binary automaton
 * (BNFA), shared by the run, the compile and the build.
 *
 * The BNFA is one array of 32-bit words; every position in it is a word
 * offset, and a state is named by its offset, never by its ID. Three regions
 * follow each other with nothing between:
 *
 *   [ full non-finite states, ascending ID ][ every other state, ascending ID ]
 *   ^ offset 0: the initial state           ^ byte bnfa_full_size
 *
 * so one pointer comparison tells the fast loop that a state is full and has
 * no match: it may stay in its loop.
 *
 * Every state starts with a header word:
 *
 *   bit 0      BNFA_STATE_FINITE   some pattern ends here
 *   bit 1      BNFA_STATE_PARTIAL  partial state; clear means full
 *   bits 2-7   zero
 *   bits 8-31  state ID, the index into pattern_ids
 *
 * A full state (257 words) follows with 256 entries, one per raw input byte,
 * each the offset of the next state; fail transitions are folded in at build
 * time, and with a translation table the entry of every byte equals that of
 * its canonical byte, so the fast loop needs no translation.
 *
 * A partial state (2 + n words) follows with:
 *
 *   partial header   bits 0-7 n (0..255)   bits 8-31 offset of the fail state
 *   transition i     bits 0-7 byte         bits 8-31 offset of the next state
 *
 * with transitions sorted by strictly ascending (canonical) byte.
 */
#ifndef VAEL_THIN_NFA_INTERNAL_H
#define VAEL_THIN_NFA_INTERNAL_H

#include <stdint.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "pm/vael_pm_internal.h"
#include "vael/vael_thin_nfa.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BNFA_STATE_FINITE 0x1u
#define BNFA_STATE_PARTIAL 0x2u
#define BNFA_STATE_KIND_MASK 0x3u
#define BNFA_STATE_ID_SHIFT 8
#define BNFA_FULL_STATE_WORDS 257u
#define BNFA_FULL_STATE_BYTES (4u * BNFA_FULL_STATE_WORDS)
#define BNFA_PARTIAL_HEADER_BYTES 8u
/* A partial state with more transitions than this is searched by halves. */
#define BNFA_LINEAR_SEARCH_MAX 6u

/* Bit 0 of vael_thin_nfa.flags: xlation_tab is in force. */
#define THIN_NFA_FLAG_XLATION 0x1u

/* A pattern that ends in a state; a state's list holds the pattern that ends
 * exactly there first, then those ending as its proper suffixes. */
typedef struct vael_thin_nfa_pattern_id {
    struct vael_thin_nfa_pattern_id *next;
    uint32_t id;    /* the id to report */
    uint32_t flags; /* the string's LSS flags */
    uint32_t len;   /* length in bytes */
} vael_thin_nfa_pattern_id;

typedef struct vael_thin_nfa_stats {
    vael_pm_stats_common common;
    uint32_t num_states;
    uint32_t num_final_states;
} vael_thin_nfa_stats;

struct vael_thin_nfa {
    uint32_t *bnfa;                         /* the automaton; the initial state at offset 0 */
    uint32_t bnfa_size;                     /* bytes */
    uint32_t bnfa_full_size;                /* bytes of the leading full non-finite region */
    uint32_t flags;                         /* THIN_NFA_FLAG_* */
    uint32_t state_num;
    vael_thin_nfa_pattern_id **pattern_ids; /* per state ID; null for a state that is not finite */
    vael_thin_nfa_stats stats;
    unsigned char xlation_tab[256];         /* input byte to canonical byte; zero when unused */
    struct vael_thin_nfa_prefilter_tables *prefilter; /* derived from the BNFA; null until built */
    struct vael_pm_pool_block *pattern_pool; /* a loaded handle's list elements; null when each is its own */
};

vael_thin_nfa *vael_thin_nfa_create(uint32_t state_num, uint32_t bnfa_size, uint32_t bnfa_full_size);
/* Appends {id, flags, len} unless the id is in the list already: the first
 * entry of an id keeps its flags and length. 0 or -1. */
int vael_thin_nfa_add_pattern_id(vael_thin_nfa_pattern_id **head, uint32_t id, uint32_t flags, uint32_t len);
void vael_thin_nfa_free_pattern_ids(vael_thin_nfa_pattern_id *head);
/* Frees every list of a handle whose elements lie in its pattern pool (any
 * added later one by one included) and the pool; nothing without a pool. */
void vael_thin_nfa_free_pattern_pool(vael_thin_nfa *nfa);
/* One more than the largest id in the pattern lists; 0 when they are empty. */
uint32_t vael_thin_nfa_id_bound(const vael_thin_nfa *nfa);
vael_pm_stats_common *vael_thin_nfa_get_common_stats(vael_thin_nfa *nfa);
/* The engine's part of a statistics report; level 0 compile, 1 runs, 2 both. */
void vael_thin_nfa_stats_print(vael_thin_nfa *nfa, int level);
/* The validation of vael_thin_nfa_is_valid with a third answer: 1 sound, 0
 * faulty, -1 not checked for want of memory (which is_valid counts as
 * sound, and a load refuses). */
int vael_thin_nfa_validate(const vael_thin_nfa *nfa);
/* Its two halves: the quick proof, by ascending state ID, for a BNFA laid out as
 * the compile lays it out (1 proven sound, 0 not proven, -1 no memory; it
 * tells nothing), and the breadth-first walk that decides any BNFA and logs
 * every fault. The validation walks whenever the proof does not stand. */
int vael_thin_nfa_validate_quick(const vael_thin_nfa *nfa);
int vael_thin_nfa_validate_walk(const vael_thin_nfa *nfa);
int vael_thin_nfa_stats_init(vael_thin_nfa *nfa);
void vael_thin_nfa_stats_free(vael_thin_nfa *nfa);

/* The run, exported for the frame and for other engines: one scan state per
 * vael_thin_nfa_exec call, the scan of one piece (plain, translated, or by
 * choice), and the reporting of a finite state's patterns. 0 or -1. */
/* The candidate search: a position q in [p, end - 8] such that no pattern
 * starts in [p, q): end - 8 when none is found, else one whose own test and
 * confirmation pass; p itself when fewer than 9 bytes are left. */
typedef const unsigned char *(*vael_thin_nfa_prefilter_find_fn)(const struct vael_thin_nfa_prefilter_tables *pf,
                                                                 const unsigned char *p, const unsigned char *end);
typedef struct vael_thin_nfa_run_state {
    const vael_thin_nfa *nfa;
    const uint32_t *state;  /* current state, a pointer into the BNFA */
    lst_list **matches;
    const vael_pm_mask *mask;
    uint32_t piece_offset;  /* stream offset of the first byte of the piece being scanned */
    vael_thin_nfa_prefilter_find_fn find; /* candidate search while at the root; null: none */
} vael_thin_nfa_run_state;
int vael_thin_nfa_exec_one_buf(vael_thin_nfa_run_state *run, const unsigned char *data, uint32_t length,
                               uint32_t flags);
int vael_thin_nfa_exec_one_buf_xlate(vael_thin_nfa_run_state *run, const unsigned char *data, uint32_t length,
                                     uint32_t flags);
int vael_thin_nfa_exec_one_buf_ex(vael_thin_nfa_run_state *run, const unsigned char *data, uint32_t length,
                                  uint32_t flags, int use_xlation, const unsigned char *xlation_tab);
int vael_thin_nfa_handle_match(vael_thin_nfa_run_state *run, const uint32_t *state, uint32_t consumed,
                               uint32_t piece_length, uint32_t flags);
int vael_thin_nfa_enqueue_match(lst_list **matches, const vael_thin_nfa_pattern_id *pattern, uint32_t flags,
                                uint32_t end_offset);

/* The BNFA's memory runs this many bytes past bnfa_size, zeroed, so that a
 * search may load a partial state's transitions 16 bytes at a time without a
 * bound check; what lies past the transitions is masked off. The pad is no
 * part of the BNFA: bnfa_size, the image and the PM memory figure leave it
 * out (the general account holds it), and a copy or a load makes it anew. */
#define BNFA_READ_PAD 64u

/* The state reached by an explicit transition of a partial state, or null.
 * Up to 8 transitions are compared all at once (two 16-byte loads and one
 * mask), which gives the same answer as a linear scan without its
 * unpredictable early exit; more than 6 would be binary searched, more than
 * 8 are. */
/* Inline in every caller, and emitted (used) so that it is exported too. */
__attribute__((used)) inline const uint32_t *vael_thin_nfa_get_next_state(const uint32_t *state, const uint32_t *bnfa,
                                                           unsigned char byte) {
    uint32_t n = state[1] & 0xffu;
    const uint32_t *trans = state + 2;
#if defined(__SSE2__) && !defined(VAEL_NO_SIMD_SEARCH)
    if (n <= 8) {
        const __m128i key = _mm_set1_epi32(byte);
        const __m128i low = _mm_set1_epi32(0xff);
        __m128i a = _mm_loadu_si128((const __m128i *)trans);
        __m128i b = _mm_loadu_si128((const __m128i *)(trans + 4));
        unsigned hit = (unsigned)_mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(_mm_and_si128(a, low), key))) |
                       ((unsigned)_mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(_mm_and_si128(b, low), key)))
                        << 4);
        hit &= (1u << n) - 1u;
        return hit ? bnfa + (trans[__builtin_ctz(hit)] >> 8) : 0;
    }
#else
    if (n <= BNFA_LINEAR_SEARCH_MAX) {
        for (uint32_t i = 0; i < n; i++)
            if ((trans[i] & 0xffu) == byte)
                return bnfa + (trans[i] >> 8);
        return 0;
    }
#endif
    int low = 0, high = (int)n - 1;
    while (low <= high) {
        int middle = (low + high) / 2;
        uint32_t b = trans[middle] & 0xffu;
        if (b < byte)
            low = middle + 1;
        else if (b > byte)
            high = middle - 1;
        else
            return bnfa + (trans[middle] >> 8);
    }
    return 0;
}

#ifdef __cplusplus
}
#endif

#endif /* VAEL_THIN_NFA_INTERNAL_H */
