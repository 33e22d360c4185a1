// vael_kw_length.cpp - the `length` keyword: the length of the rest of the
// buffer from the keyword's start against a number, as exact, min or max.
// It moves nothing, so it is anchored and order-preserving; `min` makes it
// monotonous, as a later start can only shorten the rest.
//
// External interface: vael_kw_length_vtable and the functions behind it.

#include "keywords/vael_kw_keywords.h"

#include "runtime/vael_alloc.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwErrTopics = "K_KW | K_ERROR";
constexpr uint32_t kLengthProps = VAEL_KW_PROP_ABSOLUTE | VAEL_KW_PROP_ANCHORED;
constexpr uint32_t kTailSize = 8;  // length and comparison, behind the base

const char kNoValue[] = "Failed to retrieve the length value in the length keyword";
const char kNoComparison[] = "None of attributes (exact, min, max) was set in length keyword";
const char kManyComparisons[] = "More than one attribute (exact, min, max) was set in length keyword";

vael_kw_length *as_length(vael_kw_abs *kw) { return reinterpret_cast<vael_kw_length *>(kw); }

int exact_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    as_length(kw)->comparison |= VAEL_KW_LENGTH_EXACT;
    return 0;
}

int min_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    as_length(kw)->comparison |= VAEL_KW_LENGTH_MIN;
    vael_kw_abs_set_monotonous(kw);
    return 0;
}

int max_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    as_length(kw)->comparison |= VAEL_KW_LENGTH_MAX;
    return 0;
}

const vael_kw_attr kLengthAttrs[] = {
    {"length:", vael_kw_length_parse}, {"relative,", vael_kw_abs_relative_parse},
    {"exact,", exact_parse},           {"min,", min_parse},
    {"max,", max_parse},
};
constexpr uint32_t kLengthRows = sizeof(kLengthAttrs) / sizeof(kLengthAttrs[0]);

}  // namespace

extern "C" {

int vael_kw_length_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    int32_t value = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 0, &value) != 0) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kNoValue);
        return -1;
    }
    as_length(kw)->length = (uint32_t)value;
    return 0;
}

vael_kw_abs *vael_kw_length_create(const char *text, uint32_t type, vael_pm_error *err) {
    vael_kw_length *kw = VAEL_PM_NEW_ZEROED(vael_kw_length);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the length keyword\n");
        return nullptr;
    }
    vael_kw_abs_init(&kw->abs, type, kLengthProps);
    uint32_t seen[kLengthRows] = {};
    if (vael_kw_abs_addattrs(&kw->abs, text, kLengthAttrs, seen, kLengthRows, err) != 0) {
        vael_kw_length_destroy(&kw->abs);
        return nullptr;
    }
    const uintptr_t c = kw->comparison;
    const char *problem = c == 0 ? kNoComparison : (c & (c - 1)) ? kManyComparisons : nullptr;
    if (problem) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, problem);
        vael_kw_length_destroy(&kw->abs);
        return nullptr;
    }
    return &kw->abs;
}

int vael_kw_length_execute(vael_kw_abs *kw, const unsigned char *, uint32_t, vael_vbuf *, uint32_t start_offset,
                           uint32_t size_to_scan, int, uint32_t *, uint32_t *next_offset, int *is_match) {
    const vael_kw_length *k = as_length(kw);
    *next_offset = start_offset;
    *is_match = 0;
    switch (k->comparison) {
    case VAEL_KW_LENGTH_EXACT:
        *is_match = k->length == size_to_scan;
        return 0;
    case VAEL_KW_LENGTH_MIN:
        *is_match = k->length <= size_to_scan;
        return 0;
    case VAEL_KW_LENGTH_MAX:
        *is_match = k->length >= size_to_scan;
        return 0;
    default:
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Invalid length comparison %x", (unsigned)k->comparison);
        return -1;
    }
}

uint32_t vael_kw_length_get_serialized_size(vael_kw_abs *) { return vael_kw_abs_get_serialized_size() + kTailSize; }

int vael_kw_length_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space) {
    const vael_kw_length *k = as_length(kw);
    return vael_kw_abs_serialize_pair(__func__, kw, position, space, k->length, (uint32_t)k->comparison);
}

vael_kw_abs *vael_kw_length_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                        vael_vbuf_iter *iter) {
    vael_kw_length *kw = VAEL_PM_NEW_ZEROED(vael_kw_length);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the length keyword\n");
        return nullptr;
    }
    uint32_t pair[2];
    if (vael_kw_abs_deserialize_pair(__func__, &kw->abs, position, space, vbuf, iter, pair) != 0) {
        vael_kw_length_destroy(&kw->abs);
        return nullptr;
    }
    kw->length = pair[0];
    kw->comparison = pair[1];
    return &kw->abs;
}

void vael_kw_length_destroy(vael_kw_abs *kw) {
    if (!kw)
        return;
    vael_kw_abs_destroy(kw);
    VAEL_PM_KFREE(kw, sizeof(vael_kw_length));
}

extern const vael_kw_vtable vael_kw_length_vtable = {
    vael_kw_length_create,    vael_kw_length_execute,     vael_kw_length_get_serialized_size,
    vael_kw_length_serialize, vael_kw_length_deserialize, vael_kw_length_destroy,
};

}  // extern "C"
