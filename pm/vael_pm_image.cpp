// vael_pm_image.cpp - the PM image: the frame that carries a compiled PM as
// one flat, position-independent byte string, and the loader that brings it
// back, sharing one PM per uuid among all who load the same image.
//
// The frame knows only its own fields. Each engine writes and reads its own
// image through the size, serialize and deserialize slots of its row; the
// frame carries those images opaque. Layout, with no padding, words in the
// writer's byte order:
//
//   "PZRS" | uuid[16] | "nimp" | flags | num_tier2
//   | num_tier2 x ( "XZRS" | id | flags | lss_size | lss | re_size | re
//                   | type | match_len | has2 [ | tier2_type | engine image ] )
//   | 2 x ( has1 [ | tier1_type | engine image ] )
//   | "SZRS" | the seven words of the PM statistics block
//
// The reader treats the image as untrusted: a field longer than the space
// left makes the space 0 and reads as 0, so a cut image is caught at the
// next magic or size check; nothing is allocated by a size the space left
// cannot hold.

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "pm/vael_pm_internal.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

int vael_pm_serialize_during_sanity_check = 0;
int vael_pm_serialize_sanity_check = 0;

namespace {

constexpr const char *kTopics = "K_PM";
constexpr const char *kErrTopics = "K_PM | K_ERROR";

constexpr uint32_t kPmImageMagic = 0x53525A50u;  // "PZRS"
constexpr uint32_t kRecordMagic = 0x53525A58u;   // "XZRS"
constexpr uint32_t kStatsMagic = 0x53525A53u;    // "SZRS"
constexpr uint32_t kSanityWord = 0x53525A49u;    // "IZRS"

constexpr uint32_t kHeaderSize = 32;         // magic, uuid, PM magic, flags, num_tier2
constexpr uint32_t kRecordFixedSize = 32;    // the words of a record around its two texts
constexpr uint32_t kStatsSize = 28;          // seven words
constexpr uint32_t kTrailerSize = 4 + kStatsSize;

// A frame word. The whole size was computed in advance, so space is short
// only when an engine wrote past what it announced; that is a failure, not a
// write past the image.
bool put_u32(unsigned char **position, uint32_t *space, uint32_t value) {
    if (*space < 4)
        return false;
    vael::image_put_u32(position, space, value);
    return true;
}

bool put_bytes(unsigned char **position, uint32_t *space, const void *bytes, uint32_t n) {
    if (*space < n)
        return false;
    vael::image_put_bytes(position, space, bytes, n);
    return true;
}

// The engine's image size + 4 (its type word); 0 when the row cannot tell,
// which a row without image slots cannot.
uint32_t tier2_piece_size(const vael_pm_array_one_handle &e) {
    if (e.tier2_type >= VAEL_PM_TIER2_NUM)
        return 0;
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[e.tier2_type];
    if (!row.get_serialize_size || !row.serialize)
        return 0;
    return row.get_serialize_size(e.tier2_h) + 4;
}

uint32_t tier1_piece_size(const vael_pm_tier1_slot &slot) {
    if (slot.tier1_type >= VAEL_PM_TIER1_NUM)
        return 0;
    const vael_pm_tier1_funcs &row = pm_tier1_funcs[slot.tier1_type];
    if (!row.get_serialize_size || !row.serialize)
        return 0;
    return row.get_serialize_size(slot.tier1_h) + 4;
}

// Sums that the caller compares with 0 for failure; a sum past 32 bits is a
// failure too, not a wrapped small size.
bool add_size(uint64_t *total, uint64_t n) {
    *total += n;
    return *total <= UINT32_MAX;
}

void pm_list_lock() { MtMutexLock(*vael_pm_global_data.lock); }
void pm_list_unlock() { MtMutexUnLock(*vael_pm_global_data.lock); }

// A PM of the list with this uuid that is still held. One whose count fell
// to 0 is on its way out: its destroyer takes it off the list right after.
vael_pm_handle *find_by_uuid_locked(const unsigned char *uuid) {
    for (vael_pm_handle *p = *vael_pm_global_data.list; p; p = p->next)
        if (p->refcount > 0 && p->magic == VAEL_PM_MAGIC_ALIVE && vael_pmglob_uuid_cmp(p->uuid, uuid) == 0)
            return p;
    return nullptr;
}

void charge_engine_memory(vael_pm_stats_common *stats, intptr_t before) {
    if (stats)
        vael_pm_stats_common_update_compile(stats, (uint32_t)(vael_pmglob_memory_get_alloc_total() - before), 0,
                                            VAEL_PM_STATS_COMPILE_MEMORY);
}

// Reads a text of `size` bytes into the PM's text pool. A size beyond the
// space left takes nothing: the space becomes 0 and the text stays empty, so
// the next check refuses the image. The space left also bounds every text
// still to come, and so the pool's next block. -1 only when memory fails.
int read_text(vael_pm_handle *pm, vael::ImageReader &in, uint32_t size, unsigned char **text,
              uint32_t *text_size) {
    *text = nullptr;
    *text_size = 0;
    if (size == 0)
        return 0;
    if (size > *in.space) {
        *in.space = 0;
        return 0;
    }
    *text = static_cast<unsigned char *>(vael_pm_pool_take(&pm->text_pool, size, *in.space));
    if (!*text)
        return -1;
    *text_size = size;
    if (!in.bytes(*text, size))
        std::memset(*text, 0, size);
    return 0;
}

vael_pm_handle *deserialize_once(const unsigned char *uuid, const unsigned char *buffer, uint32_t size,
                                 vael_vbuf *vbuf, vael_vbuf_iter *iter, vael_pm_match_cb match_cb,
                                 const char *caller);

}  // namespace

