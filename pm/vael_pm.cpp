// vael_pm.cpp - the frame of the pattern matcher: the tier tables, the
// process-wide PM list, the user's pattern lists with their metadata, and the
// compile, run and destroy of a PM.
//
// A PM reaches its engines only through the rows of pm_tier1_funcs and
// pm_tier2_funcs; it stores row numbers. Engines report hits into a queue and
// the frame delivers them after the scan, so user code never runs inside an
// automaton's inner loop and no lock is held while it runs.

#include <cstring>

#include "analysis/vael_pm_lss_finder.h"
#include "analysis/vael_pm_special_chars.h"
#include "analysis/vael_pm_utf8.h"
#include "keywords/vael_kw_mgr.h"
#include "pcre_tier/vael_pcre.h"
#include "rem/vael_rem_tier.h"
#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_strings.h"
#include "runtime/vael_counter.h"
#include "runtime/vael_runtime.h"
#include "tier1/vael_sm.h"
#include "tier1/vael_wm.h"
#include "vael/vael_thin_nfa.h"

vael_pm_tier1_funcs pm_tier1_funcs[VAEL_PM_TIER1_NUM];
vael_pm_tier2_funcs pm_tier2_funcs[VAEL_PM_TIER2_NUM];

int vael_pm_min_lss_size = 1;
int vael_pm_stats_take_exec_time = 0;
int vael_pm_default_back_offset_to_search_match_start = 200;
int vael_pm_tier1_use_thin_nfa = 1;

// ---------------------------------------------------------------- PM list

namespace {
vael_mutex *g_pm_list_lock;
int g_pm_list_lock_init;
vael_pm_handle *g_pm_list;

// The list mutex is absent before start and after stop; a PM destroyed then
// is destroyed without it.
void pm_list_lock() {
    if (*vael_pm_global_data.lock)
        MtMutexLock(*vael_pm_global_data.lock);
}
void pm_list_unlock() {
    if (*vael_pm_global_data.lock)
        MtMutexUnLock(*vael_pm_global_data.lock);
}
}  // namespace

vael_pm_global_data_t vael_pm_global_data = {&g_pm_list_lock, &g_pm_list_lock_init, &g_pm_list};

extern "C" void vael_pm_set_global_data(const vael_pm_global_data_t *data) {
    if (!data)
        return;
    VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: got lock(%p), lock_init(%p), list(%p)\n",
             (void *)data->lock, (void *)data->lock_init, (void *)data->list);
    vael_pm_global_data = *data;
}

extern "C" void vael_pm_get_global_data(vael_pm_global_data_t *data) {
    if (data)
        *data = vael_pm_global_data;
}

extern "C" int vael_pm_list_lock_init(void) {
    if (*vael_pm_global_data.lock_init == 1)
        return 0;
    if (!vael_module_i_am_global()) {
        VAEL_ASSERT_F(0, "%s: PM list lock is not initialized, global instance is not the first to be loaded\n");
        return -1;
    }
    if (tqlock_lock_init(vael_pm_global_data.lock) != 0)
        return -1;
    *vael_pm_global_data.lock_init = 1;
    return 0;
}

extern "C" void vael_pm_list_lock_destroy(void) {
    if (!vael_module_i_am_global() || *vael_pm_global_data.lock_init != 1)
        return;
    tqlock_lock_term(vael_pm_global_data.lock);
    *vael_pm_global_data.lock_init = 0;
}

// Newest first; a PM's id is one more than the head's.
extern "C" void vael_pm_insert_to_pm_list(vael_pm_handle *pm) {
    vael_pm_handle **list = vael_pm_global_data.list;
    pm->pm_id = *list ? (*list)->pm_id + 1 : 0;
    pm->next = *list;
    *list = pm;
}

namespace {
// A PM that is not in the list is no error: a failed compile never joined.
void vael_pm_remove_from_pm_list(vael_pm_handle *pm) {
    for (vael_pm_handle **p = vael_pm_global_data.list; *p; p = &(*p)->next) {
        if (*p == pm) {
            *p = pm->next;
            pm->next = nullptr;
            return;
        }
    }
}
}  // namespace

extern "C" void vael_pm_insert_to_pm_list_locked(vael_pm_handle *pm) {
    pm_list_lock();
    vael_pm_insert_to_pm_list(pm);
    pm_list_unlock();
}

// ---------------------------------------------------------------- start and stop

extern "C" int vael_tier1_init(void) {
    if (vael_wm_init(&pm_tier1_funcs[VAEL_PM_TIER1_WM]) != 0)
        return VAEL_ERROR;
    vael_pm_tier1_funcs *strings = &pm_tier1_funcs[VAEL_PM_TIER1_STRING];
    if ((vael_pm_tier1_use_thin_nfa ? vael_thin_nfa_init(strings) : vael_sm_init(strings)) != 0) {
        vael_wm_fini();
        return VAEL_ERROR;
    }
    return 0;
}

extern "C" void vael_tier1_fini(void) {
    if (vael_pm_tier1_use_thin_nfa)
        vael_thin_nfa_fini();
    else
        vael_sm_fini();
    vael_wm_fini();
    // A row not filled at the next start must read as absent, not as the
    // engine of the last start.
    for (auto &row : pm_tier1_funcs)
        row = vael_pm_tier1_funcs{};
}

