// DFA dumps: the table and the CSV of known machines against their expected
// text, and the JFLAP XML read back by a small reader of the format, whose
// automaton must accept over the letters exactly what the machine accepts.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::LogCapture;
using vael_test::Rem;

std::string dump(vael_dfa *dfa, int format, int *rc = nullptr) {
    std::string out;
    const int r = vael_dfa_dump_to(
        dfa, format, [](const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }, &out);
    if (rc)
        *rc = r;
    return out;
}

// A hand-made finished machine: edges[i] lists "letters>target" groups of
// state i; a final state's index is in `finals`. Letters not listed have no
// target.
struct Owned {
    vael_dfa *dfa = nullptr;
    ~Owned() { vael_dfa_destroy(dfa); }
};

vael_dfa *machine(const std::vector<std::vector<std::pair<std::string, int>>> &edges, std::set<int> finals) {
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

// ---------------------------------------------------------------- table and CSV

TEST(DfaDump, TableAndCsvOfKnownMachines) {
    const std::string a_z = "abcdefghijklmnopqrstuvwxyz";
    const struct {
        std::vector<std::vector<std::pair<std::string, int>>> edges;
        std::set<int> finals;
        int format;
        std::string expected;  // %p stands for the machine's address
    } rows[] = {
        // ab, with a final state that keeps everything.
        {{{{"a", 1}, {"bcdefghijklmnopqrstuvwxyz", 0}},
          {{"a", 1}, {"b", 2}, {"cdefghijklmnopqrstuvwxyz", 0}},
          {{a_z, 2}}},
         {2},
         VAEL_DFA_DUMP_CSV,
         "The dfa has 3 states.\n"
         "state_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n"
         "0,0,0,1,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0\n"
         "1,1,0,1,2,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0\n"
         "2,2,1,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2\n"},
        // Letters without a target, and a state the walk never reaches.
        {{{{"x", 2}}, {{"y", 0}}, {{"z", 2}}},
         {2},
         VAEL_DFA_DUMP_CSV,
         "The dfa has 3 states.\n"
         "state_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n"
         "0,0,0, , , , , , , , , , , , , , , , , , , , , , , ,2, , \n"
         "2,1,1, , , , , , , , , , , , , , , , , , , , , , , , , ,2\n"},
        {{{{"x", 2}}, {{"y", 0}}, {{"z", 2}, {"a", 0}}},
         {2},
         VAEL_DFA_DUMP_TEXT,
         "------- DUMPING DFA %p -------\n\n"
         "Number of states in dfa: 3\n"
         "dfa initial state is 0\n"
         "         a    b    c    d    e    f    g    h    i    j    k    l    m    n    o    p    q    r    s    t    u    "
         "v    w    x    y    z    \n"
         "\ns0(0)    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    "
         "-    -    F2   -    -    "
         "\nF2(1)    s0   -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    -    "
         "-    -    -    -    F2   "
         "\n\n---FINISHED DUMPING DFA %p ---\n\n"},
    };
    for (const auto &r : rows) {
        Owned m{machine(r.edges, r.finals)};
        ASSERT_NE(m.dfa, nullptr);
        char address[32];
        std::snprintf(address, sizeof address, "%p", (void *)m.dfa);
        std::string expected = r.expected;
        for (size_t at; (at = expected.find("%p")) != std::string::npos;)
            expected.replace(at, 2, address);
        int rc = -1;
        EXPECT_EQ(dump(m.dfa, r.format, &rc), expected);
        EXPECT_EQ(rc, 0);
    }
}

TEST(DfaDump, PrintersReachTheDebugOutputAndRefuseAMissingMachine) {
    Rem rem("ab");
    const struct {
        int (*print)(vael_dfa *);
        const char *first_words;
    } rows[] = {
        {vael_dfa_dump, "------- DUMPING DFA"},
        {vael_dfa_dump_csv, "The dfa has"},
        {vael_dfa_dump_xml, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"},
        {vael_dfa_dump_xml_all, "<!--Created with JFLAP 6.0.-->"},
    };
    for (const auto &r : rows) {
        LogCapture log;
        EXPECT_EQ(r.print(rem.get()), 0);
        EXPECT_TRUE(log.contains(r.first_words)) << r.first_words;
        log.clear();
        EXPECT_EQ(r.print(nullptr), -1);
        EXPECT_TRUE(log.contains("Illegal arguments: NULL DFA or DFA_MACHINE"));
    }
    LogCapture log;
    EXPECT_EQ(vael_rem_dump(rem.get(), 1), 0);
    EXPECT_TRUE(log.contains("The dfa has"));
    EXPECT_EQ(vael_rem_dump(rem.get(), 7), -1);
}

// ---------------------------------------------------------------- JFLAP XML

// What a JFLAP file says: states, the initial one, the final ones, and edges
// with the set of letters each reads ("OTHER": the letters no other edge of
// its state reads).
struct Automaton {
    std::set<int> states, finals;
    int initial = -1;
    struct Edge {
        int from, to;
        std::string read;
    };
    std::vector<Edge> edges;

    // The state after `text`, or -1 when a letter has no edge.
    int run(const std::string &text) const {
        int at = initial;
        for (char c : text) {
            int next = -1, other = -1;
            for (const Edge &e : edges) {
                if (e.from != at)
                    continue;
                if (e.read == "OTHER")
                    other = e.to;
                else
                    for (size_t i = 0; i < e.read.size(); i += 2)  // "a|b|c"
                        if (e.read[i] == c)
                            next = e.to;
            }
            at = next != -1 ? next : other;
            if (at == -1)
                return -1;
        }
        return at;
    }
};

// Reads the XML: tags must nest and close, and only the elements JFLAP
// writes for a finite automaton may appear. Gives false with a reason.
bool read_jflap(const std::string &xml, Automaton &fa, std::string &why) {
    std::vector<std::string> open;
    std::map<std::string, std::string> fields;  // of the element being read
    size_t at = 0;
    if (xml.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", 0) != 0)
        return why = "no XML declaration", false;
    at = xml.find('\n') + 1;
    const std::set<std::string> known = {"structure", "type", "automaton", "state", "x", "y", "initial",
                                         "final",     "transition", "from", "to", "read"};
    while (at < xml.size()) {
        const size_t lt = xml.find('<', at);
        if (lt == std::string::npos)
            break;
        const std::string text = xml.substr(at, lt - at);
        if (xml.compare(lt, 4, "<!--") == 0) {
            const size_t end = xml.find("-->", lt);
            if (end == std::string::npos)
                return why = "open comment", false;
            at = end + 3;
            continue;
        }
        const size_t gt = xml.find('>', lt);
        if (gt == std::string::npos)
            return why = "open tag", false;
        std::string tag = xml.substr(lt + 1, gt - lt - 1);
        at = gt + 1;
        if (tag[0] == '/') {
            const std::string name = tag.substr(1);
            if (open.empty() || open.back() != name)
                return why = "</" + name + "> closes nothing open", false;
            open.pop_back();
            if (name == "x" || name == "y" || name == "from" || name == "to" || name == "read" || name == "type")
                fields[name] = text;
            if (name == "state") {
                const int id = std::stoi(fields["id"]);
                if (!fa.states.insert(id).second)
                    return why = "state twice", false;
                if (fields.count("initial"))
                    fa.initial = id;
                if (fields.count("final"))
                    fa.finals.insert(id);
                if (fields["name"] != "q" + fields["id"])
                    return why = "state name", false;
            }
            if (name == "transition")
                fa.edges.push_back({std::stoi(fields["from"]), std::stoi(fields["to"]), fields["read"]});
            if (name == "type" && text != "fa")
                return why = "not a finite automaton", false;
            continue;
        }
        const bool empty = tag.back() == '/';
        if (empty)
            tag.pop_back();
        const std::string name = tag.substr(0, tag.find(' '));
        if (!known.count(name))
            return why = "unknown element " + name, false;
        if (name == "state" || name == "transition") {
            fields.clear();
            for (const char *attr : {"id", "name"}) {
                const std::string key = std::string(attr) + "=\"";
                const size_t k = tag.find(key);
                if (k != std::string::npos)
                    fields[attr] = tag.substr(k + key.size(), tag.find('"', k + key.size()) - k - key.size());
            }
        }
        if (empty)
            fields[name] = "";
        else
            open.push_back(name);
    }
    if (!open.empty())
        return why = "<" + open.back() + "> never closed", false;
    for (const auto &e : fa.edges)
        if (!fa.states.count(e.from) || !fa.states.count(e.to))
            return why = "edge between unknown states", false;
    return true;
}

// The machine's own answer: the state after the letters, read as the run
// reads its tables.
const vael_dfa_state *run(vael_dfa *dfa, const std::string &text) {
    const vael_dfa_state *s = vael_dfa_get_initial_state(dfa);
    for (char c : text)
        s = vael_dfa_state_get_by_id_fast(dfa, s->trans[(unsigned char)c]);
    return s;
}

TEST(DfaDump, JflapXmlIsWellFormedAndAcceptsWhatTheMachineAccepts) {
    const char *patterns[] = {"ab", "a(b|c)*d", "abc|abd|x", "[a-m]q", "ABC", "(ab|ba){2}", "[^a]z", "^abc"};
    std::mt19937 rng(11);
    for (const char *pattern : patterns) {
        Rem rem(pattern);
        ASSERT_NE(rem.get(), nullptr);
        for (int format : {VAEL_DFA_DUMP_XML, VAEL_DFA_DUMP_XML_ALL}) {
            Automaton fa;
            std::string why;
            const std::string xml = dump(rem.get(), format);
            ASSERT_TRUE(read_jflap(xml, fa, why)) << pattern << ": " << why << "\n" << xml;
            EXPECT_EQ(fa.initial, (int)vael_dfa_get_initial_state(rem.get())->id);
            for (int i = 0; i < 300; i++) {
                std::string text(1 + rng() % 8, 'a');
                for (char &c : text)
                    c = "abcdqxz"[rng() % 7];
                const vael_dfa_state *s = run(rem.get(), text);
                const int at = fa.run(text);
                ASSERT_EQ(at, (int)s->id) << pattern << " over " << text;
                EXPECT_EQ(fa.finals.count(at) == 1, vael_dfa_state_is_final(s) == 1 && at != fa.initial)
                    << pattern << " over " << text;
            }
        }
    }
}

TEST(DfaDump, JflapGroupsLettersByTarget) {
    const std::string a_z = "abcdefghijklmnopqrstuvwxyz";
    const struct {
        std::vector<std::vector<std::pair<std::string, int>>> edges;
        std::vector<std::string> reads;  // of state 0's edges, by target id
    } rows[] = {
        {{{{a_z, 1}}, {{a_z, 1}}}, {"OTHER"}},
        {{{{"abcdefghijklm", 1}, {"nopqrstuvwxyz", 2}}, {}, {}}, {"a|b|c|d|e|f|g|h|i|j|k|l|m", "n|o|p|q|r|s|t|u|v|w|x|y|z"}},
        {{{{"q", 1}}, {}}, {"q"}},
        {{{{"abcdefghijklmnopqrstuvwxy", 0}, {"z", 1}}, {}}, {"OTHER", "z"}},
        {{{{"az", 1}, {"b", 2}}, {}, {}}, {"OTHER", "b"}},
    };
    for (const auto &r : rows) {
        Owned m{machine(r.edges, {})};
        Automaton fa;
        std::string why;
        ASSERT_TRUE(read_jflap(dump(m.dfa, VAEL_DFA_DUMP_XML), fa, why)) << why;
        std::vector<std::string> reads;
        for (const auto &e : fa.edges)
            if (e.from == 0)
                reads.push_back(e.read);
        EXPECT_EQ(reads, r.reads);
    }
}

TEST(DfaDumpFailmem, EveryAllocationOfADumpFailsCleanly) {
    Rem rem("a(b|c)d");
    for (int format : {VAEL_DFA_DUMP_TEXT, VAEL_DFA_DUMP_CSV, VAEL_DFA_DUMP_XML, VAEL_DFA_DUMP_XML_ALL}) {
        int rc = 0;
        auto w = vael_test::failmem_walk([&] { return dump(rem.get(), format, &rc), rc == 0; },
                                         [&] { return rc == -1; });
        EXPECT_GT(w.rounds, 1) << format;
    }
}

}  // namespace
