// vael_thin_nfa_image.cpp - copies of a Thin NFA handle: the deep copy, and
// the flat image that carries a handle to another process.
//
// The image holds the BNFA word for word (every link in it is a word offset,
// so it needs no fixing up), then each state's pattern list, then the
// statistics:
//
//   "NZRS" | flags | state_num | bnfa_size | bnfa_full_size | xlation_tab[256]
//   | BNFA (bnfa_size bytes)
//   | per state, by ID: count, then count x { id, flags, len }
//   | "SZRS" | common statistics | number of states | number of final states
//
// all 32-bit fields in host order, packed. What the run needs beyond that
// (the read pad behind the BNFA, the candidate filter) is made again by the
// copy and the load, never stored. An image is untrusted: a load validates
// the BNFA before anything runs on it, and no allocation is sized by a field
// that the image's length cannot back.

#include <cstring>

#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_thin_nfa_prefilter.h"

namespace {

constexpr const char *kThinTopics = "K_THINNFA | K_PM";
constexpr uint32_t kThinNfaMagic = 0x53525A4Eu; // "NZRS"
constexpr uint32_t kStatsMagic = 0x53525A53u;   // "SZRS"
constexpr uint32_t kDfaMagic = 0x53525A44u;     // "DZRS"
constexpr uint32_t kHeaderBytes = 20 + 256;
constexpr uint32_t kPatternEntryBytes = 12;

uint64_t image_size(const vael_thin_nfa *nfa) {
    uint64_t size = kHeaderBytes + (uint64_t)nfa->bnfa_size;
    for (uint32_t i = 0; i < nfa->state_num; i++) {
        size += 4;
        for (const vael_thin_nfa_pattern_id *p = nfa->pattern_ids[i]; p; p = p->next)
            size += kPatternEntryBytes;
    }
    return size + 4 + vael_pm_stats_common_get_serialize_size() + 8;
}

// The number of list entries of a flat image, counted ahead of reading them
// so that one block holds them all: each state's count, as far as the image
// backs it.
uint64_t count_entries(const unsigned char *at, uint32_t space, uint32_t state_num) {
    uint64_t total = 0;
    for (uint32_t state = 0; state < state_num && space >= 4; state++) {
        uint32_t count;
        std::memcpy(&count, at, 4);
        at += 4;
        space -= 4;
        if ((uint64_t)count * kPatternEntryBytes > space)
            break;
        total += count;
        at += count * kPatternEntryBytes;
        space -= count * kPatternEntryBytes;
    }
    return total;
}

// Reads each state's list into the handle's pattern pool, keeping the first
// entry of an id as vael_thin_nfa_add_pattern_id does; a short image stops
// the reading (the end mark then tells), a failed element fails it.
int vael_thin_nfa_patterns_deserialize(vael_thin_nfa *nfa, vael::ImageReader &in) {
    if (!in.vbuf) {
        const uint64_t entries = count_entries(*in.position, *in.space, nfa->state_num);
        if (entries && vael_pm_pool_reserve(&nfa->pattern_pool, entries * sizeof(vael_thin_nfa_pattern_id)) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate pattern id\n");
            return -1;
        }
    }
    for (uint32_t state = 0; state < nfa->state_num && *in.space; state++) {
        uint32_t count = 0;
        if (!in.u32(&count))
            break;
        if ((uint64_t)count * kPatternEntryBytes > *in.space) {
            *in.space = 0;
            break;
        }
        vael_thin_nfa_pattern_id **tail = &nfa->pattern_ids[state];
        for (uint32_t i = 0; i < count; i++) {
            uint32_t id = 0, flags = 0, len = 0;
            if (!in.u32(&id) || !in.u32(&flags) || !in.u32(&len))
                return 0;
            bool known = false;
            for (const vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state]; p && !known; p = p->next)
                known = p->id == id;
            if (known)
                continue;
            // What is left of the image bounds what can still come.
            auto *p = static_cast<vael_thin_nfa_pattern_id *>(vael_pm_pool_take(
                &nfa->pattern_pool, sizeof(vael_thin_nfa_pattern_id),
                (*in.space / kPatternEntryBytes + 1) * sizeof(vael_thin_nfa_pattern_id)));
            if (!p) {
                VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate pattern id\n");
                VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to add pattern ID %d for state %d\n", (int)id,
                         (int)state);
                return -1;
            }
            *p = vael_thin_nfa_pattern_id{nullptr, id, flags, len};
            *tail = p;
            tail = &p->next;
        }
    }
    return 0;
}

}  // namespace

