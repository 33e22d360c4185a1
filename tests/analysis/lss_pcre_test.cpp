// The LSS against PCRE over random expressions: every subject PCRE matches contains an LSS string.
#include <gtest/gtest.h>
#include <pcre.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "analysis/vael_pm_lss_finder.h"
#include "vael/vael_apps.h"

namespace {

class Generator {
  public:
    explicit Generator(uint32_t seed, bool caseless) : rng_(seed), caseless_(caseless) {}

    // A random expression and, through member(), random strings it matches.
    struct Node {
        enum Type { kChar, kClass, kDot, kGroup, kAlt, kConcat, kRepeat } type;
        explicit Node(Type t) : type(t) {}
        std::string chars;  // kChar: one byte; kClass: the members
        bool negated = false;
        std::vector<Node> kids;
        int min = 0, max = 0;  // kRepeat; max -1: unbounded
        std::string text;
    };

    Node expression(int depth = 0) {
        Node alt{Node::kAlt};
        int n = 1 + (pick(4) == 0 ? 1 + pick(2) : 0);
        for (int i = 0; i < n; i++)
            alt.kids.push_back(concat(depth));
        for (size_t i = 0; i < alt.kids.size(); i++)
            alt.text += (i ? "|" : "") + alt.kids[i].text;
        return alt;
    }

    std::string member(const Node &n) {
        switch (n.type) {
        case Node::kChar:
            return caseless_ && pick(2) ? flip(n.chars) : n.chars;
        case Node::kClass:
            if (n.negated) {
                std::string c;
                do
                    c = std::string(1, kAlphabet[pick(sizeof kAlphabet - 1)]);
                while (n.chars.find(c) != std::string::npos ||
                       (caseless_ && n.chars.find(flip(c)) != std::string::npos));
                return c;
            }
            return std::string(1, n.chars[pick((int)n.chars.size())]);
        case Node::kDot: {
            char c;
            do
                c = kAlphabet[pick(sizeof kAlphabet - 1)];
            while (c == '\n');
            return std::string(1, c);
        }
        case Node::kGroup:
            return member(n.kids[0]);
        case Node::kAlt:
            return member(n.kids[pick((int)n.kids.size())]);
        case Node::kConcat: {
            std::string s;
            for (const Node &k : n.kids)
                s += member(k);
            return s;
        }
        case Node::kRepeat: {
            int count = n.min + pick((n.max < 0 ? 3 : n.max - n.min) + 1);
            std::string s;
            for (int i = 0; i < count; i++)
                s += member(n.kids[0]);
            return s;
        }
        }
        return "";
    }

    std::string noise(int max_len) {
        std::string s(pick(max_len + 1), '\0');
        for (char &c : s)
            c = kAlphabet[pick(sizeof kAlphabet - 1)];
        return s;
    }

  private:
    static constexpr char kAlphabet[] = "abcAB1\n";

    int pick(int n) { return (int)(rng_() % (uint32_t)n); }

    static std::string flip(const std::string &s) {
        std::string out = s;
        for (char &c : out)
            c = (c >= 'a' && c <= 'z') ? (char)(c - 32) : (c >= 'A' && c <= 'Z') ? (char)(c + 32) : c;
        return out;
    }

    Node concat(int depth) {
        Node cat{Node::kConcat};
        int n = 1 + pick(4);
        for (int i = 0; i < n; i++) {
            cat.kids.push_back(piece(depth));
            cat.text += cat.kids.back().text;
        }
        return cat;
    }

    Node piece(int depth) {
        Node a = atom(depth);
        if (pick(3) != 0)
            return a;
        Node r{Node::kRepeat};
        static const char *kForms[] = {"*", "+", "?", "{m}", "{m,}", "{m,n}"};
        const std::string form = kForms[pick(6)];
        if (form == "*")
            r.min = 0, r.max = -1, r.text = a.text + "*";
        else if (form == "+")
            r.min = 1, r.max = -1, r.text = a.text + "+";
        else if (form == "?")
            r.min = 0, r.max = 1, r.text = a.text + "?";
        else if (form == "{m}")
            r.min = r.max = pick(4), r.text = a.text + "{" + std::to_string(r.min) + "}";
        else if (form == "{m,}")
            r.min = pick(3), r.max = -1, r.text = a.text + "{" + std::to_string(r.min) + ",}";
        else
            r.min = pick(3), r.max = r.min + 1 + pick(2),
            r.text = a.text + "{" + std::to_string(r.min) + "," + std::to_string(r.max) + "}";
        r.kids.push_back(a);
        return r;
    }

