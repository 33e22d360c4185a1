// The control tools against a host with one and with four instances: parameter get and set, answered from the
// library's real parameters; statistics summed over the instances (the adders, the loop over the instances, and the
// handle-table report). The self test as an operator drives it through the tools, the debug log its only output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_apps.h"

namespace {

// The other side of the control channel, with several instances, installed through the library's own init.
class CtlHost {
  public:
    static constexpr int kIoctlNumber = 0x5641;
    static constexpr const char *kModule = "vael_apps";

    // One instance takes the plain init (the library then sends every request
    // to the plain ioctl); more take the init with instances.
    explicit CtlHost(int instances) : instances_(instances), overrides_(instances) {
        current_ = this;
        vael_apps_fini();
        if (instances == 1) {
            vael_apps_callbacks cbs = {&CtlHost::plain_ioctl, &CtlHost::ioctl_num};
            EXPECT_EQ(vael_apps_init(&cbs), 0);
        } else {
            vael_apps_callbacks_multik cbs = {&CtlHost::plain_ioctl, &CtlHost::ioctl_num, &CtlHost::ioctl_multik,
                                              &CtlHost::instance_range};
            EXPECT_EQ(vael_apps_init_multik(&cbs), 0);
        }
    }
    ~CtlHost() {
        vael_apps_fini();
        EXPECT_EQ(vael_apps_init(nullptr), 0);
        current_ = nullptr;
    }
    CtlHost(const CtlHost &) = delete;
    CtlHost &operator=(const CtlHost &) = delete;

    void override_int(int instance, const std::string &name, int value) { overrides_[instance][name] = value; }
    void fail_instance(int instance) { failing_ = instance; }
    // The instances named by the requests so far, in order.
    const std::vector<int> &requests() const { return requests_; }

    // A handle table of `instance`, behind those it has, and handles allocated and freed in one.
    void add_table(int instance, const char *name) { tables_.push_back(Table{instance, name}); }
    void churn(int instance, int index, uint32_t allocated, uint32_t freed) {
        Table *t = of_instance(instance).at(index);
        t->allocated += allocated;
        t->freed += freed;
    }

  private:
    struct Table { int instance; std::string name; uint32_t allocated = 0, freed = 0; };

    // A parameter of the library as the host offers it: an integer, or a text of PM_CALLBACK_TEST_TEXT_SIZE bytes.
    struct Param { const char *name; int *number; char *text; int (*callback)(void); };

    static int compile_cb() { return pm_callback_test_compile_cb("pm_callback_test"); }

    static const std::vector<Param> &params() {
        static const std::vector<Param> kParams = {
            {"vael_dfa_state_limit", &vael_dfa_state_limit, nullptr, nullptr},
            {"vael_pm_min_lss_size", &vael_pm_min_lss_size, nullptr, nullptr},
            {"vael_thin_nfa_max_partial_trans", &vael_thin_nfa_max_partial_trans, nullptr, nullptr},
            {"vael_pm_pcre_use_dfa_exec", &vael_pm_pcre_use_dfa_exec, nullptr, nullptr},
            {"pm_callback_test_compile_lss", nullptr, pm_callback_test_compile_lss, pm_callback_test_compile_lss_cb},
            {"pm_callback_test_compile_re", nullptr, pm_callback_test_compile_re, pm_callback_test_compile_re_cb},
            {"pm_callback_test_buffer", nullptr, pm_callback_test_buffer, pm_callback_test_buffer_cb},
            {"pm_callback_test_compile", &pm_callback_test_compile, nullptr, compile_cb},
            {"pm_callback_test_reset_test", &pm_callback_test_reset_test, nullptr, pm_callback_test_reset_test_cb},
        };
        return kParams;
    }

    std::vector<Table *> of_instance(int instance) {
        std::vector<Table *> out;
        for (auto &t : tables_)
            if (t.instance == instance)
                out.push_back(&t);
        return out;
    }

    static int fail(int error) {
        errno = error;
        return -1;
    }

    static int ioctl_num() { return kIoctlNumber; }
    static int instance_range(int *first, int *last) { return *first = 0, *last = current_->instances_ - 1, 0; }
    static int plain_ioctl(int number, void *record) { return ioctl_multik(number, record, -1); }

