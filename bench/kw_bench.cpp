// kw_bench.cpp - 100 keyword rules end to end through the PM over the corpus
// in 64 KiB chunks, beside PCRE running 100 equivalent expressions one after
// the other; 100 rules mixing data, jump and pcre, beside the same rules
// without their pcre keywords; and the worst time per buffer of a rule built
// to backtrack.
//
// Each rule looks for a literal of the set (written as a hex run, found by
// the literal as its LSS), then checks what follows it, as an intrusion
// detection rule does: the byte behind it above 0x40 (a test of a number),
// at least 16 bytes behind it (a length), or an '=' within 8 bytes (a second
// search). Each has an exact expression, so which rules match in each chunk
// is compared with PCRE before any timing; a difference ends the benchmark
// with an error.
#include <benchmark/benchmark.h>
#include <pcre.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "corpus.h"
#include "engines.h"
#include "serial_pcre.h"
#include "set_scan.h"
#include "vael/vael_pm.h"

namespace vael_bench {
namespace {

constexpr int kRuleCount = 100;

struct RuleAndExpression {
    std::string lss, rule, expression;
};

// A literal as the hex run of a data keyword, and as an expression.
std::string hex_of(const std::string &bytes, std::string *escaped = nullptr) {
    std::string hex = "|";
    for (unsigned char c : bytes) {
        char b[8];
        std::snprintf(b, sizeof b, "%s%02x", hex.size() > 1 ? " " : "", c);
        hex += b;
        std::snprintf(b, sizeof b, "\\x%02x", c);
        if (escaped)
            *escaped += b;
    }
    return hex + "|";
}

std::vector<RuleAndExpression> rule_set() {
    std::vector<RuleAndExpression> out;
    const auto &lits = literal_set(kRuleCount);
    for (size_t i = 0; i < lits.size(); i++) {
        std::string escaped;
        const std::string hex = hex_of(lits[i].bytes, &escaped);
        static const char *kChecks[][2] = {
            {"test: 1, >, 64, 0, relative;", "[\\x41-\\xff]"},
            {"length: 16, min, relative;", ".{16}"},
            {"data: \"=\", relative, depth 8;", ".{0,7}="},
        };
        const auto &check = kChecks[i % 3];
        // The LSS is read as an expression too: the escaped form keeps its
        // metacharacters literal.
        out.push_back({escaped, "data: \"" + hex + "\"; " + check[0], escaped + check[1]});
    }
    return out;
}

// The literal, then by turns: an expression anchored behind it; a jump by
// the byte behind it and an expression at the place it lands; a length and
// a search for a query parameter within 64 bytes. Without the pcre keywords
// the rules keep the rest.
std::vector<RuleAndExpression> mixed_rule_set(bool with_pcre) {
    std::vector<RuleAndExpression> out;
    const auto &lits = literal_set(kRuleCount);
    static const char *kTails[][2] = {
        {"", "pcre: \"/^[a-z ]{2}/i\", relative;"},
        {"jump: 1, 0, relative, post_offset 1; ", "pcre: \"/^[^ ]/\", relative;"},
        {"length: 8, min, relative; ", "pcre: \"/=[a-z0-9]+&/\", relative, depth 64;"},
    };
    for (size_t i = 0; i < lits.size(); i++) {
        const auto &tail = kTails[i % 3];
        std::string escaped;
        const std::string hex = hex_of(lits[i].bytes, &escaped);
        out.push_back({escaped, "data: \"" + hex + "\"; " + tail[0] + (with_pcre ? tail[1] : ""), ""});
    }
    return out;
}

int pm_found(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t, vael_vbuf *, int *) {
    if (arg)
        static_cast<std::set<int32_t> *>(arg)->insert(id);
    return 0;
}

vael_pm_handle *compile_rules(const std::vector<RuleAndExpression> &rules) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (size_t i = 0; i < rules.size(); i++)
        vael_pm_patterns_add_pattern_kw(list, rules[i].lss.data(), (uint32_t)rules[i].lss.size(),
                                        rules[i].rule.c_str(), (int32_t)i + 1);
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile(list, pm_found, 0, &err, "kw bench");
    if (!pm)
        std::fprintf(stderr, "kw bench: PM compile failed at rule %d: %s\n", err.pattern_id,
                     err.error_string ? err.error_string : "");
    vael_pm_patterns_destroy(list);
    return pm;
}

vael_pm_handle *rules_pm() {
    static vael_pm_handle *pm = vael_bench::keep_until_release(compile_rules(rule_set()));
    return pm;
}

const vael_bench::SerialPcre &serial_pcre() {
    static const vael_bench::SerialPcre p = [] {
        std::vector<std::string> expressions;
        for (const auto &r : rule_set())
            expressions.push_back(r.expression);
        return vael_bench::SerialPcre(expressions, PCRE_DOTALL);
    }();
    return p;
}

std::string check_rules() {
    static std::string verdict = [] {
        if (!rules_pm())
            return std::string("PM compile failed");
        for (size_t c = 0; c < chunk_count(); c++) {
            std::set<int32_t> pm_ids, pcre_ids;
            pm_scan_chunk(rules_pm(), c, &pm_ids);
            serial_scan_chunk(serial_pcre(), c, &pcre_ids);
            if (pm_ids != pcre_ids)
                return "rules and PCRE differ in chunk " + std::to_string(c);
        }
        return std::string();
    }();
    return verdict;
}

void BM_KwRulesPm(benchmark::State &state) {
    if (auto why = check_rules(); !why.empty())
        return state.SkipWithError(why.c_str());
    size_t found = 0;
    for (auto _ : state)
        found = pm_ids_over_corpus(rules_pm()).size();
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)corpus().size());
    state.counters["matched"] = (double)found;
}

