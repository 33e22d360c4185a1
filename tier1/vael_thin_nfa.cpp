// vael_thin_nfa.cpp - the Thin NFA handle and its run over a stream.
//
// A run walks the BNFA one byte at a time and queues a match record for each
// pattern that ends at a position. The scan of a piece spends its time in the
// fast loop, which touches per byte only the input, one table word and one
// compare against the end of the full non-finite region; partial states and
// finite states are handled outside it. A run keeps its state in a record on
// the caller's stack, so one handle serves any number of threads.

#include <cstring>

#include "runtime/vael_runtime.h"
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_thin_nfa_prefilter.h"

namespace {

constexpr const char *kThinTopics = "K_THINNFA | K_PM";

}  // namespace

// ---------------------------------------------------------------- handle

extern "C" int vael_thin_nfa_add_pattern_id(vael_thin_nfa_pattern_id **head, uint32_t id, uint32_t flags,
                                            uint32_t len) {
    vael_thin_nfa_pattern_id **link = head;
    for (; *link; link = &(*link)->next)
        if ((*link)->id == id)
            return 0;
    auto *p = static_cast<vael_thin_nfa_pattern_id *>(VAEL_PM_KMALLOC(sizeof(vael_thin_nfa_pattern_id)));
    if (!p) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate pattern id\n");
        return -1;
    }
    *p = vael_thin_nfa_pattern_id{nullptr, id, flags, len};
    *link = p;
    return 0;
}

extern "C" void vael_thin_nfa_free_pattern_ids(vael_thin_nfa_pattern_id *head) {
    while (head) {
        vael_thin_nfa_pattern_id *next = head->next;
        VAEL_PM_KFREE(head, sizeof *head);
        head = next;
    }
}

extern "C" void vael_thin_nfa_destroy(vael_thin_nfa *nfa) {
    if (!nfa)
        return;
    vael_thin_nfa_prefilter_free(nfa);
    if (nfa->bnfa)
        VAEL_PM_KFREE_PADDED(nfa->bnfa, nfa->bnfa_size, BNFA_READ_PAD);
    vael_thin_nfa_stats_free(nfa);
    vael_thin_nfa_free_pattern_pool(nfa);
    if (nfa->pattern_ids) {
        for (uint32_t i = 0; i < nfa->state_num; i++)
            vael_thin_nfa_free_pattern_ids(nfa->pattern_ids[i]);
        VAEL_PM_KFREE(nfa->pattern_ids, sizeof(vael_thin_nfa_pattern_id *) * nfa->state_num);
    }
    VAEL_PM_KFREE(nfa, sizeof *nfa);
}

extern "C" vael_thin_nfa *vael_thin_nfa_create(uint32_t state_num, uint32_t bnfa_size, uint32_t bnfa_full_size) {
    auto *nfa = static_cast<vael_thin_nfa *>(VAEL_PM_KMALLOC(sizeof(vael_thin_nfa)));
    if (!nfa) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Error allocating the nfa\n");
        return nullptr;
    }
    std::memset(nfa, 0, sizeof *nfa);
    nfa->state_num = state_num;
    // The read pad lies beside the BNFA, outside its size and the PM figure:
    // the image and the memory figure are those of the BNFA alone.
    nfa->bnfa = static_cast<uint32_t *>(VAEL_PM_KMALLOC_PADDED(bnfa_size, BNFA_READ_PAD));
    if (!nfa->bnfa) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Error allocating the bnfa - size %d\n", (int)bnfa_size);
        vael_thin_nfa_destroy(nfa);
        return nullptr;
    }
    std::memset(reinterpret_cast<unsigned char *>(nfa->bnfa) + bnfa_size, 0, BNFA_READ_PAD);
    nfa->bnfa_size = bnfa_size;
    nfa->bnfa_full_size = bnfa_full_size;
    size_t ids_bytes = sizeof(vael_thin_nfa_pattern_id *) * state_num;
    nfa->pattern_ids = static_cast<vael_thin_nfa_pattern_id **>(VAEL_PM_KMALLOC(ids_bytes));
    if (!nfa->pattern_ids) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Error allocating pattern info for %d states\n", (int)state_num);
        vael_thin_nfa_destroy(nfa);
        return nullptr;
    }
    std::memset(nfa->pattern_ids, 0, ids_bytes);
    if (vael_thin_nfa_stats_init(nfa) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Error initializing statistics structure\n");
        vael_thin_nfa_destroy(nfa);
        return nullptr;
    }
    return nfa;
}

