// vael_dfa_image.cpp - the flat image of a finished machine of the store, the
// piece a REM second tier carries inside a PM image.
//
//   "DZRS" | flags | number of states | initial id (16) | index size (16)
//   | per state, by id:
//       "TZRS" | reserved | table size | id (16) | properties
//       | table (index size x table size bytes)
//       | P | P x { pattern id, flags, len } | L | L x state id
//   | "SZRS" | common statistics | states made | final states set
//
// all in host order, packed. The tables keep the form they have in memory
// (packed ids in a machine of several blocks), so a loaded machine runs at
// once, without finalize, and lands in the block layout that wrote it.
//
// An image is untrusted. Nothing is allocated by a count that the bytes left
// cannot back, and a machine is handed out only when every table entry names
// one of its states in the form the run reads: the run follows entries
// without a check of its own.

#include <cstring>

#include "rem/vael_dfa_internal.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

const char kTopics[] = "K_DFA | K_PM";

constexpr uint32_t kDfaMagic = 0x53525A44u;   // "DZRS"
constexpr uint32_t kStateMagic = 0x53525A54u; // "TZRS"
constexpr uint32_t kStatsMagic = 0x53525A53u; // "SZRS"
constexpr uint32_t kHeaderBytes = 16;
constexpr uint32_t kStateHeaderBytes = 18;    // magic, reserved, table size, id, properties
constexpr uint32_t kPatternRecordBytes = 12;
constexpr uint32_t kTableBytes = VAEL_DFA_INDEX_SIZE * VAEL_DFA_TRANS_TABLE_SIZE;
// The least a state record takes: its header, its table and two zero counts.
constexpr uint32_t kLeastStateBytes = kStateHeaderBytes + kTableBytes + 8;

uint32_t count_patterns(const vael_dfa_state *s) {
    uint32_t n = 0;
    for (const vael_dfa_pattern_id *p = s->patterns; p; p = p->next)
        n++;
    return n;
}

uint32_t tail_bytes() { return 4 + vael_pm_stats_common_get_serialize_size() + 8; }

void put_u16(unsigned char **position, uint32_t *space, uint16_t value) {
    vael::image_put_bytes(position, space, &value, 2);
}

bool read_u16(vael::ImageReader &in, uint16_t *value) {
    *value = 0;
    return in.bytes(value, 2);
}

// Reads one state record into the next state of the machine. 0 or -1.
int state_deserialize(vael_dfa *dfa, uint32_t expected_id, vael::ImageReader &in) {
    uint32_t magic = 0;
    in.u32(&magic);
    if (magic != kStateMagic) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Wrong serialization magic (%x) at the buffer\n", magic);
        return -1;
    }
    uint32_t reserved = 0, table_size = 0, properties = 0;
    uint16_t id = 0;
    in.u32(&reserved);
    in.u32(&table_size);
    read_u16(in, &id);
    in.u32(&properties);
    if (*in.space == 0)
        return -1;
    // The record holds exactly one table; the id must be the record's place,
    // since the run finds a state by its place and the image by its id.
    if (table_size != VAEL_DFA_TRANS_TABLE_SIZE || id != expected_id) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal state record %u in the buffer (id %u, table size %u)\n",
                 expected_id, (uint32_t)id, table_size);
        return -1;
    }
    vael_dfa_state *s = vael_dfa_state_create(dfa);
    if (!s)
        return -1;
    s->reserved = (int32_t)reserved;
    s->properties = properties;
    if (!in.bytes(s->trans, kTableBytes))
        return -1;

    // vael_dfa_state_patterns_deserialize
    uint32_t count = 0;
    if (!in.u32(&count))
        return -1;
    if ((uint64_t)count * kPatternRecordBytes > *in.space) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal number of pattern ids (%u) of state %u in the buffer\n", count,
                 expected_id);
        *in.space = 0;
        return -1;
    }
    for (uint32_t i = 0; i < count; i++) {
        uint32_t pattern_id = 0, flags = 0, len = 0;
        if (!in.u32(&pattern_id) || !in.u32(&flags) || !in.u32(&len))
            return -1;
        if (vael_dfa_state_add_pattern_id(s, (int32_t)pattern_id, flags, len) < 0)
            return -1;
    }

    // vael_states_list_deserialize: a finished machine has none.
    uint32_t listed = 1;
    if (!in.u32(&listed))
        return -1;
    if (listed != 0) {
        VAEL_ASSERT_F(0, "%s: states_list cannot be deserialized\n");
        return -1;
    }
    return 0;
}

