// Touch latency over D-Bus: requestTouchAction on the running daemon until the phone simulator
// has read the touch message (the "t_ns" of its control log), against a bare D-Bus round trip to
// the same daemon (org.freedesktop.DBus.Peer.Ping) measured in the same run. Both clocks are
// CLOCK_MONOTONIC. Run by tests/bench/system_bench.py with a USB link up; asserts nothing.
//   touch_bench CONTROL_LOG COUNT X Y
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

int64_t monotonic_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The "t_ns" values of the control log, in order.
std::vector<int64_t> read_times(const std::string& path)
{
    std::vector<int64_t> times;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const size_t at = line.find("\"t_ns\":");
        if (at != std::string::npos)
            times.push_back(std::atoll(line.c_str() + at + 7));
    }
    return times;
}

double percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5));
    return v[i];
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 5) {
        std::fprintf(stderr, "usage: touch_bench CONTROL_LOG COUNT X Y\n");
        return 2;
    }
    const std::string log = argv[1];
    const int count = std::max(3, std::atoi(argv[2]));
    const uint x = static_cast<uint>(std::atoi(argv[3]));
    const uint y = static_cast<uint>(std::atoi(argv[4]));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        std::fprintf(stderr, "touch_bench: no session bus\n");
        return 1;
    }

    std::vector<double> ping_ms;
    for (int i = 0; i < count; ++i) {
        QDBusMessage m = QDBusMessage::createMethodCall("com.quorva.mirror", "/com/quorva/mirror",
                                                        "org.freedesktop.DBus.Peer", "Ping");
        const int64_t t0 = monotonic_ns();
        const QDBusMessage reply = bus.call(m);
        const int64_t t1 = monotonic_ns();
        if (reply.type() != QDBusMessage::ReplyMessage) {
            std::fprintf(stderr, "touch_bench: Ping failed: %s\n", qPrintable(reply.errorMessage()));
            return 1;
        }
        ping_ms.push_back((t1 - t0) / 1e6);
    }

    // A press, moves, a release: each is forwarded as one touch message. One at a time, so that
    // each log line belongs to exactly one call.
    std::vector<double> touch_ms;
    const size_t before = read_times(log).size();
    for (int i = 0; i < count; ++i) {
        const uint type = i == 0 ? 1 : (i == count - 1 ? 3 : 2);
        QDBusMessage m = QDBusMessage::createMethodCall("com.quorva.mirror", "/com/quorva/mirror",
                                                        "Local.DbusServer.QVOMirror", "requestTouchAction");
        m << type << x + uint(i % 7) << y;
        const int64_t t0 = monotonic_ns();
        const QDBusMessage reply = bus.call(m);
        if (reply.type() != QDBusMessage::ReplyMessage) {
            std::fprintf(stderr, "touch_bench: requestTouchAction failed: %s\n",
                         qPrintable(reply.errorMessage()));
            return 1;
        }
        std::vector<int64_t> times;
        const int64_t deadline = t0 + 5000000000LL;
        while ((times = read_times(log)).size() < before + i + 1) {
            if (monotonic_ns() > deadline) {
                std::fprintf(stderr, "touch_bench: touch %d never reached the phone\n", i);
                return 1;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        touch_ms.push_back((times[before + i] - t0) / 1e6);
    }

    const double ping50 = percentile(ping_ms, 0.5), ping99 = percentile(ping_ms, 0.99);
    const double touch50 = percentile(touch_ms, 0.5), touch99 = percentile(touch_ms, 0.99);
    std::printf("touch latency, %d calls each\n", count);
    std::printf("%-46s %9s %9s %8s %8s\n", "path", "p50 ms", "p99 ms", "p99 x", "target");
    std::printf("%-46s %9.3f %9.3f\n", "D-Bus Peer.Ping round trip (baseline)", ping50, ping99);
    std::printf("%-46s %9.3f %9.3f %8.2f %8s\n", "requestTouchAction -> phone read the message", touch50,
                touch99, touch99 / ping99, "<=2.00");
    return 0;
}
