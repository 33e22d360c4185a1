// vael_thin_nfa_validate.cpp - proof that a BNFA is sound, and its dumps for
// people (JFLAP 6.0 XML and CSV).
//
// A BNFA may come from an image, and one wrong offset would send the run's
// fast loop outside its memory. The validation walks all of it:
//
//   1. the states tile the BNFA from offset 0, each inside bnfa_size, and
//      exactly the full non-finite ones lie below bnfa_full_size;
//   2. breadth-first from the initial state, every link lands on the start
//      of a state; a partial state's forward transitions reach only states
//      not yet seen (they form a tree) and its fail state lies on a smaller
//      level (so a fail chain ends);
//   3. every state is reached;
//   4. a state is finite exactly when it has patterns.
//
// After it a run cannot leave the BNFA or its read pad, cannot loop without
// consuming input, and indexes pattern_ids by IDs below state_num only.

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "runtime/vael_runtime.h"
#include "tier1/vael_thin_nfa_internal.h"

extern "C" {
int vael_thin_nfa_csv_printable_only = 0;
int vael_thin_nfa_xml_omit_fail_to_init = 1;
}

namespace {

constexpr const char *kFaultTopics = "K_THINNFA | K_ERROR";
constexpr uint32_t kNoOffset = UINT32_MAX;

// Kinds of a link under check.
enum LinkKind {
    kFailLink = 0,    // a partial state's fail state
    kForwardLink = 1, // a partial state's explicit transition
    kTableLink = 2,   // an entry of a full state's table
};

constexpr uint32_t kNoNext = UINT32_MAX;

// Twelve bytes a state: the array is the one allocation of a validation,
// sized by the state count.
struct vael_thin_nfa_state_info {
    uint32_t bnfa_offset; // where the state of this ID starts; kNoOffset when none does
    int32_t level;        // breadth-first depth, -1 until visited
    uint32_t next;        // the walk's queue: the next state's ID, kNoNext at the tail
};

struct StateQueue {
    vael_thin_nfa_state_info *info;
    uint32_t first = kNoNext;
    uint32_t last = kNoNext;
    explicit StateQueue(vael_thin_nfa_state_info *states) : info(states) {}
    void push(vael_thin_nfa_state_info *s) {
        uint32_t id = (uint32_t)(s - info);
        s->next = kNoNext;
        if (last != kNoNext)
            info[last].next = id;
        else
            first = id;
        last = id;
    }
    vael_thin_nfa_state_info *pop() {
        if (first == kNoNext)
            return nullptr;
        vael_thin_nfa_state_info *s = &info[first];
        first = s->next;
        if (first == kNoNext)
            last = kNoNext;
        return s;
    }
};

uint32_t state_id_at(const vael_thin_nfa *nfa, uint32_t offset) { return nfa->bnfa[offset] >> BNFA_STATE_ID_SHIFT; }

vael_thin_nfa_state_info *info_alloc(uint32_t n) {
    auto *info = static_cast<vael_thin_nfa_state_info *>(VAEL_KMALLOC(sizeof(vael_thin_nfa_state_info) * (size_t)n));
    if (info)
        for (uint32_t i = 0; i < n; i++)
            info[i] = vael_thin_nfa_state_info{kNoOffset, -1, kNoNext};
    return info;
}

void info_free(vael_thin_nfa_state_info *info, uint32_t n) { VAEL_KFREE(info, sizeof(vael_thin_nfa_state_info) * (size_t)n); }

bool part_in_range(const vael_thin_nfa *nfa, uint32_t offset, int32_t state_index, uint32_t bytes,
                   const char *part) {
    if (4ull * offset + bytes <= nfa->bnfa_size)
        return true;
    VAEL_LOG_AS("thin_nfa_validate_state_in_range", VAEL_DBG_ERR, kFaultTopics,
                "%s: State %d at BNFA offset %d (%d bytes) %s %d - exceeds size %d\n", (int)state_index, (int)offset,
                (int)(4ull * offset), part, (int)bytes, (int)nfa->bnfa_size);
    return false;
}

bool thin_nfa_validate_state_in_range(const vael_thin_nfa *nfa, uint32_t offset, int32_t state_index,
                                      uint32_t *size) {
    if (!part_in_range(nfa, offset, state_index, 4, "header"))
        return false;
    if (nfa->bnfa[offset] & BNFA_STATE_PARTIAL) {
        if (!part_in_range(nfa, offset, state_index, BNFA_PARTIAL_HEADER_BYTES, "partial header"))
            return false;
        *size = BNFA_PARTIAL_HEADER_BYTES + 4 * (nfa->bnfa[offset + 1] & 0xffu);
    } else {
        *size = BNFA_FULL_STATE_BYTES;
    }
    return part_in_range(nfa, offset, state_index, *size, "size");
}

int thin_nfa_validation_find_states(const vael_thin_nfa *nfa, vael_thin_nfa_state_info *info) {
    const uint32_t *limit = nfa->bnfa + nfa->bnfa_full_size / 4;
    uint32_t offset = 0;
    for (uint32_t i = 0; i < nfa->state_num; i++) {
        uint32_t size = 0;
        if (!thin_nfa_validate_state_in_range(nfa, offset, (int32_t)i, &size))
            return -1;
        const uint32_t *state = nfa->bnfa + offset;
        uint32_t kind = *state & BNFA_STATE_KIND_MASK;
        if (kind && state < limit) {
            VAEL_LOG(VAEL_DBG_ERR, kFaultTopics,
                     "%s: Partial state or Full non-matching state at %p is smaller than its limit: %p, flags = %x\n",
                     (const void *)state, (const void *)limit, kind);
            return -1;
        }
        if (!kind && state >= limit) {
            VAEL_LOG(VAEL_DBG_ERR, kFaultTopics,
                     "%s: Full non-matching state at  %p is greater/equal than its limit: %p, flags = %x\n",
                     (const void *)state, (const void *)limit, kind);
            return -1;
        }
        // The ID comes from the image: tested before it indexes anything.
        uint32_t id = state_id_at(nfa, offset);
        if (id >= nfa->state_num) {
            VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: State at BNFA offset %d has ID %d state_num=%d\n", (int)offset,
                     (int)id, (int)nfa->state_num);
            return -1;
        }
        info[id] = vael_thin_nfa_state_info{offset, -1, kNoNext};
        offset += size / 4;
    }
    return 0;
}

