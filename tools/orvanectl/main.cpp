// orvanectl: talks to the mirror daemon over the session bus the way the head unit's HMI does.
#include <QCommandLineParser>
#include <QRegularExpression>
#include <QCoreApplication>
#include <QDBusReply>
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
    "reconnects",      "link_seconds",   "links_started",  "links_failed",     "last_failure",
    "uptime_seconds",  "rss_kb"};

enum Exit {
    EXIT_OK = 0,
    EXIT_FAILED = 1,
    EXIT_TIMEOUT = 2,
    EXIT_NO_DAEMON = 3,
    EXIT_USAGE = 64,
};

const char DESCRIPTION[] =
    "Talks to the Orvane mirror daemon over the session bus the way the head unit's HMI does. It starts\n"
    "the daemon through the bus when an activation file names it (except for stop and stats).";

const char COMMANDS[] = "What to do: one of the commands below.";

const char MORE_HELP[] =
    "\n"
    "Commands:\n"
    "  start usb|wifi              start a link and print its statuses; returns on streaming (4),\n"
    "                              failed (5, with why on standard error), ended (8), or on\n"
    "                              starting (3) unless --wait-stream\n"
    "  hide [usb|wifi]             hide the video (default usb)\n"
    "  stop [usb|wifi]             stop the link (default usb)\n"
    "  key home|back|menu          send a key\n"
    "  touch press|move|release X Y  send a touch at X Y on the displayed picture\n"
    "  drag X1 Y1 X2 Y2 STEPS      press at X1 Y1, STEPS (1 to 1000) moves along the line, release\n"
    "                              at X2 Y2\n"
    "  monitor                     print every status change as 'type status meaning' until\n"
    "                              interrupted (works before the daemon is up)\n"
    "  stats [--watch [SECONDS]]   print the link's statistics as 'name value' lines; --watch\n"
    "                              redraws them as a table with rates per second every SECONDS\n"
    "                              (default 1) until interrupted\n"
    "\n"
    "Exit status: 0 done, 1 failed or ended, 2 timed out, 3 daemon not on the bus, 64 bad usage.\n";

const char SHORT_USAGE[] = "usage: orvanectl [--timeout SECONDS] [--wait-stream] COMMAND [ARGS] "
                           "(orvanectl --help for the commands)\n";

constexpr uint DRAG_MAX_STEPS = 1000;

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
    const int rc = QCoreApplication::exec();
    if (watcher.lastStatus() == 5) {
        // Why, as the daemon's console said it: the failing step's line and its reason.
        QDBusMessage get = QDBusMessage::createMethodCall(SERVICE, DIAGNOSTICS_PATH,
                                                          "org.freedesktop.DBus.Properties", "Get");
        get.setArguments({QString(DIAGNOSTICS_INTERFACE), QString("last_failure")});
        const QDBusMessage reply = bus.call(get, QDBus::Block, timeoutSeconds * 1000);
        const QString why = reply.arguments().value(0).value<QDBusVariant>().variant().toString();
        for (const QString& line : why.split('\n', Qt::SkipEmptyParts))
            fprintf(stderr, "orvanectl: %s\n", qPrintable(line));
    }
    return rc;
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
    // One line per figure: a failure's reason and its line are joined.
    const QString text = value.toString().replace('\n', " / ");
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

// A usage error: what was wrong, then one line of usage.
int bad_usage(const QString& what)
{
    fprintf(stderr, "orvanectl: %s\n%s", qPrintable(what), SHORT_USAGE);
    return EXIT_USAGE;
}

QString quoted(const QString& text)
{
    return QString("'%1'").arg(text);
}

// "usb" -> 2, "wifi" -> 243; an absent word is usb where `optional`. -1 after a usage error.
int link_type(const QString& command, const QStringList& args, bool optional)
{
    if (args.isEmpty() && optional)
        return 2;
    if (args.size() == 1 && args[0] == "usb")
        return 2;
    if (args.size() == 1 && args[0] == "wifi")
        return 243;
    bad_usage(args.size() > 1
                  ? QString("%1: expected usb or wifi alone, got %2 arguments").arg(command).arg(args.size())
              : args.isEmpty() ? QString("%1: expected usb or wifi").arg(command)
                               : QString("%1: expected usb or wifi, got %2").arg(command, quoted(args[0])));
    return -1;
}