    Node atom(int depth) {
        int kind = pick(10);
        if (kind < 6) {
            Node c{Node::kChar};
            c.chars = std::string(1, "abcAB1"[pick(6)]);
            c.text = c.chars;
            return c;
        }
        if (kind == 6) {
            Node c{Node::kClass};
            c.negated = pick(3) == 0;
            c.chars = pick(2) ? "ab" : "b1";
            c.text = std::string("[") + (c.negated ? "^" : "") + c.chars + "]";
            return c;
        }
        if (kind == 7) {
            Node d{Node::kDot};
            d.text = ".";
            return d;
        }
        if (depth >= 2)
            return atom(depth);
        Node g{Node::kGroup};
        g.kids.push_back(expression(depth + 1));
        g.text = "(" + g.kids[0].text + ")";
        return g;
    }

    std::mt19937 rng_;
    bool caseless_;
};

std::string lower(std::string s) {
    for (char &c : s)
        c = (c >= 'A' && c <= 'Z') ? (char)(c + 32) : c;
    return s;
}

class LssAgainstPcre : public testing::TestWithParam<bool> {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(vael_apps_init(nullptr), 0); }
    static void TearDownTestSuite() { vael_apps_fini(); }
};

TEST_P(LssAgainstPcre, EveryMatchContainsACandidate) {
    const bool caseless = GetParam();
    Generator gen(caseless ? 43 : 41, caseless);
    int multi = 0, regular = 0, none = 0, checked = 0;
    for (int round = 0; round < 3000; round++) {
        Generator::Node expr = gen.expression();
        const std::string &re = expr.text;
        vael_pm_error err;
        vael_pm_error_init(&err);
        vael_pm_lss *lss = vael_pm_lss_find(reinterpret_cast<const unsigned char *>(re.data()), (uint32_t)re.size(),
                                            caseless ? VAEL_PM_CASELESS : 0, &err, nullptr);
        ASSERT_EQ(err.error_string, nullptr) << re << ": " << err.error_string;
        if (!lss) {
            none++;
            continue;
        }
        std::vector<std::string> strings;
        uintptr_t v;
        lst_list *list = vael_pm_lss_get_candidates_list(lss);
        for (lst_cursor c = lst_iterate(list, nullptr, &v); c; c = lst_iterate(list, c, &v)) {
            const auto *can = reinterpret_cast<const vael_pm_lss_candidate *>(v);
            strings.emplace_back(reinterpret_cast<const char *>(can->str), can->len);
        }
        const bool is_multi = vael_pm_lss_can_be_used_instead_of_RE(lss) != 0;
        vael_pm_lss_destroy(lss);
        (is_multi ? multi : regular)++;

        const char *pcre_error = nullptr;
        int pcre_offset = 0;
        pcre *code = pcre_compile(re.c_str(), caseless ? PCRE_CASELESS : 0, &pcre_error, &pcre_offset, nullptr);
        ASSERT_NE(code, nullptr) << re << ": " << pcre_error;
        auto contains_one = [&](const std::string &subject) {
            const std::string s = caseless ? lower(subject) : subject;
            return std::any_of(strings.begin(), strings.end(),
                               [&](const std::string &c) { return s.find(c) != std::string::npos; });
        };
        for (int k = 0; k < 12; k++) {
            // Members of the expression among noise, and noise alone.
            std::string subject = gen.noise(4) + (k < 8 ? gen.member(expr) : gen.noise(6)) + gen.noise(4);
            int ovector[30];
            const int rc = pcre_exec(code, nullptr, subject.data(), (int)subject.size(), 0, 0, ovector, 30);
            if (rc < 0 && rc != PCRE_ERROR_NOMATCH)
                continue;  // PCRE gave up (its backtracking limit): no truth to hold against
            const bool matched = rc >= 0;
            if (k < 8) {
                ASSERT_TRUE(matched) << "the test's generator: " << re << " on '" << subject << "'";
            }
            if (matched) {
                checked++;
                ASSERT_TRUE(contains_one(subject)) << re << " matches '" << subject << "' without its LSS";
            } else if (is_multi) {
                // The strings replace the expression: a string found is a match.
                ASSERT_FALSE(contains_one(subject)) << re << " has no match in '" << subject << "'";
            }
        }
        pcre_free(code);
    }
    EXPECT_GT(multi, 100);
    EXPECT_GT(regular, 300);
    EXPECT_GT(checked, 10000);
    RecordProperty("multi", multi);
    RecordProperty("regular", regular);
    RecordProperty("none", none);
}

INSTANTIATE_TEST_SUITE_P(CaseSensitiveAndCaseless, LssAgainstPcre, testing::Values(false, true));

}  // namespace
