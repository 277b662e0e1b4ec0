// Touch latency over D-Bus against a D-Bus Peer.Ping round trip to the same daemon, the two calls
// taken in turns so that load elsewhere hits both alike. A touch counts from its call until both
// its reply is back and the phone simulator has read it (the "t_ns" of its control log), so it
// holds the round trip that a ping is alone. Both on CLOCK_MONOTONIC. Prints one line per pair,
// "PING_MS TOUCH_MS"; run by system_bench.py, which sums them up; asserts nothing.
//   touch_bench CONTROL_LOG COUNT X Y
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include "base/clock.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 5) {
        std::fprintf(stderr, "usage: touch_bench CONTROL_LOG COUNT X Y\n");
        return 2;
    }
    const int count = std::max(3, std::atoi(argv[2]));
    const uint x = std::atoi(argv[3]), y = std::atoi(argv[4]);
    QDBusConnection bus = QDBusConnection::sessionBus();
    auto call = [&](const char* interface, const char* method, const QList<QVariant>& args) {
        QDBusMessage m =
            QDBusMessage::createMethodCall("com.quorva.mirror", "/com/quorva/mirror", interface, method);
        m.setArguments(args);
        const QDBusMessage reply = bus.call(m);
        if (reply.type() != QDBusMessage::ReplyMessage)
            std::fprintf(stderr, "touch_bench: %s failed: %s\n", method, qPrintable(reply.errorMessage()));
        return reply.type() == QDBusMessage::ReplyMessage;
    };
    // The control log is read on from where the last touch left it: one line per touch.
    std::ifstream log(argv[1]);
    log.seekg(0, std::ios::end);
    std::string line, partial;

    // A press, moves and a release, one at a time so that each log line belongs to one call.
    for (int i = 0; i < count; ++i) {
        int64_t t0 = monotonic_ns();
        if (!call("org.freedesktop.DBus.Peer", "Ping", {}))
            return 1;
        const double ping_ms = (monotonic_ns() - t0) / 1e6;
        const uint type = i == 0 ? 1 : (i == count - 1 ? 3 : 2);
        t0 = monotonic_ns();
        if (!call("Local.DbusServer.QVOMirror", "requestTouchAction", {type, x + uint(i % 7), y}))
            return 1;
        const int64_t replied = monotonic_ns();
        for (;;) {
            if (std::getline(log, line)) {
                if (log.eof()) { // a line still being written
                    partial += line;
                } else if ((partial + line).find("\"t_ns\":") != std::string::npos) {
                    line = partial + line;
                    break;
                } else {
                    partial.clear();
                }
            }
            log.clear();
            if (monotonic_ns() > t0 + 5000000000LL) {
                std::fprintf(stderr, "touch_bench: touch %d never reached the phone\n", i);
                return 1;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        partial.clear();
        const int64_t read = std::atoll(line.c_str() + line.find("\"t_ns\":") + 7);
        std::printf("%.4f %.4f\n", ping_ms, (std::max(replied, read) - t0) / 1e6);
    }
    return 0;
}
