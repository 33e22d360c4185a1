// vael_vbuf.cpp - virtual buffers: a list of caller-owned blocks seen as one
// byte string, with a maximum size that evicts whole blocks, oldest first.
//
// Nothing here copies a block but defrag and the sequential reader, which
// copy out into the caller's memory. A buffer belongs to one thread at a
// time; iterators are the caller's, so several may walk an unchanged buffer.

#include <cstdio>
#include <cstring>

#include "runtime/vael_runtime.h"
#include "vael/vael_vbuf.h"

namespace {

constexpr uint32_t kVbufMagic = 0x76627566;         // "fubv" in memory: live header
constexpr uint32_t kVbufMagicReleased = 0x76626672; // released header
constexpr uint32_t kBlockMagic = 0x62756666;        // live block record

constexpr uint32_t kCopyinChunkDefault = 0x20000;
constexpr uint32_t kCopyinChunkMin = 32768;
constexpr uint32_t kCopyinChunkMax = 0x400000;

struct vael_buffer {
    uint32_t magic;
    unsigned char *data;
    uint32_t len;
    void *ctx;
    vael_vbuf_free_fn free_func;
};

// Illegal arguments panic only when assertions are on. The operation then
// goes on where it stays defined without the argument (an empty block, a copy
// of nothing) and takes its failure road where it would have to follow a
// null pointer.
bool illegal(const char *func) {
    if (qx_assert_on)
        vael_soft_assert_fail(func, "Illegal arguments", __FILE__, __LINE__);
    return true;
}

vael_buffer *block_at(lst_cursor cursor) { return reinterpret_cast<vael_buffer *>(lst_data(cursor)); }

void release_block_data(vael_buffer *b) {
    if (b->free_func)
        b->free_func(b->data, b->len, b->ctx);
}

}  // namespace

struct vael_vbuf {
    uint32_t magic;
    uint32_t flags;
    lst_list *buffers;
    uint32_t size;
    uint32_t max_size;
};

uint32_t vael_vbuf_copyin_chunk_size = kCopyinChunkDefault;

// The list's destructor: gives the block back to its owner and releases the
// record. The name's spelling is kept: hosts refer to it.
extern "C" void vael_vbuf_destory_buf(uintptr_t value) {
    auto *b = reinterpret_cast<vael_buffer *>(value);
    release_block_data(b);
    std::memcpy(&b->magic, "rffb", 4);
    VAEL_KFREE(b, sizeof(vael_buffer));
}

extern "C" vael_vbuf *vael_vbuf_create(uint32_t max_size, uint32_t flags) {
    auto *v = static_cast<vael_vbuf *>(VAEL_KMALLOC(sizeof(vael_vbuf)));
    if (!v) {
        VAEL_LOG(VAEL_DBG_ERR, "K_VBUF | K_ERROR", "%s: Error in allocating a virtual buf\n");
        return nullptr;
    }
    v->buffers = lst_create_destr(vael_vbuf_destory_buf);
    if (!v->buffers) {
        VAEL_LOG(VAEL_DBG_ERR, "K_VBUF | K_ERROR", "%s: Error in allocating buffers list\n");
        VAEL_KFREE(v, sizeof(vael_vbuf));
        return nullptr;
    }
    v->magic = kVbufMagic;
    v->flags = flags;
    v->size = 0;
    v->max_size = max_size;
    return v;
}

extern "C" void vael_vbuf_destroy(vael_vbuf *vbuf) {
    if (!vbuf && illegal(__func__))
        return;
    lst_destroy(vbuf->buffers);
    vbuf->magic = kVbufMagicReleased;
    VAEL_KFREE(vbuf, sizeof(vael_vbuf));
}

extern "C" void vael_vbuf_reset(vael_vbuf *vbuf) {
    if (!vbuf && illegal(__func__))
        return;
    uintptr_t value;
    while (lst_remove_at_start(vbuf->buffers, &value) == 1)
        vael_vbuf_destory_buf(value);
    vbuf->size = 0;
}

