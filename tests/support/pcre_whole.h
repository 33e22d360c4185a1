// PCRE held to the whole of a subject: what the library's own matchers are compared with.
#ifndef VAEL_TESTS_SUPPORT_PCRE_WHOLE_H
#define VAEL_TESTS_SUPPORT_PCRE_WHOLE_H

#include <pcre.h>

#include <string>

namespace vael_test {

class WholeMatch {
  public:
    WholeMatch(const std::string &body, int options) {
        const char *msg;
        int at;
        re_ = pcre_compile(("^(?:" + body + ")\\z").c_str(), options, &msg, &at, nullptr);
    }
    ~WholeMatch() { pcre_free(re_); }
    WholeMatch(const WholeMatch &) = delete;
    WholeMatch &operator=(const WholeMatch &) = delete;
    bool ok() const { return re_ != nullptr; }

    // text[s..e] (e = s - 1: the empty string) is a match.
    bool at(const std::string &text, int s, int e) const {
        int ov[30];
        return pcre_exec(re_, nullptr, text.data() + s, e - s + 1, 0, 0, ov, 30) >= 0;
    }
    bool whole(const std::string &text) const { return at(text, 0, (int)text.size() - 1); }

  private:
    pcre *re_ = nullptr;
};

}  // namespace vael_test

#endif  // VAEL_TESTS_SUPPORT_PCRE_WHOLE_H
