// Process execution: launch outcomes, exit-status reports, the kill guard and the rendering of
// argument vectors for failure messages.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "command.h"

namespace {

std::string read_all(int fd)
{
    std::string out;
    char buf[4096];
    ssize_t r;
    while ((r = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(r));
    return out;
}

// Runs fn with stdout on a pipe and returns what it printed.
std::string capture_stdout(const std::function<void()>& fn)
{
    fflush(stdout);
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const int saved = dup(STDOUT_FILENO);
    dup2(fds[1], STDOUT_FILENO);
    close(fds[1]);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out = read_all(fds[0]);
    close(fds[0]);
    return out;
}

struct ChildOutcome {
    int status;
    std::string out;
};

// Runs fn in a forked child with stdout on a pipe; fn may end the process any way it likes.
ChildOutcome run_in_child(const std::function<void()>& fn)
{
    fflush(stdout);
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[1]);
        fn();
        fflush(stdout);
        _exit(0);
    }
    close(fds[1]);
    ChildOutcome outcome{0, read_all(fds[0])};
    close(fds[0]);
    waitpid(pid, &outcome.status, 0);
    return outcome;
}

class TempDir
{
public:
    TempDir()
    {
        char tmpl[] = "/tmp/orvane-command-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

pid_t spawn_shell(const char* script, CommandResult* result)
{
    const char* argv[] = {"/bin/sh", "-c", script, nullptr};
    pid_t pid = -1;
    *result = command_spawn(argv[0], const_cast<char* const*>(argv), &pid);
    return pid;
}

} // namespace

TEST(CommandSpawn, MissingProgramIsNotFoundWithTheAdbHint)
{
    const char* argv[] = {"/nonexistent/orvane/adb", "push", "x", nullptr};
    pid_t pid = -1;
    const CommandResult result = command_spawn(argv[0], const_cast<char* const*>(argv), &pid);
    EXPECT_EQ(result, COMMAND_NOT_FOUND);
    ASSERT_GT(pid, 0);
    // The failed child still exists until someone reaps it.
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);

    EXPECT_EQ(capture_stdout([&] { command_report_failure(result, argv); }),
              "Command not found: [/nonexistent/orvane/adb], [push], [x]\n"
              "(make 'adb' accessible from your PATH or define its fullpath in the ADB environment "
              "variable)\n");
}

TEST(CommandSpawn, ProgramThatCannotBeExecutedFails)
{
    TempDir dir;
    const std::string path = dir.path() + "/not-executable";
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("#!/bin/sh\nexit 0\n", f);
    fclose(f);
    chmod(path.c_str(), 0644);
    if (access(path.c_str(), X_OK) == 0)
        GTEST_SKIP() << "running with privileges that execute anything";

    const char* argv[] = {path.c_str(), "-v", nullptr};
    pid_t pid = -1;
    const CommandResult result = command_spawn(argv[0], const_cast<char* const*>(argv), &pid);
    EXPECT_EQ(result, COMMAND_FAILED);
    ASSERT_GT(pid, 0);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(capture_stdout([&] { command_report_failure(result, argv); }),
              "Failed to execute: [" + path + "], [-v]\n");
    EXPECT_EQ(capture_stdout([&] { command_report_failure(COMMAND_OK, argv); }), "");
}

TEST(CommandSpawn, ExecutedProgramIsOkEvenIfItFailsLater)
{
    CommandResult result;
    const pid_t ok = spawn_shell("exit 0", &result);
    EXPECT_EQ(result, COMMAND_OK);
    ASSERT_GT(ok, 0);
    EXPECT_EQ(capture_stdout([&] { EXPECT_TRUE(command_check_exit(ok, "adb push")); }), "");

    const pid_t three = spawn_shell("exit 3", &result);
    EXPECT_EQ(result, COMMAND_OK);
    ASSERT_GT(three, 0);
    EXPECT_EQ(capture_stdout([&] { EXPECT_FALSE(command_check_exit(three, "adb push")); }),
              "\"adb push\" returned with value 3\n");
}

TEST(CommandSpawn, ChildGetsDefaultSigpipeAlthoughTheDaemonIgnoresIt)
{
    TempDir dir;
    const std::string out = dir.path() + "/sigign";
    const std::string script = "grep SigIgn /proc/$$/status > '" + out + "'";
    struct sigaction old;
    struct sigaction ignore;
    memset(&ignore, 0, sizeof ignore);
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &old);
    CommandResult result;
    const pid_t pid = spawn_shell(script.c_str(), &result);
    sigaction(SIGPIPE, &old, nullptr);
    ASSERT_EQ(result, COMMAND_OK);
    ASSERT_TRUE(command_wait(pid, nullptr));

    FILE* f = fopen(out.c_str(), "r");
    ASSERT_NE(f, nullptr);
    char line[128] = {};
    ASSERT_NE(fgets(line, sizeof line, f), nullptr);
    fclose(f);
    unsigned long long mask = 0;
    ASSERT_EQ(sscanf(line, "SigIgn: %llx", &mask), 1) << line;
    EXPECT_EQ(mask & (1ULL << (SIGPIPE - 1)), 0u) << line;
}

