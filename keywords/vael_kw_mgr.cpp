// vael_kw_mgr.cpp - the keyword manager: the grammar of a whole rule, the
// keyword table, the manager record with its image, and the KW row of
// pm_tier2_funcs.
//
// A rule is a list of keywords, each ended by a ';' outside double quotes.
// The manager copies the rule into a normalised form, cuts it into keyword
// texts and hands each to its keyword's create; the keywords' own grammar
// (attributes, values) is theirs. The run is vael_kw_engine.cpp.

#include "keywords/vael_kw_mgr.h"

#include <cstring>

#include "pm/vael_pm_strings.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwTopics = "K_KW";
constexpr const char *kKwErrTopics = "K_KW | K_ERROR";

// Texts handed to the rule's author in vael_pm_error.
const char kIllegalName[] = "Rule contains illegal keyword name";
const char kTooMany[] = "Rule contains too many keywords";
const char kRuleIllegal[] = "Keyword rule given by the user is illegal";
const char kRuleNoMemory[] = "Failed to allocate memory for rule";

}  // namespace

// The rows in this order: a name is found as the first row that is a prefix
// of the keyword's text.
vael_kw_table_row vael_kw_table[VAEL_KW_TYPE_NUM] = {
    {"data", 4, &vael_kw_data_vtable}, {"length", 6, &vael_kw_length_vtable}, {"test", 4, &vael_kw_test_vtable},
    {"re", 2, &vael_kw_re_vtable},     {"jump", 4, &vael_kw_jump_vtable},     {"pcre", 4, &vael_kw_pcre_vtable},
};

