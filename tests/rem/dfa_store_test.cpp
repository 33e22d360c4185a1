// The automaton store: state limits and blocks, finalize and the two id
// forms, validation against corrupted records, the copy of final ids and
// duplication.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;
using vael_test::ScopedGlobal;

// Owner of a machine for a test body.
struct DfaPtr {
    vael_dfa *p = nullptr;
    explicit DfaPtr(vael_dfa *d) : p(d) {}
    ~DfaPtr() { vael_dfa_destroy(p); }
};

// Creates states until one is refused or `most` are made; the count made.
uint32_t fill(vael_dfa *dfa, uint32_t most) {
    uint32_t n = 0;
    while (n < most && vael_dfa_state_create(dfa))
        n++;
    return n;
}

TEST(DfaStore, StateLimitsAndBlocks) {
    const uint32_t small_fit = (uint32_t)vael_dfa_small_block_size / VAEL_DFA_STATE_SIZE;
    const struct {
        const char *name;
        int should_limit;
        uint32_t flags;
        bool set_limit_zero;
        uint32_t expect_made;  // states made before the first refusal
        uint16_t expect_blocks;
        bool refused;            // the next state is refused
        const char *error_text;  // words for the caller, or null
    } rows[] = {
        {"default limit", 1, 0, false, 7767, 1, true, "This pattern is too complex. Consider rewriting the pattern."},
        {"limit check off", 0, 0, false, 7800, 2, false, nullptr},
        {"limit 0 admits 62135", 1, 0, true, 62135, 8, true, nullptr},
        {"small blocks", 1, VAEL_DFA_SMALL_BLOCKS, false, small_fit, 1, true, nullptr},
    };
    LogCapture quiet;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        ScopedGlobal limit(vael_dfa_should_limit_states, r.should_limit);
        vael_pm_error err;
        vael_pm_error_init(&err);
        DfaPtr dfa(vael_dfa_create(r.flags, &err));
        ASSERT_NE(dfa.p, nullptr);
        if (r.set_limit_zero) {
            vael_dfa_set_state_limit(dfa.p, 0);
            EXPECT_EQ(dfa.p->state_limit, 62136u);
        }
        const uint32_t made = fill(dfa.p, r.expect_made + 1);
        EXPECT_EQ(made, r.refused ? r.expect_made : r.expect_made + 1);
        EXPECT_EQ(vael_dfa_get_num_of_states(dfa.p), made);
        EXPECT_EQ(dfa.p->num_of_blocks, r.expect_blocks);
        EXPECT_STREQ(err.error_string, r.error_text);
        // Every state is where its linear id says.
        for (uint32_t id : {0u, made / 2, made - 1}) {
            vael_dfa_state *s = vael_dfa_state_get_by_id(dfa.p, id);
            ASSERT_NE(s, nullptr);
            EXPECT_EQ(s->id, id);
            EXPECT_EQ(s, dfa.p->blocks[id / 7767] + id % 7767);
        }
    }
}

