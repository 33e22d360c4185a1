// vael_dfa_dump.cpp - printers of a finalized machine: a table, a CSV table,
// and the XML that JFLAP 6.0 opens as a finite automaton, grouped (the
// letters that lead to one target on one edge) or one edge per letter.
//
// Every printer walks the machine breadth first from the initial state and
// looks at the letters a to z only: a dump shows the skeleton of a pattern
// over lower-case letters, which is what a person can read of a machine of
// 256-entry tables. Targets are read in packed form, as the run reads them.
//
// The text goes to a sink in whole lines; the public printers' sink is the
// debug output, so a dump lands where the library's log goes.

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "pm/vael_pm_strings.h"
#include "rem/vael_dfa_internal.h"
#include "rem/vael_rem_tier.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"

namespace {

const char kRemTopics[] = "K_REM | K_ERROR";
constexpr unsigned kFirstLetter = 'a';
constexpr unsigned kLastLetter = 'z';
constexpr unsigned kLetters = kLastLetter - kFirstLetter + 1;
// A row of the grouping table: a counter, then a flag per byte value.
constexpr uint32_t kRowWords = 257;

// Gathers printed pieces into lines so that each reaches the sink whole.
class Writer {
  public:
    Writer(vael_dfa_dump_sink sink, void *ctx) : sink_(sink), ctx_(ctx) {}
    ~Writer() { flush(); }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    void printf(const char *format, ...) __attribute__((format(printf, 2, 3))) {
        char piece[256];
        va_list args;
        va_start(args, format);
        const int n = std::vsnprintf(piece, sizeof piece, format, args);
        va_end(args);
        if (n <= 0)
            return;
        const size_t len = std::min<size_t>((size_t)n, sizeof piece - 1);
        for (size_t i = 0; i < len; i++) {
            line_[used_++] = piece[i];
            if (piece[i] == '\n' || used_ == sizeof line_ - 1)
                flush();
        }
    }

    void flush() {
        if (!used_)
            return;
        line_[used_] = '\0';
        sink_(line_, ctx_);
        used_ = 0;
    }

  private:
    vael_dfa_dump_sink sink_;
    void *ctx_;
    char line_[1024];
    size_t used_ = 0;
};

// The debug output as a sink: a piece that goes on a line started before it
// gets no prefix of its own.
struct DebugSink {
    bool mid_line = false;
};

void debug_sink(const char *text, void *ctx) {
    auto *state = static_cast<DebugSink *>(ctx);
    if (state->mid_line)
        vael_us_adaptor_kdprintf_no_prefix("%s", text);
    else
        vael_us_adaptor_kdprintf("%s", text);
    const size_t len = std::strlen(text);
    state->mid_line = len && text[len - 1] != '\n';
}

const vael_dfa_state *target_of(const vael_dfa *dfa, const vael_dfa_state *s, unsigned letter) {
    const uint16_t e = s->trans[letter];
    return e == VAEL_DFA_NO_STATE ? nullptr : vael_dfa_state_get_by_id_fast(dfa, e);
}

char final_mark(const vael_dfa_state *s) { return (s->properties & VAEL_DFA_STATE_FINAL) ? 'F' : 's'; }

// The breadth-first walk every printer shares: one level per state, -1 until
// the state is seen, and a queue of the states seen and not yet printed.
class Walk {
  public:
    explicit Walk(const vael_dfa *dfa)
        : levels_(VAEL_MAKE_OWNED_ARRAY(int32_t, dfa->current_state_id ? dfa->current_state_id : 1)) {}
    ~Walk() { vael_queue_cleanup(queue_); }
    Walk(const Walk &) = delete;
    Walk &operator=(const Walk &) = delete;

    bool ready() const { return levels_ != nullptr; }

    // Seeds the walk with the initial state at level 0. false when out of
    // memory.
    bool start(const vael_dfa_state *initial, uint32_t states) {
        std::fill(levels_.get(), levels_.get() + (states ? states : 1), -1);
        queue_ = vael_queue_create();
        return queue_ && see(initial, 0);
    }

    const vael_dfa_state *next() {
        return vael_queue_size(queue_) ? reinterpret_cast<const vael_dfa_state *>(vael_dequeue(queue_)) : nullptr;
    }

    bool seen(const vael_dfa_state *s) const { return levels_.get()[s->id] != -1; }
    int32_t level(const vael_dfa_state *s) const { return levels_.get()[s->id]; }

    bool see(const vael_dfa_state *s, int32_t level) {
        levels_.get()[s->id] = level;
        return vael_enqueue(queue_, reinterpret_cast<uintptr_t>(s)) == 0;
    }

