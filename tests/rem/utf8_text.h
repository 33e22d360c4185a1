// A reader of the UTF-8 range text ("\xHH" bytes and "[\xHH-\xHH]" spans), independent of the range code.
#ifndef VAEL_TESTS_REM_UTF8_TEXT_H
#define VAEL_TESTS_REM_UTF8_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/random_regex.h"

namespace vael_test {

struct ByteSpan { unsigned lo, hi; };
using Alternative = std::vector<ByteSpan>;

// Parses a hexa text; false for anything else.
inline bool parse_hexa_text(const std::string &text, std::vector<Alternative> *alts) {
    alts->clear();
    alts->emplace_back();
    size_t i = 0;
    auto byte = [&](unsigned *v) {
        if (i + 4 > text.size() || text[i] != '\\' || text[i + 1] != 'x')
            return false;
        *v = (unsigned)std::stoul(text.substr(i + 2, 2), nullptr, 16);
        i += 4;
        return true;
    };
    while (i < text.size()) {
        if (text[i] == '|') {
            alts->emplace_back();
            i++;
        } else if (text[i] == '[') {
            i++;
            ByteSpan s{};
            if (!byte(&s.lo) || i >= text.size() || text[i++] != '-' || !byte(&s.hi) || i >= text.size() ||
                text[i++] != ']')
                return false;
            alts->back().push_back(s);
        } else {
            unsigned v;
            if (!byte(&v))
                return false;
            alts->back().push_back({v, v});
        }
    }
    if (alts->size() == 1 && alts->back().empty())
        alts->clear();
    return true;
}

inline bool matches(const std::vector<Alternative> &alts, const std::string &bytes) {
    for (const auto &alt : alts) {
        if (alt.size() != bytes.size())
            continue;
        bool ok = true;
        for (size_t k = 0; ok && k < alt.size(); k++) {
            auto b = (unsigned char)bytes[k];
            ok = b >= alt[k].lo && b <= alt[k].hi;
        }
        if (ok)
            return true;
    }
    return false;
}

}  // namespace vael_test

#endif  // VAEL_TESTS_REM_UTF8_TEXT_H
