// vael_kw_engine.cpp - the decision engine: a rule's keywords run in order
// over one flat buffer, each from the offset the former ones left, as a
// backtracking search with a bounded stack.
//
// A keyword that can match in more than one place (floating) pushes the
// position behind its match, so that a later failure resumes it further on.
// The properties fixed at parse time say when going back cannot help: an
// absolute keyword that moves the offset empties the stack (a marker), and a
// keyword with give_up_no_match ends the rule when it fails. So a keyword
// pushes at most one position before the walk moves on, and a pop comes
// before any keyword runs again: the stack never holds more than `count`.
//
// The external interface is vael_kw_mgr_exec, and vael_kw_mgr_tier2_exec as
// the exec slot of the KW row.

#include "keywords/vael_kw_mgr.h"

#include <cstring>

#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwErrTopics = "K_KW | K_ERROR";
constexpr const char *kKwTopics = "K_KW";

// The pool keeps nothing in this build: every run allocates its stack.
uint32_t *exec_info_pool_get(uint32_t bytes) {
    (void)kw_exec_info_pool;
    return static_cast<uint32_t *>(VAEL_KMALLOC(bytes));
}

void exec_info_pool_put(uint32_t *slots, uint32_t bytes) { VAEL_KFREE(slots, bytes); }

int stack_push(vael_kw_stack *stack, const vael_kw_position *position) {
    if (stack->depth >= stack->count || stack->depth >= VAEL_KW_STACK_MAX) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: stack is full\n");
        return VAEL_ERROR;
    }
    uint32_t *slot = stack->slots + 4 * stack->depth++;
    slot[0] = position->offset;
    slot[1] = position->end;
    slot[2] = position->kw_index;
    return VAEL_OK;
}

// Restores three words; the fourth, a keyword's prev_scan, stays.
void stack_pop(vael_kw_stack *stack, vael_kw_position *position) {
    const uint32_t *slot = stack->slots + 4 * --stack->depth;
    position->offset = slot[0];
    position->end = slot[1];
    position->kw_index = slot[2];
}

}  // namespace

extern "C" const char *vael_kw_decision_to_string(int decision) {
    switch (decision) {
    case VAEL_KW_DECISION_NONE: return "NONE";
    case VAEL_KW_DECISION_PASS: return "PASS";
    case VAEL_KW_DECISION_PASS_COME_BACK: return "PASS_COME_BACK";
    case VAEL_KW_DECISION_PASS_MARKER: return "PASS_MARKER";
    case VAEL_KW_DECISION_PASS_MARKER_COME_BACK: return "PASS_MARKER_COME_BACK";
    case VAEL_KW_DECISION_BACKTRACK: return "BACKTRACK";
    case VAEL_KW_DECISION_NO_MATCH: return "NO_MATCH";
    default: return "Unknown";
    }
}

extern "C" int vael_kw_mgr_keyword_decision(const vael_kw_abs *keyword, int matched) {
    const uint32_t props = keyword->props;
    if (!matched)
        return (props & VAEL_KW_PROP_GIVE_UP_NO_MATCH) ? VAEL_KW_DECISION_NO_MATCH : VAEL_KW_DECISION_BACKTRACK;
    const uint32_t marker = VAEL_KW_PROP_ABSOLUTE | VAEL_KW_PROP_CHANGES_OFFSET;
    return ((props & VAEL_KW_PROP_ANCHORED) ? 0 : 1) + ((props & marker) == marker ? 2 : 0);
}

// The range a keyword may look at. Going back, the saved position already
// holds it; otherwise it starts at 0 or at the present offset, moves by the
// keyword's offset and is cut by its depth. Out of range is a non-match of
// the keyword, not a failure of the run.
extern "C" int vael_kw_mgr_find_start_offset(const vael_kw_abs *keyword, vael_kw_position *position, uint32_t len,
                                             int from_backtrack, uint32_t *start_offset, uint32_t *size_to_scan) {
    if (from_backtrack) {
        *start_offset = position->offset;
        // A keyword that moved the offset past its range leaves nothing.
        *size_to_scan = position->end > position->offset ? position->end - position->offset : 0;
        return VAEL_OK;
    }
    uint32_t start = (keyword->props & VAEL_KW_PROP_ABSOLUTE) ? 0 : position->offset;
    // A present offset beyond the data leaves nothing to scan.
    uint32_t size = len >= start ? len - start : 0;
    const int64_t user_offset = keyword->user_offset;
    if (user_offset < 0 && -user_offset > (int64_t)start) {
        VAEL_LOG(VAEL_DBG_INFO, kKwTopics,
                 "%s: Out of range. negative offset from keyword %d is greater than the current offset %u\n",
                 (int)position->kw_index, start);
        return VAEL_ERROR;
    }
    if (user_offset > 0 && user_offset > (int64_t)size) {
        VAEL_LOG(VAEL_DBG_INFO, kKwTopics,
                 "%s: Out of range. offset from keyword %d exceeds the remaining length %u\n",
                 (int)position->kw_index, size);
        return VAEL_ERROR;
    }
    start = (uint32_t)((int64_t)start + user_offset);
    size = (uint32_t)((int64_t)size - user_offset);
    if (keyword->depth != 0 && keyword->depth < size)
        size = keyword->depth;
    position->end = start + size;
    *start_offset = start;
    *size_to_scan = size;
    return VAEL_OK;
}

