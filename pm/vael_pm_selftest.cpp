// vael_pm_selftest.cpp - the self test an operator drives through parameters.
//
// The host calls one callback after each set of a test parameter. The state
// is one process-wide test: the pattern list being collected, the PM compiled
// from it, the next pattern id, and whether the last run matched. Nothing in
// the library calls into this file; it exists for the control plane, and every
// result goes to the debug log.

#include "vael/vael_pm_selftest.h"

#include <cstring>

#include "runtime/vael_runtime.h"
#include "vael/vael_vbuf.h"

extern "C" {
char pm_callback_test_compile_lss[PM_CALLBACK_TEST_TEXT_SIZE];
char pm_callback_test_compile_re[PM_CALLBACK_TEST_TEXT_SIZE];
char pm_callback_test_buffer[PM_CALLBACK_TEST_TEXT_SIZE];
int pm_callback_test_compile;
int pm_callback_test_reset_test;
}

namespace {

constexpr const char kNotes[] = "K_PM";
constexpr const char kErrors[] = "K_PM | K_ERROR";
// A run ends at the first hit of an engine: the operator wants a verdict.
constexpr uint32_t kExecFlags = 0x10000000u;

// The one test of the process.
struct SelfTest {
    vael_pm_patterns *patterns = nullptr;
    bool patterns_exist = false;
    vael_pm_handle *pm = nullptr;
    int32_t next_id = 0;
    bool match_found = false;
};
SelfTest g_test;

#define NOTE(...)                                                  \
    do {                                                           \
        if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, kNotes))    \
            vael_us_adaptor_kdprintf(__VA_ARGS__);                 \
    } while (0)

// "String dump- [" and the bytes as they are, with no print limit for the
// time of the dump, since a test text is longer than the usual line.
void string_dump(const char *text, size_t len) {
    if (!vael_us_adaptor_printable(VAEL_DBG_NOTICE, kNotes))
        return;
    const int saved = qx_kdprintf_limit;
    qx_kdprintf_limit = 0;
    vael_us_adaptor_kdprintf("String dump- [");
    for (size_t i = 0; i < len; i++)
        vael_us_adaptor_kdprintf_no_prefix("%c", text[i]);
    vael_us_adaptor_kdprintf_no_prefix("]\n");
    qx_kdprintf_limit = saved;
}

bool is_hex_escape(const char *buf, int i, int len) {
    return buf[i] == '\\' && i + 1 < len && (buf[i + 1] == 'x' || buf[i + 1] == 'X');
}

// Replaces each "\xHH" by its byte, in place; the new length. A bad digit
// stops the work at once and gives the full length, with the text left half
// converted. A text that ends inside an escape ("\x" or "\x4" at the end) is
// refused with -1: an operator's typo must not hang the caller, so such a
// text is not looped over as if more digits could still come.
int handle_escapse_chars(char *buf, int len) {
    int out = 0;
    int i = 0;
    while (i < len) {
        if (!is_hex_escape(buf, i, len)) {
            buf[out++] = buf[i++];
            continue;
        }
        if (i + 3 >= len || buf[i + 2] == '\0' || buf[i + 3] == '\0') {
            VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: escape cut at the end of the text\n");
            return VAEL_ERROR;
        }
        int value = 0;
        if (pm_callback_test_hex_string_to_int(buf + i + 2, 2, &value) != 0)
            return len;
        buf[out++] = (char)value;
        i += 4;
    }
    return out;
}

void destroy_pm() {
    vael_pm_destroy(g_test.pm);
    g_test.pm = nullptr;
}

int exec(const unsigned char *buf, uint32_t len) {
    g_test.match_found = false;
    return vael_pm_exec_ex(g_test.pm, buf, len, nullptr, nullptr, nullptr, kExecFlags);
}

}  // namespace

extern "C" int pm_callback_test_hex_char_to_int(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: character not within range %c\n", c);
    return VAEL_ERROR;
}

extern "C" int pm_callback_test_hex_string_to_int(const char *hex, uint32_t len, int *value) {
    if (!hex) {
        VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: hex string is NULL\n");
        return VAEL_ERROR;
    }
    int result = 0;
    for (uint32_t i = 0; i < len; i++) {
        const int digit = pm_callback_test_hex_char_to_int(hex[i]);
        if (digit < 0) {
            VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: hex digit is invalid\n");
            return VAEL_ERROR;
        }
        result = result * 16 + digit;
    }
    if (value)
        *value = result;
    return VAEL_OK;
}

extern "C" int pm_callback_test_match_func(vael_pm_handle *, int32_t, void *, const unsigned char *buf, uint32_t len,
                                           uint32_t offset, vael_vbuf *vbuf, int *keep_going) {
    g_test.match_found = true;
    NOTE("PM_match_func:: Found match:\n");
    if (buf) {
        NOTE("PM_match_func:: Orig buffer [%.*s]\n", (int)len, reinterpret_cast<const char *>(buf));
        string_dump(reinterpret_cast<const char *>(buf), len);
        NOTE("PM_match_func:: match_offset [%u]\n", offset);
    }
    if (vbuf) {
        if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, kNotes))
            vael_vbuf_dump_ex(vbuf, 0, vael_vbuf_size(vbuf));
        NOTE("PM_match_func:: match_offset: %u\n", offset);
    }
    if (keep_going)
        *keep_going = 0;
    return 0;
}

