// Small helpers shared by the engine and frame tests: capture of the debug
// log, scoped changes of tunable globals, the raw Thin NFA driven through its
// queue, and a brute-force matcher to hold results against.
#ifndef VAEL_TESTS_SUPPORT_VAEL_TEST_SUPPORT_H
#define VAEL_TESTS_SUPPORT_VAEL_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_thin_nfa_prefilter.h"
#include "vael/vael_apps.h"

namespace vael_test {

// A list's values, front to back.
inline std::vector<uintptr_t> list_values(lst_list *list) {
    std::vector<uintptr_t> values;
    uintptr_t v = 0;
    for (lst_cursor c = lst_iterate(list, nullptr, &v); c; c = lst_iterate(list, c, &v))
        values.push_back(v);
    return values;
}

// Collects everything the debug facility prints while alive.
class LogCapture {
  public:
    LogCapture() { tdSetSink(&LogCapture::sink, this); }
    ~LogCapture() { tdSetSink(nullptr, nullptr); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    const std::string &text() const { return text_; }
    bool contains(const std::string &needle) const { return text_.find(needle) != std::string::npos; }
    void clear() { text_.clear(); }

  private:
    static void sink(const char *text, void *ctx) { static_cast<LogCapture *>(ctx)->text_ += text; }
    std::string text_;
};

// Sets one debug topic to `level` for the scope, then puts its old level back.
class ScopedTopic {
  public:
    ScopedTopic(const char *topic, int level) : topic_(topic) {
        for (int l = 1; l <= 16; l++)
            if (tdTopicsPrintable(l, topic, VAEL_DBG_MODULE, " |"))
                saved_ = l;
        tdAddTopic(topic, level, VAEL_DBG_MODULE);
    }
    ~ScopedTopic() { tdAddTopic(topic_, saved_, VAEL_DBG_MODULE); }
    ScopedTopic(const ScopedTopic &) = delete;
    ScopedTopic &operator=(const ScopedTopic &) = delete;

  private:
    const char *topic_;
    int saved_ = VAEL_DBG_NONE;
};

// Sets a variable of any type for the scope and puts the old value back.
template <class T>
class ScopedValue {
  public:
    ScopedValue(T &var, T value) : var_(var), saved_(var) { var_ = value; }
    ~ScopedValue() { var_ = saved_; }
    ScopedValue(const ScopedValue &) = delete;
    ScopedValue &operator=(const ScopedValue &) = delete;

