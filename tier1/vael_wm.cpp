// vael_wm.cpp - the word matcher: its row of the first-tier table, the
// process-wide temporary buffer, UTF-8 decoding, the hash of words, the
// compile, the run, the duplicate, statistics and the dump. The image is in
// vael_wm_image.cpp; tier1/vael_wm.h draws the records and the image.

#include "tier1/vael_wm.h"

#include <cstring>

#include "runtime/vael_alloc.h"
#include "runtime/vael_counter.h"
#include "runtime/vael_lookup3_impl.h"
#include "runtime/vael_runtime.h"
#include "runtime/vael_unicode.h"
#include "vael/vael_lookup3.h"

namespace {

constexpr const char *kTopics = "K_PM";
constexpr const char *kErrTopics = "K_ERROR|K_PM";

// Texts handed to the caller in vael_pm_error.
const char kHashFailed[] = "failed to allocate hash";
const char kBadPhraseArgs[] = "Invalid arguments (phrase or phrase length)";
const char kTempFailed[] = "Failed on validation/allocation of temp buffer";
const char kNoWord[] = "Invalid arguments (not valid utf8 or only delimiters phrase)";

// The process-wide buffer of folded text, shared by every handle.
unsigned char *g_temp = nullptr;
uint32_t g_temp_size = 0;

// The ASCII answers of the delimiter test and of folding, asked once at
// start: a run asks them for nearly every byte of text.
uint8_t g_ascii_delimiter[128];
uint8_t g_ascii_fold[128];
// 1 for an ASCII byte that is no delimiter, 0 for a delimiter and for every
// byte at or above 0x80, which needs decoding.
uint8_t g_ascii_word_byte[256];

}  // namespace

// ---------------------------------------------------------------- UTF-8

namespace vael_wm_detail {

// The code point at s with n bytes left, or -1 for input that cannot be
// decoded; *used is the bytes it took. Trail bytes are not checked. A lead
// byte whose trail bytes would run past the end takes the rest of the
// buffer, so nothing past it is read.
inline int32_t decode_forward(const unsigned char *s, uint32_t n, uint32_t *used) {
    if (n == 0) {
        *used = 0;
        return -1;
    }
    const unsigned char b = s[0];
    if (b < 0x80) {
        *used = 1;
        return b;
    }
    const uint32_t t = utf8_countTrailBytes[b];
    if (t < 1 || t > 3) {
        *used = 1;
        return -1;
    }
    if (n - 1 < t) {
        *used = n;
        return -1;
    }
    int32_t c = b & ((1 << (6 - t)) - 1);
    for (uint32_t i = 1; i <= t; i++)
        c = (c << 6) | (s[i] & 0x3F);
    *used = t + 1;
    return c;
}

// The code point that ends the n bytes at s, or -1: up to 4 trail bytes are
// stepped over back to a lead byte in 0xC0..0xFD.
inline int32_t decode_backward(const unsigned char *s, uint32_t n) {
    if (n == 0)
        return -1;
    const unsigned char last = s[n - 1];
    if (last < 0x80)
        return last;
    int32_t value = 0;
    uint32_t k = 0;
    while (k < n && k < 4 && (s[n - 1 - k] & 0xC0) == 0x80) {
        value |= (int32_t)(s[n - 1 - k] & 0x3F) << (6 * k);
        k++;
    }
    if (k == 0 || k == n)
        return -1;
    const unsigned char lead = s[n - 1 - k];
    if (lead < 0xC0 || lead > 0xFD)
        return -1;
    return value | ((int32_t)(lead & (0x3F >> k)) << (6 * k));
}

// Bytes of c in UTF-8; 0 for surrogates and for values that are no code
// point, which encode to nothing.
inline uint32_t encoded_size(int32_t c) {
    if (c < 0)
        return 0;
    if (c < 0x80)
        return 1;
    if (c < 0x800)
        return 2;
    if (c < 0x10000)
        return (c >= 0xD800 && c <= 0xDFFF) ? 0 : 3;
    return c <= 0x10FFFF ? 4 : 0;
}

inline void encode(int32_t c, uint32_t n, unsigned char *out) {
    switch (n) {
    case 1:
        out[0] = (unsigned char)c;
        break;
    case 2:
        out[0] = (unsigned char)(0xC0 | (c >> 6));
        out[1] = (unsigned char)(0x80 | (c & 0x3F));
        break;
    case 3:
        out[0] = (unsigned char)(0xE0 | (c >> 12));
        out[1] = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
        out[2] = (unsigned char)(0x80 | (c & 0x3F));
        break;
    case 4:
        out[0] = (unsigned char)(0xF0 | (c >> 18));
        out[1] = (unsigned char)(0x80 | ((c >> 12) & 0x3F));
        out[2] = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
        out[3] = (unsigned char)(0x80 | (c & 0x3F));
        break;
    default:
        break;
    }
}

}  // namespace vael_wm_detail