// ---------------------------------------------------------------- pool

struct vael_pm_pool_block {
    vael_pm_pool_block *next; // the older blocks
    size_t capacity;          // bytes of data behind the header
    size_t used;
};

namespace {

constexpr size_t kPoolAlign = 8;
constexpr size_t kPoolFirstBlock = 4096;

size_t pool_round(size_t bytes) { return (bytes + kPoolAlign - 1) & ~(kPoolAlign - 1); }

unsigned char *pool_data(vael_pm_pool_block *b) { return reinterpret_cast<unsigned char *>(b + 1); }

}  // namespace

extern "C" int vael_pm_pool_reserve(vael_pm_pool_block **pool, size_t bytes) {
    const size_t capacity = pool_round(bytes);
    if (capacity < bytes || capacity > SIZE_MAX - sizeof(vael_pm_pool_block))
        return VAEL_ERROR;
    auto *b = static_cast<vael_pm_pool_block *>(VAEL_PM_KMALLOC(sizeof(vael_pm_pool_block) + capacity));
    if (!b)
        return VAEL_ERROR;
    *b = vael_pm_pool_block{*pool, capacity, 0};
    *pool = b;
    return VAEL_OK;
}

extern "C" void *vael_pm_pool_take(vael_pm_pool_block **pool, size_t bytes, size_t limit) {
    const size_t need = pool_round(bytes);
    if (need < bytes)
        return nullptr;
    vael_pm_pool_block *b = *pool;
    if (!b || b->capacity - b->used < need) {
        size_t grow = b ? 2 * b->capacity : kPoolFirstBlock;
        if (vael_pm_pool_reserve(pool, std::max(need, std::min(grow, limit))) != 0)
            return nullptr;
        b = *pool;
    }
    void *p = pool_data(b) + b->used;
    b->used += need;
    return p;
}

extern "C" int vael_pm_pool_owns(const vael_pm_pool_block *pool, const void *p) {
    const auto *at = static_cast<const unsigned char *>(p);
    for (const vael_pm_pool_block *b = pool; b; b = b->next) {
        const auto *data = reinterpret_cast<const unsigned char *>(b + 1);
        if (at >= data && at < data + b->capacity)
            return 1;
    }
    return 0;
}

extern "C" void vael_pm_pool_free(vael_pm_pool_block **pool) {
    while (vael_pm_pool_block *b = *pool) {
        *pool = b->next;
        VAEL_PM_KFREE(b, sizeof(vael_pm_pool_block) + b->capacity);
    }
}

// ---------------------------------------------------------------- sizes

