/*
 * vael_thin_nfa_prefilter.h - the candidate filter that lets a Thin NFA run
 * skip, many bytes at a time, the input where no pattern can start.
 *
 * While the automaton stands at its root, a byte that starts no pattern
 * leaves it there, and nothing before the next position where a pattern
 * could start can take part in a match. The filter finds that position: it
 * tests a window of `window` bytes (1 to 4) at every `stride`-th position
 * against a bitmap of the hashed windows at offsets 0 .. stride - 1 of every
 * pattern's beginning; a hit then vouches for the stride positions ending
 * there, each tested again by its own window and confirmed by a second
 * bitmap keyed on its first 16 bytes (or all of a shorter pattern's). A passed position is only a candidate,
 * never a match: the automaton runs from it exactly as it would have, so a
 * false candidate costs time and never changes a result.
 *
 * The tables are derived from the BNFA alone (its root, the states one to
 * sixteen transitions below it, their finite flags and the translation table),
 * so a handle gets the same filter whether it was compiled, copied or loaded
 * from an image; the BNFA itself is untouched. The filter is owned by the
 * handle and counted in the PM memory account.
 *
 * Two implementations of the search share the tables: a plain one (SSE2 era,
 * scalar, eight positions per branch) and an AVX2 one (sixteen positions per
 * branch, hashed and gathered eight at a time), chosen by the CPU at the first run and forced by the
 * tunable vael_thin_nfa_prefilter.
 */
#ifndef VAEL_THIN_NFA_PREFILTER_H
#define VAEL_THIN_NFA_PREFILTER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "tier1/vael_thin_nfa_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Values of the tunable vael_thin_nfa_prefilter. */
#define THIN_NFA_PREFILTER_OFF 0   /* the automaton reads every byte */
#define THIN_NFA_PREFILTER_AUTO 1  /* the best search the CPU supports; the default */
#define THIN_NFA_PREFILTER_PLAIN 2 /* the plain search even where AVX2 exists */

/* A search needs this many bytes from a position to test it: a window is
 * read as one 32-bit load. The last positions of a piece are left to the
 * automaton. */
#define THIN_NFA_PREFILTER_LOAD 4u
/* Bytes of a pattern's beginning that the confirmation of a candidate sees. */
#define THIN_NFA_PREFILTER_CONFIRM_DEPTH 16u

typedef struct vael_thin_nfa_prefilter_tables {
    uint32_t window;      /* bytes of a pattern's beginning tested per position, 1..4 */
    uint32_t stride;      /* positions tested: every stride-th, 1..4 (see below) */
    uint32_t window_mask; /* keeps those bytes of a little-endian 32-bit load */
    uint32_t fold;        /* ORed into the window before hashing: 0x20 per byte when case folds, else 0 */
    uint32_t hash_shift;  /* 32 - log2 of the bitmap's bits */
    uint32_t table_words; /* 32-bit words of the bitmap, a power of two */
    uint32_t *table;      /* bit h set: some pattern beginning hashes to h */
    /* The confirmation of a window's hit, over the first 16 bytes in their
     * canonical form: a key per path of 16 bytes from the root, and per
     * shorter path that ends in a finite state, the key of its bytes and
     * its length (the lengths held in confirm_lengths, bit d for d bytes). */
    uint32_t confirm_lengths;
    uint32_t confirm_shift; /* 64 - log2 of the confirmation bitmap's bits */
    uint32_t confirm_words; /* 32-bit words of that bitmap, a power of two */
    uint32_t *confirm;
    const unsigned char *xlation_tab; /* the handle's, when it translates; else null */
} vael_thin_nfa_prefilter_tables;

/* The search, vael_thin_nfa_prefilter_find_fn, is declared beside the run
 * state that holds it (vael_thin_nfa_internal.h). */

/* Derives the filter of a handle whose BNFA, flags and xlation_tab are
 * complete, and hangs it on the handle (replacing one already there). 0 or
 * -1 on allocation failure, with the handle as it was. */
int vael_thin_nfa_prefilter_build(vael_thin_nfa *nfa);
/* Frees the handle's filter, if any. */
void vael_thin_nfa_prefilter_free(vael_thin_nfa *nfa);
/* Bytes the handle's filter holds, 0 without one. */
size_t vael_thin_nfa_prefilter_memory(const vael_thin_nfa *nfa);