  private:
    T &var_;
    T saved_;
};

using ScopedGlobal = ScopedValue<int>;

struct Pattern { std::string text; int32_t id; uint32_t flags = 0; };

// One queued hit as the engine left it.
struct Hit {
    int32_t id;
    uint32_t offset;
    uint32_t match_flags = 0;
    uint32_t hint = 0;
    bool operator==(const Hit &o) const { return id == o.id && offset == o.offset; }
    bool operator<(const Hit &o) const { return offset != o.offset ? offset < o.offset : id < o.id; }
};

inline void PrintTo(const Hit &h, std::ostream *os) {
    *os << "{id " << h.id << ", end " << h.offset << ", len " << h.hint << ", flags " << h.match_flags << "}";
}

// Empties and destroys a run's queue: its hits in queue order.
inline std::vector<Hit> drain_queue(lst_list *queue) {
    std::vector<Hit> hits;
    while (lst_nelements(queue) > 0) {
        auto *d = reinterpret_cast<vael_pmglob_match_data *>(vael_dequeue(queue));
        hits.push_back(Hit{d->id, d->offset, d->match_flags, d->hint});
        vael_pmglob_match_data_free(d);
    }
    lst_destroy(queue);
    return hits;
}

// Patterns numbered from 0.
inline std::vector<Pattern> numbered(const std::vector<std::string> &texts, uint32_t flags = 0) {
    std::vector<Pattern> out;
    for (const auto &text : texts)
        out.push_back({text, (int32_t)out.size(), flags});
    return out;
}

// min_len to max_len bytes of `alphabet`: the length drawn first, then each byte.
template <class Rng>
std::string random_word(Rng &rng, const std::string &alphabet, size_t min_len, size_t max_len) {
    std::string word(min_len + rng() % (max_len - min_len + 1), '\0');
    for (char &c : word)
        c = alphabet[rng() % alphabet.size()];
    return word;
}

// An engine's image in a buffer of the size it asked for, which `write(&at, &space)` must fill exactly.
template <class Write>
std::vector<unsigned char> write_image(uint32_t size, Write write) {
    std::vector<unsigned char> image(size);
    unsigned char *at = image.data();
    uint32_t space = size;
    EXPECT_EQ(write(&at, &space), 0);
    EXPECT_EQ(space, 0u);
    return image;
}

// Every cut of an image and every change of one of its bytes by 0x01, 0x80 or
// 0xff, each in a copy of its own size so that a read past it is ASan's:
// `load(bytes)` gives null or a handle, which `use` runs and frees. A cut
// short of `loads_from` bytes must be refused. The changed images that load.
template <class Load, class Use>
int damage_walk(const std::vector<unsigned char> &image, Load load, Use use, size_t loads_from = SIZE_MAX) {
    for (size_t cut = 1; cut < image.size(); cut++) {
        auto *handle = load(std::vector<unsigned char>(image.begin(), image.begin() + (long)cut));
        EXPECT_TRUE(!handle || cut >= loads_from) << "cut at " << cut;
        if (handle)
            use(handle);
    }
    int loaded = 0;
    for (size_t at = 0; at < image.size(); at++) {
        for (unsigned char change : {0x01, 0x80, 0xff}) {
            std::vector<unsigned char> bad = image;
            bad[at] ^= change;
            if (auto *handle = load(bad)) {
                loaded++;
                use(handle);
            }
        }
    }
    return loaded;
}

// The bytes in blocks of `block` in a new vbuf, pointing into the caller's bytes. Under fail injection an add may
// fail: the vbuf is then short, which whatever reads it must take as cut.
inline vael_vbuf *vbuf_of(const void *data, size_t size, size_t block) {
    vael_vbuf *vbuf = vael_vbuf_create(UINT32_MAX, 0);
    for (size_t at = 0; at < size; at += block)
        vael_vbuf_add_buffer_ex(vbuf, (char *)data + at, (uint32_t)std::min(block, size - at), nullptr, nullptr);
    return vbuf;
}

// A text as a scan sees it: the bytes before the last cut, cut at the given
// places, as the history blocks of a vbuf, and the rest as the present
// buffer (empty when the cuts reach the end). Without cuts there is no vbuf.
class SplitText {
  public:
    SplitText(const std::string &text, const std::vector<size_t> &cuts) {
        size_t at = 0;
        if (!cuts.empty()) {
            vbuf_ = vael_vbuf_create(1 << 20, 0);
            for (size_t cut : cuts) {
                if (cut > at) {
                    EXPECT_EQ(vael_vbuf_add_buffer_ex(vbuf_, const_cast<char *>(text.data()) + at,
                                                      (uint32_t)(cut - at), nullptr, nullptr),
                              0);
                }
                at = std::max(at, cut);
            }
        }
        len_ = (uint32_t)(text.size() - at);
        present_ = len_ ? reinterpret_cast<const unsigned char *>(text.data()) + at : nullptr;
    }
    ~SplitText() { vael_vbuf_destroy(vbuf_); }
    SplitText(const SplitText &) = delete;
    SplitText &operator=(const SplitText &) = delete;

    vael_vbuf *vbuf() const { return vbuf_; }
    const unsigned char *present() const { return present_; }  // null when empty
    uint32_t present_len() const { return len_; }

  private:
    vael_vbuf *vbuf_ = nullptr;
    const unsigned char *present_ = nullptr;
    uint32_t len_ = 0;
};

// The engines' input: a list of strings as the frame hands it over.
inline vael_pmglob_patterns *string_list(const std::vector<Pattern> &patterns) {
    vael_pmglob_patterns *list = vael_pmglob_patterns_create();
    for (const auto &p : patterns) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(p.text.data()),
                                                          (uint32_t)p.text.size(), p.id, p.flags);
        EXPECT_EQ(vael_pmglob_patterns_add(list, s), 0);
        vael_pmglob_string_destroy(s);
    }
    return list;
}

// A compiled Thin NFA that destroys itself.
class ThinNfa {
  public:
    ThinNfa(const std::vector<Pattern> &patterns, uint32_t compile_flags = 0) {
        vael_pmglob_patterns *list = string_list(patterns);
        vael_pm_error_init(&err_);
        nfa_ = vael_thin_nfa_compile(list, compile_flags, &err_);
        vael_pmglob_patterns_destroy(list);
    }
    ~ThinNfa() { vael_thin_nfa_destroy(nfa_); }
    ThinNfa(const ThinNfa &) = delete;
    ThinNfa &operator=(const ThinNfa &) = delete;

