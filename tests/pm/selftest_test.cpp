// The self test as an operator drives it: parameters set and read through the control tools, a host that calls the
// callbacks, and the debug log as the only output.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tests/tools/ctl_host.h"
#include "vael/vael_apps.h"

namespace {

using vael_test::CtlHost;
using vael_test::LogCapture;
using vael_test::ScopedTopic;

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