namespace {

const vael_kw_vtable *vtable_of(const vael_kw_abs *kw) {
    return kw && kw->type < VAEL_KW_TYPE_NUM ? vael_kw_table[kw->type].vtable : nullptr;
}

const char *name_of(uint32_t type) { return type < VAEL_KW_TYPE_NUM ? vael_kw_table[type].name : "unknown"; }

void destroy_keyword(vael_kw_abs *kw) {
    if (const vael_kw_vtable *vt = vtable_of(kw))
        vt->destroy(kw);
}

const char *skip_whitespace(const char *p) {
    while (is_whitespace((unsigned char)*p))
        p++;
    return p;
}

// The first ';' outside double quotes, or null. A quote ends the quoted run
// unless an odd run of backslashes stands before it.
char *vael_kw_mgr_next_kw(char *text) {
    bool in_quotes = false;
    for (char *p = text; *p; p++) {
        if (*p == '"') {
            if (!in_quotes)
                in_quotes = true;
            else if (!vael_kw_mgr_is_escaped(text, (uint32_t)(p - text)))
                in_quotes = false;
        } else if (*p == ';' && !in_quotes) {
            return p;
        }
    }
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- grammar

extern "C" int vael_kw_mgr_is_escaped(const char *text, uint32_t index) {
    uint32_t backslashes = 0;
    while (backslashes < index && text[index - 1 - backslashes] == '\\')
        backslashes++;
    return backslashes % 2 == 1;
}

// The normalised copy: the delimiter clause read and dropped, its character
// turned into '"' everywhere, and whitespace in front of ',' and ';' outside
// quotes removed, so that every value reader finds its comma right behind
// the value. `size` is the text's length with its NUL, the room of `out`.
extern "C" int vael_kw_mgr_copy_rule(const char *text, uint32_t size, char *out) {
    const char *p = skip_whitespace(text);
    bool have_delim = false;
    char delim = 0;
    if (std::strncmp(p, "delim=", 6) == 0) {
        delim = p[6];
        // "delim=" at the very end has no character, and no ';' either.
        p = delim ? skip_whitespace(p + 7) : p + 6;
        if (*p != ';') {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: missing ';' after delimiter\n");
            return VAEL_ERROR;
        }
        p++;
        have_delim = true;
    }
    uint32_t o = 0, blanks_start = 0;
    bool in_quotes = false, in_blanks = false;
    for (; *p && o + 1 < size; p++) {
        const auto c = (unsigned char)*p;
        if (in_blanks && !is_whitespace(c)) {
            in_blanks = false;
            if (c == ',' || c == ';')
                o = blanks_start;
        }
        const char ch = have_delim && (char)c == delim ? '"' : (char)c;
        out[o] = ch;
        if (ch == '"') {
            if (!in_quotes) {
                in_quotes = true;
                in_blanks = false;
            } else {
                in_quotes = vael_kw_mgr_is_escaped(out, o);
            }
        }
        if (!in_quotes && !in_blanks && is_whitespace((unsigned char)ch)) {
            blanks_start = o;
            in_blanks = true;
        }
        o++;
    }
    out[o] = '\0';
    return VAEL_OK;
}

extern "C" int vael_kw_mgr_add_kw(vael_kw_abs **keywords, uint32_t *count_inout, const char *rule_text,
                                  vael_pm_error *err) {
    if (!keywords || !count_inout || !rule_text)
        return VAEL_ERROR;
    const uint32_t capacity = *count_inout;
    std::memset(keywords, 0, sizeof(*keywords) * capacity);
    *count_inout = 0;
    const uint32_t size = pm_strlen(rule_text) + 1;
    auto *copy = static_cast<char *>(VAEL_KMALLOC(size));
    if (!copy || vael_kw_mgr_copy_rule(rule_text, size, copy) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to copy the rule\n");
        if (copy)
            VAEL_KFREE(copy, size);
        return VAEL_ERROR;
    }
    uint32_t count = 0;
    auto fail = [&]() {
        for (uint32_t i = 0; i < count; i++) {
            destroy_keyword(keywords[i]);
            keywords[i] = nullptr;
        }
        VAEL_KFREE(copy, size);
        return VAEL_ERROR;
    };
    char *p = const_cast<char *>(skip_whitespace(copy));
    if (!*p) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: an empty rule\n");
        return fail();
    }
    // While every keyword so far leaves later ones the same or later
    // offsets, a monotonous keyword can only be started later by going
    // back, which cannot help it: it gives up at once.
    bool all_order_preserving = true;
    while (count < capacity) {
        uint32_t type = 0;
        while (type < VAEL_KW_TYPE_NUM &&
               std::strncmp(p, vael_kw_table[type].name, vael_kw_table[type].name_len) != 0)
            type++;
        if (type == VAEL_KW_TYPE_NUM) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: illegal keyword name in keyword %d\n", (int)count);
            vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kIllegalName);
            return fail();
        }
        char *end = vael_kw_mgr_next_kw(p);
        if (!end) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: missing ';' for keyword %d\n", (int)count);
            return fail();
        }
        const vael_kw_vtable *vt = vael_kw_table[type].vtable;
        if (!vt) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: keyword %d (%s) has no function table\n", (int)count,
                     vael_kw_table[type].name);
            return fail();
        }
        // The keyword's text ends in ',' so that its last attribute finds
        // its comma like the others.
        const char saved = end[1];
        *end = ',';
        end[1] = '\0';
        vael_kw_abs *kw = vt->create(p, type, err);
        *end = ';';
        end[1] = saved;
        if (!kw) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to create keyword %d (%s)\n", (int)count,
                     vael_kw_table[type].name);
            return fail();
        }
        keywords[count++] = kw;
        if ((kw->props & VAEL_KW_PROP_ABSOLUTE) ||
            (all_order_preserving && (kw->props & VAEL_KW_PROP_MONOTONOUS)))
            kw->props |= VAEL_KW_PROP_GIVE_UP_NO_MATCH;
        if (!(kw->props & VAEL_KW_PROP_ORDER_PRESERVING))
            all_order_preserving = false;
        p = const_cast<char *>(skip_whitespace(end + 1));
        if (!*p) {
            *count_inout = count;
            VAEL_KFREE(copy, size);
            return VAEL_OK;
        }
    }
    VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: can't add keyword, max keywords reached (%d)\n", (int)capacity);
    vael_pm_error_set_details(err, VAEL_PM_ERROR_COMPLEX, kTooMany);
    return fail();
}

// ---------------------------------------------------------------- manager record

namespace {

size_t mgr_bytes(uint32_t count) { return sizeof(vael_kw_mgr) + sizeof(vael_kw_abs *) * count; }

}  // namespace

extern "C" int vael_kw_mgr_stats_alloc_and_init(vael_kw_mgr *mgr) { return vael_pm_stats_common_init(&mgr->stats); }

extern "C" vael_kw_mgr *vael_kw_mgr_create(vael_kw_abs **keywords, uint32_t count) {
    auto *mgr = static_cast<vael_kw_mgr *>(VAEL_PM_KMALLOC(mgr_bytes(count)));
    if (!mgr) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the mgr\n");
        return nullptr;
    }
    std::memset(mgr, 0, mgr_bytes(count));
    mgr->count = count;
    if (vael_kw_mgr_stats_alloc_and_init(mgr) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate mgr stats\n");
        VAEL_PM_KFREE(mgr, mgr_bytes(count));
        return nullptr;
    }
    if (keywords && count)
        std::memcpy(mgr->keywords, keywords, sizeof(*keywords) * count);
    return mgr;
}

