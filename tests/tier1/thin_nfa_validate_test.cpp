// BNFA validation: one fault per check, the quick proof against the walk, and the dumps.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/jflap_reader.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;
using vael_test::ThinNfa;

// he/she with the defaults: states 0, 1 (h), 3 (s) full at word offsets 0,
// 257, 514; then 2 (he) at 771, 4 (sh) at 773, 5 (she) at 776.
const std::vector<Pattern> kHeShe = {{"he", 1}, {"she", 2}};
// abc/abd: state 2 (ab) is partial with two transitions, c then d.
const std::vector<Pattern> kAbcAbd = {{"abc", 1}, {"abd", 2}};

struct Fault {
    const char *name;
    const std::vector<Pattern> *patterns;
    std::function<void(vael_thin_nfa *)> damage;
    std::vector<const char *> texts; // each must be in the log
};

void set_target(uint32_t *word, uint32_t offset) { *word = (*word & 0xffu) | offset << 8; }

std::vector<Fault> faults() {
    return {
        {"state past the end", &kHeShe, [](vael_thin_nfa *n) { n->bnfa_size -= 4; },
         {"thin_nfa_validate_state_in_range: State 5 at BNFA offset 776 (3104 bytes) partial header 8 - exceeds size 3108\n"}},
        {"finite state among the full non-finite", &kHeShe,
         [](vael_thin_nfa *n) { n->bnfa[257] |= BNFA_STATE_FINITE; },
         {"is smaller than its limit", ", flags = 1\n"}},
        {"full non-finite state past the limit", &kHeShe, [](vael_thin_nfa *n) { n->bnfa_full_size = 2056; },
         {"thin_nfa_validation_find_states: Full non-matching state at  0x", "is greater/equal than its limit"}},
        {"ID past state_num", &kHeShe, [](vael_thin_nfa *n) { n->bnfa[771] = 9u << 8 | 3; },
         {"thin_nfa_validation_find_states: State at BNFA offset 771 has ID 9 state_num=6\n"}},
        {"link into a state", &kHeShe, [](vael_thin_nfa *n) { set_target(&n->bnfa[775], 777); },
         {"thin_nfa_check_transition: State at BNFA offset 777 has ID 0 but this state is at 0\n",
          "thin_nfa_validation_scan_tree: Invalid transition for 65 from partial state 4\n"}},
        {"link past the end", &kHeShe, [](vael_thin_nfa *n) { n->bnfa[1 + 'x'] = 5000; },
         {"State -1 at BNFA offset 5000 (20000 bytes) header 4 - exceeds size 3112\n",
          "thin_nfa_validation_scan_tree: Invalid transition for 78 from full state 0\n"}},
        {"forward transition to a visited state", &kHeShe, [](vael_thin_nfa *n) { set_target(&n->bnfa[775], 771); },
         {"thin_nfa_check_transition: Forward transition 4 -> 2, but levels 2 -> 2\n"}},
        {"fail state on the same level", &kHeShe, [](vael_thin_nfa *n) { set_target(&n->bnfa[774], 771); },
         {"thin_nfa_check_transition: Fail state transition 4 -> 2, but levels 2 -> 2\n",
          "thin_nfa_validation_scan_tree: Invalid default state for state 4\n"}},
        {"unsorted transitions", &kAbcAbd,
         [](vael_thin_nfa *n) {
             uint32_t *s = n->bnfa + vael_test::bnfa_state_of(n, "ab");
             std::swap(s[2], s[3]);
         },
         {"thin_nfa_validation_scan_tree: Transitions from state 2 not sorted - 63 after 64\n"}},
        {"unreachable state", &kHeShe, [](vael_thin_nfa *n) { n->bnfa[257 + 1 + 'e'] = 0; },
         {"thin_nfa_validation_unvisited_states: State 2 never visited\n"}},
        {"finite state without patterns", &kHeShe,
         [](vael_thin_nfa *n) {
             vael_thin_nfa_free_pattern_ids(n->pattern_ids[2]);
             n->pattern_ids[2] = nullptr;
         },
         {"thin_nfa_validation_check_finite_states: State 2 is finite but has no pattern IDs\n"}},
        {"patterns on a state that is not finite", &kHeShe,
         [](vael_thin_nfa *n) { ASSERT_EQ(vael_thin_nfa_add_pattern_id(&n->pattern_ids[4], 7, 0, 2), 0); },
         {"thin_nfa_validation_check_finite_states: State 4 is not finite but has pattern ID 7\n"}},
    };
}