// A coordinate (or step count) from `low` to `high`; false after a usage error.
bool parse_number(const QString& command, const char* name, const QString& text, qulonglong low,
                  qulonglong high, uint* value)
{
    bool ok = false;
    const qulonglong v = text.toULongLong(&ok, 10);
    if (!ok || v < low || v > high || text.startsWith('+')) {
        bad_usage(QString("%1: %2 must be a whole number from %3 to %4, got %5")
                      .arg(command, name)
                      .arg(low)
                      .arg(high)
                      .arg(quoted(text)));
        return false;
    }
    *value = static_cast<uint>(v);
    return true;
}

// One of `words`, as its position from 1; 0 after a usage error.
int parse_word(const QString& command, const QStringList& words, const QString& text)
{
    const int index = words.indexOf(text) + 1;
    if (index == 0) {
        QStringList expected = words;
        const QString last = expected.takeLast();
        bad_usage(
            QString("%1: expected %2 or %3, got %4").arg(command, expected.join(", "), last, quoted(text)));
    }
    return index;
}

bool count_is(const QString& command, const QStringList& args, int count, const char* expected)
{
    if (args.size() == count)
        return true;
    bad_usage(QString("%1: expected %2, got %3 argument%4")
                  .arg(command, expected)
                  .arg(args.size())
                  .arg(args.size() == 1 ? "" : "s"));
    return false;
}

