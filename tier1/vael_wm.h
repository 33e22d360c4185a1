/*
 * vael_wm.h - the word matcher, row 0 of the first-tier table: words and
 * phrases of UTF-8 text found through a hash of words instead of an
 * automaton.
 *
 * A phrase is filed in one bucket, under one word of it (its longest, or the
 * second longest when that bucket is crowded); a continuous word, which may
 * hit inside a word, is filed under its first character. A run splits the
 * buffer into words, hashes each once (folded, so caseless and
 * case-sensitive phrases share a bucket), and compares only the phrases of
 * that bucket against the text around the word. Hits go straight to the
 * run's callback context; there is no second tier.
 *
 * The folded text of a word is built in one process-wide temporary buffer,
 * with no lock: runs of the word matcher must not overlap one another, nor a
 * compile or a deserialize of it, which may replace that buffer.
 *
 * Image ("HZRS"), little-endian, packed:
 *
 *   0   u32 magic 0x53525A48      4  u32 hash_size
 *   8   u32 phrases_len           12 u32 has_continuous
 *   16  u32 phrases_num
 *   20  the nodes, buckets in ascending order, each list from its head:
 *         u32 bucket, u32 len, u32 id, u8 flags, u8 back_offset, len bytes
 *   end-24  the six u32 of hash_stats
 *
 * The common statistics are not in the image.
 */
#ifndef VAEL_WM_H
#define VAEL_WM_H

#include <stdint.h>

#include "pm/vael_pm_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_WM_MAGIC 0x53525A48u         /* "HZRS" */
#define VAEL_WM_COMPILE_HASH_SIZE 0x20000u /* buckets of a compiled hash */
#define VAEL_WM_MAX_BUCKET_DEPTH 19u       /* beyond it a phrase tries its second word */

/* Node flags. */
#define WM_PHRASE_CASELESS 0x1u   /* compare without regard to case */
#define WM_PHRASE_CONTINUOUS 0x2u /* may hit inside a word */

/* One phrase, allocated in one piece with its text, which follows it. */
typedef struct vael_wm_node {
    unsigned char *phrase;
    uint8_t flags;
    uint8_t back_offset; /* offset of the filed word in the phrase, cut to 8 bits */
    struct vael_wm_node *next;
    uint32_t len;
    uint32_t id; /* the user's id */
} vael_wm_node;

/* Counters of the runs. */
typedef struct vael_wm_exec_stats {
    uint32_t executed_words;          /* words whose bucket was walked */
    uint32_t empty_bucket_mismatches; /* words that met an empty bucket or were too long */
    uint32_t strcmp_mismatches;       /* buckets walked to their end with no hit */
} vael_wm_exec_stats;

/* Figures of the table, filled when a compile ends. */
typedef struct vael_wm_hash_stats {
    uint32_t hash_size;
    uint32_t max_depth;
    uint32_t simple_phrases;
    uint32_t continuous_words;
    uint32_t empty_buckets;
    uint32_t rehashed_phrases;
} vael_wm_hash_stats;

typedef struct vael_wm_handle {
    uint32_t hash_size; /* a non-zero power of 2 */
    uint32_t hash_mask;
    uint32_t phrases_num;
    uint32_t phrases_len; /* bytes of all phrases */
    vael_wm_node **buckets;
    uint32_t has_continuous;
    vael_pm_stats_common stats;
    vael_wm_exec_stats *exec_stats;
    uint32_t exec_stats_num;
    vael_wm_hash_stats hash_stats;
    /* One bit per bucket, set when the bucket holds a phrase: 16 KiB for a
     * compiled table, so that the many words of a run that meet an empty
     * bucket are told so from the cache, not from the bucket array. */
    uint64_t *occupied;
} vael_wm_handle;

int vael_wm_init(vael_pm_tier1_funcs *row);
void vael_wm_fini(void);

void *vael_wm_compile(vael_pmglob_patterns *patterns, uint32_t compile_flags, vael_pm_error *error);
int vael_wm_exec(void *handle, const unsigned char *buffer, uint32_t length, vael_vbuf *vbuf, uint32_t offset,
                 lst_list **queue, uint32_t flags, const vael_pm_mask *mask, vael_pm_exec_cb_ctx *context);
void *vael_wm_duplicate(void *handle);
uint32_t vael_wm_get_serialize_size(void *handle);
int vael_wm_serialize(void *handle, unsigned char **cursor, uint32_t *remaining);
void *vael_wm_deserialize(const unsigned char **cursor, uint32_t *remaining, vael_vbuf *vbuf,
                          vael_vbuf_iter *iter);
void vael_wm_destroy(void *handle);
void vael_wm_stats_print(void *handle, int level);
vael_pm_stats_common *vael_wm_get_common_stats(void *handle);
void vael_wm_dump(void *handle, int format);

/* The parts the image and the tests share with the engine. */
vael_wm_handle *vael_wm_hash_init(uint32_t size);
int vael_wm_insert_phrase(vael_wm_handle *h, uint32_t bucket, const unsigned char *phrase, uint32_t len,
                          uint32_t id, uint8_t flags, uint8_t back_offset);
int vael_wm_is_delimiter_uni(int32_t c);
/* The code point at s with n bytes left, as the engine decodes it, or -1 for
 * input it cannot decode; *used is the bytes it took. */
int32_t vael_wm_decode_utf8(const unsigned char *s, uint32_t n, uint32_t *used);
uint32_t vael_wm_hash_word(vael_wm_handle *h, const unsigned char *word, uint32_t length);
/* 0 with a buffer of at least length * 9 / 4 bytes, -1 without. */
int vael_wm_validate_phrase_temp_buffer(uint32_t length);
void vael_wm_update_phrase_temp_buffer(uint32_t size);
unsigned char *vael_wm_phrase_temp_buffer(void);
uint32_t vael_wm_phrase_temp_buffer_size(void);
/* The first and second longest words of a phrase, as offsets and lengths in
 * bytes; *first_len stays 0 when the phrase has no word or is not UTF-8. */
void vael_wm_get_longest_word(const unsigned char *phrase, uint32_t length, uint32_t *first, uint32_t *first_len,
                              uint32_t *second, uint32_t *second_len);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_WM_H */
