// vael_pcre.cpp - the PCRE second tier: what text and which options PCRE
// gets, which patterns are refused, which of PCRE's two matchers runs a
// pattern, how matches reach the run context, and the handle's image.
//
// The file's external interface is vael_pcre_init, which fills row 1 of
// pm_tier2_funcs, and the vael_pcre_* functions of vael_pcre.h behind that
// row. The memory hooks of PCRE are installed here; vael_pcre.h tells why
// they can live beside a host's own use of PCRE.

#include "pcre_tier/vael_pcre.h"

#include <cstddef>
#include <cstring>

#include "runtime/vael_alloc.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

int vael_pm_pcre_match_limit = 0;
int vael_pm_pcre_stack_frame_pool_sz = 0x7D000;

namespace {

constexpr const char *kPcreTopics = "K_PCRE";
constexpr const char *kPcreErrTopics = "K_PCRE | K_ERROR";

// Texts handed to the caller in vael_pm_error.
const char kNoMessage[] = "pcre did not return message";
const char kRecursive[] = "Recursive operations are not supported in PM for pcre_dfa_exec";
const char kBackReference[] = "Pattern has back reference";
const char kHooksReplaced[] = "PCRE's memory hooks were replaced after the library started";
const char kBadLetter[] = "Invalid letter after backslash";
const char kClassBracket[] = "Opening bracket '[' inside a character class is not supported";
const char kClassHyphen[] = "Hyphen '-' in the beginning or end of a character class is not supported";
const char kClassCaret[] = "Circumflex '^' in the middle of a character class is not supported";
const char kMidDollar[] = "Dollar '$' in the middle of a pattern is not supported";
const char kParenQuestion[] = "'(?' is not supported";
const char kParenStar[] = "'(*' is not supported";
const char kQuantPlus[] = "Plus '+' after one of the quantifiers '+', '*', '?' or '}' is not supported";
const char kQuantQuestion[] = "Question mark '?' after one of the quantifiers '+', '*', '?' or '}' is not supported";
const char kStrayBracket[] = "Closing bracket ']' that is not closing a character class is not supported";
const char kMidCaret[] = "Circumflex '^' in the middle of a pattern is not supported";

// pcre_compile2's error code for "failed to get memory".
constexpr int kPcreNoMemory = 21;

// The size of one match frame of the PCRE the limits were designed for; the
// frame pool size divided by it is the recursion limit.
constexpr int kHeapFrameSize = 332;

// The block pcre_study makes: the pcre_extra record, and the study data right
// behind it. A deserialized handle gets the same layout, so that destroy
// needs no distinction.
constexpr uint32_t kExtraSize = sizeof(pcre_extra);

// Every block the library's hooks give out carries its size in front; the
// header keeps the block's alignment that of malloc.
constexpr size_t kHookHeader = 16;

// Call sites of the hooks, by name, for the account and fail injection.
const char kMallocCaller[] = "pcre_malloc_do";
const char kFreeCaller[] = "pcre_free_do";
const char kHookSource[] = "pcre_globals";

uint32_t g_recursion_limit;
// The study data size of this PCRE and the size of its smallest compiled
// pattern, found at init: an image must agree with them before PCRE reads it.
uint32_t g_study_size;
uint32_t g_min_re_size;

void *(*g_prev_malloc)(size_t);
void (*g_prev_free)(void *);
bool g_hooks_installed;

// Depth of the library's own PCRE calls on this thread. The hooks serve the
// account only inside them.
thread_local int t_library_depth;

// Marks a scope in which PCRE's allocations belong to the library.
struct LibraryPcreScope {
    LibraryPcreScope() { t_library_depth++; }
    ~LibraryPcreScope() { t_library_depth--; }
    LibraryPcreScope(const LibraryPcreScope &) = delete;
    LibraryPcreScope &operator=(const LibraryPcreScope &) = delete;
};

// The size word of a block the library's hooks gave out.
size_t hook_block_size(const void *ptr) {
    size_t size;
    std::memcpy(&size, static_cast<const unsigned char *>(ptr) - kHookHeader, sizeof size);
    return size;
}

}  // namespace

extern "C" void *_pcre_malloc_do(size_t size) {
    if (size > SIZE_MAX - kHookHeader)
        return nullptr;
    auto *block = static_cast<unsigned char *>(
        vael_pmglob_memory_kmalloc_ex_(size + kHookHeader, kMallocCaller, 0, kHookSource, __LINE__));
    if (!block)
        return nullptr;
    std::memcpy(block, &size, sizeof size);
    return block + kHookHeader;
}