using vael_wm_detail::decode_backward;
using vael_wm_detail::decode_forward;

extern "C" int vael_wm_is_delimiter_uni(int32_t c) {
    return c == -1 || c == '<' || c == '>' || tq_u_isspace(c) || tq_u_ispunct(c);
}

extern "C" int32_t vael_wm_decode_utf8(const unsigned char *s, uint32_t n, uint32_t *used) {
    return decode_forward(s, n, used);
}

namespace {

// The code point at s as the run reads it, and whether it is a delimiter.
inline bool next_is_delimiter(const unsigned char *s, uint32_t n, uint32_t *used) {
    if (s[0] < 0x80) {
        *used = 1;
        return g_ascii_delimiter[s[0]];
    }
    return vael_wm_is_delimiter_uni(decode_forward(s, n, used));
}

}  // namespace

// ---------------------------------------------------------------- temporary buffer

extern "C" void vael_wm_update_phrase_temp_buffer(uint32_t size) {
    if (g_temp)
        VAEL_KFREE(g_temp, g_temp_size);
    g_temp = nullptr;
    g_temp_size = 0;
    if (size == 0)
        return;
    g_temp = static_cast<unsigned char *>(VAEL_KMALLOC(size));
    if (!g_temp) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Error in allocating new buffer\n");
        return;
    }
    g_temp_size = size;
}

extern "C" int vael_wm_validate_phrase_temp_buffer(uint32_t length) {
    // Folding may make a text half as long again in bytes; the buffer grows
    // with room to spare, so that a few longer phrases do not each replace it.
    const uint64_t n = (uint64_t)length + length / 2;
    if (g_temp_size < n) {
        const uint64_t grown = n + n / 2;
        if (grown > UINT32_MAX)
            return VAEL_ERROR;
        vael_wm_update_phrase_temp_buffer((uint32_t)grown);
    }
    return g_temp ? VAEL_OK : VAEL_ERROR;
}

extern "C" unsigned char *vael_wm_phrase_temp_buffer(void) { return g_temp; }
extern "C" uint32_t vael_wm_phrase_temp_buffer_size(void) { return g_temp_size; }

// ---------------------------------------------------------------- hash

extern "C" uint32_t vael_wm_hash_word(vael_wm_handle *h, const unsigned char *word, uint32_t length) {
    // An ASCII word folds byte for byte: it is hashed as it is folded, with
    // the result of folding into the buffer first.
    if (length <= g_temp_size) {
        uint32_t i = 0;
        while (i < length && word[i] < 0x80)
            i++;
        if (i == length)
            return vael_lookup3::hashlittle(length, 1, [word](size_t k) { return g_ascii_fold[word[k]]; }) &
                   h->hash_mask;
    }
    uint32_t out = 0;
    for (uint32_t i = 0; i < length;) {
        if (word[i] < 0x80) {
            if (out + 1 > g_temp_size)
                break;
            g_temp[out++] = g_ascii_fold[word[i++]];
            continue;
        }
        uint32_t used;
        const int32_t c = tq_u_simple_fold_case(decode_forward(word + i, length - i, &used));
        const uint32_t n = vael_wm_detail::encoded_size(c);
        if (out + n > g_temp_size)
            break;
        vael_wm_detail::encode(c, n, g_temp + out);
        out += n;
        i += used;
    }
    return vael_hashlittle(g_temp, out, 1) & h->hash_mask;
}

