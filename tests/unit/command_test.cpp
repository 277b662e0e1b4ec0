// Process execution: launch outcomes and exit statuses with their reports, the kill guard and the
// argument vector's rendering.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "command.h"

TEST(Command, LaunchesAndExitsAreJudgedAndReportedWithTheArgumentVector)
{
    char path[] = "/tmp/orvane-command-XXXXXX"; // exists, but may not be executed
    close(mkstemp(path));
    // The daemon ignores SIGPIPE; the script exits 1 when its child inherited that.
    const char* sigpipe_default = "exit $(( 0x$(sed -n 's/^SigIgn:\\t//p' /proc/$$/status) >> 12 & 1 ))";
    const std::string exit_1 = "\"adb push\" returned with value 1\n"; // a child that could not run
    const struct {
        std::vector<const char*> argv;
        CommandResult result;
        std::string report; // none for a success
    } cases[] = {
        {{"/nonexistent/orvane/adb", "push", "x", nullptr},
         COMMAND_NOT_FOUND,
         "Command not found: [/nonexistent/orvane/adb], [push], [x]\n(make 'adb' accessible from your PATH "
         "or "
         "define its fullpath in the ADB environment variable)\n" +
             exit_1},
        {{path, "-v", nullptr},
         COMMAND_FAILED,
         "Failed to execute: [" + std::string(path) + "], [-v]\n" + exit_1},
        {{"/bin/sh", "-c", "exit 0", nullptr}, COMMAND_OK, ""},
        {{"/bin/sh", "-c", sigpipe_default, nullptr}, COMMAND_OK, ""},
        {{"/bin/sh", "-c", "exit 3", nullptr}, COMMAND_OK, "\"adb push\" returned with value 3\n"},
        {{"/bin/sh", "-c", "kill -KILL $$", nullptr}, COMMAND_OK, "\"adb push\" exited unexpectedly\n"},
    };
    void (*previous)(int) = signal(SIGPIPE, SIG_IGN);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.report);
        pid_t pid = -1;
        testing::internal::CaptureStdout();
        const CommandResult result = command_spawn(c.argv[0], const_cast<char* const*>(c.argv.data()), &pid);
        command_report_failure(result, c.argv.data());
        EXPECT_EQ(command_check_exit(pid, "adb push"), c.report.empty());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.report);
        EXPECT_EQ(result, c.result);
    }
    signal(SIGPIPE, previous);
    unlink(path);
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
    const char *one[] = {fits.c_str(), nullptr}, *over[] = {too_long.c_str(), nullptr};
    EXPECT_EQ(argv_to_string(one, buf, 512), 505u);
    EXPECT_EQ(argv_to_string(over, buf, 512), 3u);
    EXPECT_STREQ(buf, "...");
    // A list: exact while it fits, then what fits of it and "..."; never past the buffer.
    const std::string a(240, 'a'), b(240, 'b'), c(30, 'c');
    const char* two[] = {a.c_str(), b.c_str(), nullptr};
    EXPECT_EQ(argv_to_string(two, buf, 512), 486u);
    EXPECT_EQ(buf, "[" + a + "], [" + b + "]");
    const char* three[] = {a.c_str(), b.c_str(), c.c_str(), nullptr};
    EXPECT_EQ(argv_to_string(three, buf, 512), 489u);
    EXPECT_EQ(buf, "[" + a + "], [" + b + "]...");
    EXPECT_EQ(std::string(mem.begin() + 512, mem.end()), std::string(64, '#'));
}
