// read_file.h - reading a whole file into memory, with the system's reason on
// failure, for the pattern file and for the inputs vael-scan scans.
#ifndef VAEL_CLI_READ_FILE_H
#define VAEL_CLI_READ_FILE_H

#include <cstddef>
#include <optional>
#include <string>

namespace vael::cli {

// Reads all of `path` into `out` (replacing its content). Works for pipes and
// other files without a known size too. A file of more than `max_size` bytes
// is refused without reading it all. Returns nothing on success, else the
// reason, such as "No such file or directory" or "Is a directory".
std::optional<std::string> read_whole_file(const std::string &path, std::string &out,
                                           std::size_t max_size = static_cast<std::size_t>(-1));

}  // namespace vael::cli

#endif  // VAEL_CLI_READ_FILE_H
