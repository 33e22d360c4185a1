// vael_dfa_exec.cpp - running a finalized DFA over a virtual buffer and a
// present buffer, and finding where a match starts.
//
// A run costs one table load per byte: the state is the target of the entry
// for the byte, found in a machine of one block as block 0 plus the entry
// (the entry is the index), in others by the packed id (block << 13 |
// index). Everything that is not a transition waits behind the test of the
// state's final bit. Hits go to a match queue of vael_pmglob_match_data; the
// frame reads the queue afterwards, so no user code runs inside the loop.
//
// A DFA knows where a match ends, not where it starts. The start is found
// on demand by running the machine again from candidate offsets, in a binary
// search for the highest start that still reaches the same end (matching is
// taken as monotonic: if a start works, every earlier start works).
//
// Nothing of the machine is written by a run except statistics; the running
// state, the hint and the queue are the caller's, so threads may share it.

#include <algorithm>

#include "pm/vael_pm_strings.h"
#include "rem/vael_dfa_internal.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"

namespace {

const char kErrTopics[] = "K_DFA | K_ERROR";

// At most this many candidate starts are kept; more fall back to a search
// over plain offsets.
constexpr uint32_t kMaxCandidates = 500;

constexpr uint32_t kRestartMask = VAEL_PM_EXEC_ALL_MATCHES | VAEL_PM_EXEC_FROM_PM;

// The target of a state of a finalized machine.
inline vael_dfa_state *next_state(const vael_dfa *dfa, const vael_dfa_state *s, unsigned char c) {
    const uint32_t e = s->trans[c];
    if (dfa->num_of_blocks == 1)
        return dfa->blocks[0] + e;
    return dfa->blocks[e >> VAEL_DFA_PACKED_SHIFT] + (e & VAEL_DFA_PACKED_INDEX_MASK);
}

// The run's data as one sequence: the virtual buffer, then the flat buffer.
struct Data {
    const unsigned char *buf;
    uint32_t len;
    vael_vbuf *vbuf;
    uint32_t vsize;

    unsigned char at(uint32_t offset) const {
        if (offset < vsize)
            return (unsigned char)vael_vbuf_get_char_at(vbuf, offset);
        return buf[offset - vsize];
    }
};

// Takes the last `count` records off the queue's tail and frees them.
void unwind(lst_list *queue, uint32_t count) {
    for (uint32_t k = 0; k < count && queue; k++) {
        lst_cursor last = lst_last(queue);
        if (!last)
            break;
        lst_delete_val_one(queue, lst_data(last));
    }
}

// Whether the queue holds a hit of this pattern (the queue's own test for a
// duplicate, made before a record is allocated).
bool is_queued(lst_list *queue, int32_t id) {
    if (!queue || vael_queue_size(queue) == 0)
        return false;
    vael_pmglob_match_data key{};
    key.id = id;
    uintptr_t found;
    return vael_queue_lookup(queue, nullptr, reinterpret_cast<uintptr_t>(&key), &found) != nullptr;
}

// A final state that every byte leads back to, whose records carry no check
// of their own: once its records are queued, the rest of the data can only
// repeat them.
bool settles(const vael_dfa *dfa, const vael_dfa_state *s) {
    constexpr uint32_t kChecks = VAEL_PM_LSS_START_ANCHOR | VAEL_PM_LSS_END_ANCHOR | VAEL_PM_BOUND;
    if ((s->properties & VAEL_DFA_STATE_ANCHORED_FINAL) || (dfa->flags & VAEL_PM_BOUND))
        return false;
    for (const vael_dfa_pattern_id *rec = s->patterns; rec; rec = rec->next)
        if (rec->flags & kChecks)
            return false;
    for (unsigned c = 0; c < 256; c++)
        if (next_state(dfa, s, (unsigned char)c) != s)
            return false;
    return true;
}

}  // namespace

// ---------------------------------------------------------------- one hit

