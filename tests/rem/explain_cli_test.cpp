// vael-scan --tokens and --lss, run as a user runs them: each row is a
// command line and the exact output and status it gives.
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char **environ;

namespace {

struct Result {
    int status = -1;
    std::string out;
};

Result run(const std::vector<std::string> &args) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<char *> argv;
    std::string program = VAEL_SCAN_PATH;
    argv.push_back(program.data());
    std::vector<std::string> copies = args;
    for (auto &a : copies)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    Result r;
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
        ADD_FAILURE() << "cannot run " << program;
        return r;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        r.out.append(buf, (size_t)n);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

TEST(VaelScanExplain, TokensAndLss) {
    struct Row {
        std::vector<std::string> args;
        int status;
        const char *out;
    };
    const Row rows[] = {
        // A span in a negated bracket excludes nothing; single characters do.
        {{"--tokens", "(a|b)*[^0-9]{2,5}[^xy]"}, 0,
         "OPEN_PAREN\nRANGE OPERAND a\nALTERNATE\nRANGE OPERAND b\nCLOSE_PAREN\nKLEENE (*)\n"
         "RANGE OPERAND [^]\nBINARY QUANTIFIER {2,5}\nRANGE OPERAND [^xy]\n"},
        {{"--tokens", "x+\\x2a.\\d{3}c{1,}"}, 0,
         "RANGE OPERAND x\nMIN QUANTIFIER {1,}\nRANGE OPERAND \\*\nRANGE OPERAND [\\x00-\\x09\\x0b-\\xff]\n"
         "RANGE OPERAND [0-9]\nUNARY QUANTIFIER {3}\nRANGE OPERAND c\nMIN QUANTIFIER {1,}\n"},
        {{"--tokens", "a{x"}, 1,
         "RANGE OPERAND a\n"
         "error: Illegal sequence beginning with '{': '{' must be followed by a digit (index 2)\n  a{x\n    ^\n"},
        {{"--tokens", "\x01[a-]"}, 1,
         "RANGE OPERAND \\x01\nerror: Illegal use of '-' inside brackets (index 5)\n  \\x01[a-]\n          ^\n"},
        {{"--lss", "abc|def"}, 0, "LSS: 'abc' 'def' (the strings replace the expression)\nflags: MULTI_LSS\n"},
        {{"--lss", "^abc[0-9]+de$"}, 0, "LSS: 'abc' (needs the expression as second tier)\nflags: NEED_TIER2|LSS_START_ANCHOR\n"},
        {{"-i", "--lss", "ABC\\x01"}, 0, "LSS: 'abc\\x01' (the strings replace the expression)\nflags: 0\n"},
        {{"--lss", "a*|b"}, 0, "no LSS\n"},
        {{"--lss", "^x(ab"}, 1, "error: Missing a closing ')' (index 5)\n  ^x(ab\n       ^\n"},
    };
    for (const Row &row : rows) {
        Result r = run(row.args);
        EXPECT_EQ(r.status, row.status) << row.args.back();
        EXPECT_EQ(r.out, row.out) << row.args.back();
    }
}

}  // namespace