  private:
    vael_owned<int32_t> levels_;
    lst_list *queue_ = nullptr;
};

int dump_text(const vael_dfa *dfa, Walk &walk, Writer &out) {
    out.printf("------- DUMPING DFA %p -------\n\n", (const void *)dfa);
    out.printf("Number of states in dfa: %d\n", (int)dfa->current_state_id);
    out.printf("dfa initial state is %d\n", (int)dfa->initial_state->id);
    out.printf("%9s", "");
    for (unsigned c = kFirstLetter; c <= kLastLetter; c++)
        out.printf("%-5c", (int)c);
    out.printf("\n");
    while (const vael_dfa_state *s = walk.next()) {
        out.printf("\n%c%d(%d%-5c", final_mark(s), (int)s->id, (int)walk.level(s), ')');
        for (unsigned c = kFirstLetter; c <= kLastLetter; c++) {
            const vael_dfa_state *t = target_of(dfa, s, c);
            if (!t) {
                out.printf("%-5c", '-');
                continue;
            }
            if (!walk.seen(t) && !walk.see(t, walk.level(s) + 1))
                return -1;
            out.printf("%c%-4d", final_mark(t), (int)t->id);
        }
    }
    out.printf("\n\n---FINISHED DUMPING DFA %p ---\n\n", (const void *)dfa);
    return 0;
}

int dump_csv(const vael_dfa *dfa, Walk &walk, Writer &out) {
    out.printf("The dfa has %u states.\n", dfa->current_state_id);
    out.printf("state_id,level,is_final");
    for (unsigned c = kFirstLetter; c <= kLastLetter; c++) {
        if (is_print((unsigned char)c) && is_not_special((unsigned char)c))
            out.printf(",%c", (int)c);
        else
            out.printf(",\\%d", (int)c);
    }
    out.printf("\n");
    while (const vael_dfa_state *s = walk.next()) {
        out.printf("%d,%d,%d", (int)s->id, (int)walk.level(s), (s->properties & VAEL_DFA_STATE_FINAL) ? 1 : 0);
        for (unsigned c = kFirstLetter; c <= kLastLetter; c++) {
            const vael_dfa_state *t = target_of(dfa, s, c);
            if (!t) {
                out.printf(", ");
                continue;
            }
            if (!walk.seen(t) && !walk.see(t, walk.level(s) + 1))
                return -1;
            out.printf(",%d", (int)t->id);
        }
        out.printf("\n");
    }
    return 0;
}

// JFLAP places nothing by itself: states go in columns, one column per state
// whose letters found new states, spread up and down from the middle line.
struct Layout {
    int x = 100;
    int y = 0;
    int sign = 1;
    bool found = false;  // the state last taken found new states

