// DFA dumps: known machines' table and CSV, and the JFLAP XML read back as the machine.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/jflap_reader.h"

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

TEST(DfaDump, CsvOfAKnownMachine) {
    // State 1 is never reached.
    vael_dfa *m = machine({{{"x", 2}}, {{"y", 0}}, {{"z", 2}, {"a", 0}}}, {2});
    int rc = -1;
    EXPECT_EQ(dump(m, VAEL_DFA_DUMP_CSV, &rc),
              "The dfa has 3 states.\nstate_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n"
              "0,0,0" + times(23, ", ") + ",2, , \n2,1,1,0" + times(24, ", ") + ",2\n");
    EXPECT_EQ(rc, 0);
    vael_dfa_destroy(m);
    // A machine's dump goes to the log in the format asked; an unknown one is refused.
    vael_test::Rem rem("ab");
    vael_test::LogCapture log;
    EXPECT_EQ(vael_rem_dump(rem.get(), 1), 0);
    EXPECT_EQ(vael_rem_dump(rem.get(), 7), -1);
    EXPECT_TRUE(log.contains("The dfa has"));
}

TEST(DfaDump, JflapXmlReadsBackAsTheMachine) {
    std::mt19937 rng(11);
    for (const char *pattern : {"ab", "a(b|c)*d", "abc|abd|x", "[a-m]q", "ABC", "(ab|ba){2}", "[^a]z", "^abc"}) {
      for (int format : {VAEL_DFA_DUMP_XML, VAEL_DFA_DUMP_XML_ALL}) {
        vael_test::Rem rem(pattern);
        vael_test::Automaton fa;
        std::string why;
        const std::string xml = dump(rem.get(), format);
        ASSERT_TRUE(vael_test::read_jflap(xml, fa, why)) << pattern << ": " << why << "\n" << xml;
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
        vael_test::Automaton fa;
        std::string why;
        EXPECT_TRUE(vael_test::read_jflap(dump(m, VAEL_DFA_DUMP_XML), fa, why)) << why;
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
