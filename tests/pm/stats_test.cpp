// Statistics reports: a known PM after a known scan, read back from the text report and from the CSV report (the same
// numbers); the operator's flag language; the run record's sums and the pattern order; the report's sort list under
// allocation failures.
#include <gtest/gtest.h>

#include <map>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"

namespace {

using vael_test::LogCapture;

// Five patterns: two strings, a PCRE and a REM expression that match once,
// and a PCRE expression whose LSS hits without a match.
vael_pm_handle *known_pm() {
    vael_pm_handle *pm = vael_pm_test::compile({{'s', "abc"}, {'s', "xyz"}, {'l', "foo[0-9]+bar", 0, "foo"},
                                                {'l', "qq[a-z]+ww", VAEL_PM_USE_REM, "qq"}, {'l', "zzz[0-9]", 0, "zzz"}},
                                               1, "stats test");
    for (const char *text : {"abc xyz foo12bar qqabww", "abcabc foo bar zzzq", "nothing"})
        vael_pm_test::run(pm, text, 0);
    return pm;
}

struct PmOwner {
    vael_pm_handle *pm = known_pm();
    ~PmOwner() { vael_pm_destroy(pm); }
};

std::string report(vael_pm_handle *pm, const char *flags, int level = 2) {
    vael_pm_stats_attrs attrs;
    vael_pm_stats_attrs_set_defaults(&attrs);
    EXPECT_EQ(vael_pm_stats_pars_flags(flags, &attrs), 0);
    LogCapture log;
    vael_pm_stats_print_ex(pm, level, 1, &attrs);
    return log.text();
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The value after the label on the n-th line that starts with it.
std::string value_after(const std::string &text, const std::string &label, int nth = 0) {
    for (const std::string &line : lines_of(text))
        if (line.rfind(label, 0) == 0 && nth-- == 0)
            return line.substr(label.size());
    return "<missing " + label + ">";
}

// A CSV reader: ';' ends every field, a field may be quoted with '"'; no field here holds a ';'.
std::vector<std::map<std::string, std::string>> read_csv(const std::string &text) {
    std::vector<std::vector<std::string>> rows;
    for (const std::string &line : lines_of(text)) {
        EXPECT_TRUE(line.ends_with(';')) << line;
        std::istringstream in(line);
        rows.emplace_back();
        for (std::string f; std::getline(in, f, ';');)
            rows.back().push_back(f.size() > 1 && f[0] == '"' && f.back() == '"' ? f.substr(1, f.size() - 2) : f);
    }
    std::vector<std::map<std::string, std::string>> records(rows.empty() ? 0 : rows.size() - 1);
    for (size_t r = 1; r < rows.size(); r++) {
        EXPECT_LE(rows[r].size(), rows[0].size()) << "row " << r;
        for (size_t f = 0; f < rows[r].size() && f < rows[0].size(); f++)
            records[r - 1][rows[0][f]] = rows[r][f];
    }
    return records;
}

// Per pattern: first-tier hits, true matches and ratio as the scan makes them.
struct PatternRow { int32_t id; const char *tier1, *matches, *ratio, *lss, *tier2; };
const PatternRow kPatterns[] = {
    {1, "2", "2", "1/1", "abc", "FALSE"}, {2, "1", "1", "1/1", "xyz", "FALSE"},
    {3, "2", "1", "1/2", "foo", "TRUE"},  {4, "1", "1", "1/1", "qq", "TRUE"}, {5, "1", "0", "0", "zzz", "TRUE"},
};

TEST(StatsReport, TextAndCsvOfAKnownScanAgree) {
    PmOwner owner;
    ASSERT_TRUE(owner.pm);
    const std::string text = report(owner.pm, "");
    // The PM's own table.
    const std::map<std::string, std::string> kLines = {
        {"Number of patterns in PM: ", "5"}, {"Number of compiled second tiers in PM: ", "3"},
        {"Number of matches in first tier: ", "7"}, {"Maximal number of matches in one buffer in first tier: ", "4"},
        {"Number of second tiers which ran is: ", "3"},
        {"Printing PM ", std::to_string(owner.pm->pm_id) + " stats ( stats test )"},
        {"TIER1 type: ", "Thin NFA"},      {"Number of executed buffers is ", "3"},
        {"Max buffer length is ", "23"},   {"Avg buffer length is ", "16"},
        {"Avg execution time is ", "0 ns for PM, 0 ns for callbacks."},
    };
    for (const auto &[label, value] : kLines)
        EXPECT_EQ(value_after(text, label), value) << label;
    EXPECT_TRUE(text.find("TIER2 type: PCRE\n") != std::string::npos && text.find("TIER2 type: REM\n") != std::string::npos);

    // The same numbers as CSV, one table at a time; the pattern table both ways.
    auto pm_csv = read_csv(report(owner.pm, "/FORMAT=CSV,LEVEL=PM"));
    ASSERT_EQ(pm_csv.size(), 1u);
    EXPECT_EQ(pm_csv[0]["Patterns #"], value_after(text, "Number of patterns in PM: "));
    EXPECT_EQ(pm_csv[0]["Tier1 matches #"], value_after(text, "Number of matches in first tier: "));
    EXPECT_EQ(pm_csv[0]["Tier2 matches #"], value_after(text, "Number of matches in second tier: "));
    EXPECT_EQ(pm_csv[0]["Tier2 that ran #"], value_after(text, "Number of second tiers which ran is: "));
    auto t1_csv = read_csv(report(owner.pm, "/FORMAT=CSV,LEVEL=TIER1"));
    ASSERT_EQ(t1_csv.size(), 1u);
    EXPECT_EQ(t1_csv[0]["Matches #"], "7");
    EXPECT_EQ(t1_csv[0]["Avg buffer length"], "16");
    auto t2_csv = read_csv(report(owner.pm, "/FORMAT=CSV,LEVEL=TIER2"));
    ASSERT_EQ(t2_csv.size(), std::size(kPatterns));
    for (size_t i = 0; i < std::size(kPatterns); i++) {
        const PatternRow &p = kPatterns[i];
        EXPECT_EQ(value_after(text, "Pattern id: ", (int)i).substr(0, 13),
                  std::to_string(p.id) + " (internal " + std::to_string(i));
        EXPECT_EQ(value_after(text, "LSS (matched: ", (int)i),
                  std::string(p.tier1) + ", matches that resulted in pm match: " + p.matches +
                      ", match ratio: " + p.ratio + " ):" + p.lss);
        EXPECT_EQ(t2_csv[i]["Pattern id"], std::to_string(p.id));
        EXPECT_EQ(t2_csv[i]["LSS matches #"], p.tier1);
        EXPECT_EQ(t2_csv[i]["LSS matches # that resulted in pm match"], p.matches);
        EXPECT_EQ(t2_csv[i]["LSS match ratio"], p.ratio);
        EXPECT_EQ(t2_csv[i]["LSS string"], p.lss);
        EXPECT_EQ(t2_csv[i]["Tier2 exists"], p.tier2);
    }
    // A copy of the PM carries the engines' run figures over.
    vael_pm_handle *copy = vael_pm_duplicate(owner.pm, "stats copy");
    ASSERT_TRUE(copy);
    EXPECT_EQ(vael_pm_get_tier1_matches(copy), 7u);
    vael_pm_destroy(copy);
}

// Flags -> the parsed attributes (sort, ascending, format, level) or the parser's message.
TEST(StatsReport, FlagLanguage) {
    const struct { const char *flags; vael_pm_stats_attrs expect; const char *message; } kRows[] = {
        {"", {4, 1, 0, 7}, ""}, {"/S=PERF,D,FORMAT=CSV,LEVEL=TIER2", {3, 0, 1, 4}, ""}, {"/S=ID", {0, 1, 0, 7}, ""},
        {"/LEVEL=TIER1,D,S=MATCHES", {2, 0, 0, 2}, ""}, {"/S=INTERNAL_ID,FORMAT=TEXT", {4, 1, 0, 7}, ""},
        {"/X", {}, "Failed to parse flags: Unknown flag\n"},
        {"/S=FOO", {}, "Failed to parse flags: Illegal flag value (S=)\n"},
        {"/LEVEL=ALL", {}, "Failed to parse flags: Illegal flag value (LEVEL=)\n"},
        {"/S=ID;", {}, "Failed to parse flags: Illegal attribute/value\n"},
        {"S=ID", {}, "Failed to parse flags: Illegal flag\n"},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.flags);
        vael_pm_stats_attrs attrs;
        vael_pm_stats_attrs_set_defaults(&attrs);
        LogCapture log;
        const int rc = vael_pm_stats_pars_flags(row.flags, &attrs);
        // The report's line ends what is printed; the log's notes may come before it.
        EXPECT_TRUE(*row.message ? log.text().ends_with(row.message) : log.text().empty()) << log.text();
        EXPECT_EQ(rc, *row.message ? -1 : 0);
        if (rc == 0) {
            EXPECT_EQ(std::tie(attrs.sort, attrs.ascending, attrs.format, attrs.level),
                      std::tie(row.expect.sort, row.expect.ascending, row.expect.format, row.expect.level));
        }
    }
}

// The operator's texts -> lines the report holds, and one it must not.
TEST(StatsReport, OperatorEntry) {
    PmOwner owner;
    const struct { const char *text; std::vector<std::string> present; const char *absent; } kRows[] = {
        {"ALL", {"Number of PMs is 1\n", "TIER1 stats\n", "Pattern id: 5 (internal 4)"}, "CSV"},
        {"ALL/FORMAT=CSV",
         {"Can't print CSV format for more than one level. Specify LEVEL=PM/TIER1/TIER2\n"}, "PM id;"},
        {"ALL/FORMAT=CSV,LEVEL=TIER1",
         {"**** START CSV FORMAT ****\nPM id;PM name;Tier1 type;", "**** END CSV FORMAT ****\n"}, "Pattern id"},
        {"ALL/X", {"Failed to parse flags: Unknown flag\n"}, "Printing PM"},
        {"qq[a-z", {"Requested Statistics for PM holding pattern: qq[a-z\n", "Printing PM"}, "Can't find"},
        {"abc", {"Can't find any PM holding this pattern\n"}, "Printing PM"}, {"RESET", {}, "Number of PMs"},
        {"ALL/LEVEL=TIER1", {"Number of executed buffers is 0\n"}, "Number of executed buffers is 3"},
    };
    for (const auto &row : kRows) {
        std::snprintf(vael_pm_stats_pattern, sizeof vael_pm_stats_pattern, "%s", row.text);
        LogCapture log;
        vael_pm_stats_print_cb();
        for (const std::string &line : row.present)
            EXPECT_TRUE(log.contains(line)) << row.text << " lacks " << line << "\n" << log.text();
        EXPECT_FALSE(log.contains(row.absent)) << row.text << "\n" << log.text();
    }
    // The reset leaves the patterns' own counters.
    EXPECT_EQ(owner.pm->pm_array[0].tier1_matches, 2u);
    EXPECT_EQ(vael_pm_get_tier1_matches(owner.pm), 0u);
}

// Sort flags -> order of the pattern table (ties keep the list's insertion
// rule: a new equal element goes before the old).
TEST(StatsReport, PatternOrder) {
    PmOwner owner;
    const std::pair<const char *, std::vector<int>> kRows[] = {
        {"/LEVEL=TIER2", {1, 2, 3, 4, 5}},               {"/LEVEL=TIER2,D", {5, 4, 3, 2, 1}},
        {"/LEVEL=TIER2,S=MATCHES,D", {1, 4, 3, 2, 5}},   {"/LEVEL=TIER2,S=TIER1", {5, 4, 2, 3, 1}},
    };
    for (const auto &[flags, ids] : kRows) {
        std::vector<int> got;
        for (const std::string &line : lines_of(report(owner.pm, flags)))
            if (line.rfind("Pattern id: ", 0) == 0)
                got.push_back(std::stoi(line.substr(12)));
        EXPECT_EQ(got, ids) << flags;
    }
}

// The pattern table's sort list under each allocation failure: the report says so and the accounts come back.
TEST(StatsReport, SortListFailmemWalk) {
    PmOwner owner;
    vael_pm_stats_attrs attrs{VAEL_PM_STATS_SORT_ID, 1, VAEL_PM_STATS_FORMAT_TEXT, VAEL_PM_STATS_LEVEL_TIER2};
    std::string last;
    auto attempt = [&] {
        LogCapture log;
        vael_pm_stats_print_ex(owner.pm, 2, 1, &attrs);
        last = log.text();
        return !log.contains("Failed to sort patterns\n");
    };
    auto failed_cleanly = [&] { return last.find("Pattern id") == std::string::npos; };
    const vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, failed_cleanly);
    EXPECT_TRUE(w.succeeded);
    EXPECT_GE(w.rounds, 7);  // the list and an element per pattern
}

}  // namespace
