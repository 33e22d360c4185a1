// vael_pm_regexp_verifier.cpp - the syntax questions of management tools:
// does a pattern compile here, in the older regular-expression engine, does a
// phrase do for the word matcher, and would a pattern mean the same in both
// engines.
//
// The last question is answered by a PM of its own: a table of the meta
// characters whose meaning differs between the engines, compiled once as
// regular expressions, run over the pattern's text. The row's index is its
// pattern id, and the first hit's row is the answer.

#include "analysis/vael_pm_regexp_verifier.h"

#include <regex.h>

#include <cstring>

#include "pm/vael_pm_strings.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"
#include "tier1/vael_wm.h"

struct vael_pm_regexp_verify_handle {
    vael_pm_handle *pm;  // the compiled table of conflicting meta characters
};

namespace {

constexpr const char *kTopics = "K_PM";
constexpr const char *kErrTopics = "K_ERROR|K_PM";

struct pm_regexp_conflicting_metachar {
    const char *expression;  // run over the pattern text after backslash pairs are blanked
    int32_t code;
    uint32_t type;
    const char *text;
};

// Rows 8 to 11 hold their own alternations; each reads from the start of the
// pattern text so that it can tell what stands inside brackets:
//  8: a backslash between '[' and ']' (the older engine takes it as itself);
//  9: an unescaped '{' (a quantifier here, a plain character there);
// 10: '^' after the start and outside brackets;
// 11: '$' before the end and outside brackets.
const pm_regexp_conflicting_metachar pm_regexp_conflicting_metachars[] = {
    /*  0 */ {R"re(\\d)re", -8, 2, R"(Found decimal special character '\d')"},
    /*  1 */ {R"re(\\D)re", -9, 2, R"(Found non-decimal special character '\D')"},
    /*  2 */ {R"re(\\s)re", -10, 2, R"(Found whitespace special character '\s')"},
    /*  3 */ {R"re(\\S)re", -11, 2, R"(Found non-whitespace special character '\S')"},
    /*  4 */ {R"re(\\w)re", -12, 2, R"(Found word-char special character '\w')"},
    /*  5 */ {R"re(\\W)re", -13, 2, R"(Found non-word-char special character '\W')"},
    /*  6 */ {R"re(\\x)re", -14, 2, R"(Found hexadecimal special character '\x')"},
    /*  7 */ {R"re(\\([0-7]){1,3})re", -15, 2, R"(Found octal special character)"},
    /*  8 */ {R"re(^((\[)|(.*[^\\]\[))([^\]])*(\\)([^\[])*\])re", -19, 2, R"(Found a preceding '\' inside brackets)"},
    /*  9 */ {R"re(^((\{)|(.*[^\\]\{)))re", -21, 2, R"(Found quantifier special characters '{}')"},
    /* 10 */ {R"re(^(((([^\[])|(\\\[)))*((\\\[|[^\[\\])\^))|([^\^].*\](\^|(((([^\[])|(\\\[)))*((\\\[|[^\[\\])\^)))))re", -22, 1, R"(Found anchor '^' in the middle of the pattern)"},
    /* 11 */ {R"re(^((\$)|(((([^\[])|(\\\[)))*((\\\[|[^\[\\])\$))|(.*\](\$|(((([^\[])|(\\\[)))*((\\\[|[^\[\\])\$)))))(.+))re", -23, 1, R"(Found anchor '$' in the middle of the pattern)"},
    /* 12 */ {R"re(\\a)re", -24, 2, R"(Found alarm special character '\a')"},
    /* 13 */ {R"re(\\c)re", -25, 2, R"(Found control special character '\c')"},
    /* 14 */ {R"re(\\e)re", -26, 2, R"(Found escape special character '\e')"},
    /* 15 */ {R"re(\\f)re", -27, 2, R"(Found formfeed special character '\f')"},
    /* 16 */ {R"re(\\n)re", -28, 2, R"(Found newline special character '\n')"},
    /* 17 */ {R"re(\\r)re", -29, 2, R"(Found carriage-return special character '\r')"},
    /* 18 */ {R"re(\\t)re", -30, 2, R"(Found tab special character '\t')"},
    {nullptr, 0, 0, nullptr},
};
constexpr int32_t kRows = sizeof(pm_regexp_conflicting_metachars) / sizeof(pm_regexp_conflicting_metachars[0]) - 1;

const char kSuccess[] = "Success - pattern has identical meaning in new and old regular expression engines";
const char kInternal[] =
    "Verification internal error: pattern has different meaning in new and old regular expression engines";
// The older engine compiles every pattern caseless: this build constant
// says so, and the case question is asked against it.
constexpr bool kRegexpCaseless = true;
const char *const kCaseMismatch = kRegexpCaseless
                                 ? "Old regular expression engine (Regexp) is caseless, but new regular expression "
                                   "engine (PM) is case-sensitive"
                                 : "New regular expression engine (PM) is caseless, but old regular expression "
                                   "engine (Regexp) is case-sensitive";
const char kFlagsUnsupported[] =
    "Compilation flags of new regular expression engine (PM) are not supported by old regular expression engine "
    "(Regexp)";
const char kMetadata[] = "Found metadata. Metadata is not supported by old regular expression engine (Regexp)";
const char kPmSyntax[] = "Syntax verification failed for new regular expression engine (PM)";
const char kEmptyPattern[] = "Empty pattern";
const char kIllegalMetadata[] = "Illegal metadata in pattern";
const char kRegexpSyntax[] = "Syntax verification failed for old regular expression engine (Regexp)";

const char kBadPhraseArgs[] = "Invalid arguments (phrase or phrase length)";
const char kBadUtf8[] = "not valid utf8 char in the phrase";
const char kOnlyDelimiters[] = "The keyword must have at least one alphanumeric character.";

void set_answer(vael_pm_regexp_result *result, int32_t code, uint32_t type, const char *text) {
    result->code = code;
    result->type = type;
    result->text = text;
}

int vael_pm_regexp_meaning_match_cb(vael_pm_handle *pm, int32_t pattern_id, void *user_arg, const unsigned char *buf,
                                    uint32_t len, uint32_t offset, vael_vbuf *vbuf, int *keep_going) {
    auto *result = static_cast<vael_pm_regexp_result *>(user_arg);
    if (pattern_id < 0 || pattern_id >= kRows || !result)
        return 0;
    const pm_regexp_conflicting_metachar &row = pm_regexp_conflicting_metachars[pattern_id];
    set_answer(result, row.code, row.type, row.text);
    result->offset = offset;
    VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: found match for conflicting meta character in offset %u: %s (%d).\n",
             offset, row.text, row.code);
    // One difference answers the question.
    if (keep_going)
        *keep_going = 0;
    return 0;
}

}  // namespace

