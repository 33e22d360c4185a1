// vael_kw_jump.cpp - the `jump` keyword: a length field read out of the data
// (a binary field of 1 to 4 bytes, or a text field of 1 to 11 characters)
// moves the present offset, which is how a rule steps over the
// variable-length records of a protocol.
//
// The move is the field's number times `multiplier`, rounded up to a
// multiple of 4 with `align`, plus `post_offset`, and counts from the start
// of the field, or from the buffer's start with `from_beginning`. A move
// before the buffer's start is a non-match here; one past its end is the
// engine's to refuse, which takes a move to exactly the end.
//
// The numbers of the rule are read in base 10, not in the auto base of the
// other keywords, so `jump: 010, 0;` reads a field of ten bytes. The rows
// "signed" and "unsigned" stand in the table without their comma and read
// nothing, so the comma is left over and refused: a binary field of a jump
// is always unsigned, a text field always signed.
//
// External interface: vael_kw_jump_vtable and the functions behind it.

#include "keywords/vael_kw_keywords.h"

#include "runtime/vael_alloc.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwTopics = "K_KW";
constexpr const char *kKwErrTopics = "K_KW | K_ERROR";
constexpr uint32_t kJumpProps = VAEL_KW_PROP_ABSOLUTE | VAEL_KW_PROP_ANCHORED | VAEL_KW_PROP_CHANGES_OFFSET;
constexpr uint32_t kTailSize = 12;  // jump_flags, multiplier, post_offset, behind the base

const char kNoLength[] = "Failed to retrieve the length in jump keyword";
const char kNoOffset[] = "Failed to retrieve the offset in jump keyword";
const char kNoMultiplier[] = "Failed to retrieve the multiplier in jump keyword";
const char kNegativeMultiplier[] = "Illegal negative multiplier in jump keyword";
const char kNoPostOffset[] = "Failed to retrieve the post offset in jump keyword";

vael_kw_jump *as_jump(vael_kw_abs *kw) { return reinterpret_cast<vael_kw_jump *>(kw); }

int fail(vael_pm_error *err, const char *text) {
    vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, text);
    return -1;
}

int align_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    as_jump(kw)->jump_flags |= VAEL_KW_JUMP_ALIGN;
    return 0;
}

int from_beginning_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    as_jump(kw)->jump_flags |= VAEL_KW_JUMP_FROM_BEGINNING;
    return 0;
}

// The parser of "signed" and "unsigned": it takes nothing, so the comma
// behind the name finds no row on the next pass.
int takes_nothing(vael_kw_abs *, const char **, vael_pm_error *) { return 0; }

const vael_kw_attr kJumpAttrs[] = {
    {"jump:", vael_kw_jump_parse},
    {"relative,", vael_kw_abs_relative_parse},
    {"big,", vael_kw_abs_big_parse},
    {"little,", vael_kw_abs_little_parse},
    {"hex,", vael_kw_abs_hex_parse},
    {"dec,", vael_kw_abs_dec_parse},
    {"oct,", vael_kw_abs_oct_parse},
    {"align,", align_parse},
    {"from_beginning,", from_beginning_parse},
    {"string,", vael_kw_abs_string_parse},
    {"multiplier", vael_kw_jump_multiplier_parse},
    {"post_offset", vael_kw_jump_post_offset_parse},
    {"signed", takes_nothing},
    {"unsigned", takes_nothing},
};
constexpr uint32_t kJumpRows = sizeof(kJumpAttrs) / sizeof(kJumpAttrs[0]);

}  // namespace

extern "C" {

int vael_kw_jump_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    int32_t extract_len = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 10, &extract_len) != 0)
        return fail(err, kNoLength);
    vael_kw_abs_set_depth(kw, (uint32_t)extract_len);
    vael_kw_abs_set_num_extract(kw);
    int32_t offset = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 10, &offset) != 0)
        return fail(err, kNoOffset);
    vael_kw_abs_set_user_offset(kw, offset);
    return 0;
}

int vael_kw_jump_multiplier_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    int32_t value = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 10, &value) != 0)
        return fail(err, kNoMultiplier);
    if (value < 1)
        return fail(err, kNegativeMultiplier);
    as_jump(kw)->multiplier = value;
    return 0;
}

int vael_kw_jump_post_offset_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    int32_t value = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 10, &value) != 0)
        return fail(err, kNoPostOffset);
    as_jump(kw)->post_offset = value;
    return 0;
}

