#include "read_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vael::cli {

namespace {

// Closes the descriptor on every way out of read_whole_file.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

std::string too_large(std::size_t max_size) {
    return "file too large (more than " + std::to_string(max_size) + " bytes)";
}

}  // namespace

std::optional<std::string> read_whole_file(const std::string &path, std::string &out, std::size_t max_size) {
    out.clear();
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return std::strerror(errno);

    // The size of a regular file spares the reallocations; anything else
    // (a pipe, a terminal) is read until its end in growing steps.
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return std::strerror(errno);
    if (S_ISDIR(st.st_mode)) return std::strerror(EISDIR);
    if (S_ISREG(st.st_mode)) {
        if (static_cast<unsigned long long>(st.st_size) > max_size) return too_large(max_size);
        out.reserve(static_cast<std::size_t>(st.st_size));
    }

    char chunk[64 * 1024];
    for (;;) {
        ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            out.clear();
            return std::strerror(errno);
        }
        if (n == 0) break;
        if (static_cast<std::size_t>(n) > max_size - out.size()) {
            out.clear();
            return too_large(max_size);
        }
        out.append(chunk, static_cast<std::size_t>(n));
    }
    return std::nullopt;
}

std::optional<std::string> InputFile::open(const std::string &path) {
    close();
    is_directory_ = false;
    is_regular_ = false;
    if (path == "-") {
        fd_ = STDIN_FILENO;
        owned_ = false;
    } else {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) return std::strerror(errno);
        owned_ = true;
    }
    struct stat st {};
    if (::fstat(fd_, &st) != 0) {
        const int error = errno;
        close();
        return std::strerror(error);
    }
    if (S_ISDIR(st.st_mode)) {
        is_directory_ = true;
        close();
        return std::strerror(EISDIR);
    }
    // The kernel may read further ahead for a file read from start to end.
    is_regular_ = S_ISREG(st.st_mode);
    if (is_regular_) ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
    return std::nullopt;
}

std::optional<std::string> InputFile::read(unsigned char *buf, std::size_t cap, std::size_t *got) {
    *got = 0;
    while (*got < cap) {
        const ssize_t n = ::read(fd_, buf + *got, cap - *got);
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::strerror(errno);
        }
        if (n == 0) break;
        *got += static_cast<std::size_t>(n);
        if (!is_regular_) break;
    }
    return std::nullopt;
}

void InputFile::close() {
    if (fd_ >= 0 && owned_) ::close(fd_);
    fd_ = -1;
    owned_ = false;
}

}  // namespace vael::cli