/* The search a run uses, from the tunable and the CPU; null when off. */
vael_thin_nfa_prefilter_find_fn vael_thin_nfa_prefilter_select(void);
/* Each search by name, for tests; the AVX2 one is null on a CPU without it. */
vael_thin_nfa_prefilter_find_fn vael_thin_nfa_prefilter_find_plain_fn(void);
vael_thin_nfa_prefilter_find_fn vael_thin_nfa_prefilter_find_avx2_fn(void);

/* The hash of a window, shared by the build and both searches. */
static inline uint32_t vael_thin_nfa_prefilter_hash(const vael_thin_nfa_prefilter_tables *pf, uint32_t load) {
    return (((load & pf->window_mask) | pf->fold) * 0x9e3779b1u) >> pf->hash_shift;
}

/* Whether a pattern may start at p; p + 4 must lie within the data. */
static inline int vael_thin_nfa_prefilter_test(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p) {
    uint32_t load = (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
    uint32_t h = vael_thin_nfa_prefilter_hash(pf, load);
    return (int)((pf->table[h >> 5] >> (h & 31)) & 1u);
}

/* Tags of the confirmation's keys beside the lengths 1..16: the first 8
 * bytes of every path that long, which every pattern of 8 bytes or more
 * shows, so one probe turns most passers-by away before the longer lengths. */
#define THIN_NFA_PREFILTER_TAG_PREFIX8 64u

/* The confirmation hash of a key: the text's bytes 0-7 in `lo` and 8-15 in
 * `hi`, little-endian, as many kept as the key covers, the rest zero. */
static inline uint32_t vael_thin_nfa_prefilter_confirm_hash(const vael_thin_nfa_prefilter_tables *pf, uint64_t lo,
                                                            uint64_t hi, uint32_t tag) {
    uint64_t x = lo * 0x9e3779b97f4a7c15ull + (hi + tag) * 0xc2b2ae3d27d4eb4full;
    return (uint32_t)(x >> pf->confirm_shift);
}

static inline int vael_thin_nfa_prefilter_confirm_bit(const vael_thin_nfa_prefilter_tables *pf, uint64_t lo,
                                                      uint64_t hi, uint32_t tag) {
    uint32_t h = vael_thin_nfa_prefilter_confirm_hash(pf, lo, hi, tag);
    return (int)((pf->confirm[h >> 5] >> (h & 31)) & 1u);
}

/* Whether a window hit at p stands: some pattern's first 16 bytes, or a
 * shorter pattern, may start there. A hit within 16 bytes of end stands:
 * the pattern may go on past the piece. */
static inline int vael_thin_nfa_prefilter_confirm(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p,
                                                  const unsigned char *end) {
    if (end - p < (ptrdiff_t)THIN_NFA_PREFILTER_CONFIRM_DEPTH)
        return 1;
    uint64_t lo, hi;
    if (pf->xlation_tab) {
        unsigned char canonical[16];
        for (int i = 0; i < 16; i++)
            canonical[i] = pf->xlation_tab[p[i]];
        memcpy(&lo, canonical, 8);
        memcpy(&hi, canonical + 8, 8);
    } else {
        memcpy(&lo, p, 8);
        memcpy(&hi, p + 8, 8);
    }
    uint32_t lengths = pf->confirm_lengths;
    for (uint32_t short_lengths = lengths & 0xffu; short_lengths; short_lengths &= short_lengths - 1) {
        uint32_t len = (uint32_t)__builtin_ctz(short_lengths);
        if (vael_thin_nfa_prefilter_confirm_bit(pf, lo & ((1ull << (8 * len)) - 1), 0, len))
            return 1;
    }
    lengths &= ~0xffu;
    if (!lengths || !vael_thin_nfa_prefilter_confirm_bit(pf, lo, 0, THIN_NFA_PREFILTER_TAG_PREFIX8))
        return 0;
    for (; lengths; lengths &= lengths - 1) {
        uint32_t len = (uint32_t)__builtin_ctz(lengths);
        uint64_t kept = len >= 16 ? hi : hi & ((1ull << (8 * (len - 8))) - 1);
        if (vael_thin_nfa_prefilter_confirm_bit(pf, lo, kept, len))
            return 1;
    }
    return 0;
}

#ifdef __cplusplus
}
#endif

#endif /* VAEL_THIN_NFA_PREFILTER_H */