// The target's info record when the link is sound, else null.
vael_thin_nfa_state_info *thin_nfa_check_transition(const vael_thin_nfa *nfa, vael_thin_nfa_state_info *info,
                                                    uint32_t target, const vael_thin_nfa_state_info *source,
                                                    LinkKind kind) {
    if (!part_in_range(nfa, target, -1, 4, "header"))
        return nullptr;
    uint32_t id = state_id_at(nfa, target);
    if (id >= nfa->state_num) {
        VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: State at BNFA offset %d has ID %d state_num=%d\n", (int)target,
                 (int)id, (int)nfa->state_num);
        return nullptr;
    }
    vael_thin_nfa_state_info *t = &info[id];
    if (t->bnfa_offset != target) {
        VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: State at BNFA offset %d has ID %d but this state is at %d\n",
                 (int)target, (int)id, (int)t->bnfa_offset);
        return nullptr;
    }
    int source_id = source ? (int)state_id_at(nfa, source->bnfa_offset) : -1;
    int source_level = source ? source->level : -1;
    if (kind == kForwardLink && t->level >= 0) {
        VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: Forward transition %d -> %d, but levels %d -> %d\n", source_id,
                 (int)id, source_level, (int)t->level);
        return nullptr;
    }
    if (kind == kFailLink && (t->level < 0 || t->level >= source_level)) {
        VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: Fail state transition %d -> %d, but levels %d -> %d\n", source_id,
                 (int)id, source_level, (int)t->level);
        return nullptr;
    }
    return t;
}

void visit(StateQueue &queue, vael_thin_nfa_state_info *target, const vael_thin_nfa_state_info *source) {
    if (target->level >= 0)
        return;
    target->level = source->level + 1;
    queue.push(target);
}