extern "C" int vael_dfa_insert_match_data(lst_list **queue, const vael_dfa_state *state, uint32_t offset,
                                          uint32_t index, uint32_t exec_flags, const vael_pm_mask *mask,
                                          uint32_t end, const unsigned char *buffer, uint32_t next_index,
                                          uint32_t piece_end, uint32_t dfa_flags, uint32_t hint, int *matched) {
    *matched = 0;
    uint32_t added = 0;
    for (const vael_dfa_pattern_id *rec = state->patterns; rec; rec = rec->next) {
        const uint32_t flags = rec->flags;
        if (mask && !vael_pmglob_mask_is_set(mask, (uint32_t)rec->pattern_id))
            continue;
        if (flags & VAEL_PM_LSS_START_ANCHOR) {
            const bool fits =
                (!(exec_flags & VAEL_PM_EXEC_CIRCUMFLEX_ONLY) && offset == rec->len - 1) ||
                ((exec_flags & (VAEL_PM_EXEC_CIRCUMFLEX | VAEL_PM_EXEC_CIRCUMFLEX_ONLY)) && index == rec->len - 1);
            if (!fits)
                continue;
        }
        if ((flags & VAEL_PM_LSS_END_ANCHOR) && offset != end - 1)
            continue;
        // The byte after the match is read only where this piece holds it.
        if ((((flags & VAEL_PM_BOUND) && !(flags & VAEL_PM_NEED_TIER2)) || (dfa_flags & VAEL_PM_BOUND)) &&
            offset != end - 1 && next_index < piece_end && is_word_character(buffer[next_index]))
            continue;
        *matched = 1;
        uint32_t match_flags = 0;
        if ((exec_flags & VAEL_PM_EXEC_ALL_MATCHES) && !(flags & VAEL_PM_NEED_TIER2))
            match_flags |= VAEL_PMGLOB_MATCH_KEEP_ALL;
        if (!(match_flags & VAEL_PMGLOB_MATCH_KEEP_ALL) && is_queued(*queue, rec->pattern_id)) {
            // The queue would drop it: a machine that stays in its absorbing
            // final state asks at every byte, and pays no allocation for it.
            if (exec_flags & VAEL_PM_EXEC_FIRST_MATCH_ONLY)
                return VAEL_OK;
            continue;
        }
        vael_pmglob_match_data *d = vael_pmglob_match_data_alloc();
        if (!d) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to allocate a match record\n");
            unwind(*queue, added);
            return VAEL_ERROR;
        }
        if ((exec_flags & VAEL_PM_EXEC_PRESENT_BUFFER) && offset == index)
            match_flags |= VAEL_PMGLOB_MATCH_PRESENT;
        const uint32_t start_value = (flags & VAEL_PM_LITERAL_LSS) ? rec->len : hint;
        vael_pmglob_match_data_set(d, rec->pattern_id, offset, match_flags, start_value, nullptr);
        const int rc = vael_pmglob_match_data_enqueue(queue, d);
        if (rc == 0) {
            added++;
        } else {
            vael_pmglob_match_data_free(d);
            if (rc != 1) {
                unwind(*queue, added);
                return VAEL_ERROR;
            }
        }
        if (exec_flags & VAEL_PM_EXEC_FIRST_MATCH_ONLY)
            return VAEL_OK;
    }
    return VAEL_OK;
}

// ---------------------------------------------------------------- one piece