extern "C" int pm_callback_test_compile_lss_cb(void) {
    if (!g_test.patterns_exist) {
        g_test.patterns = vael_pm_patterns_create();
        if (!g_test.patterns) {
            VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: Error - vael_pm_patterns_create returned NULL\n");
            return VAEL_ERROR;
        }
        g_test.patterns_exist = true;
        VAEL_LOG(VAEL_DBG_NOTICE, kNotes, "%s: pm_patterns created successfully at %p\n", (void *)g_test.patterns);
    }
    NOTE("== Got new pattern LSS: ===\n");
    string_dump(pm_callback_test_compile_lss, strnlen(pm_callback_test_compile_lss, PM_CALLBACK_TEST_TEXT_SIZE));
    return VAEL_OK;
}

extern "C" int pm_callback_test_compile_re_cb(void) {
    if (!g_test.patterns_exist) {
        VAEL_LOG(VAEL_DBG_ERR, kErrors,
                 "%s: You should call 'qx ctl set string pm_callback_test_compile_lss_cb <lss_pattern>' before!!!\n");
        return VAEL_ERROR;
    }
    const size_t lss_len = strnlen(pm_callback_test_compile_lss, PM_CALLBACK_TEST_TEXT_SIZE);
    const size_t re_len = strnlen(pm_callback_test_compile_re, PM_CALLBACK_TEST_TEXT_SIZE);
    NOTE("== Got new pattern RE: ===\n");
    string_dump(pm_callback_test_compile_re, re_len);
    if (vael_pm_patterns_add_pattern_with_LSS(g_test.patterns, pm_callback_test_compile_lss, (uint32_t)lss_len,
                                              pm_callback_test_compile_re, (uint32_t)re_len, g_test.next_id,
                                              0) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: Error - vael_pm_patterns_add_pattern_with_LSS returned VAEL_ERROR\n");
        return VAEL_ERROR;
    }
    std::memset(pm_callback_test_compile_lss, 0, sizeof pm_callback_test_compile_lss);
    std::memset(pm_callback_test_compile_re, 0, sizeof pm_callback_test_compile_re);
    g_test.next_id++;
    return VAEL_OK;
}

extern "C" int pm_callback_test_compile_cb(const char *name) {
    destroy_pm();
    vael_pm_error err;
    vael_pm_error_init(&err);
    g_test.pm = vael_pm_compile(g_test.patterns, pm_callback_test_match_func, 0, &err, name);
    if (g_test.pm) {
        NOTE("PM compilation succeeded\n");
        return VAEL_OK;
    }
    if (vael_us_adaptor_printable(VAEL_DBG_ERR, kErrors)) {
        vael_us_adaptor_kdprintf("Error - PM compilation failed\n");
        if (err.pattern_id != -1)
            vael_us_adaptor_kdprintf("Because of the pattern id %d\n", err.pattern_id);
    }
    return VAEL_ERROR;
}

extern "C" int pm_callback_test_buffer_cb(void) {
    if (!g_test.pm) {
        VAEL_LOG(VAEL_DBG_ERR, kErrors,
                 "%s: PM was not compiled. Please use 'pm_callback_test_compile_patts' inorder to compile it\n");
        return VAEL_ERROR;
    }
    const int len = (int)strnlen(pm_callback_test_buffer, PM_CALLBACK_TEST_TEXT_SIZE);
    const int new_len = handle_escapse_chars(pm_callback_test_buffer, len);
    int rc = VAEL_ERROR;
    if (new_len >= 0) {
        rc = exec(reinterpret_cast<const unsigned char *>(pm_callback_test_buffer), (uint32_t)new_len);
        if (rc >= 0 && !g_test.match_found)
            NOTE("PM did not found a match::\n");
    }
    std::memset(pm_callback_test_buffer, 0, sizeof pm_callback_test_buffer);
    if (new_len < 0)
        return VAEL_ERROR;
    if (rc < 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: Function vael_pm_exec_buffer() return error \n");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int pm_callback_test_exec_buffer(const unsigned char *buf, uint32_t len) {
    if (!g_test.pm) {
        VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: PM was not compiled yet.\n");
        return VAEL_ERROR;
    }
    const int rc = exec(buf, len);
    if (rc < 0) {
        VAEL_LOG(VAEL_DBG_ERR, kErrors, "%s: Function vael_pm_exec_buffer() return error \n");
        return VAEL_ERROR;
    }
    if (!g_test.match_found)
        NOTE("PM did not found a match::\n");
    return VAEL_OK;
}

// The next id goes on rising, so ids stay unique over a whole session.
extern "C" int pm_callback_test_reset_test_cb(void) {
    destroy_pm();
    vael_pm_patterns_destroy(g_test.patterns);
    g_test.patterns = nullptr;
    g_test.patterns_exist = false;
    return VAEL_OK;
}