int thin_nfa_validation_scan_tree(const vael_thin_nfa *nfa, vael_thin_nfa_state_info *info) {
    // The run starts at offset 0: that is the initial state, level 0.
    vael_thin_nfa_state_info *root = thin_nfa_check_transition(nfa, info, 0, nullptr, kTableLink);
    if (!root)
        return -1;
    int rc = 0;
    StateQueue queue(info);
    root->level = 0;
    queue.push(root);
    // A fault is recorded and the walk goes on, so that all faults are told.
    while (vael_thin_nfa_state_info *s = queue.pop()) {
        const uint32_t *state = nfa->bnfa + s->bnfa_offset;
        int id = (int)(*state >> BNFA_STATE_ID_SHIFT);
        if (!(*state & BNFA_STATE_PARTIAL)) {
            for (uint32_t c = 0; c < 256; c++) {
                vael_thin_nfa_state_info *t = thin_nfa_check_transition(nfa, info, state[1 + c], s, kTableLink);
                if (!t) {
                    VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: Invalid transition for %02x from full state %d\n", c,
                             id);
                    rc = -1;
                    continue;
                }
                visit(queue, t, s);
            }
            continue;
        }
        if (!thin_nfa_check_transition(nfa, info, state[1] >> 8, s, kFailLink)) {
            VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: Invalid default state for state %d\n", id);
            rc = -1;
        }
        uint32_t n = state[1] & 0xffu;
        for (uint32_t i = 0; i < n; i++) {
            uint32_t byte = state[2 + i] & 0xffu;
            if (i > 0 && byte <= (state[1 + i] & 0xffu)) {
                VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: Transitions from state %d not sorted - %02x after %02x\n",
                         id, byte, state[1 + i] & 0xffu);
                rc = -1;
            }
            vael_thin_nfa_state_info *t = thin_nfa_check_transition(nfa, info, state[2 + i] >> 8, s, kForwardLink);
            if (!t) {
                VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: Invalid transition for %02x from partial state %d\n", byte,
                         id);
                rc = -1;
                continue;
            }
            visit(queue, t, s);
        }
    }
    return rc;
}

int thin_nfa_validation_unvisited_states(const vael_thin_nfa *nfa, const vael_thin_nfa_state_info *info) {
    int rc = 0;
    for (uint32_t id = 0; id < nfa->state_num; id++) {
        if (info[id].level < 0) {
            VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: State %d never visited\n", (int)id);
            rc = -1;
        }
    }
    return rc;
}

int thin_nfa_validation_check_finite_states(const vael_thin_nfa *nfa, const vael_thin_nfa_state_info *info) {
    int rc = 0;
    for (uint32_t id = 0; id < nfa->state_num; id++) {
        bool finite = nfa->bnfa[info[id].bnfa_offset] & BNFA_STATE_FINITE;
        const vael_thin_nfa_pattern_id *list = nfa->pattern_ids[id];
        if (finite && !list) {
            VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: State %d is finite but has no pattern IDs\n", (int)id);
            rc = -1;
        }
        if (!finite) {
            for (const vael_thin_nfa_pattern_id *p = list; p; p = p->next) {
                VAEL_LOG(VAEL_DBG_ERR, kFaultTopics, "%s: State %d is not finite but has pattern ID %d\n", (int)id,
                         (int)p->id);
                rc = -1;
            }
        }
    }
    return rc;
}

// ---------------------------------------------------------------- quick proof
//
// The walk above reads the BNFA in the order of its queue, which for a
// large automaton is a cache miss per link: a 10,000-literal BNFA took
// longer to validate than to copy in many times over. The quick proof reads
// it in layout order, touching beside the BNFA only tables of a few bits or
// bytes per state. It proves what the walk would find, or stops at the first
// thing it cannot prove, and the validation then walks the long way, which
// decides and tells the faults; so the quick proof only has to be sound,
// never complete:
//
//   A. the states tile the BNFA as find_states demands, with distinct IDs,
//      each finite exactly when it has patterns; a bitmap marks the word
//      offsets where they start, and its rank turns an offset into the
//      state's place in the layout;
//   B. levels: offset 0 has 0, and sweeps in layout order lower a target's
//      level to its source's + 1 until nothing changes (the compile puts
//      most parents before their children: two or three sweeps, the later
//      ones over the states that changed only). The levels are then the
//      breadth-first depths the walk gives, and every state has one;
//   C. a forward transition leads exactly one level down, and no other link
//      from its source's level reaches its target (none from above can): so
//      the walk meets the target first by it; every fail state lies on a
//      smaller level than its source.

constexpr uint16_t kLevelUnset = 0xffff;
constexpr uint32_t kMaxSweeps = 64;

struct QuickProof {
    const vael_thin_nfa *nfa;
    uint32_t words;     // whole words of the BNFA: a link's header must fit
    uint64_t *starts;   // bit per word offset
    uint64_t *ids;      // bit per state ID met
    uint64_t *dirty;    // bit per place: level lowered, links to follow
    uint64_t *forward;  // bit per place: target of a forward transition
    uint32_t *rank;     // per starts word: states starting before it
    uint32_t *offset;   // per place: the state's word offset
    uint16_t *level;    // per place
    uint8_t *ways;      // per place: links from one level up, 2 meaning more

