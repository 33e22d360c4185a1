// Random expressions of the grammar the library's parsers share with PCRE,
// kept as trees to draw members of their language from: characters, classes,
// the dot, groups, alternation, and one quantifier at most per atom (a second
// one means something else in PCRE).
#ifndef VAEL_TESTS_SUPPORT_RANDOM_REGEX_H
#define VAEL_TESTS_SUPPORT_RANDOM_REGEX_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace vael_test {

inline std::string encode_utf8(uint32_t cp) {
    std::string s;
    if (cp < 0x80) {
        s += (char)cp;
    } else if (cp < 0x800) {
        s += (char)(0xC0 | (cp >> 6));
        s += (char)(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        s += (char)(0xE0 | (cp >> 12));
        s += (char)(0x80 | ((cp >> 6) & 0x3F));
        s += (char)(0x80 | (cp & 0x3F));
    } else {
        s += (char)(0xF0 | (cp >> 18));
        s += (char)(0x80 | ((cp >> 12) & 0x3F));
        s += (char)(0x80 | ((cp >> 6) & 0x3F));
        s += (char)(0x80 | (cp & 0x3F));
    }
    return s;
}

inline std::string encode_utf8(const std::vector<uint32_t> &cps) {
    std::string s;
    for (uint32_t c : cps)
        s += encode_utf8(c);
    return s;
}

struct RegexGrammar {
    std::vector<uint32_t> letters;  // of characters and classes
    std::vector<uint32_t> others;   // besides the letters, in members and noise only
    bool spans = false;             // classes are spans "[x-y]", else two letters "[xy]"
    bool caseless = false;          // members of a character may change its ASCII case
    bool dot_all = true;            // else members of the dot are never '\n'
    int depth = 2;                  // groups in groups
    int items = 3;                  // at most, in a row
    int repeat_percent = 33;        // of atoms with a quantifier
    // Characters a span's member may be; a span in a negated REM bracket
    // excludes nothing, so REM's grammar has no spans.
    bool (*usable)(uint32_t) = [](uint32_t) { return true; };
};

struct RegexNode {
    enum Type { kChar, kClass, kDot, kAlt, kConcat, kRepeat } type;
    explicit RegexNode(Type t) : type(t) {}
    uint32_t lo = 0, hi = 0;  // kChar: lo; kClass: the two letters, or the span
    bool negated = false;
    int min = 0, max = 0;  // kRepeat; max -1: unbounded
    std::vector<RegexNode> kids;
    std::string text;
};

class RegexGenerator {
  public:
    RegexGenerator(const RegexGrammar &grammar, uint32_t seed) : g_(grammar), rng(seed) {
        all_ = g_.letters;
        all_.insert(all_.end(), g_.others.begin(), g_.others.end());
    }

    int pick(size_t n) { return (int)(rng() % (uint32_t)n); }
    uint32_t any_char() { return all_[pick(all_.size())]; }

    RegexNode expression(int depth = 0) {
        RegexNode n{RegexNode::kAlt};
        for (int i = 0, count = pick(4) ? 1 : 2 + pick(2); i < count; i++) {
            n.kids.push_back(concat(depth));
            n.text += (i ? "|" : "") + n.kids.back().text;
        }
        return n;
    }

    // A member of n's language, as code points.
    void member(const RegexNode &n, std::vector<uint32_t> &out) {
        switch (n.type) {
        case RegexNode::kChar:
            out.push_back(g_.caseless && pick(2) ? flip(n.lo) : n.lo);
            break;
        case RegexNode::kDot: {
            uint32_t c;
            do
                c = any_char();
            while (!g_.dot_all && c == '\n');
            out.push_back(c);
            break;
        }
        case RegexNode::kClass: {
            std::vector<uint32_t> choices;
            for (uint32_t c : all_)
                if (in_class(n, c) != n.negated && !(n.negated && g_.caseless && in_class(n, flip(c))))
                    choices.push_back(c);
            // A span's member inside it, or just beside a negated one.
            const uint32_t inside = g_.spans ? n.lo + (uint32_t)pick(n.hi - n.lo + 1) : 0;
            if (g_.spans && !n.negated)
                choices.push_back(g_.usable(inside) ? inside : n.lo);
            else if (g_.spans && n.lo > 0)
                choices.push_back(n.lo - 1 >= 0xD800 && n.lo - 1 <= 0xDFFF ? 0xD7FF : n.lo - 1);
            else if (g_.spans)
                choices.push_back(n.hi + 1 >= 0xD800 && n.hi + 1 <= 0xDFFF ? 0xE000 : n.hi + 1);
            out.push_back(choices[pick(choices.size())]);
            break;
        }
        case RegexNode::kAlt:
            member(n.kids[pick(n.kids.size())], out);
            break;
        case RegexNode::kConcat:
            for (const RegexNode &k : n.kids)
                member(k, out);
            break;
        case RegexNode::kRepeat:
            for (int i = 0, times = n.min + pick((n.max < 0 ? 3 : n.max - n.min) + 1); i < times; i++)
                member(n.kids[0], out);
            break;
        }
    }

    std::string member(const RegexNode &n) {
        std::vector<uint32_t> cps;
        member(n, cps);
        return encode_utf8(cps);
    }

    std::string noise(int max_len) {
        std::string s;
        for (int n = pick(max_len + 1); n > 0; n--)
            s += encode_utf8(any_char());
        return s;
    }

    // One character changed, dropped or added: often outside the language.
    void mutate(std::vector<uint32_t> &s) {
        const size_t at = pick(s.size() + 1);
        const int op = pick(3);
        if (op == 2 && at < s.size())
            s.erase(s.begin() + at);
        else if (op == 0 && at < s.size())
            s[at] = any_char();
        else
            s.insert(s.begin() + at, any_char());
    }

  private:
    static uint32_t flip(uint32_t c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ? c ^ 0x20 : c;
    }
    bool in_class(const RegexNode &n, uint32_t c) const {
        return g_.spans ? c >= n.lo && c <= n.hi : c == n.lo || c == n.hi;
    }

    RegexNode concat(int depth) {
        RegexNode n{RegexNode::kConcat};
        for (int i = 0, count = 1 + pick(g_.items); i < count; i++) {
            n.kids.push_back(repeat(depth));
            n.text += n.kids.back().text;
        }
        return n;
    }

    RegexNode repeat(int depth) {
        RegexNode atom_node = atom(depth);
        if (pick(100) >= g_.repeat_percent)
            return atom_node;
        RegexNode n{RegexNode::kRepeat};
        switch (pick(6)) {
        case 0: n.min = 0, n.max = -1, n.text = "*"; break;
        case 1: n.min = 1, n.max = -1, n.text = "+"; break;
        case 2: n.min = 0, n.max = 1, n.text = "?"; break;
        case 3: n.min = n.max = pick(4), n.text = "{" + std::to_string(n.min) + "}"; break;
        case 4: n.min = pick(3), n.max = -1, n.text = "{" + std::to_string(n.min) + ",}"; break;
        default:
            n.min = pick(3), n.max = n.min + 1 + pick(2);
            n.text = "{" + std::to_string(n.min) + "," + std::to_string(n.max) + "}";
        }
        n.text = atom_node.text + n.text;
        n.kids.push_back(std::move(atom_node));
        return n;
    }

    RegexNode atom(int depth) {
        const int kind = pick(depth < g_.depth ? 10 : 8);
        if (kind >= 8) {
            RegexNode n = expression(depth + 1);
            n.text = "(" + n.text + ")";
            return n;
        }
        RegexNode n{kind < 5 ? RegexNode::kChar : kind < 7 ? RegexNode::kClass : RegexNode::kDot};
        n.lo = g_.letters[pick(g_.letters.size())];
        n.hi = g_.letters[pick(g_.letters.size())];
        if (n.type == RegexNode::kChar) {
            n.text = encode_utf8(n.lo);
        } else if (n.type == RegexNode::kDot) {
            n.text = ".";
        } else {
            if (g_.spans && n.lo > n.hi)
                std::swap(n.lo, n.hi);
            n.negated = pick(3) == 0;
            n.text = std::string("[") + (n.negated ? "^" : "") + encode_utf8(n.lo) + (g_.spans ? "-" : "") +
                     encode_utf8(n.hi) + "]";
        }
        return n;
    }

    RegexGrammar g_;
    std::vector<uint32_t> all_;

  public:
    std::mt19937 rng;
};

}  // namespace vael_test

#endif  // VAEL_TESTS_SUPPORT_RANDOM_REGEX_H
