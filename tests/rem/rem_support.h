// Helpers of the REM tier's tests: a compiled machine with its owner, and a
// run that gives the queued hits as plain records.
#ifndef VAEL_TESTS_REM_REM_SUPPORT_H
#define VAEL_TESTS_REM_REM_SUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rem/vael_dfa_internal.h"
#include "rem/vael_rem_tier.h"
#include "tests/support/random_regex.h"
#include "tests/support/vael_test_support.h"

namespace vael_test {

// Dot-all, as the frame's compile passes it.
constexpr uint32_t kRemDotAll = 0x1;

struct RemHit {
    uint32_t offset;
    uint32_t hint;
    uint32_t match_flags;
    bool operator==(const RemHit &o) const {
        return offset == o.offset && hint == o.hint && match_flags == o.match_flags;
    }
};

inline void PrintTo(const RemHit &h, std::ostream *os) {
    *os << "{" << h.offset << " hint " << h.hint << " flags " << h.match_flags << "}";
}

class Rem {
  public:
    Rem(const std::string &pattern, uint32_t compile_flags = kRemDotAll, uint32_t pattern_flags = 0,
        uint32_t string_flags = 0) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                                          (uint32_t)pattern.size(), VAEL_PM_REM_DEFAULT_ID,
                                                          string_flags);
        vael_pm_error_init(&err_);
        LogCapture quiet;
        dfa_ = static_cast<vael_dfa *>(vael_rem_compile(s, compile_flags, pattern_flags, &err_));
        vael_pmglob_string_destroy(s);
    }
    ~Rem() { vael_dfa_destroy(dfa_); }
    Rem(const Rem &) = delete;
    Rem &operator=(const Rem &) = delete;
    vael_dfa *get() const { return dfa_; }
    const vael_pm_error &error() const { return err_; }

    // The text's first cuts as history blocks, the rest as the present
    // buffer (none when the cuts reach the end).
    std::vector<RemHit> run(const std::string &text, uint32_t exec_flags, std::vector<size_t> cuts = {},
                            uint32_t start = 0, int *rc_out = nullptr) const {
        const SplitText split(text, cuts);
        lst_list *queue = nullptr;
        int rc = vael_dfa_exec(dfa_, split.present(), split.present_len(), split.vbuf(), start, &queue, exec_flags,
                               nullptr);
        if (rc_out)
            *rc_out = rc;
        std::vector<RemHit> out;
        for (const Hit &h : drain_queue(queue)) {
            EXPECT_EQ(h.id, VAEL_PM_REM_DEFAULT_ID);
            out.push_back(RemHit{h.offset, h.hint, h.match_flags});
        }
        return out;
    }

    std::vector<uint32_t> ends(const std::string &text, uint32_t exec_flags, std::vector<size_t> cuts = {}) const {
        std::vector<uint32_t> out;
        for (const RemHit &h : run(text, exec_flags, cuts))
            out.push_back(h.offset);
        return out;
    }

  private:
    vael_dfa *dfa_ = nullptr;
    vael_pm_error err_{};
};

// A finished chain of n states: 'a' moves on, any other byte goes back to the
// start; the last state is final with two pattern ids and stays. Past 7767
// states it is a machine of several blocks with packed tables.
inline vael_dfa *chain(uint32_t n, uint32_t flags = 0) {
    vael_dfa *dfa = vael_dfa_create(flags, nullptr);
    vael_dfa_set_state_limit(dfa, 0);
    std::vector<vael_dfa_state *> s;
    for (uint32_t i = 0; i < n; i++)
        s.push_back(vael_dfa_state_create(dfa));
    for (uint32_t i = 0; i < n; i++)
        for (unsigned c = 0; c < 256; c++)
            vael_dfa_state_add_trans(s[i], (unsigned char)c, i == n - 1 ? s[i] : c == 'a' ? s[i + 1] : s[0]);
    vael_dfa_state_set_final(s[n - 1], 5, 0, 0);
    vael_dfa_state_set_final(s[n - 1], 9, 0, 0);
    vael_dfa_set_initial_state(dfa, s[0]);
    return vael_dfa_finalize(dfa);
}

// Every string over the alphabet up to max_len bytes, shortest first.
inline std::vector<std::string> all_strings(const std::string &alphabet, size_t max_len) {
    std::vector<std::string> out{""};
    for (size_t i = 0; i < out.size(); i++)
        if (out[i].size() < max_len)
            for (char c : alphabet)
                out.push_back(out[i] + c);
    return out;
}

// A random expression of letters of `letters`, in a group when it is an
// alternation, so that anchors put around it hold for all of it.
template <class Rng>
std::string random_expression(Rng &rng, const char *letters) {
    RegexGrammar grammar;
    grammar.letters.assign(letters, letters + std::char_traits<char>::length(letters));
    grammar.depth = 1;
    grammar.repeat_percent = 70;
    RegexGenerator g(grammar, (uint32_t)rng());
    const RegexNode e = g.expression();
    return e.kids.size() > 1 ? "(" + e.text + ")" : e.text;
}

}  // namespace vael_test

#endif  // VAEL_TESTS_REM_REM_SUPPORT_H
