// Parameter get and set from the tool side, against a host with one and with
// four instances that answers from the library's real parameters.
#include <gtest/gtest.h>

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

const std::string kName79(79, 'n');
const std::string kName80(80, 'n');
const std::string kValue79(79, 'v');
const std::string kValue80(80, 'v');
const char kNote[] = "Note: Not all instances have the same value.\nTo see the value of an instance different from 0, "
                     "run 'qx -i <instance_num> ctl get'\n";

TEST(ParamsTool, RefusedRequestsPrintTheirText) {
    struct Row {
        std::vector<std::string> words;
        std::string err;
        bool sent;  // the request reached the host
    };
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
        {{"get", "int", "no_such_parameter"}, "Get operation failed: failed to get parameter from kernel\n", true},
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
    const struct Row {
        int op; std::string name; int type; const char *module; std::string value;
        uint32_t size;  // 0: the value's length + 1
        int rc;
    } rows[] = {
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
    struct Row {
        const char *type; const char *name; const char *value; int *global; int expected_global; const char *printed;
    };
    const Row rows[] = {
        {"int", "vael_pm_min_lss_size", "3", &vael_pm_min_lss_size, 3, "vael_pm_min_lss_size = 3\n"},
        {"int", "vael_pm_pcre_use_dfa_exec", "-5", &vael_pm_pcre_use_dfa_exec, -5,
         "vael_pm_pcre_use_dfa_exec = -5\n"},
        {"ip", "vael_dfa_state_limit", "10.0.0.1", &vael_dfa_state_limit, 0x0a000001,
         "vael_dfa_state_limit = 10.0.0.1\n"},
        {"ip", "vael_thin_nfa_max_partial_trans", "192.168.7.200", &vael_thin_nfa_max_partial_trans,
         (int)0xc0a807c8u, "vael_thin_nfa_max_partial_trans = 192.168.7.200\n"},
        {"str", "pm_callback_test_compile_lss", "needle", nullptr, 0, "pm_callback_test_compile_lss = 'needle'\n"},
        {"string", "pm_callback_test_compile_lss", "", nullptr, 0, "pm_callback_test_compile_lss = ''\n"},
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
            if (r.global) {
                EXPECT_EQ(*r.global, r.expected_global) << r.name;
            }
            const ToolRun get = tool({"get", r.type, r.name});
            EXPECT_EQ(get.rc, 0) << get.err;
            EXPECT_EQ(get.out, r.printed) << instances;
            // A set goes to all instances; a get asks the default one, then each of several.
            std::vector<int> asked(host.requests().begin() + (long)before, host.requests().end());
            const std::vector<int> expected = instances == 1 ? std::vector<int>{-1, -1}
                                                             : std::vector<int>{-2, -1, 0, 1, 2, 3};
            EXPECT_EQ(asked, expected) << r.name;
            if (r.global) {
                int v = 0;
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
    struct Row {
        int instances;
        int override_instance;  // -1: none
        int failing;            // -1: none
        std::string printed;
        int instance_value;     // vael_params_user_get_param_int_multik on instance 2
    };
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

}  // namespace
