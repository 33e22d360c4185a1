// explain.cpp - vael-scan --tokens: the REM lexer's view of one pattern.
//
// Runs the library's own lexer token by token, as the parser would, and
// prints what each token carries; nothing here interprets the language.
#include "explain.h"

#include <cinttypes>
#include <memory>
#include <string>

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
                    std::size_t column = 0;
                    const std::uint32_t index = vael_rem_parser_consumed(parser.get());
                    const std::string shown = escaped_pattern(pattern, index, &column);
                    std::fprintf(out, "error: %s (index %" PRIu32 ")\n  %s\n  %s^\n",
                                 err.error_string ? err.error_string : "malformed UTF-8 character (no message)",
                                 index, shown.c_str(), std::string(column, ' ').c_str());
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

}  // namespace vael::cli
