// vael_pmglob_impl.cpp - the leaf records of the pattern matcher: the error
// record, byte strings without a locale, pattern strings and lists of them,
// match records and the match queue with its per-pattern dedupe, masks' bit
// test, the character translation tables, the PM uuid, and the character
// ranges of the REM lexer in their ASCII and UTF-8 forms.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_strings.h"
#include "pm/vael_pmglob_range.h"
#include "runtime/vael_runtime.h"

// ---------------------------------------------------------------- errors

extern "C" void vael_pm_error_init(vael_pm_error *err) {
    if (!err)
        return;
    err->pattern_id = -1;
    err->error_type = VAEL_PM_ERROR_INTERNAL;
    err->error_string = nullptr;
    err->error_index = 0;
}

extern "C" void vael_pm_error_set_details(vael_pm_error *err, uint32_t type, const char *text) {
    if (!err || err->error_string)
        return;
    err->error_type = type;
    err->error_string = text;
}

extern "C" void vael_pm_error_set_details2(vael_pm_error *err, uint32_t type, const char *text, int32_t pattern_id) {
    if (!err || err->error_string)
        return;
    vael_pm_error_set_details(err, type, text);
    vael_pm_error_set_pattern_id(err, pattern_id);
}

extern "C" void vael_pm_error_set_details3(vael_pm_error *err, uint32_t type, const char *text, int32_t pattern_id,
                                           uint32_t index) {
    if (!err || err->error_string)
        return;
    vael_pm_error_set_details2(err, type, text, pattern_id);
    err->error_index = index;
}

extern "C" void vael_pm_error_set_pattern_id(vael_pm_error *err, int32_t pattern_id) {
    if (err)
        err->pattern_id = pattern_id;
}

extern "C" void vael_pm_error_dump(const vael_pm_error *err) {
    if (!err)
        return;
    vael_us_adaptor_kdprintf("error details: pattern id: %d, error type: %d, index: %d\n", err->pattern_id,
                             (int)err->error_type, (int)err->error_index);
    vael_us_adaptor_kdprintf("error message: %s\n", err->error_string ? err->error_string : "No message available");
}

// ---------------------------------------------------------------- byte strings

extern "C" const char *pm_strnstr(const char *hay, const char *needle, uint32_t hay_len, uint32_t needle_len) {
    if (needle_len == 0 || !needle || needle[0] == '\0')
        return hay;
    if (!hay)
        return nullptr;
    for (uint32_t i = 0; i + needle_len <= hay_len && hay[i] != '\0'; i++)
        if (std::memcmp(hay + i, needle, needle_len) == 0)
            return hay + i;
    return nullptr;
}

extern "C" char *pm_strncpy(char *dst, const char *src, uint32_t n) {
    uint32_t i = 0;
    for (; i < n && src[i] != '\0'; i++)
        dst[i] = src[i];
    for (; i < n; i++)
        dst[i] = '\0';
    return dst;
}

extern "C" uint32_t pm_strlen(const char *s) { return (uint32_t)std::strlen(s); }

namespace {
template <class Fold>
int compare_folded(const char *a, const char *b, uint32_t n, Fold fold) {
    for (uint32_t i = 0; i < n; i++) {
        unsigned char x = fold((unsigned char)a[i]), y = fold((unsigned char)b[i]);
        if (x != y)
            return x < y ? -1 : 1;
        if (x == '\0')
            break;
    }
    return 0;
}
}  // namespace

extern "C" int pm_strncmp(const char *a, const char *b, uint32_t n) {
    return compare_folded(a, b, n, [](unsigned char c) { return c; });
}

extern "C" int pm_strnicmp(const char *a, const char *b, uint32_t n) {
    return compare_folded(a, b, n, [](unsigned char c) { return to_lower(c); });
}

extern "C" const char *pm_strnchr(const char *s, uint32_t n, char c) {
    for (uint32_t i = 0; i < n; i++)
        if (s[i] == c)
            return s + i;
    return nullptr;
}

extern "C" char *pm_strcat(char *dst, const char *src) { return std::strcat(dst, src); }

extern "C" const void *pm_memmem(const void *needle, uint32_t needle_len, const void *hay, uint32_t hay_len) {
    if (needle_len == 0)
        return hay;
    if (needle_len > hay_len)
        return nullptr;
    auto *h = static_cast<const unsigned char *>(hay);
    for (uint32_t i = 0; i + needle_len <= hay_len; i++)
        if (std::memcmp(h + i, needle, needle_len) == 0)
            return h + i;
    return nullptr;
}

extern "C" int pm_strdup(const char *src, uint32_t len, char **dst, uint32_t *dst_len) {
    *dst = nullptr;
    *dst_len = 0;
    if (!src || len == 0)
        return 0;
    auto *copy = static_cast<char *>(VAEL_KMALLOC(len));
    if (!copy)
        return -1;
    pm_strncpy(copy, src, len);
    *dst = copy;
    *dst_len = len;
    return 0;
}

namespace {
// One buffer per thread; a second call on a thread overwrites the first text.
const char *debug_text(const char *s, uint32_t len, bool csv) {
    static thread_local char text[200];
    size_t used = 0;
    for (uint32_t i = 0; s && i < len; i++) {
        auto c = (unsigned char)s[i];
        bool plain = is_print(c) && !(csv && c == '"');
        size_t need = plain ? 1 : 4;
        if (used + need >= sizeof text)
            break;
        if (plain)
            text[used++] = (char)c;
        else
            used += (size_t)std::snprintf(text + used, sizeof text - used, "\\x%02x", c);
    }
    text[used] = '\0';
    return text;
}
}  // namespace

extern "C" const char *pm_str_to_debug_charp(const char *s, uint32_t len) { return debug_text(s, len, false); }

extern "C" const char *pm_str_to_debug_charp_for_csv(const char *s, uint32_t len) {
    return debug_text(s, len, true);
}

extern "C" void pm_dump_str(const char *s, uint32_t len) {
    for (uint32_t i = 0; i < len; i++) {
        auto c = (unsigned char)s[i];
        if (is_print(c))
            vael_us_adaptor_kdprintf_no_prefix("%c", c);
        else
            vael_us_adaptor_kdprintf_no_prefix("\\x%x", c);
    }
    vael_us_adaptor_kdprintf_no_prefix("\n");
}

// ---------------------------------------------------------------- pattern strings