// Takes a manager that is partly filled, as a failed load leaves it.
extern "C" void vael_kw_mgr_destroy(void *handle) {
    auto *mgr = static_cast<vael_kw_mgr *>(handle);
    if (!mgr)
        return;
    for (uint32_t i = 0; i < mgr->count; i++)
        destroy_keyword(mgr->keywords[i]);
    vael_pm_stats_common_free(&mgr->stats);
    VAEL_PM_KFREE(mgr, mgr_bytes(mgr->count));
}

extern "C" void *vael_pm_compile_keywords(vael_pmglob_string *string, uint32_t compile_flags,
                                          uint32_t pattern_flags, vael_pm_error *err) {
    (void)compile_flags;
    (void)pattern_flags;
    if (!string || !string->pattern) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: No keywords rule.\n");
        return nullptr;
    }
    vael_kw_abs *keywords[VAEL_KW_MAX_KEYWORDS];
    uint32_t count = VAEL_KW_MAX_KEYWORDS;
    if (vael_kw_mgr_add_kw(keywords, &count, reinterpret_cast<const char *>(string->pattern), err) != 0) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, kRuleIllegal);
        return nullptr;
    }
    vael_kw_mgr *mgr = vael_kw_mgr_create(keywords, count);
    if (!mgr) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, kRuleNoMemory);
        for (uint32_t i = 0; i < count; i++)
            destroy_keyword(keywords[i]);
        return nullptr;
    }
    return mgr;
}

// ---------------------------------------------------------------- image

extern "C" uint32_t vael_kw_mgr_serialize_get_size(void *handle) {
    auto *mgr = static_cast<vael_kw_mgr *>(handle);
    if (!mgr)
        return 0;
    uint32_t size = 12 + vael_pm_stats_common_get_serialize_size();
    for (uint32_t i = 0; i < mgr->count; i++) {
        vael_kw_abs *kw = mgr->keywords[i];
        const vael_kw_vtable *vt = vtable_of(kw);
        const uint32_t kw_size = vt ? vt->get_serialized_size(kw) : 0;
        if (kw_size == 0) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to get serialize size for keyword %d (%s)\n", (int)i,
                     name_of(kw ? kw->type : VAEL_KW_TYPE_NUM));
            return 0;
        }
        size += 4 + kw_size;
    }
    return size;
}

extern "C" int vael_kw_mgr_serialize(void *handle, unsigned char **position, uint32_t *space) {
    auto *mgr = static_cast<vael_kw_mgr *>(handle);
    if (!mgr || !position || !*position || !space) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Invalid arguments\n");
        return VAEL_ERROR;
    }
    const uint32_t needed = vael_kw_mgr_serialize_get_size(mgr);
    if (needed == 0)
        return VAEL_ERROR;
    if (*space < needed) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: serialization buffer is too small (%d < %d)\n", (int)*space,
                 (int)needed);
        return VAEL_ERROR;
    }
    vael::image_put_u32(position, space, VAEL_KW_MGR_MAGIC);
    vael::image_put_u32(position, space, mgr->count);
    for (uint32_t i = 0; i < mgr->count; i++) {
        vael_kw_abs *kw = mgr->keywords[i];
        vael::image_put_u32(position, space, kw->type);
        if (vtable_of(kw)->serialize(kw, position, space) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to serialize keyword %d (%s)\n", (int)i,
                     name_of(kw->type));
            return VAEL_ERROR;
        }
    }
    vael::image_put_u32(position, space, VAEL_KW_MGR_STATS_MAGIC);
    if (*space < vael_pm_stats_common_get_serialize_size()) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: statistics serialization failed\n");
        return VAEL_ERROR;
    }
    vael_pm_stats_common_serialize(&mgr->stats, position, space);
    return VAEL_OK;
}