// Rows in order REM, PCRE, KW, undone in reverse.
extern "C" int vael_tier2_init(void) {
    if (vael_rem_init(&pm_tier2_funcs[VAEL_PM_TIER2_REM]) != 0)
        return VAEL_ERROR;
    if (vael_pcre_init(&pm_tier2_funcs[VAEL_PM_TIER2_PCRE]) != 0) {
        vael_rem_fini();
        pm_tier2_funcs[VAEL_PM_TIER2_REM] = vael_pm_tier2_funcs{};
        return VAEL_ERROR;
    }
    if (vael_kw_init(&pm_tier2_funcs[VAEL_PM_TIER2_KW]) != 0) {
        vael_pcre_fini();
        vael_rem_fini();
        for (auto &row : pm_tier2_funcs)
            row = vael_pm_tier2_funcs{};
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void vael_tier2_fini(void) {
    vael_kw_fini();
    vael_pcre_fini();
    vael_rem_fini();
    for (auto &row : pm_tier2_funcs)
        row = vael_pm_tier2_funcs{};
}

namespace {
struct InitStep {
    int (*init)();
    void (*fini)();
};
int matches_pool_init() { return vael_pmglob_matches_pool_init(); }
void matches_pool_fini() { vael_pmglob_matches_pool_fini(); }

// Steps of vael_pm_init in order; vael_pm_fini undoes them in reverse.
constexpr InitStep kInitSteps[] = {
    {vael_pm_special_chars_init, vael_pm_special_chars_fini},
    {vael_tier1_init, vael_tier1_fini},
    {vael_pm_lss_finder_init, vael_pm_lss_finder_fini},
    {vael_pm_utf8_init, vael_pm_utf8_fini},
    {vael_tier2_init, vael_tier2_fini},
    {vael_pm_list_lock_init, vael_pm_list_lock_destroy},
    {matches_pool_init, matches_pool_fini},
    {vael_pm_fbuf_pool_init, vael_pm_fbuf_pool_fini},
};
constexpr int kNumInitSteps = sizeof kInitSteps / sizeof kInitSteps[0];
}  // namespace

extern "C" int vael_pm_init(void) {
    for (int i = 0; i < kNumInitSteps; i++) {
        if (kInitSteps[i].init() != 0) {
            while (i-- > 0)
                kInitSteps[i].fini();
            return VAEL_ERROR;
        }
    }
    return VAEL_OK;
}

extern "C" void vael_pm_fini(void) {
    for (int i = kNumInitSteps; i-- > 0;)
        kInitSteps[i].fini();
    if (*vael_pm_global_data.list)
        VAEL_LOG(VAEL_DBG_WRN, "K_WARNING | K_PM", "%s: Called while PMs exists.\n");
}

// ---------------------------------------------------------------- pattern records

// The metadata names, in the order they are tried; a row matches by prefix.
const vael_pm_metadata_flag vael_pm_metadata_flags[] = {
    {"caseless", 8, VAEL_PM_CASELESS, 1},
    {"case", 4, VAEL_PM_CASELESS, -1},
    {"literal", 7, VAEL_PM_LITERAL, 1},
    {"shortlss", 8, VAEL_PM_SHORT_LSS, 1},
    {"bound", 5, VAEL_PM_BOUND, 1},
    {nullptr, 0, 0, 0},
};

extern "C" int vael_pm_patterns_parse_metadata(const char **lss, uint32_t *lss_len, const char **pattern,
                                               uint32_t *pattern_len, uint32_t *flags, int allow_lss) {
    const char *p = *pattern;
    uint32_t n = *pattern_len;
    if (n == 0 || p[0] != '{')
        return VAEL_OK;
    bool lss_seen = false;
    for (;;) {
        p++, n--; // the '{' or the ';' before the next item
        if (allow_lss && !lss_seen && n >= 5 && std::memcmp(p, "LSS(", 4) == 0 && lss && lss_len) {
            const char *close = pm_strnchr(p + 4, n - 4, ')');
            if (!close) {
                VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: no closing braces for LSS flag\n");
                return VAEL_ERROR;
            }
            *lss = p + 4;
            *lss_len = (uint32_t)(close - (p + 4));
            lss_seen = true;
            n -= (uint32_t)(close + 1 - p);
            p = close + 1;
        } else {
            const vael_pm_metadata_flag *row = vael_pm_metadata_flags;
            while (row->name && !(n > row->len && std::memcmp(p, row->name, row->len) == 0))
                row++;
            if (row->name) {
                p += row->len;
                n -= row->len;
                *flags = row->sense == -1 ? (*flags & ~row->bits) : (*flags | row->bits);
            } else {
                // Unknown items are dropped, not refused.
                uint32_t k = 0;
                while (k < n && p[k] != '}' && p[k] != ';')
                    k++;
                if (k == n) {
                    VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: invalid metadata\n");
                    return VAEL_ERROR;
                }
                VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: ignoring metadata flag\n");
                p += k;
                n -= k;
            }
        }
        if (n > 0 && p[0] == ';')
            continue;
        break;
    }
    if (n < 2 || p[0] != '}' || p[1] != ':') {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: metadata ending was not found\n");
        return VAEL_ERROR;
    }
    *pattern = p + 2;
    *pattern_len = n - 2;
    return VAEL_OK;
}

extern "C" int vael_pm_pattern_has_metadata(const char *pattern, uint32_t len, int *has) {
    if (!pattern || len == 0 || !has) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: invalid arguments given");
        return VAEL_ERROR;
    }
    char *copy;
    uint32_t copy_len;
    if (pm_strdup(pattern, len, &copy, &copy_len) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: failed to duplicate RE\n");
        return VAEL_ERROR;
    }
    const char *text = copy, *lss = nullptr;
    uint32_t text_len = copy_len, lss_len = 0, flags = 0;
    int rc = vael_pm_patterns_parse_metadata(&lss, &lss_len, &text, &text_len, &flags, 1);
    VAEL_KFREE(copy, copy_len);
    if (rc != VAEL_OK) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: failed to parse metadata\n");
        return VAEL_ERROR;
    }
    // {case}:abc clears a bit nobody set: that is no metadata.
    *has = flags != 0 || lss_len != 0;
    return VAEL_OK;
}

