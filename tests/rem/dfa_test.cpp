// DFAs: minimization against the input's language and an independent Moore minimizer; the image, read back it
// runs like its writer, damaged it is refused or runs safely; known machines' table and CSV, and the JFLAP XML
// read back as the machine.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/rem/rem_support.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/jflap_reader.h"

namespace {

using vael_test::LogCapture;
using vael_test::all_strings;
using vael_test::chain;

// The unminimized DFA of a pattern, as vael_rem_compile makes it before
// minimization.
vael_dfa *subset_dfa(const std::string &pattern, uint32_t flags = vael_test::kRemDotAll) {
    vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                                      (uint32_t)pattern.size(), -1, 0);
    vael_pm_error err;
    vael_pm_error_init(&err);
    LogCapture quiet;
    vael_nfa_env *env = vael_rem_pattern2nfa(s, flags, &err);
    vael_dfa *dfa = env ? vael_nfa2dfa(env, -1, &err) : nullptr;
    vael_nfa_env_destroy(env);
    vael_pmglob_string_destroy(s);
    return dfa;
}

vael_dfa_state *state(const vael_dfa *dfa, uint32_t id) { return vael_dfa_state_get_by_id(dfa, id); }

// What the machine says at the end of s: 0 not final, 1 final, 2 anchored
// final. The machine is not finalized: entries are linear ids.
int verdict(const vael_dfa *dfa, const std::string &s) {
    const vael_dfa_state *st = vael_dfa_get_initial_state(dfa);
    for (unsigned char c : s)
        st = state(dfa, st->trans[c]);
    if (!vael_dfa_state_is_final(st))
        return 0;
    return vael_dfa_state_is_anchored_final(st) ? 2 : 1;
}

// Moore's algorithm: classes by finality, refined by the classes of the 256
// targets until the number of classes stays.
uint32_t moore_count(const vael_dfa *dfa) {
    const uint32_t n = vael_dfa_get_num_of_states(dfa);
    std::vector<uint32_t> cls(n);
    for (uint32_t i = 0; i < n; i++)
        cls[i] = vael_dfa_state_is_final(state(dfa, i)) ? 1 : 0;
    uint32_t count = 0;
    for (;;) {
        std::map<std::vector<uint32_t>, uint32_t> sig;
        std::vector<uint32_t> next(n);
        for (uint32_t i = 0; i < n; i++) {
            std::vector<uint32_t> key{cls[i]};
            for (int c = 0; c < 256; c++)
                key.push_back(cls[state(dfa, i)->trans[c]]);
            next[i] = sig.emplace(key, (uint32_t)sig.size()).first->second;
        }
        if (sig.size() == count)
            return count;
        count = (uint32_t)sig.size();
        cls = next;
    }
}

void check_minimization(const std::string &pattern, uint32_t flags, const std::vector<std::string> &strings) {
    SCOPED_TRACE(pattern + " flags " + std::to_string(flags));
    vael_dfa *dfa = subset_dfa(pattern, flags);
    if (!dfa)
        return;  // too complex for the store: nothing to minimize
    const uint32_t expected = moore_count(dfa);
    LogCapture quiet;
    vael_dfa *min = vael_dfa_minimize(dfa);
    ASSERT_NE(min, nullptr);
    EXPECT_EQ(vael_dfa_get_num_of_states(min), expected);
    for (const std::string &s : strings)
        ASSERT_EQ(verdict(min, s), verdict(dfa, s)) << "over \"" << s << "\"";
    for (uint32_t id = 0; id < vael_dfa_get_num_of_states(min); id++) {
        const vael_dfa_state *st = state(min, id);
        EXPECT_EQ(vael_dfa_state_get_states_list(st), nullptr);  // correlations are cleaned
        if (vael_dfa_state_is_final(st)) {
            EXPECT_EQ(vael_dfa_pattern_id_next(vael_dfa_state_get_pattern_ids(st)), nullptr);
        }
    }
    vael_dfa_destroy(min);
    vael_dfa_destroy(dfa);
}

