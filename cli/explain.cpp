// explain.cpp - vael-scan --tokens, --lss and --explain: the REM lexer's,
// the LSS finder's, the UTF-8 simplifier's and the user-LSS reader's view of
// one pattern.
//
// Runs the library's own lexer and finder and prints what they give; nothing
// here interprets the language.
#include "explain.h"

#include <cinttypes>
#include <memory>
#include <string>

#include "analysis/vael_pm_lss_finder.h"
#include "analysis/vael_pm_special_chars.h"
#include "analysis/vael_pm_utf8.h"
#include "rem/vael_rem_tier.h"
#include "vael/vael_apps.h"
#include "vael/vael_rem.h"

namespace vael::cli {

namespace {

bool plain(unsigned char c) { return c >= 0x20 && c < 0x7f; }

std::string describe(const vael_rem_token &t) {
    std::string line = t.class_->name;
    char counts[64];
    switch (t.class_->class_) {
    case VAEL_REM_CLASS_RANGE_OPERAND: {
        auto *range = reinterpret_cast<const vael_pmglob_range *>(t.extra_data);
        std::string text(vael_pmglob_range_print(range, nullptr, 0) + 1, '\0');
        text.resize(vael_pmglob_range_print(range, text.data(), static_cast<std::uint32_t>(text.size())));
        line += " " + text;
        break;
    }
    case VAEL_REM_CLASS_UNARY_QUANT:
        std::snprintf(counts, sizeof counts, " {%" PRIuPTR "}", t.extra_data);
        line += counts;
        break;
    case VAEL_REM_CLASS_BINARY_QUANT:
        std::snprintf(counts, sizeof counts, " {%" PRIuPTR ",%" PRIuPTR "}", t.extra_data, t.extra_data2);
        line += counts;
        break;
    case VAEL_REM_CLASS_MIN_QUANT:
        std::snprintf(counts, sizeof counts, " {%" PRIuPTR ",}", t.extra_data);
        line += counts;
        break;
    default:
        break;
    }
    return line;
}

void print_refusal(std::FILE *out, std::string_view pattern, const vael_pm_error &err, std::uint32_t index) {
    std::size_t column = 0;
    const std::string shown = escaped_pattern(pattern, index, &column);
    std::fprintf(out, "error: %s (index %" PRIu32 ")\n  %s\n  %s^\n",
                 err.error_string ? err.error_string : "malformed UTF-8 character (no message)", index, shown.c_str(),
                 std::string(column, ' ').c_str());
}

struct LssDeleter {
    void operator()(vael_pm_lss *l) const { vael_pm_lss_destroy(l); }
};
using LssPtr = std::unique_ptr<vael_pm_lss, LssDeleter>;

struct ParserDeleter {
    void operator()(vael_rem_parser *p) const { vael_rem_parser_destroy(p); }
};

}  // namespace

std::string escaped_pattern(std::string_view pattern, std::size_t index, std::size_t *column) {
    std::string out;
    for (std::size_t i = 0; i < pattern.size(); i++) {
        if (i == index && column) *column = out.size();
        auto c = static_cast<unsigned char>(pattern[i]);
        if (plain(c)) {
            out += static_cast<char>(c);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    if (index >= pattern.size() && column) *column = out.size();
    return out;
}

int print_tokens(std::string_view pattern, std::uint32_t flags, std::FILE *out) {
    if (vael_apps_init(nullptr) != 0) return 2;
    vael_rem_parser_init();
    int status = 0;
    {
        std::unique_ptr<vael_rem_parser, ParserDeleter> parser(vael_rem_parser_create(
            vael_rem_default_lexer_array, vael_rem_token_class_array_default, nullptr, flags, nullptr, nullptr));
        if (!parser) {
            status = 2;
        } else {
            vael_pm_error err;
            vael_pm_error_init(&err);
            vael_rem_parser_set_input(parser.get(), reinterpret_cast<const unsigned char *>(pattern.data()),
                                      static_cast<std::uint32_t>(pattern.size()), &err);
            while (vael_rem_parser_has_more_chars(parser.get())) {
                vael_rem_token *t = vael_rem_parser_get_next_token(parser.get());
                if (!t) {
                    print_refusal(out, pattern, err, vael_rem_parser_consumed(parser.get()));
                    status = 1;
                    break;
                }
                std::fprintf(out, "%s\n", describe(*t).c_str());
                vael_rem_token_destroy(t, "print_tokens");
            }
        }
    }
    vael_rem_parser_fini();
    vael_apps_fini();
    if (std::fflush(out) != 0) return 2;
    return status;
}

int print_lss(std::string_view pattern, std::uint32_t flags, std::FILE *out) {
    if (vael_apps_init(nullptr) != 0) return 2;
    int status = 0;
    {
        const auto *text = reinterpret_cast<const unsigned char *>(pattern.data());
        const auto size = static_cast<std::uint32_t>(pattern.size());
        vael_pm_error err;
        vael_pm_error_init(&err);
        std::uint32_t anchors = 0;
        LssPtr lss(vael_pm_lss_find(text, size, flags, &err, &anchors));
        if (!lss && err.error_string) {
            // The finder parses the trimmed text; the position is told in the user's.
            const unsigned char *trimmed = text;
            std::uint32_t trimmed_size = size, ignored = 0;
            vael_pm_lss_trim_patttern(&trimmed, &trimmed_size, &ignored, flags);
            print_refusal(out, pattern, err, err.error_index + static_cast<std::uint32_t>(trimmed - text));
            status = 1;
        } else if (!lss) {
            std::fprintf(out, "no LSS\n");
        } else {
            const bool multi = vael_pm_lss_can_be_used_instead_of_RE(lss.get()) != 0;
            std::string line = "LSS:";
            std::uintptr_t v = 0;
            lst_list *list = vael_pm_lss_get_candidates_list(lss.get());
            for (lst_cursor c = lst_iterate(list, nullptr, &v); c; c = lst_iterate(list, c, &v)) {
                const auto *can = reinterpret_cast<const vael_pm_lss_candidate *>(v);
                // Long strings (a large repeat count) are cut for the screen.
                const std::string_view bytes(reinterpret_cast<const char *>(can->str), can->len);
                line += " '" + escaped_pattern(bytes.substr(0, 200), 0, nullptr) + "'";
                if (bytes.size() > 200) line += "... (" + std::to_string(bytes.size()) + " bytes)";
            }
            line += multi ? " (the strings replace the expression)" : " (needs the expression as second tier)";
            std::uint32_t found = multi ? anchors : 0;
            if (!multi && anchors) {
                // The LSS stands at an anchor when it touches '^' or '$' found as plain characters.
                LssPtr with(vael_pm_lss_find(text, size, flags | VAEL_PM_LSS_KEEP_ANCHORS, nullptr, nullptr));
                if (vael_pm_lss_get_anchor_flags(with.get(), lss.get(), &found) != 0) found = 0;
            }
            std::string names;
            auto name = [&](bool on, const char *n) {
                if (on) names += (names.empty() ? "" : "|") + std::string(n);
            };
            name(multi && vael_pm_lss_cans_num(lss.get()) > 1, "MULTI_LSS");
            name(!multi || vael_pm_lss_digitless_is_need_second_tier(lss.get()), "NEED_TIER2");
            name(found & VAEL_PM_LSS_START_ANCHOR, "LSS_START_ANCHOR");
            name(found & VAEL_PM_LSS_END_ANCHOR, "LSS_END_ANCHOR");
            std::fprintf(out, "%s\nflags: %s\n", line.c_str(), names.empty() ? "0" : names.c_str());
        }
    }
    vael_apps_fini();
    if (std::fflush(out) != 0) return 2;
    return status;
}

namespace {

std::string quoted_strings(const vael_pm_lss &lss, std::uint32_t anchors) {
    std::string out = (anchors & VAEL_PM_LSS_START_ANCHOR) ? " ^" : "";
    std::uintptr_t v = 0;
    for (lst_cursor c = lst_iterate(lss.can_list, nullptr, &v); c; c = lst_iterate(lss.can_list, c, &v)) {
        const auto *can = reinterpret_cast<const vael_pm_lss_candidate *>(v);
        out += " '" + escaped_pattern(std::string_view(reinterpret_cast<const char *>(can->str), can->len), 0, nullptr) +
               "'";
    }
    if (anchors & VAEL_PM_LSS_END_ANCHOR) out += " $";
    return out;
}

}  // namespace

std::string analysis_fields(std::string_view text, const std::string_view *lss, bool expression,
                            std::uint32_t pattern_flags, std::uint32_t compile_flags) {
    std::string fields;
    std::string rewritten(text);
    vael_pm_error err;
    vael_pm_error_init(&err);
    if (expression && (pattern_flags & VAEL_PM_UTF8)) {
        // The compile adds dot-all unless the compile flags ask otherwise.
        const std::uint32_t effective = (compile_flags & 0x2u) ? compile_flags : (compile_flags | 0x1u);
        std::uint32_t len = 0;
        unsigned char *out = vael_pm_utf8_rewrite(reinterpret_cast<const unsigned char *>(text.data()),
                                                  static_cast<std::uint32_t>(text.size()), effective, &err, &len);
        if (!out) return " rewritten=refused";
        rewritten.assign(reinterpret_cast<const char *>(out), len);
        qx_kfree_(out, len);
        fields += " rewritten='" + escaped_pattern(rewritten.substr(0, 200), 0, nullptr) +
                  (rewritten.size() > 200 ? "...'" : "'");
    }
    std::uint32_t anchors = 0;
    LssPtr found;
    if (lss) {
        vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(lss->data()),
                                                          static_cast<std::uint32_t>(lss->size()), -1, pattern_flags);
        if (s)
            found.reset(vael_pm_special_chars_create_normalized_lss(s, pattern_flags & VAEL_PM_LITERAL,
                                                                    compile_flags & VAEL_PM_DIGITLESS, &anchors));
        vael_pmglob_string_destroy(s);
        return fields + (found ? " lss_used=" + quoted_strings(*found, anchors).substr(1) : " lss_used=refused");
    }
    // A plain expression's strings are --lss's to show; a rewritten one's
    // come from a text the line does not show.
    if (!expression || !(pattern_flags & VAEL_PM_UTF8)) return fields;
    found.reset(vael_pm_lss_find(reinterpret_cast<const unsigned char *>(rewritten.data()),
                                 static_cast<std::uint32_t>(rewritten.size()),
                                 (compile_flags & VAEL_PM_DIGITLESS) | pattern_flags, &err, &anchors));
    if (!found) return fields + (err.error_string ? " lss_used=refused" : " lss_used=none");
    // A regular LSS stands at an anchor only when it touches one; the
    // compile asks the finder again, as --lss does.
    if (!vael_pm_lss_can_be_used_instead_of_RE(found.get())) anchors = 0;
    return fields + " lss_used=" + quoted_strings(*found, anchors).substr(1);
}

long rem_dfa_states(std::string_view pattern, std::uint32_t pattern_flags, std::uint32_t compile_flags) {
    vael_pmglob_string *text =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                  static_cast<std::uint32_t>(pattern.size()), -1, pattern_flags);
    if (!text) return -1;
    vael_pm_error err;
    vael_pm_error_init(&err);
    // The frame adds dot-all (0x1) unless the compile flags ask otherwise (0x2).
    const std::uint32_t effective = (compile_flags & 0x2u) ? compile_flags : (compile_flags | 0x1u);
    auto *dfa = static_cast<vael_dfa *>(vael_rem_compile(text, effective, pattern_flags, &err));
    vael_pmglob_string_destroy(text);
    if (!dfa) return -1;
    const long states = vael_dfa_get_num_of_states(dfa);
    vael_dfa_destroy(dfa);
    return states;
}

}  // namespace vael::cli