namespace {

bool holds_nul(const unsigned char *bytes, uint32_t len) { return bytes && std::memchr(bytes, 0, len) != nullptr; }

}  // namespace

extern "C" vael_pm_one_pattern *vael_pm_patterns_one_pattern_create(const unsigned char *lss, uint32_t lss_len,
                                                                    const unsigned char *re, uint32_t re_len,
                                                                    int32_t id, uint32_t match_len, uint32_t flags,
                                                                    uint32_t type) {
    auto *p = static_cast<vael_pm_one_pattern *>(VAEL_KMALLOC(sizeof(vael_pm_one_pattern)));
    if (!p)
        return nullptr;
    *p = vael_pm_one_pattern{nullptr, nullptr, id, match_len, flags, type};
    if (lss && lss_len) {
        // Only a note: the LSS is taken byte for byte as it stands.
        if (holds_nul(lss, lss_len) && !vael_pm_allow_null_in_pattern)
            VAEL_LOG(VAEL_DBG_WRN, "K_PM | K_WARNING",
                     "%s: NULL character is not supported in LSS - please use \\x00 instead. problematic LSS: %s\n",
                     pm_str_to_debug_charp(reinterpret_cast<const char *>(lss), lss_len));
        if (!(p->lss = vael_pmglob_string_create(lss, lss_len, -1, flags))) {
            vael_pm_patterns_one_pattern_destroy(p);
            return nullptr;
        }
    }
    if (re && re_len) {
        if (holds_nul(re, re_len) && !vael_pm_allow_null_in_pattern)
            VAEL_LOG(VAEL_DBG_WRN, "K_PM | K_WARNING",
                     "%s: NULL character is not supported in RE - please use \\x00 instead. problematic RE: %s\n",
                     pm_str_to_debug_charp(reinterpret_cast<const char *>(re), re_len));
        if (!(p->re = vael_pmglob_string_create_replace_nulls(re, re_len, -1, flags))) {
            vael_pm_patterns_one_pattern_destroy(p);
            return nullptr;
        }
    }
    if (flags & VAEL_PM_NO_HISTORY)
        p->match_len = 0;
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

const unsigned char *bytes_of(const char *s) { return reinterpret_cast<const unsigned char *>(s); }

// The worker of every add. A failed add leaves the list as it was.
int vael_pm_patterns_add_pattern_with_LSS_ex(vael_pm_patterns *patterns, const char *lss, uint32_t lss_len,
                                             const char *re, uint32_t re_len, int32_t id, uint32_t match_len,
                                             uint32_t flags, uint32_t type) {
    if (!patterns || !((lss && lss_len) || (re && re_len))) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR",
                 "%s: Invalid arguments: pattern: %p, LSS_len: %u, LSS: %p, RE_len: %u, RE: %p\n", (void *)patterns,
                 lss_len, (const void *)lss, re_len, (const void *)re);
        return VAEL_ERROR;
    }
    vael_pm_one_pattern *p = vael_pm_patterns_one_pattern_create(bytes_of(lss), lss_len, bytes_of(re), re_len, id,
                                                                 match_len, flags, type);
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

}  // namespace

extern "C" vael_pm_patterns *vael_pm_patterns_create(void) {
    vael_pm_patterns *list = lst_create_destr(destroy_one_pattern_value);
    if (!list)
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Creating patterns list returned NULL\n");
    return list;
}

extern "C" void vael_pm_patterns_destroy(vael_pm_patterns *patterns) { lst_destroy(patterns); }

extern "C" int vael_pm_patterns_add_simple_pattern(vael_pm_patterns *patterns, const char *str, uint32_t len,
                                                   int32_t id, uint32_t flags) {
    if (str && vael_pm_patterns_parse_metadata(nullptr, nullptr, &str, &len, &flags, 0) != VAEL_OK)
        return VAEL_ERROR;
    return vael_pm_patterns_add_pattern_with_LSS_ex(patterns, str, len, nullptr, 0, id, len, flags,
                                                    VAEL_PM_TYPE_PATTERN);
}

extern "C" int vael_pm_patterns_add_pattern(vael_pm_patterns *patterns, const char *re, uint32_t re_len, int32_t id,
                                            uint32_t flags) {
    const char *lss = nullptr;
    uint32_t lss_len = 0;
    if (re && vael_pm_patterns_parse_metadata(&lss, &lss_len, &re, &re_len, &flags, 1) != VAEL_OK)
        return VAEL_ERROR;
    return vael_pm_patterns_add_pattern_with_LSS_ex(patterns, lss, lss_len, re, re_len, id, 0, flags,
                                                    VAEL_PM_TYPE_PATTERN);
}