extern "C" uint32_t vael_ex_tier2_calculate_size(const vael_pm_array_one_handle *array, uint32_t count) {
    uint64_t total = 0;
    for (uint32_t i = 0; i < count; i++) {
        const vael_pm_array_one_handle &e = array[i];
        if (!add_size(&total, (uint64_t)e.lss_size + 20 + e.re_size + 12))
            return 0;
        if (!e.tier2_h)
            continue;
        // An engine that fails says -4, which comes to 0 with its type word.
        const uint32_t piece = tier2_piece_size(e);
        if (piece == 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not get the serialization size of pattern %d\n", e.id);
            return 0;
        }
        if (!add_size(&total, piece))
            return 0;
    }
    return (uint32_t)total;
}

extern "C" uint32_t vael_pm_calculate_size(const vael_pm_handle *pm) {
    uint64_t total = kHeaderSize + kTrailerSize;
    if (pm->num_tier2) {
        const uint32_t records = vael_ex_tier2_calculate_size(pm->pm_array, pm->num_tier2);
        if (records == 0)
            return 0;
        total += records;
    }
    for (const auto &slot : pm->tier1) {
        total += 4;
        if (!slot.tier1_h)
            continue;
        const uint32_t piece = tier1_piece_size(slot);
        if (piece == 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not get the serialization size of a first tier (%u)\n",
                     slot.tier1_type);
            return 0;
        }
        if (!add_size(&total, piece))
            return 0;
    }
    return (uint32_t)total;
}

// ---------------------------------------------------------------- writer

extern "C" void vael_pm_copy_stats(unsigned char *dst, const vael_pm_handle *pm) {
    uint32_t words[7] = {pm->stats.num_patterns,       pm->stats.memory,         pm->stats.num_tier2_compiled,
                         pm->stats.compile_time,       pm->stats.serialize_time, pm->stats.deserialize_time,
                         pm->stats.update_time};
    // Two images of one pattern set differ only in these; a sanity check
    // wants them equal.
    if (vael_pm_serialize_during_sanity_check) {
        words[1] = kSanityWord;
        for (int i = 3; i < 7; i++)
            words[i] = kSanityWord;
    }
    std::memcpy(dst, words, kStatsSize);
}

extern "C" int vael_ex_tier2_serialize(const vael_pm_array_one_handle *array, uint32_t count,
                                       unsigned char **position, uint32_t *space) {
    const uint32_t needed = count ? vael_ex_tier2_calculate_size(array, count) : 0;
    if (count && needed == 0)
        return VAEL_ERROR;
    if (*space < needed) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Not enough space in the buffer, buf size (%u) < needed (%u) \n",
                 *space, needed);
        return VAEL_ERROR;
    }
    const uint32_t start = *space;
    for (uint32_t i = 0; i < count; i++) {
        const vael_pm_array_one_handle &e = array[i];
        bool ok = put_u32(position, space, kRecordMagic) && put_u32(position, space, (uint32_t)e.id) &&
                  put_u32(position, space, e.flags) && put_u32(position, space, e.lss_size) &&
                  put_bytes(position, space, e.lss_str, e.lss_size) && put_u32(position, space, e.re_size) &&
                  put_bytes(position, space, e.re_str, e.re_size) && put_u32(position, space, e.type) &&
                  put_u32(position, space, e.match_len) && put_u32(position, space, e.tier2_h ? 1 : 0);
        if (ok && e.tier2_h) {
            const vael_pm_tier2_funcs &row = pm_tier2_funcs[e.tier2_type];
            ok = put_u32(position, space, e.tier2_type) && row.serialize(e.tier2_h, position, space) == 0;
        }
        if (!ok) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not serialize pattern %d (internal id %u)\n", e.id, i);
            return VAEL_ERROR;
        }
    }
    if (start - *space != needed) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Serializarion failed, %d-%d != %d\n", (int)start, (int)*space,
                 (int)needed);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_pm_serialize(vael_pm_handle *pm, unsigned char **buffer, uint32_t *size) {
    vael_timeval start_time, now;
    vael_time_get_hrtime(&start_time);
    if (buffer)
        *buffer = nullptr;
    if (size)
        *size = 0;
    if (!pm || !buffer || !size) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Invalid arguments NULL pm_h\n");
        return VAEL_ERROR;
    }
    if (pm->magic != VAEL_PM_MAGIC_ALIVE) {
        VAEL_ASSERT_F(0, "%s: Corrupted pm_handle, magic is '0x%x'\n", pm->magic);
        return VAEL_ERROR;
    }
    const uint32_t needed = vael_pm_calculate_size(pm);
    if (needed == 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not calculate needed size for serialization\n");
        return VAEL_ERROR;
    }
    auto *image = static_cast<unsigned char *>(VAEL_PM_KMALLOC(needed));
    if (!image) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not allocate needed size (%u) for serialization\n", needed);
        return VAEL_ERROR;
    }
    unsigned char *position = image;
    uint32_t space = needed;
    bool ok = put_u32(&position, &space, kPmImageMagic) && put_bytes(&position, &space, pm->uuid, 16) &&
              put_u32(&position, &space, pm->magic) && put_u32(&position, &space, pm->flags) &&
              put_u32(&position, &space, pm->num_tier2) &&
              vael_ex_tier2_serialize(pm->pm_array, pm->num_tier2, &position, &space) == 0;
    for (int i = 0; ok && i < VAEL_PM_MAX_TIER1; i++) {
        const vael_pm_tier1_slot &slot = pm->tier1[i];
        ok = put_u32(&position, &space, slot.tier1_h ? 1 : 0);
        if (ok && slot.tier1_h)
            ok = put_u32(&position, &space, slot.tier1_type) &&
                 pm_tier1_funcs[slot.tier1_type].serialize(slot.tier1_h, &position, &space) == 0;
    }
    if (ok) {
        vael_time_get_hrtime(&now);
        pm->stats.serialize_time = vael_time_diff_usec(&start_time, &now);
        ok = put_u32(&position, &space, kStatsMagic) && space >= kStatsSize;
        if (ok) {
            vael_pm_copy_stats(position, pm);
            position += kStatsSize;
            space -= kStatsSize;
        }
    }
    if (ok && space != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: wrong serialization buffer size, left %d bytes\n", (int)space);
        ok = false;
    }
    if (!ok) {
        VAEL_PM_KFREE(image, needed);
        return VAEL_ERROR;
    }
    *buffer = image;
    *size = needed;
    return VAEL_OK;
}