extern "C" void vael_thin_nfa_free_pattern_pool(vael_thin_nfa *nfa) {
    if (!nfa->pattern_pool)
        return;
    for (uint32_t state = 0; nfa->pattern_ids && state < nfa->state_num; state++) {
        vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state];
        nfa->pattern_ids[state] = nullptr;
        while (p) {
            vael_thin_nfa_pattern_id *next = p->next;
            if (!vael_pm_pool_owns(nfa->pattern_pool, p))
                VAEL_PM_KFREE(p, sizeof *p);
            p = next;
        }
    }
    vael_pm_pool_free(&nfa->pattern_pool);
}

extern "C" uint32_t vael_thin_nfa_id_bound(const vael_thin_nfa *nfa) {
    uint32_t bound = 0;
    for (uint32_t state = 0; nfa->pattern_ids && state < nfa->state_num; state++)
        for (const vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state]; p; p = p->next)
            if (p->id >= bound)
                bound = p->id == UINT32_MAX ? UINT32_MAX : p->id + 1;
    return bound;
}

extern "C" vael_thin_nfa *vael_thin_nfa_duplicate(const vael_thin_nfa *nfa) {
    if (!nfa)
        return nullptr;
    vael_thin_nfa *copy = vael_thin_nfa_create(nfa->state_num, nfa->bnfa_size, nfa->bnfa_full_size);
    if (!copy) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate new Thin NFA\n");
        return nullptr;
    }
    copy->flags = nfa->flags;
    std::memcpy(copy->bnfa, nfa->bnfa, nfa->bnfa_size);
    std::memcpy(copy->xlation_tab, nfa->xlation_tab, sizeof copy->xlation_tab);
    copy->stats.num_states = nfa->stats.num_states;
    copy->stats.num_final_states = nfa->stats.num_final_states;
    vael_pm_stats_common_copy(&copy->stats.common, &nfa->stats.common);
    for (uint32_t state = 0; state < nfa->state_num; state++) {
        for (const vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state]; p; p = p->next) {
            if (vael_thin_nfa_add_pattern_id(&copy->pattern_ids[state], p->id, p->flags, p->len) != 0) {
                VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to add pattern %d for state %d\n", (int)p->id,
                         (int)state);
                vael_thin_nfa_destroy(copy);
                return nullptr;
            }
        }
    }
    // The filter is derived again rather than copied: it is not part of the
    // automaton, and a copy made this way cannot differ from the original's.
    if (nfa->prefilter && vael_thin_nfa_prefilter_build(copy) != 0) {
        vael_thin_nfa_destroy(copy);
        return nullptr;
    }
    return copy;
}

extern "C" uint32_t vael_thin_get_serialize_size(const vael_thin_nfa *nfa) {
    if (!nfa) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Thin NFA is NULL\n");
        return 0;
    }
    uint64_t size = image_size(nfa);
    return size > UINT32_MAX ? 0 : (uint32_t)size;
}

