// nfa_bench.cpp - subset construction (vael_nfa2dfa) on the NFAs of 20
// IDS-style expressions, and its growth with a {n} bound.
//
// The NFAs are built through the build operations, as the pattern compiler
// will build them: each expression is wrapped in .*( ).* unless it is caret
// anchored, the way an unanchored search is compiled. The NFA is built once
// per benchmark; the timed loop is the subset construction and the destroy of
// its DFA. Counters: nfa_states, dfa_states (0 when the construction is
// refused at the state limit).
//
// BM_Nfa2DfaBound/n times .*ab[0-9]{n}.*: the NFA grows by two states per
// step of the bound and the DFA by one, so doubling n should about double
// both the states and the time.
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "vael/vael_apps.h"
#include "vael/vael_dfa.h"

namespace vael_bench {
namespace {

// A small builder over the build operations; every call consumes its
// fragment arguments, as the operations do.
struct B {
    vael_nfa_env *env;

    vael_nfa *lit(const std::string &s) const {
        return vael_nfa_build_chars(env, reinterpret_cast<const unsigned char *>(s.data()), (uint32_t)s.size());
    }
    // A class from "a-z0-9_" style text (ranges and single bytes).
    vael_nfa *cls(const std::string &members, bool negated = false) const {
        vael_pmascii_range r{};
        r.first = 255;
        r.last = 0;
        auto add = [&](unsigned char c) {
            r.chars[c] = 1;
            if (c < r.first)
                r.first = c;
            if (c > r.last)
                r.last = c;
        };
        for (size_t i = 0; i < members.size(); i++) {
            if (i + 2 < members.size() && members[i + 1] == '-') {
                for (int c = (unsigned char)members[i]; c <= (unsigned char)members[i + 2]; c++)
                    add((unsigned char)c);
                i += 2;
            } else {
                add((unsigned char)members[i]);
            }
        }
        r.negated = negated ? 1 : 0;
        return vael_nfa_build_range(env, &r);
    }
    vael_nfa *any() const { return cls("", true); }
    vael_nfa *cat(std::initializer_list<vael_nfa *> parts) const {
        vael_nfa *out = nullptr;
        for (vael_nfa *p : parts)
            out = out ? vael_nfa_build_concat(out, p) : p;
        return out;
    }
    vael_nfa *alt(std::initializer_list<vael_nfa *> parts) const {
        vael_nfa *out = nullptr;
        for (vael_nfa *p : parts)
            out = out ? vael_nfa_build_alternate(out, p) : p;
        return out;
    }
    vael_nfa *star(vael_nfa *x) const { return vael_nfa_build_kleene(x); }
    vael_nfa *plus(vael_nfa *x) const {
        vael_nfa *copy = vael_nfa_dup(x);
        return vael_nfa_build_concat(copy, vael_nfa_build_kleene(x));
    }
    vael_nfa *opt(vael_nfa *x) const { return vael_nfa_build_alternate(x, vael_nfa_build_empty_nfa(env)); }
    vael_nfa *rep(vael_nfa *x, uint32_t n) const { return vael_nfa_build_quantify(x, n); }
    // x{lo,hi}: lo copies, then hi - lo optional ones.
    vael_nfa *rep(vael_nfa *x, uint32_t lo, uint32_t hi) const {
        vael_nfa *opt_part = opt(vael_nfa_dup(x));
        return cat({rep(x, lo), rep(opt_part, hi - lo)});
    }
    vael_nfa *search(vael_nfa *x) const { return cat({star(any()), x, star(any())}); }
    vael_nfa *from_start(vael_nfa *x) const { return cat({x, star(any())}); }
};

struct Expr {
    const char *text;  // what the expression would read as REM text
    uint32_t flags;
    std::function<vael_nfa *(const B &)> build;
};

const uint32_t kCaseless = VAEL_DFA_CASELESS;

const std::vector<Expr> &expressions() {
    static const std::vector<Expr> list = {
        {"GET /.*\\.php\\?id=[0-9]+", 0,
         [](const B &b) { return b.search(b.cat({b.lit("GET /"), b.star(b.any()), b.lit(".php?id="), b.plus(b.cls("0-9"))})); }},
        {"/etc/passwd", 0, [](const B &b) { return b.search(b.lit("/etc/passwd")); }},
        {"cmd\\.exe", kCaseless, [](const B &b) { return b.search(b.lit("cmd.exe")); }},
        {"union.*select", kCaseless,
         [](const B &b) { return b.search(b.cat({b.lit("union"), b.star(b.any()), b.lit("select")})); }},
        {"<script[^>]*>", kCaseless,
         [](const B &b) { return b.search(b.cat({b.lit("<script"), b.star(b.cls(">", true)), b.lit(">")})); }},
        {"User-Agent: [^\\r\\n]{50}", 0,
         [](const B &b) { return b.search(b.cat({b.lit("User-Agent: "), b.rep(b.cls("\r\n", true), 50)})); }},
        {"\\x90{16}", 0, [](const B &b) { return b.search(b.rep(b.lit("\x90"), 16)); }},
        {"[A-Za-z0-9+/]{20}==", 0,
         [](const B &b) { return b.search(b.cat({b.rep(b.cls("A-Za-z0-9+/"), 20), b.lit("==")})); }},
        {"(\\.\\./){3}", 0, [](const B &b) { return b.search(b.rep(b.lit("../"), 3)); }},
        {"^Content-Length: [0-9]{6}", VAEL_DFA_CARET,
         [](const B &b) { return b.from_start(b.cat({b.lit("Content-Length: "), b.rep(b.cls("0-9"), 6)})); }},
        {"(select|insert|update|delete) .* from", kCaseless,
         [](const B &b) {
             return b.search(b.cat({b.alt({b.lit("select"), b.lit("insert"), b.lit("update"), b.lit("delete")}),
                                    b.lit(" "), b.star(b.any()), b.lit(" from")}));
         }},
        {"%[0-9a-f]{2}%[0-9a-f]{2}", kCaseless,
         [](const B &b) { return b.search(b.cat({b.lit("%"), b.rep(b.cls("0-9a-f"), 2), b.lit("%"), b.rep(b.cls("0-9a-f"), 2)})); }},
        {"eval\\(base64_decode\\(", 0, [](const B &b) { return b.search(b.lit("eval(base64_decode(")); }},
        {"Host: [a-z0-9.-]+\\.onion", kCaseless,
         [](const B &b) { return b.search(b.cat({b.lit("Host: "), b.plus(b.cls("a-z0-9.-")), b.lit(".onion")})); }},
        {"\\xff\\xfe[A-Z]{4}", 0, [](const B &b) { return b.search(b.cat({b.lit("\xff\xfe"), b.rep(b.cls("A-Z"), 4)})); }},
        {"passwd|shadow|group", 0,
         [](const B &b) { return b.search(b.alt({b.lit("passwd"), b.lit("shadow"), b.lit("group")})); }},
        {"[0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}", 0,
         [](const B &b) {
             return b.search(b.cat({b.rep(b.cls("0-9"), 1, 3), b.lit("."), b.rep(b.cls("0-9"), 1, 3), b.lit("."),
                                    b.rep(b.cls("0-9"), 1, 3), b.lit("."), b.rep(b.cls("0-9"), 1, 3)}));
         }},
        {"wget http://[^ ]+\\.sh", 0,
         [](const B &b) { return b.search(b.cat({b.lit("wget http://"), b.plus(b.cls(" ", true)), b.lit(".sh")})); }},
        {"MAIL FROM:<[^>]{64}", kCaseless,
         [](const B &b) { return b.search(b.cat({b.lit("MAIL FROM:<"), b.rep(b.cls(">", true), 64)})); }},
        {"\\r\\n\\r\\n[A-Za-z]{8}:", 0,
         [](const B &b) { return b.search(b.cat({b.lit("\r\n\r\n"), b.rep(b.cls("A-Za-z"), 8), b.lit(":")})); }},
    };
    return list;
}

vael_nfa_env *build_env(uint32_t flags, const std::function<vael_nfa *(const B &)> &build) {
    vael_nfa_env *env = vael_nfa_env_create(flags, nullptr);
    if (!env)
        return nullptr;
    B b{env};
    vael_nfa *nfa = build(b);
    if (!nfa || vael_nfa_env_finalize(env, nfa, 0) != 0) {
        vael_nfa_destroy(nfa);
        vael_nfa_env_destroy(env);
        return nullptr;
    }
    return env;
}

void run_subset(benchmark::State &state, vael_nfa_env *env) {
    if (!env) {
        state.SkipWithError("the NFA could not be built");
        return;
    }
    uint32_t dfa_states = 0;
    for (auto _ : state) {
        vael_dfa *dfa = vael_nfa2dfa(env, 1, nullptr);
        dfa_states = vael_dfa_get_num_of_states(dfa);
        vael_dfa_destroy(dfa);
    }
    state.counters["nfa_states"] = vael_dfa_get_num_of_states(vael_nfa_env_get_dfa(env));
    state.counters["dfa_states"] = dfa_states;
    vael_nfa_env_destroy(env);
}

void BM_Nfa2Dfa(benchmark::State &state) {
    vael_nfa_init();
    const Expr &e = expressions()[(size_t)state.range(0)];
    state.SetLabel(e.text);
    run_subset(state, build_env(e.flags, e.build));
}

void BM_Nfa2DfaBound(benchmark::State &state) {
    vael_nfa_init();
    const uint32_t n = (uint32_t)state.range(0);
    run_subset(state, build_env(0, [n](const B &b) { return b.search(b.cat({b.lit("ab"), b.rep(b.cls("0-9"), n)})); }));
}

BENCHMARK(BM_Nfa2Dfa)->DenseRange(0, 19)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Nfa2DfaBound)->RangeMultiplier(2)->Range(32, 512)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vael_bench