    static bool bit(const uint64_t *set, uint32_t k) { return (set[k >> 6] >> (k & 63)) & 1u; }
    static void set_bit(uint64_t *set, uint32_t k) { set[k >> 6] |= 1ull << (k & 63); }
    uint32_t lead_words; // the leading region's full states tile [0, lead_words), 257 words each
    const uint32_t *root = nullptr; // the initial state when it is full
    bool is_start(uint32_t t) const {
        if (t < lead_words)
            return t % BNFA_FULL_STATE_WORDS == 0;
        return t < words && bit(starts, t);
    }
    // Built without a popcount instruction, which the library's target
    // does not promise.
    static uint32_t ones(uint64_t x) {
        x = x - ((x >> 1) & 0x5555555555555555ull);
        x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
        x = (x + (x >> 4)) & 0x0f0f0f0f0f0f0f0full;
        return (uint32_t)((x * 0x0101010101010101ull) >> 56);
    }
    // Most links lead into the leading region, where a place is a quotient.
    uint32_t place(uint32_t t) const {
        if (t < lead_words)
            return t / BNFA_FULL_STATE_WORDS;
        return rank[t >> 6] + ones(starts[t >> 6] & ((1ull << (t & 63)) - 1));
    }
};

// Calls f(target, by forward transition) for each link of the state at s but
// its fail link; a run of equal table entries counts once. False at once
// when f is, or the transitions are out of order.
//
// `root` is the initial state when it is full, else null. A full state's
// entry that equals the root's entry for the same byte is passed over: the
// root's own links were followed first (both passes start there), so that
// target is a state start at level 1 at most, and from a state of level 1 or
// more such a link can neither lower a level nor lead one level down. Below
// the root most entries of a full table are such folded failures.
template <class F>
bool for_each_link(const uint32_t *s, const uint32_t *root, F &&f) {
    if (!(*s & BNFA_STATE_PARTIAL)) {
        uint32_t last = UINT32_MAX;
        if (!root || s == root) {
            for (uint32_t c = 0; c < 256; c++) {
                uint32_t t = s[1 + c];
                if (t != last && !f(t, false))
                    return false;
                last = t;
            }
            return true;
        }
        for (uint32_t c = 0; c < 256; c += 4) {
#if defined(__SSE2__)
            const __m128i mine = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + 1 + c));
            const __m128i roots = _mm_loadu_si128(reinterpret_cast<const __m128i *>(root + 1 + c));
            unsigned differ = ~(unsigned)_mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(mine, roots))) & 0xfu;
#else
            unsigned differ = 0;
            for (uint32_t i = 0; i < 4; i++)
                differ |= (unsigned)(s[1 + c + i] != root[1 + c + i]) << i;
#endif
            for (; differ; differ &= differ - 1) {
                uint32_t t = s[1 + c + (uint32_t)__builtin_ctz(differ)];
                if (t != last && !f(t, false))
                    return false;
                last = t;
            }
        }
        return true;
    }
    uint32_t n = s[1] & 0xffu;
    for (uint32_t i = 0; i < n; i++) {
        if (i > 0 && (s[2 + i] & 0xffu) <= (s[1 + i] & 0xffu))
            return false;
        if (!f(s[2 + i] >> 8, true))
            return false;
    }
    return true;
}

// Pass A.
bool quick_tile(QuickProof &q) {
    const vael_thin_nfa *nfa = q.nfa;
    const uint64_t size = nfa->bnfa_size;
    const uint32_t limit = nfa->bnfa_full_size / 4;
    uint64_t offset = 0;
    for (uint32_t i = 0; i < nfa->state_num; i++) {
        if (4 * offset + 8 > size) // a full state is longer, a partial one has two words
            return false;
        uint32_t header = nfa->bnfa[offset];
        uint64_t words = (header & BNFA_STATE_PARTIAL) ? 2 + (nfa->bnfa[offset + 1] & 0xffu) : BNFA_FULL_STATE_WORDS;
        uint32_t id = header >> BNFA_STATE_ID_SHIFT;
        bool leading = !(header & BNFA_STATE_KIND_MASK);
        if (4 * (offset + words) > size || leading != (offset < limit) || id >= nfa->state_num ||
            QuickProof::bit(q.ids, id) || ((header & BNFA_STATE_FINITE) != 0) != (nfa->pattern_ids[id] != nullptr))
            return false;
        QuickProof::set_bit(q.ids, id);
        QuickProof::set_bit(q.starts, (uint32_t)offset);
        q.offset[i] = (uint32_t)offset;
        offset += words;
        if (leading)
            q.lead_words = (uint32_t)offset;
    }
    uint32_t before = 0;
    for (uint32_t w = 0; w < (q.words + 63) / 64; w++) {
        q.rank[w] = before;
        before += QuickProof::ones(q.starts[w]);
    }
    return true;
}