extern "C" int vael_pm_serialize_and_compare(vael_pm_handle *pm1, vael_pm_handle *pm2) {
    unsigned char *image1 = nullptr, *image2 = nullptr;
    uint32_t size1 = 0, size2 = 0;
    if (vael_pm_serialize(pm1, &image1, &size1) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to serialize pm handle 1\n");
        return 0;
    }
    if (vael_pm_serialize(pm2, &image2, &size2) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to serialize pm handle 2\n");
        qx_kfree_(image1, size1);
        return 0;
    }
    int equal = 1;
    if (size1 != size2) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: size1 %d != size 2 %d\n", (int)size1, (int)size2);
        equal = 0;
    } else {
        for (uint32_t i = 0; i < size1; i++) {
            if (image1[i] == image2[i])
                continue;
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: char at index %d is different in serialized buffers\n", (int)i);
            if (vael_us_adaptor_printable(VAEL_DBG_ERR, kErrTopics)) {
                for (const unsigned char *image : {image1, image2}) {
                    for (uint32_t w = 0; w + 4 <= size1; w += 4) {
                        uint32_t word;
                        std::memcpy(&word, image + w, 4);
                        vael_us_adaptor_kdprintf_no_prefix("%x, ", word);
                    }
                    vael_us_adaptor_kdprintf_no_prefix("\n");
                }
            }
            equal = 0;
            break;
        }
    }
    // Freed past the PM account, which therefore stays raised by both
    // images; hosts that compare images have always seen that figure.
    qx_kfree_(image1, size1);
    qx_kfree_(image2, size2);
    return equal;
}

// ---------------------------------------------------------------- reader