extern "C" vael_pmglob_string *vael_pmglob_string_create(const unsigned char *bytes, uint32_t size, int32_t id,
                                                         uint32_t flags) {
    VAEL_ASSERT(!qx_assert_on || (bytes && size), "Ilegal arguments");
    auto *s = static_cast<vael_pmglob_string *>(VAEL_PM_KMALLOC(sizeof(vael_pmglob_string)));
    if (!s)
        return nullptr;
    s->pattern = static_cast<unsigned char *>(VAEL_PM_KMALLOC((size_t)size + 1));
    if (!s->pattern) {
        VAEL_PM_KFREE(s, sizeof(vael_pmglob_string));
        return nullptr;
    }
    if (size)
        std::memcpy(s->pattern, bytes, size);
    s->pattern[size] = '\0';
    s->size = size;
    s->id = id;
    s->flags = flags;
    return s;
}

extern "C" vael_pmglob_string *vael_pmglob_string_dup(const vael_pmglob_string *s) {
    if (!s)
        return nullptr;
    return vael_pmglob_string_create(s->pattern, s->size, s->id, s->flags);
}

extern "C" void vael_pmglob_string_destroy(vael_pmglob_string *s) {
    if (!s)
        return;
    VAEL_PM_KFREE(s->pattern, (size_t)s->size + 1);
    VAEL_PM_KFREE(s, sizeof(vael_pmglob_string));
}

extern "C" int32_t vael_pmglob_string_get_id(const vael_pmglob_string *s) { return s->id; }
extern "C" void vael_pmglob_string_set_id(vael_pmglob_string *s, int32_t id) { s->id = id; }
extern "C" uint32_t vael_pmglob_string_get_size(const vael_pmglob_string *s) { return s->size; }
extern "C" const unsigned char *vael_pmglob_string_get_pattern(const vael_pmglob_string *s) { return s->pattern; }
extern "C" uint32_t vael_pmglob_string_get_flags(const vael_pmglob_string *s) { return s->flags; }
extern "C" void vael_pmglob_string_add_flags(vael_pmglob_string *s, uint32_t flags) { s->flags |= flags; }
extern "C" void vael_pmglob_string_set_flags(vael_pmglob_string *s, uint32_t flags) { s->flags = flags; }

extern "C" int vael_pmglob_string_save(const vael_pmglob_string *s, unsigned char **bytes, uint32_t *size) {
    *bytes = nullptr;
    *size = 0;
    if (!s || s->size == 0)
        return 0;
    auto *copy = static_cast<unsigned char *>(VAEL_PM_KMALLOC(s->size));
    if (!copy)
        return -1;
    std::memcpy(copy, s->pattern, s->size);
    *bytes = copy;
    *size = s->size;
    return 0;
}

extern "C" const char *vael_pmglob_string_to_debug_charp(const vael_pmglob_string *s) {
    return s ? pm_str_to_debug_charp(reinterpret_cast<const char *>(s->pattern), s->size) : "NULL";
}

extern "C" void vael_pmglob_string_dump(const vael_pmglob_string *s) {
    if (!s)
        return;
    vael_us_adaptor_kdprintf("string: '%s', size: %u, id: %d, flags: 0x%.8x\n", vael_pmglob_string_to_debug_charp(s),
                             s->size, s->id, s->flags);
}

extern "C" vael_pmglob_string *vael_pmglob_string_create_replace_nulls(const unsigned char *bytes, uint32_t size,
                                                                      int32_t id, uint32_t flags) {
    // A regular-expression engine must see a NUL as the escape "\x00"; a
    // NUL right after an odd run of backslashes would turn that escape into
    // something else, so it is refused.
    uint64_t out_len = 0;
    bool escaped = false;
    for (uint32_t i = 0; i < size; i++) {
        unsigned char c = bytes[i];
        if (c == '\0' && escaped) {
            VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Found illegal '\\0' in the string\n");
            return nullptr;
        }
        escaped = c == '\\' ? !escaped : false;
        out_len += c == '\0' ? 4 : 1;
    }
    if (out_len > UINT32_MAX - 1)
        return nullptr;
    auto *text = static_cast<unsigned char *>(VAEL_KMALLOC(out_len ? out_len : 1));
    if (!text) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Failed to allocate buffer size %d\n", (int)out_len);
        return nullptr;
    }
    uint32_t used = 0;
    for (uint32_t i = 0; i < size; i++) {
        if (bytes[i] == '\0') {
            std::memcpy(text + used, "\\x00", 4);
            used += 4;
        } else {
            text[used++] = bytes[i];
        }
    }
    vael_pmglob_string *s = vael_pmglob_string_create(text, used, id, flags);
    VAEL_KFREE(text, out_len ? out_len : 1);
    return s;
}

extern "C" void vael_pmglob_string_convert_to_lower_case(vael_pmglob_string *s, uint32_t flags) {
    if (!s)
        return;
    for (uint32_t i = 0; i < s->size; i++) {
        unsigned char c = s->pattern[i];
        if (flags & VAEL_PM_CASELESS)
            c = to_lower(c);
        if ((flags & VAEL_PM_DIGITLESS) && is_digit(c))
            c = '0';
        s->pattern[i] = c;
    }
}

// ---------------------------------------------------------------- string lists

namespace {
void destroy_string_value(uintptr_t value) {
    vael_pmglob_string_destroy(reinterpret_cast<vael_pmglob_string *>(value));
}
}  // namespace

extern "C" vael_pmglob_patterns *vael_pmglob_patterns_create(void) { return lst_create_destr(destroy_string_value); }

extern "C" int vael_pmglob_patterns_add(vael_pmglob_patterns *list, const vael_pmglob_string *s) {
    if (!list || !s)
        return -1;
    vael_pmglob_string *copy = vael_pmglob_string_dup(s);
    if (!copy)
        return -1;
    if (!lst_insert(list, reinterpret_cast<uintptr_t>(copy))) {
        vael_pmglob_string_destroy(copy);
        return -1;
    }
    return 0;
}

extern "C" void vael_pmglob_patterns_destroy(vael_pmglob_patterns *list) { lst_destroy(list); }

extern "C" int vael_pmglob_patterns_get_num_of_patterns(vael_pmglob_patterns *list) {
    return (int)lst_nelements(list);
}

extern "C" void vael_pmglob_patterns_convert_all_patts_to_lower(vael_pmglob_patterns *list, uint32_t flags) {
    uintptr_t value;
    for (lst_cursor c = lst_iterate(list, nullptr, &value); c; c = lst_iterate(list, c, &value))
        vael_pmglob_string_convert_to_lower_case(reinterpret_cast<vael_pmglob_string *>(value), flags);
}