// Pass B.
bool quick_levels(QuickProof &q, size_t set_words) {
    q.level[0] = 0;
    QuickProof::set_bit(q.dirty, 0);
    for (uint32_t sweep = 0;; sweep++) {
        bool any = false;
        for (size_t w = 0; w < set_words; w++) {
            // Re-read: a link may mark a later state of this word.
            while (q.dirty[w]) {
                any = true;
                uint32_t k = (uint32_t)(64 * w + (size_t)__builtin_ctzll(q.dirty[w]));
                q.dirty[w] &= q.dirty[w] - 1;
                uint32_t down = q.level[k] + 1u;
                if (down >= kLevelUnset)
                    return false;
                bool ok = for_each_link(q.nfa->bnfa + q.offset[k], q.root, [&](uint32_t t, bool) {
                    if (!q.is_start(t))
                        return false;
                    uint32_t at = q.place(t);
                    if (q.level[at] > down) {
                        q.level[at] = (uint16_t)down;
                        QuickProof::set_bit(q.dirty, at);
                    }
                    return true;
                });
                if (!ok)
                    return false;
            }
        }
        if (!any)
            return true;
        if (sweep == kMaxSweeps)
            return false;
    }
}

// Pass C.
bool quick_links(QuickProof &q) {
    const uint32_t n = q.nfa->state_num;
    for (uint32_t k = 0; k < n; k++) {
        const uint32_t *s = q.nfa->bnfa + q.offset[k];
        uint32_t lv = q.level[k];
        if (lv == kLevelUnset)
            return false; // never reached
        if (*s & BNFA_STATE_PARTIAL) {
            uint32_t fail = s[1] >> 8;
            if (!q.is_start(fail) || q.level[q.place(fail)] >= lv)
                return false;
        }
        bool ok = for_each_link(s, q.root, [&](uint32_t t, bool by_forward) {
            uint32_t at = q.place(t);
            if (q.level[at] == lv + 1 && q.ways[at] < 2)
                q.ways[at]++;
            if (by_forward) {
                if (q.level[at] != lv + 1)
                    return false;
                QuickProof::set_bit(q.forward, at);
            }
            return true;
        });
        if (!ok)
            return false;
    }
    for (uint32_t k = 0; k < n; k++)
        if (QuickProof::bit(q.forward, k) && q.ways[k] != 1)
            return false;
    return true;
}

}  // namespace

extern "C" int vael_thin_nfa_validate_quick(const vael_thin_nfa *nfa) {
    if (!nfa || !nfa->bnfa || !nfa->pattern_ids || nfa->state_num == 0)
        return 0;
    QuickProof q{};
    q.nfa = nfa;
    q.words = nfa->bnfa_size / 4;
    const size_t n = nfa->state_num;
    const size_t start_words = ((size_t)q.words + 63) / 64;
    const size_t set_words = (n + 63) / 64;
    const size_t zeroed = 8 * (start_words + 3 * set_words);
    const size_t bytes = zeroed + 4 * (start_words + n) + 2 * n + n;
    auto *block = static_cast<unsigned char *>(VAEL_KMALLOC(bytes));
    if (!block)
        return -1;
    q.starts = reinterpret_cast<uint64_t *>(block);
    q.ids = q.starts + start_words;
    q.dirty = q.ids + set_words;
    q.forward = q.dirty + set_words;
    q.rank = reinterpret_cast<uint32_t *>(q.forward + set_words);
    q.offset = q.rank + start_words;
    q.level = reinterpret_cast<uint16_t *>(q.offset + n);
    q.ways = reinterpret_cast<uint8_t *>(q.level + n);
    std::memset(block, 0, zeroed);
    std::memset(q.level, 0xff, 2 * n);
    std::memset(q.ways, 0, n);
    bool tiled = quick_tile(q);
    // The tiling put a state, whole, at offset 0.
    if (tiled && !(nfa->bnfa[0] & BNFA_STATE_PARTIAL))
        q.root = nfa->bnfa;
    bool proven = tiled && quick_levels(q, set_words) && quick_links(q);
    VAEL_KFREE(block, bytes);
    return proven ? 1 : 0;
}

