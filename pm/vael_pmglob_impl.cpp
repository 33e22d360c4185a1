// vael_pmglob_impl.cpp - the leaf records of the pattern matcher: the error
// record, byte strings without a locale, pattern strings and lists of them,
// match records and the match queue with its per-pattern dedupe, masks' bit
// test, the character translation tables and the PM uuid.

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_strings.h"
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