extern "C" int vael_pm_patterns_add_pattern_with_LSS(vael_pm_patterns *patterns, const char *lss, uint32_t lss_len,
                                                     const char *re, uint32_t re_len, int32_t id, uint32_t flags) {
    // An LSS( item in the expression's metadata replaces the argument.
    if (re && vael_pm_patterns_parse_metadata(&lss, &lss_len, &re, &re_len, &flags, 1) != VAEL_OK)
        return VAEL_ERROR;
    return vael_pm_patterns_add_pattern_with_LSS_ex(patterns, lss, lss_len, re, re_len, id, 0, flags,
                                                    VAEL_PM_TYPE_PATTERN);
}

extern "C" int vael_pm_patterns_add_word(vael_pm_patterns *patterns, const char *word, uint32_t len, int32_t id,
                                         uint32_t flags) {
    return vael_pm_patterns_add_pattern_with_LSS_ex(patterns, word, len, nullptr, 0, id, len, flags,
                                                    VAEL_PM_TYPE_WORD);
}

extern "C" int vael_pm_patterns_add_pattern_kw(vael_pm_patterns *patterns, const char *lss, uint32_t lss_len,
                                               const char *rule, int32_t id) {
    return vael_pm_patterns_add_pattern_with_LSS_ex(patterns, lss, lss_len, rule, rule ? pm_strlen(rule) : 0, id, 0,
                                                    0, VAEL_PM_TYPE_KW);
}

extern "C" int vael_pm_patterns_add_pattern_kw_nohistory(vael_pm_patterns *patterns, const char *lss,
                                                         uint32_t lss_len, const char *rule, int32_t id) {
    return vael_pm_patterns_add_pattern_with_LSS_ex(patterns, lss, lss_len, rule, rule ? pm_strlen(rule) : 0, id, 0,
                                                    VAEL_PM_NO_HISTORY, VAEL_PM_TYPE_KW);
}

extern "C" const unsigned char *vael_pm_one_pattern_get_lss_str(const vael_pm_one_pattern *p) {
    VAEL_ASSERT(p, "Ilegal arguments");
    return p && p->lss ? p->lss->pattern : nullptr;
}

extern "C" uint32_t vael_pm_one_pattern_get_lss_size(const vael_pm_one_pattern *p) {
    VAEL_ASSERT(p, "Ilegal arguments");
    return p && p->lss ? p->lss->size : 0;
}

extern "C" const unsigned char *vael_pm_one_pattern_get_re_str(const vael_pm_one_pattern *p) {
    VAEL_ASSERT(p, "Ilegal arguments");
    return p && p->re ? p->re->pattern : nullptr;
}

extern "C" uint32_t vael_pm_one_pattern_get_re_size(const vael_pm_one_pattern *p) {
    VAEL_ASSERT(p, "Ilegal arguments");
    return p && p->re ? p->re->size : 0;
}

extern "C" void vael_pm_patterns_dump(vael_pm_patterns *patterns) {
    static const char kDashes[] = "--------------------------------------------";
    vael_us_adaptor_kdprintf("\n----- DUMPING PM_PATTERNS at %p -----\n", (void *)patterns);
    vael_us_adaptor_kdprintf("Number of patterns in this pm_patterns is: %d\n", (int)lst_nelements(patterns));
    uint32_t num = 0;
    uintptr_t value;
    for (lst_cursor c = lst_iterate(patterns, nullptr, &value); c; c = lst_iterate(patterns, c, &value)) {
        auto *p = reinterpret_cast<const vael_pm_one_pattern *>(value);
        vael_us_adaptor_kdprintf("%s\n", kDashes);
        vael_us_adaptor_kdprintf("     Pattern num: %u\n", ++num);
        vael_us_adaptor_kdprintf("     LSS: %s\n", p->lss ? vael_pmglob_string_to_debug_charp(p->lss)
                                                       : "NULL (we'll try to find it during PM compilation)");
        vael_us_adaptor_kdprintf("     RE: %s\n", p->re ? vael_pmglob_string_to_debug_charp(p->re) : "NULL");
        vael_us_adaptor_kdprintf("     Pattern id: %d, flags: 0x%.8x\n", p->id, p->flags);
    }
    vael_us_adaptor_kdprintf("%s\n", kDashes);
}

// ---------------------------------------------------------------- handle

namespace {

int vael_pm_array_init(vael_pm_handle *pm, uint32_t n) {
    pm->num_tier2 = n;
    if (n == 0) {
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: 0 patterns in array\n");
        return 0;
    }
    size_t bytes = sizeof(vael_pm_array_one_handle) * n;
    pm->pm_array = static_cast<vael_pm_array_one_handle *>(VAEL_PM_KMALLOC(bytes));
    if (!pm->pm_array) {
        pm->num_tier2 = 0;
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Cannot allocate pm_array\n");
        return -1;
    }
    std::memset(pm->pm_array, 0, bytes);
    for (uint32_t i = 0; i < n; i++)
        pm->pm_array[i].tier2_type = VAEL_PM_TIER2_NONE;
    return 0;
}

}  // namespace