extern "C" int vael_kw_mgr_decision(vael_kw_mgr *mgr, vael_kw_stack *stack, vael_kw_position *position,
                                    int *from_backtrack, int matched) {
    const vael_kw_abs *keyword = mgr->keywords[position->kw_index];
    const uint32_t next = position->kw_index + 1 < mgr->count ? position->kw_index + 1 : VAEL_KW_INDEX_END;
    *from_backtrack = 0;
    const int decision = vael_kw_mgr_keyword_decision(keyword, matched);
    VAEL_LOG(VAEL_DBG_INFO, kKwTopics, "%s: keyword %u at offset %u: %s\n", position->kw_index, position->offset,
             vael_kw_decision_to_string(decision));
    switch (decision) {
    case VAEL_KW_DECISION_PASS:
        break;
    case VAEL_KW_DECISION_PASS_MARKER_COME_BACK:
        stack->depth = 0;
        [[fallthrough]];
    case VAEL_KW_DECISION_PASS_COME_BACK:
        // Saved with this keyword's index: a pop resumes it.
        if (stack_push(stack, position) != 0)
            return VAEL_ERROR;
        break;
    case VAEL_KW_DECISION_PASS_MARKER:
        stack->depth = 0;
        break;
    case VAEL_KW_DECISION_BACKTRACK:
        if (stack->depth) {
            stack_pop(stack, position);
            *from_backtrack = 1;
            return VAEL_OK;
        }
        position->kw_index = VAEL_KW_INDEX_END;
        return VAEL_OK;
    case VAEL_KW_DECISION_NO_MATCH:
        position->kw_index = VAEL_KW_INDEX_END;
        return VAEL_OK;
    default:
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Invalid keyword rc %d\n", decision);
        return VAEL_ERROR;
    }
    position->kw_index = next;
    return VAEL_OK;
}

extern "C" int vael_kw_mgr_exec(vael_kw_mgr *mgr, const unsigned char *buf, uint32_t len, int *is_match,
                                uint32_t *match_end) {
    *is_match = 0;
    if (!mgr)
        return VAEL_ERROR;
    // One block serves the stack and every keyword's prev_scan word; a
    // manager of no keywords (only an image can make one) matches nothing.
    const uint32_t slots = mgr->count ? mgr->count : 1;
    const uint32_t bytes = slots * 16;
    uint32_t *block = exec_info_pool_get(bytes);
    if (!block) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Failed to allocate %u bytes for stack\n", bytes);
        vael_pm_stats_common_update_exec(&mgr->stats, len, 0);
        return VAEL_ERROR;
    }
    std::memset(block, 0, bytes);
    vael_kw_stack stack = {0, slots, block};
    vael_kw_position position = {0, 0, mgr->count ? 0 : VAEL_KW_INDEX_END};
    int matched = mgr->count ? 1 : 0, from_backtrack = 0, rc = VAEL_OK;
    while (position.kw_index != VAEL_KW_INDEX_END) {
        vael_kw_abs *kw = mgr->keywords[position.kw_index];
        const vael_kw_vtable *vt = kw->type < VAEL_KW_TYPE_NUM ? vael_kw_table[kw->type].vtable : nullptr;
        if (!vt) {
            rc = VAEL_ERROR;
            break;
        }
        uint32_t start_offset = 0, size_to_scan = 0, next_offset = 0;
        if (vael_kw_mgr_find_start_offset(kw, &position, len, from_backtrack, &start_offset, &size_to_scan) != 0) {
            matched = 0;
        } else {
            int found = 0;
            if (vt->execute(kw, buf, len, nullptr, start_offset, size_to_scan, from_backtrack,
                            &block[4 * position.kw_index + 3], &next_offset, &found) != 0) {
                VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to execute keyword %d (%s)\n",
                         (int)position.kw_index, vael_kw_table[kw->type].name);
                rc = VAEL_ERROR;
                break;
            }
            matched = (kw->flags & VAEL_KW_FLAG_NEGATED) ? !found : (found != 0);
            if (matched && (kw->props & VAEL_KW_PROP_CHANGES_OFFSET)) {
                if (next_offset <= len) {
                    position.offset = next_offset;
                } else {
                    matched = 0;
                    VAEL_LOG(VAEL_DBG_INFO, kKwTopics,
                             "%s: Out of range. next_offset %u is greater than the buffer size %u\n", next_offset,
                             len);
                }
            }
        }
        if (vael_kw_mgr_decision(mgr, &stack, &position, &from_backtrack, matched) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: mgr decision failed\n");
            rc = VAEL_ERROR;
            break;
        }
    }
    if (rc == VAEL_OK && matched) {
        // A rule none of whose keywords moved the offset has no end to give.
        if (position.offset > 0) {
            *match_end = position.offset - 1;
            *is_match = 1;
        } else {
            VAEL_LOG(VAEL_DBG_INFO, kKwTopics, "%s: Found a null is_match - match_end=%d len=%d\n", -1, (int)len);
        }
    }
    // The null match above counts as a match here, as the run's verdict.
    vael_pm_stats_common_update_exec(&mgr->stats, len, (uint32_t)matched);
    exec_info_pool_put(block, bytes);
    return rc;
}

// The rule runs over the whole flat buffer the frame gives: the start, the
// queue and the flags have no meaning for it.
extern "C" int vael_kw_mgr_tier2_exec(void *handle, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                                      uint32_t start, lst_list **queue, uint32_t exec_flags,
                                      vael_pm_exec_cb_ctx *ctx) {
    (void)vbuf;
    (void)start;
    (void)queue;
    (void)exec_flags;
    int is_match = 0;
    uint32_t match_end = 0;
    if (vael_kw_mgr_exec(static_cast<vael_kw_mgr *>(handle), buf, len, &is_match, &match_end) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to execute the mgr\n");
        return VAEL_ERROR;
    }
    if (is_match && ctx && ctx->fn(ctx, match_end, nullptr, VAEL_PM_REM_DEFAULT_ID) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: user match callback returned VAEL_ERROR\n");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}