extern "C" void _pcre_free_do(void *ptr, size_t size) {
    if (!ptr)
        return;
    vael_pmglob_memory_kfree_ex_(static_cast<unsigned char *>(ptr) - kHookHeader, size + kHookHeader,
                                 kFreeCaller, kHookSource, __LINE__);
}

namespace {

void *library_pcre_malloc(size_t size) {
    if (t_library_depth > 0)
        return _pcre_malloc_do(size);
    return g_prev_malloc(size);
}

void library_pcre_free(void *ptr) {
    if (t_library_depth > 0) {
        if (ptr)
            _pcre_free_do(ptr, hook_block_size(ptr));
        return;
    }
    g_prev_free(ptr);
}

bool hooks_are_ours() { return pcre_malloc == library_pcre_malloc && pcre_free == library_pcre_free; }

void install_hooks() {
    if (hooks_are_ours())
        return;
    g_prev_malloc = pcre_malloc;
    g_prev_free = pcre_free;
    pcre_malloc = library_pcre_malloc;
    pcre_free = library_pcre_free;
    g_hooks_installed = true;
}

// A host that put its own pair in after the library keeps it: its blocks
// would otherwise reach the wrong free.
void remove_hooks() {
    if (!g_hooks_installed)
        return;
    if (hooks_are_ours()) {
        pcre_malloc = g_prev_malloc;
        pcre_free = g_prev_free;
    }
    g_hooks_installed = false;
}

inline bool is_alpha(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
inline bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }

// The log line of a failed pcre_compile, with the text dumped behind it.
void log_compile_failure(const char *name, int offset, const char *message, const char *text) {
    if (!vael_us_adaptor_printable(VAEL_DBG_ERR, kPcreErrTopics))
        return;
    vael_us_adaptor_kdprintf("%s: pcre compile failed at offset %d with error message: %s. pattern:\n", name,
                             offset, message);
    vael_us_adaptor_kdprintf_no_prefix("%s\n", text);
}

// ---------------------------------------------------------------- handle

vael_pcre_handle *vael_pcre_handle_init() {
    auto *h = VAEL_PM_NEW_ZEROED(vael_pcre_handle);
    if (!h) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: failed to allocate the new pcre handle\n");
        return nullptr;
    }
    if (vael_pm_stats_common_init(&h->stats) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: Error in allocating the stats\n");
        VAEL_PM_KFREE(h, sizeof *h);
        return nullptr;
    }
    return h;
}

// A zeroed pcre_extra block with room for `study_size` bytes of study data
// behind it, as pcre_study lays it out.
pcre_extra *alloc_extra(uint32_t study_size) {
    void *block = _pcre_malloc_do(kExtraSize + study_size);
    if (!block)
        return nullptr;
    std::memset(block, 0, kExtraSize + study_size);
    auto *extra = static_cast<pcre_extra *>(block);
    if (study_size) {
        extra->study_data = static_cast<unsigned char *>(block) + kExtraSize;
        extra->flags = PCRE_EXTRA_STUDY_DATA;
    }
    return extra;
}

uint32_t study_size_of(const vael_pcre_handle *h) {
    size_t size = 0;
    if (!h->extra || !(h->extra->flags & PCRE_EXTRA_STUDY_DATA))
        return 0;
    if (pcre_fullinfo(h->re, h->extra, PCRE_INFO_STUDYSIZE, &size) != 0)
        return 0;
    return (uint32_t)size;
}

int vael_pcre_verify_after_compilation(vael_pcre_handle *h, const char *text, uint32_t pattern_flags, int options,
                                       vael_pm_error *err) {
    if (vael_pcre_pattern_uses_recursive_op(text, options)) {
        if (vael_pm_pcre_use_dfa_exec) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kRecursive);
            return VAEL_ERROR;
        }
        h->flags |= VAEL_PCRE_FLAG_RECURSIVE;
    }
    if (pattern_flags & VAEL_PM_VERIFY_SYNTAX) {
        int backrefmax = 0;
        if (pcre_fullinfo(h->re, h->extra, PCRE_INFO_BACKREFMAX, &backrefmax) == 0 && backrefmax > 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kBackReference);
            return VAEL_ERROR;
        }
    }
    return VAEL_OK;
}

