// stream_scan.h - scanning an input of any size as a stream of pieces, in
// bounded memory, through the library's public run call.
//
// A run of the library reports offsets of 32 bits and keeps every hit of the
// run queued until the run ends, so one run over a whole file would bound the
// file by 4 GiB and the memory by the number of hits. A StreamScanner instead
// runs once per piece of at most kMaxRun bytes. The last bytes of the stream
// before the piece, enough for the longest pattern to end inside the piece,
// go with it as the run's history (a vbuf of one block), so a match that
// straddles two pieces is found; hits that end inside the history were
// delivered by the run before and are dropped. Offsets handed to the sink are
// 64-bit offsets in the whole stream.
//
// The state of the automaton is thus carried by rescanning the history, a few
// bytes per run: the public API gives no way to hand a run's final state to
// the next run.
//
// A PM with words runs flat: the word matcher reads no vbuf, so the history
// and the piece are copied into one buffer. A word cut by the end of a run is
// not yet known to end there, so in that mode hits that end in the last few
// bytes of a run are left to the next run, which holds those bytes in its
// history, and finish() delivers them at the end of the stream.
#ifndef VAEL_CLI_STREAM_SCAN_H
#define VAEL_CLI_STREAM_SCAN_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_set>

#include "vael/vael_pm.h"

namespace vael::cli {

// Receives one match: the user's pattern id, the stream offset of its first
// byte (kNoStart unless the scanner was asked for starts) and of its last
// byte. Returns false to end the stream's scan.
constexpr std::uint64_t kNoStart = UINT64_MAX;
using MatchSink = bool (*)(void *ctx, std::int32_t pattern_id, std::uint64_t start_offset, std::uint64_t end_offset);

class StreamScanner {
public:
    // A run covers at most this many new bytes, which bounds the hits the
    // library queues in one run, whatever the size of the pieces fed.
    static constexpr std::size_t kMaxRun = 64 * 1024;

    // `history` is the number of bytes before a run that a match ending in
    // the run may reach back into: the longest pattern's length minus one.
    // `all_matches`: every occurrence; else the first of each pattern id in
    // the stream. `match_start`: the sink gets each match's start too.
    // The PM's match callback must be StreamScanner::on_match; the scanner
    // sets the extended one itself.
    //
    // A second tier searches a run's whole data, history included, and in a
    // first-only run stops at its first match, which may end in the history
    // and be dropped there. So every run asks for all matches, and the
    // scanner keeps the first of each id itself: none is lost for lying
    // behind one in the history, and none is doubled, since a match is
    // delivered only by the run in whose new bytes it ends.
    StreamScanner(vael_pm_handle *pm, std::uint32_t history, bool all_matches, MatchSink sink,
                  bool match_start = false, bool flat = false);
    StreamScanner(const StreamScanner &) = delete;
    StreamScanner &operator=(const StreamScanner &) = delete;
    ~StreamScanner();

    // False when the history buffer could not be allocated.
    bool ok() const {
        return history_buf_ != nullptr && (flat_ ? flat_buf_ != nullptr : history_cap_ == 0 || vbuf_ != nullptr);
    }

    // Starts a new stream at offset 0, its matches going to the sink with
    // `sink_ctx`.
    void reset(void *sink_ctx);

    enum class Result {
        more,     // fed; give the next piece
        stopped,  // the sink asked to stop
        failed,   // the library's run failed: it runs out of memory only
    };
    // Scans the next piece of the stream.
    Result feed(const unsigned char *data, std::size_t len);

    // Ends the stream: delivers the hits a flat run left to the next one.
    Result finish();

    // Bytes fed since the stream started.
    std::uint64_t position() const { return position_; }

    // The PM's match callback; user_arg is the scanner.
    static int on_match(vael_pm_handle *pm, std::int32_t pattern_id, void *user_arg, const unsigned char *buf,
                        std::uint32_t len, std::uint32_t offset, vael_vbuf *vbuf, int *keep_going);
    static int on_match_ext(vael_pm_handle *pm, std::int32_t pattern_id, void *user_arg, const unsigned char *buf,
                            std::uint32_t len, std::uint32_t offset, vael_vbuf *vbuf, int *keep_going,
                            std::uint32_t *extra);

private:
    Result run(const unsigned char *data, std::uint32_t len, bool last = false);
    bool keep_tail(const unsigned char *data, std::uint32_t len);

    vael_pm_handle *pm_;
    const std::uint32_t history_cap_;
    const bool all_matches_;
    MatchSink sink_;
    const bool match_start_;
    const bool flat_;
    void *sink_ctx_ = nullptr;

    std::unique_ptr<unsigned char[]> history_buf_;
    std::uint32_t history_len_ = 0;  // bytes of history_buf_ in use, also in vbuf_
    vael_vbuf *vbuf_ = nullptr;      // one block over history_buf_ when history_len_ > 0
    std::uint64_t position_ = 0;     // stream offset just past the bytes fed
    std::uint64_t run_base_ = 0;     // stream offset of the current run's first byte (history included)
    std::unique_ptr<unsigned char[]> flat_buf_;  // history then piece, in the flat mode
    std::uint32_t floor_ = 0;    // run offsets below it were delivered by the runs before
    std::uint32_t ceiling_ = 0;  // run offsets from it on are left to the next run
    std::uint32_t held_ = 0;     // bytes at the end of the last run left to the next
    bool stop_ = false;
    std::unordered_set<std::int32_t> reported_;  // ids already delivered, when not all_matches
};

}  // namespace vael::cli

#endif  // VAEL_CLI_STREAM_SCAN_H