namespace {

uint32_t occupied_words(uint32_t hash_size) { return (hash_size + 63) / 64; }

int stats_alloc_and_init(vael_wm_handle *h) {
    h->exec_stats = VAEL_PM_NEW_ZEROED_ARRAY(vael_wm_exec_stats, 1);
    if (!h->exec_stats)
        return VAEL_ERROR;
    h->exec_stats_num = 1;
    return vael_pm_stats_common_init(&h->stats);
}

}  // namespace

extern "C" vael_wm_handle *vael_wm_hash_init(uint32_t size) {
    if (size == 0 || (size & (size - 1)) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: hash size %u is not a power of 2\n", size);
        return nullptr;
    }
    auto *h = VAEL_PM_NEW_ZEROED(vael_wm_handle);
    if (!h)
        return nullptr;
    h->hash_size = size;
    h->hash_mask = size - 1;
    h->buckets = VAEL_PM_NEW_ZEROED_ARRAY(vael_wm_node *, size);
    h->occupied = VAEL_PM_NEW_ZEROED_ARRAY(uint64_t, occupied_words(size));
    if (!h->buckets || !h->occupied || stats_alloc_and_init(h) != 0) {
        vael_wm_destroy(h);
        return nullptr;
    }
    return h;
}

extern "C" int vael_wm_insert_phrase(vael_wm_handle *h, uint32_t bucket, const unsigned char *phrase, uint32_t len,
                                     uint32_t id, uint8_t flags, uint8_t back_offset) {
    if ((uint64_t)len + sizeof(vael_wm_node) > UINT32_MAX)
        return VAEL_ERROR;
    auto *node = static_cast<vael_wm_node *>(VAEL_PM_KMALLOC(sizeof(vael_wm_node) + len));
    if (!node)
        return VAEL_ERROR;
    node->phrase = reinterpret_cast<unsigned char *>(node + 1);
    std::memcpy(node->phrase, phrase, len);
    node->flags = flags;
    node->back_offset = back_offset;
    node->len = len;
    node->id = id;
    node->next = h->buckets[bucket];
    h->buckets[bucket] = node;
    h->occupied[bucket / 64] |= 1ull << (bucket % 64);
    return VAEL_OK;
}

extern "C" void vael_wm_destroy(void *handle) {
    auto *h = static_cast<vael_wm_handle *>(handle);
    if (!h)
        return;
    if (h->buckets) {
        for (uint32_t b = 0; b < h->hash_size; b++) {
            for (vael_wm_node *node = h->buckets[b]; node;) {
                vael_wm_node *next = node->next;
                VAEL_PM_KFREE(node, sizeof(vael_wm_node) + node->len);
                node = next;
            }
        }
        VAEL_PM_KFREE(h->buckets, sizeof(vael_wm_node *) * h->hash_size);
    }
    if (h->occupied)
        VAEL_PM_KFREE(h->occupied, sizeof(uint64_t) * occupied_words(h->hash_size));
    if (h->exec_stats)
        VAEL_PM_KFREE(h->exec_stats, sizeof(vael_wm_exec_stats) * h->exec_stats_num);
    vael_pm_stats_common_free(&h->stats);
    VAEL_PM_KFREE(h, sizeof *h);
}

// ---------------------------------------------------------------- compile