// The limits go on after the call and come off before the next one, so that
// no run is bound by them but one that meets them set by another thread.
void vael_pcre_place_limits(vael_pcre_handle *h) {
    h->extra->flags |= PCRE_EXTRA_MATCH_LIMIT_RECURSION;
    h->extra->match_limit_recursion = g_recursion_limit;
    if (vael_pm_pcre_match_limit) {
        VAEL_LOG(VAEL_DBG_INFO, kPcreTopics, "%s: enforcing %u match limit\n", (unsigned)vael_pm_pcre_match_limit);
        h->extra->flags |= PCRE_EXTRA_MATCH_LIMIT;
        h->extra->match_limit = (unsigned long)vael_pm_pcre_match_limit;
    }
}

void vael_pcre_remove_limits(vael_pcre_handle *h) {
    h->extra->flags &= ~(unsigned long)(PCRE_EXTRA_MATCH_LIMIT | PCRE_EXTRA_MATCH_LIMIT_RECURSION);
}

int *vael_pcre_alloc_workspace() {
    return static_cast<int *>(VAEL_KMALLOC(sizeof(int) * VAEL_PCRE_WORKSPACE_INTS));
}

void vael_pcre_free_workspace(int *workspace) { VAEL_KFREE(workspace, sizeof(int) * VAEL_PCRE_WORKSPACE_INTS); }

// Finds the sizes an image must agree with: those of this PCRE's smallest
// compiled pattern and of its study data.
int probe_pcre_sizes() {
    LibraryPcreScope scope;
    const char *message = nullptr;
    int offset = 0;
    pcre *empty = pcre_compile("", 0, &message, &offset, nullptr);
    pcre *studied = pcre_compile("ab", 0, &message, &offset, nullptr);
    pcre_extra *extra = studied ? pcre_study(studied, 0, &message) : nullptr;
    size_t min_size = 0, study_size = 0;
    int rc = VAEL_ERROR;
    if (empty && extra && pcre_fullinfo(empty, nullptr, PCRE_INFO_SIZE, &min_size) == 0 &&
        pcre_fullinfo(studied, extra, PCRE_INFO_STUDYSIZE, &study_size) == 0) {
        g_min_re_size = (uint32_t)min_size;
        g_study_size = (uint32_t)study_size;
        rc = VAEL_OK;
    }
    pcre_free(extra);
    pcre_free(studied);
    pcre_free(empty);
    return rc;
}

}  // namespace

// ---------------------------------------------------------------- the frame's row

extern "C" int pcre_get_heapframe_size(void) { return kHeapFrameSize; }
extern "C" int pcre_init_memory_pool(void) { return 0; }
extern "C" void pcre_destroy_memory_pool(void) {}

// For patterns the library compiled: their size is in the word in front.
extern "C" void pcre_free_re(pcre *re) {
    if (re)
        _pcre_free_do(re, hook_block_size(re));
}

extern "C" int vael_pcre_stack_frame_pool_sz_cb(void) {
    vael_us_adaptor_kdprintf("QX-1: changing PCRE's stack frame pool size can be done only from boot!\n");
    return 0;
}

extern "C" int vael_pcre_init(vael_pm_tier2_funcs *row) {
    if (!row || pcre_init_memory_pool() < 0)
        return VAEL_ERROR;
    g_recursion_limit = (uint32_t)(vael_pm_pcre_stack_frame_pool_sz / pcre_get_heapframe_size());
    install_hooks();
    if (probe_pcre_sizes() != 0) {
        remove_hooks();
        pcre_destroy_memory_pool();
        return VAEL_ERROR;
    }
    static const vael_pm_tier2_funcs kRow = {
        "PCRE",
        VAEL_PM_TIER2_NEEDS_FLAT | VAEL_PM_TIER2_USER_TEXT | VAEL_PM_TIER2_PROVEN_BY_TEXT,
        vael_pcre_compile,
        vael_pcre_exec,
        [](void *) { return 0; },
        vael_pcre_match_start_find,
        vael_pcre_duplicate,
        vael_pcre_get_serialized_size,
        vael_pcre_serialize,
        vael_pcre_deserialize,
        vael_pcre_is_valid,
        vael_pcre_destroy,
        vael_pcre_stats_print,
        vael_pcre_get_common_stats,
        vael_pcre_dump,
    };
    *row = kRow;
    return VAEL_OK;
}

extern "C" void vael_pcre_fini(void) {
    remove_hooks();
    pcre_destroy_memory_pool();
}

// ---------------------------------------------------------------- compile

