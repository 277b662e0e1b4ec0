// Running external programs (in practice always the adb tool): spawn with exec failures reported
// back through a close-on-exec pipe, wait, judge the exit status, terminate. Main thread only: the
// waits block it (the bounded forms for at most their time-out, shortened once the daemon ends).
#pragma once

#include <cstddef>
#include <sys/types.h>

enum CommandResult {
    COMMAND_OK = 0,        // the program was executed
    COMMAND_FAILED = 1,    // pipe, fork, fcntl, exec (other than not found) or pipe read failed
    COMMAND_NOT_FOUND = 2, // execvp failed with ENOENT
};

CommandResult command_spawn(const char* program, char* const* argv, pid_t* pid);
void command_report_failure(CommandResult result, const char* const* argv);
size_t argv_to_string(const char* const* argv, char* buf, size_t bufsize);
bool command_kill(pid_t pid);
bool command_wait(pid_t pid, int* exit_code);
bool command_check_exit(pid_t pid, const char* name);
// Bounded forms: a child still running after timeout_ms is killed (SIGKILL), reaped and reported
// as failed; *timed_out tells that case apart. A negative timeout_ms waits without limit.
bool command_wait_within(pid_t pid, int* exit_code, int timeout_ms, bool* timed_out);
bool command_check_exit_within(pid_t pid, const char* name, int timeout_ms);
char* command_self_path();
