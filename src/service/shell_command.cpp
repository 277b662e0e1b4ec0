#include "service/shell_command.h"

#include "base/ending.h"
#include "command.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

int shell_command_run(const char* text, int timeout_ms)
{
    if (text[0] == '\0')
        return 0;
    const pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return -1;
    }
    if (pid == 0) {
        // Its own process group, so a hanging command and its children can be ended together.
        setpgid(0, 0);
        signal(SIGPIPE, SIG_DFL);
        execl("/bin/sh", "sh", "-c", text, static_cast<char*>(nullptr));
        _exit(127);
    }
    setpgid(pid, pid);

    int code = -1;
    bool timed_out = false;
    command_wait_within(pid, &code, timeout_ms, &timed_out);
    if (timed_out) {
        if (daemon_ending())
            printf("\"%s\" killed: the daemon is ending\n", text);
        else
            printf("\"%s\" did not finish within %d ms, killed\n", text, timeout_ms);
        // The shell is gone; what it started is still in its group.
        kill(-pid, SIGKILL);
    }
    return code;
}

int shell_command_run_configured(const char* env_name, const char* default_text)
{
    const char* value = getenv(env_name);
    return shell_command_run(value != nullptr ? value : default_text, SHELL_COMMAND_TIMEOUT_MS);
}
