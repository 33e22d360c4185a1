// The word matcher driven directly: a compile from (text, id, flags) rows and
// a run that records every hit the engine delivers, in delivery order.
#ifndef VAEL_TESTS_TIER1_WM_TEST_UTIL_H
#define VAEL_TESTS_TIER1_WM_TEST_UTIL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/vael_test_support.h"
#include "tier1/vael_wm.h"

namespace vael_wm_test {

using Word = vael_test::Pattern;

struct WordHit {
    int32_t id;
    uint32_t end;        // offset of the hit's last byte
    uint32_t index = 0;  // the word's number, 0 for a character look-up
    uint32_t start = 0;  // with VAEL_PM_EXEC_MATCH_START
    bool operator==(const WordHit &o) const { return id == o.id && end == o.end; }
    bool operator<(const WordHit &o) const { return std::tie(end, id) < std::tie(o.end, o.id); }
};
inline void PrintTo(const WordHit &h, std::ostream *os) {
    *os << "{id " << h.id << ", end " << h.end << ", word " << h.index << ", start " << h.start << "}";
}

struct HandleFree {
    void operator()(vael_wm_handle *h) const { vael_wm_destroy(h); }
};
using Handle = std::unique_ptr<vael_wm_handle, HandleFree>;

inline Handle compile(const std::vector<Word> &words, vael_pm_error *err = nullptr) {
    vael_pm_error local;
    vael_pm_error_init(err ? err : &local);
    vael_pmglob_patterns *list = vael_test::string_list(words);
    auto *h = static_cast<vael_wm_handle *>(vael_wm_compile(list, 0, err ? err : &local));
    vael_pmglob_patterns_destroy(list);
    return Handle(h);
}

struct Recorder {
    std::vector<WordHit> hits;
    size_t stop_after = 0;  // clears keep_going at this many hits; 0: never
};

inline int record_hit(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra, int32_t id) {
    auto *r = static_cast<Recorder *>(ctx->user_arg);
    r->hits.push_back(WordHit{id, offset, extra[0], extra[1]});
    if (r->stop_after && r->hits.size() >= r->stop_after)
        ctx->keep_going = 0;
    return 0;
}

// The hits of one run in delivery order; *rc gets the run's result.
inline std::vector<WordHit> run(const vael_wm_handle *h, const std::string &text, uint32_t flags = 0,
                                size_t stop_after = 0, int *rc = nullptr) {
    Recorder r;
    r.stop_after = stop_after;
    vael_pm_exec_cb_ctx ctx{record_hit, &r, nullptr, 1, -1, nullptr, 0, nullptr, 0};
    const int result = vael_wm_exec(const_cast<vael_wm_handle *>(h),
                                    reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                    nullptr, 0, nullptr, flags, nullptr, &ctx);
    if (rc)
        *rc = result;
    else
        EXPECT_EQ(result, 0);
    return r.hits;
}

inline std::vector<WordHit> sorted(std::vector<WordHit> v) {
    std::sort(v.begin(), v.end());
    return v;
}

inline std::vector<unsigned char> image_of(vael_wm_handle *h) {
    return vael_test::write_image(vael_wm_get_serialize_size(h), [&](auto at, auto space) {
        return vael_wm_serialize(h, at, space);
    });
}

inline Handle load(const std::vector<unsigned char> &image, uint32_t size) {
    const unsigned char *at = image.data();
    uint32_t space = size;
    return Handle(static_cast<vael_wm_handle *>(vael_wm_deserialize(&at, &space, nullptr, nullptr)));
}

}  // namespace vael_wm_test

#endif  // VAEL_TESTS_TIER1_WM_TEST_UTIL_H
