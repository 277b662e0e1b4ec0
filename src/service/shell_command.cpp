#include "service/shell_command.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

const char* shell_command_text(const char* env_name, const char* default_text)
{
    const char* value = getenv(env_name);
    return value != nullptr ? value : default_text;
}

int shell_command_run(const char* text, int timeout_ms)
{
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

    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (done < 0 && errno != EINTR)
            return -1;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long elapsed_ms = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (elapsed_ms >= timeout_ms) {
            printf("\"%s\" did not finish within %d ms, killed\n", text, timeout_ms);
            kill(-pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return -1;
        }
        usleep(5000);
    }
}