extern "C" vael_pm_regexp_verify_handle *vael_pm_regexp_verify_init(void) {
    auto handle = vael_make_owned<vael_pm_regexp_verify_handle>(vael_account::kmem, 1, __func__, __FILE__, __LINE__);
    if (!handle) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to allocate vael_pm_regexp_verify_handle\n");
        return nullptr;
    }
    vael_pm_patterns *list = vael_pm_patterns_create();
    if (!list) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to create conflicting meta characters list\n");
        return nullptr;
    }
    for (int32_t row = 0; row < kRows; row++) {
        const char *expression = pm_regexp_conflicting_metachars[row].expression;
        const uint32_t length = pm_strlen(expression);
        char *copy = nullptr;
        uint32_t copy_len = 0;
        if (pm_strdup(expression, length, &copy, &copy_len) != 0 || !copy) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics,
                     "%s: failed to add token %s (%d) to the conflicting meta characters list (strdup failed)\n",
                     expression, row);
            vael_pm_patterns_destroy(list);
            return nullptr;
        }
        const int rc = vael_pm_patterns_add_pattern(list, copy, copy_len, row, 0);
        qx_kfree_(copy, copy_len);
        if (rc != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrTopics,
                     "%s: failed to add token %s (%d) to the conflicting meta characters list "
                     "(vael_pm_patterns_add_pattern failed)\n",
                     expression, row);
            vael_pm_patterns_destroy(list);
            return nullptr;
        }
    }
    vael_pm_error error;
    vael_pm_error_init(&error);
    handle->pm = vael_pm_compile(list, vael_pm_regexp_meaning_match_cb, 0, &error, "vael_pm_regexp_verify");
    vael_pm_patterns_destroy(list);
    if (!handle->pm) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to compile the conflicting meta characters\n");
        if (vael_us_adaptor_printable(VAEL_DBG_ERR, kErrTopics))
            vael_pm_error_dump(&error);
        return nullptr;
    }
    return handle.release();
}

extern "C" void vael_pm_regexp_verify_fini(vael_pm_regexp_verify_handle *handle) {
    if (!handle)
        return;
    vael_pm_destroy(handle->pm);
    qx_kfree_(handle, sizeof(*handle));
}

extern "C" char *vael_pm_regexp_normalize_bslash(const char *pattern, uint32_t length) {
    if (!pattern || length == 0)
        return nullptr;
    auto *out = static_cast<char *>(VAEL_KMALLOC(length));
    if (!out) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to allocate normalized_pattern\n");
        return nullptr;
    }
    for (uint32_t i = 0; i < length;) {
        if (pattern[i] == '\\' && i + 1 < length && pattern[i + 1] == '\\') {
            out[i] = out[i + 1] = '@';
            i += 2;
        } else {
            out[i] = pattern[i];
            i++;
        }
    }
    return out;
}

