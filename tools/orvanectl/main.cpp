// orvanectl: talks to the mirror daemon over the session bus the way the head unit's HMI does.
#include <QCoreApplication>
#include <QPoint>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QDBusServiceWatcher>
#include <QObject>
#include <QSocketNotifier>
#include <QStringList>
#include <QTimer>
#include <QVariant>
#include <QVariantMap>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

const char* const SERVICE = "com.quorva.mirror";
const char* const PATH = "/com/quorva/mirror";
const char* const INTERFACE = "Local.DbusServer.QVOMirror";
const char* const DIAGNOSTICS_PATH = "/com/quorva/mirror/diagnostics";
const char* const DIAGNOSTICS_INTERFACE = "com.quorva.mirror.Diagnostics1";

// The figures, in the order people read them.
const char* const FIGURES[] = {
    "link_type",       "state",          "phone_name",     "picture_size",     "layer",
    "frames_received", "frames_decoded", "pictures_shown", "frames_not_shown", "decode_errors",
    "bytes_received",  "bitrate_kbps",   "decode_ms_p50",  "decode_ms_p99",    "last_frame_age_ms",
    "reconnects",      "link_seconds",   "links_started",  "links_failed",     "uptime_seconds",
    "rss_kb"};

enum Exit {
    EXIT_OK = 0,
    EXIT_FAILED = 1,
    EXIT_TIMEOUT = 2,
    EXIT_NO_DAEMON = 3,
    EXIT_USAGE = 64,
};

const char USAGE[] =
    "usage: orvanectl [--timeout SECONDS] [--wait-stream] [--watch [SECONDS]] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  start usb|wifi              start a link and print its statuses; returns on streaming (4),\n"
    "                              failed (5), ended (8), or on starting (3) unless --wait-stream\n"
    "  hide [usb|wifi]             hide the video (default usb)\n"
    "  stop [usb|wifi]             stop the link (default usb)\n"
    "  key home|back|menu          send a key\n"
    "  touch press|move|release X Y  send a touch at X Y on the displayed picture\n"
    "  drag X1 Y1 X2 Y2 STEPS      press at X1 Y1, STEPS moves along the line, release at X2 Y2\n"
    "  monitor                     print every status change as 'type status meaning' until\n"
    "                              interrupted (works before the daemon is up)\n"
    "  stats [--watch [SECONDS]]   print the link's statistics as 'name value' lines; --watch\n"
    "                              redraws them as a table with rates per second every SECONDS\n"
    "                              (default 1) until interrupted\n"
    "\n"
    "options:\n"
    "  --timeout SECONDS           how long to wait for the daemon (default 60)\n"
    "  --wait-stream               start: keep waiting past 'starting' (a Wi-Fi link waits there\n"
    "                              for the phone)\n"
    "  --watch [SECONDS]           stats: redraw until interrupted\n"
    "\n"
    "exit status: 0 done, 1 failed or ended, 2 timed out, 3 daemon not on the bus, 64 bad usage\n";

int usage()
{
    fputs(USAGE, stderr);
    return EXIT_USAGE;
}

const char* meaning(int status)
{
    switch (status) {
    case 3:
        return "starting";
    case 4:
        return "streaming";
    case 5:
        return "failed";
    case 6:
        return "hidden";
    case 8:
        return "ended";
    default:
        return "unknown";
    }
}

void print_status(int type, int status)
{
    printf("%d %d %s\n", type, status, meaning(status));
    fflush(stdout);
}

int no_daemon()
{
    fprintf(stderr, "orvanectl: the mirror daemon (%s) is not on the session bus\n", SERVICE);
    return EXIT_NO_DAEMON;
}

bool is_missing_service(const QDBusError& error)
{
    return error.type() == QDBusError::ServiceUnknown ||
           error.name() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner");
}

int call_failed(const QDBusError& error)
{
    if (is_missing_service(error))
        return no_daemon();
    fprintf(stderr, "orvanectl: %s: %s\n", qPrintable(error.name()), qPrintable(error.message()));
    return error.type() == QDBusError::NoReply || error.type() == QDBusError::Timeout ? EXIT_TIMEOUT
                                                                                      : EXIT_FAILED;
}

QDBusMessage method(const char* name, const QList<QVariant>& args)
{
    QDBusMessage message = QDBusMessage::createMethodCall(SERVICE, PATH, INTERFACE, name);
    message.setArguments(args);
    return message;
}