extern "C" void vael_pmglob_patterns_dump(vael_pmglob_patterns *list) {
    uintptr_t value;
    for (lst_cursor c = lst_iterate(list, nullptr, &value); c; c = lst_iterate(list, c, &value))
        vael_pmglob_string_dump(reinterpret_cast<vael_pmglob_string *>(value));
}

// ---------------------------------------------------------------- match records

extern "C" vael_pmglob_match_data *vael_pmglob_match_data_alloc(void) {
    return static_cast<vael_pmglob_match_data *>(VAEL_KMALLOC(sizeof(vael_pmglob_match_data)));
}

extern "C" void vael_pmglob_match_data_set(vael_pmglob_match_data *d, int32_t id, uint32_t offset,
                                           uint32_t match_flags, uint32_t hint, const uint32_t *extra) {
    d->id = id;
    d->offset = offset;
    d->match_flags = match_flags;
    d->hint = hint;
    d->extra[0] = extra ? extra[0] : 0;
    d->extra[1] = extra ? extra[1] : 0;
}

extern "C" void vael_pmglob_match_data_get(const vael_pmglob_match_data *d, int32_t *id, uint32_t *offset,
                                           uint32_t *hint, uint32_t *extra) {
    *id = d->id;
    *offset = d->offset;
    if (hint)
        *hint = d->hint;
    if (extra) {
        extra[0] = d->extra[0];
        extra[1] = d->extra[1];
    }
}

extern "C" void vael_pmglob_match_data_free(vael_pmglob_match_data *d) {
    if (d)
        VAEL_KFREE(d, sizeof(vael_pmglob_match_data));
}

extern "C" int vael_pmglob_is_match_offset_in_present_buffer(const vael_pmglob_match_data *d) {
    return (d->match_flags & VAEL_PMGLOB_MATCH_PRESENT) != 0;
}

namespace {
void free_match_value(uintptr_t value) {
    vael_pmglob_match_data_free(reinterpret_cast<vael_pmglob_match_data *>(value));
}

// The queue's comparator: hits are the same when their pattern is.
int vael_pmglob_matches_compare(uintptr_t a, uintptr_t b) {
    auto *x = reinterpret_cast<const vael_pmglob_match_data *>(a);
    auto *y = reinterpret_cast<const vael_pmglob_match_data *>(b);
    if (x->id == y->id)
        return 1;
    return x->id > y->id ? 0 : -1;
}
}  // namespace

// Element cells of every match queue, shared by all runs.
uintptr_t vael_pmglob_match_data_lst_elems_pool = 0;

extern "C" int vael_pmglob_match_data_enqueue(lst_list **queue, vael_pmglob_match_data *d) {
    if (!*queue) {
        *queue = vael_queue_create_with_pool(&vael_pmglob_match_data_lst_elems_pool, free_match_value);
        if (!*queue)
            return -1;
    }
    vael_queue_set_comparator(*queue, vael_pmglob_matches_compare);
    if (!(d->match_flags & VAEL_PMGLOB_MATCH_KEEP_ALL)) {
        uintptr_t found;
        if (vael_queue_lookup(*queue, nullptr, reinterpret_cast<uintptr_t>(d), &found))
            return 1;
    }
    return vael_enqueue(*queue, reinterpret_cast<uintptr_t>(d)) == 0 ? 0 : -1;
}

extern "C" int vael_pmglob_matches_pool_init(void) { return 0; }
extern "C" void vael_pmglob_matches_pool_fini(void) {}

// ---------------------------------------------------------------- masks

extern "C" int vael_pmglob_mask_is_set(const vael_pm_mask *mask, uint32_t internal_id) {
    if (internal_id / 32 >= mask->mask_size)
        return 0;
    return (mask->mask[internal_id / 32] >> (internal_id % 32)) & 1u;
}

// ---------------------------------------------------------------- characters

extern "C" void vael_pmglob_char_xlation_build(uint32_t flags, unsigned char *table) {
    for (int b = 0; b < 256; b++) {
        auto c = (unsigned char)b;
        if ((flags & 0x2) && is_digit(c))
            table[b] = '0';
        else if (flags & 0x1)
            table[b] = to_lower(c);
        else
            table[b] = c;
    }
}

extern "C" void vael_pmglob_char_xlation_build_reverse(const unsigned char *table, unsigned char *reverse) {
    for (int b = 0; b < 256; b++)
        reverse[b] = (unsigned char)b;
    for (int b = 0; b < 256; b++) {
        unsigned char t = table[b];
        if (t != b) {
            reverse[b] = reverse[t];
            reverse[t] = (unsigned char)b;
        }
    }
}

extern "C" void vael_pmglob_char_xlation_dump(const unsigned char *table, const unsigned char *reverse,
                                              const char *name) {
    auto shown = [](unsigned char c) { return is_print(c) ? (char)c : '_'; };
    vael_us_adaptor_kdprintf("%s: Character translation table:\n", name);
    int translated = 0, groups = 0;
    for (int b = 0; b < 256; b++) {
        if (table[b] == b)
            continue;
        translated++;
        vael_us_adaptor_kdprintf("%s: %c (%02X) -> %c (%02X)\n", name, shown((unsigned char)b), b,
                                 shown(table[b]), table[b]);
    }
    for (int head = 0; reverse && head < 256; head++) {
        // A group is the ring through its head, the byte that maps to itself.
        if (table[head] != head || reverse[head] == head)
            continue;
        groups++;
        vael_us_adaptor_kdprintf("%s: Character group: %c (%02X)", name, shown((unsigned char)head), head);
        int members = 0;
        int b = reverse[head];
        for (; b != head && members < 256; b = reverse[b], members++)
            vael_us_adaptor_kdprintf_no_prefix(" %c (%02X)", shown((unsigned char)b), b);
        vael_us_adaptor_kdprintf_no_prefix(b == head ? "\n" : " Corrupt group\n");
    }
    vael_us_adaptor_kdprintf("%s: %d translated characters, %d non-trivial character groups\n", name, translated,
                             groups);
}

// ---------------------------------------------------------------- uuid

namespace {
// Compiles on several threads build uuids at once: `serial` is taken
// atomically, and the clock words change together under their own lock, so
// that two uuids of one second never share a sequence number.
std::atomic<uint32_t> g_uuid_serial;
std::mutex g_uuid_clock_lock;
int32_t g_uuid_last_time;
uint32_t g_uuid_seq;
uint32_t g_uuid_clock_seq;

void put_word(unsigned char *p, uint32_t w) { std::memcpy(p, &w, 4); }
}  // namespace

