// A keyword rule as the tests use it: compiled from its text, alone or in a
// PM, written to an image, loaded back and run over a buffer.
#ifndef VAEL_TESTS_KW_RULE_RUN_H
#define VAEL_TESTS_KW_RULE_RUN_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "tests/support/vael_test_support.h"

namespace kw_run {

inline vael_kw_mgr *compile(const std::string &rule, vael_pm_error *err) {
    vael_pm_error_init(err);
    vael_pmglob_string *s =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(rule.data()), (uint32_t)rule.size(), -1, 0);
    vael_test::LogCapture quiet;
    auto *mgr = static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(s, 0, 0, err));
    vael_pmglob_string_destroy(s);
    return mgr;
}

inline std::string repeat(const std::string &text, int times) {
    std::string out;
    for (int i = 0; i < times; i++)
        out += text;
    return out;
}

using Mgr = std::unique_ptr<vael_kw_mgr, void (*)(void *)>;

// The rule compiled, destroyed with the scope.
inline Mgr compiled(const std::string &rule) {
    vael_pm_error err;
    Mgr mgr(compile(rule, &err), vael_kw_mgr_destroy);
    EXPECT_NE(mgr, nullptr) << rule << ": " << (err.error_string ? err.error_string : "");
    return mgr;
}

struct PmRule { std::string lss, rule; int32_t id; bool no_history; };

inline int on_match(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset,
                    vael_vbuf *, int *) {
    static_cast<std::vector<vael_test::Hit> *>(arg)->push_back(vael_test::Hit{id, offset});
    return 0;
}

// A PM of keyword rules; its matches go to the std::vector<Hit> given to the run.
inline vael_pm_handle *pm_compile(const std::vector<PmRule> &rules, vael_pm_error *err) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &r : rules)
        EXPECT_EQ((r.no_history ? vael_pm_patterns_add_pattern_kw_nohistory : vael_pm_patterns_add_pattern_kw)(
                      list, r.lss.data(), (uint32_t)r.lss.size(), r.rule.c_str(), r.id),
                  0);
    vael_test::LogCapture quiet;
    vael_pm_handle *pm = vael_pm_compile(list, on_match, 0, err, "kw test");
    vael_pm_patterns_destroy(list);
    return pm;
}

inline std::vector<unsigned char> image_of(vael_kw_mgr *mgr) {
    std::vector<unsigned char> image(vael_kw_mgr_serialize_get_size(mgr));
    unsigned char *p = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vael_kw_mgr_serialize(mgr, &p, &space), 0);
    return image;
}

// From a block of exactly `size` bytes, so a read past it is ASan's. With
// `quiet` off the load's log lines reach the caller's capture.
inline vael_kw_mgr *load(const std::vector<unsigned char> &image, uint32_t size, bool quiet = true) {
    auto *copy = static_cast<unsigned char *>(std::malloc(size ? size : 1));
    std::memcpy(copy, image.data(), size);
    const unsigned char *p = copy;
    uint32_t space = size;
    std::unique_ptr<vael_test::LogCapture> capture(quiet ? new vael_test::LogCapture : nullptr);
    auto *mgr = static_cast<vael_kw_mgr *>(vael_kw_mgr_deserialize(&p, &space, nullptr, nullptr));
    std::free(copy);
    return mgr;
}

// -1: no match; else the match's end.
inline int64_t verdict(vael_kw_mgr *mgr, const std::string &buf) {
    int is_match = 0;
    uint32_t end = 0;
    vael_test::LogCapture quiet;
    EXPECT_EQ(vael_kw_mgr_exec(mgr, (const unsigned char *)buf.data(), (uint32_t)buf.size(), &is_match, &end), 0);
    return is_match ? (int64_t)end : -1;
}

// Buffers and the end of the rule's match over each, -1 for none.
using Runs = std::vector<std::pair<std::string, int64_t>>;

// The verdicts of the rule as compiled, as loaded from its image and as
// duplicated, which must agree.
inline void expect_verdicts(const std::string &rule, const Runs &runs) {
    vael_pm_error err;
    vael_kw_mgr *mgr = compile(rule, &err);
    ASSERT_NE(mgr, nullptr) << rule << ": " << (err.error_string ? err.error_string : "");
    vael_test::LogCapture quiet;
    vael_kw_mgr *const all[] = {mgr, load(image_of(mgr), vael_kw_mgr_serialize_get_size(mgr)),
                               static_cast<vael_kw_mgr *>(vael_kw_mgr_duplicate(mgr))};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_NE(all[i], nullptr) << rule << " copy " << i;
        for (const auto &[buf, end] : runs)
            EXPECT_EQ(all[i] ? verdict(all[i], buf) : -2, end) << rule << " over '" << buf << "', copy " << i;
        vael_kw_mgr_destroy(all[i]);
    }
}

struct Refusal { std::string rule; const char *text; uint32_t type = 0; };

// Each rule is refused with its text and error type, alone and through the PM
// with the user's id, with nothing held.
inline void expect_refusals(const std::vector<Refusal> &cases) {
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rule);
        const intptr_t before = vael_pmglob_memory_get_alloc_total(), kbefore = qx_kmem_get_alloc_total();
        vael_pm_error err;
        EXPECT_EQ(compile(c.rule, &err), nullptr);
        EXPECT_STREQ(err.error_string ? err.error_string : "", c.text);
        EXPECT_EQ(err.error_type, c.type);
        EXPECT_EQ(pm_compile({{"zz", R"(data: "zz";)", 1, false}, {"ab", c.rule, 42, false}}, &err), nullptr);
        EXPECT_EQ(err.pattern_id, 42);
        EXPECT_STREQ(err.error_string ? err.error_string : "", c.text);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before);
        EXPECT_EQ(qx_kmem_get_alloc_total(), kbefore);
    }
}

}  // namespace kw_run

#endif  // VAEL_TESTS_KW_RULE_RUN_H