extern "C" int vael_pcre_options(uint32_t flags) {
    int options = PCRE_UNGREEDY | PCRE_NO_AUTO_CAPTURE;
    if (flags & VAEL_PM_UTF8)
        options |= PCRE_UTF8;
    if (!(flags & VAEL_PCRE_NO_DOTALL))
        options |= PCRE_DOTALL;
    if (flags & VAEL_PM_CASELESS)
        options |= PCRE_CASELESS;
    if (flags & VAEL_PCRE_MULTILINE)
        options |= PCRE_MULTILINE;
    if (flags & VAEL_PCRE_NEWLINE_LF)
        options |= PCRE_NEWLINE_LF;
    else if (flags & VAEL_PCRE_NEWLINE_CR)
        options |= PCRE_NEWLINE_CR;
    else if (flags & VAEL_PCRE_NEWLINE_CRLF)
        options |= PCRE_NEWLINE_CRLF;
    else if (flags & VAEL_PCRE_NEWLINE_ANY)
        options |= PCRE_NEWLINE_ANY;
    return options;
}

extern "C" char *vael_pcre_compile_pre_process_pattern(const vael_pmglob_string *string, uint32_t pattern_flags,
                                                       uint32_t *alloc_size, int32_t bound_at[2]) {
    bound_at[0] = bound_at[1] = -1;
    const unsigned char *body = string->pattern;
    uint32_t n = string->size;
    bool caret = false, dollar = false;
    if (!(pattern_flags & VAEL_PM_LITERAL)) {
        if (n > 0 && body[0] == '^') {
            caret = true;
            body++;
            n--;
        }
        // The test is on the last byte alone: an escaped '$' counts too.
        if (n > 0 && body[n - 1] == '$') {
            dollar = true;
            n--;
        }
    }
    const bool bound = pattern_flags & VAEL_PM_BOUND;
    const bool wrap = bound || caret || dollar;
    const uint32_t extra = (caret ? 1 : 0) + (dollar ? 1 : 0) + (bound ? 6 : wrap ? 2 : 0) + 1;
    if (n > UINT32_MAX - extra)
        return nullptr;
    const uint32_t size = n + extra;
    char *text = static_cast<char *>(VAEL_KMALLOC(size));
    if (!text)
        return nullptr;
    uint32_t at = 0;
    if (caret)
        text[at++] = '^';
    if (bound) {
        bound_at[0] = (int32_t)at;
        std::memcpy(text + at, "\\b(", 3);
        at += 3;
    } else if (wrap) {
        text[at++] = '(';
    }
    if (n)
        std::memcpy(text + at, body, n);
    at += n;
    if (bound) {
        std::memcpy(text + at, ")\\b", 3);
        bound_at[1] = (int32_t)at + 1;
        at += 3;
    } else if (wrap) {
        text[at++] = ')';
    }
    if (dollar)
        text[at++] = '$';
    text[at] = '\0';
    *alloc_size = size;
    return text;
}

extern "C" void vael_pcre_free_text(char *text, uint32_t alloc_size) {
    if (text)
        VAEL_KFREE(text, alloc_size);
}

extern "C" int vael_pcre_verify_syntax(const char *text, const int32_t bound_at[2], vael_pm_error *err) {
    static const char kEscapeLetters[] = "DSWacdefnrstwx";
    const auto *t = reinterpret_cast<const unsigned char *>(text);
    const size_t n = std::strlen(text);
    bool escaped = false, in_class = false, class_caret = false;
    size_t class_start = 0;
    auto refuse = [&](const char *why, size_t index) {
        vael_pm_error_set_details3(err, VAEL_PM_ERROR_ILLEGAL, why, -1, (uint32_t)index);
        return VAEL_ERROR;
    };
    for (size_t i = 0; i < n; i++) {
        const unsigned char c = t[i];
        if (escaped) {
            escaped = false;
            // The `\b` that wraps a bound pattern is the library's own.
            const bool wrapper = c == 'b' && ((int32_t)i - 1 == bound_at[0] || (int32_t)i - 1 == bound_at[1]);
            if (is_alpha(c) && !wrapper && !std::strchr(kEscapeLetters, c))
                return refuse(kBadLetter, i);
            continue;
        }
        if (c == '\\') {
            escaped = true;
            continue;
        }
        const unsigned char next = t[i + 1]; // the text is NUL-ended
        if (in_class) {
            if (c == '[')
                return refuse(kClassBracket, i);
            if (c == '-' && (i == class_start || next == ']'))
                return refuse(kClassHyphen, i);
            if (c == ']') {
                in_class = false;
            } else if (c == '^') {
                if (i != class_start || class_caret)
                    return refuse(kClassCaret, i);
                class_start++; // a '-' right behind the '^' counts as first
                class_caret = true;
            }
            continue;
        }
        if (c == '$' && i != n - 1)
            return refuse(kMidDollar, i);
        if (c == '(' && next == '?')
            return refuse(kParenQuestion, i);
        if (c == '(' && next == '*')
            return refuse(kParenStar, i);
        if ((c == '*' || c == '+' || c == '?' || c == '}') && next == '+')
            return refuse(kQuantPlus, i);
        if ((c == '*' || c == '+' || c == '?' || c == '}') && next == '?')
            return refuse(kQuantQuestion, i);
        if (c == '[') {
            in_class = true;
            class_start = i + 1;
            class_caret = false;
        } else if (c == ']') {
            return refuse(kStrayBracket, i);
        } else if (c == '^' && i != 0) {
            return refuse(kMidCaret, i);
        }
    }
    return VAEL_OK;
}

