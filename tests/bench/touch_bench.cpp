// Touch latency over D-Bus: requestTouchAction on the running daemon until the phone simulator has
// read the touch (the "t_ns" of its control log), against a D-Bus Peer.Ping round trip to the same
// daemon in the same run. Both on CLOCK_MONOTONIC. Run by system_bench.py; asserts nothing.
//   touch_bench CONTROL_LOG COUNT X Y
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include <algorithm>
#include <cstdio>
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
    for (std::string line; std::getline(in, line);)
        if (line.find("\"t_ns\":") != std::string::npos)
            times.push_back(std::atoll(line.c_str() + line.find("\"t_ns\":") + 7));
    return times;
}

double percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * (v.size() - 1) + 0.5))];
}

} // namespace

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

    std::vector<double> ping_ms, touch_ms;
    for (int i = 0; i < count; ++i) {
        const int64_t t0 = monotonic_ns();
        if (!call("org.freedesktop.DBus.Peer", "Ping", {}))
            return 1;
        ping_ms.push_back((monotonic_ns() - t0) / 1e6);
    }
    // A press, moves and a release, one at a time so that each log line belongs to one call.
    const size_t before = read_times(argv[1]).size();
    for (int i = 0; i < count; ++i) {
        const uint type = i == 0 ? 1 : (i == count - 1 ? 3 : 2);
        const int64_t t0 = monotonic_ns();
        if (!call("Local.DbusServer.QVOMirror", "requestTouchAction", {type, x + uint(i % 7), y}))
            return 1;
        std::vector<int64_t> times;
        while ((times = read_times(argv[1])).size() < before + i + 1) {
            if (monotonic_ns() > t0 + 5000000000LL) {
                std::fprintf(stderr, "touch_bench: touch %d never reached the phone\n", i);
                return 1;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        touch_ms.push_back((times[before + i] - t0) / 1e6);
    }

    const double ping99 = percentile(ping_ms, 0.99), touch99 = percentile(touch_ms, 0.99);
    std::printf("touch latency, %d calls each\n", count);
    std::printf("%-46s %9s %9s %8s %8s\n", "path", "p50 ms", "p99 ms", "p99 x", "target");
    std::printf("%-46s %9.3f %9.3f\n", "D-Bus Peer.Ping round trip (baseline)", percentile(ping_ms, 0.5),
                ping99);
    std::printf("%-46s %9.3f %9.3f %8.2f %8s\n", "requestTouchAction -> phone read the message",
                percentile(touch_ms, 0.5), touch99, touch99 / ping99, "<=2.00");
    return 0;
}
