// kw_fake.h - a stand-in keyword for the manager's and the engine's tests,
// so that the grammar and the search are tested apart from the real
// keywords' matching.
//
// A fake keeps the text the manager handed to its create. The bytes between
// its first two '"' are a needle: it then acts as `data` does (floating,
// monotonous, moves the offset behind its find; resumed, it searches again
// from one byte behind the start of its last find). Without one it is a
// `length: 1, min,`: it matches when its range holds a byte. The words
// "relative", "negated", "unordered", "depth N", "offset N" set what they
// say; "boom" makes its execute fail, "far" reports a next offset
// past the data, "refuse" makes its create fail with kFakeRefused.
#ifndef VAEL_TESTS_KW_FAKE_H
#define VAEL_TESTS_KW_FAKE_H

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "runtime/vael_runtime.h"

namespace kw_fake {

inline const char kFakeRefused[] = "fake keyword refused";

struct Fake {
    vael_kw_abs base;
    uint32_t text_len;
    char *text;  // the create's text, NUL-ended
};

// Every execute, in order: "^" for a resumption, the text, "@start+size".
inline std::vector<std::string> &trace() {
    static std::vector<std::string> t;
    return t;
}

// The prev_scan word the first execute of a trace found.
inline uint32_t &first_prev_scan() {
    static uint32_t v;
    return v;
}

inline const char *text_of(const vael_kw_abs *kw) { return reinterpret_cast<const Fake *>(kw)->text; }

inline void destroy(vael_kw_abs *kw) {
    auto *f = reinterpret_cast<Fake *>(kw);
    if (f->text)
        VAEL_PM_KFREE(f->text, f->text_len + 1);
    VAEL_PM_KFREE(f, sizeof(Fake));
}

inline vael_kw_abs *create(const char *text, uint32_t type, vael_pm_error *err) {
    auto *f = static_cast<Fake *>(VAEL_PM_KMALLOC(sizeof(Fake)));
    if (!f)
        return nullptr;
    std::memset(f, 0, sizeof *f);
    f->text_len = (uint32_t)std::strlen(text);
    f->text = static_cast<char *>(VAEL_PM_KMALLOC(f->text_len + 1));
    const std::string s = text;
    if (!f->text || s.find("refuse") != std::string::npos) {
        if (f->text)
            vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kFakeRefused);
        destroy(&f->base);
        return nullptr;
    }
    std::memcpy(f->text, text, f->text_len + 1);
    auto has = [&](const char *word) { return s.find(word) != std::string::npos; };
    uint32_t &props = f->base.props;
    f->base.type = type;
    props = std::strchr(text, '"') ? 0x1D : 0x13;  // data-like, or length-like
    if (has("relative"))
        props &= ~VAEL_KW_PROP_ABSOLUTE;
    if (has("unordered"))
        props &= ~VAEL_KW_PROP_ORDER_PRESERVING;
    if (has("negated")) {
        f->base.flags |= VAEL_KW_FLAG_NEGATED;
        props = (props | VAEL_KW_PROP_ANCHORED | VAEL_KW_PROP_ORDER_PRESERVING) &
                ~(VAEL_KW_PROP_MONOTONOUS | VAEL_KW_PROP_CHANGES_OFFSET);
    }
    if (size_t at = s.find("depth "); at != std::string::npos) {
        f->base.depth = (uint32_t)std::atoi(text + at + 6);
        props &= ~VAEL_KW_PROP_MONOTONOUS;
    }
    if (size_t at = s.find("offset "); at != std::string::npos)
        f->base.user_offset = std::atoi(text + at + 7);
    return &f->base;
}

inline int execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *, uint32_t start,
                   uint32_t size, int from_backtrack, uint32_t *prev_scan, uint32_t *next_offset, int *is_match) {
    const std::string text = text_of(kw);
    if (trace().empty())
        first_prev_scan() = *prev_scan;
    trace().push_back((from_backtrack ? "^" : "") + text + "@" + std::to_string(start) + "+" + std::to_string(size));
    *next_offset = start;
    *is_match = 0;
    *prev_scan = start + 1;
    if (text.find("boom") != std::string::npos)
        return -1;
    const size_t q1 = text.find('"'), q2 = text.find('"', q1 + 1);
    if (q1 == std::string::npos) {
        *is_match = size >= 1;
        return 0;
    }
    const std::string needle = text.substr(q1 + 1, q2 - q1 - 1);
    const uint32_t n = (uint32_t)needle.size();
    if (from_backtrack) {
        if (start < n)
            return 0;
        start -= n - 1;
        size += n - 1;
    }
    for (uint32_t i = start; i + n <= start + size && i + n <= len; i++) {
        if (std::memcmp(buf + i, needle.data(), n) == 0) {
            *next_offset = text.find("far") != std::string::npos ? len + 1 : i + n;
            *is_match = 1;
            return 0;
        }
    }
    return 0;
}

// The engine and grammar tests never write an image of a fake.
inline const vael_kw_vtable kVtable = {create, execute, nullptr, nullptr, nullptr, destroy};

// Stands the fake in the rows of the keywords of this build while it lives.
class Install {
  public:
    Install() {
        for (int i = 0; i < VAEL_KW_TYPE_NUM; i++) {
            saved_[i] = vael_kw_table[i].vtable;
            if (i < VAEL_KW_TYPE_RE)
                vael_kw_table[i].vtable = &kVtable;
        }
        trace().clear();
    }
    ~Install() {
        for (int i = 0; i < VAEL_KW_TYPE_NUM; i++)
            vael_kw_table[i].vtable = saved_[i];
    }

  private:
    const vael_kw_vtable *saved_[VAEL_KW_TYPE_NUM];
};

}  // namespace kw_fake

#endif  // VAEL_TESTS_KW_FAKE_H