namespace {

// How a run steps from state to state. Over the records, one block layout
// each, so that the step is a single table load with no test of the layout.
template <bool OneBlock>
struct RecordSteps {
    vael_dfa_state *const *blocks;
    vael_dfa_state *initial;
    vael_dfa_state *s;
    explicit RecordSteps(vael_dfa_state *from)
        : blocks(from->dfa->blocks), initial(from->dfa->initial_state), s(from) {}
    bool step(unsigned char c) {
        const uint32_t e = s->trans[c];
        s = OneBlock ? blocks[0] + e : blocks[e >> VAEL_DFA_PACKED_SHIFT] + (e & VAEL_DFA_PACKED_INDEX_MASK);
        return s->properties & VAEL_DFA_STATE_FINAL;
    }
    vael_dfa_state *state() const { return s; }
    void restart() { s = initial; }
};

// Over the run table: one 16-bit load at (run id << 8 | byte), and a run id
// at or above the first final one is the only test, so the state records
// are read on hits alone.
struct TableSteps {
    const uint16_t *next;
    vael_dfa_state *const *records;
    uint32_t first_final;
    uint32_t initial;
    uint32_t r;
    explicit TableSteps(vael_dfa_state *from)
        : next(from->dfa->run_next), records(from->dfa->run_state), first_final(from->dfa->run_first_final),
          initial(from->dfa->run_id[from->dfa->initial_state->id]), r(from->dfa->run_id[from->id]) {}
    bool step(unsigned char c) {
        r = next[(r << 8) | c];
        return r >= first_final;
    }
    vael_dfa_state *state() const { return records[r]; }
    void restart() { r = initial; }
};

// The loop of one piece, made once for each way of stepping.
template <class Steps>
int run_piece(vael_dfa_state **running, const unsigned char *__restrict buf, uint32_t end_index,
              uint32_t start_index, uint32_t base, lst_list **queue, uint32_t exec_flags, const vael_pm_mask *mask,
              uint32_t dfa_flags, uint32_t *hint) {
    const vael_dfa *dfa = (*running)->dfa;
    Steps steps(*running);
    const bool restart = (exec_flags & kRestartMask) == VAEL_PM_EXEC_ALL_MATCHES;
    const bool first_only = exec_flags & VAEL_PM_EXEC_FIRST_MATCH_ONLY;
    // The one-block machine judges the end of the data by offsets, the
    // others by the index in this piece: the two agree when base is 0.
    const uint32_t end = dfa->num_of_blocks == 1 ? base + end_index : end_index;

    for (uint32_t i = start_index; i < end_index; i++) {
        if (!steps.step(buf[i]))
            continue;
        vael_dfa_state *state = steps.state();
        if (state->properties & VAEL_DFA_STATE_ANCHORED_FINAL) {
            if (i != end_index - 1)
                continue;
            if (!(exec_flags & VAEL_PM_EXEC_LAST_BUFFER))
                break;
        }
        const uint32_t offset = i + base;
        int matched = 0;
        if (vael_dfa_insert_match_data(queue, state, offset, i, exec_flags, mask, end, buf, i + 1, end_index,
                                       dfa_flags, *hint, &matched) != 0)
            return VAEL_ERROR;
        if (first_only) {
            *running = state;
            return VAEL_OK;
        }
        if (restart && matched) {
            steps.restart();
            *hint = offset + 1;
        } else if (matched && !(exec_flags & VAEL_PM_EXEC_ALL_MATCHES) && !mask && settles(dfa, state)) {
            // Every later byte would ask again and be dropped as a duplicate.
            *running = state;
            return VAEL_DFA_EXEC_SETTLED;
        }
    }
    *running = steps.state();
    return VAEL_OK;
}

}  // namespace

extern "C" int vael_dfa_run_table_build(vael_dfa *dfa) {
    vael_dfa_run_table_free(dfa);
    const uint32_t n = dfa->current_state_id;
    if (n == 0)
        return VAEL_OK;
    if (n > VAEL_DFA_NO_STATE)
        return VAEL_ERROR;
    dfa->run_count = n;
    dfa->run_next = static_cast<uint16_t *>(VAEL_PM_KMALLOC((size_t)n * 256 * sizeof(uint16_t)));
    dfa->run_state = static_cast<vael_dfa_state **>(VAEL_PM_KMALLOC((size_t)n * sizeof(vael_dfa_state *)));
    dfa->run_id = static_cast<uint16_t *>(VAEL_PM_KMALLOC((size_t)n * sizeof(uint16_t)));
    if (!dfa->run_next || !dfa->run_state || !dfa->run_id) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to allocate the run table (%u states)\n", n);
        vael_dfa_run_table_free(dfa);
        return VAEL_ERROR;
    }
    // Non-final states take run ids from the bottom, final ones from the top,
    // so that the final states are exactly the run ids from run_first_final up.
    uint32_t plain = 0, top = n;
    for (uint32_t id = 0; id < n; id++) {
        // A loaded machine's records carry their ids: the table is indexed by
        // them, so each must be its own place.
        vael_dfa_state *s = vael_dfa_state_get_by_id(dfa, id);
        if (!s || s->id != id) {
            vael_dfa_run_table_free(dfa);
            return VAEL_ERROR;
        }
        const uint32_t r = (s->properties & VAEL_DFA_STATE_FINAL) ? --top : plain++;
        dfa->run_id[id] = (uint16_t)r;
        dfa->run_state[r] = s;
    }
    dfa->run_first_final = plain;
    for (uint32_t r = 0; r < n; r++) {
        const vael_dfa_state *s = dfa->run_state[r];
        uint16_t *row = dfa->run_next + ((size_t)r << 8);
        for (unsigned c = 0; c < 256; c++)
            row[c] = dfa->run_id[next_state(dfa, s, (unsigned char)c)->id];
    }
    return VAEL_OK;
}