namespace {

// A row whose loader cannot check the program it reads (PCRE runs stored
// bytecode as it stands, and damaged bytecode crashes it) has its entry's
// text compiled again as the writer compiled it; the loaded handle is kept
// only when both images agree up to the statistics that end them.
bool holds_program_of_text(const vael_pm_handle *pm, const vael_pm_array_one_handle &e,
                           const vael_pm_tier2_funcs &row) {
    if (!e.re_str || !row.compile || !row.get_serialize_size || !row.serialize)
        return false;
    vael_pmglob_string *text = vael_pmglob_string_create(e.re_str, e.re_size, VAEL_PM_REM_DEFAULT_ID, e.flags);
    if (!text)
        return false;
    vael_pm_error err;
    vael_pm_error_init(&err);
    void *fresh = row.compile(text, vael_pm_effective_flags(pm->flags), e.flags, &err);
    vael_pmglob_string_destroy(text);
    if (!fresh)
        return false;
    const uint32_t size = row.get_serialize_size(e.tier2_h);
    const uint32_t stats_size = vael_pm_stats_common_get_serialize_size();
    bool same = size > stats_size && size == row.get_serialize_size(fresh);
    auto *images = same ? static_cast<unsigned char *>(VAEL_KMALLOC(2 * (size_t)size)) : nullptr;
    if (images) {
        unsigned char *at = images;
        uint32_t space = 2 * size;
        same = row.serialize(e.tier2_h, &at, &space) == VAEL_OK && row.serialize(fresh, &at, &space) == VAEL_OK &&
               std::memcmp(images, images + size, size - stats_size) == 0;
        VAEL_KFREE(images, 2 * (size_t)size);
    } else {
        same = false;
    }
    row.destroy(fresh);
    return same;
}

}  // namespace