extern "C" int vael_pm_verify_syntax(const char *pattern, uint32_t length, uint32_t compile_flags,
                                     uint32_t pattern_flags, vael_pm_error *error) {
    vael_pm_error_init(error);
    vael_pm_patterns *list = vael_pm_patterns_create();
    if (!list) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to create PM patterns\n");
        return VAEL_ERROR;
    }
    if (vael_pm_patterns_add_pattern(list, pattern, length, 0, pattern_flags | VAEL_PM_VERIFY_SYNTAX) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to add PM pattern\n");
        vael_pm_patterns_destroy(list);
        return VAEL_ERROR;
    }
    vael_pm_handle *pm = vael_pm_compile(list, nullptr, compile_flags, error, "vael_pm_verify_syntax");
    vael_pm_patterns_destroy(list);
    if (!pm) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to compile PM pattern\n");
        return VAEL_ERROR;
    }
    vael_pm_destroy(pm);
    return 0;
}

namespace {

// The older engine is not part of this build. Its validity test is answered
// by the C library's POSIX extended regular expressions (regcomp with
// REG_EXTENDED | REG_ICASE), compiled caseless as that engine compiles. That
// engine reads '{' and '}' as plain characters (which is why a quantifier in
// braces is a difference of meaning), so they are escaped before regcomp
// sees them. regcomp's own memory is the C library's and regfree returns it.
// 0 when the text compiles, -1 when it is refused, -2 when out of memory.
int regexp_compile_bytes(const char *text, uint32_t length) {
    // That engine reads NUL-ended texts: a pattern with a NUL inside can't
    // reach it whole.
    if (std::memchr(text, 0, length))
        return -1;
    const size_t size = (size_t)length * 2 + 1;
    auto *copy = static_cast<char *>(VAEL_KMALLOC(size));
    if (!copy)
        return -2;
    size_t n = 0;
    for (uint32_t i = 0; i < length; i++) {
        if (text[i] == '\\' && i + 1 < length) {
            copy[n++] = text[i++];
            copy[n++] = text[i];
            continue;
        }
        if (text[i] == '{' || text[i] == '}')
            copy[n++] = '\\';
        copy[n++] = text[i];
    }
    copy[n] = '\0';
    regex_t re;
    const int rc = regcomp(&re, copy, REG_EXTENDED | REG_ICASE | REG_NOSUB);
    if (rc == 0)
        regfree(&re);
    qx_kfree_(copy, size);
    return rc == 0 ? 0 : -1;
}

}  // namespace

extern "C" int tq_regvalidate(const char *text) {
    if (!text)
        return -1;
    return regexp_compile_bytes(text, pm_strlen(text));
}

extern "C" int vael_regexp_verify_syntax(const char *pattern) {
    if (tq_regvalidate(pattern) < 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to compile regexp pattern\n");
        return VAEL_ERROR;
    }
    return 0;
}

extern "C" int vael_pm_regexp_find_conflict(vael_pm_regexp_verify_handle *handle, const char *pattern,
                                            uint32_t length, vael_pm_regexp_result *result) {
    if (!handle || !handle->pm || !pattern || !result)
        return VAEL_ERROR;
    char *normalized = vael_pm_regexp_normalize_bslash(pattern, length);
    if (!normalized) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to normalize backslashes in the pattern\n");
        return VAEL_ERROR;
    }
    // The callback writes the first row that hits; with none, what was there stands.
    const int rc = vael_pm_exec_ex(handle->pm, reinterpret_cast<const unsigned char *>(normalized), length, nullptr,
                                   nullptr, result, VAEL_PM_EXEC_FIRST_MATCH_ONLY);
    qx_kfree_(normalized, length);
    if (rc != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics,
                 "%s: failed to execute the conflicting meta characters with given pattern\n");
        return VAEL_ERROR;
    }
    return 0;
}