extern "C" void vael_pmglob_uuid_build_ex(unsigned char *uuid, uint32_t serial, uint32_t time, int32_t pid) {
    auto now = (int32_t)time;
    std::lock_guard<std::mutex> clock(g_uuid_clock_lock);
    if (now < g_uuid_last_time) {
        g_uuid_clock_seq++;
        g_uuid_last_time = now;
        g_uuid_seq = 0;
    } else if (now == g_uuid_last_time) {
        if (++g_uuid_seq == 65535) {
            g_uuid_seq = 0;
            g_uuid_clock_seq++;
        }
    } else {
        g_uuid_last_time = now;
        g_uuid_seq = 0;
    }
    put_word(uuid, time);
    put_word(uuid + 4, ((g_uuid_clock_seq & 0xffffu) << 16) | (g_uuid_seq & 0xffffu));
    put_word(uuid + 8, serial);
    put_word(uuid + 12, (((uint32_t)pid & 0xffffu) << 16) | 0xfffeu);
}

extern "C" int vael_pmglob_uuid_cmp(const unsigned char *a, const unsigned char *b) {
    if (!a || !b)
        return -1;
    return std::memcmp(a, b, 16) == 0 ? 0 : 1;
}

extern "C" void vael_pmglob_uuid_cpy(unsigned char *dst, const unsigned char *src) {
    if (dst && src)
        std::memcpy(dst, src, 16);
}

extern "C" void vael_pmglob_uuid_build(unsigned char *uuid) {
    if (!uuid)
        return;
    vael_pmglob_uuid_build_ex(uuid, g_uuid_serial.fetch_add(1, std::memory_order_relaxed) + 1, qx_abstime(),
                              (int32_t)getpid());
}

// ---------------------------------------------------------------- character ranges
//
// A range is created in one of two forms from the pattern flags. The ASCII
// form is a table of 256 flags. The UTF-8 form writes the set as a regular
// expression over bytes into a text that grows by doubling, up to
// VAEL_PMUTF8_MAX_BUF_SIZE; removals gather in a sorted exclusion list that
// vael_pmglob_range_handle_logical_range turns into positive text.

namespace {
const char kIllegalRange[] = "Illegal range inside brackets";

vael_pmascii_range *ascii_of(const vael_pmglob_range *r) { return static_cast<vael_pmascii_range *>(r->impl); }
vael_pmutf8_range *utf8_of(const vael_pmglob_range *r) { return static_cast<vael_pmutf8_range *>(r->impl); }

uint32_t utf8_initial_buf_size() {
    int size = vael_pm_utf8_range_buffer_size;
    if (size < 1)
        return 1;
    return (uint32_t)size > VAEL_PMUTF8_MAX_BUF_SIZE ? VAEL_PMUTF8_MAX_BUF_SIZE : (uint32_t)size;
}

void free_logical_ranges(vael_pmutf8_range *u) {
    vael_pm_logical_range *e = u->logical_ranges;
    while (e) {
        vael_pm_logical_range *next = e->next;
        VAEL_PM_KFREE(e, sizeof *e);
        e = next;
    }
    u->logical_ranges = nullptr;
}

vael_pm_logical_range *vael_pmutf8_range_logical_range_create(uint32_t first, uint32_t last) {
    auto *e = static_cast<vael_pm_logical_range *>(VAEL_PM_KMALLOC(sizeof(vael_pm_logical_range)));
    if (!e) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: memory allcoation failed. \n");
        return nullptr;
    }
    e->first = first;
    e->last = last;
    e->prev = e->next = nullptr;
    return e;
}

uint32_t utf8_code_point(const vael_pmutf8_char &c) { return (uint32_t)vael_pmutf8_range_utf8_to_num(&c); }

// One text byte, or its "\xHH" form.
int write_byte(vael_pmutf8_range *u, unsigned char c, int hexa) {
    return hexa ? vael_pmutf8_range_write_hexa_char_to_buf(u, c) : vael_pmutf8_range_write_char_to_buf(u, c);
}
}  // namespace

extern "C" vael_pmglob_range *vael_pmglob_range_create(uint32_t flags) {
    auto *r = static_cast<vael_pmglob_range *>(VAEL_PM_KMALLOC(sizeof(vael_pmglob_range)));
    if (!r)
        return nullptr;
    r->escaped_alnum = 0;
    if (flags & VAEL_PM_UTF8) {
        r->type = VAEL_PMGLOB_RANGE_UTF8;
        auto *u = static_cast<vael_pmutf8_range *>(VAEL_PM_KMALLOC(sizeof(vael_pmutf8_range)));
        if (!u) {
            VAEL_PM_KFREE(r, sizeof *r);
            return nullptr;
        }
        std::memset(u, 0, sizeof *u);
        u->first = VAEL_PMUTF8_MAX_CODE_POINT;
        u->buf_size = utf8_initial_buf_size();
        u->buf = static_cast<unsigned char *>(VAEL_PM_KMALLOC(u->buf_size));
        if (!u->buf) {
            VAEL_PM_KFREE(u, sizeof *u);
            VAEL_PM_KFREE(r, sizeof *r);
            return nullptr;
        }
        std::memset(u->buf, 0, u->buf_size);
        r->impl = u;
    } else {
        r->type = VAEL_PMGLOB_RANGE_ASCII;
        auto *a = static_cast<vael_pmascii_range *>(VAEL_PM_KMALLOC(sizeof(vael_pmascii_range)));
        if (!a) {
            VAEL_PM_KFREE(r, sizeof *r);
            return nullptr;
        }
        std::memset(a, 0, sizeof *a);
        a->first = 255;
        r->impl = a;
    }
    return r;
}

extern "C" void vael_pmglob_range_destroy(vael_pmglob_range *range) {
    if (!range) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: pmglob %p was already freed\n", (void *)range);
        return;
    }
    if (range->type == VAEL_PMGLOB_RANGE_UTF8) {
        vael_pmutf8_range *u = utf8_of(range);
        free_logical_ranges(u);
        VAEL_PM_KFREE(u->buf, u->buf_size);
        VAEL_PM_KFREE(u, sizeof *u);
    } else {
        VAEL_PM_KFREE(range->impl, sizeof(vael_pmascii_range));
    }
    VAEL_PM_KFREE(range, sizeof *range);
}

extern "C" void vael_pmglob_range_negate(vael_pmglob_range *range) {
    if (!range)
        return;
    if (range->type == VAEL_PMGLOB_RANGE_UTF8)
        utf8_of(range)->negated = 1;
    else
        ascii_of(range)->negated = 1;
}

