// kw_fake.h - a stand-in keyword for the manager's and the engine's tests,
// so that the grammar, the search and the image are tested apart from the
// real keywords.
//
// A fake keyword keeps the text the manager handed to its create. Its text
// reads: the bytes between the first two '"' are a needle (none: the keyword
// looks at its range and moves nothing); the words "relative", "anchored",
// "negated", "unordered", "refuse", "boom" and "far" and "depth N",
// "offset N" anywhere
// behind the name set what they say. With a needle it acts as `data` does:
// floating, monotonous, it moves the offset behind its find, and resumed
// from a backtrack it searches again from one byte behind the start of its
// last find. Without one it is a `length: 1, min,`: it matches when its range
// holds a byte. "boom" makes its execute fail, "far" reports a next offset
// one past the data, "refuse" makes its create fail with kFakeRefused.
#ifndef VAEL_TESTS_KW_FAKE_H
#define VAEL_TESTS_KW_FAKE_H

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace kw_fake {

inline const char kFakeRefused[] = "fake keyword refused";

struct Fake {
    vael_kw_abs base;
    uint32_t text_len;
    char *text;     // the create's text, NUL-ended
    uint32_t needle_len;
    char *needle;   // points into text
    uint32_t boom;  // 1: execute fails; 2: next offset past the data
};

// Calls of every fake's execute, in order: "index@start+size" with "^" for
// a resumption, so that a test can see the search.
inline std::vector<std::string> &trace() {
    static std::vector<std::string> t;
    return t;
}

// The prev_scan word the first execute of a trace found.
inline uint32_t &first_prev_scan() {
    static uint32_t v;
    return v;
}

inline bool has_word(const std::string &text, const char *word) { return text.find(word) != std::string::npos; }

inline void destroy(vael_kw_abs *kw) {
    auto *f = reinterpret_cast<Fake *>(kw);
    if (!f)
        return;
    if (f->text)
        VAEL_PM_KFREE(f->text, f->text_len + 1);
    VAEL_PM_KFREE(f, sizeof(Fake));
}

// Needle and behaviour from the text; the base is set by the caller.
inline void read_text(Fake *f) {
    const char *q1 = std::strchr(f->text, '"');
    const char *q2 = q1 ? std::strchr(q1 + 1, '"') : nullptr;
    f->needle = nullptr;
    f->needle_len = 0;
    if (q2) {
        f->needle = const_cast<char *>(q1) + 1;
        f->needle_len = (uint32_t)(q2 - q1 - 1);
    }
    const std::string text = f->text;
    f->boom = has_word(text, "boom") ? 1 : has_word(text, "far") ? 2 : 0;
}

inline vael_kw_abs *create(const char *text, uint32_t type, vael_pm_error *err) {
    auto *f = static_cast<Fake *>(VAEL_PM_KMALLOC(sizeof(Fake)));
    if (!f)
        return nullptr;
    std::memset(f, 0, sizeof *f);
    f->text_len = (uint32_t)std::strlen(text);
    f->text = static_cast<char *>(VAEL_PM_KMALLOC(f->text_len + 1));
    if (!f->text) {
        destroy(&f->base);
        return nullptr;
    }
    std::memcpy(f->text, text, f->text_len + 1);
    const std::string s = text;
    if (has_word(s, "refuse")) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kFakeRefused);
        destroy(&f->base);
        return nullptr;
    }
    read_text(f);
    f->base.type = type;
    f->base.props = f->needle ? 0x1D : 0x13;  // data-like, or length-like
    if (has_word(s, "relative"))
        f->base.props &= ~VAEL_KW_PROP_ABSOLUTE;
    if (has_word(s, "anchored"))
        f->base.props = (f->base.props | VAEL_KW_PROP_ANCHORED) & ~VAEL_KW_PROP_MONOTONOUS;
    if (has_word(s, "unordered"))
        f->base.props &= ~VAEL_KW_PROP_ORDER_PRESERVING;
    if (has_word(s, "negated")) {
        f->base.flags |= VAEL_KW_FLAG_NEGATED;
        f->base.props = (f->base.props | VAEL_KW_PROP_ANCHORED | VAEL_KW_PROP_ORDER_PRESERVING) &
                        ~(VAEL_KW_PROP_MONOTONOUS | VAEL_KW_PROP_CHANGES_OFFSET);
    }
    if (size_t at = s.find("depth "); at != std::string::npos) {
        f->base.depth = (uint32_t)std::atoi(text + at + 6);
        f->base.props &= ~VAEL_KW_PROP_MONOTONOUS;
    }
    if (size_t at = s.find("offset "); at != std::string::npos)
        f->base.user_offset = std::atoi(text + at + 7);
    return &f->base;
}