extern "C" int vael_vbuf_add_buffer_ex(vael_vbuf *vbuf, void *data, uint32_t len, vael_vbuf_free_fn free_func,
                                       void *ctx) {
    if (!vbuf || !data || !len) {
        illegal(__func__);
        // An empty block is never read, so it is added like any other; bytes
        // that cannot be read are refused.
        if (!vbuf || (!data && len))
            return VAEL_ERROR;
    }
    if (len > vbuf->max_size) {
        VAEL_LOG(VAEL_DBG_ERR, "K_VBUF",
                 "%s: given a buffer with size (%u) > max_size (%u), not adding it to vbuf\n", len, vbuf->max_size);
        return VAEL_ERROR;
    }
    // Sums in 64 bits: after a concat the size may already exceed the maximum.
    auto fits = [vbuf, len] { return (uint64_t)vbuf->size + len <= vbuf->max_size; };
    vael_buffer *record = nullptr;
    if (fits()) {
        record = static_cast<vael_buffer *>(VAEL_KMALLOC(sizeof(vael_buffer)));
        if (!record) {
            VAEL_LOG(VAEL_DBG_ERR, "K_VBUF | K_ERROR", "%s: Error allocating vael_buffer\n");
            return VAEL_ERROR;
        }
    } else {
        // Evict whole blocks, oldest first, as few as make room; the last one
        // evicted keeps its record for the new block.
        uintptr_t value;
        while (lst_remove_at_start(vbuf->buffers, &value) == 1) {
            auto *oldest = reinterpret_cast<vael_buffer *>(value);
            vbuf->size -= oldest->len;
            if (fits()) {
                release_block_data(oldest);
                record = oldest;
                break;
            }
            vael_vbuf_destory_buf(value);
        }
    }
    *record = vael_buffer{kBlockMagic, static_cast<unsigned char *>(data), len, ctx, free_func};
    if (!lst_insert_at_end(vbuf->buffers, reinterpret_cast<uintptr_t>(record))) {
        VAEL_KFREE(record, sizeof(vael_buffer));
        return VAEL_ERROR;
    }
    vbuf->size += len;
    return VAEL_OK;
}

extern "C" void vael_vbuf_concat(vael_vbuf *target, vael_vbuf *source) {
    if ((!target || !source) && illegal(__func__))
        return;
    lst_concat(target->buffers, source->buffers);
    target->size += source->size;
    source->magic = kVbufMagicReleased;
    VAEL_KFREE(source, sizeof(vael_vbuf));
}

extern "C" uint32_t vael_vbuf_size(const vael_vbuf *vbuf) {
    if (!vbuf && illegal(__func__))
        return 0;
    return vbuf->size;
}

extern "C" vael_vbuf_iter *vael_vbuf_iterate(vael_vbuf *vbuf, vael_vbuf_iter *iter, uint32_t offset,
                                             const unsigned char **data_out, uint32_t *len_out) {
    if ((!vbuf || !iter || !data_out || !len_out) && illegal(__func__))
        return nullptr;
    if (offset >= vbuf->size) {
        VAEL_LOG(VAEL_DBG_INFO, "K_VBUF", "%s: given an offset (%u) > vbuf size (%u), not iterating\n", offset,
                 vbuf->size);
        return nullptr;
    }
    if (iter->cursor) {
        uintptr_t value;
        lst_cursor next = lst_iterate(vbuf->buffers, iter->cursor, &value);
        if (!next)
            return nullptr;
        iter->cursor = next;
        iter->offset = 0;
        *data_out = block_at(next)->data;
        *len_out = block_at(next)->len;
        return iter;
    }
    uint32_t rest = offset;
    uintptr_t value;
    for (lst_cursor c = lst_iterate(vbuf->buffers, nullptr, &value); c; c = lst_iterate(vbuf->buffers, c, &value)) {
        vael_buffer *b = block_at(c);
        if (rest < b->len) {
            iter->cursor = c;
            iter->offset = rest;
            *data_out = b->data + rest;
            *len_out = b->len - rest;
            return iter;
        }
        rest -= b->len;
    }
    return nullptr;
}