extern "C" vael_pm_handle *vael_pm_create_handle(uint32_t n, vael_pm_match_cb match_cb, uint32_t flags,
                                                const char *caller) {
    auto *pm = static_cast<vael_pm_handle *>(VAEL_PM_KMALLOC(sizeof(vael_pm_handle)));
    if (!pm) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR",
                 "%s: vael_pmglob_memory_kmalloc returned NULL (allocating pm_handle)\n");
        return nullptr;
    }
    std::memset(pm, 0, sizeof *pm);
    vael_pmglob_uuid_build(pm->uuid);
    pm->refcount = 1;
    pm->magic = VAEL_PM_MAGIC_ALIVE;
    pm->match_cb[vael_multik_this_instance_num] = match_cb;
    pm->flags = flags;
    for (auto &slot : pm->tier1)
        slot = vael_pm_tier1_slot{VAEL_PM_TIER1_NONE, nullptr};
    pm->name = caller;
    pm->pm_id = -1;
    if (vael_pm_array_init(pm, n) != 0) {
        vael_pm_destroy(pm);
        return nullptr;
    }
    return pm;
}

namespace {

bool magic_ok(const vael_pm_handle *pm) { return pm->magic == VAEL_PM_MAGIC_ALIVE; }

}  // namespace

extern "C" int vael_pm_validate_ex(vael_pm_handle *pm, int skip_load_proven) {
    int ok = 1;
    for (const auto &slot : pm->tier1) {
        if (!slot.tier1_h)
            continue;
        const vael_pm_tier1_funcs &row = pm_tier1_funcs[slot.tier1_type];
        if (skip_load_proven && (row.tier1_flags & VAEL_PM_TIER1_LOAD_PROVEN))
            continue;
        if (row.is_valid && !row.is_valid(slot.tier1_h)) {
            VAEL_LOG_AS("vael_pm_validate", VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: %s handle is NOT valid\n", row.name);
            ok = 0;
        }
    }
    for (uint32_t i = 0; i < pm->num_tier2; i++) {
        const vael_pm_array_one_handle &e = pm->pm_array[i];
        if (!e.tier2_h)
            continue;
        const vael_pm_tier2_funcs &row = pm_tier2_funcs[e.tier2_type];
        if (row.is_valid && !row.is_valid(e.tier2_h)) {
            VAEL_LOG_AS("vael_pm_validate", VAEL_DBG_ERR, "K_PM | K_ERROR",
                        "%s: tier2_h for pattern id %d (internal id %d) is NOT valid\n", e.id, (int)i);
            ok = 0;
        }
    }
    return ok ? VAEL_OK : VAEL_ERROR;
}

extern "C" int vael_pm_validate(vael_pm_handle *pm) { return vael_pm_validate_ex(pm, 0); }

extern "C" void vael_pm_destroy(vael_pm_handle *pm) {
    if (!pm) {
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: NULL vael_pm_h\n");
        return;
    }
    if (!magic_ok(pm)) {
        VAEL_ASSERT_F(0, "%s: Corrupted pm_handler, magic is '0x%x'\n", pm->magic);
        if (!magic_ok(pm))
            return;
    }
    pm_list_lock();
    // A count of 0 here means a destroy too many; the count still falls, so
    // the PM reads as held (by -1) and is not freed a second time.
    VAEL_ASSERT_F(pm->refcount != 0, "%s: Destroying an already destroyed PM (%p), refcount (%d) <= 0\n",
                  (void *)pm, (int)pm->refcount);
    uint32_t holders = --pm->refcount;
    pm_list_unlock();
    if (holders > 0) {
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: There are %d more holders of PM handle %p, not destroying\n",
                 (int)holders, (void *)pm);
        return;
    }

    for (auto &slot : pm->tier1) {
        if (slot.tier1_h)
            pm_tier1_funcs[slot.tier1_type].destroy(slot.tier1_h);
        slot = vael_pm_tier1_slot{VAEL_PM_TIER1_NONE, nullptr};
    }
    for (uint32_t i = 0; i < pm->num_tier2; i++) {
        vael_pm_array_one_handle &e = pm->pm_array[i];
        if (e.tier2_h)
            pm_tier2_funcs[e.tier2_type].destroy(e.tier2_h);
        // A loaded PM's texts lie in its pool, freed whole below.
        if (!vael_pm_pool_owns(pm->text_pool, e.re_str))
            VAEL_PM_KFREE(e.re_str, e.re_size);
        if (!vael_pm_pool_owns(pm->text_pool, e.lss_str))
            VAEL_PM_KFREE(e.lss_str, e.lss_size);
    }
    vael_pm_pool_free(&pm->text_pool);
    VAEL_PM_KFREE(pm->pm_array, sizeof(vael_pm_array_one_handle) * pm->num_tier2);
    pm->magic = VAEL_PM_MAGIC_DEAD;

    pm_list_lock();
    vael_pm_remove_from_pm_list(pm);
    pm_list_unlock();
    VAEL_PM_KFREE(pm, sizeof *pm);
}

// ---------------------------------------------------------------- compile

