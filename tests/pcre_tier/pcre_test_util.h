// Helpers of the PCRE tier tests: a handle that destroys itself, and a run
// that collects what the tier delivers through a run context.
#ifndef VAEL_TESTS_PCRE_TIER_PCRE_TEST_UTIL_H
#define VAEL_TESTS_PCRE_TIER_PCRE_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pcre_tier/vael_pcre.h"
#include "tests/support/vael_test_support.h"

namespace vael_pcre_test {

struct HandleDeleter {
    void operator()(vael_pcre_handle *h) const { vael_pcre_destroy(h); }
};
using Handle = std::unique_ptr<vael_pcre_handle, HandleDeleter>;

inline Handle compile(const std::string &pattern, uint32_t pattern_flags = 0, uint32_t compile_flags = 0,
                      vael_pm_error *err = nullptr) {
    vael_pm_error local;
    if (!err)
        err = &local;
    vael_pm_error_init(err);
    vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                                      (uint32_t)pattern.size(), -1, pattern_flags);
    EXPECT_NE(s, nullptr);
    Handle h(static_cast<vael_pcre_handle *>(vael_pcre_compile(s, compile_flags, pattern_flags, err)));
    vael_pmglob_string_destroy(s);
    return h;
}

// One delivered match: the offset of its last byte and extra's second word.
struct Match {
    uint32_t last;
    uint32_t start;
    bool operator==(const Match &o) const { return last == o.last && start == o.start; }
};
inline void PrintTo(const Match &m, std::ostream *os) { *os << "{last " << m.last << ", start " << m.start << "}"; }

// What a run gave; stop_after > 0 writes 0 in keep_going at that match, fail_at > 0 returns non-zero there.
struct Run { int result = 0; std::vector<Match> matches; int stop_after = 0, fail_at = 0; };

inline int collect(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra, int32_t pattern_id) {
    auto *r = static_cast<Run *>(ctx->user_arg);
    EXPECT_EQ(pattern_id, -1);
    r->matches.push_back(Match{offset, extra[1]});
    const int n = (int)r->matches.size();
    if (r->stop_after == n)
        ctx->keep_going = 0;
    return r->fail_at == n ? 7 : 0;
}

inline Run run(vael_pcre_handle *h, const std::string &text, uint32_t exec_flags = 0, uint32_t start = 0,
               int stop_after = 0, int fail_at = 0) {
    Run r{0, {}, stop_after, fail_at};
    vael_pm_exec_cb_ctx ctx{};
    ctx.fn = collect;
    ctx.user_arg = &r;
    ctx.keep_going = 1;
    ctx.pattern_id = -1;
    r.result = vael_pcre_exec(h, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr,
                              start, nullptr, exec_flags, &ctx);
    return r;
}

// The image of a handle, whole.
inline std::vector<unsigned char> image_of(vael_pcre_handle *h) {
    return vael_test::write_image(vael_pcre_get_serialized_size(h), [&](unsigned char **at, uint32_t *space) {
        return vael_pcre_serialize(h, at, space);
    });
}

inline Handle load(const std::vector<unsigned char> &image, uint32_t size) {
    const unsigned char *p = image.data();
    uint32_t space = size;
    return Handle(static_cast<vael_pcre_handle *>(vael_pcre_deserialize(&p, &space, nullptr, nullptr)));
}

}  // namespace vael_pcre_test

#endif  // VAEL_TESTS_PCRE_TIER_PCRE_TEST_UTIL_H