extern "C" int vael_thin_nfa_stats_init(vael_thin_nfa *nfa) {
    nfa->stats.num_states = 0;
    nfa->stats.num_final_states = 0;
    return vael_pm_stats_common_init(&nfa->stats.common);
}

extern "C" void vael_thin_nfa_stats_free(vael_thin_nfa *nfa) { vael_pm_stats_common_free(&nfa->stats.common); }

extern "C" vael_pm_stats_common *vael_thin_nfa_get_common_stats(vael_thin_nfa *nfa) {
    return nfa ? &nfa->stats.common : nullptr;
}

extern "C" void vael_thin_nfa_stats_print(vael_thin_nfa *nfa, int level) {
    if (!nfa)
        return;
    if (level != VAEL_PM_STATS_COMMON_EXEC) {
        vael_pm_stats_common_print(&nfa->stats.common, VAEL_PM_STATS_COMMON_COMPILE, VAEL_PM_STATS_FORMAT_TEXT, 0);
        vael_us_adaptor_kdprintf_no_prefix("Number of states is %u\n", nfa->stats.num_states);
        vael_us_adaptor_kdprintf_no_prefix("Number of final states is %u\n", nfa->stats.num_final_states);
    }
    if (level != VAEL_PM_STATS_COMMON_COMPILE)
        vael_pm_stats_common_print(&nfa->stats.common, VAEL_PM_STATS_COMMON_EXEC, VAEL_PM_STATS_FORMAT_TEXT, 0);
}

// ---------------------------------------------------------------- matches

extern "C" int vael_thin_nfa_enqueue_match(lst_list **matches, const vael_thin_nfa_pattern_id *pattern, uint32_t flags,
                                uint32_t end_offset) {
    vael_pmglob_match_data *record = vael_pmglob_match_data_alloc();
    if (!record) {
        VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to allocate match data for ID %d\n", (int)pattern->id);
        return -1;
    }
    // A pattern that goes on to a second tier is reported once per run.
    bool keep_all = (flags & VAEL_PM_EXEC_ALL_MATCHES) && !(pattern->flags & VAEL_PM_NEED_TIER2);
    vael_pmglob_match_data_set(record, (int32_t)pattern->id, end_offset, keep_all ? VAEL_PMGLOB_MATCH_KEEP_ALL : 0,
                               pattern->len, nullptr);
    int rc = vael_pmglob_match_data_enqueue(matches, record);
    if (rc == 0)
        return 0;
    vael_pmglob_match_data_free(record);
    if (rc == 1)
        return 0;
    VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Failed to enqueue match data for ID %d\n", (int)pattern->id);
    return -1;
}

// Queues every pattern of a finite state that passes the mask and anchors.
// `consumed` counts the piece's bytes up to and including the match's last.
extern "C" int vael_thin_nfa_handle_match(vael_thin_nfa_run_state *run, const uint32_t *state, uint32_t consumed,
                               uint32_t piece_length, uint32_t flags) {
    uint32_t end_offset = run->piece_offset + consumed - 1;
    bool at_data_end = consumed == piece_length && (flags & VAEL_PM_EXEC_LAST_BUFFER);
    for (const vael_thin_nfa_pattern_id *p = run->nfa->pattern_ids[*state >> BNFA_STATE_ID_SHIFT]; p; p = p->next) {
        if (run->mask && !vael_pmglob_mask_is_set(run->mask, p->id))
            continue;
        if ((p->flags & VAEL_PM_LSS_START_ANCHOR) && end_offset != p->len - 1)
            continue;
        if ((p->flags & VAEL_PM_LSS_END_ANCHOR) && !at_data_end)
            continue;
        if (vael_thin_nfa_enqueue_match(run->matches, p, flags, end_offset) != 0)
            return -1;
    }
    return 0;
}

