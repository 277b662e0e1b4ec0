// orvaned: mirrors an Android phone onto the head unit's display; driven by the HMI over D-Bus.
#include <QCoreApplication>
#include <QSocketNotifier>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <execinfo.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "base/console.h"
#include "base/ending.h"
#include "base/worker.h"
#include "platform/defaults.h"
#include "service/diagnostics.h"
#include "base/log_line.h"
#include "service/orvane_service.h"

namespace {

// SIGINT, SIGHUP and SIGQUIT end the daemon the orderly way: the handler only wakes the event
// loop, which tears the link down (layer off the car's screen, the phone's server ended) and
// leaves.
int g_end_pipe[2] = {-1, -1};

void end_signal_handler(int sig)
{
    // At once, even while the main thread is busy with a start: its waits are cut short from now.
    daemon_ending_begin();
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

// Kept on purpose (docs/KEPT.md): it only reports and returns; SIGTERM leaves the daemon running.
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

namespace {

const char HELP[] =
    "Usage: orvaned [--help | --version]\n"
    "Mirror an Android phone's screen onto the head unit's display and send the driver's touches\n"
    "and keys back to the phone.\n"
    "\n"
    "orvaned takes no other options. It registers com.quorva.mirror on the D-Bus session bus and\n"
    "waits for the head unit's HMI (or orvanectl) to ask for a link: USB (type 2: the phone is\n"
    "reached through adb) or Wi-Fi (type 243: the phone's app connects after a DNS-SD\n"
    "announcement). SIGINT, SIGHUP and SIGQUIT end the link and the daemon in order.\n"
    "\n"
    "  -h, --help     print this help and exit\n"
    "  -v, --version  print the version and exit\n"
    "\n"
    "Environment:\n"
    "  ADB                         the adb tool (default: adb from the PATH)\n"
    "  LINK_FULLSCREEN             1: landscape pictures fill the screen\n"
    "  ORVANE_CONSOLE              where the output goes, - for the inherited streams (default: %s)\n"
    "  ORVANE_ADB_DEVICES_COMMAND  shell command before a USB start (default: %s)\n"
    "  ORVANE_OTG_COMMAND          shell command after a USB server stops (default: %s)\n"
    "  ORVANE_ADB_KILL_COMMAND     shell command at the end of a USB teardown (default: %s)\n"
    "  ORVANE_ADB_TIMEOUT_MS       limit of each adb step (default: 15000)\n"
    "  ORVANE_WIFI_INTERFACE       the interface whose MAC address is announced (default: %s)\n"
    "\n"
    "The README (and orvanectl(1)) say more.\n";

// --help and --version print and end; anything else is refused, since the daemon takes no options.
// Returns -1 when the daemon is to run.
int handle_arguments(int argc, char** argv)
{
    if (argc < 2)
        return -1;
    const std::string arg = argv[1];
    if (argc == 2 && (arg == "--help" || arg == "-h")) {
        const platform_defaults& d = platform_default_settings();
        const auto none = [](const char* text) { return text[0] != '\0' ? text : "none"; };
        printf(HELP, strcmp(d.console, "-") == 0 ? "the inherited streams" : d.console,
               none(d.adb_devices_command), none(d.otg_command), none(d.adb_kill_command),
               d.wifi_interface[0] != '\0' ? d.wifi_interface
                                           : "the first wireless one, else the first one up");
        return 0;
    }
    if (argc == 2 && (arg == "--version" || arg == "-v")) {
        printf("orvaned %s\n", ORVANE_VERSION);
        return 0;
    }
    fprintf(
        stderr,
        "orvaned: takes no options but --help and --version, got '%s'\nusage: orvaned [--help | --version]\n",
        argv[argc == 2 ? 1 : 2]);
    return 64;
}

} // namespace

int main(int argc, char** argv)
{
    const int done = handle_arguments(argc, argv);
    if (done >= 0)
        return done;
    // ORVANE_CONSOLE names another file, or "-" for the inherited streams.
    const char* console = getenv("ORVANE_CONSOLE");
    console_open(console != nullptr && console[0] != '\0' ? console : platform_default_settings().console);
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
        {
            // The bus library's thread, started here, is a worker: the process's signals are not its.
            WorkerSignalMask mask;
            service.init();
        }
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