TEST(DfaStore, FinalizeCutsTheLastBlockAndPacksIds) {
    ScopedGlobal limit(vael_dfa_should_limit_states, 0);
    const struct {
        uint32_t states;
        uint32_t target_id;     // the edge 0 -> target on 'x'
        uint16_t expect_entry;  // what the entry reads after finalize
        uint16_t expect_blocks;
    } rows[] = {{5, 4, 4, 1}, {7767, 7766, 7766, 1}, {7768, 7767, 8192, 2}, {2 * 7767 + 6, 2 * 7767 + 5, 2 * 8192 + 5, 3}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.states);
        DfaPtr dfa(vael_dfa_create(0, nullptr));
        ASSERT_EQ(fill(dfa.p, r.states), r.states);
        vael_dfa_state *s0 = vael_dfa_state_get_by_id(dfa.p, 0);
        vael_dfa_state *t = vael_dfa_state_get_by_id(dfa.p, r.target_id);
        ASSERT_EQ(vael_dfa_state_add_trans(s0, 'x', t), 0);
        EXPECT_EQ(vael_dfa_state_get_next_state(s0, 'x'), t);
        // Every state leads on to the next, the last back to 0, so the
        // machine is complete and connected.
        for (uint32_t id = 0; id < r.states; id++) {
            vael_dfa_state *s = vael_dfa_state_get_by_id(dfa.p, id);
            vael_dfa_state *next = vael_dfa_state_get_by_id(dfa.p, (id + 1) % r.states);
            for (int c = 0; c < 256; c++)
                if (!(id == 0 && c == 'x'))
                    vael_dfa_state_add_trans(s, (unsigned char)c, next);
        }
        vael_dfa_set_initial_state(dfa.p, vael_dfa_state_get_by_id(dfa.p, r.states - 1));
        ASSERT_EQ(vael_dfa_finalize(dfa.p), dfa.p);
        EXPECT_EQ(dfa.p->num_of_blocks, r.expect_blocks);
        const uint16_t last = dfa.p->num_of_blocks - 1;
        EXPECT_EQ(dfa.p->block_capacity[last], dfa.p->block_used[last]);
        s0 = vael_dfa_state_get_by_id(dfa.p, 0);
        EXPECT_EQ(s0->trans['x'], r.expect_entry);
        EXPECT_EQ(vael_dfa_state_get_by_id_fast(dfa.p, s0->trans['x'])->id, r.target_id);
        EXPECT_EQ(vael_dfa_get_initial_state(dfa.p), vael_dfa_state_get_by_id(dfa.p, r.states - 1));
        EXPECT_EQ((s0->properties & VAEL_DFA_STATE_PACKED) != 0, r.expect_blocks > 1);
        EXPECT_EQ(vael_dfa_is_valid(dfa.p), 1);
        if (r.expect_blocks > 1) {
            LogCapture quiet;
            // An entry left in linear form names index 7767 of block 0: no state.
            const uint16_t saved = s0->trans['A'];
            s0->trans['A'] = 7767;
            EXPECT_EQ(vael_dfa_is_valid(dfa.p), 0);
            s0->trans['A'] = saved;
            EXPECT_EQ(vael_dfa_finalize(dfa.p), nullptr);  // a second finalize destroys it
            dfa.p = nullptr;
        }
    }
}

// A finalized machine over "ab" with a dead state: 0 -a-> 1 -b-> 2 (final,
// loops), everything else to 3 (dead, loops).
vael_dfa *small_machine(uint32_t extra_states = 0) {
    vael_dfa *dfa = vael_dfa_create(0, nullptr);
    vael_dfa_state *s[4];
    for (auto &p : s)
        p = vael_dfa_state_create(dfa);
    for (int c = 0; c < 256; c++)
        for (int i = 0; i < 4; i++)
            vael_dfa_state_add_trans(s[i], (unsigned char)c, s[i == 2 ? 2 : 3]);
    vael_dfa_state_add_trans(s[0], 'a', s[1]);
    vael_dfa_state_add_trans(s[1], 'b', s[2]);
    vael_dfa_state_set_final(s[2], 9, 0, 0);
    vael_dfa_set_initial_state(dfa, s[0]);
    for (uint32_t i = 0; i < extra_states; i++) {
        vael_dfa_state *x = vael_dfa_state_create(dfa);
        for (int c = 0; c < 256; c++)
            vael_dfa_state_add_trans(x, (unsigned char)c, s[3]);
    }
    return vael_dfa_finalize(dfa);
}

TEST(DfaStore, ValidateCatchesCorruptedRecords) {
    const struct {
        const char *name;
        uint32_t extra_states;
        std::function<void(vael_dfa *)> corrupt;
        int expect;
    } rows[] = {
        {"intact", 0, [](vael_dfa *) {}, 1},
        {"no target", 0, [](vael_dfa *d) { vael_dfa_state_get_by_id(d, 1)->trans['b'] = VAEL_DFA_NO_STATE; }, 0},
        {"target past the states", 0, [](vael_dfa *d) { vael_dfa_state_get_by_id(d, 0)->trans[0] = 4; }, 0},
        {"target in a block that is not there", 0, [](vael_dfa *d) { vael_dfa_state_get_by_id(d, 3)->trans[7] = 8192; }, 0},
        {"unreachable state", 1, [](vael_dfa *) {}, 0},
        {"edge cut off", 0, [](vael_dfa *d) { vael_dfa_state_get_by_id(d, 1)->trans['b'] = 3; }, 0},
        {"no initial state", 0, [](vael_dfa *d) { d->initial_state = nullptr; }, 0},
    };
    LogCapture quiet;
    EXPECT_EQ(vael_dfa_is_valid(nullptr), 1);
    for (const auto &r : rows) {
        DfaPtr dfa(small_machine(r.extra_states));
        ASSERT_NE(dfa.p, nullptr);
        r.corrupt(dfa.p);
        EXPECT_EQ(vael_dfa_is_valid(dfa.p), r.expect) << r.name;
    }
}

