/*
 * summary.h - the one table vael-bench --summary prints after the usual
 * console output: a row per literal set, a column per figure (compile times,
 * sizes, throughputs of every engine, and whether their matches agreed).
 *
 * The reporter is Google Benchmark's console reporter that also keeps every
 * run it prints, so the table is built from the very runs shown above it.
 */
#ifndef VAEL_BENCH_SUMMARY_H
#define VAEL_BENCH_SUMMARY_H

#include <benchmark/benchmark.h>

#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vael_bench {

class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter();
    void ReportRuns(const std::vector<Run> &runs) override;
    void print_table(std::ostream &out) const;

private:
    struct Figures {
        double real_ms = 0;
        std::map<std::string, double> counters;
        bool from_mean = false;  // a mean of repetitions outranks single runs
    };
    // A figure of benchmark `function` on the set of `size` literals, or
    // null when that benchmark did not run.
    const Figures *find(const std::string &function, int size) const;

    std::map<std::pair<std::string, int>, Figures> runs_;
};

}  // namespace vael_bench

#endif  // VAEL_BENCH_SUMMARY_H