extern "C" int vael_pmglob_range_is_negate(const vael_pmglob_range *range) {
    if (!range)
        return 0;
    return range->type == VAEL_PMGLOB_RANGE_UTF8 ? utf8_of(range)->negated != 0 : ascii_of(range)->negated != 0;
}

// ---- ASCII form

extern "C" int vael_pmascii_range_add_range(vael_pmascii_range *range, uint8_t first, uint8_t last, int positive,
                                            vael_pm_error *err) {
    if (last < first) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal range: last(%u) < first(%u) \n", (unsigned)last,
                 (unsigned)first);
        vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kIllegalRange);
        return VAEL_ERROR;
    }
    // The flag takes positive's own value: a removal clears what it spans.
    for (unsigned c = first; c <= last; c++)
        range->chars[c] = (uint8_t)positive;
    if (first < range->first)
        range->first = first;
    if (last > range->last)
        range->last = last;
    return VAEL_OK;
}

extern "C" int vael_pmascii_range_merge(const vael_pmascii_range *source, vael_pmascii_range *target, int positive) {
    // positive is not read: in a negated bracket single characters enter here
    // and set their flag, which the reader then leaves out.
    if (source->first > source->last)
        return VAEL_OK;
    for (unsigned c = source->first; c <= source->last; c++)
        target->chars[c] = (source->chars[c] || target->chars[c]) ? 1 : 0;
    if (source->first < target->first)
        target->first = source->first;
    if (source->last > target->last)
        target->last = source->last;
    return VAEL_OK;
}

// ---- UTF-8 encoding

extern "C" int vael_pmutf8_range_num_to_utf8(uint32_t num, vael_pmutf8_char *out) {
    if (num > VAEL_PMUTF8_MAX_CODE_POINT) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: number is too big\n");
        return VAEL_ERROR;
    }
    std::memset(out, 0, sizeof *out);
    if (num < 0x80) {
        out->bytes[0] = (unsigned char)num;
        out->num_of_bytes = 1;
    } else if (num < 0x800) {
        out->bytes[0] = (unsigned char)(0xC0 | (num >> 6));
        out->bytes[1] = (unsigned char)(0x80 | (num & 0x3F));
        out->num_of_bytes = 2;
    } else if (num < 0x10000) {
        out->bytes[0] = (unsigned char)(0xE0 | (num >> 12));
        out->bytes[1] = (unsigned char)(0x80 | ((num >> 6) & 0x3F));
        out->bytes[2] = (unsigned char)(0x80 | (num & 0x3F));
        out->num_of_bytes = 3;
    } else {
        out->bytes[0] = (unsigned char)(0xF0 | (num >> 18));
        out->bytes[1] = (unsigned char)(0x80 | ((num >> 12) & 0x3F));
        out->bytes[2] = (unsigned char)(0x80 | ((num >> 6) & 0x3F));
        out->bytes[3] = (unsigned char)(0x80 | (num & 0x3F));
        out->num_of_bytes = 4;
    }
    return VAEL_OK;
}

extern "C" int32_t vael_pmutf8_range_utf8_to_num(const vael_pmutf8_char *c) {
    static const unsigned char kLeadMask[5] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    if (c->num_of_bytes < 1 || c->num_of_bytes > 4) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal unicode\n");
        return -1;
    }
    uint32_t value = c->bytes[0] & kLeadMask[c->num_of_bytes];
    for (int i = 1; i < c->num_of_bytes; i++)
        value = (value << 6) | (c->bytes[i] & 0x3Fu);
    if (value > VAEL_PMUTF8_MAX_CODE_POINT) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Error: unicode >  %x\n", VAEL_PMUTF8_MAX_CODE_POINT);
        return -1;
    }
    return (int32_t)value;
}

// ---- UTF-8 text

extern "C" int vael_pmutf8_range_make_sure_we_have_enough_space(vael_pmutf8_range *range, uint32_t n) {
    uint64_t need = (uint64_t)range->buf_used + n;
    if (need <= range->buf_size)
        return VAEL_OK;
    uint64_t size = (uint64_t)range->buf_size * 2;
    while (need >= size)
        size *= 2;
    if (size > VAEL_PMUTF8_MAX_BUF_SIZE) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: need too much memory. \n");
        return VAEL_ERROR;
    }
    auto *buf = static_cast<unsigned char *>(VAEL_PM_KMALLOC((size_t)size));
    if (!buf) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: memory allocation failed. \n");
        return VAEL_ERROR;
    }
    std::memset(buf, 0, (size_t)size);
    std::memcpy(buf, range->buf, range->buf_used);
    VAEL_PM_KFREE(range->buf, range->buf_size);
    range->buf = buf;
    range->buf_size = (uint32_t)size;
    return VAEL_OK;
}

extern "C" int vael_pmutf8_range_write_char_to_buf(vael_pmutf8_range *range, unsigned char c) {
    if (vael_pmutf8_range_make_sure_we_have_enough_space(range, 1) != 0)
        return VAEL_ERROR;
    range->buf[range->buf_used++] = c;
    return VAEL_OK;
}

extern "C" int vael_pmutf8_range_write_hexa_char_to_buf(vael_pmutf8_range *range, unsigned char c) {
    // Room for the formatter's NUL too, which the text does not count.
    if (vael_pmutf8_range_make_sure_we_have_enough_space(range, 5) != 0)
        return VAEL_ERROR;
    std::snprintf(reinterpret_cast<char *>(range->buf + range->buf_used), 5, "\\x%02x", c);
    range->buf_used += 4;
    return VAEL_OK;
}

extern "C" int vael_pmutf8_range_write_OR_char_to_buf(vael_pmutf8_range *range) {
    if (vael_pmutf8_range_write_char_to_buf(range, '|') != 0)
        return VAEL_ERROR;
    range->has_alternatives = 1;
    return VAEL_OK;
}

extern "C" int vael_pmutf8_range_write_buf_to_buf(const vael_pmutf8_range *source, vael_pmutf8_range *target) {
    if (!source || !target)
        return VAEL_ERROR;
    if (vael_pmutf8_range_make_sure_we_have_enough_space(target, source->buf_used) != 0)
        return VAEL_ERROR;
    std::memcpy(target->buf + target->buf_used, source->buf, source->buf_used);
    target->buf_used += source->buf_used;
    if (source->has_alternatives == 1)
        target->has_alternatives = 1;
    return VAEL_OK;
}