// The compiled code's layout is private to each PCRE version, so the test
// reads the pattern text, which names the same constructs. It errs only
// towards "recursive": a construct inside an extended-mode comment counts.
extern "C" int vael_pcre_pattern_uses_recursive_op(const char *text, int options) {
    const auto *t = reinterpret_cast<const unsigned char *>(text);
    const size_t n = std::strlen(text);
    for (size_t i = 0; i < n; i++) {
        const unsigned char c = t[i];
        if (c == '\\') {
            const unsigned char e = t[i + 1];
            if (e == 'Q') { // quoted up to \E
                const char *end = std::strstr(text + i + 2, "\\E");
                if (!end)
                    return 0;
                i = (size_t)(end - text) + 1;
            } else if (e == 'g' && (t[i + 2] == '<' || t[i + 2] == '\'')) {
                return 1; // \g<name>, \g'name': subroutine calls
            } else if (e == 'c' && t[i + 2]) {
                i += 2; // \cX: X is taken as it is
            } else if (e) {
                i++;
            }
            continue;
        }
        if (c == '[') {
            // A class: a ']' first (or right behind '^') is a member.
            size_t j = i + 1;
            if (t[j] == '^')
                j++;
            if (t[j] == ']')
                j++;
            for (; j < n && t[j] != ']'; j++) {
                if (t[j] == '\\' && t[j + 1])
                    j++;
                else if (t[j] == '[' && t[j + 1] == ':') {
                    const char *end = std::strstr(text + j + 2, ":]");
                    if (end)
                        j = (size_t)(end - text) + 1;
                }
            }
            i = j;
            continue;
        }
        if (c == '(' && t[i + 1] == '?') {
            const unsigned char k = t[i + 2];
            if (k == '#') { // a comment up to ')'
                const char *end = std::strchr(text + i + 3, ')');
                if (!end)
                    return 0;
                i = (size_t)(end - text);
                continue;
            }
            if (k == '=' || k == '!' || k == '>' || k == '(' || k == 'R' || k == '&' || is_digit(k))
                return 1;
            if ((k == '+' || k == '-') && is_digit(t[i + 3]))
                return 1;
            if (k == '<' && (t[i + 3] == '=' || t[i + 3] == '!'))
                return 1;
            if (k == 'P' && t[i + 3] == '>')
                return 1;
            continue;
        }
        if (c == ')') {
            // A possessive quantifier on a group: )++ )*+ )?+ ){n,m}+
            size_t j = i + 1;
            if (t[j] == '*' || t[j] == '+' || t[j] == '?') {
                j++;
            } else if (t[j] == '{') {
                size_t k = j + 1;
                while (is_digit(t[k]) || t[k] == ',')
                    k++;
                if (t[k] != '}' || k == j + 1)
                    continue;
                j = k + 1;
            } else {
                continue;
            }
            if (t[j] == '+')
                return 1;
        }
    }
    (void)options; // the constructs are ASCII; a UTF-8 character never looks like one
    return 0;
}

