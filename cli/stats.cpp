// stats.cpp - vael-scan's --stats. The flags are the library's own report
// flags; the parser's message is caught from the debug print so that a bad
// value is a usage error like any other.
#include "stats.h"

#include <cstdio>

namespace vael::cli {

namespace {

void collect(const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }

bool single_level(std::uint32_t level) {
    return level == VAEL_PM_STATS_LEVEL_PM || level == VAEL_PM_STATS_LEVEL_TIER1 ||
           level == VAEL_PM_STATS_LEVEL_TIER2;
}

}  // namespace

std::optional<std::string> parse_stats_flags(std::string_view value, vael_pm_stats_attrs &attrs) {
    vael_pm_stats_attrs_set_defaults(&attrs);
    if (value.empty()) return std::nullopt;
    std::string flags = value.starts_with('/') ? std::string(value) : "/" + std::string(value);
    std::string message;
    tdSetSink(collect, &message);
    const int rc = vael_pm_stats_pars_flags(flags.c_str(), &attrs);
    tdSetSink(nullptr, nullptr);
    if (rc != 0) {
        while (!message.empty() && message.back() == '\n') message.pop_back();
        return "--stats: " + (message.empty() ? std::string("bad flags") : message);
    }
    // A CSV table has one header: one table at a time.
    if (attrs.format == VAEL_PM_STATS_FORMAT_CSV && !single_level(attrs.level))
        return "--stats: Can't print CSV format for more than one level. Specify LEVEL=PM/TIER1/TIER2";
    return std::nullopt;
}

void print_stats(vael_pm_handle *pm, const vael_pm_stats_attrs &attrs) {
    // The matches come first, whole.
    std::fflush(stdout);
    vael_pm_stats_print_ex(pm, 2, 1, &attrs);
}

}  // namespace vael::cli
