// image.h - vael-scan's use of the PM image: --save writes the compiled
// patterns' image to a file, --load scans with an image instead of a
// pattern file, and --dump-bnfa prints the string engine's automaton.
#ifndef VAEL_CLI_IMAGE_H
#define VAEL_CLI_IMAGE_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "vael/vael_pm.h"

namespace vael::cli {

// Writes the image of `pm` to `path` (replacing the file). Gives the reason
// on failure.
std::optional<std::string> save_image(vael_pm_handle *pm, const std::string &path);

// Loads the image in `path` into *pm, whose matches go to `match_cb`. Gives
// the reason on failure: the file's, or the library's refusal.
std::optional<std::string> load_image(const std::string &path, vael_pm_match_cb match_cb, vael_pm_handle **pm);

// What a stream scan of a loaded PM needs to know that a pattern file would
// have told: how far back a match may reach (`open_history` when a pattern's
// length is not its text's), and whether the PM has words, which scan flat.
std::uint32_t image_history(const vael_pm_handle *pm, std::uint32_t open_history);
bool image_has_words(const vael_pm_handle *pm);

// "csv" or "jflap"; nothing for another word.
std::optional<int> dump_format(std::string_view word);
// Prints the string engine's automaton of `pm` to `out` in `format`. Gives
// the reason when there is none to print.
std::optional<std::string> dump_bnfa(vael_pm_handle *pm, int format, std::FILE *out);

}  // namespace vael::cli

#endif  // VAEL_CLI_IMAGE_H