extern "C" void vael_wm_get_longest_word(const unsigned char *phrase, uint32_t length, uint32_t *first,
                                         uint32_t *first_len, uint32_t *second, uint32_t *second_len) {
    *first = *first_len = *second = *second_len = 0;
    auto consider = [&](uint32_t at, uint32_t len) {
        // A tie leaves the earlier word in place.
        if (len > *first_len) {
            *second = *first;
            *second_len = *first_len;
            *first = at;
            *first_len = len;
        } else if (len > *second_len) {
            *second = at;
            *second_len = len;
        }
    };
    uint32_t start = 0;
    bool open = false;
    for (uint32_t i = 0; i < length;) {
        uint32_t used;
        const int32_t c = decode_forward(phrase + i, length - i, &used);
        if (c == -1) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: couldn't read a valid u8 char in position:%d, size of %d \n",
                     (int)i, (int)length);
            *first = *first_len = *second = *second_len = 0;
            return;
        }
        if (vael_wm_is_delimiter_uni(c)) {
            if (open)
                consider(start, i - start);
            open = false;
            start = i + used;
        } else {
            open = true;
        }
        i += used;
    }
    if (open)
        consider(start, length - start);
    if (*first_len == 0)
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: A phrase must contain at list one non-delimiter char \n");
}

namespace {

int vael_wm_compile_one_pattern(vael_wm_handle *h, const unsigned char *phrase, uint32_t length, int32_t id,
                                uint32_t flags, uint32_t *rehashed, vael_pm_error *error, uint32_t *depths) {
    if (!phrase || length == 0) {
        vael_pm_error_set_details2(error, VAEL_PM_ERROR_ILLEGAL, kBadPhraseArgs, id);
        return VAEL_ERROR;
    }
    if (vael_wm_validate_phrase_temp_buffer(length) != 0) {
        vael_pm_error_set_details2(error, VAEL_PM_ERROR_INTERNAL, kTempFailed, id);
        return VAEL_ERROR;
    }
    const uint8_t node_flags = ((flags & VAEL_PM_CASELESS) ? WM_PHRASE_CASELESS : 0) |
                               ((flags & VAEL_PM_CONTINUOUS_WORD) ? WM_PHRASE_CONTINUOUS : 0);
    uint32_t bucket, back_offset = 0;
    if (node_flags & WM_PHRASE_CONTINUOUS) {
        // Filed under its first character, which a run looks up at every
        // character of the data.
        uint32_t used;
        if (decode_forward(phrase, length, &used) == -1) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: unable to read the first utf8 char from phrase\n");
            vael_pm_error_set_pattern_id(error, id);
            return VAEL_ERROR;
        }
        bucket = vael_wm_hash_word(h, phrase, used);
        h->has_continuous = 1;
    } else {
        uint32_t first, first_len, second, second_len;
        vael_wm_get_longest_word(phrase, length, &first, &first_len, &second, &second_len);
        if (first_len == 0) {
            vael_pm_error_set_details2(error, VAEL_PM_ERROR_ILLEGAL, kNoWord, id);
            return VAEL_ERROR;
        }
        bucket = vael_wm_hash_word(h, phrase + first, first_len);
        back_offset = first;
        // Phrases that share their longest word would make one long list;
        // past the limit a phrase goes under its second word when that list
        // is shorter. The run compares both sides of whichever word it is.
        if (depths[bucket] > VAEL_WM_MAX_BUCKET_DEPTH && second_len) {
            const uint32_t other = vael_wm_hash_word(h, phrase + second, second_len);
            if (depths[other] < depths[bucket]) {
                bucket = other;
                back_offset = second;
                (*rehashed)++;
            }
        }
    }
    // The offset is kept in 8 bits as the image has it; nothing checks it.
    if (vael_wm_insert_phrase(h, bucket, phrase, length, (uint32_t)id, node_flags, (uint8_t)back_offset) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: fail inserting a phrase to the hash\n");
        vael_pm_error_set_pattern_id(error, id);
        return VAEL_ERROR;
    }
    depths[bucket]++;
    h->phrases_num++;
    h->phrases_len += length;
    return VAEL_OK;
}

}  // namespace