// The daemon is on the bus, or the bus starts it (an activation file names it); false after
// saying why not.
bool reach_daemon(QDBusConnection& bus, bool activate)
{
    QDBusConnectionInterface* daemon = bus.interface();
    if (daemon->isServiceRegistered(SERVICE))
        return true;
    if (!activate || !daemon->activatableServiceNames().value().contains(SERVICE)) {
        no_daemon();
        return false;
    }
    const QDBusReply<void> started = daemon->startService(SERVICE);
    if (!started.isValid()) {
        fprintf(stderr, "orvanectl: the mirror daemon (%s) could not be started by the bus: %s\n", SERVICE,
                qPrintable(started.error().message()));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("orvanectl");
    QCoreApplication::setApplicationVersion(ORVANE_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription(DESCRIPTION);
    const QCommandLineOption timeoutOption("timeout", "How long to wait for the daemon (default 60).",
                                           "seconds", "60");
    const QCommandLineOption waitStreamOption(
        "wait-stream", "start: keep waiting past 'starting' (a Wi-Fi link waits there for the phone).");
    const QCommandLineOption watchOption(
        "watch",
        "stats: redraw as a table with rates per second every SECONDS (default 1) until interrupted.");
    parser.addOptions({timeoutOption, waitStreamOption, watchOption});
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();
    parser.addPositionalArgument("command", COMMANDS, "COMMAND [ARGS]");
    if (!parser.parse(app.arguments()))
        return bad_usage(parser.errorText());
    if (parser.isSet(helpOption)) {
        // The man page is made from this text: the program's name, not the path it was run by.
        QString help = parser.helpText();
        help.replace(QRegularExpression("^Usage: \\S+"), "Usage: orvanectl");
        fputs(qPrintable(help), stdout);
        fputs(MORE_HELP, stdout);
        return EXIT_OK;
    }
    if (parser.isSet(versionOption)) {
        printf("orvanectl %s\n", ORVANE_VERSION);
        return EXIT_OK;
    }

    bool ok = false;
    const int timeoutSeconds = parser.value(timeoutOption).toInt(&ok);
    if (!ok || timeoutSeconds < 1 || timeoutSeconds > 86400)
        return bad_usage(QString("--timeout: expected seconds from 1 to 86400, got %1")
                             .arg(quoted(parser.value(timeoutOption))));
    const bool waitStream = parser.isSet(waitStreamOption);
    QStringList args = parser.positionalArguments();
    if (args.isEmpty())
        return bad_usage("no command given");
    const QString command = args.takeFirst();
    if (parser.isSet(watchOption) && command != "stats")
        return bad_usage(QString("--watch: only for stats, not for %1").arg(command));

    QList<QVariant> callArgs;
    const char* callName = nullptr;
    int startType = 0;
    QPoint dragFrom, dragTo;
    uint dragSteps = 0;
    uint watchSeconds = 0;
    if (command == "start") {
        startType = link_type(command, args, false);
        if (startType < 0)
            return EXIT_USAGE;
    } else if (command == "hide" || command == "stop") {
        const int type = link_type(command, args, true);
        if (type < 0)
            return EXIT_USAGE;
        callName = "requestLinkStatus";
        callArgs = {type, command == "hide" ? 6 : 7};
    } else if (command == "key") {
        if (!count_is(command, args, 1, "home, back or menu"))
            return EXIT_USAGE;
        const int key = parse_word(command, {"home", "back", "menu"}, args[0]);
        if (key == 0)
            return EXIT_USAGE;
        callName = "requestKeyValue";
        callArgs = {key};
    } else if (command == "touch") {
        uint x, y;
        if (!count_is(command, args, 3, "press|move|release X Y"))
            return EXIT_USAGE;
        const int action = parse_word(command, {"press", "move", "release"}, args[0]);
        if (action == 0 || !parse_number(command, "X", args[1], 0, 0xFFFFFFFFull, &x) ||
            !parse_number(command, "Y", args[2], 0, 0xFFFFFFFFull, &y))
            return EXIT_USAGE;
        callName = "requestTouchAction";
        callArgs = {static_cast<uint>(action), x, y};
    } else if (command == "drag") {
        uint v[4];
        if (!count_is(command, args, 5, "X1 Y1 X2 Y2 STEPS"))
            return EXIT_USAGE;
        const char* names[] = {"X1", "Y1", "X2", "Y2"};
        for (int i = 0; i < 4; ++i)
            if (!parse_number(command, names[i], args[i], 0, 0x7FFFFFFFull, &v[i]))
                return EXIT_USAGE;
        // A finger's drag, not a flood: each step is a D-Bus call.
        if (!parse_number(command, "STEPS", args[4], 1, DRAG_MAX_STEPS, &dragSteps))
            return EXIT_USAGE;
        dragFrom = QPoint(int(v[0]), int(v[1]));
        dragTo = QPoint(int(v[2]), int(v[3]));
    } else if (command == "stats") {
        if (!args.isEmpty() && !parser.isSet(watchOption))
            return bad_usage(
                QString("stats: takes no argument without --watch, got %1").arg(quoted(args[0])));
        if (args.size() > 1)
            return bad_usage(QString("stats: expected at most SECONDS, got %1 arguments").arg(args.size()));
        watchSeconds = parser.isSet(watchOption) ? 1 : 0;
        if (!args.isEmpty() && !parse_number("stats --watch", "SECONDS", args[0], 1, 3600, &watchSeconds))
            return EXIT_USAGE;
    } else if (command == "monitor") {
        if (!args.isEmpty())
            return bad_usage(QString("monitor: takes no argument, got %1").arg(quoted(args[0])));
    } else {
        return bad_usage(QString("unknown command %1").arg(quoted(command)));
    }

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        fprintf(stderr, "orvanectl: cannot connect to the session bus: %s\n",
                qPrintable(bus.lastError().message()));
        return EXIT_NO_DAEMON;
    }
    if (command == "monitor")
        return run_monitor(bus);
    // Stopping or reading the figures of a daemon that is not there does not start one.
    if (!reach_daemon(bus, command != "stop" && command != "stats"))
        return EXIT_NO_DAEMON;
    if (command == "stats")
        return watchSeconds != 0 ? run_watch(bus, int(watchSeconds), timeoutSeconds)
                                 : run_stats(bus, timeoutSeconds);
    if (startType != 0)
        return run_start(bus, startType, waitStream, timeoutSeconds);
    if (command == "drag") {
        // One call after the other, as a finger on the HMI's screen would produce them.
        int rc = EXIT_OK;
        for (uint i = 0; i <= dragSteps + 1 && rc == EXIT_OK; ++i) {
            const int step = int(qMin(i, dragSteps));
            const QPoint at = dragFrom + (dragTo - dragFrom) * step / int(dragSteps);
            const uint action = i == 0 ? 1 : i > dragSteps ? 3 : 2;
            rc = run_call(bus, "requestTouchAction", {action, uint(at.x()), uint(at.y())}, timeoutSeconds);
        }
        return rc;
    }
    return run_call(bus, callName, callArgs, timeoutSeconds);
}

#include "main.moc"