inline int execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *, uint32_t start,
                   uint32_t size, int from_backtrack, uint32_t *prev_scan, uint32_t *next_offset, int *is_match) {
    auto *f = reinterpret_cast<Fake *>(kw);
    if (trace().empty())
        first_prev_scan() = *prev_scan;
    trace().push_back(std::string(from_backtrack ? "^" : "") + f->text + "@" + std::to_string(start) + "+" +
                      std::to_string(size));
    *next_offset = start;
    *is_match = 0;
    *prev_scan = start + 1;
    if (f->boom == 1)
        return -1;
    if (!f->needle) {
        *is_match = size >= 1;
        return 0;
    }
    if (from_backtrack) {
        if (start < f->needle_len)
            return 0;
        start -= f->needle_len - 1;
        size += f->needle_len - 1;
    }
    for (uint32_t i = start; size >= f->needle_len && i + f->needle_len <= start + size && i + f->needle_len <= len;
         i++) {
        if (std::memcmp(buf + i, f->needle, f->needle_len) == 0) {
            *next_offset = f->boom == 2 ? len + 1 : i + f->needle_len;
            *is_match = 1;
            return 0;
        }
    }
    return 0;
}

// Image: the base raw, the text's length, the text.
inline uint32_t serialized_size(vael_kw_abs *kw) { return 24 + 4 + reinterpret_cast<Fake *>(kw)->text_len; }

inline int serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space) {
    auto *f = reinterpret_cast<Fake *>(kw);
    if (*space < serialized_size(kw))
        return -1;
    vael::image_put_bytes(position, space, &f->base, 24);
    vael::image_put_u32(position, space, f->text_len);
    vael::image_put_bytes(position, space, f->text, f->text_len);
    return 0;
}

inline vael_kw_abs *deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                vael_vbuf_iter *iter) {
    vael::ImageReader in{position, space, vbuf, iter};
    auto *f = static_cast<Fake *>(VAEL_PM_KMALLOC(sizeof(Fake)));
    if (!f)
        return nullptr;
    std::memset(f, 0, sizeof *f);
    uint32_t text_len = 0;
    if (!in.bytes(&f->base, 24) || !in.u32(&text_len) || text_len > *space) {
        destroy(&f->base);
        return nullptr;
    }
    f->text = static_cast<char *>(VAEL_PM_KMALLOC(text_len + 1));
    if (!f->text) {
        destroy(&f->base);
        return nullptr;
    }
    f->text_len = text_len;
    f->text[text_len] = '\0';
    if (!in.bytes(f->text, text_len)) {
        destroy(&f->base);
        return nullptr;
    }
    read_text(f);
    return &f->base;
}

inline const vael_kw_vtable kVtable = {create, execute, serialized_size, serialize, deserialize, destroy};

// Stands the fake in every row of the keyword table while it lives.
class Install {
public:
    Install() {
        for (int i = 0; i < VAEL_KW_TYPE_NUM; i++) {
            saved_[i] = vael_kw_table[i].vtable;
            // Rows 3 to 5 stay as they are: absent in this build.
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

inline const char *text_of(const vael_kw_abs *kw) { return reinterpret_cast<const Fake *>(kw)->text; }

}  // namespace kw_fake

#endif  // VAEL_TESTS_KW_FAKE_H