extern "C" void vael_dfa_run_table_free(vael_dfa *dfa) {
    const uint32_t n = dfa->run_count;
    if (dfa->run_next)
        VAEL_PM_KFREE(dfa->run_next, (size_t)n * 256 * sizeof(uint16_t));
    if (dfa->run_state)
        VAEL_PM_KFREE(dfa->run_state, (size_t)n * sizeof(vael_dfa_state *));
    if (dfa->run_id)
        VAEL_PM_KFREE(dfa->run_id, (size_t)n * sizeof(uint16_t));
    dfa->run_next = nullptr;
    dfa->run_state = nullptr;
    dfa->run_id = nullptr;
    dfa->run_first_final = 0;
    dfa->run_count = 0;
}

extern "C" int vael_dfa_exec_one_buf(vael_dfa_state **running, const unsigned char *buf, uint32_t end_index,
                                     uint32_t start_index, uint32_t base, lst_list **queue, uint32_t exec_flags,
                                     const vael_pm_mask *mask, uint32_t dfa_flags, uint32_t *hint) {
    const vael_dfa *dfa = (*running)->dfa;
    auto run = dfa->run_next            ? run_piece<TableSteps>
               : dfa->num_of_blocks == 1 ? run_piece<RecordSteps<true>>
                                         : run_piece<RecordSteps<false>>;
    return run(running, buf, end_index, start_index, base, queue, exec_flags, mask, dfa_flags, hint);
}

// ---------------------------------------------------------------- a run

extern "C" int vael_dfa_exec(vael_dfa *dfa, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                             uint32_t start, lst_list **queue, uint32_t exec_flags, const vael_pm_mask *mask) {
    if (!dfa || !dfa->initial_state || !queue || ((!buf || !len) && !vbuf)) {
        VAEL_ASSERT(0, "Illegal arguments");
        return VAEL_ERROR;
    }
    vael_dfa_state *state = dfa->initial_state;
    const uint32_t dfa_flags = dfa->flags;
    uint32_t hint = start;
    uint32_t base = 0;
    uint32_t flat_index = start;
    const bool have_flat = buf && len;
    if (vbuf) {
        const uint32_t vsize = vael_vbuf_size(vbuf);
        base = start;
        flat_index = 0;
        if (start >= vsize) {
            // Nothing of the virtual buffer is to be read.
            base = vsize;
            flat_index = start - vsize;
        }
        vael_vbuf_iter iter = {nullptr, 0};
        const unsigned char *piece;
        uint32_t piece_len;
        uint32_t flags = exec_flags;
        while (start < vsize && vael_vbuf_iterate(vbuf, &iter, start, &piece, &piece_len)) {
            if (!have_flat && base + piece_len >= vsize)
                flags |= VAEL_PM_EXEC_LAST_BUFFER;
            const int rc =
                vael_dfa_exec_one_buf(&state, piece, piece_len, 0, base, queue, flags, mask, dfa_flags, &hint);
            if (rc == VAEL_ERROR) {
                vael_pm_stats_common_update_exec(&dfa->stats.common, vsize, (uint32_t)vael_queue_size(*queue));
                return VAEL_ERROR;
            }
            if (rc == VAEL_DFA_EXEC_SETTLED ||
                ((exec_flags & VAEL_PM_EXEC_FIRST_MATCH_ONLY) && vael_queue_size(*queue) > 0)) {
                vael_pm_stats_common_update_exec(&dfa->stats.common, vsize, (uint32_t)vael_queue_size(*queue));
                return VAEL_OK;
            }
            base += piece_len;
        }
    }
    int rc = VAEL_OK;
    if (have_flat && flat_index < len)
        rc = vael_dfa_exec_one_buf(&state, buf, len, flat_index, base, queue,
                                   exec_flags | VAEL_PM_EXEC_LAST_BUFFER | VAEL_PM_EXEC_PRESENT_BUFFER, mask,
                                   dfa_flags, &hint);
    vael_pm_stats_common_update_exec(&dfa->stats.common, len, (uint32_t)vael_queue_size(*queue));
    return rc == VAEL_ERROR ? VAEL_ERROR : VAEL_OK;
}