extern "C" void vael_pmutf8_range_update_first_last(vael_pmutf8_range *range, uint32_t first, uint32_t last) {
    if (first < range->first)
        range->first = first;
    if (last > range->last)
        range->last = last;
}

extern "C" int vael_pmutf8_range_create_range(vael_pmutf8_range *range, const vael_pmutf8_char *a,
                                              const vael_pmutf8_char *e, int hexa) {
    if (a->num_of_bytes != e->num_of_bytes || a->num_of_bytes < 1 || a->num_of_bytes > 4) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal input\n");
        return VAEL_ERROR;
    }
    // An equal prefix is written plainly; from the first difference on every
    // position is a bracketed span, also where both bytes agree.
    bool differed = false;
    for (int i = 0; i < a->num_of_bytes; i++) {
        if (!differed && a->bytes[i] == e->bytes[i]) {
            if (write_byte(range, a->bytes[i], hexa) != 0)
                return VAEL_ERROR;
            continue;
        }
        differed = true;
        if (vael_pmutf8_range_write_char_to_buf(range, '[') != 0 || write_byte(range, a->bytes[i], hexa) != 0 ||
            vael_pmutf8_range_write_char_to_buf(range, '-') != 0 || write_byte(range, e->bytes[i], hexa) != 0 ||
            vael_pmutf8_range_write_char_to_buf(range, ']') != 0)
            return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int32_t vael_pmutf8_range_biggest_utf8_with_same_num_of_bytes(const vael_pmutf8_char *a,
                                                                         const vael_pmutf8_char *b) {
    if (a->num_of_bytes >= b->num_of_bytes) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal input\n");
        return -1;
    }
    switch (a->num_of_bytes) {
    case 1:
        return 127;
    case 2:
        return 2047;
    case 3:
    case 4:
        return 65535;
    default:
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal number of bytes\n");
        return -1;
    }
}

extern "C" int vael_pmutf8_range_find_biggest_possible_range(const vael_pmutf8_char *a, const vael_pmutf8_char *b,
                                                             vael_pmutf8_char *e) {
    int32_t a_num = vael_pmutf8_range_utf8_to_num(a), b_num = vael_pmutf8_range_utf8_to_num(b);
    if (a_num < 0 || b_num < 0 || a_num > b_num)
        return VAEL_ERROR;
    vael_pmutf8_char l;
    if (a->num_of_bytes >= b->num_of_bytes) {
        l = *b;
    } else {
        int32_t limit = vael_pmutf8_range_biggest_utf8_with_same_num_of_bytes(a, b);
        if (limit < 0 || vael_pmutf8_range_num_to_utf8((uint32_t)limit, &l) != 0)
            return VAEL_ERROR;
    }
    const unsigned char *av = a->bytes, *lv = l.bytes;
    const unsigned char top = 0xBF, bottom = 0x80;
    std::memset(e, 0, sizeof *e);
    e->num_of_bytes = a->num_of_bytes;
    unsigned char *ev = e->bytes;
    switch (a->num_of_bytes) {
    case 1:
        ev[0] = lv[0];
        break;
    case 2:
        if (av[0] == lv[0]) {
            *e = l;
            break;
        }
        ev[1] = top;
        if (av[1] == bottom)
            ev[0] = lv[1] == top ? lv[0] : (unsigned char)(lv[0] - 1);
        else
            ev[0] = av[0];
        break;
    case 3:
        if (av[0] == lv[0] && av[1] == lv[1]) {
            *e = l;
            break;
        }
        ev[2] = top;
        if (av[2] != bottom) {
            ev[1] = av[1];
            ev[0] = av[0];
        } else if (av[0] == lv[0]) {
            ev[0] = lv[0];
            ev[1] = lv[2] == top ? lv[1] : (unsigned char)(lv[1] - 1);
        } else {
            ev[1] = top;
            if (av[1] == bottom)
                ev[0] = (lv[1] == top && lv[2] == top) ? lv[0] : (unsigned char)(lv[0] - 1);
            else
                ev[0] = av[0];
        }
        break;
    case 4:
        if (av[0] == lv[0] && av[1] == lv[1] && av[2] == lv[2]) {
            *e = l;
            break;
        }
        ev[3] = top;
        if (av[3] != bottom) {
            ev[2] = av[2];
            ev[1] = av[1];
            ev[0] = av[0];
        } else if (av[0] == lv[0] && av[1] == lv[1]) {
            ev[0] = lv[0];
            ev[1] = av[1];
            ev[2] = lv[3] == top ? lv[2] : (unsigned char)(lv[2] - 1);
        } else {
            ev[2] = top;
            if (av[2] != bottom) {
                ev[1] = av[1];
                ev[0] = av[0];
            } else if (av[0] == lv[0]) {
                ev[0] = lv[0];
                ev[1] = (lv[2] == top && lv[3] == top) ? lv[1] : (unsigned char)(lv[1] - 1);
            } else {
                ev[1] = top;
                if (av[1] != bottom) {
                    ev[0] = av[0];
                } else {
                    ev[0] = (lv[1] == top && lv[2] == top && lv[3] == top) ? lv[0] : (unsigned char)(lv[0] - 1);
                    // Keeps the walk under F4 8F BF BF; with E0 = F3 this
                    // only costs the walk one round more.
                    if (lv[0] == 0xF4)
                        ev[1] = 0x8F;
                }
            }
        }
        break;
    default:
        return VAEL_ERROR;
    }
    // The walk relies on progress: an end below the start would repeat forever.
    int32_t e_num = vael_pmutf8_range_utf8_to_num(e);
    return e_num < a_num ? VAEL_ERROR : VAEL_OK;
}

extern "C" int vael_pmutf8_range_merge_logical_range(vael_pmutf8_range *range, uint32_t first, uint32_t last) {
    if (!range->logical_ranges) {
        // The first exclusion starts from nothing: what the text held is
        // dropped, so "all characters less a few" is all, then removals.
        vael_pm_logical_range *head = vael_pmutf8_range_logical_range_create(0, 0);
        if (!head)
            return VAEL_ERROR;
        range->buf_used = 0;
        range->first = 0;
        range->last = 0;
        range->has_alternatives = 0;
        std::memset(range->buf, 0, range->buf_size);
        range->negated = 1;
        range->logical_ranges = head;
    }
    vael_pm_logical_range *fresh = vael_pmutf8_range_logical_range_create(first, last);
    if (!fresh)
        return VAEL_ERROR;
    // Absorb every element that overlaps or touches the span.
    vael_pm_logical_range *head = range->logical_ranges;
    for (vael_pm_logical_range *e = head->next; e;) {
        vael_pm_logical_range *next = e->next;
        if ((uint64_t)e->last + 1 >= fresh->first && (uint64_t)fresh->last + 1 >= e->first) {
            fresh->first = std::min(fresh->first, e->first);
            fresh->last = std::max(fresh->last, e->last);
            e->prev->next = e->next;
            if (e->next)
                e->next->prev = e->prev;
            VAEL_PM_KFREE(e, sizeof *e);
        }
        e = next;
    }
    // Link it behind the last element wholly before it.
    vael_pm_logical_range *after = head;
    while (after->next && after->next->last < fresh->first)
        after = after->next;
    fresh->prev = after;
    fresh->next = after->next;
    if (after->next)
        after->next->prev = fresh;
    after->next = fresh;
    return VAEL_OK;
}