extern "C" void *vael_wm_compile(vael_pmglob_patterns *patterns, uint32_t compile_flags, vael_pm_error *error) {
    (void)compile_flags;
    vael_wm_handle *h = vael_wm_hash_init(VAEL_WM_COMPILE_HASH_SIZE);
    if (!h) {
        vael_pm_error_set_details2(error, VAEL_PM_ERROR_INTERNAL, kHashFailed, -1);
        return nullptr;
    }
    auto depths = VAEL_MAKE_OWNED_ARRAY(uint32_t, h->hash_size);
    if (!depths) {
        vael_pm_error_set_details2(error, VAEL_PM_ERROR_INTERNAL, kHashFailed, -1);
        vael_wm_destroy(h);
        return nullptr;
    }
    uint32_t rehashed = 0;
    uintptr_t value;
    for (lst_cursor c = lst_iterate(patterns, nullptr, &value); c; c = lst_iterate(patterns, c, &value)) {
        auto *s = reinterpret_cast<const vael_pmglob_string *>(value);
        if (vael_wm_compile_one_pattern(h, s->pattern, s->size, s->id, s->flags, &rehashed, error, depths.get()) !=
            0) {
            vael_wm_destroy(h);
            return nullptr;
        }
    }
    vael_wm_hash_stats &st = h->hash_stats;
    st = vael_wm_hash_stats{h->hash_size, 0, 0, 0, 0, rehashed};
    for (uint32_t b = 0; b < h->hash_size; b++) {
        if (depths.get()[b] > st.max_depth)
            st.max_depth = depths.get()[b];
        if (!h->buckets[b])
            st.empty_buckets++;
        for (const vael_wm_node *node = h->buckets[b]; node; node = node->next) {
            if (node->flags & WM_PHRASE_CONTINUOUS)
                st.continuous_words++;
            else
                st.simple_phrases++;
        }
    }
    return h;
}

// ---------------------------------------------------------------- run