namespace {

// Compiles one first-tier list into the next free slot of the PM.
int vael_pm_compile_tier1_compile(vael_pm_handle *pm, uint32_t row_index, vael_pmglob_patterns *list,
                                  uint32_t flags, vael_pm_error *err) {
    const vael_pm_tier1_funcs &row = pm_tier1_funcs[row_index];
    int slot = 0;
    while (slot < VAEL_PM_MAX_TIER1 && pm->tier1[slot].tier1_h)
        slot++;
    if (slot == VAEL_PM_MAX_TIER1) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Reached max number of first tiers %d\n", VAEL_PM_MAX_TIER1);
        return -1;
    }
    if (!row.compile) {
        // A row without an engine is a lack of the build, not a fault of any
        // pattern: err stays as init left it.
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Row %u of the first-tier table has no engine\n", row_index);
        return -1;
    }
    vael_timeval start, end;
    vael_time_get_hrtime(&start);
    intptr_t mem_before = vael_pmglob_memory_get_alloc_total();
    void *h = row.compile(list, flags, err);
    if (!h)
        return -1;
    pm->tier1[slot] = vael_pm_tier1_slot{row_index, h};
    vael_time_get_hrtime(&end);
    if (row.get_common_stats) {
        if (vael_pm_stats_common *stats = row.get_common_stats(h))
            vael_pm_stats_common_update_compile(stats, (uint32_t)(vael_pmglob_memory_get_alloc_total() - mem_before),
                                                vael_time_diff_usec(&start, &end), VAEL_PM_STATS_COMPILE_BOTH);
    }
    return 0;
}

// The number of words in the user's list, and whether any record makes the
// string engine caseless; -1 for a list holding a null record, which names
// no pattern and could be neither counted nor compiled.
intptr_t vael_pm_patterns_count_words(vael_pm_patterns *patterns, bool *any_caseless) {
    intptr_t w = 0;
    uintptr_t value;
    for (lst_cursor c = lst_iterate(patterns, nullptr, &value); c; c = lst_iterate(patterns, c, &value)) {
        auto *p = reinterpret_cast<const vael_pm_one_pattern *>(value);
        if (!p)
            return -1;
        w += p->type == VAEL_PM_TYPE_WORD;
        *any_caseless |= (p->flags & VAEL_PM_CASELESS) || p->type == VAEL_PM_TYPE_KW;
    }
    return w;
}

}  // namespace

extern "C" vael_pm_handle *vael_pm_compile_ex(vael_pm_handle *old_pm, vael_pm_patterns *patterns,
                                              vael_pm_match_cb match_cb, uint32_t flags, vael_pm_error *err,
                                              const char *caller) {
    vael_timeval start, end;
    vael_time_get_hrtime(&start);
    vael_pm_error_init(err);
    intptr_t baseline = vael_pmglob_memory_get_alloc_total();
    if (!patterns) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Invalid arguments; patterns: %p, match_cb %p, caller %s\n",
                 (void *)patterns, reinterpret_cast<void *>(match_cb), caller ? caller : "(null)");
        return nullptr;
    }

    intptr_t n = lst_nelements(patterns);
    bool any_caseless = false;
    intptr_t w = vael_pm_patterns_count_words(patterns, &any_caseless);
    if (n < 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Illegal number of patterns %d\n", (int)n);
        return nullptr;
    }
    if (w < 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Illegal number of words %d\n", (int)w);
        return nullptr;
    }
    if (n == 0 && w == 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Illegal number of patterns and words\n");
        return nullptr;
    }

    vael_pm_handle *pm = vael_pm_create_handle((uint32_t)(n - w), match_cb, flags, caller);
    if (!pm)
        return nullptr;
    pm->stats.num_patterns += (uint32_t)n;

    vael_pmglob_patterns *word_list = vael_pmglob_patterns_create();
    vael_pmglob_patterns *lss_list = vael_pmglob_patterns_create();
    bool ok = word_list && lss_list;
    if (!ok)
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Cannot create patterns\n");

    uint32_t internal_id = 0;
    uintptr_t value;
    for (lst_cursor c = ok ? lst_iterate(patterns, nullptr, &value) : nullptr; c;
         c = lst_iterate(patterns, c, &value)) {
        auto *p = reinterpret_cast<vael_pm_one_pattern *>(value);
        if (vael_pm_compile_one_pattern(pm, old_pm, p, &internal_id, word_list, lss_list, flags, any_caseless,
                                        err) != 0) {
            ok = false;
            break;
        }
    }

    // Word list first, then the LSS list: the first engine compiled takes
    // the first slot.
    struct {
        vael_pmglob_patterns *list;
        uint32_t row;
    } tiers[] = {{word_list, VAEL_PM_TIER1_WM}, {lss_list, VAEL_PM_TIER1_STRING}};
    for (auto &t : tiers) {
        if (ok && lst_nelements(t.list) > 0) {
            uint32_t tier1_flags = flags | (any_caseless ? VAEL_PM_CASELESS : 0);
            ok = vael_pm_compile_tier1_compile(pm, t.row, t.list, tier1_flags, err) == 0;
        }
        vael_pmglob_patterns_destroy(t.list);
        t.list = nullptr;
    }

    if (ok && vael_pm_validate(pm) != 0)
        ok = false;
    if (ok && old_pm)
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: recompiled %u out of %u patterns\n", pm->stats.num_tier2_compiled,
                 (unsigned)n);
    if (!ok) {
        vael_pm_destroy(pm);
        return nullptr;
    }

    pm_list_lock();
    vael_pm_insert_to_pm_list(pm);
    pm_list_unlock();

    vael_time_get_hrtime(&end);
    pm->stats.memory = (uint32_t)(vael_pmglob_memory_get_alloc_total() - baseline);
    pm->stats.compile_time = vael_time_diff_usec(&start, &end);
    VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: PM %d (%s): %u patterns, %u bytes, compiled in %u usec\n", pm->pm_id,
             caller ? caller : "", pm->stats.num_patterns, pm->stats.memory, pm->stats.compile_time);
    return pm;
}