extern "C" int vael_thin_nfa_validate_walk(const vael_thin_nfa *nfa) {
    if (!nfa || !nfa->bnfa || !nfa->pattern_ids)
        return 0;
    vael_thin_nfa_state_info *info = info_alloc(nfa->state_num ? nfa->state_num : 1);
    if (!info) {
        VAEL_LOG(VAEL_DBG_ERR, "K_THINNFA | K_PM", "%s: Failed to allocate memory for validating %d states\n",
                 (int)nfa->state_num);
        return -1;
    }
    bool valid = thin_nfa_validation_find_states(nfa, info) == 0 && thin_nfa_validation_scan_tree(nfa, info) == 0 &&
                 thin_nfa_validation_unvisited_states(nfa, info) == 0 &&
                 thin_nfa_validation_check_finite_states(nfa, info) == 0;
    info_free(info, nfa->state_num ? nfa->state_num : 1);
    if (valid)
        VAEL_LOG_AS("vael_thin_nfa_is_valid", VAEL_DBG_NOTICE, "K_THINNFA", "%s: Thin NFA %p validation succeeded\n",
                    (const void *)nfa);
    else
        VAEL_LOG_AS("vael_thin_nfa_is_valid", VAEL_DBG_ERR, "K_ERROR", "%s: Thin NFA %p validation failed\n",
                    (const void *)nfa);
    return valid ? 1 : 0;
}

// Below this size the walk's misses stay in the cache, and it is the faster
// of the two; above it the quick proof goes first.
constexpr uint32_t kQuickProofMinBytes = 512u << 10;

extern "C" int vael_thin_nfa_validate(const vael_thin_nfa *nfa) {
    if (!nfa || nfa->bnfa_size < kQuickProofMinBytes || vael_thin_nfa_validate_quick(nfa) != 1)
        return vael_thin_nfa_validate_walk(nfa);
    VAEL_LOG_AS("vael_thin_nfa_is_valid", VAEL_DBG_NOTICE, "K_THINNFA", "%s: Thin NFA %p validation succeeded\n",
                (const void *)nfa);
    return 1;
}

// A lack of memory is no fault of the automaton: it counts as valid here.
extern "C" int vael_thin_nfa_is_valid(const vael_thin_nfa *nfa) { return vael_thin_nfa_validate(nfa) != 0; }

// ---------------------------------------------------------------- dumps

