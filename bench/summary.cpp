// summary.cpp - the summary table (see summary.h).
//
// Throughputs are in MB/s of 10^6 bytes, sizes in KiB of 1024 bytes. A cell
// is "-" when its benchmark was filtered out and "n/a" when the build has no
// such engine.
#include "summary.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "check.h"
#include "corpus.h"
#include "engines.h"

namespace vael_bench {
namespace {

double to_ms(double value, benchmark::TimeUnit unit) {
    switch (unit) {
        case benchmark::kNanosecond:
            return value / 1e6;
        case benchmark::kMicrosecond:
            return value / 1e3;
        case benchmark::kMillisecond:
            return value;
        case benchmark::kSecond:
            return value * 1e3;
    }
    return value;
}

std::string format(const char *fmt, double value) {
    char buf[32];
    std::snprintf(buf, sizeof buf, fmt, value);
    return buf;
}

bool color_terminal() {
    const char *term = std::getenv("TERM");
    return isatty(STDOUT_FILENO) && term && std::string(term) != "dumb";
}

}  // namespace

SummaryReporter::SummaryReporter() : ConsoleReporter(color_terminal() ? OO_Color : OO_None) {}

void SummaryReporter::ReportRuns(const std::vector<Run> &runs) {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
        if (run.error_occurred)
            continue;
        const bool mean = run.run_type == Run::RT_Aggregate && run.aggregate_name == "mean";
        if (run.run_type == Run::RT_Aggregate && !mean)
            continue;
        Figures &figures = runs_[{run.run_name.function_name, std::atoi(run.run_name.args.c_str())}];
        if (figures.from_mean && !mean)
            continue;
        figures.real_ms = to_ms(run.GetAdjustedRealTime(), run.time_unit);
        figures.from_mean = mean;
        figures.counters.clear();
        for (const auto &[name, counter] : run.counters)
            figures.counters[name] = counter.value;
    }
}

const SummaryReporter::Figures *SummaryReporter::find(const std::string &function, int size) const {
    auto it = runs_.find({function, size});
    return it == runs_.end() ? nullptr : &it->second;
}

