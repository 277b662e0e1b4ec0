// orvaned: mirrors an Android phone onto the head unit's display; driven by the HMI over D-Bus.
#include <QCoreApplication>
#include <QSocketNotifier>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
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

// SIGINT, SIGHUP and SIGQUIT end the daemon the orderly way: the handler only wakes the event
// loop, which tears the link down (layer off the car's screen, the phone's server ended) and
// leaves.
int g_end_pipe[2] = {-1, -1};

void end_signal_handler(int sig)
{
    const unsigned char byte = static_cast<unsigned char>(sig);
    const ssize_t written = write(g_end_pipe[1], &byte, 1);
    (void)written;
}

bool install_end_signals()
{
    if (pipe2(g_end_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = end_signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int sig : {SIGINT, SIGHUP, SIGQUIT})
        sigaction(sig, &action, nullptr);
    return true;
}

// Sees the notifier's activation (its socket event) before the notifier itself does.
class EndSignalWatch : public QObject
{
public:
    explicit EndSignalWatch(OrvaneService* service) : service_(service) {}

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() != QEvent::SockAct)
            return false;
        unsigned char sig = 0;
        if (read(g_end_pipe[0], &sig, 1) == 1) {
            char why[32];
            snprintf(why, sizeof why, "Signal %d", sig);
            service_->endDaemon(why);
        }
        return true;
    }

private:
    OrvaneService* service_;
};

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
#ifdef __GLIBC__
    // Decoded pictures are large and come and go with every link: served from mmap they go back to
    // the system when freed instead of growing the heap for good.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    QCoreApplication app(argc, argv);
    int result;
    {
        OrvaneService service;
        service.init();
        Diagnostics diagnostics(&service);
        app.installEventFilter(&service);
        service.watchDisplayInput();
        QSocketNotifier* ending = nullptr;
        EndSignalWatch watch(&service);
        if (install_end_signals()) {
            ending = new QSocketNotifier(g_end_pipe[0], QSocketNotifier::Read, &watch);
            ending->installEventFilter(&watch);
        }
        result = app.exec();
    }
    return result;
}