extern "C" void *vael_pcre_compile(vael_pmglob_string *string, uint32_t compile_flags, uint32_t pattern_flags,
                                   vael_pm_error *err) {
    if (!string || !string->pattern) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: Invalid arguments: string %p\n", (void *)string);
        return nullptr;
    }
    if (!hooks_are_ours()) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: pcre_malloc/pcre_free are not the library's\n");
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, kHooksReplaced);
        return nullptr;
    }
    uint32_t text_size = 0;
    int32_t bound_at[2];
    char *text = vael_pcre_compile_pre_process_pattern(string, pattern_flags, &text_size, bound_at);
    if (!text)
        return nullptr;
    struct TextOwner {
        char *text;
        uint32_t size;
        ~TextOwner() { vael_pcre_free_text(text, size); }
    } text_owner{text, text_size};

    if ((pattern_flags & VAEL_PM_VERIFY_SYNTAX) && vael_pcre_verify_syntax(text, bound_at, err) != 0)
        return nullptr;
    const int options = vael_pcre_options(compile_flags | pattern_flags);
    vael_pcre_handle *h = vael_pcre_handle_init();
    if (!h)
        return nullptr;

    const char *message = nullptr;
    int offset = 0, code = 0;
    {
        LibraryPcreScope scope;
        h->re = pcre_compile2(text, options, &code, &message, &offset, nullptr);
    }
    if (!h->re) {
        log_compile_failure(__func__, offset, message ? message : kNoMessage, text);
        // PCRE's own out-of-memory is no fault of the pattern.
        vael_pm_error_set_details(err, code == kPcreNoMemory ? VAEL_PM_ERROR_INTERNAL : VAEL_PM_ERROR_ILLEGAL,
                                  message ? message : kNoMessage);
        vael_pcre_destroy(h);
        return nullptr;
    }
    message = nullptr;
    {
        LibraryPcreScope scope;
        h->extra = pcre_study(h->re, 0, &message);
    }
    if (message) {
        // The pattern compiled: what fails its study is PCRE or memory.
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: pcre_study failed: %s\n", message);
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, message);
        vael_pcre_destroy(h);
        return nullptr;
    }
    if (!h->extra) {
        // extra is written at each run, so every handle has one.
        VAEL_LOG(VAEL_DBG_INFO, kPcreTopics, "%s:  pcre_study is redundant for PCRE. We allocate it for our internal use.\n");
        h->extra = alloc_extra(0);
        if (!h->extra) {
            vael_pcre_destroy(h);
            return nullptr;
        }
    }
    if (vael_pcre_verify_after_compilation(h, text, pattern_flags, options, err) != 0) {
        vael_pcre_destroy(h);
        return nullptr;
    }
    return h;
}

// ---------------------------------------------------------------- run

extern "C" int vael_pcre_exec_ex(vael_pcre_handle *h, const unsigned char *buf, uint32_t len, uint32_t start,
                                 int *rc, int *match_end, int *match_start) {
    int ovector[VAEL_PCRE_OVECTOR_SIZE] = {-1, -1, -1};
    if ((int32_t)start >= (int32_t)len) {
        VAEL_LOG(VAEL_DBG_INFO, kPcreTopics, "%s: buf_size <= start_offset - hence, no match\n");
        *rc = -1;
        return VAEL_OK;
    }
    const char *subject = reinterpret_cast<const char *>(buf);
    int result;
    if (!(h->flags & VAEL_PCRE_FLAG_RECURSIVE) && vael_pm_pcre_use_dfa_exec) {
        int *workspace = vael_pcre_alloc_workspace();
        if (!workspace) {
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: error in allocating pcre workspace\n");
            return VAEL_ERROR;
        }
        {
            LibraryPcreScope scope;
            result = pcre_dfa_exec(h->re, h->extra, subject, (int)len, (int)start, PCRE_DFA_SHORTEST, ovector,
                                   VAEL_PCRE_OVECTOR_SIZE, workspace, VAEL_PCRE_WORKSPACE_INTS);
        }
        vael_pcre_free_workspace(workspace);
    } else {
        if (vael_pm_pcre_use_dfa_exec) {
            // A pattern that needs pcre_exec was compiled while pcre_exec
            // was the matcher; it is not run by the other one.
            VAEL_ASSERT_F(0, "%s: Recuresive patterns are not supported\n");
            return VAEL_ERROR;
        }
        LibraryPcreScope scope;
        result = pcre_exec(h->re, h->extra, subject, (int)len, (int)start, 0, ovector, VAEL_PCRE_OVECTOR_SIZE);
    }
    vael_pcre_place_limits(h);
    if (result < -1) {
        VAEL_LOG(VAEL_DBG_NOTICE, kPcreTopics, "%s: pcre_exec returned error of type %d\n", result);
        result = -1;
    }
    *rc = result;
    *match_end = ovector[1];
    *match_start = ovector[0];
    vael_pcre_remove_limits(h);
    return VAEL_OK;
}