TEST(DfaMinimize, AcceptsWhatTheInputAcceptsWithTheFewestStates) {
    const std::vector<std::string> strings = all_strings("abc", 6);
    // The last byte value is a byte like any other: two states that differ
    // only on it stay apart.
    const std::vector<std::string> with_ff = all_strings("abc\xff", 5);
    const char *fixed[] = {"abc",       "^abc$",   "(a|b)",     "a(b|c)*c", "^(ab|a)*b$",
                           "a{0}",      "[^a]b$",  "((a|b)c)+", "a.b",      "a\\xffb",
                           "(a|\\xff)*b"};
    for (const char *p : fixed)
        for (uint32_t flags : {vael_test::kRemDotAll, 0u})
            check_minimization(p, flags, with_ff);
    std::mt19937 rng(6);
#if defined(__SANITIZE_ADDRESS__)
    const int random_patterns = 25;  // each costs ten times under ASan
#else
    const int random_patterns = 60;
#endif
    for (int i = 0; i < random_patterns; i++) {
        std::string p = vael_test::random_expression(rng, "abc");
        if (rng() % 3 == 0)
            p += "$";
        if (rng() % 3 == 0)
            p = "^" + p;
        check_minimization(p, vael_test::kRemDotAll, strings);
    }
}

// Thousands of states that stay apart: a wide machine, and a chain, which
// a pair table filled pass by pass splits one link per pass (hours at the
// state limit). The counts are known, so no reference minimizer runs.
TEST(DfaMinimize, ThousandsOfStates) {
    const std::string chain(1500, 'a');
    const struct { const char *pattern; std::vector<std::string> strings; uint32_t states; } rows[] = {
        {"(a|b)*a(a|b){10}$", all_strings("ab", 12), 2048},
        {"^a{1500}b", {chain + "b", chain.substr(1) + "b", chain + "ab", chain}, 1503},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pattern);
        vael_dfa *dfa = subset_dfa(row.pattern);
        ASSERT_NE(dfa, nullptr);
        LogCapture quiet;
        vael_dfa *min = vael_dfa_minimize(dfa);
        ASSERT_NE(min, nullptr);
        EXPECT_EQ(vael_dfa_get_num_of_states(min), row.states);
        for (const std::string &s : row.strings)
            EXPECT_EQ(verdict(min, s), verdict(dfa, s)) << s.size();
        vael_dfa_destroy(min);
        vael_dfa_destroy(dfa);
    }
}

TEST(DfaMinimize, EveryAllocationFailsCleanly) {
    vael_dfa *dfa = subset_dfa("a(b|c)*d{1,2}");
    ASSERT_NE(dfa, nullptr);
    vael_dfa *min = nullptr;
    LogCapture quiet;
    auto attempt = [&] {
        min = vael_dfa_minimize(dfa);
        return min != nullptr;
    };
    auto failed = [&] {
        // The input is the caller's still, with its lists cleaned.
        for (uint32_t id = 0; id < vael_dfa_get_num_of_states(dfa); id++)
            if (vael_dfa_state_get_states_list(state(dfa, id)))
                return false;
        return min == nullptr;
    };
    vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, failed);
    EXPECT_GT(w.rounds, 3);
    vael_dfa_destroy(min);
    vael_dfa_destroy(dfa);
}

using Image = std::vector<unsigned char>;

Image image_of(vael_dfa *dfa) {
    return vael_test::write_image(vael_dfa_calculate_size(dfa), [&](auto at, auto space) {
        return vael_dfa_serialize(dfa, at, space);
    });
}