extern "C" int vael_tier2_deserialize(vael_pm_handle *pm, uint32_t index, const unsigned char **position,
                                      uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    vael::ImageReader in{position, space, vbuf, iter};
    vael_pm_array_one_handle &e = pm->pm_array[index];
    uint32_t type = 0;
    in.u32(&type);
    const vael_pm_tier2_funcs *row = type < VAEL_PM_TIER2_NUM ? &pm_tier2_funcs[type] : nullptr;
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    void *h = row && row->deserialize && row->destroy ? row->deserialize(position, space, vbuf, iter) : nullptr;
    if (!h) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not deserialize Second tier (%u)\n", index);
        return VAEL_ERROR;
    }
    e.tier2_type = type;
    e.tier2_h = h;
    charge_engine_memory(row->get_common_stats ? row->get_common_stats(h) : nullptr, before);
    if ((row->tier2_flags & VAEL_PM_TIER2_PROVEN_BY_TEXT) && !holds_program_of_text(pm, e, *row)) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Second tier (%u) is not the program its pattern compiles to\n",
                 index);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_ex_tier2_deserialize(vael_pm_handle *pm, const unsigned char **position, uint32_t *space,
                                         vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    vael::ImageReader in{position, space, vbuf, iter};
    // Texts are mostly short: 16 bytes a pattern, never more than the image
    // holds, takes most sets' texts in one block.
    if (pm->num_tier2 && !pm->text_pool &&
        vael_pm_pool_reserve(&pm->text_pool, std::min<size_t>(*space, 16 * (size_t)pm->num_tier2)) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not allocate lss string\n");
        return VAEL_ERROR;
    }
    for (uint32_t i = 0; i < pm->num_tier2; i++) {
        vael_pm_array_one_handle &e = pm->pm_array[i];
        uint32_t magic = 0, id = 0, lss_size = 0, re_size = 0, has_tier2 = 0;
        in.u32(&magic);
        if (magic != kRecordMagic) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Wrong serialization magic (%x) at the buffer\n", magic);
            return VAEL_ERROR;
        }
        in.u32(&id);
        e.id = (int32_t)id;
        in.u32(&e.flags);
        in.u32(&lss_size);
        if (lss_size == 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Illegal LSS size in the buffer\n");
            return VAEL_ERROR;
        }
        if (read_text(pm, in, lss_size, &e.lss_str, &e.lss_size) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not allocate lss string\n");
            return VAEL_ERROR;
        }
        in.u32(&re_size);
        if (read_text(pm, in, re_size, &e.re_str, &e.re_size) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not allocate pattern string\n");
            return VAEL_ERROR;
        }
        in.u32(&e.type);
        in.u32(&e.match_len);
        in.u32(&has_tier2);
        e.tier2_type = VAEL_PM_TIER2_NONE;
        e.tier2_h = nullptr;
        if (has_tier2 == 1 && vael_tier2_deserialize(pm, i, position, space, vbuf, in.iter) != 0)
            return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_tier1_deserialize(vael_pm_handle *pm, int slot, const unsigned char **position, uint32_t *space,
                                      vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    vael::ImageReader in{position, space, vbuf, iter};
    uint32_t type = 0;
    in.u32(&type);
    if (type >= VAEL_PM_TIER1_NUM) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Invalid first tier type %d\n", (int)type);
        return VAEL_ERROR;
    }
    const vael_pm_tier1_funcs &row = pm_tier1_funcs[type];
    const intptr_t before = vael_pmglob_memory_get_alloc_total();
    void *h = row.deserialize && row.destroy ? row.deserialize(position, space, vbuf, iter) : nullptr;
    if (!h) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Could not deserialize first tier (%s)\n",
                 row.name ? row.name : "absent");
        return VAEL_ERROR;
    }
    pm->tier1[slot] = vael_pm_tier1_slot{type, h};
    charge_engine_memory(row.get_common_stats ? row.get_common_stats(h) : nullptr, before);
    // The run takes a queued hit's id as an index into pm_array without a
    // test: every id the engine can queue is checked here, once.
    const uint32_t bound = row.id_bound ? row.id_bound(h) : 0;
    if (bound > pm->num_tier2) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: First tier reports pattern id %u, but the PM has %u patterns\n",
                 bound - 1, pm->num_tier2);
        return VAEL_ERROR;
    }
    if (*space == 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: No space left in the buffer after vael_tier1_deserialize\n");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" vael_pm_handle *vael_pm_do_deserialize(const unsigned char *buffer, uint32_t size, vael_vbuf *vbuf,
                                                  vael_vbuf_iter *iter, vael_pm_match_cb match_cb,
                                                  const char *caller) {
    const unsigned char *pos = buffer;
    const unsigned char **position = &pos;
    uint32_t space = size;
    vael::ImageReader in{position, &space, vbuf, iter};
    const char *who = caller ? caller : "(null)";

    uint32_t magic = 0, flags = 0, num_tier2 = 0;
    in.u32(&magic);
    if (magic != VAEL_PM_MAGIC_ALIVE) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s (%s): Wrong PM magic (%x) at the buffer\n", who, magic);
        return nullptr;
    }
    const intptr_t baseline = vael_pmglob_memory_get_alloc_total();
    in.u32(&flags);
    in.u32(&num_tier2);
    if (num_tier2 == 0)
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s (%s): Number of patterns (num_tier2) in the buffer is 0 (illegal)\n",
                 who);
    // Every record takes at least its fixed words: a count the space left
    // cannot hold would run out of space while reading them, so the array
    // it would size is not allocated.
    if (num_tier2 > space / kRecordFixedSize) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: No space left in the buffer after vael_ex_tier2_deserialize\n");
        return nullptr;
    }
    vael_pm_handle *pm = vael_pm_create_handle(num_tier2, match_cb, flags, caller);
    if (!pm) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to create pm_handle\n");
        return nullptr;
    }
    bool ok = vael_ex_tier2_deserialize(pm, position, &space, vbuf, in.iter) == 0;
    if (ok && space == 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: No space left in the buffer after vael_ex_tier2_deserialize\n");
        ok = false;
    }
    for (int i = 0; ok && i < VAEL_PM_MAX_TIER1; i++) {
        uint32_t has_engine = 0;
        in.u32(&has_engine);
        if (has_engine == 1)
            ok = vael_tier1_deserialize(pm, i, position, &space, vbuf, in.iter) == 0;
    }
    if (ok) {
        in.u32(&magic);
        if (magic != kStatsMagic) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: Wrong serialization magic (%x) at the buffer (2)\n", magic);
            ok = false;
        }
    }
    if (ok) {
        uint32_t words[7];
        if (!in.bytes(words, kStatsSize)) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: The buffer ends inside the statistics block\n");
            ok = false;
        } else {
            pm->stats = vael_pm_stats_block{words[0], words[1], words[2], words[3], words[4], words[5], words[6]};
        }
    }
    if (ok && space != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: wrong serialization buffer size, left %u bytes\n", space);
        ok = false;
    }
    if (ok && vael_pm_validate_ex(pm, 1) != 0)
        ok = false;
    if (!ok) {
        vael_pm_destroy(pm);
        return nullptr;
    }
    pm->stats.memory = (uint32_t)(vael_pmglob_memory_get_alloc_total() - baseline);
    return pm;
}