extern "C" int vael_pmutf8_range_add_range(vael_pmutf8_range *range, uint32_t first, uint32_t last, int positive,
                                           int hexa, vael_pm_error *err) {
    if (last < first) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal range: last(%u) < first(%u) \n", last, first);
        vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kIllegalRange);
        return VAEL_ERROR;
    }
    if (last > VAEL_PMUTF8_MAX_CODE_POINT) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal range: last(%x) >  0x10FFFF\n", last);
        vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kIllegalRange);
        return VAEL_ERROR;
    }
    if (!positive) {
        if (vael_pmutf8_range_merge_logical_range(range, first, last) != 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmutf8_range_merge_logical_range failed");
            return VAEL_ERROR;
        }
        vael_pmutf8_range_update_first_last(range, first, last);
        return VAEL_OK;
    }
    vael_pmutf8_char a, b;
    if (vael_pmutf8_range_num_to_utf8(first, &a) != 0 || vael_pmutf8_range_num_to_utf8(last, &b) != 0) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmutf8_range_num_to_utf8 failed");
        return VAEL_ERROR;
    }
    if (first == last) {
        if (range->buf_used != 0 && vael_pmutf8_range_write_OR_char_to_buf(range) != 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmutf8_range_write_OR_char_to_buf failed");
            return VAEL_ERROR;
        }
        if (vael_pmutf8_range_create_range(range, &a, &a, hexa) != 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmutf8_range_create_range failed");
            return VAEL_ERROR;
        }
        vael_pmutf8_range_update_first_last(range, first, last);
        return VAEL_OK;
    }
    const bool empty_on_entry = range->buf_used == 0;
    vael_pmutf8_char start = a;
    for (bool first_round = true;; first_round = false) {
        vael_pmutf8_char e;
        if (vael_pmutf8_range_find_biggest_possible_range(&start, &b, &e) != 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL,
                                      "vael_pmutf8_range_find_biggest_possible_range failed");
            return VAEL_ERROR;
        }
        if (!(first_round && empty_on_entry) && vael_pmutf8_range_write_OR_char_to_buf(range) != 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmutf8_range_write_OR_char_to_buf failed 2");
            return VAEL_ERROR;
        }
        if (vael_pmutf8_range_create_range(range, &start, &e, hexa) != 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmutf8_range_create_range failed 2");
            return VAEL_ERROR;
        }
        uint32_t next = utf8_code_point(e) + 1;
        if (next > VAEL_PMUTF8_MAX_CODE_POINT || next > last)
            break;
        if (vael_pmutf8_range_num_to_utf8(next, &start) != 0) {
            vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmutf8_range_num_to_utf8 failed 2");
            return VAEL_ERROR;
        }
    }
    vael_pmutf8_range_update_first_last(range, first, last);
    return VAEL_OK;
}

extern "C" int vael_pmutf8_range_handle_logical_range(vael_pmutf8_range *range, vael_pm_error *err) {
    if (!range->negated)
        return VAEL_OK;
    if (!range->logical_ranges) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: head of list shouldn't be NULL\n");
        return VAEL_ERROR;
    }
    // The gaps between the exclusions, written as positive spans.
    uint32_t cursor = 0;
    for (vael_pm_logical_range *e = range->logical_ranges->next; e; e = e->next) {
        if (e->first != 0 && vael_pmutf8_range_add_range(range, cursor, e->first - 1, 1, 1, err) != 0)
            return VAEL_ERROR;
        cursor = e->last + 1;
    }
    if (cursor <= VAEL_PMUTF8_MAX_CODE_POINT &&
        vael_pmutf8_range_add_range(range, cursor, VAEL_PMUTF8_MAX_CODE_POINT, 1, 1, err) != 0)
        return VAEL_ERROR;
    free_logical_ranges(range);
    return VAEL_OK;
}

extern "C" int vael_pmutf8_range_merge(const vael_pmutf8_range *source, vael_pmutf8_range *target, int positive) {
    if (positive) {
        if (target->buf_used != 0 && vael_pmutf8_range_write_OR_char_to_buf(target) != 0)
            return VAEL_ERROR;
        if (vael_pmutf8_range_write_buf_to_buf(source, target) != 0)
            return VAEL_ERROR;
    } else if (source->first <= source->last &&
               vael_pmutf8_range_merge_logical_range(target, source->first, source->last) != 0) {
        return VAEL_ERROR;
    }
    vael_pmutf8_range_update_first_last(target, source->first, source->last);
    return VAEL_OK;
}

// ---- both forms

namespace {
int range_add(vael_pmglob_range *range, uint32_t first, uint32_t last, int positive, int hexa, vael_pm_error *err) {
    if (!range) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmglob_range_add_range failed");
        return VAEL_ERROR;
    }
    if (range->type == VAEL_PMGLOB_RANGE_UTF8)
        return vael_pmutf8_range_add_range(utf8_of(range), first, last, positive, hexa, err);
    // "All characters" is one call for both forms.
    if (last == VAEL_PMUTF8_MAX_CODE_POINT)
        last = 255;
    return vael_pmascii_range_add_range(ascii_of(range), (uint8_t)first, (uint8_t)last, positive, err);
}
}  // namespace

extern "C" int vael_pmglob_range_add_range(vael_pmglob_range *range, uint32_t first, uint32_t last, int positive,
                                           vael_pm_error *err) {
    return range_add(range, first, last, positive, 0, err);
}

extern "C" int vael_pmglob_range_add_hexa_range(vael_pmglob_range *range, uint32_t first, uint32_t last,
                                                int positive, vael_pm_error *err) {
    return range_add(range, first, last, positive, 1, err);
}

