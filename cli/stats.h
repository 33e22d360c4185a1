// stats.h - vael-scan's --stats: the library's statistics report of the
// compiled patterns, printed to standard error after the scan.
#ifndef VAEL_CLI_STATS_H
#define VAEL_CLI_STATS_H

#include <optional>
#include <string>
#include <string_view>

#include "vael/vael_apps.h"

namespace vael::cli {

// Reads the value of --stats: empty for the default report, else the
// library's flags with or without their leading '/' ("S=PERF,D",
// "/FORMAT=CSV,LEVEL=TIER2"). The message of a bad value, as the library
// words it, or nothing.
std::optional<std::string> parse_stats_flags(std::string_view value, vael_pm_stats_attrs &attrs);

// Prints the report of pm (compile and run figures, and the pattern table)
// through the library's debug print, which writes to standard error.
void print_stats(vael_pm_handle *pm, const vael_pm_stats_attrs &attrs);

}  // namespace vael::cli

#endif  // VAEL_CLI_STATS_H
