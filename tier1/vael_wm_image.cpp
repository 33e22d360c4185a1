// vael_wm_image.cpp - the word matcher's image ("HZRS"): its size, the
// writer and the reader. The layout is drawn in tier1/vael_wm.h.
//
// The reader refuses an image it cannot read whole: a cut anywhere, a bucket
// out of the table, an offset past its phrase, or figures that disagree
// with the nodes read, so that a handle it gives is the one written.

#include "tier1/vael_wm.h"

#include <initializer_list>

#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kErrTopics = "K_ERROR|K_PM";
constexpr uint32_t kHeaderSize = 20;
constexpr uint32_t kNodeHeaderSize = 14;
constexpr uint32_t kHashStatsSize = 24;
// No compile makes more buckets than this; a larger figure in an image is
// damage, and is refused before a table of that size is allocated.
constexpr uint32_t kMaxImageHashSize = 1u << 24;

}  // namespace

extern "C" uint32_t vael_wm_get_serialize_size(void *handle) {
    auto *h = static_cast<vael_wm_handle *>(handle);
    if (!h) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: recieved NULL wm_h\n");
        return 0;
    }
    return kHeaderSize + h->phrases_len + kNodeHeaderSize * h->phrases_num + kHashStatsSize;
}

extern "C" int vael_wm_serialize(void *handle, unsigned char **cursor, uint32_t *remaining) {
    auto *h = static_cast<vael_wm_handle *>(handle);
    const uint32_t needed = vael_wm_get_serialize_size(h);
    if (needed == 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: needed size = 0\n");
        return VAEL_OK;
    }
    if (!cursor || !*cursor || !remaining || *remaining < needed) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Not enough space in the buffer, buf size (%u) < needed (%u) \n",
                 remaining ? *remaining : 0u, needed);
        return VAEL_ERROR;
    }
    const uint32_t start = *remaining;
    vael::image_put_u32(cursor, remaining, VAEL_WM_MAGIC);
    vael::image_put_u32(cursor, remaining, h->hash_size);
    vael::image_put_u32(cursor, remaining, h->phrases_len);
    vael::image_put_u32(cursor, remaining, h->has_continuous);
    vael::image_put_u32(cursor, remaining, h->phrases_num);
    for (uint32_t b = 0; b < h->hash_size; b++) {
        for (const vael_wm_node *node = h->buckets[b]; node; node = node->next) {
            const uint64_t node_size = (uint64_t)kNodeHeaderSize + node->len;
            if (*remaining < node_size) {
                VAEL_LOG(VAEL_DBG_ERR, kErrTopics,
                         "%s: Not enough space in the buffer for the next node, buf size (%u) < needed (%u) \n",
                         *remaining, (uint32_t)node_size);
                return VAEL_ERROR;
            }
            vael::image_put_u32(cursor, remaining, b);
            vael::image_put_u32(cursor, remaining, node->len);
            vael::image_put_u32(cursor, remaining, node->id);
            vael::image_put_bytes(cursor, remaining, &node->flags, 1);
            vael::image_put_bytes(cursor, remaining, &node->back_offset, 1);
            vael::image_put_bytes(cursor, remaining, node->phrase, node->len);
        }
    }
    if (*remaining < kHashStatsSize) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Serializarion failed, %d-%d != %d\n", (int)start, (int)*remaining,
                 (int)needed);
        return VAEL_ERROR;
    }
    const vael_wm_hash_stats &st = h->hash_stats;
    for (uint32_t v : {st.hash_size, st.max_depth, st.simple_phrases, st.continuous_words, st.empty_buckets,
                       st.rehashed_phrases})
        vael::image_put_u32(cursor, remaining, v);
    if (start - *remaining != needed) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Serializarion failed, %d-%d != %d\n", (int)start, (int)*remaining,
                 (int)needed);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void *vael_wm_deserialize(const unsigned char **cursor, uint32_t *remaining, vael_vbuf *vbuf,
                                     vael_vbuf_iter *iter) {
    if (!remaining || (!vbuf && (!cursor || !*cursor)) || (vbuf && !iter)) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: invalid parameters\n");
        return nullptr;
    }
    vael::ImageReader in{cursor, remaining, vbuf, iter};
    uint32_t magic = 0, hash_size = 0, phrases_len = 0, has_continuous = 0, phrases_num = 0;
    in.u32(&magic);
    if (magic != VAEL_WM_MAGIC) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Wrong serialization magic (%x) at the buffer\n", magic);
        return nullptr;
    }
    bool whole = in.u32(&hash_size) && in.u32(&phrases_len) && in.u32(&has_continuous) && in.u32(&phrases_num);
    vael_wm_handle *h = whole && hash_size <= kMaxImageHashSize ? vael_wm_hash_init(hash_size) : nullptr;
    if (!h) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not alloc the new hash table (size:%d)\n", (int)hash_size);
        return nullptr;
    }
    auto fail = [&]() -> void * {
        vael_wm_destroy(h);
        return nullptr;
    };
    h->has_continuous = has_continuous;
    for (uint32_t i = 0; i < phrases_num; i++) {
        uint32_t bucket = 0, len = 0, id = 0;
        uint8_t flags = 0, back_offset = 0;
        if (!(in.u32(&bucket) && in.u32(&len) && in.u32(&id) && in.bytes(&flags, 1) && in.bytes(&back_offset, 1))) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: image cut in node %u of %u\n", i, phrases_num);
            return fail();
        }
        if (bucket >= hash_size) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: bucket number (%d) out of hash size (%d)\n", (int)bucket,
                     (int)hash_size);
            return fail();
        }
        // A phrase longer than what is left is a cut image; it is refused
        // before the buffer grows for it.
        if (len > *remaining) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: image cut in node %u of %u\n", i, phrases_num);
            *remaining = 0;
            return fail();
        }
        if (vael_wm_validate_phrase_temp_buffer(len) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Failed on validation/allocation of temp buffer\n");
            return fail();
        }
        if (back_offset >= len) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: back_offset (%d) >= phrase_len (%d)\n", (int)back_offset,
                     (int)len);
            return fail();
        }
        unsigned char *text = vael_wm_phrase_temp_buffer();
        if (!in.bytes(text, len) || vael_wm_insert_phrase(h, bucket, text, len, id, flags, back_offset) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: fail inserting a phrase to the hash\n");
            return fail();
        }
        h->phrases_num++;
        h->phrases_len += len;
    }
    if (h->phrases_len != phrases_len) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: phrases length (%u) differs from the header (%u)\n", h->phrases_len,
                 phrases_len);
        return fail();
    }
    vael_wm_hash_stats &st = h->hash_stats;
    if (!(in.u32(&st.hash_size) && in.u32(&st.max_depth) && in.u32(&st.simple_phrases) &&
          in.u32(&st.continuous_words) && in.u32(&st.empty_buckets) && in.u32(&st.rehashed_phrases))) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: image cut in the hash figures\n");
        return fail();
    }
    return h;
}
