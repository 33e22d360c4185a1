// vael_kw_test.cpp - the `test` keyword: a number taken out of the data at an
// offset (a binary field of 1 to 4 bytes, or a text field of 1 to 11
// characters) compared with a constant. It moves nothing.
//
// A field that does not fit in the range is out of range, and that is a
// non-match with or without '!': execute answers "match" for a negated
// keyword there, and the engine's negation turns it round.
//
// External interface: vael_kw_test_vtable and the functions behind it.

#include "keywords/vael_kw_keywords.h"

#include "runtime/vael_alloc.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwErrTopics = "K_KW | K_ERROR";
constexpr uint32_t kTestProps = VAEL_KW_PROP_ABSOLUTE | VAEL_KW_PROP_ANCHORED;
constexpr uint32_t kTailSize = 8;  // operator and value, behind the base

// The operator characters, by VAEL_KW_TEST_* value.
constexpr char kOperators[] = "=<>&^|";

const char kNoExtractLen[] = "Failed to retrieve the length of the extracted test value in test keyword";
const char kNoOperator[] = "Failed to retrieve the operator in test keyword";
const char kOperatorLength[] = "Illegal operator length in test keyword";
const char kBadOperator[] = "Illegal operator in test keyword";
const char kNoValue[] = "Failed to retrieve the value in test keyword";
const char kNoOffset[] = "Failed to retrieve the offset in test keyword";

vael_kw_test *as_test(vael_kw_abs *kw) { return reinterpret_cast<vael_kw_test *>(kw); }

int fail(vael_pm_error *err, const char *text) {
    vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, text);
    return -1;
}

const vael_kw_attr kTestAttrs[] = {
    {"test:", vael_kw_test_parse},          {"relative,", vael_kw_abs_relative_parse},
    {"big,", vael_kw_abs_big_parse},        {"little,", vael_kw_abs_little_parse},
    {"hex,", vael_kw_abs_hex_parse},        {"dec,", vael_kw_abs_dec_parse},
    {"oct,", vael_kw_abs_oct_parse},        {"string,", vael_kw_abs_string_parse},
    {"signed,", vael_kw_abs_signed_parse},  {"unsigned,", vael_kw_abs_unsigned_parse},
};
constexpr uint32_t kTestRows = sizeof(kTestAttrs) / sizeof(kTestAttrs[0]);

}  // namespace

extern "C" {

int vael_kw_test_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    vael_kw_test *k = as_test(kw);
    int32_t extract_len = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 10, &extract_len) != 0)
        return fail(err, kNoExtractLen);
    vael_kw_abs_set_depth(kw, (uint32_t)extract_len);
    vael_kw_abs_set_num_extract(kw);

    const char *end = nullptr;
    if (vael_kw_abs_get_next_value(text, &end) != 0)
        return fail(err, kNoOperator);
    if (**text == '!') {
        vael_kw_abs_set_negate(kw);
        (*text)++;
        if (vael_kw_abs_get_next_value(text, &end) != 0)
            return fail(err, kNoOperator);
    }
    if (end - *text != 1)
        return fail(err, kOperatorLength);
    uint32_t op = 0;
    while (op < VAEL_KW_TEST_OPERATORS && kOperators[op] != **text)
        op++;
    if (op == VAEL_KW_TEST_OPERATORS)
        return fail(err, kBadOperator);
    k->op = op;
    *text = end + 1;

    if (vael_kw_abs_get_next_value_numeric(text, 0, &k->value) != 0)
        return fail(err, kNoValue);
    int32_t offset = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 0, &offset) != 0)
        return fail(err, kNoOffset);
    vael_kw_abs_set_user_offset(kw, offset);
    return 0;
}

vael_kw_abs *vael_kw_test_create(const char *text, uint32_t type, vael_pm_error *err) {
    vael_kw_test *kw = VAEL_PM_NEW_ZEROED(vael_kw_test);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the test keyword\n");
        return nullptr;
    }
    vael_kw_abs_init(&kw->abs, type, kTestProps);
    uint32_t seen[kTestRows] = {};
    if (vael_kw_abs_addattrs(&kw->abs, text, kTestAttrs, seen, kTestRows, err) != 0) {
        vael_kw_test_destroy(&kw->abs);
        return nullptr;
    }
    return &kw->abs;
}

int vael_kw_test_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t, vael_vbuf *, uint32_t start_offset,
                         uint32_t size_to_scan, int, uint32_t *, uint32_t *next_offset, int *is_match) {
    const vael_kw_test *k = as_test(kw);
    *next_offset = start_offset;
    *is_match = 0;
    int out_of_range = 0;
    int32_t x = 0;
    if (vael_kw_abs_extract(kw, buf, start_offset, size_to_scan, &out_of_range, &x) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: value extraction failed\n");
        return -1;
    }
    if (out_of_range) {
        *is_match = vael_kw_abs_is_negated(kw);
        return 0;
    }
    const bool is_signed = (kw->flags & VAEL_KW_FLAG_SIGNED) != 0;
    const int32_t v = k->value;
    switch (k->op) {
    case VAEL_KW_TEST_EQ:
        *is_match = x == v;
        break;
    case VAEL_KW_TEST_LT:
        *is_match = is_signed ? x < v : (uint32_t)x < (uint32_t)v;
        break;
    case VAEL_KW_TEST_GT:
        *is_match = is_signed ? x > v : (uint32_t)x > (uint32_t)v;
        break;
    case VAEL_KW_TEST_AND:
        *is_match = (x & v) != 0;
        break;
    case VAEL_KW_TEST_NE:
        *is_match = x != v;
        break;
    case VAEL_KW_TEST_OR:
        *is_match = (x | v) != 0;
        break;
    default:
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: unknown operator\n");
        return -1;
    }
    return 0;
}

uint32_t vael_kw_test_get_serialized_size(vael_kw_abs *) { return vael_kw_abs_get_serialized_size() + kTailSize; }

int vael_kw_test_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space) {
    const vael_kw_test *k = as_test(kw);
    return vael_kw_abs_serialize_pair(__func__, kw, position, space, (uint32_t)k->op, (uint32_t)k->value);
}

vael_kw_abs *vael_kw_test_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                      vael_vbuf_iter *iter) {
    vael_kw_test *kw = VAEL_PM_NEW_ZEROED(vael_kw_test);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the test keyword\n");
        return nullptr;
    }
    uint32_t pair[2];
    if (vael_kw_abs_deserialize_pair(__func__, &kw->abs, position, space, vbuf, iter, pair) != 0) {
        vael_kw_test_destroy(&kw->abs);
        return nullptr;
    }
    kw->op = pair[0];
    kw->value = (int32_t)pair[1];
    return &kw->abs;
}

void vael_kw_test_destroy(vael_kw_abs *kw) {
    if (!kw)
        return;
    vael_kw_abs_destroy(kw);
    VAEL_PM_KFREE(kw, sizeof(vael_kw_test));
}

extern const vael_kw_vtable vael_kw_test_vtable = {
    vael_kw_test_create,    vael_kw_test_execute,     vael_kw_test_get_serialized_size,
    vael_kw_test_serialize, vael_kw_test_deserialize, vael_kw_test_destroy,
};

}  // extern "C"