extern "C" uint32_t vael_vbuf_defrag(vael_vbuf *vbuf, uint32_t offset, uint32_t len, void *dest,
                                     uint32_t dest_size) {
    if (!vbuf || !dest) {
        illegal(__func__);
        // Without a destination only a copy of nothing can go on.
        if (!vbuf || (len && dest_size))
            return 0;
    }
    if (offset >= vbuf->size) {
        VAEL_LOG(VAEL_DBG_INFO, "K_VBUF", "%s: given an offset (%u) > vbuf size (%u), not copying to buffer\n",
                 offset, vbuf->size);
        return 0;
    }
    uint32_t wanted = len < dest_size ? len : dest_size;
    uint32_t copied = 0;
    auto *out = static_cast<unsigned char *>(dest);
    vael_vbuf_iter iter = {nullptr, 0};
    const unsigned char *data;
    uint32_t piece;
    while (vael_vbuf_iterate(vbuf, &iter, offset, &data, &piece)) {
        // An empty block may have no data at all; a copy of nothing must
        // not touch either pointer.
        uint32_t want = wanted - copied;
        uint32_t n = piece <= want ? piece : want;
        if (n)
            std::memcpy(out + copied, data, n);
        copied += n;
        if (piece > want)
            break;
    }
    return copied;
}

extern "C" uint32_t vael_vbuf_get_char_at(vael_vbuf *vbuf, uint32_t offset) {
    if (!vbuf && illegal(__func__))
        return 0;
    if (offset >= vbuf->size) {
        illegal(__func__);
        return 0;
    }
    uint32_t rest = offset;
    uintptr_t value;
    for (lst_cursor c = lst_iterate(vbuf->buffers, nullptr, &value); c; c = lst_iterate(vbuf->buffers, c, &value)) {
        vael_buffer *b = block_at(c);
        if (rest < b->len)
            return b->data[rest];
        rest -= b->len;
    }
    return 0;
}

extern "C" int vael_vbuf_is_in_last_buffer(vael_vbuf *vbuf, uint32_t offset) {
    if (!vbuf && illegal(__func__))
        return 0;
    if (vbuf->size == 0)
        return 0;
    if (offset >= vbuf->size) {
        VAEL_LOG(VAEL_DBG_INFO, "K_VBUF", "%s: given an offset (%u) > vbuf size (%u), returning FALSE\n", offset,
                 vbuf->size);
        return 0;
    }
    vael_buffer *last = block_at(lst_last(vbuf->buffers));
    if (!last) {
        VAEL_ASSERT_F(0, "%s: vbuf %p has no buffers %p\n", (void *)vbuf, (void *)vbuf->buffers);
        return 0;
    }
    return offset >= vbuf->size - last->len;
}

extern "C" vael_vbuf_iter *vael_vbuf_get_next_data2(vael_vbuf *vbuf, vael_vbuf_iter *iter, void *dest, uint32_t len,
                                                    int *err_out) {
    if (!vbuf || !dest || !len) {
        VAEL_ASSERT(0, "Illegal arguments");
        // A read of nothing goes on: it moves the iterator to the first block
        // when it stood before the data, and copies nothing.
        if (!vbuf || (!dest && len)) {
            if (err_out)
                *err_out = 1;
            return nullptr;
        }
    }
    if (err_out)
        *err_out = 0;
    if (!iter)
        return nullptr;
    if (!iter->cursor) {
        iter->cursor = lst_first(vbuf->buffers);
        iter->offset = 0;
        if (!iter->cursor) {
            VAEL_LOG(VAEL_DBG_ERR, "K_VBUF", "%s: failed to get first buffer\n");
            if (err_out)
                *err_out = 1;
            return nullptr;
        }
    }
    vael_buffer *b = block_at(iter->cursor);
    if (!b) {
        VAEL_ASSERT_F(0, "%s: vbuf iter->iterator (%p->%p) has no buffer\n", (void *)iter, (void *)iter->cursor);
        if (err_out)
            *err_out = 1;
        return nullptr;
    }
    auto *out = static_cast<unsigned char *>(dest);
    uint32_t got = 0;
    while (got < len) {
        uint32_t avail = b->len - iter->offset;
        uint32_t n = len - got < avail ? len - got : avail;
        if (n)
            std::memcpy(out + got, b->data + iter->offset, n);
        got += n;
        iter->offset += n;
        if (iter->offset < b->len)
            continue;
        uintptr_t value;
        lst_cursor next = lst_iterate(vbuf->buffers, iter->cursor, &value);
        if (!next) {
            // The last block is used up: reading its very last byte is the
            // normal end, told apart from a short read by the error word.
            iter->cursor = nullptr;
            if (got == len)
                return nullptr;
            VAEL_LOG(VAEL_DBG_ERR, "K_VBUF",
                     "%s: vbuf too short. trying to read %u bytes, but only %u bytes are left\n", len, got);
            if (err_out)
                *err_out = 2;
            return nullptr;
        }
        iter->cursor = next;
        iter->offset = 0;
        b = block_at(next);
    }
    return iter;
}

