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
// large automaton is a cache miss per link. The quick proof reads it in the
// order of ascending state ID, as two streams, one per region, which for a
// BNFA that the compile laid out is its layout order; beside it, it keeps a
// word per state and two bits per BNFA word. It proves what the walk would
// find, or stops at the first thing it cannot prove, and the validation then
// walks, which decides and tells the faults; so the quick proof only has to
// be sound, never complete.
//
// Each state, at its turn:
//
//   - lies where find_states would find it: the leading region holds full
//     non-finite states only, 257 words each; the rest tile the BNFA from
//     its end, in the bounds of bnfa_size. Its ID is below state_num and met
//     once (so every ID is met), and it is finite exactly when it has
//     patterns. Its offset is marked as a start, each link's target as
//     claimed; a claimed offset that no state starts refuses the BNFA at the
//     end, so a link's target is read as a state header in between, and a
//     wrong one can only lead to that refusal;
//   - has a level, final: the initial state has 0, and each state's links
//     lower their targets' levels to its own + 1. The compile numbers a state
//     after its parent in the trie, whose depths are the shortest paths, so
//     a state's level is final when its turn comes. A state whose turn comes
//     without a level, or whose level would drop after its turn, ends the
//     proof. The levels are then the breadth-first depths of the walk;
//   - counts the links that reach it from one level up. When a forward
//     transition leads to it, that must be the only such link and the only
//     forward transition into it: so the walk meets it first by that one.
//     A link that comes after its turn must not change that.
//
// Then, with every level final, each partial state's fail state must lie on
// a smaller level. That is a pass of its own: fail states lie anywhere, and
// a loop this small keeps many of their cache misses in flight at once.

// The word of a state, by ID. Levels from kLevelMask - 1 on are not proven.
constexpr uint32_t kLevelMask = 0xffffu;  // level; kLevelMask until reached
constexpr uint32_t kDone = 1u << 16;      // its turn has passed
constexpr uint32_t kForward = 1u << 17;   // a forward transition leads here
constexpr uint32_t kForwardUp = 1u << 18; // ... from one level up
constexpr uint32_t kWayOne = 1u << 19;    // links from one level up: 0, 1, or 2 for more
constexpr uint32_t kWays = 3u << 19;

struct QuickProof {
    const vael_thin_nfa *nfa;
    const uint32_t *bnfa;
    uint32_t words;     // whole words of the BNFA: a link's header must fit
    uint32_t n;         // state_num
    uint32_t lead_words; // the leading region's states end here
    uint64_t *starts;   // bit per word offset where a state starts
    uint64_t *claimed;  // bit per word offset that a link leads to
    uint32_t *info;     // per state ID

    static void mark(uint64_t *set, uint32_t k) { set[k >> 6] |= 1ull << (k & 63); }
    // The word of the state that a link to t claims to reach; null when t
    // cannot hold a header of a state.
    uint32_t *target(uint32_t t) const {
        if (t >= words)
            return nullptr;
        mark(claimed, t);
        const uint32_t id = bnfa[t] >> BNFA_STATE_ID_SHIFT;
        return id < n ? &info[id] : nullptr;
    }
};

// A link into a state whose word is w, from a state on level down - 1.
// False when the proof cannot go on.
inline bool reach(uint32_t *w, uint32_t down, bool forward) {
    if (!w)
        return false;
    const uint32_t word = *w;
    const uint32_t level = word & kLevelMask;
    if (word & kDone) {
        // Its level and its forward transition were settled at its turn.
        return down > level ? !forward : down == level && !forward && !(word & kForward);
    }
    if (down < level) {
        *w = (word & ~(kLevelMask | kWays | kForwardUp)) | down | kWayOne | (forward ? kForwardUp : 0);
    } else if (down == level) {
        *w = ((word & kWays) < 2 * kWayOne ? word + kWayOne : word) | (forward ? kForwardUp : 0);
    } else if (forward) {
        return false; // the walk would find the target visited
    }
    if (forward) {
        if (*w & kForward)
            return false; // a second forward transition into it
        *w |= kForward;
    }
    return true;
}

// The links of a full state. `root` is the initial state once its turn has
// passed, else null: an entry equal to the root's for the same byte leads
// to a state of level 1 at most, and from a state of level 1 or more such a
// link can neither lower a level nor come from one level up, so it is passed
// over. Below the root most entries of a full table are such folded failures.
// A run of equal entries counts once; the first entry is always followed,
// whatever its value.
bool follow_table(const QuickProof &q, const uint32_t *s, const uint32_t *root, uint32_t down) {
    uint32_t last = 0;
    bool followed = false;
    auto follow = [&](uint32_t t) {
        if (followed && t == last)
            return true;
        followed = true;
        last = t;
        return reach(q.target(t), down, false);
    };
    if (!root) {
        for (uint32_t c = 0; c < 256; c++)
            if (!follow(s[1 + c]))
                return false;
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
        for (; differ; differ &= differ - 1)
            if (!follow(s[1 + c + (uint32_t)__builtin_ctz(differ)]))
                return false;
    }
    return true;
}

// A partial state's transitions; its fail link waits for the last pass.
bool follow_partial(const QuickProof &q, const uint32_t *s, uint32_t down) {
    const uint32_t count = s[1] & 0xffu;
    uint32_t previous = 0;
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t word = s[2 + i];
        if ((i > 0 && (word & 0xffu) <= previous) || !reach(q.target(word >> 8), down, true))
            return false;
        previous = word & 0xffu;
    }
    return true;
}