    void next_column() {
        if (!found)
            return;
        x += 100;
        y = 0;
        sign = 1;
        found = false;
    }
    // y goes 0, 100, -100, 200, -200 down one column.
    void next_row() {
        found = true;
        if (sign != -1) {
            y = -y;
            sign = -1;
        } else {
            sign = 1;
            y = 100 - y;
        }
    }
};

void xml_head(Writer &out, const vael_dfa_state *initial) {
    out.printf("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    out.printf("<!--Created with JFLAP 6.0.--> ");
    out.printf("<structure>\n");
    out.printf("\t<type>fa</type>\n");
    out.printf("\t<automaton>\n");
    out.printf("\t\t<!--The list of states.-->\n");
    out.printf("\t\t<state id=\"%d\" name=\"q%d\">\n", (int)initial->id, (int)initial->id);
    out.printf("\t\t\t<x>%d</x>\n", 0);
    out.printf("\t\t\t<y>%d</y>\n", 0);
    out.printf("\t\t\t<initial/>\n");
    out.printf("\t\t</state>\n");
}

void xml_state(Writer &out, const vael_dfa_state *s, const Layout &at) {
    out.printf("\t\t<state id=\"%d\" name=\"q%d\">\n", (int)s->id, (int)s->id);
    out.printf("\t\t\t<x>%d</x>\n", at.x);
    out.printf("\t\t\t<y>%d</y>\n", at.y);
    if (s->properties & VAEL_DFA_STATE_FINAL)
        out.printf("\t\t\t<final/>\n");
    out.printf("\t\t</state>\n");
}

void xml_transition_open(Writer &out, const vael_dfa_state *from, const vael_dfa_state *to) {
    out.printf("\t\t<transition>\n");
    out.printf("\t\t\t<from>%d</from>\n", (int)from->id);
    out.printf("\t\t\t<to>%d</to>\n", (int)to->id);
    out.printf("\t\t\t<read>");
}

void xml_transition_close(Writer &out) {
    out.printf("</read>\n");
    out.printf("\t\t</transition>\n");
}

void xml_tail(Writer &out) {
    out.printf("\t</automaton>\n");
    out.printf("</structure>\n");
}

// A state's edges are gathered per target before they are printed: the
// target that most letters lead to, when it is the only one so and at least
// two letters lead anywhere, is read "OTHER" (JFLAP's catch-all).
int dump_xml(const vael_dfa *dfa, Walk &walk, Writer &out) {
    const uint32_t n = dfa->current_state_id;
    auto rows = VAEL_MAKE_OWNED_ARRAY(uint32_t, (size_t)n * kRowWords);
    if (!rows)
        return -1;
    uint32_t *table = rows.get();
    std::memset(table, 0, (size_t)n * kRowWords * sizeof(uint32_t));
    xml_head(out, dfa->initial_state);
    Layout at;
    uint16_t touched[kLetters];
    while (const vael_dfa_state *s = walk.next()) {
        // The table is clear here: each state clears the rows it touched
        // as it prints them, which costs its edges rather than all rows.
        at.next_column();
        uint32_t num_touched = 0, total = 0, highest = 0;
        bool tie = false;
        for (unsigned c = kFirstLetter; c <= kLastLetter; c++) {
            const vael_dfa_state *t = target_of(dfa, s, c);
            if (!t)
                continue;
            uint32_t *row = table + (size_t)t->id * kRowWords;
            if (row[0] == 0)
                touched[num_touched++] = t->id;
            total++;
            row[0]++;
            row[1 + c] = 1;
            if (row[0] > highest) {
                highest = row[0];
                tie = false;
            } else if (row[0] == highest) {
                tie = true;
            }
            if (!walk.seen(t)) {
                if (!walk.see(t, walk.level(s) + 1))
                    return -1;
                at.next_row();
                xml_state(out, t, at);
            }
        }
        std::sort(touched, touched + num_touched);
        for (uint32_t i = 0; i < num_touched; i++) {
            uint32_t *row = table + (size_t)touched[i] * kRowWords;
            xml_transition_open(out, s, vael_dfa_state_get_by_id(dfa, touched[i]));
            if (row[0] == highest && !tie && total >= 2) {
                out.printf("OTHER");
            } else {
                bool first = true;
                for (unsigned c = 0; c < 256; c++) {
                    if (!row[1 + c])
                        continue;
                    if (first && !is_print((unsigned char)c))
                        out.printf("%u", c);
                    else
                        out.printf(first ? "%c" : "|%c", (int)c);
                    first = false;
                }
            }
            xml_transition_close(out);
            std::memset(row, 0, kRowWords * sizeof(uint32_t));
        }
    }
    xml_tail(out);
    return 0;
}

int dump_xml_all(const vael_dfa *dfa, Walk &walk, Writer &out) {
    xml_head(out, dfa->initial_state);
    Layout at;
    while (const vael_dfa_state *s = walk.next()) {
        at.next_column();
        for (unsigned c = kFirstLetter; c <= kLastLetter; c++) {
            const vael_dfa_state *t = target_of(dfa, s, c);
            if (!t)
                continue;
            if (!walk.seen(t)) {
                if (!walk.see(t, walk.level(s) + 1))
                    return -1;
                at.next_row();
                xml_state(out, t, at);
            }
            xml_transition_open(out, s, t);
            out.printf("%c", (int)c);
            xml_transition_close(out);
        }
    }
    xml_tail(out);
    return 0;
}

}  // namespace

extern "C" int vael_dfa_dump_to(vael_dfa *dfa, int format, vael_dfa_dump_sink sink, void *ctx) {
    if (!dfa || !dfa->initial_state) {
        VAEL_ASSERT(0, "Illegal arguments: NULL DFA or DFA_MACHINE");
        return -1;
    }
    if (!sink || format < VAEL_DFA_DUMP_TEXT || format > VAEL_DFA_DUMP_XML_ALL)
        return -1;
    Walk walk(dfa);
    if (!walk.ready() || !walk.start(dfa->initial_state, dfa->current_state_id))
        return -1;
    Writer out(sink, ctx);
    switch (format) {
    case VAEL_DFA_DUMP_TEXT:
        return dump_text(dfa, walk, out);
    case VAEL_DFA_DUMP_CSV:
        return dump_csv(dfa, walk, out);
    case VAEL_DFA_DUMP_XML:
        return dump_xml(dfa, walk, out);
    default:
        return dump_xml_all(dfa, walk, out);
    }
}

namespace {
int dump_to_debug(vael_dfa *dfa, int format) {
    DebugSink state;
    return vael_dfa_dump_to(dfa, format, debug_sink, &state);
}
}  // namespace

extern "C" int vael_dfa_dump(vael_dfa *dfa) { return dump_to_debug(dfa, VAEL_DFA_DUMP_TEXT); }
extern "C" int vael_dfa_dump_csv(vael_dfa *dfa) { return dump_to_debug(dfa, VAEL_DFA_DUMP_CSV); }
extern "C" int vael_dfa_dump_xml(vael_dfa *dfa) { return dump_to_debug(dfa, VAEL_DFA_DUMP_XML); }
extern "C" int vael_dfa_dump_xml_all(vael_dfa *dfa) { return dump_to_debug(dfa, VAEL_DFA_DUMP_XML_ALL); }

extern "C" int vael_rem_dump(void *dfa, int format) {
    switch (format) {
    case 0:
        return vael_dfa_dump_xml(static_cast<vael_dfa *>(dfa));
    case 1:
        return vael_dfa_dump_csv(static_cast<vael_dfa *>(dfa));
    default:
        VAEL_LOG(VAEL_DBG_ERR, kRemTopics, "%s: Invalid dump format %d\n", format);
        return -1;
    }
}
