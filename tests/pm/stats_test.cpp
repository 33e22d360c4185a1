// Statistics reports: a known PM after a known scan, read back from the text report and from the CSV report (the same
// numbers); the operator's flag language; the pattern order; the report's sort list under allocation failures. The
// self test as an operator drives it through the control tools, the debug log its only output.
#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"
#include "tests/tools/ctl_host.h"
#include "vael/vael_apps.h"

namespace {

using vael_test::LogCapture;
using vael_test::CtlHost;
using vael_test::ScopedTopic;

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

int count_of(const std::string &text, const std::string &needle) {
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

// One step of a session: the tool's words ("set TYPE NAME VALUE" or "get TYPE NAME", NAME without its
// pm_callback_test_ prefix, the value the rest of the line), its result, texts the log (or, for a get, the printed
// answer) must hold and must not hold, and how many matches the step logs (-1: not counted).
struct Step { std::string line; int rc; std::vector<std::string> has, lacks; int matches; };

std::vector<std::string> words_of(const std::string &line) {
    std::istringstream in(line);
    std::string verb, type, name, value;
    in >> verb >> type >> name;
    std::vector<std::string> words = {verb, type, "pm_callback_test_" + name};
    if (verb == "set" && std::getline(in >> std::ws, value))
        words.push_back(value);
    return words;
}

TEST(SelftestSession, CollectCompileRunResetThroughParameters) {
    const std::string kCallLss =
        "You should call 'qx ctl set string pm_callback_test_compile_lss_cb <lss_pattern>' before!!!";
    const std::vector<Step> steps = {
        {"set string buffer abc1", -1, {"PM was not compiled. Please use"}, {}, 0},
        {"set str compile_re abc", -1, {kCallLss}, {}, 0},
        {"set int compile 1", -1, {"Error - PM compilation failed"}, {"succeeded"}, 0},
        {"set string compile_lss abc", 0,
         {"pm_patterns created successfully at", "== Got new pattern LSS: ===", "String dump- [abc]"}, {}, 0},
        {"set string compile_re abc[0-9]+", 0,
         {"== Got new pattern RE: ===", "String dump- [abc[0-9]+]"}, {"Error"}, 0},
        // A successful add empties both texts for the next pattern.
        {"get string compile_lss", 0, {"pm_callback_test_compile_lss = ''"}, {}, -1},
        {"set string compile_lss AB", 0, {"== Got new pattern LSS: ==="}, {"created"}, 0},
        {"set string compile_re AB[C-D]", 0, {"== Got new pattern RE: ==="}, {}, 0},
        {"set int compile 1", 0, {"PM compilation succeeded"}, {}, 0},
        // "\x41" is 'A': "xABDy" matches pattern 1 with its last byte at 3.
        {"set string buffer x\\x41BDy", 0, {"PM_match_func:: Orig buffer [xABDy]", "PM_match_func:: match_offset [3]"},
         {"did not found"}, 1},
        {"set string buffer \\x61\\x62\\X637", 0, {"Orig buffer [abc7]", "match_offset [3]"}, {}, 1},
        // Both patterns occur; the callback ends the run at the first.
        {"set string buffer abc1 ABD", 0, {"Found match"}, {}, 1},
        {"set string buffer nothing here", 0, {"PM did not found a match::"}, {}, 0},
        // A bad digit leaves the text as it is from there on.
        {"set string buffer \\xZ1 abc5", 0,
         {"character not within range Z", "hex digit is invalid", "Orig buffer [\\xZ1 abc5]"}, {}, 1},
        {"set string buffer abc5\\x4", -1, {"escape cut at the end"}, {"Found match"}, 0},
        {"set string buffer abc5\\x", -1, {"escape cut at the end"}, {"Found match"}, 0},
        {"get string buffer", 0, {"pm_callback_test_buffer = ''"}, {}, -1},
        // A second compile replaces the PM.
        {"set int compile 1", 0, {"PM compilation succeeded"}, {}, 0},
        {"set string buffer ABC", 0, {"match_offset [2]"}, {}, 1},
        {"set int reset_test 1", 0, {}, {"Error"}, 0},
        {"set string buffer ABC", -1, {"PM was not compiled"}, {}, 0},
        {"set string compile_re abc", -1, {"You should call"}, {}, 0},
    };
    CtlHost host(4);
    ScopedTopic notes("K_PM", VAEL_DBG_NOTICE);
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    for (size_t i = 0; i < steps.size(); i++) {
        const Step &s = steps[i];
        LogCapture log;
        const vael_test::ToolRun run = vael_test::ctl_tool(words_of(s.line));
        EXPECT_EQ(run.rc, s.rc) << "step " << i;
        const std::string &seen = s.line[0] == 'g' ? run.out : log.text();
        for (const std::string &h : s.has) {
            EXPECT_NE(seen.find(h), std::string::npos) << "step " << i << " lacks " << h << " in:\n" << seen;
        }
        for (const std::string &l : s.lacks) {
            EXPECT_EQ(seen.find(l), std::string::npos) << "step " << i << " holds " << l << " in:\n" << seen;
        }
        if (s.matches >= 0) {
            EXPECT_EQ(count_of(log.text(), "PM_match_func:: Found match:"), s.matches) << "step " << i;
        }
    }
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start) << "reset leaves no list and no PM behind";
}

// One pattern, "ABD", collected and compiled by the callbacks.
int collect_and_compile() {
    std::snprintf(pm_callback_test_compile_lss, PM_CALLBACK_TEST_TEXT_SIZE, "ABD");
    std::snprintf(pm_callback_test_compile_re, PM_CALLBACK_TEST_TEXT_SIZE, "ABD");
    if (pm_callback_test_compile_lss_cb() != 0 || pm_callback_test_compile_re_cb() != 0)
        return -1;
    return pm_callback_test_compile_cb("selftest");
}

// Each allocation of a session failing in turn: the callback that met it says -1, and a reset leaves both accounts
// where they were.
TEST(SelftestSession, FailmemWalk) {
    LogCapture log;
    ScopedTopic notes("K_PM", VAEL_DBG_NOTICE);
    const unsigned char text[] = "\\x41BD ABD";
    EXPECT_EQ(pm_callback_test_exec_buffer(text, 4), -1);
    EXPECT_TRUE(log.contains("PM was not compiled yet.")) << log.text();
    auto attempt = [&] {
        const bool ok = collect_and_compile() == 0 && pm_callback_test_exec_buffer(text, sizeof text - 1) == 0;
        if (!ok)
            pm_callback_test_reset_test_cb();
        return ok;
    };
    const vael_test::FailmemWalk walk = vael_test::failmem_walk_each_allocation(attempt, [] { return true; });
    EXPECT_GT(walk.rounds, 3);
    log.clear();
    EXPECT_EQ(pm_callback_test_exec_buffer(text, 6), 0);
    EXPECT_TRUE(log.contains("PM did not found a match::")) << log.text();
    EXPECT_EQ(pm_callback_test_reset_test_cb(), 0);
}

}  // namespace
