// vael_pmglob_impl.cpp - the leaf records of the pattern matcher: pattern
// strings and lists of them, user pattern records, match records and the
// match queue with its per-pattern dedupe, the error record, the character
// translation tables and the PM uuid.

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "pm/vael_pm_internal.h"
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

// ---------------------------------------------------------------- strings

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
    // One buffer per thread: log lines of parallel compiles must not mix.
    static thread_local char text[200];
    if (!s)
        return "NULL";
    size_t used = 0;
    for (uint32_t i = 0; i < s->size && used + 5 < sizeof text; i++) {
        unsigned char c = s->pattern[i];
        if (c >= 0x20 && c < 0x7f)
            text[used++] = (char)c;
        else
            used += std::snprintf(text + used, sizeof text - used, "\\x%02x", c);
    }
    text[used] = '\0';
    return text;
}

extern "C" void vael_pmglob_string_dump(const vael_pmglob_string *s) {
    if (!s)
        return;
    vael_us_adaptor_kdprintf("string: '%s', size: %u, id: %d, flags: 0x%.8x\n", vael_pmglob_string_to_debug_charp(s),
                             s->size, s->id, s->flags);
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

extern "C" void vael_pmglob_patterns_dump(vael_pmglob_patterns *list) {
    uintptr_t value;
    for (lst_cursor c = lst_iterate(list, nullptr, &value); c; c = lst_iterate(list, c, &value))
        vael_pmglob_string_dump(reinterpret_cast<vael_pmglob_string *>(value));
}

// ---------------------------------------------------------------- pattern records

extern "C" vael_pm_one_pattern *vael_pm_patterns_one_pattern_create(const unsigned char *lss, uint32_t lss_len,
                                                                    const unsigned char *re, uint32_t re_len,
                                                                    int32_t id, uint32_t match_len, uint32_t flags,
                                                                    uint32_t type) {
    auto *p = static_cast<vael_pm_one_pattern *>(VAEL_KMALLOC(sizeof(vael_pm_one_pattern)));
    if (!p)
        return nullptr;
    *p = vael_pm_one_pattern{nullptr, nullptr, id, match_len, flags, type};
    if (lss && lss_len && !(p->lss = vael_pmglob_string_create(lss, lss_len, -1, flags))) {
        vael_pm_patterns_one_pattern_destroy(p);
        return nullptr;
    }
    if (re && re_len && !(p->re = vael_pmglob_string_create(re, re_len, -1, flags))) {
        vael_pm_patterns_one_pattern_destroy(p);
        return nullptr;
    }
    return p;
}

extern "C" void vael_pm_patterns_one_pattern_destroy(vael_pm_one_pattern *p) {
    if (!p)
        return;
    vael_pmglob_string_destroy(p->lss);
    vael_pmglob_string_destroy(p->re);
    VAEL_KFREE(p, sizeof(vael_pm_one_pattern));
}

namespace {
void destroy_one_pattern_value(uintptr_t value) {
    vael_pm_patterns_one_pattern_destroy(reinterpret_cast<vael_pm_one_pattern *>(value));
}
}  // namespace

extern "C" vael_pm_patterns *vael_pm_patterns_create(void) {
    vael_pm_patterns *list = lst_create_destr(destroy_one_pattern_value);
    if (!list)
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Creating patterns list returned NULL\n");
    return list;
}

extern "C" int vael_pm_patterns_add_simple_pattern(vael_pm_patterns *patterns, const char *str, uint32_t len,
                                                   int32_t id, uint32_t flags) {
    if (!patterns || !str || len == 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR",
                 "%s: Invalid arguments: pattern: %p, LSS_len: %u, LSS: %p, RE_len: %u, RE: %p\n",
                 (void *)patterns, len, (const void *)str, 0u, (const void *)nullptr);
        return VAEL_ERROR;
    }
    auto *bytes = reinterpret_cast<const unsigned char *>(str);
    vael_pm_one_pattern *p =
        vael_pm_patterns_one_pattern_create(bytes, len, nullptr, 0, id, len, flags, VAEL_PM_TYPE_PATTERN);
    if (!p) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Error creating one_pattern\n");
        return VAEL_ERROR;
    }
    if (!lst_insert(patterns, reinterpret_cast<uintptr_t>(p))) {
        vael_pm_patterns_one_pattern_destroy(p);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void vael_pm_patterns_destroy(vael_pm_patterns *patterns) { lst_destroy(patterns); }

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

namespace {
constexpr unsigned char to_lower(unsigned char c) { return c >= 'A' && c <= 'Z' ? (unsigned char)(c + 32) : c; }
constexpr bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
}  // namespace

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

// ---------------------------------------------------------------- uuid

namespace {
// Not locked: parallel compiles in one second still differ in `serial`.
uint32_t g_uuid_serial;
int32_t g_uuid_last_time;
uint32_t g_uuid_seq;
uint32_t g_uuid_clock_seq;

void put_word(unsigned char *p, uint32_t w) { std::memcpy(p, &w, 4); }
}  // namespace

extern "C" void vael_pmglob_uuid_build_ex(unsigned char *uuid, uint32_t serial, uint32_t time, int32_t pid) {
    auto now = (int32_t)time;
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

extern "C" void vael_pmglob_uuid_build(unsigned char *uuid) {
    if (!uuid)
        return;
    vael_pmglob_uuid_build_ex(uuid, ++g_uuid_serial, qx_abstime(), (int32_t)getpid());
}