    static int ioctl_multik(int number, void *record, int instance) {
        CtlHost *h = current_;
        h->requests_.push_back(instance);
        auto *r = static_cast<vael_ctl_record *>(record);
        if (number != kIoctlNumber || !r || !r->data)
            return fail(EINVAL);
        if (instance == -1)
            instance = 0;
        if (instance != -2 && (instance < 0 || instance >= h->instances_))
            return fail(ENODEV);
        if (h->failing_ >= 0 && (instance == h->failing_ || instance == -2))
            return fail(EIO);
        if (r->command == VAEL_PARAMS_CTL_COMMAND && r->data_len == sizeof(vael_params_ctl_request))
            return h->answer_param(static_cast<vael_params_ctl_request *>(r->data), instance);
        if (r->command == VAEL_HANDLES_CTL_COMMAND && r->data_len == sizeof(vael_handles_ctl_request) && instance >= 0)
            return h->answer_handles(static_cast<vael_handles_ctl_request *>(r->data), instance);
        return fail(EINVAL);
    }

    int answer_param(vael_params_ctl_request *q, int instance) {
        if (strnlen(q->name, sizeof q->name) == sizeof q->name ||
            strnlen(q->module, sizeof q->module) == sizeof q->module)
            return fail(EINVAL);
        if (q->module[0] && std::strcmp(q->module, kModule) != 0)
            return fail(ENOENT);
        const Param *p = nullptr;
        for (const Param &c : params())
            if (std::strcmp(c.name, q->name) == 0)
                p = &c;
        if (!p || (p->number ? VAEL_PARAMS_TYPE_INT : VAEL_PARAMS_TYPE_STRING) != q->type)
            return fail(ENOENT);
        if (q->operation == VAEL_PARAMS_OP_GET)
            return instance == -2 ? fail(EINVAL) : get(*p, q, instance);
        if (q->operation != VAEL_PARAMS_OP_SET)
            return fail(EINVAL);
        if (p->number) {
            if (q->value_len != sizeof(int))
                return fail(EINVAL);
            std::memcpy(p->number, q->value, sizeof(int));
        } else {
            if (q->value_len == 0 || q->value_len > sizeof q->value || q->value[q->value_len - 1] != '\0')
                return fail(EINVAL);
            std::memset(p->text, 0, PM_CALLBACK_TEST_TEXT_SIZE);
            std::memcpy(p->text, q->value, q->value_len);
        }
        for (int i = 0; i < instances_; i++)
            if (instance == -2 || instance == i)
                overrides_[i].erase(p->name);
        return p->callback && p->callback() != 0 ? fail(EINVAL) : 0;
    }

    int get(const Param &p, vael_params_ctl_request *q, int instance) {
        std::memset(q->value, 0, sizeof q->value);
        if (p.number) {
            auto it = overrides_[instance].find(p.name);
            const int v = it != overrides_[instance].end() ? it->second : *p.number;
            std::memcpy(q->value, &v, sizeof v);
            q->value_len = sizeof v;
            return 0;
        }
        // The full length goes back even when only the first bytes fit.
        const size_t len = strnlen(p.text, PM_CALLBACK_TEST_TEXT_SIZE);
        std::memcpy(q->value, p.text, std::min(len, sizeof q->value));
        q->value_len = (uint32_t)len + 1;
        return 0;
    }

    int answer_handles(vael_handles_ctl_request *q, int instance) {
        const std::vector<Table *> mine = of_instance(instance);
        if (q->request != 1)
            return fail(EINVAL);
        if (q->index >= mine.size())
            return fail(ENOENT);
        const Table &t = *mine[q->index];
        q->more = q->index + 1 < mine.size();
        std::memcpy(q->name, t.name.data(), std::min(t.name.size(), sizeof q->name - 1));
        q->handles_allocated = t.allocated;
        q->handles_freed = t.freed;
        // One pool per table, made with it.
        q->pools_allocated = q->pools_preallocated = q->max_pools = 1;
        return 0;
    }

    static inline CtlHost *current_ = nullptr;
    int instances_;
    int failing_ = -1;
    std::vector<std::map<std::string, int>> overrides_;
    std::vector<Table> tables_;
    std::vector<int> requests_;
};

// The get or set tool run as an operator runs it: words[0] is "get" or
// "set", the rest is the tool's argv; its result and what it printed.
struct ToolRun { int rc; std::string out; std::string err; };

ToolRun tool(const std::vector<std::string> &words) {
    std::vector<char *> argv;
    for (size_t i = 1; i < words.size(); i++)
        argv.push_back(const_cast<char *>(words[i].c_str()));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ToolRun r;
    r.rc = words[0] == "get" ? vael_params_user_ctl_get((int)argv.size(), argv.data())
                             : vael_params_user_ctl_set((int)argv.size(), argv.data());
    r.out = testing::internal::GetCapturedStdout();
    r.err = testing::internal::GetCapturedStderr();
    return r;
}

using vael_test::LogCapture;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;

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
        const ToolRun run = tool(words_of(s.line));
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