TEST(CommandWait, ExitStatusesAndSignals)
{
    CommandResult result;
    int code = 99;
    EXPECT_FALSE(command_wait(spawn_shell("exit 7", &result), &code));
    EXPECT_EQ(code, 7);

    // A child killed by a signal has no exit code.
    const pid_t killed = spawn_shell("kill -KILL $$", &result);
    ASSERT_GT(killed, 0);
    EXPECT_EQ(capture_stdout([&] { EXPECT_FALSE(command_check_exit(killed, "show_touches")); }),
              "\"show_touches\" exited unexpectedly\n");

    const pid_t sleeper = spawn_shell("exec sleep 30", &result);
    ASSERT_GT(sleeper, 0);
    EXPECT_TRUE(command_kill(sleeper));
    code = 99;
    EXPECT_FALSE(command_wait(sleeper, &code));
    EXPECT_EQ(code, -1);

    // Already reaped: waitpid fails, nothing to report but the failure.
    code = 99;
    EXPECT_FALSE(command_wait(sleeper, &code));
    EXPECT_EQ(code, -1);
    EXPECT_FALSE(command_kill(sleeper));

    EXPECT_EQ(capture_stdout([] { EXPECT_FALSE(command_check_exit(-1, "adb reverse")); }),
              "Could not execute \"adb reverse\"\n");
}

TEST(CommandKill, PidBelowOneAbortsWithoutSignallingAnyGroup)
{
    for (const pid_t pid : {0, -1}) {
        if (pid == -1 && getuid() != 0)
            GTEST_SKIP() << "a broken guard would signal every process of this user";
        const ChildOutcome outcome = run_in_child([pid] {
            // Own process group, and for -1 an account with nothing else running, so a broken
            // guard hits only this child (and shows up as SIGTERM instead of SIGABRT).
            setpgid(0, 0);
            if (pid == -1 && setuid(65534) != 0)
                _exit(2);
            signal(SIGABRT, SIG_DFL);
            command_kill(pid);
            _exit(0);
        });
        ASSERT_TRUE(WIFSIGNALED(outcome.status)) << "pid " << pid << " status " << outcome.status;
        EXPECT_EQ(WTERMSIG(outcome.status), SIGABRT) << "pid " << pid;
        EXPECT_EQ(outcome.out, "Requested to kill " + std::to_string(pid) +
                                   ", this is an error. Please report the bug.\n");
    }
}

TEST(ArgvToString, RendersEachArgumentInBrackets)
{
    char buf[512];
    const char* argv[] = {"adb", "push", "a", "b", nullptr};
    EXPECT_EQ(argv_to_string(argv, buf, sizeof buf), 23u);
    EXPECT_STREQ(buf, "[adb], [push], [a], [b]");

    const char* empty[] = {nullptr};
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(argv_to_string(empty, buf, sizeof buf), 0u);
    EXPECT_STREQ(buf, "");
}

TEST(ArgvToString, LongListsAreCutWithDotsInsideTheBuffer)
{
    // Guard bytes behind the 512 the function may use.
    std::vector<char> mem(512 + 64, '#');
    char* buf = mem.data();

    // One argument: 503 characters still fit (503 + 8 < 512), 504 do not.
    const std::string fits(503, 'f');
    const std::string too_long(504, 'g');
    const char* one[] = {fits.c_str(), nullptr};
    EXPECT_EQ(argv_to_string(one, buf, 512), 505u);
    EXPECT_EQ(std::string(buf), "[" + fits + "]");
    const char* over[] = {too_long.c_str(), nullptr};
    EXPECT_EQ(argv_to_string(over, buf, 512), 3u);
    EXPECT_STREQ(buf, "...");

    // Many arguments of every length: never more than 511 characters, ends in "..." when cut.
    std::vector<std::string> args;
    for (int i = 0; i < 200; ++i)
        args.push_back(std::string(static_cast<size_t>(i % 37), static_cast<char>('a' + i % 26)));
    for (size_t count = 1; count <= args.size(); ++count) {
        std::vector<const char*> argv;
        for (size_t i = 0; i < count; ++i)
            argv.push_back(args[i].c_str());
        argv.push_back(nullptr);
        std::fill(mem.begin(), mem.end(), '#');
        const size_t n = argv_to_string(argv.data(), buf, 512);
        ASSERT_LE(n, 511u) << count;
        ASSERT_EQ(strlen(buf), n) << count;
        for (size_t i = 512; i < mem.size(); ++i)
            ASSERT_EQ(mem[i], '#') << "wrote behind the buffer with " << count << " arguments";
        std::string full;
        for (size_t i = 0; i < count; ++i)
            full += (i ? ", [" : "[") + args[i] + "]";
        const std::string text(buf);
        if (full.size() <= 500) {
            EXPECT_EQ(text, full) << count;
        } else {
            ASSERT_GE(n, 3u) << count;
            EXPECT_EQ(text.substr(n - 3), "...") << count;
            EXPECT_EQ(full.compare(0, n - 3, text, 0, n - 3), 0) << "not a prefix with " << count;
        }
    }
}

TEST(ArgvToStringDeathTest, TooSmallBufferTripsTheGuardWithItsReport)
{
    char buf[4];
    const char* argv[] = {"adb", nullptr};
    EXPECT_DEATH(argv_to_string(argv, buf, sizeof buf),
                 "src/command:37: size_t argv_to_string\\(const char\\* const\\*, char\\*, size_t\\): "
                 "Assertion `idx < bufsize - 4' failed\\.");
}

TEST(CommandSelfPath, NamesThisExecutable)
{
    char* path = command_self_path();
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(path[0], '/');
    EXPECT_NE(std::string(path).find("command_test"), std::string::npos) << path;
    free(path);
}