extern "C" vael_vbuf_iter *vael_vbuf_get_next_data(vael_vbuf *vbuf, vael_vbuf_iter *iter, void *dest,
                                                   uint32_t len) {
    return vael_vbuf_get_next_data2(vbuf, iter, dest, len, nullptr);
}

extern "C" int vael_vbuf_compare_to_buffer(vael_vbuf *vbuf, const void *buf, uint32_t len, int alloc_flags) {
    if ((!vbuf || (!buf && len)) && illegal(__func__))
        return 0;
    if (vbuf->size != len)
        return 0;
    if (len == 0)
        return 1;
    auto *flat = static_cast<unsigned char *>(qx_kmalloc_ex_(vbuf->size, __func__, alloc_flags, __FILE__, __LINE__));
    if (!flat)
        return 0;
    uint32_t copied = vael_vbuf_defrag(vbuf, 0, vbuf->size, flat, vbuf->size);
    int same = copied == len && std::memcmp(flat, buf, len) == 0;
    VAEL_KFREE(flat, vbuf->size);
    return same;
}

namespace {
void default_print(const unsigned char *data, uint32_t len) {
    for (uint32_t i = 0; i < len; i++) {
        if (data[i] < 32 || data[i] > 126)
            vael_us_adaptor_kdprintf_no_prefix("\\x%x", data[i]);
        else
            vael_us_adaptor_kdprintf_no_prefix("%c", data[i]);
    }
}
}  // namespace

extern "C" void vael_vbuf_dump_formatted(vael_vbuf *vbuf, uint32_t offset, uint32_t len,
                                         vael_vbuf_print_fn print_func) {
    if ((!vbuf || !print_func) && illegal(__func__))
        return;
    if (offset >= vbuf->size) {
        VAEL_LOG(VAEL_DBG_INFO, "K_VBUF", "%s: given an offset (%u) > vbuf size (%u), not dumping\n", offset,
                 vbuf->size);
        return;
    }
    uint32_t left = len ? len : vbuf->size - offset;
    vael_vbuf_iter iter = {nullptr, 0};
    const unsigned char *data;
    uint32_t piece;
    while (left && vael_vbuf_iterate(vbuf, &iter, offset, &data, &piece)) {
        uint32_t n = piece < left ? piece : left;
        print_func(data, n);
        left -= n;
    }
    vael_us_adaptor_kdprintf_no_prefix("\n");
}

extern "C" void vael_vbuf_dump_ex(vael_vbuf *vbuf, uint32_t offset, uint32_t len) {
    vael_vbuf_dump_formatted(vbuf, offset, len, default_print);
}

extern "C" void vael_vbuf_copyin_chunk_size_cb(void) {
    uint32_t v = vael_vbuf_copyin_chunk_size;
    if (v == 0) {
        VAEL_LOG(VAEL_DBG_NOTICE, "K_VBUF", "%s: vael_vbuf_copyin_chunk_size option disabled\n");
        return;
    }
    if (v < kCopyinChunkMin || v > kCopyinChunkMax) {
        VAEL_LOG(VAEL_DBG_ERR, "K_VBUF",
                 "%s: vael_vbuf_copyin_chunk_bits value %u is invalid, values allowed are in [%u..%u]\n", v,
                 kCopyinChunkMin, kCopyinChunkMax);
        vael_vbuf_copyin_chunk_size = kCopyinChunkDefault;
    }
}

extern "C" int vael_vbuf_kernel_copyin_chunks(void) { return 0; }
