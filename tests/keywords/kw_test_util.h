// Drives one keyword the way the manager and the decision engine do: the
// text as the manager hands it over (the ';' that ends the keyword made a
// ','), and a run over the range that the engine gives the keyword.
#ifndef VAEL_TESTS_KEYWORDS_KW_TEST_UTIL_H
#define VAEL_TESTS_KEYWORDS_KW_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "keywords/vael_kw_keywords.h"

namespace kw_test {

inline const vael_kw_vtable &vtable_of(uint32_t type) {
    switch (type) {
    case VAEL_KW_TYPE_DATA:
        return vael_kw_data_vtable;
    case VAEL_KW_TYPE_LENGTH:
        return vael_kw_length_vtable;
    default:
        return vael_kw_test_vtable;
    }
}

inline uint32_t type_of(const std::string &text) {
    if (text.rfind("data", 0) == 0)
        return VAEL_KW_TYPE_DATA;
    if (text.rfind("length", 0) == 0)
        return VAEL_KW_TYPE_LENGTH;
    return VAEL_KW_TYPE_TEST;
}

// A keyword made from `rule_text`, which ends in ';' as written in a rule.
struct Keyword {
    vael_kw_abs *kw = nullptr;
    vael_pm_error err{};
    explicit Keyword(std::string rule_text) {
        vael_pm_error_init(&err);
        if (!rule_text.empty() && rule_text.back() == ';')
            rule_text.back() = ',';
        kw = vtable_of(type_of(rule_text)).create(rule_text.c_str(), type_of(rule_text), &err);
    }
    ~Keyword() {
        if (kw)
            vtable_of(kw->type).destroy(kw);
    }
    Keyword(const Keyword &) = delete;
    Keyword &operator=(const Keyword &) = delete;
    std::string error() const { return err.error_string ? err.error_string : ""; }
};

// The range the engine hands a keyword that starts fresh at `offset`; false
// when the keyword's offset puts it out of the buffer.
inline bool fresh_range(const vael_kw_abs *kw, uint32_t len, uint32_t offset, uint32_t *start, uint32_t *size) {
    int64_t s = (kw->props & VAEL_KW_PROP_ABSOLUTE) ? 0 : offset;
    int64_t n = (int64_t)len - s;
    if (kw->user_offset < 0 && -(int64_t)kw->user_offset > s)
        return false;
    if (kw->user_offset > 0 && kw->user_offset > n)
        return false;
    s += kw->user_offset;
    n -= kw->user_offset;
    if (kw->depth && kw->depth < n)
        n = kw->depth;
    *start = (uint32_t)s;
    *size = (uint32_t)n;
    return true;
}

struct RunResult {
    int rc = 0;
    int is_match = 0;
    uint32_t next_offset = 0;
};

// One fresh execute at `offset`, the engine's negation applied; out of range
// counts as no match.
inline RunResult run_fresh(vael_kw_abs *kw, const std::string &data, uint32_t offset, uint32_t *prev_scan = nullptr) {
    RunResult r;
    uint32_t start = 0, size = 0;
    uint32_t scratch = 0;
    if (!fresh_range(kw, (uint32_t)data.size(), offset, &start, &size))
        return r;
    r.rc = vtable_of(kw->type).execute(kw, reinterpret_cast<const unsigned char *>(data.data()),
                                       (uint32_t)data.size(), nullptr, start, size, 0,
                                       prev_scan ? prev_scan : &scratch, &r.next_offset, &r.is_match);
    if (kw->flags & VAEL_KW_FLAG_NEGATED)
        r.is_match = !r.is_match;
    return r;
}

// The keyword's image, written into a block of exactly its size.
inline std::vector<unsigned char> image_of(vael_kw_abs *kw) {
    const vael_kw_vtable &vt = vtable_of(kw->type);
    std::vector<unsigned char> image(vt.get_serialized_size(kw));
    unsigned char *pos = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vt.serialize(kw, &pos, &space), 0);
    EXPECT_EQ(space, 0u);
    return image;
}

}  // namespace kw_test

#endif  // VAEL_TESTS_KEYWORDS_KW_TEST_UTIL_H