// ---------------------------------------------------------------- scan

namespace {

// One step by one (already translated) byte: a full state resolves any byte
// with one load; a partial state without the byte falls to its fail state
// without consuming it. The chain ends in a full state at the latest at the
// root.
inline const uint32_t *step(const uint32_t *bnfa, const uint32_t *state, unsigned char byte) {
    for (;;) {
        if (!(*state & BNFA_STATE_PARTIAL))
            return bnfa + state[1 + byte];
        if (const uint32_t *next = vael_thin_nfa_get_next_state(state, bnfa, byte))
            return next;
        state = bnfa + (state[1] >> 8);
    }
}

// A search that skips fewer bytes than kMinUsefulSkip cost more than the
// automaton would have: the run then leaves the search alone for a stretch,
// twice as long after each such search in a row, back to the first length
// after a search that paid off.
constexpr ptrdiff_t kMinUsefulSkip = 8;
constexpr ptrdiff_t kFirstBackoff = 16;
constexpr ptrdiff_t kMaxBackoff = 1024;

template <bool kXlate, bool kPrefilter>
int vael_thin_nfa_exec_one_buf_ex(vael_thin_nfa_run_state *run, const unsigned char *data, uint32_t length,
                                  uint32_t flags, const unsigned char *xlation_tab) {
    if (length == 0)
        return 0;
    const uint32_t *bnfa = run->nfa->bnfa;
    const uint32_t *full_end = bnfa + run->nfa->bnfa_full_size / 4;
    const unsigned char *p = data;
    const unsigned char *end = data + length;
    auto next_byte = [&]() -> unsigned char { return kXlate ? xlation_tab[*p++] : *p++; };

    // With the prefilter the fast loop stops at the root as well: full
    // non-finite states other than the root lie in [past_root, full_end),
    // and one unsigned compare tests both bounds.
    const uint32_t *past_root = bnfa + BNFA_FULL_STATE_WORDS;
    const size_t past_root_span = full_end > past_root ? (size_t)(full_end - past_root) : 0;
    // Positions from here on are left to the automaton: their tests would
    // reach past the piece, and the state carries into the next piece.
    const unsigned char *search_end = length >= THIN_NFA_PREFILTER_LOAD ? end - (THIN_NFA_PREFILTER_LOAD - 1) : data;
    const unsigned char *next_search = data;
    ptrdiff_t backoff = kFirstBackoff;
    // The position the search last stopped at has passed its tests once.
    const unsigned char *vouched = nullptr;
    const vael_thin_nfa_prefilter_tables *pf = run->nfa->prefilter;

    // The state the run stood in was examined at the end of the last piece.
    const uint32_t *s = step(bnfa, run->state, next_byte());
    while (p < end) {
        // Every state reached is examined here once. Full states that are
        // not finite lie below full_end: raw bytes straight into the table.
        if (!kPrefilter) {
            if (__builtin_expect(s < full_end, 1)) {
                s = bnfa + s[1 + *p++];
                continue;
            }
        } else {
            if (__builtin_expect((size_t)(s - past_root) < past_root_span, 1)) {
                // A state one byte below the root is the root's own entry
                // for the last byte. The only match it can lead to starts at
                // that byte; when none can start there, the root serves as
                // well, and the search may skip again.
                if (s != bnfa + bnfa[1 + p[-1]] || p - 1 == vouched || p >= search_end || p < next_search ||
                    (vael_thin_nfa_prefilter_test(pf, p - 1) && vael_thin_nfa_prefilter_confirm(pf, p - 1, end))) {
                    s = bnfa + s[1 + *p++];
                    continue;
                }
                s = bnfa;
            }
            if (s == bnfa) {
                // At the root nothing read so far can take part in a match:
                // go straight to the next position where a pattern can start.
                if (p >= next_search && p < search_end) {
                    const unsigned char *q = run->find(pf, p, end);
                    if (q - p < kMinUsefulSkip) {
                        next_search = q + backoff;
                        backoff = backoff < kMaxBackoff ? 2 * backoff : kMaxBackoff;
                    } else {
                        backoff = kFirstBackoff;
                    }
                    p = q;
                    vouched = q;
                }
                s = bnfa + bnfa[1 + *p++];
                continue;
            }
        }
        if (*s & BNFA_STATE_FINITE) {
            if (vael_thin_nfa_handle_match(run, s, (uint32_t)(p - data), length, flags) != 0)
                return -1;
        }
        s = step(bnfa, s, next_byte());
    }
    if (*s & BNFA_STATE_FINITE) {
        if (vael_thin_nfa_handle_match(run, s, length, length, flags) != 0)
            return -1;
    }
    run->state = s;
    return 0;
}

}  // namespace