TEST(ThinNfaValidate, EachCheckCatchesItsFault) {
    ScopedTopic thin("K_THINNFA", VAEL_DBG_ERR);
    ScopedTopic error("K_ERROR", VAEL_DBG_ERR);
    for (const Fault &f : faults()) {
        SCOPED_TRACE(f.name);
        ThinNfa nfa(*f.patterns);
        ASSERT_NE(nfa.get(), nullptr);
        EXPECT_EQ(vael_thin_nfa_is_valid(nfa.get()), 1);
        vael_thin_nfa *copy = vael_thin_nfa_duplicate(nfa.get());
        ASSERT_NE(copy, nullptr);
        const uint32_t bnfa_size = copy->bnfa_size;
        f.damage(copy);
        {
            LogCapture log;
            EXPECT_EQ(vael_thin_nfa_is_valid(copy), 0);
            for (const char *text : f.texts)
                EXPECT_TRUE(log.contains(text)) << text << "\n---\n" << log.text();
            EXPECT_TRUE(log.contains(" validation failed\n")) << log.text();
        }
        copy->bnfa_size = bnfa_size; // the size the block was allocated with
        vael_thin_nfa_destroy(copy);
    }
}

// ---------------------------------------------------------------- the quick proof

struct Shape {
    const char *name;
    std::vector<Pattern> patterns;
    uint32_t compile_flags;
    int full_tiers;
};

std::vector<Pattern> random_set(unsigned seed, int count, const std::string &alphabet, size_t min_len) {
    std::mt19937 rng(seed);
    std::vector<Pattern> out;
    for (int id = 1; id <= count; id++)
        out.push_back({vael_test::random_word(rng, alphabet, min_len, min_len + 8), id});
    return out;
}

std::vector<Shape> shapes() {
    // Many transitions from one state and runs of one byte make full states
    // below the full tiers, whose parents the layout puts after them.
    return {
        {"he she his hers", {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}}, 0, 2},
        {"one byte and runs", {{"a", 1}, {"aaaa", 2}, {"xaaab", 3}, {"ba", 4}}, 0, 2},
        {"wide state", random_set(7, 40, "abcdefghijklmnop", 1), 0, 2},
        {"small alphabet", random_set(3, 60, "abcd", 2), 0, 1},
        {"three tiers", random_set(5, 30, "abcxyz", 1), 0, 3},
        {"caseless", random_set(9, 25, "aBcD1", 2), VAEL_PM_CASELESS, 2},
        {"digitless", random_set(11, 25, "ab0189", 2), VAEL_PM_DIGITLESS, 2},
        {"large", random_set(13, 2000, "abcdefgh", 3), 0, 2},
    };
}

TEST(ThinNfaQuickValidation, ProvesEveryCompiledShape) {
    for (const Shape &shape : shapes()) {
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, shape.full_tiers);
        ThinNfa nfa(shape.patterns, shape.compile_flags);
        ASSERT_NE(nfa.get(), nullptr) << shape.name;
        EXPECT_EQ(vael_thin_nfa_validate_quick(nfa.get()), 1) << shape.name;
        EXPECT_EQ(vael_thin_nfa_validate_walk(nfa.get()), 1) << shape.name;
    }
}

