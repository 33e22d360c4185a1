// DFA dumps: known machines' table and CSV, and the JFLAP XML read back as the machine.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"

namespace {

std::string dump(vael_dfa *dfa, int format, int *rc = nullptr) {
    std::string out;
    const int r = vael_dfa_dump_to(
        dfa, format, [](const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }, &out);
    if (rc)
        *rc = r;
    return out;
}

using Edges = std::vector<std::vector<std::pair<std::string, int>>>;  // per state: letters -> target

// A finished machine of the edges; states in `finals` are final.
vael_dfa *machine(const Edges &edges, const std::set<int> &finals) {
    vael_dfa *dfa = vael_dfa_create(0, nullptr);
    std::vector<vael_dfa_state *> s;
    for (size_t i = 0; i < edges.size(); i++)
        s.push_back(vael_dfa_state_create(dfa));
    for (size_t i = 0; i < edges.size(); i++)
        for (const auto &[letters, target] : edges[i])
            for (char c : letters)
                vael_dfa_state_add_trans(s[i], (unsigned char)c, s[target]);
    for (int f : finals)
        vael_dfa_state_set_final(s[f], -1, 0, 0);
    vael_dfa_set_initial_state(dfa, s[0]);
    return vael_dfa_finalize(dfa);
}

std::string times(int n, const std::string &piece) {
    std::string s;
    while (n-- > 0)
        s += piece;
    return s;
}

TEST(DfaDump, TableAndCsvOfKnownMachines) {
    const std::string letters = "a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n";
    const struct {
        Edges edges;  // state 1 is never reached
        int format;
        std::string expected;  // "%p" is the machine's address
    } rows[] = {
        {{{{"x", 2}}, {{"y", 0}}, {{"z", 2}, {"a", 0}}}, VAEL_DFA_DUMP_CSV,
         "The dfa has 3 states.\nstate_id,level,is_final," + letters + "0,0,0" + times(23, ", ") + ",2, , \n2,1,1,0" +
             times(24, ", ") + ",2\n"},
        {{{{"x", 2}}, {{"y", 0}}, {{"z", 2}, {"a", 0}}}, VAEL_DFA_DUMP_TEXT,
         "------- DUMPING DFA %p -------\n\nNumber of states in dfa: 3\ndfa initial state is 0\n         " +
             times(1, "a    b    c    d    e    f    g    h    i    j    k    l    m    n    o    p    q    r    s    ") +
             "t    u    v    w    x    y    z    \n\ns0(0)    " + times(23, "-    ") + "F2   -    -    \nF2(1)    s0   " +
             times(24, "-    ") + "F2   \n\n---FINISHED DUMPING DFA %p ---\n\n"},
    };
    for (const auto &r : rows) {
        vael_dfa *m = machine(r.edges, {2});
        char address[32];
        std::snprintf(address, sizeof address, "%p", (void *)m);
        std::string expected = r.expected;
        for (size_t at; (at = expected.find("%p")) != std::string::npos;)
            expected.replace(at, 2, address);
        int rc = -1;
        EXPECT_EQ(dump(m, r.format, &rc), expected);
        EXPECT_EQ(rc, 0);
        vael_dfa_destroy(m);
    }
    // A machine's dump goes to the log in the format asked; an unknown one is refused.
    vael_test::Rem rem("ab");
    vael_test::LogCapture log;
    EXPECT_EQ(vael_rem_dump(rem.get(), 1), 0);
    EXPECT_EQ(vael_rem_dump(rem.get(), 7), -1);
    EXPECT_TRUE(log.contains("The dfa has"));
}

// What a JFLAP file says: the initial state, the final ones, and per state
// the target of each edge's letters ("a|b|c"; "OTHER": the letters no other
// edge of the state reads). Tags must nest and close. False with a reason.
struct Automaton {
    int initial = -1;
    std::set<int> states, finals;
    std::map<int, std::map<std::string, int>> edges;
    int step(int at, char c) const {
        int other = -1;
        for (const auto &[read, to] : edges.at(at)) {
            if (read == "OTHER")
                other = to;
            for (size_t i = 0; read != "OTHER" && i < read.size(); i += 2)
                if (read[i] == c)
                    return to;
        }
        return other;
    }
};

bool read_jflap(const std::string &xml, Automaton &fa, std::string &why) {
    const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!--Created with JFLAP 6.0.--> ";
    if (xml.rfind(head, 0) != 0)
        return why = "head", false;
    std::vector<std::string> open;
    std::map<std::string, std::string> field;
    for (size_t at = head.size(), lt; (lt = xml.find('<', at)) != std::string::npos;) {
        const size_t gt = xml.find('>', lt);
        if (gt == std::string::npos)
            return why = "open tag", false;
        const std::string text = xml.substr(at, lt - at), tag = xml.substr(lt + 1, gt - lt - 1);
        at = gt + 1;
        if (tag.rfind("!--", 0) == 0)
            continue;
        if (tag.back() == '/') {
            field[tag.substr(0, tag.size() - 1)] = "";
        } else if (tag[0] != '/') {
            open.push_back(tag.substr(0, tag.find(' ')));
            if (open.back() == "state")
                field = {{"id", tag.substr(10, tag.find('"', 10) - 10)}};
        } else if (open.empty() || "/" + open.back() != tag) {
            return why = tag + " closes nothing open", false;
        } else {
            field[open.back()] = text;
            open.pop_back();
            if (tag == "/state" && fa.states.insert(std::stoi(field["id"])).second) {
                if (field.count("initial"))
                    fa.initial = std::stoi(field["id"]);
                if (field.count("final"))
                    fa.finals.insert(std::stoi(field["id"]));
            }
            if (tag == "/transition" && !fa.edges[std::stoi(field["from"])].emplace(field["read"], std::stoi(field["to"])).second)
                return why = "an edge twice", false;
        }
    }
    return open.empty() ? true : (why = "<" + open.back() + "> never closed", false);
}

TEST(DfaDump, JflapXmlReadsBackAsTheMachine) {
    std::mt19937 rng(11);
    for (const char *pattern : {"ab", "a(b|c)*d", "abc|abd|x", "[a-m]q", "ABC", "(ab|ba){2}", "[^a]z", "^abc"}) {
      for (int format : {VAEL_DFA_DUMP_XML, VAEL_DFA_DUMP_XML_ALL}) {
        vael_test::Rem rem(pattern);
        Automaton fa;
        std::string why;
        const std::string xml = dump(rem.get(), format);
        ASSERT_TRUE(read_jflap(xml, fa, why)) << pattern << ": " << why << "\n" << xml;
        EXPECT_EQ(fa.initial, (int)vael_dfa_get_initial_state(rem.get())->id);
        for (int i = 0; i < 300; i++) {
            const vael_dfa_state *s = vael_dfa_get_initial_state(rem.get());
            int at = fa.initial;
            for (size_t n = 1 + rng() % 8; n > 0 && at != -1; n--) {
                const char c = "abcdqxz"[rng() % 7];
                s = vael_dfa_state_get_by_id_fast(rem.get(), s->trans[(unsigned char)c]);
                at = fa.step(at, c);
            }
            ASSERT_EQ(at, (int)s->id) << pattern;
            // The initial state carries no final mark, final or not.
            EXPECT_EQ(fa.finals.count(at) == 1, vael_dfa_state_is_final(s) && at != fa.initial) << pattern;
        }
      }
    }
    const std::string a_z = "abcdefghijklmnopqrstuvwxyz";
    const struct {
        Edges edges;
        std::map<std::string, int> reads;  // of state 0
    } groups[] = {
        {{{{a_z, 1}}, {{a_z, 1}}}, {{"OTHER", 1}}},
        {{{{"abcdefghijklm", 1}, {"nopqrstuvwxyz", 2}}, {}, {}}, {{"a|b|c|d|e|f|g|h|i|j|k|l|m", 1}, {"n|o|p|q|r|s|t|u|v|w|x|y|z", 2}}},
        {{{{"q", 1}}, {}}, {{"q", 1}}}, {{{{"az", 1}, {"b", 2}}, {}, {}}, {{"OTHER", 1}, {"b", 2}}},
    };
    for (const auto &g : groups) {
        vael_dfa *m = machine(g.edges, {});
        Automaton fa;
        std::string why;
        EXPECT_TRUE(read_jflap(dump(m, VAEL_DFA_DUMP_XML), fa, why)) << why;
        EXPECT_EQ(fa.edges[0], g.reads);
        vael_dfa_destroy(m);
    }
}

TEST(DfaDumpFailmem, EveryAllocationOfADumpFailsCleanly) {
    vael_test::Rem rem("a(b|c)d");
    for (int format : {VAEL_DFA_DUMP_TEXT, VAEL_DFA_DUMP_CSV, VAEL_DFA_DUMP_XML, VAEL_DFA_DUMP_XML_ALL}) {
        int rc = 0;
        auto ok = [&] { return dump(rem.get(), format, &rc), rc == 0; };
        EXPECT_GT(vael_test::failmem_walk(ok, [&] { return rc == -1; }).rounds, 1) << format;
    }
}

}  // namespace
