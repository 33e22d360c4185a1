// The validation of a BNFA, one hand-made fault per check, each refused by
// is_valid and by the load of an image that carries it; and the dumps in
// JFLAP XML and CSV against small golden texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

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

std::vector<unsigned char> image_of(const vael_thin_nfa *nfa) {
    std::vector<unsigned char> image(vael_thin_get_serialize_size(nfa));
    unsigned char *p = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vael_thin_nfa_serialize(nfa, &p, &space), 0);
    return image;
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
            EXPECT_TRUE(log.contains("vael_thin_nfa_is_valid: Thin NFA ")) << log.text();
            EXPECT_TRUE(log.contains(" validation failed\n")) << log.text();
        }
        // The same fault in an image: the load refuses it.
        std::vector<unsigned char> image = image_of(copy);
        const unsigned char *p = image.data();
        uint32_t space = (uint32_t)image.size();
        LogCapture quiet;
        vael_thin_nfa *back = vael_thin_nfa_deserialize(&p, &space, nullptr, nullptr);
        EXPECT_EQ(back, nullptr);
        vael_thin_nfa_destroy(back);
        copy->bnfa_size = bnfa_size; // the size the block was allocated with
        vael_thin_nfa_destroy(copy);
    }
}

// A lack of memory during validation is no fault of the automaton.
TEST(ThinNfaValidate, NoMemoryCountsAsValid) {
    ThinNfa nfa(kHeShe);
    LogCapture quiet;
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_EQ(vael_thin_nfa_is_valid(nfa.get()), 1);
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_EQ(vael_thin_nfa_validate(nfa.get()), 1);
}

std::string dump(const vael_thin_nfa *nfa, int format, int *rc) {
    LogCapture log;
    *rc = vael_thin_nfa_dump(nfa, format);
    return log.text();
}

// The JFLAP XML of one state and of one transition.
std::string xml_state(int id, char kind, int x, int y, const char *mark = "") {
    const std::string n = std::to_string(id);
    return "\t\t<state id=\"" + n + "\" name=\"" + kind + n + "\">\n\t\t\t<x>" + std::to_string(x) +
           "</x>\n\t\t\t<y>" + std::to_string(y) + "</y>\n" + mark + "\t\t</state>\n";
}

std::string xml_edge(int from, int to, const char *read) {
    return "\t\t<transition>\n\t\t\t<from>" + std::to_string(from) + "</from>\n\t\t\t<to>" + std::to_string(to) +
           "</to>\n\t\t\t" + read + "\n\t\t</transition>\n";
}

// The default edges (to the root) are left out, the fail edges to the
// root too; state 4 (sh) keeps its fail edge to state 1 (h).
std::string he_she_xml() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!--Created with JFLAP 6.0.--> <structure>\n"
           "\t<type>fa</type>\n\t<automaton>\n\t\t<!--The list of states.-->\n" +
           xml_state(0, 'f', 0, 0, "\t\t\t<initial/>\n") + xml_state(1, 'f', 100, 0) + xml_state(3, 'f', 100, 100) +
           xml_edge(0, 1, "<read>h</read>") + xml_edge(0, 3, "<read>s</read>") +
           xml_state(2, 'p', 200, 0, "\t\t\t<final/>\n") + xml_edge(1, 1, "<read>h</read>") +
           xml_edge(1, 2, "<read>e</read>") + xml_edge(1, 3, "<read>s</read>") + xml_state(4, 'p', 200, 100) +
           xml_edge(3, 3, "<read>s</read>") + xml_edge(3, 4, "<read>h</read>") +
           xml_state(5, 'p', 300, 0, "\t\t\t<final/>\n") + xml_edge(4, 5, "<read>e</read>") +
           xml_edge(4, 1, "<read/>") + "\t</automaton>\n</structure>\n";
}

// One row of the transition table over the printable columns (space to
// '~'): `fill` in every column but the named ones.
std::string printable_row(const std::string &fill, const std::vector<std::pair<char, std::string>> &cells) {
    std::string row;
    for (int c = ' '; c <= '~'; c++) {
        std::string cell = fill;
        for (const auto &[byte, value] : cells)
            if (byte == c)
                cell = value;
        row += (c == ' ' ? "" : ",") + cell;
    }
    return row + "\n";
}

// The printable CSV of he/she without its line of column names (the names
// are checked over the full table).
std::string he_she_csv_printable() {
    return "state_id,is_final,is_partial,fail_state\n"
           "0,0,0, \n"
           "1,0,0, \n"
           "2,1,1, 0\n"
           "3,0,0, \n"
           "4,0,1, 1\n"
           "5,1,1, 0\n"
           "\n"
           "Transition table:\n" +
           printable_row("0", {{'h', "1"}, {'s', "3"}}) +             // 0: root
           printable_row("0", {{'e', "2"}, {'h', "1"}, {'s', "3"}}) + // 1: h
           printable_row("", {}) +                                    // 2: he
           printable_row("0", {{'h', "4"}, {'s', "3"}}) +             // 3: s
           printable_row("", {{'e', "5"}}) +                          // 4: sh
           printable_row("", {});                                     // 5: she
}

TEST(ThinNfaDump, GoldenTexts) {
    ThinNfa nfa(kHeShe);
    int rc = -1;
    EXPECT_EQ(dump(nfa.get(), VAEL_THIN_NFA_DUMP_XML, &rc), he_she_xml());
    EXPECT_EQ(rc, 0);
    {
        ScopedGlobal printable(vael_thin_nfa_csv_printable_only, 1);
        std::string csv = dump(nfa.get(), VAEL_THIN_NFA_DUMP_CSV, &rc);
        const size_t names = csv.find("Transition table:\n") + 18;
        EXPECT_EQ(csv.erase(names, csv.find('\n', names) + 1 - names), he_she_csv_printable());
        EXPECT_EQ(rc, 0);
    }
    // Every byte has its column: 256 names, then a row of 256 per state.
    std::string csv = dump(nfa.get(), VAEL_THIN_NFA_DUMP_CSV, &rc);
    size_t header = csv.find("Transition table:\n") + 18;
    std::string names = csv.substr(header, csv.find('\n', header) - header);
    EXPECT_EQ(std::count(names.begin(), names.end(), ','), 255);
    EXPECT_EQ(names.substr(0, 15), "0x00,0x01,0x02,");
    EXPECT_NE(names.find(",0x1F,space,!,dquote,#"), std::string::npos);
    EXPECT_NE(names.find(",+,comma,-,"), std::string::npos);
    EXPECT_NE(names.find(",&,quote,(,"), std::string::npos);
    EXPECT_NE(names.find(",[,bslash,],"), std::string::npos);

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
