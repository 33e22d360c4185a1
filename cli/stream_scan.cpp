#include "stream_scan.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace vael::cli {

namespace {
// Bytes at the end of a flat run whose hits wait for the next run: a code
// point that follows a hit and starts here may be cut by the end of the run.
constexpr std::uint32_t kHeldBytes = 4;
}  // namespace

StreamScanner::StreamScanner(vael_pm_handle *pm, std::uint32_t history, bool all_matches, MatchSink sink,
                             bool match_start, bool flat)
    : pm_(pm),
      history_cap_(history),
      all_matches_(all_matches),
      sink_(sink),
      match_start_(match_start),
      flat_(flat) {
    if (pm_ != nullptr) vael_pm_set_extended_match_cb(pm_, on_match_ext);
    history_buf_.reset(new (std::nothrow) unsigned char[history_cap_ > 0 ? history_cap_ : 1]);
    if (flat_) {
        flat_buf_.reset(new (std::nothrow) unsigned char[history_cap_ + kMaxRun]);
        return;
    }
    // The window never holds more than the history: the block is replaced
    // after every run, never added to.
    if (history_cap_ > 0) vbuf_ = vael_vbuf_create(history_cap_, 0);
}

StreamScanner::~StreamScanner() { vael_vbuf_destroy(vbuf_); }

void StreamScanner::reset(void *sink_ctx) {
    sink_ctx_ = sink_ctx;
    if (vbuf_ != nullptr) vael_vbuf_reset(vbuf_);
    history_len_ = 0;
    position_ = 0;
    run_base_ = 0;
    floor_ = 0;
    ceiling_ = 0;
    held_ = 0;
    stop_ = false;
    reported_.clear();
}

StreamScanner::Result StreamScanner::feed(const unsigned char *data, std::size_t len) {
    while (len > 0) {
        const auto n = static_cast<std::uint32_t>(std::min(len, kMaxRun));
        if (const Result result = run(data, n); result != Result::more) return result;
        data += n;
        len -= n;
    }
    return Result::more;
}

StreamScanner::Result StreamScanner::finish() {
    if (!flat_ || held_ == 0 || history_len_ == 0 || stop_) return Result::more;
    return run(nullptr, 0, true);
}

StreamScanner::Result StreamScanner::run(const unsigned char *data, std::uint32_t len, bool last) {
    run_base_ = position_ - history_len_;
    floor_ = history_len_ - std::min(held_, history_len_);
    const std::uint32_t exec_flags = VAEL_PM_EXEC_ALL_MATCHES | (match_start_ ? VAEL_PM_EXEC_MATCH_START : 0);
    int rc = 0;
    if (flat_) {
        const std::uint32_t total = history_len_ + len;
        std::memcpy(flat_buf_.get(), history_buf_.get(), history_len_);
        if (len > 0) std::memcpy(flat_buf_.get() + history_len_, data, len);
        held_ = last ? 0 : std::min(kHeldBytes, total);
        ceiling_ = total - held_;
        if (total > 0) rc = vael_pm_exec_ex(pm_, flat_buf_.get(), total, nullptr, nullptr, this, exec_flags);
    } else {
        ceiling_ = UINT32_MAX;
        rc = vael_pm_exec_ex(pm_, data, len, history_len_ > 0 ? vbuf_ : nullptr, nullptr, this, exec_flags);
    }
    position_ += len;
    if (stop_) return Result::stopped;
    if (rc != 0 || (len > 0 && !keep_tail(data, len))) return Result::failed;
    return Result::more;
}

// The new history is the last history_cap_ bytes of the old history and the
// run's data.
bool StreamScanner::keep_tail(const unsigned char *data, std::uint32_t len) {
    if (history_cap_ == 0) return true;
    const std::uint32_t keep = static_cast<std::uint32_t>(std::min<std::uint64_t>(history_cap_, position_));
    if (len >= keep) {
        std::memcpy(history_buf_.get(), data + len - keep, keep);
    } else {
        const std::uint32_t old = keep - len;  // bytes kept from the old history
        std::memmove(history_buf_.get(), history_buf_.get() + history_len_ - old, old);
        std::memcpy(history_buf_.get() + old, data, len);
    }
    history_len_ = keep;
    if (flat_) return true;
    vael_vbuf_reset(vbuf_);
    if (vael_vbuf_add_buffer_ex(vbuf_, history_buf_.get(), history_len_, nullptr, nullptr) != 0) {
        history_len_ = 0;
        return false;
    }
    return true;
}

int StreamScanner::on_match(vael_pm_handle *pm, std::int32_t pattern_id, void *user_arg, const unsigned char *buf,
                            std::uint32_t len, std::uint32_t offset, vael_vbuf *vbuf, int *keep_going) {
    return on_match_ext(pm, pattern_id, user_arg, buf, len, offset, vbuf, keep_going, nullptr);
}

int StreamScanner::on_match_ext(vael_pm_handle *, std::int32_t pattern_id, void *user_arg, const unsigned char *,
                                std::uint32_t, std::uint32_t offset, vael_vbuf *, int *keep_going,
                                std::uint32_t *extra) {
    auto &self = *static_cast<StreamScanner *>(user_arg);
    // Ended in the history: the run before delivered it. Or ended where a
    // flat run cannot yet tell a word's end: the next run delivers it.
    if (offset < self.floor_ || offset >= self.ceiling_) return 0;
    if (!self.all_matches_) {
        try {
            if (!self.reported_.insert(pattern_id).second) return 0;
        } catch (const std::bad_alloc &) {
            return -1;  // the run fails, as for the library's own memory
        }
    }
    std::uint64_t start = kNoStart;
    // A start before the run's data (0xfffffffe) cannot come from a match
    // that the history holds whole; it reads as the run's first byte.
    if (self.match_start_ && extra != nullptr)
        start = self.run_base_ + (extra[1] <= offset ? extra[1] : 0);
    if (!self.sink_(self.sink_ctx_, pattern_id, start, self.run_base_ + offset)) {
        self.stop_ = true;
        *keep_going = 0;
    }
    return 0;
}

}  // namespace vael::cli