// The machine's states as the run reaches them: by entry x record in one
// block, by shift and mask in several. 1 when every entry of every state and
// the initial state resolve so.
bool runs_safely(const vael_dfa *dfa) {
    const bool one_block = dfa->num_of_blocks == 1;
    for (uint32_t id = 0; id < dfa->current_state_id; id++) {
        const vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        if (!s)
            return false;
        // A table of several blocks must be in packed form, which the
        // validation and the dumps learn from the state's bit.
        if (!one_block && !(s->properties & VAEL_DFA_STATE_PACKED)) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: state %u of a machine of %u blocks is not packed\n", id,
                     (uint32_t)dfa->num_of_blocks);
            return false;
        }
        for (uint32_t c = 0; c < VAEL_DFA_TRANS_TABLE_SIZE; c++) {
            const uint16_t e = s->trans[c];
            const bool known = one_block ? e < dfa->block_used[0] : vael_dfa_state_get_by_id_fast(dfa, e) != nullptr;
            if (!known) {
                VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: state %u names no state on %u (%u)\n", id, c, (uint32_t)e);
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" uint32_t vael_dfa_calculate_size(vael_dfa *dfa) {
    if (!dfa) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Trying to calculate size of NULL dfa\n");
        return 0;
    }
    uint64_t size = kHeaderBytes;
    for (uint32_t id = 0; id < dfa->current_state_id; id++) {
        const vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        if (!s) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Trying to calculate size of INVALID state\n");
            return 0;
        }
        size += 26 + (uint64_t)dfa->index_size * s->trans_table_size + (uint64_t)kPatternRecordBytes * count_patterns(s) +
                4ull * vael_states_list_num_of_elems(s->states_list);
    }
    size += tail_bytes();
    return size > UINT32_MAX ? 0 : (uint32_t)size;
}

extern "C" int vael_dfa_serialize(vael_dfa *dfa, unsigned char **position, uint32_t *space) {
    if (!dfa || !position || !*position || !space) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: dfa %p\n", (void *)dfa);
        return -1;
    }
    const uint32_t needed = vael_dfa_calculate_size(dfa);
    if (needed == 0)
        return -1;
    if (*space < needed) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Not enough space in the buffer, buf size (%u) < needed (%u) \n", *space,
                 needed);
        return -1;
    }
    // The table is written as it stands: entries of index_size bytes each.
    if (dfa->index_size != VAEL_DFA_INDEX_SIZE) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal index size (%u)\n", (uint32_t)dfa->index_size);
        return -1;
    }
    vael::image_put_u32(position, space, kDfaMagic);
    vael::image_put_u32(position, space, dfa->flags);
    vael::image_put_u32(position, space, dfa->current_state_id);
    put_u16(position, space, dfa->initial_state ? dfa->initial_state->id : (uint16_t)VAEL_DFA_NO_STATE);
    put_u16(position, space, dfa->index_size);
    for (uint32_t id = 0; id < dfa->current_state_id; id++) {
        const vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        vael::image_put_u32(position, space, kStateMagic);
        vael::image_put_u32(position, space, (uint32_t)s->reserved);
        vael::image_put_u32(position, space, s->trans_table_size);
        put_u16(position, space, s->id);
        vael::image_put_u32(position, space, s->properties);
        vael::image_put_bytes(position, space, s->trans, kTableBytes);
        // vael_dfa_state_patterns_serialize
        vael::image_put_u32(position, space, count_patterns(s));
        for (const vael_dfa_pattern_id *p = s->patterns; p; p = p->next) {
            vael::image_put_u32(position, space, (uint32_t)p->pattern_id);
            vael::image_put_u32(position, space, p->flags);
            vael::image_put_u32(position, space, p->len);
        }
        // vael_states_list_serialize
        vael::image_put_u32(position, space, vael_states_list_num_of_elems(s->states_list));
        uintptr_t v = 0;
        for (lst_cursor c = lst_iterate(s->states_list, nullptr, &v); c; c = lst_iterate(s->states_list, c, &v))
            vael::image_put_u32(position, space, reinterpret_cast<const vael_dfa_state *>(v)->id);
    }
    vael::image_put_u32(position, space, kStatsMagic);
    vael_pm_stats_common_serialize(&dfa->stats.common, position, space);
    vael::image_put_u32(position, space, dfa->stats.num_of_states);
    vael::image_put_u32(position, space, dfa->stats.num_of_final_states);
    return 0;
}

