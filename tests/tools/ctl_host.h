// A host for the control tools' tests: the other side of the control channel, with several instances, installed
// through the library's own init.
#ifndef VAEL_TESTS_TOOLS_CTL_HOST_H
#define VAEL_TESTS_TOOLS_CTL_HOST_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "vael/vael_apps.h"

namespace vael_test {

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

inline ToolRun ctl_tool(const std::vector<std::string> &words) {
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

}  // namespace vael_test

#endif  // VAEL_TESTS_TOOLS_CTL_HOST_H