extern "C" int vael_pmglob_range_handle_logical_range(vael_pmglob_range *range, vael_pm_error *err) {
    if (!range) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, "vael_pmglob_range_handle_logical_range failed");
        return VAEL_ERROR;
    }
    if (range->type != VAEL_PMGLOB_RANGE_UTF8)
        return VAEL_OK;
    return vael_pmutf8_range_handle_logical_range(utf8_of(range), err);
}

extern "C" int vael_pmglob_range_add_simple_backslash(vael_pmglob_range *range, uint32_t first, uint32_t last,
                                                      vael_pm_error *err) {
    static const char kFailed[] = "vael_pmglob_range_add_simple_backslash failed";
    if (!range) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, kFailed);
        return VAEL_ERROR;
    }
    if (first == last && first < 256 && (is_alpha((unsigned char)first) || is_digit((unsigned char)first)))
        range->escaped_alnum = 1;
    if (range->type != VAEL_PMGLOB_RANGE_UTF8)
        return range_add(range, first, last, 1, 0, err);
    // No '|' before it: an escaped character stands alone only as a token.
    vael_pmutf8_range *u = utf8_of(range);
    if (vael_pmutf8_range_write_char_to_buf(u, '\\') != 0 ||
        vael_pmutf8_range_write_char_to_buf(u, (unsigned char)(first & 0xFF)) != 0) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, kFailed);
        return VAEL_ERROR;
    }
    vael_pmutf8_range_update_first_last(u, first, last);
    return VAEL_OK;
}

extern "C" int vael_pmglob_range_merge(const vael_pmglob_range *source, vael_pmglob_range *target, int positive) {
    if (!source || !target || source->type != target->type) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Illegal input\n");
        return VAEL_ERROR;
    }
    if (source->type == VAEL_PMGLOB_RANGE_UTF8)
        return vael_pmutf8_range_merge(utf8_of(source), utf8_of(target), positive);
    return vael_pmascii_range_merge(ascii_of(source), ascii_of(target), positive);
}

extern "C" int vael_pmglob_range_is_single(const vael_pmglob_range *range) {
    if (!range) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Illegal input\n");
        return 0;
    }
    if (range->type == VAEL_PMGLOB_RANGE_UTF8)
        return utf8_of(range)->first == utf8_of(range)->last;
    return ascii_of(range)->first == ascii_of(range)->last;
}

extern "C" uint32_t vael_pmglob_range_get_first(const vael_pmglob_range *range) {
    if (!range) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Illegal input\n");
        return 0;
    }
    return range->type == VAEL_PMGLOB_RANGE_UTF8 ? utf8_of(range)->first : ascii_of(range)->first;
}

extern "C" void vael_pmglob_range_update_first_last(vael_pmglob_range *range, uint32_t first, uint32_t last) {
    if (!range)
        return;
    if (range->type == VAEL_PMGLOB_RANGE_UTF8) {
        vael_pmutf8_range_update_first_last(utf8_of(range), first, last);
        return;
    }
    vael_pmascii_range *a = ascii_of(range);
    if (first < a->first)
        a->first = (uint8_t)(first > 255 ? 255 : first);
    if (last > a->last)
        a->last = (uint8_t)(last > 255 ? 255 : last);
}

extern "C" unsigned char *vael_pmglob_range_return_one_char_string(const vael_pmglob_range *range, uint32_t *len) {
    *len = 0;
    if (!range || vael_pmglob_range_is_negate(range) || !vael_pmglob_range_is_single(range)) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: should not contain ranges\n");
        return nullptr;
    }
    vael_pmutf8_char c;
    if (range->type == VAEL_PMGLOB_RANGE_UTF8) {
        if (vael_pmutf8_range_num_to_utf8(utf8_of(range)->first, &c) != 0)
            return nullptr;
    } else {
        c.bytes[0] = ascii_of(range)->first;
        c.num_of_bytes = 1;
    }
    auto *out = static_cast<unsigned char *>(VAEL_PM_KMALLOC(c.num_of_bytes));
    if (!out)
        return nullptr;
    std::memcpy(out, c.bytes, c.num_of_bytes);
    *len = c.num_of_bytes;
    return out;
}

namespace {
// Appends to a bounded text and counts what the whole would need.
struct TextOut {
    char *out;
    uint32_t size;
    uint32_t used = 0;
    void put(char c) {
        if (used + 1 < size)
            out[used] = c;
        used++;
    }
    void put(const char *s) {
        while (*s)
            put(*s++);
    }
    void put_byte(unsigned char c, const char *also_escaped) {
        if (is_print(c) && c != '\\' && !std::strchr(also_escaped, c)) {
            put((char)c);
            return;
        }
        if (c == '\\' || (is_print(c) && std::strchr(also_escaped, c))) {
            put('\\');
            put((char)c);
            return;
        }
        char hex[5];
        std::snprintf(hex, sizeof hex, "\\x%02x", c);
        put(hex);
    }
    uint32_t finish() {
        if (size)
            out[used < size ? used : size - 1] = '\0';
        return used;
    }
};
}  // namespace

extern "C" uint32_t vael_pmglob_range_print(const vael_pmglob_range *range, char *out, uint32_t out_size) {
    TextOut t{out, out ? out_size : 0};
    if (!range) {
        t.put("(null)");
        return t.finish();
    }
    if (range->type == VAEL_PMGLOB_RANGE_UTF8) {
        // The text is already a regular expression: bytes are shown, not escaped again.
        const vael_pmutf8_range *u = utf8_of(range);
        for (uint32_t i = 0; i < u->buf_used; i++) {
            unsigned char c = u->buf[i];
            if (is_print(c)) {
                t.put((char)c);
            } else {
                char hex[5];
                std::snprintf(hex, sizeof hex, "\\x%02x", c);
                t.put(hex);
            }
        }
        return t.finish();
    }
    const vael_pmascii_range *a = ascii_of(range);
    int count = 0, only = -1;
    for (int c = 0; c < 256; c++)
        if (a->chars[c])
            count++, only = c;
    if (count == 1 && !a->negated) {
        t.put_byte((unsigned char)only, "()|*.[{?+");
        return t.finish();
    }
    t.put('[');
    if (a->negated)
        t.put('^');
    for (int c = 0; c < 256;) {
        if (!a->chars[c]) {
            c++;
            continue;
        }
        int end = c;
        while (end + 1 < 256 && a->chars[end + 1])
            end++;
        t.put_byte((unsigned char)c, "]-^");
        if (end > c + 1)
            t.put('-');
        if (end > c)
            t.put_byte((unsigned char)end, "]-^");
        c = end + 1;
    }
    t.put(']');
    return t.finish();
}