extern "C" int vael_pm_regexp_verify_identical_meaning(vael_pm_regexp_verify_handle *handle, const char *pattern,
                                                       uint32_t length, uint32_t compile_flags,
                                                       uint32_t pattern_flags, vael_pm_regexp_result *result) {
    VAEL_ASSERT(handle && pattern && result, "Invalid arguments");
    if (!result)
        return VAEL_ERROR;
    vael_pm_error_init(&result->error);
    set_answer(result, VAEL_PM_REGEXP_SUCCESS, VAEL_PM_REGEXP_TYPE_SUCCESS, kSuccess);
    result->offset = VAEL_PM_REGEXP_NO_OFFSET;
    if (!handle || !handle->pm || !pattern) {
        set_answer(result, VAEL_PM_REGEXP_INTERNAL, VAEL_PM_REGEXP_TYPE_SETUP, kInternal);
        return VAEL_ERROR;
    }

    // The case rule comes first: under another rule nothing below would mean
    // the same anyway.
    const bool pm_caseless = ((compile_flags | pattern_flags) & VAEL_PM_CASELESS) != 0;
    if (pm_caseless != kRegexpCaseless) {
        set_answer(result, VAEL_PM_REGEXP_CASE_MISMATCH, VAEL_PM_REGEXP_TYPE_SETUP, kCaseMismatch);
        return VAEL_ERROR;
    }
    if (compile_flags & VAEL_PM_REGEXP_UNSUPPORTED_COMPILE_FLAGS) {
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: PM compilation flags 0x%x are not supported by regexp\n",
                 compile_flags);
        set_answer(result, VAEL_PM_REGEXP_COMPILE_FLAGS, VAEL_PM_REGEXP_TYPE_DIFFERENCE, kFlagsUnsupported);
        return VAEL_ERROR;
    }
    if (pattern_flags & VAEL_PM_LITERAL) {
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: PM pattern flags 0x%x are not supported by regexp\n",
                 pattern_flags);
        set_answer(result, VAEL_PM_REGEXP_PATTERN_FLAGS, VAEL_PM_REGEXP_TYPE_DIFFERENCE, kFlagsUnsupported);
        return VAEL_ERROR;
    }

    if (vael_pm_verify_syntax(pattern, length, compile_flags, pattern_flags, &result->error) != 0) {
        // The compile's own text, when it gave one, is in result->error.
        const char *text = kPmSyntax;
        int has = 0;
        if (result->error.error_string) {
            text = kPmSyntax;
        } else if (length == 0) {
            VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: empty pattern\n");
            text = kEmptyPattern;
        } else if (vael_pm_pattern_has_metadata(pattern, length, &has) != 0) {
            VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: Illegal metadata\n");
            text = kIllegalMetadata;
        }
        set_answer(result, VAEL_PM_REGEXP_PM_SYNTAX, VAEL_PM_REGEXP_TYPE_ERROR, text);
        return VAEL_ERROR;
    }

    const int regexp_rc = regexp_compile_bytes(pattern, length);
    if (regexp_rc == -2) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to allocate the pattern for regexp\n");
        set_answer(result, VAEL_PM_REGEXP_INTERNAL, VAEL_PM_REGEXP_TYPE_SETUP, kInternal);
        return VAEL_ERROR;
    }
    if (regexp_rc != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to compile regexp pattern\n");
        set_answer(result, VAEL_PM_REGEXP_REGEXP_SYNTAX, VAEL_PM_REGEXP_TYPE_DIFFERENCE, kRegexpSyntax);
        return VAEL_ERROR;
    }

    int has = 0;
    if (vael_pm_pattern_has_metadata(pattern, length, &has) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: failed to check metadata\n");
        set_answer(result, VAEL_PM_REGEXP_PM_SYNTAX, VAEL_PM_REGEXP_TYPE_ERROR, kIllegalMetadata);
        return VAEL_ERROR;
    }
    if (has) {
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: Found metadata. Metadata is not supported by regexp\n");
        set_answer(result, VAEL_PM_REGEXP_METADATA, VAEL_PM_REGEXP_TYPE_DIFFERENCE, kMetadata);
        return VAEL_ERROR;
    }

    if (vael_pm_regexp_find_conflict(handle, pattern, length, result) != 0) {
        set_answer(result, VAEL_PM_REGEXP_INTERNAL, VAEL_PM_REGEXP_TYPE_SETUP, kInternal);
        result->offset = VAEL_PM_REGEXP_NO_OFFSET;
    }
    return result->code == VAEL_PM_REGEXP_SUCCESS ? 0 : VAEL_ERROR;
}

extern "C" int vael_wm_verify_syntax(const char *phrase, uint32_t length, vael_pm_error *error) {
    vael_pm_error_init(error);
    if (!phrase || length == 0) {
        vael_pm_error_set_details(error, VAEL_PM_ERROR_ILLEGAL, kBadPhraseArgs);
        return VAEL_ERROR;
    }
    const auto *text = reinterpret_cast<const unsigned char *>(phrase);
    bool has_word = false;
    for (uint32_t i = 0; i < length;) {
        uint32_t used = 0;
        const int32_t c = vael_wm_decode_utf8(text + i, length - i, &used);
        if (c == -1) {
            vael_pm_error_set_details(error, VAEL_PM_ERROR_ILLEGAL, kBadUtf8);
            return VAEL_ERROR;
        }
        has_word = has_word || !vael_wm_is_delimiter_uni(c);
        i += used;
    }
    if (!has_word) {
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: All characters in the phrase are delimiters.\n");
        vael_pm_error_set_details(error, VAEL_PM_ERROR_ILLEGAL, kOnlyDelimiters);
        return VAEL_ERROR;
    }
    return 0;
}