extern "C" int vael_dfa_tier1_exec(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start,
                                   lst_list **queue, uint32_t exec_flags, const vael_pm_mask *mask,
                                   vael_pm_exec_cb_ctx *) {
    return vael_dfa_exec(static_cast<vael_dfa *>(h), buf, len, vbuf, start, queue, exec_flags, mask);
}

extern "C" int vael_dfa_tier2_exec(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start,
                                   lst_list **queue, uint32_t exec_flags, vael_pm_exec_cb_ctx *) {
    return vael_dfa_exec(static_cast<vael_dfa *>(h), buf, len, vbuf, start, queue, exec_flags, nullptr);
}

// ---------------------------------------------------------------- match start

namespace {

struct StartScan {
    const vael_dfa_state *init;
    const vael_dfa *dfa;
    uint32_t *array;
    uint32_t *count;
    bool bounded;
    bool previous_non_word;

    // Candidates of one piece whose first byte lies at `at`.
    int scan(const unsigned char *p, uint32_t n, uint32_t at) {
        for (uint32_t i = 0; i < n; i++) {
            bool candidate;
            if (bounded)
                candidate = i == 0 ? previous_non_word : !is_word_character(p[i - 1]);
            else
                candidate = next_state(dfa, init, p[i]) != init;
            if (!candidate)
                continue;
            if (*count >= kMaxCandidates)
                return VAEL_ERROR;
            array[(*count)++] = at + i;
        }
        if (n)
            previous_non_word = !is_word_character(p[n - 1]);
        return VAEL_OK;
    }
};

}  // namespace