extern "C" vael_pm_handle *vael_pm_compile(vael_pm_patterns *patterns, vael_pm_match_cb match_cb, uint32_t flags,
                                           vael_pm_error *err, const char *caller) {
    return vael_pm_compile_ex(nullptr, patterns, match_cb, flags, err, caller);
}

extern "C" vael_pm_handle *vael_pm_compile_with_wm(vael_pm_patterns *patterns, vael_pm_match_cb match_cb,
                                                   uint32_t flags, vael_pm_error *err, const char *caller) {
    return vael_pm_compile_ex(nullptr, patterns, match_cb, flags, err, caller);
}

// ---------------------------------------------------------------- run

extern "C" int vael_pm_exec_call_on_match(vael_pm_handle *pm, int32_t pattern_id, void *user_arg,
                                          const unsigned char *buf, uint32_t len, uint32_t offset, vael_vbuf *vbuf,
                                          int *keep_going, uint32_t *extra, const char *tier) {
    if (!pm) {
        VAEL_ASSERT_F(0, "%s: pm is NULL!\n");
        return VAEL_ERROR;
    }
    int instance = vael_multik_this_instance_num;
    int result = 0;
    if (vael_pm_ext_match_cb ext = pm->ext_match_cb[instance])
        result = ext(pm, pattern_id, user_arg, buf, len, offset, vbuf, keep_going, extra);
    else if (vael_pm_match_cb cb = pm->match_cb[instance])
        result = cb(pm, pattern_id, user_arg, buf, len, offset, vbuf, keep_going);
    if (result != 0)
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: user match callback returned VAEL_ERROR\n");
    return result;
}

namespace {

int vael_pm_exec_sanity_check(vael_pm_handle *pm, const vael_pm_mask *mask, uint32_t exec_flags) {
    if (!pm) {
        VAEL_ASSERT_F(0, "%s: Invalid arguments: vael_pm_h: %p\n", (void *)pm);
        return VAEL_ERROR;
    }
    if (!magic_ok(pm)) {
        VAEL_ASSERT_F(0, "%s: Corrupted pm_handle, magic is '0x%x'\n", pm->magic);
        return VAEL_ERROR;
    }
    if (mask && mask->pm != pm) {
        VAEL_ASSERT_F(0, "%s: Trying to execute a vael_pm_handle (%p) with unsuitable vael_pm_mask (%p)\n",
                      (void *)pm, (const void *)mask);
        return VAEL_ERROR;
    }
    if ((exec_flags & VAEL_PM_EXEC_MATCH_START) &&
        (exec_flags & (VAEL_PM_EXEC_CIRCUMFLEX | VAEL_PM_EXEC_CIRCUMFLEX_ONLY))) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR",
                 "%s: The combination of match start offset and match circumflex is currently not supported\n");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

int vael_pm_exec_tier1_cb(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *extra, int32_t pattern_id) {
    return vael_pm_exec_call_on_match(ctx->pm, pattern_id, ctx->user_arg, ctx->buf, ctx->len, offset, ctx->vbuf,
                                      &ctx->keep_going, extra, "first");
}

}  // namespace

extern "C" int vael_pm_exec_ex2(vael_pm_handle *pm, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                                vael_pm_mask *mask, void *user_arg, uint32_t exec_flags, uint32_t back_offset) {
    if (vael_pm_exec_sanity_check(pm, mask, exec_flags) != VAEL_OK)
        return VAEL_ERROR;

    vael_pm_exec_cb_ctx ctx = {vael_pm_exec_tier1_cb, user_arg, pm, 1, -1, buf, len, vbuf, 0};
    lst_list *queue = nullptr;
    uint32_t tier1_flags = (exec_flags | VAEL_PM_EXEC_FROM_PM) & VAEL_PM_EXEC_TIER1_MASK;
    int result = VAEL_OK;

    for (const auto &slot : pm->tier1) {
        if (!slot.tier1_h)
            continue;
        const vael_pm_tier1_funcs &row = pm_tier1_funcs[slot.tier1_type];
        vael_timeval start, end;
        if (vael_pm_stats_take_exec_time)
            vael_time_get_hrtime(&start);
        int rc = row.exec(slot.tier1_h, buf, len, vbuf, 0, &queue, tier1_flags, mask, &ctx);
        if (vael_pm_stats_take_exec_time) {
            vael_time_get_hrtime(&end);
            vael_pm_stats_common_update_exec_time(row.get_common_stats ? row.get_common_stats(slot.tier1_h) : nullptr,
                                                  vael_time_diff_usec(&start, &end), 0);
        }
        if (rc != 0) {
            vael_queue_cleanup(queue);
            return VAEL_ERROR;
        }
        if (!ctx.keep_going) {
            vael_queue_cleanup(queue);
            return VAEL_OK;
        }
    }

    vael_pm_exec_flat flat = {nullptr, 0, 0};
    result = vael_pm_exec_drain_tier1(pm, queue, buf, len, vbuf, user_arg, exec_flags, back_offset, &flat);
    vael_pm_exec_flat_release(&flat);
    vael_queue_cleanup(queue);
    return result;
}