// The fail links, every level final. Branch-free but for the end: a link
// that leaves the BNFA or names no state is read as one to the initial state
// and noted as a fault.
bool check_fail_links(const QuickProof &q) {
    uint32_t faults = 0;
    for (uint32_t w = q.lead_words >> 6; w < (q.words + 63) / 64; w++) {
        uint64_t bits = q.starts[w];
        if (w == q.lead_words >> 6)
            bits &= ~0ull << (q.lead_words & 63);
        for (; bits; bits &= bits - 1) {
            const uint32_t *s = q.bnfa + 64 * w + (uint32_t)__builtin_ctzll(bits);
            if (!(*s & BNFA_STATE_PARTIAL))
                continue;
            uint32_t fail = s[1] >> 8;
            faults |= fail >= q.words;
            fail = fail < q.words ? fail : 0;
            QuickProof::mark(q.claimed, fail);
            uint32_t id = q.bnfa[fail] >> BNFA_STATE_ID_SHIFT;
            faults |= id >= q.n;
            id = id < q.n ? id : 0;
            faults |= (q.info[id] & kLevelMask) >= (q.info[*s >> BNFA_STATE_ID_SHIFT] & kLevelMask);
        }
    }
    return faults == 0;
}

// The state at word offset s takes its turn.
inline bool take_turn(QuickProof &q, uint32_t s, const uint32_t *&root) {
    const uint32_t *state = q.bnfa + s;
    const uint32_t id = *state >> BNFA_STATE_ID_SHIFT;
    if (id >= q.n)
        return false;
    uint32_t &self = q.info[id];
    const uint32_t word = self;
    const uint32_t level = word & kLevelMask;
    // Met twice; not reached before its turn, or too deep to count; not met
    // first by its forward transition; finite without patterns or the other
    // way round.
    if ((word & kDone) || level >= kLevelMask - 1 ||
        ((word & kForward) && (!(word & kForwardUp) || (word & kWays) != kWayOne)) ||
        ((*state & BNFA_STATE_FINITE) != 0) != (q.nfa->pattern_ids[id] != nullptr))
        return false;
    self = word | kDone;
    QuickProof::mark(q.starts, s);
    if (*state & BNFA_STATE_PARTIAL)
        return follow_partial(q, state, level + 1);
    if (!follow_table(q, state, root, level + 1))
        return false;
    if (s == 0)
        root = state;
    return true;
}

bool quick_prove(QuickProof &q) {
    const uint32_t *bnfa = q.bnfa;
    const uint64_t size = q.nfa->bnfa_size;
    // The leading region: the states that start below its limit, full.
    const uint32_t limit = q.nfa->bnfa_full_size / 4;
    const uint32_t lead_states = (limit + BNFA_FULL_STATE_WORDS - 1) / BNFA_FULL_STATE_WORDS;
    if (lead_states > q.n || 4ull * lead_states * BNFA_FULL_STATE_WORDS > size || size < 8)
        return false;
    // The initial state, at offset 0: level 0.
    uint32_t *root_word = q.target(0);
    if (!root_word)
        return false;
    *root_word &= ~kLevelMask;
    const uint32_t *root = nullptr;
    uint32_t lead = 0, lead_left = lead_states;
    uint64_t rest = (uint64_t)lead_states * BNFA_FULL_STATE_WORDS;
    uint32_t rest_left = q.n - lead_states;
    while (lead_left | rest_left) {
        // The next state of the other region, whole in the BNFA.
        uint32_t rest_words = 0;
        if (rest_left) {
            if (4 * rest + 8 > size)
                return false;
            const uint32_t header = bnfa[rest];
            rest_words = (header & BNFA_STATE_PARTIAL) ? 2 + (bnfa[rest + 1] & 0xffu) : BNFA_FULL_STATE_WORDS;
            if (4 * (rest + rest_words) > size || !(header & BNFA_STATE_KIND_MASK))
                return false;
        }
        // Headers compare as their IDs, in the high bits.
        if (lead_left && (!rest_left || bnfa[lead] < bnfa[rest])) {
            if (bnfa[lead] & BNFA_STATE_KIND_MASK)
                return false;
            if (!take_turn(q, lead, root))
                return false;
            lead += BNFA_FULL_STATE_WORDS;
            lead_left--;
        } else {
            if (!take_turn(q, (uint32_t)rest, root))
                return false;
            rest += rest_words;
            rest_left--;
        }
    }
    q.lead_words = lead_states * BNFA_FULL_STATE_WORDS;
    if (!check_fail_links(q))
        return false;
    for (uint32_t w = 0; w < (q.words + 63) / 64; w++)
        if (q.claimed[w] & ~q.starts[w])
            return false;
    return true;
}

}  // namespace

extern "C" int vael_thin_nfa_validate_quick(const vael_thin_nfa *nfa) {
    if (!nfa || !nfa->bnfa || !nfa->pattern_ids || nfa->state_num == 0)
        return 0;
    QuickProof q{};
    q.nfa = nfa;
    q.bnfa = nfa->bnfa;
    q.words = nfa->bnfa_size / 4;
    q.n = nfa->state_num;
    const size_t set_words = ((size_t)q.words + 63) / 64;
    const size_t zeroed = 16 * set_words;
    const size_t bytes = zeroed + 4 * (size_t)q.n;
    auto *block = static_cast<unsigned char *>(VAEL_KMALLOC(bytes));
    if (!block)
        return -1;
    std::memset(block, 0, zeroed);
    q.starts = reinterpret_cast<uint64_t *>(block);
    q.claimed = q.starts + set_words;
    q.info = reinterpret_cast<uint32_t *>(q.claimed + set_words);
    std::fill_n(q.info, q.n, kLevelMask);
    const bool proven = quick_prove(q);
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

// The quick proof first, at every size: it is the faster of the two even on
// a BNFA that stays in the cache.
extern "C" int vael_thin_nfa_validate(const vael_thin_nfa *nfa) {
    if (!nfa || vael_thin_nfa_validate_quick(nfa) != 1)
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