// Words of the BNFA, and the leading region's bound, changed in ways
// that break links, kinds, order, levels and the finite flags.
TEST(ThinNfaQuickValidation, NeverProvesWhatTheWalkRefuses) {
    for (const Shape &shape : shapes()) {
        if (shape.patterns.size() > 100)
            continue;
        ScopedGlobal tiers(vael_thin_nfa_full_tiers_num, shape.full_tiers);
        ThinNfa nfa(shape.patterns, shape.compile_flags);
        ASSERT_NE(nfa.get(), nullptr);
        vael_thin_nfa *n = nfa.get();
        // Offsets of a few states to point links at: the root, the next
        // state, the last one.
        std::vector<uint32_t> targets = {0, BNFA_FULL_STATE_WORDS, n->bnfa_full_size / 4, n->bnfa_size / 4 - 3};
        const uint32_t words = n->bnfa_size / 4;
        // Where the proof fails the walk decides anyway; it runs only now
        // and then there, to show that the damage was both kinds.
        int proven = 0, refused = 0, tries = 0;
        auto check = [&](const char *what, uint32_t at) {
            LogCapture quiet;
            if (vael_thin_nfa_validate_quick(n) == 1) {
                proven++;
                EXPECT_EQ(vael_thin_nfa_validate_walk(n), 1) << shape.name << ": " << what << " at word " << at;
            } else if (tries++ % 16 == 0 && vael_thin_nfa_validate_walk(n) == 0) {
                refused++;
            }
        };
        // Full tables are long and alike: a sample of their entries, and
        // of a large BNFA's partial states.
        const uint32_t step = words / 1000 + 1;
        for (uint32_t at = 0; at < words; at += at == 0 ? 1 : (at < n->bnfa_full_size / 4 ? 13 : 1) * step) {
            const uint32_t saved = n->bnfa[at];
            const uint32_t changes[] = {saved ^ 1u, saved ^ 2u, saved ^ 0x100u, saved + 0x100u, saved - 0x100u,
                                        UINT32_MAX};
            for (uint32_t changed : changes) {
                n->bnfa[at] = changed;
                check("bits", at);
            }
            for (uint32_t t : targets) {
                n->bnfa[at] = (saved & 0xffu) | t << 8;
                check("low byte kept, link moved", at);
                n->bnfa[at] = t;
                check("full entry moved", at);
            }
            n->bnfa[at] = saved;
        }
        const uint32_t full_size = n->bnfa_full_size;
        for (uint32_t size : {0u, full_size - 4, full_size + 4, full_size + BNFA_FULL_STATE_BYTES}) {
            n->bnfa_full_size = size;
            check("leading region", size);
        }
        n->bnfa_full_size = full_size;
        EXPECT_EQ(vael_thin_nfa_validate_quick(n), 1) << shape.name;
        // The damage was both kinds, or the test proves little.
        EXPECT_GT(proven, 0) << shape.name;
        EXPECT_GT(refused, 0) << shape.name;
    }
}

// ---------------------------------------------------------------- dumps

std::string dump(const vael_thin_nfa *nfa, int format, int *rc) {
    LogCapture log;
    *rc = vael_thin_nfa_dump(nfa, format);
    return log.text();
}

TEST(ThinNfaDump, XmlAndCsv) {
    ThinNfa nfa(kHeShe);
    int rc = -1;
    // The default edges (to the root) are left out, the fail edges to the
    // root too; state 4 (sh) keeps its fail edge to state 1 (h).
    vael_test::Automaton fa;
    std::string why;
    ASSERT_TRUE(vael_test::read_jflap(dump(nfa.get(), VAEL_THIN_NFA_DUMP_XML, &rc), fa, why)) << why;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(std::make_pair(fa.initial, fa.finals), std::make_pair(0, std::set<int>{2, 5}));
    EXPECT_EQ(fa.edges, (decltype(fa.edges){{0, {{"h", 1}, {"s", 3}}}, {1, {{"e", 2}, {"h", 1}, {"s", 3}}},
                                            {3, {{"h", 4}, {"s", 3}}}, {4, {{"", 1}, {"e", 5}}}}));
    // Every byte has its column: 256 names, then a row of 256 per state.
    std::string csv = dump(nfa.get(), VAEL_THIN_NFA_DUMP_CSV, &rc);
    size_t header = csv.find("Transition table:\n") + 18;
    std::string names = csv.substr(header, csv.find('\n', header) - header);
    EXPECT_EQ(std::count(names.begin(), names.end(), ','), 255);
    for (const char *part : {"0x00,0x01,0x02,", ",0x1F,space,!,dquote,#", ",+,comma,-,", ",&,quote,(,", ",[,bslash,],"})
        EXPECT_NE(names.find(part), std::string::npos) << part;

    // With the failure edges to the initial state shown, the XML grows by
    // them; an unknown format is refused.
    {
        ScopedGlobal all(vael_thin_nfa_xml_omit_fail_to_init, 0);
        std::string xml = dump(nfa.get(), VAEL_THIN_NFA_DUMP_XML, &rc);
        EXPECT_NE(xml.find("<read>OTHER</read>"), std::string::npos);
        EXPECT_NE(xml.find("<read/>"), std::string::npos);
    }
    ScopedTopic error("K_ERROR", VAEL_DBG_ERR);
    EXPECT_NE(dump(nfa.get(), 2, &rc).find("vael_thin_nfa_dump: Invalid dump format 2\n"), std::string::npos);
    EXPECT_EQ(rc, -1);
}

}  // namespace