namespace {

struct vael_wm_run {
    const vael_wm_handle *h;
    const unsigned char *buf;
    uint32_t len;
    vael_pm_exec_cb_ctx *ctx;
    uint32_t flags;
    uint32_t matches;
    vael_wm_exec_stats *stats;
};

// Whether the node's phrase stands in the text around the word at w; the
// hit's first byte and its exclusive end come from the compare, since folded
// text may differ from the phrase in bytes.
bool vael_wm_test_node(const vael_wm_run &run, const vael_wm_node *node, uint32_t w, uint32_t *start,
                       uint32_t *end) {
    const uint32_t case_flags = (node->flags & WM_PHRASE_CASELESS) ? TQ_UTF8_CMP_CASELESS : 0;
    const uint32_t back = node->back_offset;
    const uint32_t rest = node->len - back;
    uint32_t text_used = 0, phrase_used = 0;
    tq_utf8_compare(run.buf + w, run.len - w, &text_used, node->phrase + back, rest, &phrase_used, case_flags);
    if (phrase_used != rest)
        return false;
    *end = w + text_used;
    *start = w;
    if (back) {
        tq_utf8_compare(run.buf, w, &text_used, node->phrase, back, &phrase_used, case_flags | TQ_UTF8_CMP_BACKWARD);
        if (phrase_used != back)
            return false;
        *start = w - text_used;
    }
    if (node->flags & WM_PHRASE_CONTINUOUS)
        return true;
    // A simple phrase stands between delimiters or the edges of the buffer.
    if (*start && !vael_wm_is_delimiter_uni(decode_backward(run.buf, *start)))
        return false;
    uint32_t used;
    if (*end < run.len && !next_is_delimiter(run.buf + *end, run.len - *end, &used))
        return false;
    return true;
}

// Looks one word (or one character) up and delivers its hits. True when the
// callback asked the run to stop.
bool vael_wm_lookup(vael_wm_run &run, uint32_t w, uint32_t length, uint32_t word_index) {
    // No phrase is longer than the buffer that folded it: a longer word can
    // be in no bucket.
    if (length == 0 || (uint64_t)length + length / 2 > g_temp_size) {
        vael_counter_add(run.stats->empty_bucket_mismatches, 1u);
        return false;
    }
    vael_counter_add(run.stats->executed_words, 1u);
    const uint32_t bucket = vael_wm_hash_word(const_cast<vael_wm_handle *>(run.h), run.buf + w, length);
    const vael_wm_node *node =
        (run.h->occupied[bucket / 64] >> (bucket % 64)) & 1 ? run.h->buckets[bucket] : nullptr;
    if (!node) {
        vael_counter_add(run.stats->empty_bucket_mismatches, 1u);
        return false;
    }
    bool hit = false;
    for (; node; node = node->next) {
        uint32_t start, end;
        if (!vael_wm_test_node(run, node, w, &start, &end))
            continue;
        hit = true;
        run.matches++;
        uint32_t extra[2] = {word_index, (run.flags & VAEL_PM_EXEC_MATCH_START) ? start : 0};
        // Only keep_going ends a run of this tier; the callback's result is
        // not read here.
        (void)run.ctx->fn(run.ctx, end - 1, extra, (int32_t)node->id);
        if (!run.ctx->keep_going)
            return true;
    }
    if (!hit)
        vael_counter_add(run.stats->strcmp_mismatches, 1u);
    return false;
}

void vael_wm_hash_search_buffer(const vael_wm_handle *h, const unsigned char *buf, uint32_t len,
                                vael_pm_exec_cb_ctx *ctx, uint32_t flags) {
    vael_wm_run run{h, buf, len, ctx, flags, 0, h->exec_stats};
    const bool continuous = h->has_continuous != 0;
    uint32_t word_count = 0, word_start = 0, chars = 0;
    bool open = false, stop = false;
    for (uint32_t p = 0; p < len && !stop;) {
        uint32_t used;
        const bool delimiter = next_is_delimiter(buf + p, len - p, &used);
        const uint32_t q = p + used;
        if (delimiter) {
            if (open) {
                open = false;
                word_count++;
                // A one-character word was seen by its character's look-up.
                if (chars >= 2 || !continuous)
                    stop = vael_wm_lookup(run, word_start, p - word_start, word_count);
                chars = 0;
            }
            word_start = q;
        } else {
            chars++;
            open = true;
            if (!continuous) {
                // The rest of a run of ASCII word bytes needs no look-up:
                // step over it in one go.
                uint32_t r = q;
                while (r < len && g_ascii_word_byte[buf[r]])
                    r++;
                chars += r - q;
                p = r;
                continue;
            }
        }
        if (!stop && continuous)
            stop = vael_wm_lookup(run, p, q - p, 0);
        p = q;
    }
    if (!stop && open) {
        word_count++;
        if (chars >= 2 || !continuous)
            vael_wm_lookup(run, word_start, len - word_start, word_count);
    }
    vael_pm_stats_common_update_exec(const_cast<vael_pm_stats_common *>(&h->stats), len, run.matches);
}

}  // namespace

extern "C" int vael_wm_exec(void *handle, const unsigned char *buffer, uint32_t length, vael_vbuf *vbuf,
                            uint32_t offset, lst_list **queue, uint32_t flags, const vael_pm_mask *mask,
                            vael_pm_exec_cb_ctx *context) {
    (void)offset;
    (void)queue;
    auto *h = static_cast<vael_wm_handle *>(handle);
    if (!h || !buffer || !length || !context) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics,
                 "%s: recieved wrong params: wm_h:%p, buffer:%p, beffer_len:%u (vbuf isn't supported)\n", handle,
                 (const void *)buffer, length);
        return VAEL_ERROR;
    }
    if (vbuf) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: WM doesn't support vbufs\n");
        return VAEL_ERROR;
    }
    if (mask)
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: PM mask passed - WM will ignore the masking\n");
    if (flags & (VAEL_PM_EXEC_CIRCUMFLEX | VAEL_PM_EXEC_CIRCUMFLEX_ONLY)) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics,
                 "%s: Words are currently not supported with match circumflex execution flags\n");
        return VAEL_ERROR;
    }
    vael_wm_hash_search_buffer(h, buffer, length, context, flags);
    return VAEL_OK;
}