extern "C" void *vael_kw_mgr_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                         vael_vbuf_iter *iter) {
    if (!space || (!vbuf && (!position || !*position)) || (vbuf && !iter)) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Invalid arguments\n");
        return nullptr;
    }
    vael::ImageReader in{position, space, vbuf, iter};
    uint32_t magic = 0, count = 0;
    in.u32(&magic);
    if (magic != VAEL_KW_MGR_MAGIC) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Wrong serialization magic (%x) at the buffer\n", magic);
        return nullptr;
    }
    in.u32(&count);
    if (count > VAEL_KW_MAX_KEYWORDS) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: keywords number is too big (%d > %d)\n", (int)count,
                 VAEL_KW_MAX_KEYWORDS);
        return nullptr;
    }
    vael_kw_mgr *mgr = vael_kw_mgr_create(nullptr, count);
    if (!mgr)
        return nullptr;
    auto fail = [&]() -> void * {
        vael_kw_mgr_destroy(mgr);
        return nullptr;
    };
    for (uint32_t i = 0; i < count; i++) {
        uint32_t type = 0;
        in.u32(&type);
        if (type >= VAEL_KW_TYPE_NUM) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: can't add keyword, invalid keyword type %d\n", (int)type);
            return fail();
        }
        const vael_kw_vtable *vt = vael_kw_table[type].vtable;
        vael_kw_abs *kw = vt ? vt->deserialize(in.position, in.space, in.vbuf, in.iter) : nullptr;
        // The keyword is destroyed through the type in its own record: one
        // that disagrees with the type in front of it is a corrupt image.
        if (kw && kw->type != type) {
            vt->destroy(kw);
            kw = nullptr;
        }
        if (!kw) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to deserialize keyword %d (%s)\n", (int)i,
                     name_of(type));
            return fail();
        }
        mgr->keywords[i] = kw;
    }
    in.u32(&magic);
    if (magic != VAEL_KW_MGR_STATS_MAGIC) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Wrong serialization magic (%x) at the buffer\n", magic);
        return fail();
    }
    if (vael_pm_stats_common_deserialize(&mgr->stats, in.position, in.space, in.vbuf, in.iter) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: statistics deserialization failed\n");
        return fail();
    }
    return mgr;
}

// Through the image: a copy holds exactly what an image would.
extern "C" void *vael_kw_mgr_duplicate(void *handle) {
    const uint32_t size = vael_kw_mgr_serialize_get_size(handle);
    if (size == 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to get kw_mgr serialization buf size\n");
        return nullptr;
    }
    auto *block = static_cast<unsigned char *>(VAEL_KMALLOC(size));
    if (!block) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate %u bytes for kw mgr serialized buffer\n", size);
        return nullptr;
    }
    unsigned char *out = block;
    uint32_t space = size;
    void *copy = nullptr;
    if (vael_kw_mgr_serialize(handle, &out, &space) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to serialize kw mgr\n");
    } else {
        const unsigned char *in = block;
        space = size;
        copy = vael_kw_mgr_deserialize(&in, &space, nullptr, nullptr);
        if (!copy)
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to deserialize kw mgr\n");
    }
    VAEL_KFREE(block, size);
    return copy;
}

// ---------------------------------------------------------------- the frame's row

namespace {

void kw_stats_print(void *handle, int level) {
    auto *mgr = static_cast<vael_kw_mgr *>(handle);
    if (mgr)
        vael_pm_stats_common_print(&mgr->stats, level, VAEL_PM_STATS_FORMAT_TEXT, 0);
}

vael_pm_stats_common *kw_get_common_stats(void *handle) {
    return handle ? &static_cast<vael_kw_mgr *>(handle)->stats : nullptr;
}

void kw_dump(void *, int) { vael_us_adaptor_kdprintf("dump is not supported for keywords\n"); }

uint32_t kw_find_match_start(void *, const unsigned char *, uint32_t, vael_vbuf *, uint32_t, vael_pmglob_match_data *,
                             uint32_t, uint32_t) {
    return (uint32_t)-2;
}

}  // namespace

vael_kw_exec_info_pool_t kw_exec_info_pool;

extern "C" int vael_kw_init(vael_pm_tier2_funcs *row) {
    if (!row)
        return VAEL_ERROR;
    // The exec info pool has nothing to make in this build: a run allocates
    // its own stack.
    kw_exec_info_pool = vael_kw_exec_info_pool_t{0, 0};
    static const vael_pm_tier2_funcs kRow = {
        "KW",
        VAEL_PM_TIER2_NEEDS_FLAT,
        vael_pm_compile_keywords,
        vael_kw_mgr_tier2_exec,
        [](void *) { return 0; },
        kw_find_match_start,
        vael_kw_mgr_duplicate,
        vael_kw_mgr_serialize_get_size,
        vael_kw_mgr_serialize,
        vael_kw_mgr_deserialize,
        [](void *) { return 1; },
        vael_kw_mgr_destroy,
        kw_stats_print,
        kw_get_common_stats,
        kw_dump,
    };
    *row = kRow;
    VAEL_LOG(VAEL_DBG_INFO, kKwTopics, "%s: keyword rules ready\n");
    return VAEL_OK;
}

extern "C" void vael_kw_fini(void) { kw_exec_info_pool = vael_kw_exec_info_pool_t{0, 0}; }