// The first `size` bytes in an exact-size copy (a read past it is ASan's),
// read flat through the row's slot, or from a vbuf of blocks of `block`.
vael_dfa *load(const Image &image, size_t size, size_t block = 0) {
    Image cut(image.begin(), image.begin() + (long)size);
    uint32_t space = (uint32_t)size;
    if (!block) {
        const unsigned char *p = cut.data();
        auto *dfa = static_cast<vael_dfa *>(pm_tier2_funcs[VAEL_PM_TIER2_REM].deserialize(&p, &space, nullptr, nullptr));
        EXPECT_TRUE(!dfa || p == cut.data() + size);
        return dfa;
    }
    vael_vbuf *vbuf = vael_test::vbuf_of(cut.data(), size, block);
    vael_vbuf_iter iter{};
    vael_dfa *dfa = vael_dfa_deserialize(nullptr, &space, vbuf, &iter);
    vael_vbuf_destroy(vbuf);
    return dfa;
}

// Every hit field by field: the hint and the flags come from the states.
std::vector<std::vector<uint32_t>> hits(vael_dfa *dfa, const std::string &text) {
    lst_list *queue = nullptr;
    vael_dfa_exec(dfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, 0, &queue,
                  VAEL_PM_EXEC_ALL_MATCHES, nullptr);
    std::vector<std::vector<uint32_t>> out;
    for (const vael_test::Hit &h : vael_test::drain_queue(queue))
        out.push_back({(uint32_t)h.id, h.offset, h.match_flags, h.hint});
    return out;
}

struct Owned {
    vael_dfa *dfa = nullptr;
    ~Owned() { vael_dfa_destroy(dfa); }
};

TEST(DfaImage, LoadedMachinesRunLikeTheirWriters) {
    const char *patterns[] = {"abc", "a[0-9]+b", "^ab|cd$", "(ab|ba)*c", "x.{2}y", "[^a]bc", "(a|b)*abb", "0{2,4}1"};
    std::vector<std::pair<std::string, vael_dfa *>> machines;
    std::vector<std::unique_ptr<vael_test::Rem>> rems;
    for (const char *p : patterns) {
        rems.push_back(std::make_unique<vael_test::Rem>(p, vael_test::kRemDotAll, p[0] == 'x' ? VAEL_PM_CASELESS : 0));
        machines.emplace_back(p, rems.back()->get());
    }
    Owned one{chain(3)}, several{chain(VAEL_DFA_BLOCK_STATES + 20)};
    machines.emplace_back("chain of 3", one.dfa);
    machines.emplace_back("chain of two blocks", several.dfa);
    std::mt19937 rng(7);
    for (const auto &[what, orig] : machines) {
        ASSERT_NE(orig, nullptr) << what;
        const Image image = image_of(orig);
        const bool big = image.size() > 100000;  // a vbuf of small blocks would be millions of records
        for (size_t block : big ? std::vector<size_t>{0, 4096} : std::vector<size_t>{0, 1, 7, 64}) {
            Owned loaded{load(image, image.size(), block)};
            ASSERT_NE(loaded.dfa, nullptr) << what << " block " << block;
            EXPECT_EQ(vael_dfa_is_valid(loaded.dfa), 1);
            EXPECT_EQ(image_of(loaded.dfa), image) << what;
            std::vector<std::string> texts = {std::string(VAEL_DFA_BLOCK_STATES + 30, 'a')};
            for (int i = 0; i < 30; i++)
                texts.push_back(vael_test::random_word(rng, "abcdxyAB01\n", 0, 23));
            for (const std::string &text : texts)
                EXPECT_EQ(hits(loaded.dfa, text), hits(orig, text)) << what << " over '" << text.substr(0, 30) << "'";
        }
    }
}

void put(Image &image, size_t at, uint32_t v, size_t n = 4) { memcpy(image.data() + at, &v, n); }
uint32_t get(const Image &image, size_t at) {
    uint32_t v;
    memcpy(&v, image.data() + at, 4);
    return v;
}

