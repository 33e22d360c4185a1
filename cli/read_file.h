// read_file.h - reading files with the system's reason on failure: the
// pattern file whole, the inputs vael-scan scans in chunks.
#ifndef VAEL_CLI_READ_FILE_H
#define VAEL_CLI_READ_FILE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vael::cli {

// Reads all of `path` into `out` (replacing its content). Works for pipes and
// other files without a known size too. A file of more than `max_size` bytes
// is refused without reading it all. Returns nothing on success, else the
// reason, such as "No such file or directory" or "Is a directory".
std::optional<std::string> read_whole_file(const std::string &path, std::string &out,
                                           std::size_t max_size = static_cast<std::size_t>(-1));

// An input read in chunks into a buffer of the caller's: a named file, or
// standard input for "-". A regular file fills each chunk as far as it goes;
// a pipe or terminal gives what has arrived, so that a slow writer's data is
// scanned as it comes.
class InputFile {
public:
    InputFile() = default;
    InputFile(const InputFile &) = delete;
    InputFile &operator=(const InputFile &) = delete;
    ~InputFile() { close(); }

    // Opens `path` ("-": standard input, which is not closed afterwards).
    // Gives the reason on failure; a directory is refused with EISDIR's.
    std::optional<std::string> open(const std::string &path);
    // True after open when `path` named a directory (open gave the reason).
    bool is_directory() const { return is_directory_; }
    // Reads up to `cap` bytes into `buf`; *got is 0 at the end of the input.
    std::optional<std::string> read(unsigned char *buf, std::size_t cap, std::size_t *got);
    void close();

private:
    int fd_ = -1;
    bool owned_ = false;
    bool is_directory_ = false;
    bool is_regular_ = false;
};

}  // namespace vael::cli

#endif  // VAEL_CLI_READ_FILE_H
