// scan_runner.h - vael-scan run as a user runs it, for the tests of its options: a scratch directory for the test's
// files, a run that gives the exit status and both outputs, and the check of a table of such runs.
#ifndef VAEL_TESTS_CLI_SCAN_RUNNER_H
#define VAEL_TESTS_CLI_SCAN_RUNNER_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace vael_cli_test {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

struct Result {
    int status = -1;  // -1 when the program did not exit normally
    std::string out, err;
    long max_rss_kib = 0;           // the child's peak resident memory
    std::size_t stdin_written = 0;  // bytes the child's standard input took before it closed
};

// How the child is started, beyond its arguments.
struct Launch {
    std::string stdin_bytes;               // written to a pipe on its standard input
    std::vector<std::string> env = {};     // NAME=VALUE added to the environment
    rlim_t address_space = RLIM_INFINITY;  // RLIMIT_AS of the child
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
        fs::create_directories((dir_ / name).parent_path());
        std::ofstream(dir_ / name, std::ios::binary) << bytes;
        return path(name);
    }

    // vael-scan with `args`, started in this directory.
    Result run(Args args, const Launch &launch = {}) const {
        args.insert(args.begin(), VAEL_SCAN_PATH);
        std::vector<std::string> env(launch.env);
        for (char **e = environ; *e != nullptr; ++e) env.emplace_back(*e);
        std::vector<char *> argv, envp;
        for (auto &s : args) argv.push_back(s.data());
        for (auto &s : env) envp.push_back(s.data());
        argv.push_back(nullptr);
        envp.push_back(nullptr);
        const std::string out = path(".scan_out"), err = path(".scan_err");
        int in_pipe[2];
        if (::pipe(in_pipe) != 0) return {};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, dir_.c_str());
        posix_spawn_file_actions_adddup2(&actions, in_pipe[0], 0);
        posix_spawn_file_actions_addclose(&actions, in_pipe[0]);
        posix_spawn_file_actions_addclose(&actions, in_pipe[1]);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        // The child takes the limit from this process, which lifts it again at once; posix_spawn shares the memory
        // rather than copying it, so the child's peak resident memory is its own.
        rlimit saved{};
        ::getrlimit(RLIMIT_AS, &saved);
        rlimit limit = saved;
        limit.rlim_cur = std::min(launch.address_space, saved.rlim_max);
        ::setrlimit(RLIMIT_AS, &limit);
        pid_t pid = -1;
        const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
        ::setrlimit(RLIMIT_AS, &saved);
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(spawned, 0) << "cannot start " << argv[0];
        ::close(in_pipe[0]);
        ::signal(SIGPIPE, SIG_IGN);  // the child may stop reading early (-q)
        Result result;
        const std::string &in = launch.stdin_bytes;
        for (ssize_t n = 1; n > 0 && result.stdin_written < in.size(); result.stdin_written += n > 0 ? n : 0)
            n = ::write(in_pipe[1], in.data() + result.stdin_written, in.size() - result.stdin_written);
        ::close(in_pipe[1]);
        int wait_status = 0;
        rusage usage{};
        while (spawned == 0 && ::wait4(pid, &wait_status, 0, &usage) < 0 && errno == EINTR) {
        }
        if (spawned == 0 && WIFEXITED(wait_status)) result.status = WEXITSTATUS(wait_status);
        result.out = slurp(out);
        result.err = slurp(err);
        result.max_rss_kib = usage.ru_maxrss;
        return result;
    }

private:
    fs::path dir_;
};

// One run of a table: the arguments, the exit status, and what the outputs
// hold: the whole output, or a piece of it when the table checks pieces.
struct Row { Args args; int status; std::string out, err; };

inline void check_rows(const Scratch &dir, const std::vector<Row> &rows, bool whole) {
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        const Result r = dir.run(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        if (whole) {
            EXPECT_EQ(r.out, row.out);
            EXPECT_EQ(r.err, row.err);
        } else {
            EXPECT_NE(r.out.find(row.out), std::string::npos) << r.out;
            EXPECT_NE(r.err.find(row.err), std::string::npos) << r.err;
            EXPECT_EQ(r.out.empty(), row.out.empty()) << r.out;
        }
    }
}

}  // namespace vael_cli_test

#endif  // VAEL_TESTS_CLI_SCAN_RUNNER_H
