// Process execution: launch outcomes, exit-status reports, the kill guard and argv rendering.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "command.h"

namespace {

// What fn printed on stdout.
std::string stdout_of(const std::function<void()>& fn)
{
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

pid_t spawn(const std::vector<const char*>& argv, CommandResult* result)
{
    pid_t pid = -1;
    *result = command_spawn(argv[0], const_cast<char* const*>(argv.data()), &pid);
    return pid;
}

} // namespace

TEST(Command, LaunchFailuresAreReportedWithTheArgumentVector)
{
    char path[] = "/tmp/orvane-command-XXXXXX";
    close(mkstemp(path));
    chmod(path, 0644);
    struct Case {
        std::vector<const char*> argv;
        CommandResult result;
        std::string report;
    } cases[] = {
        {{"/nonexistent/orvane/adb", "push", "x", nullptr},
         COMMAND_NOT_FOUND,
         "Command not found: [/nonexistent/orvane/adb], [push], [x]\n(make 'adb' accessible from your PATH "
         "or "
         "define its fullpath in the ADB environment variable)\n"},
        {{path, "-v", nullptr}, COMMAND_FAILED, "Failed to execute: [" + std::string(path) + "], [-v]\n"},
    };
    for (const Case& c : cases) {
        CommandResult result;
        const pid_t pid = spawn(c.argv, &result);
        EXPECT_EQ(result, c.result) << c.argv[0];
        // The failed child exists until it is reaped, and it exited with 1.
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
        EXPECT_EQ(stdout_of([&] { command_report_failure(result, c.argv.data()); }), c.report);
    }
    unlink(path);
}

TEST(Command, ExitStatusesAreJudgedAndReported)
{
    // The daemon ignores SIGPIPE; the script exits 1 when its child inherited that.
    const char* sigpipe_default = "exit $(( 0x$(sed -n 's/^SigIgn:\\t//p' /proc/$$/status) >> 12 & 1 ))";
    const struct {
        const char* script;
        bool ok;
        const char* report;
    } cases[] = {
        {"exit 0", true, ""},
        {sigpipe_default, true, ""},
        {"exit 3", false, "\"adb push\" returned with value 3\n"},
        {"kill -KILL $$", false, "\"adb push\" exited unexpectedly\n"},
    };
    void (*previous)(int) = signal(SIGPIPE, SIG_IGN);
    for (const auto& c : cases) {
        CommandResult result;
        const pid_t pid = spawn({"/bin/sh", "-c", c.script, nullptr}, &result);
        EXPECT_EQ(result, COMMAND_OK) << c.script;
        EXPECT_EQ(stdout_of([&] { EXPECT_EQ(command_check_exit(pid, "adb push"), c.ok) << c.script; }),
                  c.report);
    }
    signal(SIGPIPE, previous);
    EXPECT_EQ(stdout_of([] { command_check_exit(-1, "adb reverse"); }),
              "Could not execute \"adb reverse\"\n");
}

TEST(CommandDeathTest, KillOfPidBelowOneAbortsWithoutSignallingAnyGroup)
{
    for (const pid_t pid : {0, -1}) {
        if (pid == -1 && getuid() != 0)
            GTEST_SKIP() << "a broken guard would signal every process of this user";
        // Own group, and for -1 an account with nothing else running: a broken guard hits only
        // the child, and shows as SIGTERM rather than SIGABRT.
        EXPECT_EXIT(
            {
                dup2(STDERR_FILENO, STDOUT_FILENO);
                setpgid(0, 0);
                if (pid == -1 && setuid(65534) != 0)
                    _exit(2);
                command_kill(pid);
            },
            testing::KilledBySignal(SIGABRT),
            "Requested to kill " + std::to_string(pid) + ", this is an error. Please report the bug.");
    }
}

TEST(ArgvToString, ArgumentsInBracketsCutWithDotsWithinTheBuffer)
{
    std::vector<char> mem(512 + 64, '#'); // guard bytes behind the 512 the function may use
    char* buf = mem.data();
    // One argument: 503 characters still fit (503 + 8 < 512), 504 do not.
    const std::string fits(503, 'f'), too_long(504, 'g');
    const char* one[] = {fits.c_str(), nullptr};
    EXPECT_EQ(argv_to_string(one, buf, 512), 505u);
    const char* over[] = {too_long.c_str(), nullptr};
    EXPECT_EQ(argv_to_string(over, buf, 512), 3u);
    EXPECT_STREQ(buf, "...");

    // Growing lists of short arguments: exact until they no longer fit, then a prefix and "...".
    std::vector<std::string> args;
    args.reserve(200); // argv points into them
    std::vector<const char*> argv = {nullptr};
    std::string full;
    for (int i = 0; i < 200; ++i) {
        args.push_back(std::string(size_t(i % 37), char('a' + i % 26)));
        full += (i ? ", [" : "[") + args.back() + "]";
        argv.back() = args.back().c_str();
        argv.push_back(nullptr);
        const size_t n = argv_to_string(argv.data(), buf, 512);
        ASSERT_EQ(strlen(buf), n) << i;
        ASSERT_EQ(std::string(mem.begin() + 512, mem.end()), std::string(64, '#')) << i;
        EXPECT_EQ(buf, full.size() <= 500 ? full : full.substr(0, n - 3) + "...") << i;
    }
}
