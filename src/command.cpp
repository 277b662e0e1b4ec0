#include "command.h"

#include "base/clock.h"
#include "base/ending.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

// glibc's report-and-abort; called directly so the two buffer checks stay on in release builds.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((__noreturn__));

namespace {

constexpr size_t FAILURE_TEXT_SIZE = 512;

// The reports name the module and lines the daemon's failure reports have always carried, so a
// console log from the field still matches the ones on record.
constexpr const char* ASSERT_FILE = "src/command";
constexpr const char* ASSERT_FUNCTION = "size_t argv_to_string(const char* const*, char*, size_t)";

} // namespace

CommandResult command_spawn(const char* program, char* const* argv, pid_t* pid)
{
    int fds[2];
    if (pipe(fds) == -1) {
        perror("pipe");
        return COMMAND_FAILED;
    }

    CommandResult result = COMMAND_OK;
    *pid = fork();
    if (*pid == -1) {
        perror("fork");
        result = COMMAND_FAILED;
    } else if (*pid == 0) {
        // Child: only close, fcntl, signal, exec, write and _exit until the exec.
        close(fds[0]);
        int code;
        if (fcntl(fds[1], F_SETFD, FD_CLOEXEC) == -1) {
            perror("fcntl");
            code = COMMAND_FAILED;
        } else {
            // The daemon ignores SIGPIPE and ignored signals stay ignored across exec; adb and
            // its shell pipelines expect the default.
            signal(SIGPIPE, SIG_DFL);
            execvp(program, argv);
            code = errno == ENOENT ? COMMAND_NOT_FOUND : COMMAND_FAILED;
            perror("exec");
        }
        if (write(fds[1], &code, sizeof code) == -1)
            perror("write");
        close(fds[1]);
        _exit(1);
    } else {
        close(fds[1]);
        fds[1] = -1;
        int code;
        // EOF means the exec went through and closed the child's end.
        const ssize_t r = read(fds[0], &code, sizeof code);
        if (r == -1) {
            perror("read");
            result = COMMAND_FAILED;
        } else if (r == static_cast<ssize_t>(sizeof code)) {
            result = static_cast<CommandResult>(code);
        }
    }

    if (fds[0] != -1)
        close(fds[0]);
    if (fds[1] != -1)
        close(fds[1]);
    return result;
}

void command_report_failure(CommandResult result, const char* const* argv)
{
    char text[FAILURE_TEXT_SIZE];
    switch (result) {
    case COMMAND_FAILED:
        argv_to_string(argv, text, sizeof text);
        printf("Failed to execute: %s\n", text);
        break;
    case COMMAND_NOT_FOUND:
        argv_to_string(argv, text, sizeof text);
        printf("Command not found: %s\n", text);
        // Only adb is ever run through here, whatever the vector says (kept on purpose: docs/KEPT.md).
        puts("(make 'adb' accessible from your PATH or define its fullpath in the ADB environment variable)");
        break;
    default:
        break;
    }
}

size_t argv_to_string(const char* const* argv, char* buf, size_t bufsize)
{
    if (argv[0] == nullptr) {
        buf[0] = '\0';
        return 0;
    }

    size_t idx = 0;
    for (const char* const* arg = argv; *arg != nullptr; ++arg) {
        const size_t len = strlen(*arg);
        // 8 leaves room for ", ", both brackets, "..." and the terminator.
        if (idx + len + 8 >= bufsize) {
            if (!(idx < bufsize - 4))
                __assert_fail("idx < bufsize - 4", ASSERT_FILE, 37, ASSERT_FUNCTION);
            memcpy(&buf[idx], "...", 3);
            idx += 3;
            buf[idx] = '\0';
            return idx;
        }
        if (arg != argv) {
            buf[idx++] = ',';
            buf[idx++] = ' ';
        }
        buf[idx++] = '[';
        memcpy(&buf[idx], *arg, len);
        idx += len;
        buf[idx++] = ']';
    }
    if (!(idx < bufsize))
        __assert_fail("idx < bufsize", ASSERT_FILE, 54, ASSERT_FUNCTION);
    buf[idx] = '\0';
    return idx;
}

bool command_kill(pid_t pid)
{
    // kill(0) or kill(-1) would hit our own process group or every process we may signal.
    if (pid < 1) {
        printf("Requested to kill %d, this is an error. Please report the bug.\n", static_cast<int>(pid));
        fflush(stdout);
        abort();
    }
    return kill(pid, SIGTERM) == 0;
}

bool command_wait(pid_t pid, int* exit_code)
{
    int status;
    int code;
    bool ok;
    if (waitpid(pid, &status, 0) == -1) {
        code = -1;
        ok = false;
    } else if (WIFSIGNALED(status) || !WIFEXITED(status)) {
        code = -1;
        ok = false;
    } else {
        code = WEXITSTATUS(status);
        ok = code == 0;
    }
    if (exit_code != nullptr)
        *exit_code = code;
    return ok;
}

bool command_wait_within(pid_t pid, int* exit_code, int timeout_ms, bool* timed_out)
{
    *timed_out = false;
    if (timeout_ms < 0)
        return command_wait(pid, exit_code);
    // Once the daemon is ending, no child holds it for long.
    EndingDeadline deadline(monotonic_ms(), timeout_ms);
    long pause_us = 1000;
    for (;;) {
        int status;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            int code = -1;
            if (WIFEXITED(status))
                code = WEXITSTATUS(status);
            if (exit_code != nullptr)
                *exit_code = code;
            return code == 0;
        }
        if (done == -1 && errno != EINTR) {
            if (exit_code != nullptr)
                *exit_code = -1;
            return false;
        }
        if (deadline.due(monotonic_ms())) {
            // A hung adb would otherwise hold the main thread, and with it the D-Bus service, forever.
            *timed_out = true;
            kill(pid, SIGKILL);
            while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
            }
            if (exit_code != nullptr)
                *exit_code = -1;
            return false;
        }
        // Most adb steps end within milliseconds; poll fast at first, then back off.
        usleep(static_cast<useconds_t>(pause_us));
        if (pause_us < 20000)
            pause_us *= 2;
    }
}

bool command_check_exit_within(pid_t pid, const char* name, int timeout_ms)
{
    if (pid == -1) {
        printf("Could not execute \"%s\"\n", name);
        return false;
    }
    int code;
    bool timed_out;
    if (command_wait_within(pid, &code, timeout_ms, &timed_out))
        return true;
    if (timed_out && daemon_ending())
        printf("\"%s\" killed: the daemon is ending\n", name);
    else if (timed_out)
        printf("\"%s\" did not finish within %d ms, killed\n", name, timeout_ms);
    else if (code == -1)
        printf("\"%s\" exited unexpectedly\n", name);
    else
        printf("\"%s\" returned with value %d\n", name, code);
    return false;
}

bool command_check_exit(pid_t pid, const char* name)
{
    return command_check_exit_within(pid, name, -1);
}

char* command_self_path()
{
    char path[4096];
    const ssize_t len = readlink("/proc/self/exe", path, sizeof path - 1);
    if (len == -1) {
        perror("readlink");
        return nullptr;
    }
    path[len] = '\0';
    return strdup(path);
}