extern "C" vael_dfa *vael_dfa_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                          vael_vbuf_iter *iter) {
    if (!space || (!vbuf && (!position || !*position)) || (vbuf && !iter)) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments");
        return nullptr;
    }
    vael::ImageReader in{position, space, vbuf, iter};
    uint32_t magic = 0;
    in.u32(&magic);
    if (magic != kDfaMagic) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Wrong serialization magic (%x) at the buffer\n", magic);
        return nullptr;
    }
    uint32_t flags = 0, num_of_states = 0;
    uint16_t initial_id = 0, index_size = 0;
    in.u32(&flags);
    in.u32(&num_of_states);
    read_u16(in, &initial_id);
    read_u16(in, &index_size);
    if (*space == 0)
        return nullptr;
    // Every state record takes at least kLeastStateBytes: a count that the
    // bytes left cannot back is refused before the blocks are allocated.
    if (index_size != VAEL_DFA_INDEX_SIZE || num_of_states == 0 ||
        num_of_states > VAEL_DFA_MAX_BLOCKS * VAEL_DFA_BLOCK_STATES ||
        (uint64_t)num_of_states * kLeastStateBytes + tail_bytes() > *space) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal machine in the buffer: %u states, index size %u, %u bytes left\n",
                 num_of_states, (uint32_t)index_size, *space);
        *space = 0;
        return nullptr;
    }
    vael_dfa *dfa = vael_dfa_create_block_dfa(flags, nullptr, num_of_states, index_size, __func__);
    if (!dfa)
        return nullptr;
    vael_dfa_set_state_limit(dfa, num_of_states);

    // vael_dfa_machine_deserialize
    bool ok = true;
    for (uint32_t id = 0; ok && id < num_of_states; id++)
        ok = state_deserialize(dfa, id, in) == 0;
    if (ok) {
        dfa->initial_state = vael_dfa_state_get_by_id(dfa, initial_id);
        if (!dfa->initial_state) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal initial state %u of %u states\n", (uint32_t)initial_id,
                     num_of_states);
            ok = false;
        }
    }
    if (ok) {
        in.u32(&magic);
        if (magic != kStatsMagic) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Wrong serialization magic (%x) at the buffer\n", magic);
            ok = false;
        }
    }
    // vael_dfa_stats_deserialize: the writer's counters replace the ones that
    // making the states counted.
    ok = ok && vael_pm_stats_common_deserialize(&dfa->stats.common, in.position, in.space, in.vbuf, in.iter) == 0;
    ok = ok && in.u32(&dfa->stats.num_of_states) && in.u32(&dfa->stats.num_of_final_states);
    ok = ok && runs_safely(dfa);
    if (!ok) {
        vael_dfa_destroy(dfa);
        return nullptr;
    }
    return dfa;
}