    vael_thin_nfa *get() const { return nfa_; }
    const vael_pm_error &error() const { return err_; }

    // Scans `text` (after the blocks of `vbuf`, if any) and returns the
    // result; the hits in queue order go to *hits.
    int exec(const std::string &text, std::vector<Hit> *hits, uint32_t flags = 0, uint32_t offset = 0,
             const vael_pm_mask *mask = nullptr, vael_vbuf *vbuf = nullptr) const {
        return exec_raw(reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), hits, flags,
                        offset, mask, vbuf);
    }
    int exec_raw(const unsigned char *buf, uint32_t len, std::vector<Hit> *hits, uint32_t flags = 0,
                 uint32_t offset = 0, const vael_pm_mask *mask = nullptr, vael_vbuf *vbuf = nullptr) const {
        lst_list *queue = nullptr;
        int rc = vael_thin_nfa_exec(nfa_, buf, len, vbuf, offset, &queue, flags, mask);
        std::vector<Hit> got = drain_queue(queue);
        if (hits)
            *hits = std::move(got);
        return rc;
    }
    std::vector<Hit> hits(const std::string &text, uint32_t flags = 0) const {
        std::vector<Hit> out;
        EXPECT_EQ(exec(text, &out, flags), 0);
        return out;
    }

  private:
    vael_thin_nfa *nfa_ = nullptr;
    vael_pm_error err_;
};

// The candidate prefilter's settings: off, the plain search, and AVX2 where
// the CPU has it.
inline std::vector<int> all_prefilter_modes() {
    std::vector<int> modes = {THIN_NFA_PREFILTER_OFF, THIN_NFA_PREFILTER_PLAIN};
    if (vael_thin_nfa_prefilter_find_avx2_fn())
        modes.push_back(THIN_NFA_PREFILTER_AUTO);
    return modes;
}

// A mask over internal ids, laid out as the engine reads it.
class RawMask {
  public:
    explicit RawMask(uint32_t ids) : storage_((sizeof(vael_pm_mask) + 4 * ((ids + 31) / 32) + 7) / 8, 0) {
        mask()->pm = nullptr;
        mask()->mask_size = (ids + 31) / 32;
    }
    void set(uint32_t id) { mask()->mask[id / 32] |= 1u << (id % 32); }
    vael_pm_mask *mask() { return reinterpret_cast<vael_pm_mask *>(storage_.data()); }

  private:
    std::vector<uint64_t> storage_;
};

// The word offset of the trie state spelled by `path` (canonical bytes),
// following explicit transitions only; ~0u when the path leaves the trie.
inline uint32_t bnfa_state_of(const vael_thin_nfa *nfa, const std::string &path) {
    uint32_t off = 0;
    for (unsigned char c : path) {
        const uint32_t *state = nfa->bnfa + off;
        const uint32_t *next = (*state & BNFA_STATE_PARTIAL) ? vael_thin_nfa_get_next_state(state, nfa->bnfa, c)
                                                             : nfa->bnfa + state[1 + c];
        if (!next)
            return ~0u;
        off = (uint32_t)(next - nfa->bnfa);
    }
    return off;
}