// SIGINT/SIGTERM end the monitor through the event loop (self-pipe), not from the handler.
int signal_pipe[2] = {-1, -1};

void on_stop_signal(int)
{
    const char byte = 0;
    const ssize_t ignored = write(signal_pipe[1], &byte, 1);
    (void)ignored;
}

} // namespace

// Receives onLinkStatusChange; decides when `start` is done.
class StatusWatcher : public QObject
{
    Q_OBJECT

public:
    StatusWatcher(int linkType, bool waitStream) : linkType_(linkType), waitStream_(waitStream) {}
    int lastStatus() const { return lastStatus_; }

public slots:
    void onLinkStatusChange(int type, int status)
    {
        if (linkType_ == 0) {
            print_status(type, status);
            return;
        }
        if (type != linkType_)
            return;
        print_status(type, status);
        lastStatus_ = status;
        if (status == 4 || (status == 3 && !waitStream_))
            QCoreApplication::exit(EXIT_OK);
        else if (status == 5 || status == 8)
            QCoreApplication::exit(EXIT_FAILED);
    }

private:
    int linkType_; // 0: every type (monitor)
    bool waitStream_;
    int lastStatus_ = 0;
};

namespace {

bool subscribe(QDBusConnection& bus, StatusWatcher* watcher)
{
    // Any sender: the monitor may start before the daemon, or outlive one daemon and see the next.
    if (!bus.connect(QString(), PATH, INTERFACE, "onLinkStatusChange", watcher,
                     SLOT(onLinkStatusChange(int, int))))
        return false;
    // One round trip to the bus: it handles our messages in order, so the match rule is in place
    // once this returns and no status sent after it can be missed.
    bus.interface()->isServiceRegistered(SERVICE);
    return true;
}

int run_start(QDBusConnection& bus, int type, bool waitStream, int timeoutSeconds)
{
    StatusWatcher watcher(type, waitStream);
    if (!subscribe(bus, &watcher)) {
        fprintf(stderr, "orvanectl: cannot subscribe to onLinkStatusChange: %s\n",
                qPrintable(bus.lastError().message()));
        return EXIT_FAILED;
    }

    // A daemon that dies during its start-up would otherwise look like a slow one.
    QDBusServiceWatcher serviceWatcher(SERVICE, bus, QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(&serviceWatcher, &QDBusServiceWatcher::serviceUnregistered, [] {
        fprintf(stderr, "orvanectl: the mirror daemon (%s) left the session bus\n", SERVICE);
        QCoreApplication::exit(EXIT_FAILED);
    });

    // The daemon answers only when its whole start-up has run; the statuses come as signals.
    const QDBusPendingCall pending =
        bus.asyncCall(method("requestLinkStatus", {type, 3}), timeoutSeconds * 1000);
    QDBusPendingCallWatcher callWatcher(pending);
    QObject::connect(&callWatcher, &QDBusPendingCallWatcher::finished, [](QDBusPendingCallWatcher* call) {
        if (call->isError()) {
            const QDBusError error = call->error();
            if (error.type() != QDBusError::NoReply && error.type() != QDBusError::Timeout)
                QCoreApplication::exit(call_failed(error));
        }
    });

    QTimer::singleShot(timeoutSeconds * 1000, [timeoutSeconds, &watcher] {
        fprintf(stderr, "orvanectl: no final link status within %d s (last status %d %s)\n", timeoutSeconds,
                watcher.lastStatus(), watcher.lastStatus() ? meaning(watcher.lastStatus()) : "none");
        QCoreApplication::exit(EXIT_TIMEOUT);
    });
    return QCoreApplication::exec();
}

// From here on SIGINT and SIGTERM end the event loop with EXIT_OK; null when that cannot be set up.
QSocketNotifier* exit_on_stop_signals()
{
    if (pipe(signal_pipe) != 0) {
        perror("orvanectl: pipe");
        return nullptr;
    }
    auto* notifier = new QSocketNotifier(signal_pipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, [] { QCoreApplication::exit(EXIT_OK); });
    struct sigaction action = {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return notifier;
}

int run_monitor(QDBusConnection& bus)
{
    StatusWatcher watcher(0, false);
    if (!exit_on_stop_signals())
        return EXIT_FAILED;

    if (!subscribe(bus, &watcher)) {
        fprintf(stderr, "orvanectl: cannot subscribe to onLinkStatusChange: %s\n",
                qPrintable(bus.lastError().message()));
        return EXIT_FAILED;
    }
    fprintf(stderr, "orvanectl: monitoring %s\n", SERVICE);
    return QCoreApplication::exec();
}

int run_call(QDBusConnection& bus, const char* name, const QList<QVariant>& args, int timeoutSeconds)
{
    const QDBusMessage reply = bus.call(method(name, args), QDBus::Block, timeoutSeconds * 1000);
    if (reply.type() == QDBusMessage::ErrorMessage)
        return call_failed(QDBusError(reply));
    return EXIT_OK;
}

// The daemon's figures, one property read each; the exit status of the calls. (Reading the a{sv}
// of GetStatistics through Qt 5 now and then leaves a map entry's reader behind.)
int fetch_stats(QDBusConnection& bus, int timeoutSeconds, QVariantMap* figures)
{
    figures->clear();
    for (const char* name : FIGURES) {
        QDBusMessage get = QDBusMessage::createMethodCall(SERVICE, DIAGNOSTICS_PATH,
                                                          "org.freedesktop.DBus.Properties", "Get");
        get.setArguments({QString(DIAGNOSTICS_INTERFACE), QString(name)});
        const QDBusMessage reply = bus.call(get, QDBus::Block, timeoutSeconds * 1000);
        if (reply.type() == QDBusMessage::ErrorMessage)
            return call_failed(QDBusError(reply));
        figures->insert(name, reply.arguments().value(0).value<QDBusVariant>().variant());
    }
    return EXIT_OK;
}

QString figure_text(const QVariant& value)
{
    if (value.userType() == QMetaType::Double)
        return QString::number(value.toDouble(), 'f', 2);
    const QString text = value.toString();
    return text.isEmpty() ? QString("-") : text;
}

// The frame path's counters, whose rate is worth a column.
bool has_rate(const QString& name)
{
    return name.startsWith("frames_") || name == "pictures_shown" || name == "decode_errors" ||
           name == "bytes_received";
}

int run_stats(QDBusConnection& bus, int timeoutSeconds)
{
    QVariantMap figures;
    const int status = fetch_stats(bus, timeoutSeconds, &figures);
    if (status != EXIT_OK)
        return status;
    for (const char* name : FIGURES)
        printf("%s %s\n", name, qPrintable(figure_text(figures[name])));
    return EXIT_OK;
}

// A table redrawn every `seconds`, the counters with their rate since the last drawing.
int run_watch(QDBusConnection& bus, int seconds, int timeoutSeconds)
{
    if (!exit_on_stop_signals())
        return EXIT_FAILED;
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    QVariantMap last;
    QElapsedTimer sinceLast;
    const auto draw = [&] {
        QVariantMap figures;
        const int status = fetch_stats(bus, timeoutSeconds, &figures);
        if (status != EXIT_OK) {
            QCoreApplication::exit(status);
            return;
        }
        const double elapsed = sinceLast.isValid() ? sinceLast.restart() / 1000.0 : 0.0;
        sinceLast.start();
        printf(terminal ? "\033[H\033[2J" : "\n");
        printf("%-18s %24s %12s\n", "figure", "value", "per second");
        for (const char* name : FIGURES) {
            const QVariant& value = figures[name];
            QString rate = "";
            if (has_rate(name) && last.contains(name) && elapsed > 0)
                rate = QString::number((value.toULongLong() - last[name].toULongLong()) / elapsed, 'f', 1);
            printf("%-18s %24s %12s\n", name, qPrintable(figure_text(value)), qPrintable(rate));
        }
        fflush(stdout);
        last = figures;
    };
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, draw);
    timer.start(seconds * 1000);
    draw();
    return QCoreApplication::exec();
}

// "usb" -> 2, "wifi" -> 243; an absent word means usb.
int link_type(const QStringList& args, int index, bool optional)
{
    if (index >= args.size())
        return optional ? 2 : -1;
    if (args[index] == "usb")
        return 2;
    if (args[index] == "wifi")
        return 243;
    return -1;
}

bool parse_coordinate(const QString& text, uint* value)
{
    bool ok = false;
    const qulonglong v = text.toULongLong(&ok, 10);
    if (!ok || v > 0xFFFFFFFFull || text.startsWith('+'))
        return false;
    *value = static_cast<uint>(v);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);

    int timeoutSeconds = 60;
    bool waitStream = false;
    int watchSeconds = 0;
    QStringList args;
    const QStringList all = app.arguments().mid(1);
    for (int i = 0; i < all.size(); ++i) {
        const QString& arg = all[i];
        if (arg == "--wait-stream") {
            waitStream = true;
        } else if (arg == "--timeout" || arg.startsWith("--timeout=")) {
            QString value;
            if (arg == "--timeout") {
                if (i + 1 >= all.size())
                    return usage();
                value = all[++i];
            } else {
                value = arg.mid(10);
            }
            bool ok = false;
            timeoutSeconds = value.toInt(&ok);
            if (!ok || timeoutSeconds < 1 || timeoutSeconds > 86400)
                return usage();
        } else if (arg == "--watch") {
            watchSeconds = 1;
            bool ok = false;
            const int seconds = i + 1 < all.size() ? all[i + 1].toInt(&ok) : 0;
            if (ok) {
                if (seconds < 1 || seconds > 3600)
                    return usage();
                watchSeconds = seconds;
                ++i;
            }
        } else if (arg == "-h" || arg == "--help") {
            fputs(USAGE, stdout);
            return EXIT_OK;
        } else if (arg.startsWith("--")) {
            return usage();
        } else {
            args << arg;
        }
    }
    if (args.isEmpty())
        return usage();

    const QString command = args[0];
    QList<QVariant> callArgs;
    const char* callName = nullptr;
    int startType = 0;
    QPoint dragFrom, dragTo;
    int dragSteps = 0;
    if (command == "start" && args.size() == 2) {
        startType = link_type(args, 1, false);
        if (startType < 0)
            return usage();
    } else if ((command == "hide" || command == "stop") && args.size() <= 2) {
        const int type = link_type(args, 1, true);
        if (type < 0)
            return usage();
        callName = "requestLinkStatus";
        callArgs = {type, command == "hide" ? 6 : 7};
    } else if (command == "key" && args.size() == 2) {
        const QStringList keys = {"home", "back", "menu"};
        const int key = keys.indexOf(args[1]) + 1;
        if (key == 0)
            return usage();
        callName = "requestKeyValue";
        callArgs = {key};
    } else if (command == "touch" && args.size() == 4) {
        const QStringList actions = {"press", "move", "release"};
        const int action = actions.indexOf(args[1]) + 1;
        uint x;
        uint y;
        if (action == 0 || !parse_coordinate(args[2], &x) || !parse_coordinate(args[3], &y))
            return usage();
        callName = "requestTouchAction";
        callArgs = {static_cast<uint>(action), x, y};
    } else if (command == "drag" && args.size() == 6) {
        uint v[5];
        for (int i = 0; i < 5; ++i)
            if (!parse_coordinate(args[i + 1], &v[i]))
                return usage();
        dragFrom = QPoint(int(v[0]), int(v[1]));
        dragTo = QPoint(int(v[2]), int(v[3]));
        dragSteps = int(qMin(v[4], 100000u));
    } else if ((command != "monitor" && command != "stats") || args.size() != 1) {
        return usage();
    }
    if (watchSeconds != 0 && command != "stats")
        return usage();

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        fprintf(stderr, "orvanectl: cannot connect to the session bus: %s\n",
                qPrintable(bus.lastError().message()));
        return EXIT_NO_DAEMON;
    }
    if (command == "monitor")
        return run_monitor(bus);
    if (!bus.interface()->isServiceRegistered(SERVICE))
        return no_daemon();
    if (command == "stats")
        return watchSeconds != 0 ? run_watch(bus, watchSeconds, timeoutSeconds)
                                 : run_stats(bus, timeoutSeconds);
    if (startType != 0)
        return run_start(bus, startType, waitStream, timeoutSeconds);
    if (command == "drag") {
        // One call after the other, as a finger on the HMI's screen would produce them.
        int rc = EXIT_OK;
        for (int i = 0; i <= dragSteps + 1 && rc == EXIT_OK; ++i) {
            const int step = qMin(i, dragSteps);
            const QPoint at = dragFrom + (dragTo - dragFrom) * step / qMax(dragSteps, 1);
            const uint action = i == 0 ? 1 : i > dragSteps ? 3 : 2;
            rc = run_call(bus, "requestTouchAction", {action, uint(at.x()), uint(at.y())}, timeoutSeconds);
        }
        return rc;
    }
    return run_call(bus, callName, callArgs, timeoutSeconds);
}

#include "main.moc"