extern "C" int vael_pcre_exec(void *handle, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                              uint32_t start, lst_list **queue, uint32_t exec_flags, vael_pm_exec_cb_ctx *ctx) {
    auto *h = static_cast<vael_pcre_handle *>(handle);
    if (!h || !ctx || !ctx->fn || (!buf && len)) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: invalid parameters: pcre_handle = %p, buf = %p, ctx = %p\n",
                 handle, (const void *)buf, (void *)ctx);
        return VAEL_ERROR;
    }
    uint32_t matches = 0;
    uint32_t from = start;
    int result = VAEL_OK;
    for (;;) {
        int rc = -1, match_end = -1, match_start = -1;
        if (vael_pcre_exec_ex(h, buf, len, from, &rc, &match_end, &match_start) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: vael_pcre_exec_ex failed\n");
            result = VAEL_ERROR;
            break;
        }
        if (rc < 0)
            break;
        if (match_end <= (int)from) {
            // An empty match ends the search: it would be found again here.
            VAEL_LOG(VAEL_DBG_INFO, kPcreTopics,
                     "%s: Found a null match - start_from=%d, match_start=%d match_end=%d len=%d\n", (int)from,
                     match_start, match_end, (int)len);
            break;
        }
        from = (uint32_t)match_end;
        uint32_t extra[2] = {0, (exec_flags & VAEL_PM_EXEC_MATCH_START) ? (uint32_t)match_start : 0};
        matches++;
        if (ctx->fn(ctx, (uint32_t)match_end - 1, extra, -1) != 0) {
            VAEL_LOG(VAEL_DBG_NOTICE, kPcreTopics, "%s: user match callback returned VAEL_ERROR\n");
            result = VAEL_ERROR;
            break;
        }
        if (!(exec_flags & VAEL_PM_EXEC_ALL_MATCHES) || !ctx->keep_going)
            break;
    }
    vael_pm_stats_common_update_exec(&h->stats, len, matches);
    return result;
}

extern "C" uint32_t vael_pcre_match_start_find(void *handle, const unsigned char *buf, uint32_t len,
                                               vael_vbuf *vbuf, uint32_t exec_flags, vael_pmglob_match_data *hit,
                                               uint32_t back_offset, uint32_t pattern_flags) {
    // Matches of this tier carry their start from the run itself.
    VAEL_ASSERT_F(0, "%s: this function shouldn't be called for pcre\n");
    return 0;
}

// ---------------------------------------------------------------- image

extern "C" uint32_t vael_pcre_get_serialized_size(void *handle) {
    auto *h = static_cast<vael_pcre_handle *>(handle);
    size_t size = 0;
    if (!h || pcre_fullinfo(h->re, h->extra, PCRE_INFO_SIZE, &size) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: NULL pcre handle\n");
        return 0;
    }
    return 20 + (uint32_t)size + study_size_of(h) + vael_pm_stats_common_get_serialize_size();
}

extern "C" int vael_pcre_serialize(void *handle, unsigned char **position, uint32_t *space) {
    auto *h = static_cast<vael_pcre_handle *>(handle);
    if (!h || !position || !*position || !space) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: invalid parameters: pcre_handle = %p, buf = %p\n", handle,
                 position ? (void *)*position : nullptr);
        return 0;
    }
    const uint32_t needed = vael_pcre_get_serialized_size(h);
    if (needed == 0)
        return VAEL_ERROR;
    if (*space < needed) {
        if (vael_us_adaptor_printable(VAEL_DBG_ERR, kPcreErrTopics))
            vael_us_adaptor_kdprintf("output buffer is not big enough: needed size %d > output buffer buf %d\n",
                                     (int)needed, (int)*space);
        return VAEL_ERROR;
    }
    size_t re_size = 0;
    pcre_fullinfo(h->re, h->extra, PCRE_INFO_SIZE, &re_size);
    const uint32_t study_size = study_size_of(h);
    vael::image_put_u32(position, space, (uint32_t)re_size);
    vael::image_put_bytes(position, space, h->re, (uint32_t)re_size);
    vael::image_put_u32(position, space, study_size);
    vael::image_put_u32(position, space, study_size ? PCRE_EXTRA_STUDY_DATA : 0);
    vael::image_put_bytes(position, space, study_size ? h->extra->study_data : nullptr, study_size);
    vael::image_put_u32(position, space, h->flags);
    vael::image_put_u32(position, space, VAEL_PCRE_MAGIC);
    vael_pm_stats_common_serialize(&h->stats, position, space);
    return VAEL_OK;
}