extern "C" int vael_dfa_exec_find_potential_start_points(const vael_dfa *dfa, const unsigned char *buf,
                                                         uint32_t len, vael_vbuf *vbuf, uint32_t start,
                                                         uint32_t *array, uint32_t *count, uint32_t length,
                                                         int bounded) {
    const Data data{buf, len, vbuf, vbuf ? vael_vbuf_size(vbuf) : 0};
    StartScan s{dfa->initial_state, dfa, array, count, bounded != 0, true};
    *count = 0;
    if (start > 0)
        s.previous_non_word = !is_word_character(data.at(start - 1));
    uint32_t scanned = 0;
    uint32_t at = start;
    if (start < data.vsize) {
        vael_vbuf_iter iter = {nullptr, 0};
        const unsigned char *piece;
        uint32_t piece_len;
        while (scanned < length && vael_vbuf_iterate(vbuf, &iter, start, &piece, &piece_len)) {
            const uint32_t n = std::min(piece_len, length);
            if (s.scan(piece, n, at) != 0)
                return VAEL_ERROR;
            scanned += n;
            at += piece_len;
        }
    }
    if (scanned < length && buf && at >= data.vsize) {
        const uint32_t from = at - data.vsize;
        if (from < len && s.scan(buf + from, std::min(length - scanned, len - from), at) != 0)
            return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_dfa_match_start_fix_index_for_binary_search(uint32_t low, uint32_t high, int bounded,
                                                                const uint32_t *array, const unsigned char *buf,
                                                                uint32_t len, vael_vbuf *vbuf, uint32_t *index) {
    if (!bounded || array)
        return 0;
    const Data data{buf, len, vbuf, vbuf ? vael_vbuf_size(vbuf) : 0};
    const uint32_t i = *index;
    if (i == 0 || !is_word_character(data.at(i - 1)))
        return 0;
    const uint32_t reach = std::max(i - low, high - i);
    for (uint32_t d = 0; d < reach; d++) {
        if (i > low + d && !is_word_character(data.at(i - d - 1))) {
            *index = i - d;
            return 0;
        }
        if (i + d < high && !is_word_character(data.at(i + d - 1))) {
            *index = i + d;
            return 0;
        }
    }
    return 1;
}

// 1 when a run from `candidate` ends a match of the pattern at `end`; else
// 0 with *status -1, or -2 for a failure of the run.
extern "C" int vael_dfa_exec_match_start_is_match_at_offset(vael_dfa *dfa, const unsigned char *buf, uint32_t len,
                                                            vael_vbuf *vbuf, uint32_t exec_flags, int32_t id,
                                                            uint32_t end, uint32_t candidate, int *status) {
    const uint32_t vsize = vbuf ? vael_vbuf_size(vbuf) : 0;
    lst_list *queue = nullptr;
    uint32_t compare = end;
    int rc;
    if (candidate < vsize) {
        rc = vael_dfa_exec(dfa, buf, len, vbuf, candidate, &queue, exec_flags, nullptr);
    } else {
        compare = end - vsize;
        rc = vael_dfa_exec(dfa, buf, std::min(end - vsize + 1, len), nullptr, candidate - vsize, &queue, exec_flags,
                           nullptr);
    }
    int found = 0;
    if (rc != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: can't find match start offset to vael_dfa_exec failure\n");
        *status = -2;
    } else {
        uintptr_t v;
        for (lst_cursor c = lst_iterate(queue, nullptr, &v); c && !found; c = lst_iterate(queue, c, &v)) {
            const auto *m = reinterpret_cast<const vael_pmglob_match_data *>(v);
            found = m->offset == compare && m->id == id;
        }
        if (!found)
            *status = -1;
    }
    vael_queue_cleanup(queue);
    return found;
}

extern "C" uint32_t vael_dfa_match_start_find(vael_dfa *dfa, const unsigned char *buf, uint32_t len,
                                              vael_vbuf *vbuf, uint32_t exec_flags, vael_pmglob_match_data *match,
                                              uint32_t back_offset, int anchored, uint32_t pattern_flags) {
    const int32_t id = match->id;
    const uint32_t end = match->offset;
    const uint32_t start_value = match->hint;
    const int bounded = (pattern_flags & VAEL_PM_BOUNDED_LEFT) ? 1 : 0;
    if (anchored && !bounded)
        return 0;
    uint32_t low = end > back_offset + start_value ? end - back_offset : start_value;
    if (low > end)
        return (uint32_t)-1;
    uint32_t high = end + 1;
    auto *array = static_cast<uint32_t *>(VAEL_KMALLOC(sizeof(uint32_t) * kMaxCandidates));
    uint32_t count = 0;
    if (array && vael_dfa_exec_find_potential_start_points(dfa, buf, len, vbuf, low, array, &count, end - low + 1,
                                                           bounded) != 0) {
        VAEL_KFREE(array, sizeof(uint32_t) * kMaxCandidates);
        array = nullptr;
    }
    if (array) {
        if (count == 0) {
            VAEL_KFREE(array, sizeof(uint32_t) * kMaxCandidates);
            return (uint32_t)-1;
        }
        low = 0;
        high = count;
    }
    auto offset_of = [&](uint32_t index) { return array ? array[index] : index; };
    auto done = [&](uint32_t result) {
        if (array)
            VAEL_KFREE(array, sizeof(uint32_t) * kMaxCandidates);
        return result;
    };

    uint32_t index = low;
    if (vael_dfa_match_start_fix_index_for_binary_search(low, high, bounded, array, buf, len, vbuf, &index) != 0)
        return done((uint32_t)-1);
    int status = -1;
    if (!vael_dfa_exec_match_start_is_match_at_offset(dfa, buf, len, vbuf, exec_flags, id, end, offset_of(index),
                                                      &status))
        return done((uint32_t)status);
    uint32_t best = index;
    while (best + 1 < high) {
        uint32_t mid = (high + best + 1) / 2;
        if (vael_dfa_match_start_fix_index_for_binary_search(low, high, bounded, array, buf, len, vbuf, &mid) != 0)
            break;
        if (mid <= best || mid >= high)
            break;  // the fix moved out of the open interval: nothing new to test
        if (vael_dfa_exec_match_start_is_match_at_offset(dfa, buf, len, vbuf, exec_flags, id, end, offset_of(mid),
                                                         &status)) {
            best = mid;
        } else {
            if (status == -2)
                return done((uint32_t)-2);
            high = mid;
        }
    }
    return done(offset_of(best));
}