namespace {

void out(const char *format, ...) __attribute__((format(printf, 1, 2)));
void out(const char *format, ...) {
    char line[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    vael_us_adaptor_kdprintf_no_prefix("%s", line);
}

// Where the target of a full table entry or a link stands, by ID; -1 for an
// offset that starts no state.
int32_t target_id(const vael_thin_nfa *nfa, const vael_thin_nfa_state_info *info, uint32_t offset) {
    if (4ull * offset + 4 > nfa->bnfa_size)
        return -1;
    uint32_t id = state_id_at(nfa, offset);
    return id < nfa->state_num && info[id].bnfa_offset == offset ? (int32_t)id : -1;
}

// The edge label of one XML transition, built in one buffer: dumps must not
// overlap.
constexpr size_t kLabelMax = 1280;
char g_xml_label[kLabelMax + 8];

const char *edge_label(const unsigned char *marks) {
    size_t used = 0;
    g_xml_label[0] = 0;
    for (int c = 0; c < 256 && used < kLabelMax; c++) {
        if (!marks[c])
            continue;
        char item[8];
        int n = std::isalnum(c) ? std::snprintf(item, sizeof item, "%c", c) : std::snprintf(item, sizeof item, "0x%02x", c);
        const char *sep = used ? "|" : "";
        size_t need = std::strlen(sep) + (size_t)n;
        if (used + need > kLabelMax)
            break;
        std::memcpy(g_xml_label + used, sep, std::strlen(sep));
        used += std::strlen(sep);
        std::memcpy(g_xml_label + used, item, (size_t)n);
        used += (size_t)n;
        g_xml_label[used] = 0;
    }
    return g_xml_label;
}

void print_edge(int from, int to, const char *label) {
    out("\t\t<transition>\n");
    out("\t\t\t<from>%d</from>\n", from);
    out("\t\t\t<to>%d</to>\n", to);
    if (!label) {
        out("\t\t\t<read/>\n");
    } else {
        // A label can pass the length of one debug line: it goes in pieces.
        out("\t\t\t<read>");
        for (size_t at = 0, len = std::strlen(label); at < len; at += 512)
            out("%.512s", label + at);
        out("</read>\n");
    }
    out("\t\t</transition>\n");
}

// Per target state of the state being printed: how many bytes lead there,
// and which.
struct EdgeWork {
    uint32_t *count;
    unsigned char *marks; // 256 per state
};

}  // namespace

extern "C" int vael_thin_nfa_dump_xml(const vael_thin_nfa *nfa) {
    if (!nfa || vael_thin_nfa_validate(nfa) != 1) {
        VAEL_LOG(VAEL_DBG_ERR, "K_THINNFA | K_ERROR", "%s: Failed to validate Thin NFA\n");
        return -1;
    }
    const uint32_t n = nfa->state_num;
    vael_thin_nfa_state_info *info = info_alloc(n);
    if (!info) {
        VAEL_LOG(VAEL_DBG_ERR, "K_THINNFA | K_ERROR", "%s: Failed to allocate memory for validating %d states\n",
                 (int)n);
        return -1;
    }
    EdgeWork work{static_cast<uint32_t *>(VAEL_KMALLOC(sizeof(uint32_t) * (size_t)n)),
                  static_cast<unsigned char *>(VAEL_KMALLOC(256 * (size_t)n))};
    int rc = -1;
    if (!work.count || !work.marks) {
        VAEL_LOG(VAEL_DBG_ERR, "K_THINNFA | K_ERROR",
                 "%s: Failed to allocate memory for transition info of %d states\n", (int)n);
    } else if (thin_nfa_validation_find_states(nfa, info) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_THINNFA | K_ERROR", "%s: Failed to fill NFA state info\n");
    } else {
        std::memset(work.count, 0, sizeof(uint32_t) * (size_t)n);
        std::memset(work.marks, 0, 256 * (size_t)n);
        out("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
        out("<!--Created with JFLAP 6.0.--> ");
        out("<structure>\n");
        out("\t<type>fa</type>\n");
        out("\t<automaton>\n");
        out("\t\t<!--The list of states.-->\n");

        int32_t x = 0, y = 0, printed_level = 0;
        auto print_state = [&](vael_thin_nfa_state_info *s) {
            if (s->level > printed_level) {
                printed_level = s->level;
                x += 100;
                y = 0;
            }
            uint32_t header = nfa->bnfa[s->bnfa_offset];
            int id = (int)(header >> BNFA_STATE_ID_SHIFT);
            out("\t\t<state id=\"%d\" name=\"%c%d\">\n", id, (header & BNFA_STATE_PARTIAL) ? 'p' : 'f', id);
            out("\t\t\t<x>%d</x>\n", x);
            out("\t\t\t<y>%d</y>\n", y);
            if (s->bnfa_offset == 0)
                out("\t\t\t<%s/>\n", "initial");
            else if (header & BNFA_STATE_FINITE)
                out("\t\t\t<%s/>\n", "final");
            out("\t\t</state>\n");
            y += 100;
        };

        StateQueue queue(info);
        vael_thin_nfa_state_info *root = &info[state_id_at(nfa, 0)];
        root->level = 0;
        print_state(root);
        queue.push(root);
        while (vael_thin_nfa_state_info *s = queue.pop()) {
            const uint32_t *state = nfa->bnfa + s->bnfa_offset;
            int from = (int)(*state >> BNFA_STATE_ID_SHIFT);
            bool partial = *state & BNFA_STATE_PARTIAL;
            // At most 256 targets per state: only they are looked at, so the
            // dump stays linear in the BNFA.
            uint32_t touched[256];
            uint32_t touched_num = 0;
            auto mark = [&](uint32_t c, uint32_t offset) {
                int32_t t = target_id(nfa, info, offset);
                if (t < 0 || work.marks[256 * (size_t)t + c])
                    return;
                work.marks[256 * (size_t)t + c] = 1;
                if (work.count[t]++ == 0)
                    touched[touched_num++] = (uint32_t)t;
            };
            if (partial) {
                for (uint32_t i = 0; i < (state[1] & 0xffu); i++)
                    mark(state[2 + i] & 0xffu, state[2 + i] >> 8);
            } else {
                for (uint32_t c = 0; c < 256; c++)
                    mark(c, state[1 + c]);
            }
            std::sort(touched, touched + touched_num);
            uint32_t top = 0;
            bool tie = false;
            for (uint32_t i = 0; i < touched_num; i++) {
                uint32_t count = work.count[touched[i]];
                if (count > top) {
                    top = count;
                    tie = false;
                } else if (count == top) {
                    tie = true;
                }
            }
            // New states of the next level, by ascending ID, before the edges.
            for (uint32_t i = 0; i < touched_num; i++) {
                vael_thin_nfa_state_info *t = &info[touched[i]];
                if (t->level < 0) {
                    t->level = s->level + 1;
                    print_state(t);
                    queue.push(t);
                }
            }
            for (uint32_t i = 0; i < touched_num; i++) {
                uint32_t t = touched[i];
                if (work.count[t] == top && top >= 2 && !tie) {
                    // The default edge: the bytes that lead nowhere special.
                    if (!(info[t].bnfa_offset == 0 && vael_thin_nfa_xml_omit_fail_to_init))
                        print_edge(from, (int)t, "OTHER");
                } else {
                    print_edge(from, (int)t, edge_label(work.marks + 256 * (size_t)t));
                }
                work.count[t] = 0;
                std::memset(work.marks + 256 * (size_t)t, 0, 256);
            }
            if (partial) {
                int32_t fail = target_id(nfa, info, state[1] >> 8);
                if (fail >= 0 && !(info[fail].bnfa_offset == 0 && vael_thin_nfa_xml_omit_fail_to_init))
                    print_edge(from, fail, nullptr);
            }
        }
        out("\t</automaton>\n");
        out("</structure>\n");
        rc = 0;
    }
    if (work.count)
        VAEL_KFREE(work.count, sizeof(uint32_t) * (size_t)n);
    if (work.marks)
        VAEL_KFREE(work.marks, 256 * (size_t)n);
    info_free(info, n);
    return rc;
}

namespace {

const char *column_name(int c, char *buf, size_t size) {
    switch (c) {
        case ' ':
            return "space";
        case '"':
            return "dquote";
        case '\'':
            return "quote";
        case ',':
            return "comma";
        case '\\':
            return "bslash";
        default:
            break;
    }
    if (std::isprint(c))
        std::snprintf(buf, size, "%c", c);
    else
        std::snprintf(buf, size, "0x%02X", c);
    return buf;
}

bool column_shown(int c) { return !vael_thin_nfa_csv_printable_only || std::isprint(c); }

}  // namespace

extern "C" int vael_thin_nfa_dump_csv(const vael_thin_nfa *nfa) {
    if (!nfa)
        return -1;
    const uint32_t n = nfa->state_num;
    vael_thin_nfa_state_info *info = info_alloc(n ? n : 1);
    if (!info) {
        VAEL_LOG(VAEL_DBG_ERR, "K_THINNFA | K_ERROR", "%s: Failed to allocate memory for dumping %d states\n",
                 (int)n);
        return -1;
    }
    if (thin_nfa_validation_find_states(nfa, info) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_THINNFA | K_ERROR", "%s: Failed to fill NFA state info\n");
        info_free(info, n ? n : 1);
        return -1;
    }
    out("state_id,is_final,is_partial,fail_state\n");
    for (uint32_t id = 0; id < n; id++) {
        if (info[id].bnfa_offset == kNoOffset)
            continue;
        const uint32_t *state = nfa->bnfa + info[id].bnfa_offset;
        bool partial = *state & BNFA_STATE_PARTIAL;
        out("%d,%d,%d", (int)id, (*state & BNFA_STATE_FINITE) ? 1 : 0, partial ? 1 : 0);
        if (partial)
            out(", %d", (int)target_id(nfa, info, state[1] >> 8));
        else
            out(", ");
        out("\n");
    }
    out("\n");
    out("Transition table:\n");
    bool first = true;
    for (int c = 0; c < 256; c++) {
        if (!column_shown(c))
            continue;
        char buf[8];
        out("%s%s", first ? "" : ",", column_name(c, buf, sizeof buf));
        first = false;
    }
    out("\n");
    for (uint32_t id = 0; id < n; id++) {
        if (info[id].bnfa_offset == kNoOffset)
            continue;
        const uint32_t *state = nfa->bnfa + info[id].bnfa_offset;
        bool partial = *state & BNFA_STATE_PARTIAL;
        first = true;
        for (int c = 0; c < 256; c++) {
            if (!column_shown(c))
                continue;
            const char *sep = first ? "" : ",";
            first = false;
            if (!partial) {
                out("%s%d", sep, (int)target_id(nfa, info, state[1 + c]));
                continue;
            }
            int32_t t = -1;
            bool found = false;
            for (uint32_t i = 0; i < (state[1] & 0xffu) && !found; i++) {
                if ((state[2 + i] & 0xffu) == (uint32_t)c) {
                    t = target_id(nfa, info, state[2 + i] >> 8);
                    found = true;
                }
            }
            if (found)
                out("%s%d", sep, (int)t);
            else
                out("%s", sep);
        }
        out("\n");
    }
    info_free(info, n ? n : 1);
    return 0;
}

extern "C" int vael_thin_nfa_dump(const vael_thin_nfa *nfa, int format) {
    switch (format) {
        case VAEL_THIN_NFA_DUMP_XML:
            return vael_thin_nfa_dump_xml(nfa);
        case VAEL_THIN_NFA_DUMP_CSV:
            return vael_thin_nfa_dump_csv(nfa);
        default:
            VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Invalid dump format %d\n", format);
            return -1;
    }
}