// ---------------------------------------------------------------- duplicate

extern "C" void *vael_wm_duplicate(void *handle) {
    auto *h = static_cast<vael_wm_handle *>(handle);
    if (!h || !h->hash_size) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Invalid arguments %p, %d\n", handle, h ? (int)h->hash_size : 0);
        return nullptr;
    }
    vael_wm_handle *copy = vael_wm_hash_init(h->hash_size);
    if (!copy) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Couldn't allocate the new hash\n");
        return nullptr;
    }
    copy->phrases_num = h->phrases_num;
    copy->has_continuous = h->has_continuous;
    copy->phrases_len = h->phrases_len;
    // Inserting at the head reverses each bucket, which changes only the
    // order of hits of one word.
    for (uint32_t b = 0; b < h->hash_size; b++) {
        for (const vael_wm_node *node = h->buckets[b]; node; node = node->next) {
            if (vael_wm_insert_phrase(copy, b, node->phrase, node->len, node->id, node->flags, node->back_offset) !=
                0) {
                VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Couldn't insert a phrase to the new hash\n");
                vael_wm_destroy(copy);
                return nullptr;
            }
        }
    }
    copy->hash_stats = h->hash_stats;
    return copy;
}

// ---------------------------------------------------------------- statistics and dump

extern "C" vael_pm_stats_common *vael_wm_get_common_stats(void *handle) {
    return handle ? &static_cast<vael_wm_handle *>(handle)->stats : nullptr;
}

namespace {

vael_wm_exec_stats vael_wm_stats_aggregate_cpus(const vael_wm_handle *h) {
    vael_wm_exec_stats sum{0, 0, 0};
    for (uint32_t i = 0; i < h->exec_stats_num; i++) {
        sum.executed_words += h->exec_stats[i].executed_words;
        sum.empty_bucket_mismatches += h->exec_stats[i].empty_bucket_mismatches;
        sum.strcmp_mismatches += h->exec_stats[i].strcmp_mismatches;
    }
    return sum;
}

void vael_wm_print_hash_stats_lists(const vael_wm_handle *h) {
    uint32_t max_depth = 0;
    for (uint32_t b = 0; b < h->hash_size; b++) {
        uint32_t depth = 0;
        for (const vael_wm_node *node = h->buckets[b]; node; node = node->next)
            depth++;
        if (depth > max_depth)
            max_depth = depth;
    }
    auto counts = VAEL_MAKE_OWNED_ARRAY(uint32_t, (size_t)max_depth + 1);
    if (!counts)
        return;
    for (uint32_t b = 0; b < h->hash_size; b++) {
        uint32_t depth = 0;
        for (const vael_wm_node *node = h->buckets[b]; node; node = node->next)
            depth++;
        counts.get()[depth]++;
    }
    for (uint32_t d = 0; d <= max_depth; d++) {
        const uint32_t n = counts.get()[d];
        if (n)
            vael_us_adaptor_kdprintf("histogram: %d list%s in the hash with depth of %d.\n", (int)n,
                                     n == 1 ? "" : "s", (int)d);
    }
}

}  // namespace

extern "C" void vael_wm_dump(void *handle, int format) {
    (void)format;
    auto *h = static_cast<vael_wm_handle *>(handle);
    if (!h) {
        vael_us_adaptor_kdprintf("NULL wm_h");
        return;
    }
    for (uint32_t b = 0; b < h->hash_size; b++) {
        if (!h->buckets[b])
            continue;
        vael_us_adaptor_kdprintf("********** Bucket %d **********\n", (int)b);
        int n = 0;
        for (const vael_wm_node *node = h->buckets[b]; node; node = node->next, n++)
            vael_us_adaptor_kdprintf("\tid %d, phrase flags %d, length %d\n", (int)node->id, (int)node->flags,
                                     (int)node->len);
        vael_us_adaptor_kdprintf("\t*** The bucket have %d phrases ***\n", n);
    }
    vael_wm_print_hash_stats_lists(h);
}