vael_kw_abs *vael_kw_jump_create(const char *text, uint32_t type, vael_pm_error *err) {
    vael_kw_jump *kw = VAEL_PM_NEW_ZEROED(vael_kw_jump);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the jump keyword\n");
        return nullptr;
    }
    vael_kw_abs_init(&kw->abs, type, kJumpProps);
    kw->multiplier = 1;
    uint32_t seen[kJumpRows] = {};
    if (vael_kw_abs_addattrs(&kw->abs, text, kJumpAttrs, seen, kJumpRows, err) != 0) {
        vael_kw_jump_destroy(&kw->abs);
        return nullptr;
    }
    return &kw->abs;
}

int vael_kw_jump_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t, vael_vbuf *, uint32_t start_offset,
                         uint32_t size_to_scan, int, uint32_t *, uint32_t *next_offset, int *is_match) {
    const vael_kw_jump *k = as_jump(kw);
    *next_offset = start_offset;
    *is_match = 0;
    int out_of_range = 0;
    int32_t field = 0;
    if (vael_kw_abs_extract(kw, buf, start_offset, size_to_scan, &out_of_range, &field) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: value extraction failed\n");
        return -1;
    }
    if (out_of_range)
        return 0;
    // 32-bit arithmetic that wraps, as the field and the rule's numbers
    // are the user's: only the final value is read as signed.
    uint32_t v = (uint32_t)field * (uint32_t)k->multiplier;
    if (k->jump_flags & VAEL_KW_JUMP_ALIGN)
        v = (v + 3u) & ~3u;
    v += (uint32_t)k->post_offset;
    const int32_t jump = (int32_t)v;
    if (k->jump_flags & VAEL_KW_JUMP_FROM_BEGINNING) {
        if (jump < 0) {
            VAEL_LOG(VAEL_DBG_INFO, kKwTopics, "%s: Out of range. negative jump_value %d and from_beginning\n", jump);
            return 0;
        }
        *next_offset = v;
    } else if (jump < 0) {
        const uint32_t back = 0u - v;
        if (back > start_offset) {
            VAEL_LOG(VAEL_DBG_INFO, kKwTopics,
                     "%s: Out of range. negative jump_value %d is greater than the current offset %u\n", jump,
                     start_offset);
            return 0;
        }
        *next_offset = start_offset - back;
    } else {
        // A sum past 32 bits would wrap below the buffer's end and pass
        // the engine's test: it is past every buffer, so no match.
        const uint64_t to = (uint64_t)start_offset + v;
        if (to > UINT32_MAX) {
            VAEL_LOG(VAEL_DBG_INFO, kKwTopics, "%s: Out of range. jump_value %d from offset %u\n", jump, start_offset);
            return 0;
        }
        *next_offset = (uint32_t)to;
    }
    *is_match = 1;
    return 0;
}

uint32_t vael_kw_jump_get_serialized_size(vael_kw_abs *) { return vael_kw_abs_get_serialized_size() + kTailSize; }

int vael_kw_jump_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space) {
    const vael_kw_jump *k = as_jump(kw);
    if (vael_kw_abs_serialize(kw, position, space) != 0)
        return -1;
    if (*space < kTailSize) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: needed_size (%d) > *buf_size (%d)\n", (int)kTailSize, (int)*space);
        return -1;
    }
    const uint32_t words[3] = {k->jump_flags, (uint32_t)k->multiplier, (uint32_t)k->post_offset};
    vael::image_put_bytes(position, space, words, sizeof(words));
    return 0;
}

vael_kw_abs *vael_kw_jump_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                      vael_vbuf_iter *iter) {
    vael_kw_jump *kw = VAEL_PM_NEW_ZEROED(vael_kw_jump);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the jump keyword\n");
        return nullptr;
    }
    if (vael_kw_abs_deserialize(&kw->abs, position, space, vbuf, iter) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed the deserialize abs kw\n");
        vael_kw_jump_destroy(&kw->abs);
        return nullptr;
    }
    // A short tail leaves the space 0 and the words 0, for the manager's
    // next magic to refuse.
    uint32_t words[3] = {};
    vael::ImageReader reader{position, space, vbuf, iter};
    if (reader.bytes(words, sizeof(words))) {
        kw->jump_flags = words[0];
        kw->multiplier = (int32_t)words[1];
        kw->post_offset = (int32_t)words[2];
    }
    return &kw->abs;
}

void vael_kw_jump_destroy(vael_kw_abs *kw) {
    if (!kw)
        return;
    vael_kw_abs_destroy(kw);
    VAEL_PM_KFREE(kw, sizeof(vael_kw_jump));
}

extern const vael_kw_vtable vael_kw_jump_vtable = {
    vael_kw_jump_create,    vael_kw_jump_execute,     vael_kw_jump_get_serialized_size,
    vael_kw_jump_serialize, vael_kw_jump_deserialize, vael_kw_jump_destroy,
};

}  // extern "C"