// Structural rules every compiled BNFA keeps: the states tile it exactly, the
// initial state is first, exactly the full non-finite states lie below
// bnfa_full_size, every target is the start of a state, partial transitions
// are canonical and strictly ascending, a full table gives every raw byte the
// entry of its canonical byte, and a state is finite exactly when it has a
// pattern list.
inline void expect_bnfa_well_formed(const vael_thin_nfa *nfa) {
    ASSERT_NE(nfa, nullptr);
    const uint32_t words = nfa->bnfa_size / 4;
    ASSERT_EQ(nfa->bnfa_size % 4, 0u);
    ASSERT_LE(nfa->bnfa_full_size, nfa->bnfa_size);
    const bool xlate = nfa->flags & THIN_NFA_FLAG_XLATION;
    auto canon = [&](unsigned c) { return xlate ? (unsigned)nfa->xlation_tab[c] : c; };

    std::map<uint32_t, uint32_t> start_of; // word offset -> id
    uint32_t off = 0;
    while (off < words) {
        const uint32_t header = nfa->bnfa[off];
        ASSERT_EQ(header & 0xfcu, 0u) << "reserved header bits at " << off;
        const uint32_t id = header >> BNFA_STATE_ID_SHIFT;
        ASSERT_LT(id, nfa->state_num);
        ASSERT_TRUE(start_of.emplace(off, id).second);
        const bool partial = header & BNFA_STATE_PARTIAL;
        const bool finite = header & BNFA_STATE_FINITE;
        EXPECT_EQ(finite, nfa->pattern_ids[id] != nullptr) << "state " << id;
        EXPECT_EQ(!partial && !finite, off * 4 < nfa->bnfa_full_size) << "state " << id << " at " << off;
        off += partial ? 2 + (nfa->bnfa[off + 1] & 0xffu) : BNFA_FULL_STATE_WORDS;
    }
    ASSERT_EQ(off, words) << "states do not tile the BNFA";
    ASSERT_EQ(start_of.size(), nfa->state_num);
    ASSERT_EQ(start_of.begin()->first, 0u);
    EXPECT_EQ(nfa->bnfa[0] >> BNFA_STATE_ID_SHIFT, 0u);
    EXPECT_EQ(nfa->bnfa[0] & BNFA_STATE_KIND_MASK, 0u) << "the initial state is full and not finite";

    // Plain tests per entry, with one report for the first that breaks a rule.
    for (const auto &[state_off, id] : start_of) {
        const uint32_t *s = nfa->bnfa + state_off;
        if (*s & BNFA_STATE_PARTIAL) {
            ASSERT_TRUE(start_of.count(s[1] >> 8)) << "fail target of state " << id;
            for (uint32_t i = 0; i < (s[1] & 0xffu); i++) {
                const uint32_t byte = s[2 + i] & 0xffu;
                ASSERT_TRUE(start_of.count(s[2 + i] >> 8) && canon(byte) == byte) << "state " << id << " byte " << byte;
                ASSERT_TRUE(i == 0 || (s[1 + i] & 0xffu) < byte) << "unsorted state " << id;
            }
        } else {
            for (unsigned c = 0; c < 256; c++) {
                if (!start_of.count(s[1 + c]) || s[1 + c] != s[1 + canon(c)])
                    FAIL() << "full state " << id << ", byte " << c << ": entry " << s[1 + c]
                           << ", entry of its canonical byte " << s[1 + canon(c)];
            }
        }
    }
}

// The engine's folding: caseless is ASCII lower case, digitless maps every
// digit to '0'.
inline unsigned char fold(unsigned char c, uint32_t compile_flags) {
    if ((compile_flags & VAEL_PM_DIGITLESS) && c >= '0' && c <= '9')
        return '0';
    if ((compile_flags & VAEL_PM_CASELESS) && c >= 'A' && c <= 'Z')
        return (unsigned char)(c + 32);
    return c;
}

// Every (id, end offset) at which a pattern occurs, by brute force.
inline std::vector<Hit> brute_force_all(const std::vector<Pattern> &patterns, const std::string &text,
                                        uint32_t compile_flags) {
    std::vector<Hit> out;
    for (const auto &p : patterns) {
        if (p.text.empty() || p.text.size() > text.size())
            continue;
        for (size_t start = 0; start + p.text.size() <= text.size(); start++) {
            bool same = true;
            for (size_t i = 0; same && i < p.text.size(); i++)
                same = fold((unsigned char)text[start + i], compile_flags) == fold((unsigned char)p.text[i], compile_flags);
            if (same)
                out.push_back(Hit{p.id, (uint32_t)(start + p.text.size() - 1), 0, (uint32_t)p.text.size()});
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

inline std::vector<Hit> sorted(std::vector<Hit> v) {
    std::sort(v.begin(), v.end());
    return v;
}

// The first end offset of each id.
inline std::vector<Hit> first_per_id(const std::vector<Hit> &all) {
    std::map<int32_t, Hit> first;
    for (const auto &h : all)
        first.emplace(h.id, h);  // `all` is sorted by end offset
    std::vector<Hit> out;
    for (const auto &kv : first)
        out.push_back(kv.second);
    return sorted(out);
}

}  // namespace vael_test

#endif  // VAEL_TESTS_SUPPORT_VAEL_TEST_SUPPORT_H