extern "C" void vael_wm_stats_print(void *handle, int level) {
    auto *h = static_cast<vael_wm_handle *>(handle);
    if (!h)
        return;
    if (level != 1) {
        const vael_wm_hash_stats &st = h->hash_stats;
        vael_pm_stats_common_print(&h->stats, VAEL_PM_STATS_COMMON_COMPILE, VAEL_PM_STATS_FORMAT_TEXT, 0);
        vael_us_adaptor_kdprintf_no_prefix("Hash size for this wm handle is %u\n", h->hash_size);
        vael_us_adaptor_kdprintf_no_prefix("Max depth in the hash is %u\n", st.max_depth);
        vael_us_adaptor_kdprintf_no_prefix("Number of simple phrases in the hash %u\n", st.simple_phrases);
        vael_us_adaptor_kdprintf_no_prefix("Number of continuous words in the hash %u\n", st.continuous_words);
        if (h->phrases_num)
            vael_us_adaptor_kdprintf_no_prefix("Average length of a phrase is %u\n", h->phrases_len / h->phrases_num);
        // The length total over the used buckets, as the figure has always
        // been given.
        const uint32_t used = st.hash_size - st.empty_buckets;
        if (used && st.hash_size >= st.empty_buckets)
            vael_us_adaptor_kdprintf_no_prefix("Average depth in the hash is %u\n", h->phrases_len / used);
        vael_us_adaptor_kdprintf_no_prefix("Number of Empty buckets in the hash is %u\n", st.empty_buckets);
        vael_us_adaptor_kdprintf_no_prefix("Number of Rehashed phrases in the hash is %u\n", st.rehashed_phrases);
    }
    if (level != 0) {
        vael_pm_stats_common_print(&h->stats, VAEL_PM_STATS_COMMON_EXEC, VAEL_PM_STATS_FORMAT_TEXT, 0);
        const vael_wm_exec_stats sum = vael_wm_stats_aggregate_cpus(h);
        vael_us_adaptor_kdprintf_no_prefix("Number of executed words is %u\n", sum.executed_words);
        vael_us_adaptor_kdprintf_no_prefix("Number of mismatches words in empty buckets is %u\n", sum.empty_bucket_mismatches);
        vael_us_adaptor_kdprintf_no_prefix("Number of mismatches words in str cmp is %u\n", sum.strcmp_mismatches);
    }
    if (vael_us_adaptor_printable(VAEL_DBG_INFO, "K_PMDUMP")) {
        vael_us_adaptor_kdprintf("dump of WM Hash\n");
        vael_wm_dump(h, 0);
    }
}

// ---------------------------------------------------------------- row

extern "C" int vael_wm_init(vael_pm_tier1_funcs *row) {
    for (int32_t c = 0; c < 128; c++) {
        g_ascii_delimiter[c] = (uint8_t)vael_wm_is_delimiter_uni(c);
        g_ascii_word_byte[c] = !g_ascii_delimiter[c];
        g_ascii_fold[c] = (uint8_t)tq_u_simple_fold_case(c);
    }
    static const vael_pm_tier1_funcs kRow = {
        "WM",
        vael_wm_compile,
        vael_wm_exec,
        vael_wm_duplicate,
        vael_wm_get_serialize_size,
        vael_wm_serialize,
        vael_wm_deserialize,
        [](void *) { return 1; },
        vael_wm_destroy,
        vael_wm_stats_print,
        vael_wm_get_common_stats,
        vael_wm_dump,
        nullptr, // delivers the user's ids itself: queues none
        0,
    };
    *row = kRow;
    return VAEL_OK;
}

extern "C" void vael_wm_fini(void) { vael_wm_update_phrase_temp_buffer(0); }
