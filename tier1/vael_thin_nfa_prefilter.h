/*
 * vael_thin_nfa_prefilter.h - the candidate filter that lets a Thin NFA run
 * skip, many bytes at a time, the input where no pattern can start.
 *
 * While the automaton stands at its root, a byte that starts no pattern
 * leaves it there, and nothing before the next position where a pattern
 * could start can take part in a match. The filter finds that position.
 *
 * Its first stage is a shift-or over the first 8 bytes of every pattern.
 * The patterns' beginnings are dealt into 8 buckets, shorter ones apart
 * from longer ones, and a table keyed by the 2 bytes at a position (their
 * "domain": all of the first and some low bits of the second) holds, per
 * offset 0..7 from a pattern's start, the buckets whose beginnings show no
 * such 2 bytes there. A position is a candidate when some bucket is refused
 * at none of the 8 offsets. Each lookup serves the 8 starts it can belong
 * to at once, shifted into place in a 128-bit register. A candidate is then
 * confirmed by a bitmap keyed on its first 16 bytes (or all of a shorter
 * pattern's). A passed position is only a candidate, never a match: the
 * automaton runs from it exactly as it would have, so a false candidate
 * costs time and never changes a result.
 *
 * The tables are derived from the BNFA alone (its root, the states one to
 * sixteen transitions below it, their finite flags and the translation table),
 * so a handle gets the same filter whether it was compiled, copied or loaded
 * from an image; the BNFA itself is untouched. The filter is owned by the
 * handle and counted in the PM memory account.
 *
 * Two builds of the search share the tables: a plain one (SSE2) and one for
 * CPUs with AVX2 and BMI2, chosen by the CPU at the first run and forced by
 * the tunable vael_thin_nfa_prefilter.
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

/* A search needs this many bytes from a position to test it: the domain
 * at its offset 7 reaches the 9th byte. The last positions of a piece are
 * left to the automaton. */
#define THIN_NFA_PREFILTER_LOAD 9u
/* Pattern beginnings, offsets and buckets of the first stage. */
#define THIN_NFA_PREFILTER_DEPTH 8u
#define THIN_NFA_PREFILTER_BUCKETS 8u
/* Bytes of a pattern's beginning that the confirmation of a candidate sees. */
#define THIN_NFA_PREFILTER_CONFIRM_DEPTH 16u

typedef struct vael_thin_nfa_prefilter_tables {
    uint32_t domain_bits; /* 8..14: the table has 1 << domain_bits entries */
    uint32_t domain_mask; /* keeps the domain's bits of a little-endian 16-bit load */
    uint32_t fold;        /* ORed into the 16-bit load first: 0x2020 within the mask when case folds, else 0 */
    /* Entry d, byte 7 - k, bit b: no beginning in bucket b shows domain d
     * at offset k. Stored reversed so that a lookup at position q, shifted
     * left by q's place in its block, lands each byte on the start it
     * speaks for. */
    uint64_t *table;
    /* The confirmation of a candidate, over the first 16 bytes in their
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

/* The table's key for the 2 bytes at q. */
static inline uint32_t vael_thin_nfa_prefilter_domain(const vael_thin_nfa_prefilter_tables *pf,
                                                      const unsigned char *q) {
    uint32_t load = (uint32_t)q[0] | (uint32_t)q[1] << 8;
    return (load | pf->fold) & pf->domain_mask;
}

/* Whether the first stage lets a pattern start at p, all 8 offsets looked
 * up; p + 9 must lie within the data. */
static inline int vael_thin_nfa_prefilter_test(const vael_thin_nfa_prefilter_tables *pf, const unsigned char *p) {
    uint64_t refused = 0;
    for (unsigned k = 0; k < THIN_NFA_PREFILTER_DEPTH; k++)
        refused |= pf->table[vael_thin_nfa_prefilter_domain(pf, p + k)] >> (8 * (7 - k));
    return (refused & 0xffu) != 0xffu;
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

/* Whether a candidate at p stands: some pattern's first 16 bytes, or a
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