extern "C" int vael_pm_exec_ex(vael_pm_handle *pm, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                               vael_pm_mask *mask, void *user_arg, uint32_t exec_flags) {
    return vael_pm_exec_ex2(pm, buf, len, vbuf, mask, user_arg, exec_flags,
                            (uint32_t)vael_pm_default_back_offset_to_search_match_start);
}

extern "C" int vael_pm_set_extended_match_cb(vael_pm_handle *pm, vael_pm_ext_match_cb cb) {
    if (!pm || !magic_ok(pm)) {
        uint32_t magic = pm ? pm->magic : 0;
        VAEL_ASSERT_F(0, "%s: pm is NULL or has wrong magic (%x)\n", magic);
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: PM is NULL or has wrong magic %x\n", magic);
        return VAEL_ERROR;
    }
    pm->ext_match_cb[vael_multik_this_instance_num] = cb;
    return VAEL_OK;
}

// ---------------------------------------------------------------- masks

namespace {

size_t mask_bytes(uint32_t words) { return sizeof(vael_pm_mask) + sizeof(uint32_t) * words; }

vael_pm_mask *mask_alloc(vael_pm_handle *pm, uint32_t words) {
    auto *mask = static_cast<vael_pm_mask *>(VAEL_KMALLOC(mask_bytes(words)));
    if (!mask)
        return nullptr;
    mask->pm = pm;
    mask->mask_size = words;
    std::memset(mask->mask, 0, sizeof(uint32_t) * words);
    return mask;
}

// The first entry with the user's id; -1 when there is none.
int32_t vael_pm_find_pattern(const vael_pm_handle *pm, int32_t pattern_id) {
    for (uint32_t i = 0; i < pm->num_tier2; i++)
        if (pm->pm_array[i].id == pattern_id)
            return (int32_t)i;
    return -1;
}

int mask_change(vael_pm_mask *mask, int32_t pattern_id, bool set, const char *caller) {
    if (!mask)
        return VAEL_ERROR;
    int32_t internal_id = vael_pm_find_pattern(mask->pm, pattern_id);
    if (internal_id < 0) {
        VAEL_LOG_AS(caller, VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Can't find pattern %d in pm_h %p\n", pattern_id,
                    (void *)mask->pm);
        return VAEL_ERROR;
    }
    uint32_t bit = 1u << (internal_id % 32);
    if (set)
        mask->mask[internal_id / 32] |= bit;
    else
        mask->mask[internal_id / 32] &= ~bit;
    return VAEL_OK;
}

}  // namespace

extern "C" vael_pm_mask *vael_pm_mask_create(vael_pm_handle *pm) {
    if (!pm) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Invalid arguments: NULL vael_pm_handle\n");
        return nullptr;
    }
    if (pm->num_tier2 == 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Illegal vael_pm_handle with 0 patterns\n");
        return nullptr;
    }
    uint32_t words = (pm->num_tier2 + 31) / 32;
    vael_pm_mask *mask = mask_alloc(pm, words);
    if (!mask)
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Failed to allocate mask for %d uints\n", (int)words);
    return mask;
}

extern "C" int vael_pm_mask_set(vael_pm_mask *mask, int32_t pattern_id) {
    return mask_change(mask, pattern_id, true, __func__);
}

extern "C" int vael_pm_mask_unset(vael_pm_mask *mask, int32_t pattern_id) {
    return mask_change(mask, pattern_id, false, __func__);
}

extern "C" void vael_pm_mask_destroy(vael_pm_mask *mask) {
    if (mask)
        VAEL_KFREE(mask, mask_bytes(mask->mask_size));
}

extern "C" vael_pm_mask *vael_pm_mask_dup(const vael_pm_mask *mask) {
    if (!mask) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Invalid arguments: NULL vael_pm_mask\n");
        return nullptr;
    }
    vael_pm_mask *copy = vael_pm_mask_create(mask->pm);
    if (!copy) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Failed to create mask for vael_pm_handle %p\n",
                 (void *)mask->pm);
        return nullptr;
    }
    if (copy->mask_size != mask->mask_size) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Incompatible mask sizes: %d vs %d\n", (int)copy->mask_size,
                 (int)mask->mask_size);
        vael_pm_mask_destroy(copy);
        return nullptr;
    }
    std::memcpy(copy->mask, mask->mask, sizeof(uint32_t) * mask->mask_size);
    return copy;
}

extern "C" int vael_pm_mask_and(vael_pm_mask *dst, const vael_pm_mask *src) {
    if (!dst || !src) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Invalid arguments: dst=%p, src=%p\n", (void *)dst,
                 (const void *)src);
        return VAEL_ERROR;
    }
    if (dst->pm != src->pm || dst->mask_size != src->mask_size) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR",
                 "%s: Incompatible masks: dst->pm_h=%p, src->pm_h=%p, dst->mask_size=%d, src->mask_size=%d\n",
                 (void *)dst->pm, (void *)src->pm, (int)dst->mask_size, (int)src->mask_size);
        return VAEL_ERROR;
    }
    for (uint32_t i = 0; i < dst->mask_size; i++)
        dst->mask[i] &= src->mask[i];
    return VAEL_OK;
}
