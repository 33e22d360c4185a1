// The control tools against a host with one and with four instances: parameter get and set, answered from the
// library's real parameters; statistics summed over the instances (the adders, the loop over the instances, and the
// handle-table report).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "tests/tools/ctl_host.h"
#include "vael/vael_apps.h"

namespace {

using vael_test::CtlHost;
using vael_test::ScopedGlobal;

using ToolRun = vael_test::ToolRun;
const auto tool = vael_test::ctl_tool;

const std::string kName79(79, 'n'), kName80(80, 'n'), kValue79(79, 'v'), kValue80(80, 'v');
const char kNote[] = "Note: Not all instances have the same value.\nTo see the value of an instance different from 0, "
                     "run 'qx -i <instance_num> ctl get'\n";

TEST(ParamsTool, RefusedRequestsPrintTheirText) {
    struct Row { std::vector<std::string> words; std::string err; bool sent; };  // sent: the request reached the host
    const std::vector<Row> rows = {
        {{"get", "int"}, "Get operation failed: not enough arguments\n", false},
        {{"get", "int", "a", "vael_apps", "more"}, "Get operation failed: too many arguments\n", false},
        {{"set", "int", "a"}, "Set operation failed: not enough arguments\n", false},
        {{"set", "int", "a", "1", "vael_apps", "more"}, "Set operation failed: too many arguments\n", false},
        {{"get", "float", "vael_pm_min_lss_size"}, "Get operation failed: unknown type float\n", false},
        {{"get", "int", kName80}, "Get operation failed: parameter name length should not be more than 79\n", false},
        {{"set", "str", kName80, "x"}, "Set operation failed: parameter name length should not be more than 79\n",
         false},
        // 79 characters pass the tool; the host knows no such parameter.
        {{"get", "int", kName79}, "Get operation failed: failed to get parameter from kernel\n", true},
        {{"set", "string", "pm_callback_test_compile_lss", kValue80},
         "Set operation failed: value length should not be more than 79\n", false},
        {{"get", "int", "vael_pm_min_lss_size", "other_module"},
         "Get operation failed: failed to get parameter from kernel\n", true},
    };
    CtlHost host(4);
    for (const Row &r : rows) {
        const size_t before = host.requests().size();
        const ToolRun run = tool(r.words);
        EXPECT_EQ(run.rc, -1) << r.err;
        EXPECT_EQ(run.err, r.err);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(host.requests().size() > before, r.sent) << r.err;
    }
}

TEST(ParamsTool, RequestCodesAtTheLimits) {
    constexpr int kGet = VAEL_PARAMS_OP_GET, kSet = VAEL_PARAMS_OP_SET;
    constexpr int kInt = VAEL_PARAMS_TYPE_INT, kStr = VAEL_PARAMS_TYPE_STRING;
    const std::string lss = "pm_callback_test_compile_lss", min = "vael_pm_min_lss_size";
    // size 0: the value's length + 1.
    struct Row { int op; std::string name; int type; const char *module; std::string value; uint32_t size; int rc; };
    const Row rows[] = {
        {kSet, lss, kStr, nullptr, kValue79, 0, 0}, {kGet, lss, kStr, nullptr, "", 80, 0},
        {kSet, lss, kStr, nullptr, kValue80, 0, -3},
        {kGet, lss, kStr, nullptr, "", 79, -3},  // the answer of 80 bytes does not fit a caller's 79
        {kGet, kName80, kInt, nullptr, "", 80, -2}, {kGet, kName79, kInt, nullptr, "", 80, -4},
        {kGet, min, kInt, "vael_apps", "", 80, 0}, {kGet, min, kInt, "vael_apps_and_more_than_32_bytes__", "", 80, -7},
        {kGet, min, kInt, nullptr, "", 3, -3},
    };
    CtlHost host(4);
    for (const Row &r : rows) {
        std::string buf = r.value;
        buf.resize(96, '\0');
        uint32_t size = r.size ? r.size : (uint32_t)r.value.size() + 1;
        EXPECT_EQ(vael_params_request(r.op, r.name.c_str(), r.type, r.module, buf.data(), &size, -1), r.rc)
            << r.name.size() << " " << r.value.size() << " " << r.size;
        if (r.op == VAEL_PARAMS_OP_GET && r.rc == 0 && r.type == VAEL_PARAMS_TYPE_STRING) {
            EXPECT_EQ(size, 80u);
            EXPECT_EQ(std::string(buf.c_str()), kValue79);
        }
    }
    EXPECT_EQ(pm_callback_test_reset_test_cb(), 0);
}

// A set through the tool reaches the library's global (and its callback), a
// get prints what was set, in every form of the type word.
TEST(ParamsTool, SetThenGetOverOneAndFourInstances) {
    struct Row { const char *type, *name, *value; int *global; int expected_global; };  // no global: a text
    const Row rows[] = {
        {"int", "vael_pm_min_lss_size", "3", &vael_pm_min_lss_size, 3},
        {"int", "vael_pm_pcre_use_dfa_exec", "-5", &vael_pm_pcre_use_dfa_exec, -5},
        {"ip", "vael_dfa_state_limit", "10.0.0.1", &vael_dfa_state_limit, 0x0a000001},
        {"ip", "vael_thin_nfa_max_partial_trans", "192.168.7.200", &vael_thin_nfa_max_partial_trans, (int)0xc0a807c8u},
        {"str", "pm_callback_test_compile_lss", "needle", nullptr, 0},
        {"string", "pm_callback_test_compile_lss", "", nullptr, 0},
    };
    for (int instances : {1, 4}) {
        CtlHost host(instances);
        ScopedGlobal a(vael_pm_min_lss_size, vael_pm_min_lss_size), b(vael_dfa_state_limit, vael_dfa_state_limit),
            c(vael_pm_pcre_use_dfa_exec, vael_pm_pcre_use_dfa_exec),
            d(vael_thin_nfa_max_partial_trans, vael_thin_nfa_max_partial_trans);
        for (const Row &r : rows) {
            const size_t before = host.requests().size();
            const ToolRun set = tool({"set", r.type, r.name, r.value});
            EXPECT_EQ(set.rc, 0) << set.err;
            const ToolRun get = tool({"get", r.type, r.name});
            EXPECT_EQ(get.rc, 0) << get.err;
            const std::string quote = r.global ? "" : "'";
            EXPECT_EQ(get.out, std::string(r.name) + " = " + quote + r.value + quote + "\n") << instances;
            // A set goes to all instances; a get asks the default one, then each of several.
            std::vector<int> asked(host.requests().begin() + (long)before, host.requests().end());
            const std::vector<int> expected = instances == 1 ? std::vector<int>{-1, -1}
                                                             : std::vector<int>{-2, -1, 0, 1, 2, 3};
            EXPECT_EQ(asked, expected) << r.name;
            if (r.global) {
                int v = 0;
                EXPECT_EQ(*r.global, r.expected_global) << r.name;
                EXPECT_EQ(vael_params_user_get_param_int(r.name, &v), 0);
                EXPECT_EQ(v, r.expected_global);
            }
        }
        int v = 1;
        EXPECT_EQ(vael_params_user_get_param_int("no_such_parameter", &v), -1);
        EXPECT_EQ(v, 0);
        EXPECT_EQ(pm_callback_test_reset_test_cb(), 0);
    }
}

TEST(ParamsTool, InstancesThatDisagreeGetTheNote) {
    // Instance overridden and instance failing (-1: none); the value vael_params_user_get_param_int_multik reads
    // from instance 2.
    struct Row { int instances, override_instance, failing; std::string printed; int instance_value; };
    const std::vector<Row> rows = {
        {4, -1, -1, "vael_pm_min_lss_size = 4\n", 4},
        {4, 2, -1, std::string("vael_pm_min_lss_size = 4\n") + kNote, 9},
        {4, 0, -1, std::string("vael_pm_min_lss_size = 9\n") + kNote, 4},
        {4, -1, 1, std::string("vael_pm_min_lss_size = 4\n") + kNote, 4},
        // One instance: printed once, nothing to compare.
        {1, 0, -1, "vael_pm_min_lss_size = 9\n", -1},
    };
    ScopedGlobal lss(vael_pm_min_lss_size, 4);
    for (const Row &r : rows) {
        CtlHost host(r.instances);
        if (r.override_instance >= 0)
            host.override_int(r.override_instance, "vael_pm_min_lss_size", 9);
        host.fail_instance(r.failing);
        const ToolRun get = tool({"get", "int", "vael_pm_min_lss_size"});
        EXPECT_EQ(get.rc, 0);
        EXPECT_EQ(get.out, r.printed) << r.override_instance << " " << r.failing;
        int v = -3;
        if (r.instance_value >= 0) {
            EXPECT_EQ(vael_params_user_get_param_int_multik("vael_pm_min_lss_size", &v, 2), 0);
            EXPECT_EQ(v, r.instance_value);
        }
    }
}

// The request block is the tool's one allocation: its failure is the request's failure, with nothing left behind.
TEST(ParamsTool, FailmemWalk) {
    CtlHost host(4);
    int value = -1;
    auto attempt = [&] { return vael_params_user_get_param_int("vael_pm_min_lss_size", &value) == 0; };
    const vael_test::FailmemWalk walk = vael_test::failmem_walk(attempt, [&] { return value == 0; });
    EXPECT_EQ(walk.rounds, 2);
    EXPECT_EQ(value, vael_pm_min_lss_size);
}

// Per-instance counter blocks the get function reads; a negative result from the instance named in `failing`.
struct Blocks { std::vector<std::vector<uint32_t>> of; int failing = -1; std::vector<uint32_t> asked; };

int get_block(int instance, void *block, void *arg) {
    auto *b = static_cast<Blocks *>(arg);
    b->asked.push_back((uint32_t)instance);
    if (instance == b->failing)
        return -2;
    std::memcpy(block, b->of[instance].data(), b->of[instance].size() * 4);
    return 0;
}

TEST(StatAggregate, SumsOverInstancesAndStopsAtAFailure) {
    const vael_stat_add_fn narrow = vael_stat_aggregate_add_all_ints_wrapper,
                           wide = vael_stat_aggregate_add_all_ints64_wrapper;
    struct Row { int instances, failing; vael_stat_add_fn add; int rc; std::vector<uint32_t> total, asked; bool get; };
    // Instance i holds {i + 1, 10 * (i + 1), 0xffffffff, 0}; the wide adder sums 64-bit counters. get false: no get
    // function.
    const std::vector<Row> rows = {
        {1, -1, narrow, 0, {1, 10, 0xffffffffu, 0}, {0}, true},
        {4, -1, narrow, 0, {10, 100, 0xfffffffcu, 0}, {0, 1, 2, 3}, true},
        {4, -1, wide, 0, {10, 100, 0xfffffffcu, 3}, {0, 1, 2, 3}, true},
        {4, 2, narrow, -1, {3, 30, 0xfffffffeu, 0}, {0, 1, 2}, true},
        {4, 0, wide, -1, {0x55, 0x55, 0x55, 0x55}, {0}, true},
        // No instance, no adder or no get function: nothing is read and the total stays.
        {0, -1, narrow, 0, {0x55, 0x55, 0x55, 0x55}, {}, true},
        {4, -1, nullptr, -1, {0x55, 0x55, 0x55, 0x55}, {}, true},
        {4, -1, narrow, -1, {0x55, 0x55, 0x55, 0x55}, {}, false},
    };
    for (const Row &r : rows) {
        CtlHost host(r.instances);
        Blocks blocks;
        for (int i = 0; i < r.instances; i++)
            blocks.of.push_back({(uint32_t)i + 1, 10u * (i + 1), 0xffffffffu, 0});
        blocks.failing = r.failing;
        std::vector<uint32_t> total(4, 0x55), scratch(4, 0);
        uint32_t size = 16;
        const int rc = vael_stat_aggregate_data_from_all_instances(r.get ? get_block : nullptr, &blocks, r.add, &size,
                                                                   total.data(), scratch.data());
        EXPECT_EQ(rc, r.rc) << r.instances << " " << r.failing;
        EXPECT_EQ(total, r.total) << r.instances << " " << r.failing;
        EXPECT_EQ(blocks.asked, r.asked);
    }
}

// One table of the report: the counters the test host keeps give one pool per table and instance, all preallocated.
std::string table(const char *name, int allocated, int freed, int pools) {
    char text[512];
    std::snprintf(text, sizeof text,
                  "\ttable name \"%s\"\n\t%d handles, %d pools, %d maximum pool(s)\n\t%d allocated, 0 failed, %d "
                  "freed\n\t%d pool(s) allocated, 0 failed, 0 freed, 0 not preallocated\n",
                  name, allocated - freed, pools, pools, allocated, freed, pools);
    return text;
}

// Tables summed over instances, as the operator reads them.
TEST(StatAggregate, HandleTablesOfAllInstances) {
    struct Churn { int instance, table; uint32_t allocated, freed; };
    // Tables per instance, handles allocated and freed in them, the instance failing.
    struct Row { int instances; std::vector<int> tables; std::vector<Churn> churn; int failing, rc; std::string out; };
    const std::vector<Row> rows = {
        {1, {0}, {}, -1, 0, "No handle tables found\n"},
        {4, {0, 0, 0, 0}, {}, -1, 0, "No handle tables found\n"},
        {1, {2}, {{0, 0, 10, 3}}, -1, 0, "\nHandles:\n" + table("flows", 10, 3, 1) + table("sessions", 0, 0, 1)},
        {4, {2, 2, 2, 2}, {{0, 0, 10, 3}, {1, 0, 10, 0}, {2, 0, 5, 2}, {3, 0, 5, 1}, {1, 1, 3, 0}, {3, 1, 2, 0}}, -1, 0,
         "\nHandles:\n" + table("flows", 30, 6, 4) + table("sessions", 5, 0, 4)},
        // Instance 3 has one table fewer: the list ends under the report.
        {4, {2, 2, 2, 1}, {{0, 0, 10, 3}}, -1, -1,
         "\nHandles:\n" + table("flows", 10, 3, 4) + "Unexpected end of table list\n"},
        {4, {2, 2, 2, 2}, {}, 2, -1, "ioctl VAEL_IOCTL (VAEL_IOCTL_HANDLE_DATA) failed\n"},
    };
    for (const Row &r : rows) {
        CtlHost host(r.instances);
        const char *names[] = {"flows", "sessions"};
        for (int i = 0; i < r.instances; i++)
            for (int t = 0; t < r.tables[i]; t++)
                host.add_table(i, names[t]);
        for (const Churn &c : r.churn)
            host.churn(c.instance, c.table, c.allocated, c.freed);
        host.fail_instance(r.failing);
        testing::internal::CaptureStdout();
        const int rc = vael_handles_get_data();
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rc, r.rc) << r.out;
        EXPECT_EQ(out, r.out);
    }
}

}  // namespace
