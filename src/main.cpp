// orvaned: mirrors an Android phone onto the head unit's display; driven by the HMI over D-Bus.
#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "service/diagnostics.h"
#include "service/log_line.h"
#include "service/orvane_service.h"

namespace {

constexpr const char* DEFAULT_CONSOLE = "/dev/ttyS0";

// All output goes to the serial console. ORVANE_CONSOLE names another file, or "-" to keep the
// inherited streams. Both streams share one open file so lines land in the order written.
void redirect_console()
{
    const char* console = getenv("ORVANE_CONSOLE");
    if (console == nullptr || console[0] == '\0')
        console = DEFAULT_CONSOLE;
    if (strcmp(console, "-") != 0) {
        fflush(stdout);
        fflush(stderr);
        const int fd = open(console, O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY | O_CLOEXEC, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            close(fd);
        }
    }
    // A plain line and a log line written after it must reach the console in that order.
    setvbuf(stdout, nullptr, _IOLBF, 0);
}

} // namespace

void exception_print_callstack(int)
{
    void* frames[128];
    const int n = backtrace(frames, 128);
    LogLine(QtWarningMsg, false) << "exception_print_callstack" << n;
    char** symbols = backtrace_symbols(frames, n);
    if (symbols == nullptr)
        return;
    for (int i = 0; i < n; ++i)
        LogLine(QtWarningMsg, false) << QString("[%1] %2 \n").arg(i).arg(QString::fromLocal8Bit(symbols[i]));
    free(symbols);
}

void install_exception_handler()
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = exception_print_callstack;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    const int fatal_signals[] = {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGTERM};
    for (int sig : fatal_signals)
        sigaction(sig, &action, nullptr);
}

int main(int argc, char** argv)
{
    redirect_console();
    install_exception_handler();
    // A phone that goes away must end its link, not the daemon: writes to a dead socket return
    // EPIPE instead of raising SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    QCoreApplication app(argc, argv);
    int result;
    {
        OrvaneService service;
        service.init();
        Diagnostics diagnostics(&service);
        app.installEventFilter(&service);
        result = app.exec();
    }
    return result;
}