std::vector<int32_t> ids_of(const vael_dfa_state *s) {
    std::vector<int32_t> ids;
    for (const vael_dfa_pattern_id *p = vael_dfa_state_get_pattern_ids(s); p; p = vael_dfa_pattern_id_next(p))
        ids.push_back(vael_dfa_pattern_id_get_id(p));
    return ids;
}

// Copying final ids: the target gains the source's ids in order, once each;
// a failed copy leaves it as it was and the account where it stood.
TEST(DfaStore, CopyFinalIds) {
    DfaPtr dfa(vael_dfa_create(0, nullptr));
    vael_dfa_state *a = vael_dfa_state_create(dfa.p);
    vael_dfa_state *c = vael_dfa_state_create(dfa.p);
    ASSERT_EQ(vael_dfa_state_set_final_ex(a, 5, 0), 0);
    ASSERT_EQ(vael_dfa_state_set_final_ex(a, -1, 0), 0);
    ASSERT_EQ(vael_dfa_state_set_final(c, 7, 0, 0), 0);
    auto attempt = [&] { return vael_dfa_state_copy_final_ids(c, a) == 0; };
    auto clean = [&] { return ids_of(c) == std::vector<int32_t>{7}; };
    vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
    EXPECT_EQ(w.rounds, 3);
    EXPECT_EQ(ids_of(c), (std::vector<int32_t>{7, 5, -1}));
    EXPECT_EQ(vael_dfa_state_copy_final_ids(c, a), 0);
    EXPECT_EQ(ids_of(c), (std::vector<int32_t>{7, 5, -1}));
}

// Two machines of equal shape: same tables, finals and initial id.
void expect_same_machine(const vael_dfa *a, const vael_dfa *b) {
    ASSERT_EQ(vael_dfa_get_num_of_states(a), vael_dfa_get_num_of_states(b));
    ASSERT_EQ(vael_dfa_get_initial_state(a)->id, vael_dfa_get_initial_state(b)->id);
    EXPECT_EQ(a->flags, b->flags);
    for (uint32_t id = 0; id < vael_dfa_get_num_of_states(a); id++) {
        const vael_dfa_state *x = vael_dfa_state_get_by_id(a, id);
        const vael_dfa_state *y = vael_dfa_state_get_by_id(b, id);
        EXPECT_EQ(std::memcmp(x->trans, y->trans, sizeof x->trans), 0) << id;
        EXPECT_EQ(x->properties, y->properties) << id;
        EXPECT_EQ(ids_of(x), ids_of(y)) << id;
        EXPECT_EQ(y->dfa, b);
    }
}

TEST(DfaStore, DuplicateCopiesAFinishedMachine) {
    for (uint32_t n : {4u, 7767u + 20}) {  // one block; two blocks, packed
        SCOPED_TRACE(n);
        DfaPtr o(vael_test::chain(n, VAEL_DFA_CARET));
        ASSERT_NE(o.p, nullptr);
        const vael_dfa_stats stats = o.p->stats;
        vael_dfa *copy = nullptr;
        auto attempt = [&] { return (copy = vael_dfa_duplicate(o.p)) != nullptr; };
        vael_test::FailmemWalk w = vael_test::failmem_walk(attempt, [] { return true; });
        DfaPtr c(copy);
        ASSERT_NE(copy, nullptr);
        expect_same_machine(o.p, copy);
        EXPECT_EQ(copy->error, nullptr);
        // The copy's run records are its own, with the original's figures.
        EXPECT_NE(copy->stats.common.exec, stats.common.exec);
        EXPECT_EQ(std::memcmp(copy->stats.common.exec, stats.common.exec, sizeof *stats.common.exec), 0);
        EXPECT_EQ(copy->stats.num_of_final_states, stats.num_of_final_states);
        EXPECT_EQ(vael_dfa_is_valid(copy), 1);
        EXPECT_GE(w.rounds, 3);
    }
    // A machine that still holds states lists is not a finished one.
    DfaPtr d(small_machine());
    vael_dfa_state_set_correlating_state(vael_dfa_state_get_by_id(d.p, 1), vael_dfa_state_get_by_id(d.p, 2));
    EXPECT_EQ(vael_dfa_duplicate(d.p), nullptr);
    EXPECT_EQ(vael_dfa_duplicate(nullptr), nullptr);
}

}  // namespace