void SummaryReporter::print_table(std::ostream &out) const {
    enum class Kind { Milliseconds, MegabytesPerSecond, KibibytesCounter };
    struct Column {
        const char *title;
        const char *function;
        Kind kind;
        const char *counter;
        bool vectorscan;
    };
    static const Column kColumns[] = {
        {"Thin NFA compile ms", "BM_ThinNfaCompile", Kind::Milliseconds, nullptr, false},
        {"BNFA KiB", "BM_ThinNfaCompile", Kind::KibibytesCounter, "bnfa_bytes", false},
        {"prefilter KiB", "BM_ThinNfaCompile", Kind::KibibytesCounter, "prefilter_bytes", false},
        {"pm_exec MB/s", "BM_PmExec", Kind::MegabytesPerSecond, nullptr, false},
        {"pm_exec all MB/s", "BM_PmExecAllMatches", Kind::MegabytesPerSecond, nullptr, false},
        {"pm_exec vbuf MB/s", "BM_PmExecVbuf1500", Kind::MegabytesPerSecond, nullptr, false},
        {"raw exec MB/s", "BM_ThinNfaExec", Kind::MegabytesPerSecond, nullptr, false},
        {"raw no-pf MB/s", "BM_ThinNfaExecNoPrefilter", Kind::MegabytesPerSecond, nullptr, false},
        {"SM compile ms", "BM_SmCompile", Kind::Milliseconds, nullptr, false},
        {"SM KiB", "BM_SmCompile", Kind::KibibytesCounter, "memory_bytes", false},
        {"SM MB/s", "BM_SmExec", Kind::MegabytesPerSecond, nullptr, false},
        {"SM all MB/s", "BM_SmExecAllMatches", Kind::MegabytesPerSecond, nullptr, false},
        {"full AC build ms", "BM_FullAcBuild", Kind::Milliseconds, nullptr, false},
        {"full AC MB/s", "BM_FullAcScan", Kind::MegabytesPerSecond, nullptr, false},
        {"full AC KiB", "BM_FullAcBuild", Kind::KibibytesCounter, "memory_bytes", false},
        {"Vectorscan compile ms", "BM_VectorscanCompile", Kind::Milliseconds, nullptr, true},
        {"Vectorscan MB/s", "BM_VectorscanScan", Kind::MegabytesPerSecond, nullptr, true},
        {"Vectorscan KiB", "BM_VectorscanCompile", Kind::KibibytesCounter, "database_bytes", true},
        {"1st-bytes raw MB/s", "BM_ThinNfaExecFirstBytes", Kind::MegabytesPerSecond, nullptr, false},
        {"1st-bytes no-pf MB/s", "BM_ThinNfaExecFirstBytesNoPrefilter", Kind::MegabytesPerSecond, nullptr, false},
        {"1st-bytes full AC MB/s", "BM_FullAcScanFirstBytes", Kind::MegabytesPerSecond, nullptr, false},
        {"1st-bytes Vectorscan MB/s", "BM_VectorscanScanFirstBytes", Kind::MegabytesPerSecond, nullptr, true},
        {"prefixes raw MB/s", "BM_ThinNfaExecPrefixes", Kind::MegabytesPerSecond, nullptr, false},
        {"prefixes no-pf MB/s", "BM_ThinNfaExecPrefixesNoPrefilter", Kind::MegabytesPerSecond, nullptr, false},
    };
#ifdef VAEL_HAVE_VECTORSCAN
    constexpr bool have_vectorscan = true;
#else
    constexpr bool have_vectorscan = false;
#endif
    const bool bnfa_estimated = !bnfa_size_known();

    std::vector<std::string> header = {"literals"};
    for (const Column &column : kColumns)
        header.push_back(column.title);
    header.push_back("matches");
    header.push_back("counts equal");

    std::vector<std::vector<std::string>> rows;
    for (int size : kSetSizes) {
        std::vector<std::string> row = {std::to_string(size)};
        for (const Column &column : kColumns) {
            if (column.vectorscan && !have_vectorscan) {
                row.push_back("n/a");
                continue;
            }
            const Figures *figures = find(column.function, size);
            if (!figures) {
                row.push_back("-");
                continue;
            }
            switch (column.kind) {
                case Kind::Milliseconds:
                    row.push_back(format(figures->real_ms < 10 ? "%.2f" : "%.1f", figures->real_ms));
                    break;
                case Kind::MegabytesPerSecond: {
                    auto it = figures->counters.find("bytes_per_second");
                    row.push_back(it == figures->counters.end() ? "-" : format("%.0f", it->second / 1e6));
                    break;
                }
                case Kind::KibibytesCounter: {
                    const char *counter = column.counter;
                    if (bnfa_estimated && std::string(counter) == "bnfa_bytes")
                        counter = "engine_bytes";
                    auto it = figures->counters.find(counter);
                    std::string cell = it == figures->counters.end()
                                           ? "-"
                                           : format(it->second < 100 * 1024 ? "%.1f" : "%.0f", it->second / 1024);
                    if (counter != column.counter)
                        cell += "*";
                    row.push_back(cell);
                    break;
                }
            }
        }
        const CheckResult *check = check_result(size);
        row.push_back(check ? std::to_string(check->all_matches) : "-");
        row.push_back(!check ? "-" : check->vectorscan_compared ? "yes" : "yes (no Vectorscan)");
        rows.push_back(row);
    }

    std::vector<size_t> widths(header.size());
    for (size_t i = 0; i < header.size(); ++i) {
        widths[i] = header[i].size();
        for (const auto &row : rows)
            widths[i] = std::max(widths[i], row[i].size());
    }
    auto print_row = [&](const std::vector<std::string> &cells) {
        out << '|';
        for (size_t i = 0; i < cells.size(); ++i)
            out << ' ' << std::string(widths[i] - cells[i].size(), ' ') << cells[i] << " |";
        out << '\n';
    };

    out << "\nSummary: " << kCorpusSize / (1024 * 1024) << " MiB synthetic corpus scanned in " << kChunkSize / 1024
        << " KiB buffers; MB/s = 10^6 bytes per second, KiB = 1024 bytes.\n"
        << "pm_exec: vael_pm_exec_ex with exec flags 0 (first hit per literal and buffer); pm_exec all: with\n"
        << "VAEL_PM_EXEC_ALL_MATCHES; pm_exec vbuf: flags 0, each buffer a virtual buffer of 1,500-byte blocks;\n"
        << "raw exec: vael_thin_nfa_exec with VAEL_PM_EXEC_FROM_PM; raw no-pf: the same with the prefilter off\n"
        << "(vael_thin_nfa_prefilter=0). SM: the DFA string matcher run alone with VAEL_PM_EXEC_FROM_PM (SM all:\n"
        << "and VAEL_PM_EXEC_ALL_MATCHES); SM KiB: its growth of the PM memory account; '-' where SM refuses\n"
        << "the set (more states than the DFA store holds). 1st-bytes: a " << kFirstBytesSize / (1024 * 1024)
        << " MiB text of only the literals' first bytes; prefixes: their first four bytes back to back.\n"
        << "matches: (literal, end offset) pairs over the corpus, which every engine reported alike before\n"
        << "timing began.\n\n";
    print_row(header);
    out << '|';
    for (size_t width : widths)
        out << std::string(width + 1, '-') << ":|";
    out << '\n';
    for (const auto &row : rows)
        print_row(row);
    if (bnfa_estimated)
        out << "* the engine's growth of the PM memory account over the compile: this build cannot read the BNFA "
               "size itself.\n";
    out.flush();
}

}  // namespace vael_bench
