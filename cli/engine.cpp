// engine.cpp - the words of --engine (see engine.h).
#include "engine.h"

namespace vael::cli {

std::optional<int> parse_engine(std::string_view word) {
    if (word == "thin") return 1;
    if (word == "sm") return 0;
    return std::nullopt;
}

}  // namespace vael::cli