extern "C" int vael_thin_nfa_serialize(const vael_thin_nfa *nfa, unsigned char **position, uint32_t *space) {
    if (!nfa || !position || !*position || !space || *space == 0) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments");
        return -1;
    }
    uint32_t needed = vael_thin_get_serialize_size(nfa);
    if (needed == 0 || *space < needed) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Not enough space in the buffer, buf size (%u) < needed (%u) \n",
                 *space, needed);
        return -1;
    }
    vael::image_put_u32(position, space, kThinNfaMagic);
    vael::image_put_u32(position, space, nfa->flags);
    vael::image_put_u32(position, space, nfa->state_num);
    vael::image_put_u32(position, space, nfa->bnfa_size);
    vael::image_put_u32(position, space, nfa->bnfa_full_size);
    vael::image_put_bytes(position, space, nfa->xlation_tab, sizeof nfa->xlation_tab);
    vael::image_put_bytes(position, space, nfa->bnfa, nfa->bnfa_size);
    for (uint32_t state = 0; state < nfa->state_num; state++) {
        uint32_t count = 0;
        for (const vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state]; p; p = p->next)
            count++;
        vael::image_put_u32(position, space, count);
        for (const vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state]; p; p = p->next) {
            vael::image_put_u32(position, space, p->id);
            vael::image_put_u32(position, space, p->flags);
            vael::image_put_u32(position, space, p->len);
        }
    }
    vael::image_put_u32(position, space, kStatsMagic);
    vael_pm_stats_common_serialize(&nfa->stats.common, position, space);
    vael::image_put_u32(position, space, nfa->stats.num_states);
    vael::image_put_u32(position, space, nfa->stats.num_final_states);
    return 0;
}

extern "C" vael_thin_nfa *vael_thin_nfa_deserialize(const unsigned char **position, uint32_t *space,
                                                    vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    if (!space || (!vbuf && (!position || !*position)) || (vbuf && !iter)) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments");
        return nullptr;
    }
    vael::ImageReader in{position, space, vbuf, iter};
    uint32_t magic = 0;
    in.u32(&magic);
    if (magic != kThinNfaMagic) {
        if (magic == kDfaMagic)
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Trying to deserialize a DFA, not a Thin NFA (%x != %X)\n", magic,
                     kThinNfaMagic);
        else
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Wrong serialization magic (%x != %x) at the buffer start\n",
                     magic, kThinNfaMagic);
        return nullptr;
    }
    uint32_t flags = 0, state_num = 0, bnfa_size = 0, bnfa_full_size = 0;
    in.u32(&flags);
    in.u32(&state_num);
    in.u32(&bnfa_size);
    in.u32(&bnfa_full_size);

    // The table, the BNFA and a count per state must all fit in what is
    // left; when they cannot, the reads would fail one after the other and
    // the end mark refuse the image: refuse it so before allocating by sizes
    // the image cannot back.
    uint64_t least = 256 + (uint64_t)bnfa_size + 4ull * state_num;
    vael_thin_nfa *nfa = nullptr;
    if (least > *space) {
        *space = 0;
    } else {
        nfa = vael_thin_nfa_create(state_num, bnfa_size, bnfa_full_size);
        if (!nfa) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allcoated Thin NFA - %d states, %d bnfa size\n",
                     (int)state_num, (int)bnfa_size);
            return nullptr;
        }
        nfa->flags = flags;
        in.bytes(nfa->xlation_tab, sizeof nfa->xlation_tab);
        in.bytes(nfa->bnfa, bnfa_size);
        if (vael_thin_nfa_patterns_deserialize(nfa, in) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to deserialize patterns\n");
            vael_thin_nfa_destroy(nfa);
            return nullptr;
        }
    }
    uint32_t mark = 0;
    in.u32(&mark);
    if (mark != kStatsMagic) {
        // The start magic is what the text prints as expected.
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Wrong serialization magic (%x != %x) at the buffer end\n", mark,
                 kThinNfaMagic);
        vael_thin_nfa_destroy(nfa);
        return nullptr;
    }
    // A short statistics record is no fault of the automaton: the frame's
    // next magic tells.
    vael_pm_stats_common_deserialize(&nfa->stats.common, in.position, in.space, in.vbuf, in.iter);
    if (*space >= 8) {
        in.u32(&nfa->stats.num_states);
        in.u32(&nfa->stats.num_final_states);
    } else {
        *space = 0;
    }

    // Nothing runs on a BNFA that has not been proven sound, whatever the
    // memory: a check that could not run refuses the image.
    if (vael_thin_nfa_validate(nfa) != 1 || vael_thin_nfa_prefilter_build(nfa) != 0) {
        vael_thin_nfa_destroy(nfa);
        return nullptr;
    }
    return nfa;
}