void BM_KwRulesPcreOneAfterAnother(benchmark::State &state) {
    if (auto why = check_rules(); !why.empty())
        return state.SkipWithError(why.c_str());
    size_t found = 0;
    for (auto _ : state)
        found = serial_ids_over_corpus(serial_pcre()).size();
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)corpus().size());
    state.counters["matched"] = (double)found;
}

// Arg 1: the mixed rules; arg 0: the same without their pcre keywords.
void BM_KwMixedRulesPm(benchmark::State &state) {
    static vael_pm_handle *pms[2] = {vael_bench::keep_until_release(compile_rules(mixed_rule_set(false))),
                                     vael_bench::keep_until_release(compile_rules(mixed_rule_set(true)))};
    vael_pm_handle *pm = pms[state.range(0) ? 1 : 0];
    if (!pm)
        return state.SkipWithError("PM compile failed");
    size_t found = 0;
    for (auto _ : state)
        found = pm_ids_over_corpus(pm).size();
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)corpus().size());
    state.counters["matched"] = (double)found;
}

// The worst case of the search: floating keywords that always find a place
// (and so never give up) under a last one that always fails. Every place of
// each resumes every place of the next: the run makes about 64 Ki x depth^2
// keyword calls on one 64 KiB buffer of 'a'. The stack stays at most one
// position per keyword whatever the depth. The figure is the time of one
// buffer, the slowest of the iterations. The peer is PCRE with the same
// search as an expression, a.{0,D-1}a.{0,D-1}ab.
void BM_KwBacktrackWorstBuffer(benchmark::State &state) {
    const auto depth = (uint32_t)state.range(0);
    const std::string d = std::to_string(depth);
    const std::string rule = "data: \"a\"; data: \"a\", relative, depth " + d + "; data: \"a\", relative, depth " + d +
                             "; data: \"b\", relative, depth 1;";
    vael_pm_handle *pm = compile_rules({{"a", rule, ""}});
    if (!pm)
        return state.SkipWithError("PM compile failed");
    const std::vector<unsigned char> buf(kChunkSize, 'a');
    double worst = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        std::set<int32_t> ids;
        vael_pm_exec_ex(pm, buf.data(), (uint32_t)buf.size(), nullptr, nullptr, &ids, 0);
        const std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - t0;
        worst = std::max(worst, ms.count());
        benchmark::DoNotOptimize(ids);
    }
    vael_pm_destroy(pm);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)buf.size());
    state.counters["worst_ms"] = worst;
}

void BM_KwBacktrackPcrePeer(benchmark::State &state) {
    const std::string d = std::to_string(state.range(0) - 1);
    const std::string re = "a.{0," + d + "}a.{0," + d + "}ab";
    const char *msg;
    int at;
    pcre *p = pcre_compile(re.c_str(), PCRE_DOTALL | PCRE_NO_AUTO_CAPTURE, &msg, &at, nullptr);
    if (!p)
        return state.SkipWithError("PCRE compile failed");
    const std::vector<unsigned char> buf(kChunkSize, 'a');
    double worst = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        int ov[3];
        int rc = pcre_exec(p, nullptr, (const char *)buf.data(), (int)buf.size(), 0, 0, ov, 3);
        const std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - t0;
        worst = std::max(worst, ms.count());
        benchmark::DoNotOptimize(rc);
    }
    pcre_free(p);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)buf.size());
    state.counters["worst_ms"] = worst;
}

BENCHMARK(BM_KwRulesPm)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KwRulesPcreOneAfterAnother)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KwMixedRulesPm)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KwBacktrackWorstBuffer)->Arg(4)->Arg(16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KwBacktrackPcrePeer)->Arg(4)->Arg(16)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vael_bench
