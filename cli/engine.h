// engine.h - vael-scan's --engine: which first-tier string engine the
// library starts with. The choice is the library's global
// vael_pm_tier1_use_thin_nfa, read once when the library starts; an image
// carries the automaton of the engine that wrote it and loads only under
// that engine.
#ifndef VAEL_CLI_ENGINE_H
#define VAEL_CLI_ENGINE_H

#include <optional>
#include <string_view>

namespace vael::cli {

// "thin" gives 1 (the Thin NFA), "sm" gives 0 (the DFA string matcher), as
// vael_pm_tier1_use_thin_nfa takes them; nothing for another word.
std::optional<int> parse_engine(std::string_view word);

}  // namespace vael::cli

#endif  // VAEL_CLI_ENGINE_H