namespace {

vael_pm_handle *deserialize_once(const unsigned char *uuid, const unsigned char *buffer, uint32_t size,
                                 vael_vbuf *vbuf, vael_vbuf_iter *iter, vael_pm_match_cb match_cb,
                                 const char *caller) {
    if (size == 0 || (!buffer && !vbuf)) {
        VAEL_ASSERT_F(0, "%s:Got us_buffer (%p) and buffer (%p) with size (%u)", (const void *)buffer, (void *)vbuf,
                      size);
        return nullptr;
    }
    if (*vael_pm_global_data.lock_init != 1 || !*vael_pm_global_data.lock) {
        VAEL_ASSERT_F(0, "%s:\tPM lock is not initialized\n");
        return nullptr;
    }
    pm_list_lock();
    vael_pm_handle *found = find_by_uuid_locked(uuid);
    if (found) {
        found->refcount++;
        found->match_cb[vael_multik_this_instance_num] = match_cb;
        pm_list_unlock();
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: PM was found in pm_list, no need for deserializing\n");
        return found;
    }
    pm_list_unlock();
    uint32_t words[4];
    std::memcpy(words, uuid, 16);
    VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: PM was not found in pm_list (uuid=%u,%u,%u,%u), deserializing...\n",
             words[0], words[1], words[2], words[3]);

    vael_pm_handle *pm = vael_pm_do_deserialize(buffer, size, vbuf, iter, match_cb, caller);
    if (!pm)
        return nullptr;
    vael_pmglob_uuid_cpy(pm->uuid, uuid);

    // Another thread may have loaded the same image while this one read.
    pm_list_lock();
    found = find_by_uuid_locked(uuid);
    if (found) {
        found->refcount++;
        pm_list_unlock();
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: Deserialized PM is found in pm_list\n");
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: Destroying PM\n");
        vael_pm_destroy(pm);
        return found;
    }
    VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: Deserialized PM is inserted to the pm_list\n");
    vael_pm_insert_to_pm_list(pm);
    pm_list_unlock();
    return pm;
}

// The common road of both loaders once the image's reader is set up: the
// outer magic, the uuid, the shared load, and the time it took.
vael_pm_handle *deserialize_image(vael::ImageReader &in, const unsigned char *buffer, vael_vbuf *vbuf,
                                  vael_pm_match_cb match_cb, const char *caller, const char *function) {
    vael_timeval start, end;
    vael_time_get_hrtime(&start);
    uint32_t magic = 0;
    in.u32(&magic);
    if (magic != kPmImageMagic) {
        VAEL_LOG_AS(function, VAEL_DBG_ERR, kErrTopics, "%s (%s): Wrong serialization magic (%x)\n",
                    caller ? caller : "(null)", magic);
        return nullptr;
    }
    unsigned char uuid[16] = {0};
    in.bytes(uuid, 16);
    vael_pm_handle *pm = deserialize_once(uuid, vbuf ? nullptr : *in.position, *in.space, vbuf, in.iter, match_cb,
                                          caller);
    if (pm) {
        vael_time_get_hrtime(&end);
        pm->stats.deserialize_time = vael_time_diff_usec(&start, &end);
    }
    return pm;
}

}  // namespace

extern "C" vael_pm_handle *vael_pm_deserialize_once(const unsigned char *uuid, const unsigned char *buffer,
                                                    uint32_t size, vael_pm_match_cb match_cb, const char *caller) {
    return deserialize_once(uuid, buffer, size, nullptr, nullptr, match_cb, caller);
}

extern "C" vael_pm_handle *vael_pm_deserialize(const unsigned char *buffer, uint32_t size, vael_pm_match_cb match_cb,
                                               const char *caller) {
    const unsigned char *position = buffer;
    uint32_t space = buffer ? size : 0;
    vael::ImageReader in{&position, &space, nullptr, nullptr};
    return deserialize_image(in, buffer, nullptr, match_cb, caller, __func__);
}

extern "C" vael_pm_handle *vael_pm_deserialize_vbuf(vael_vbuf *vbuf, uint32_t size, vael_pm_match_cb match_cb,
                                                    const char *caller) {
    vael_vbuf_iter iter{};
    const unsigned char *position = nullptr;
    uint32_t space = vbuf ? size : 0;
    vael::ImageReader in{&position, &space, vbuf, &iter};
    return deserialize_image(in, nullptr, vbuf, match_cb, caller, __func__);
}

extern "C" vael_pm_handle *vael_pm_kernel_deserialize(const unsigned char *buffer, uint32_t size,
                                                      vael_pm_match_cb match_cb, const char *caller) {
    return nullptr;
}