extern "C" int vael_thin_nfa_exec_one_buf(vael_thin_nfa_run_state *run, const unsigned char *data, uint32_t length,
                                          uint32_t flags) {
    if (run->find)
        return vael_thin_nfa_exec_one_buf_ex<false, true>(run, data, length, flags, nullptr);
    return vael_thin_nfa_exec_one_buf_ex<false, false>(run, data, length, flags, nullptr);
}

extern "C" int vael_thin_nfa_exec_one_buf_xlate(vael_thin_nfa_run_state *run, const unsigned char *data,
                                                uint32_t length, uint32_t flags) {
    return vael_thin_nfa_exec_one_buf_ex(run, data, length, flags, 1, run->nfa->xlation_tab);
}

// The scan of one piece by a choice made at run time; the two entries above
// are what the run itself calls, each a loop specialised for its case.
extern "C" int vael_thin_nfa_exec_one_buf_ex(vael_thin_nfa_run_state *run, const unsigned char *data,
                                             uint32_t length, uint32_t flags, int use_xlation,
                                             const unsigned char *xlation_tab) {
    if (!use_xlation)
        return vael_thin_nfa_exec_one_buf(run, data, length, flags);
    if (run->find)
        return vael_thin_nfa_exec_one_buf_ex<true, true>(run, data, length, flags, xlation_tab);
    return vael_thin_nfa_exec_one_buf_ex<true, false>(run, data, length, flags, xlation_tab);
}

extern "C" int vael_thin_nfa_exec(vael_thin_nfa *nfa, const unsigned char *buffer, uint32_t length,
                                  vael_vbuf *vbuf, uint32_t offset, lst_list **matches, uint32_t flags,
                                  const vael_pm_mask *mask) {
    if (!nfa || !matches || ((!buffer || !length) && !vbuf)) {
        VAEL_ASSERT(0, "Illegal arguments");
        return -1;
    }
    // With history, an empty present buffer is no buffer: the end of the
    // data is then the vbuf's last block.
    bool have_flat = buffer && length;
    auto scan = (nfa->flags & THIN_NFA_FLAG_XLATION) ? vael_thin_nfa_exec_one_buf_xlate : vael_thin_nfa_exec_one_buf;
    vael_thin_nfa_run_state run = {nfa, nfa->bnfa, matches, mask, 0,
                                   nfa->prefilter ? vael_thin_nfa_prefilter_select() : nullptr};
    uint32_t scanned = 0;
    int rc = 0;

    if (vbuf) {
        uint32_t vbuf_size = vael_vbuf_size(vbuf);
        if (vbuf_size <= offset) {
            run.piece_offset = vbuf_size;
        } else {
            // The automaton's state carries from piece to piece, so a pattern
            // that spans blocks is found.
            run.piece_offset = offset;
            vael_vbuf_iter iter = {nullptr, 0};
            const unsigned char *piece;
            uint32_t piece_len;
            while (vael_vbuf_iterate(vbuf, &iter, offset, &piece, &piece_len)) {
                uint32_t piece_flags = flags;
                if (!have_flat && vael_vbuf_is_in_last_buffer(vbuf, run.piece_offset + piece_len - 1))
                    piece_flags |= VAEL_PM_EXEC_LAST_BUFFER;
                if (scan(&run, piece, piece_len, piece_flags) != 0) {
                    rc = -1;
                    break;
                }
                run.piece_offset += piece_len;
                scanned += piece_len;
            }
        }
    }

    if (rc == 0 && have_flat) {
        if (offset > run.piece_offset) {
            uint32_t skip = offset - run.piece_offset;
            if (skip > length) {
                // The sizes go in as flat length, then vbuf size, against the
                // text's labels; tools that parse this line expect that order.
                VAEL_LOG(VAEL_DBG_ERR, kThinTopics, "%s: Offset %d too large, vbuf size %d, buffer size %d\n",
                         (int)offset, (int)length, vbuf ? (int)vael_vbuf_size(vbuf) : 0);
                rc = -1;
                length = 0;
            } else {
                buffer += skip;
                length -= skip;
                run.piece_offset = offset;
            }
        }
        if (rc == 0)
            rc = scan(&run, buffer, length, flags | VAEL_PM_EXEC_LAST_BUFFER);
        scanned += length;
    }
    vael_pm_stats_common_update_exec(&nfa->stats.common, scanned, (uint32_t)lst_nelements(*matches));
    return rc;
}

