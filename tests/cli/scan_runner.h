// scan_runner.h - vael-scan run as a user runs it, for the tests of its
// options: a scratch directory for the test's files, and a run that gives the
// exit status and both outputs.
#ifndef VAEL_TESTS_CLI_SCAN_RUNNER_H
#define VAEL_TESTS_CLI_SCAN_RUNNER_H

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace vael_cli_test {

namespace fs = std::filesystem;

struct Result {
    int status = -1;  // -1 when the program did not exit normally
    std::string out, err;
};

inline std::string slurp(const fs::path &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// A directory of one test's own, removed at the test's end.
class Scratch {
public:
    explicit Scratch(const std::string &tag)
        : dir_(fs::temp_directory_path() / ("vael_" + tag + "_" + std::to_string(::getpid()))) {
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch() { fs::remove_all(dir_); }

    std::string path(const std::string &name) const { return (dir_ / name).string(); }
    std::string write(const std::string &name, const std::string &bytes) const {
        std::ofstream(dir_ / name, std::ios::binary) << bytes;
        return path(name);
    }

    // vael-scan with `args`, started in this directory with an empty
    // standard input.
    Result run(std::vector<std::string> args) const {
        args.insert(args.begin(), VAEL_SCAN_PATH);
        std::vector<char *> argv;
        for (auto &arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        const std::string out = path(".scan_out"), err = path(".scan_err");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, dir_.c_str());
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        Result result;
        pid_t pid = -1;
        int wait_status = 0;
        if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0 &&
            ::waitpid(pid, &wait_status, 0) == pid && WIFEXITED(wait_status))
            result.status = WEXITSTATUS(wait_status);
        posix_spawn_file_actions_destroy(&actions);
        result.out = slurp(out);
        result.err = slurp(err);
        return result;
    }

private:
    fs::path dir_;
};

}  // namespace vael_cli_test

#endif  // VAEL_TESTS_CLI_SCAN_RUNNER_H