extern "C" void *vael_pcre_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                       vael_vbuf_iter *iter) {
    if (!space || (!vbuf && (!position || !*position)) || (vbuf && !iter)) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: invalid parameters\n");
        return nullptr;
    }
    vael::ImageReader in{position, space, vbuf, iter};
    auto *h = VAEL_PM_NEW_ZEROED(vael_pcre_handle);
    if (!h) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: Error in allocating the pcre handle\n");
        return nullptr;
    }
    auto fail = [&]() -> void * {
        vael_pcre_destroy(h);
        return nullptr;
    };
    uint32_t re_size = 0, study_size = 0, extra_flags = 0, magic = 0;
    in.u32(&re_size);
    if (re_size > *space)
        *space = 0; // a cut image: the magic tells
    if (*space) {
        // PCRE reads a pattern's header and a study block whole: a size it
        // would read past is refused before anything is copied.
        if (re_size < g_min_re_size) {
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: Error in allocating the pcre_handle->re size %d\n",
                     (int)re_size);
            return fail();
        }
        h->re = static_cast<pcre *>(_pcre_malloc_do(re_size));
        if (!h->re) {
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: Error in allocating the pcre_handle->re size %d\n",
                     (int)re_size);
            return fail();
        }
        in.bytes(h->re, re_size);
    }
    in.u32(&study_size);
    in.u32(&extra_flags);
    if (*space) {
        if (study_size != 0 && study_size != g_study_size) {
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: study data of %u bytes is not of this PCRE (%u)\n",
                     study_size, g_study_size);
            return fail();
        }
        h->extra = alloc_extra(study_size);
        if (!h->extra) {
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: failed to allocate %u bytes for pcre_extra data\n",
                     study_size + kExtraSize);
            return fail();
        }
        if (study_size)
            in.bytes(h->extra->study_data, study_size);
    }
    in.u32(&h->flags);
    in.u32(&magic);
    if (magic != VAEL_PCRE_MAGIC) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: Wrong serialization magic (%x) at the buffer\n", magic);
        return fail();
    }
    if (vael_pm_stats_common_deserialize(&h->stats, in.position, in.space, in.vbuf, in.iter) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: Error in deserializing stats\n");
        return fail();
    }
    return h;
}

extern "C" void *vael_pcre_duplicate(void *handle) {
    if (!handle)
        return nullptr;
    const uint32_t size = vael_pcre_get_serialized_size(handle);
    if (size == 0)
        return nullptr;
    auto *block = static_cast<unsigned char *>(VAEL_KMALLOC(size));
    if (!block)
        return nullptr;
    unsigned char *out = block;
    uint32_t space = size;
    void *copy = nullptr;
    if (vael_pcre_serialize(handle, &out, &space) == 0) {
        const unsigned char *in = block;
        space = size;
        copy = vael_pcre_deserialize(&in, &space, nullptr, nullptr);
    }
    VAEL_KFREE(block, size);
    return copy;
}

// ---------------------------------------------------------------- validation, statistics, destroy

extern "C" int vael_pcre_is_valid(void *handle) {
    auto *h = static_cast<vael_pcre_handle *>(handle);
    size_t size = 0;
    return h && pcre_fullinfo(h->re, h->extra, PCRE_INFO_SIZE, &size) == 0;
}

extern "C" void vael_pcre_stats_print(void *handle, int level) {
    auto *h = static_cast<vael_pcre_handle *>(handle);
    if (h)
        vael_pm_stats_common_print(&h->stats, level, VAEL_PM_STATS_FORMAT_TEXT, 0);
}

extern "C" vael_pm_stats_common *vael_pcre_get_common_stats(void *handle) {
    return handle ? &static_cast<vael_pcre_handle *>(handle)->stats : nullptr;
}

extern "C" void vael_pcre_dump(void *handle, int format) {}

// Both blocks came from the library's hooks and carry their sizes; PCRE's
// own figures are checked against them, and a block is released even when
// PCRE no longer recognises it, as a cut image leaves it.
extern "C" void vael_pcre_destroy(void *handle) {
    auto *h = static_cast<vael_pcre_handle *>(handle);
    if (!h)
        return;
    vael_pm_stats_common_free(&h->stats);
    if (h->extra) {
        size_t study_size = 0;
        if ((h->extra->flags & PCRE_EXTRA_STUDY_DATA) &&
            (!h->re || pcre_fullinfo(h->re, h->extra, PCRE_INFO_STUDYSIZE, &study_size) != 0))
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: pcre_fullinfo (PCRE_INFO_STUDYSIZE) failed\n");
        _pcre_free_do(h->extra, hook_block_size(h->extra));
    }
    if (h->re) {
        size_t re_size = 0;
        if (pcre_fullinfo(h->re, nullptr, PCRE_INFO_SIZE, &re_size) != 0)
            VAEL_LOG(VAEL_DBG_ERR, kPcreErrTopics, "%s: pcre_fullinfo (PCRE_INFO_SIZE) failed\n");
        _pcre_free_do(h->re, hook_block_size(h->re));
    }
    VAEL_PM_KFREE(h, sizeof *h);
}