TEST(DfaImage, BrokenImagesAreRefusedWithTheirWords) {
    vael_test::ScopedTopic topic("K_DFA", VAEL_DBG_ERR);
    vael_test::Rem rem("abc");
    const Image good = image_of(rem.get());
    const size_t table = 16 + 18, patterns = table + 512, stats = good.size() - 20;
    const struct { const char *what; size_t at; uint32_t value; size_t bytes; const char *words; } rows[] = {
        {"head magic", 0, 0x53525A4E, 4, "Wrong serialization magic (53525a4e)"},
        {"state magic", 16, 0, 1, "Wrong serialization magic"},
        {"statistics magic", stats, 0, 1, "Wrong serialization magic"},
        {"absurd count", 8, 0x00FFFFFF, 4, "Illegal machine in the buffer"},
        {"count past the bytes", 8, 4000, 4, "Illegal machine in the buffer"},
        {"index size", 14, 4, 2, "Illegal machine in the buffer"},
        {"initial id", 12, 900, 2, "Illegal initial state 900"},
        {"state id", 16 + 12, 1, 2, "Illegal state record 0"},
        {"table size", 16 + 8, 257, 4, "Illegal state record 0"},
        {"entry past the states", table + 2 * 'q', 700, 2, "names no state"},
        {"no target", table, 0xFFFF, 2, "names no state"},
        {"pattern count", patterns, 0x10000000, 4, "Illegal number of pattern ids"},
        {"states list", patterns + 4 + 12 * get(good, patterns), 1, 4, "states_list cannot be deserialized"},
    };
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    for (const auto &r : rows) {
        Image bad = good;
        put(bad, r.at, r.value, r.bytes);
        LogCapture log;
        Owned loaded{load(bad, bad.size())};
        EXPECT_EQ(loaded.dfa, nullptr) << r.what;
        EXPECT_TRUE(log.contains(r.words)) << r.what << ": " << log.text();
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start) << r.what;
    }
    // One byte short of the size: nothing is written.
    Image buf(good.size(), 0xEE);
    unsigned char *p = buf.data();
    uint32_t space = (uint32_t)good.size() - 1;
    LogCapture log;
    EXPECT_EQ(vael_dfa_serialize(rem.get(), &p, &space), -1);
    EXPECT_TRUE(p == buf.data() && space == good.size() - 1 && buf == Image(good.size(), 0xEE));
}

TEST(DfaImage, EveryCutIsRefusedAndEveryFlipRefusedOrSafe) {
    vael_test::Rem rem("a[bc]d");
    const Image image = image_of(rem.get());
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    LogCapture quiet;
    // Every third size read from a vbuf of blocks of 5.
    auto read = [](const Image &bytes) { return load(bytes, bytes.size(), bytes.size() % 3 == 0 ? 5 : 0); };
    const int accepted = vael_test::damage_walk(image, read, [](vael_dfa *dfa) {
        for (const char *text : {"abd", "xacd abd", "aaaa\n"})
            hits(dfa, text);
        vael_dfa_destroy(dfa);
    });
    EXPECT_GT(accepted, 0);  // flips of counters and of entries to other states load
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
}

TEST(DfaImageFailmem, EveryAllocationOfALoadFailsCleanly) {
    vael_test::Rem rem("a(b|cd)*e");
    Owned two{chain(4)};
    for (vael_dfa *orig : {rem.get(), two.dfa}) {
        const Image image = image_of(orig);
        vael_dfa *copy = nullptr;
        auto cleanly = [&] { return copy == nullptr; };
        LogCapture quiet;
        EXPECT_GT(vael_test::failmem_walk([&] { return (copy = load(image, image.size())) != nullptr; }, cleanly).rounds, 1);
        vael_dfa_destroy(copy);
        EXPECT_GT(vael_test::failmem_walk_each_allocation([&] { return (copy = load(image, image.size(), 5)) != nullptr; },
                                                          cleanly).rounds,
                  1);
        vael_dfa_destroy(copy);
        copy = nullptr;
        // Writing allocates nothing: under injection it succeeds at once.
        EXPECT_EQ(vael_test::failmem_walk([&] { return image_of(orig) == image; }, cleanly).rounds, 1);
    }
}

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