// ---------------------------------------------------------------- table row

namespace {

void *thin_compile(vael_pmglob_patterns *list, uint32_t flags, vael_pm_error *err) {
    return vael_thin_nfa_compile(list, flags, err);
}

int thin_exec(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start, lst_list **queue,
              uint32_t exec_flags, const vael_pm_mask *mask, vael_pm_exec_cb_ctx *) {
    return vael_thin_nfa_exec(static_cast<vael_thin_nfa *>(h), buf, len, vbuf, start, queue, exec_flags, mask);
}

void *thin_duplicate(void *h) { return vael_thin_nfa_duplicate(static_cast<vael_thin_nfa *>(h)); }

uint32_t thin_serialize_size(void *h) { return vael_thin_get_serialize_size(static_cast<vael_thin_nfa *>(h)); }

int thin_serialize(void *h, unsigned char **position, uint32_t *space) {
    return vael_thin_nfa_serialize(static_cast<vael_thin_nfa *>(h), position, space);
}

void *thin_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    return vael_thin_nfa_deserialize(position, space, vbuf, iter);
}

int thin_is_valid(void *h) { return vael_thin_nfa_is_valid(static_cast<vael_thin_nfa *>(h)); }

void thin_dump(void *h, int format) { vael_thin_nfa_dump(static_cast<vael_thin_nfa *>(h), format); }

void thin_destroy(void *h) { vael_thin_nfa_destroy(static_cast<vael_thin_nfa *>(h)); }

void thin_stats_print(void *h, int level) { vael_thin_nfa_stats_print(static_cast<vael_thin_nfa *>(h), level); }

vael_pm_stats_common *thin_common_stats(void *h) {
    return vael_thin_nfa_get_common_stats(static_cast<vael_thin_nfa *>(h));
}

}  // namespace

extern "C" int vael_thin_nfa_init(vael_pm_tier1_funcs *row) {
    *row = vael_pm_tier1_funcs{};
    row->name = "Thin NFA";
    row->compile = thin_compile;
    row->exec = thin_exec;
    row->duplicate = thin_duplicate;
    row->get_serialize_size = thin_serialize_size;
    row->serialize = thin_serialize;
    row->deserialize = thin_deserialize;
    row->is_valid = thin_is_valid;
    row->destroy = thin_destroy;
    row->stats_print = thin_stats_print;
    row->get_common_stats = thin_common_stats;
    row->dump = thin_dump;
    row->id_bound = [](void *h) { return vael_thin_nfa_id_bound(static_cast<vael_thin_nfa *>(h)); };
    row->tier1_flags = VAEL_PM_TIER1_LOAD_PROVEN; // the load validates before it builds the filter
    return 0;
}

extern "C" void vael_thin_nfa_fini(void) {}
