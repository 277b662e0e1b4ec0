// Throughput of the video path on the headless host platform, each figure against a baseline from
// the same run: the stream thread receiving, decoding and flipping a clip against ffmpeg decoding
// the same file on one thread; and the stream thread with the display closed (frames received into
// the video buffer only) against a bare loopback receive loop. Prints ratios; asserts nothing.
//   stream_bench [WxH [FRAMES [ROUNDS]]]     (default 1280x720 300 50)
#include <QCoreApplication>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../unit/h264_clip.h"
#include "net/sock.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/stream.h"
#include "video/video_buffer.h"

namespace {

using Clock = std::chrono::steady_clock;
using Packets = std::vector<std::vector<uint8_t>>;

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The phone's framing: 8 bytes of timestamp, 4 of length, then the access unit.
std::vector<uint8_t> packet(uint64_t pts, const std::vector<uint8_t>& unit)
{
    std::vector<uint8_t> p;
    for (int shift = 56; shift >= 0; shift -= 8)
        p.push_back(uint8_t(pts >> shift));
    for (int shift = 24; shift >= 0; shift -= 8)
        p.push_back(uint8_t(unit.size() >> shift));
    p.insert(p.end(), unit.begin(), unit.end());
    return p;
}

// A loopback TCP connection whose phone side sends the packets `rounds` times, then the zero-length
// end of stream; returns the reader side and leaves the sender running.
int connect_phone(const Packets& packets, int rounds, std::thread* sender)
{
    const int listener = sock_listen(SOCK_ADDR_LOOPBACK, 0, 1);
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
    const int phone = sock_connect(SOCK_ADDR_LOOPBACK, ntohs(addr.sin_port));
    const int reader = sock_accept(listener);
    sock_close(listener);
    *sender = std::thread([=, &packets] {
        for (int r = 0; r < rounds; ++r)
            for (const auto& p : packets)
                send(phone, p.data(), p.size(), MSG_NOSIGNAL);
        const auto end = packet(0, {});
        send(phone, end.data(), end.size(), MSG_NOSIGNAL);
        close(phone);
    });
    return reader;
}

// The stream thread over a fresh connection: seconds from start to join.
double run_stream(const Packets& packets, int rounds, bool decode, int w, int h)
{
    screen scr;
    screen_init(&scr);
    if (decode && !screen_init_rendering(&scr))
        return -1;
    video_buffer buffer{};
    buffer.screen = &scr;
    buffer.memalloc_fd = -1;
    buffer.mapped_address = VIDEO_BUFFER_UNMAPPED;
    video_buffer_init(&buffer, false, w, h);
    decoder dec{&buffer};
    std::thread sender;
    const int reader = connect_phone(packets, rounds, &sender);
    stream st;
    stream_init(&st, reader, STREAM_SOCKET_TCP, &dec, false);
    const auto start = Clock::now();
    stream_start(&st);
    sender.join();
    stream_join(&st);
    const double elapsed = seconds_since(start);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
    close(reader);
    video_buffer_destroy(&buffer);
    screen_close(&scr);
    return elapsed;
}

// The same packets read by a plain loop: header, then payload into one buffer of the video's size.
double run_bare(const Packets& packets, int rounds)
{
    std::thread sender;
    const int reader = connect_phone(packets, rounds, &sender);
    std::vector<uint8_t> area(VIDEO_BUFFER_SIZE);
    const auto start = Clock::now();
    for (uint8_t head[12]; recv(reader, head, 12, MSG_WAITALL) == 12;) {
        const uint32_t n = uint32_t(head[8]) << 24 | head[9] << 16 | head[10] << 8 | head[11];
        if (n == 0 || n > area.size() || recv(reader, area.data(), n, MSG_WAITALL) != ssize_t(n))
            break;
    }
    sender.join();
    const double elapsed = seconds_since(start);
    close(reader);
    return elapsed;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    int w = 1280, h = 720;
    if (argc > 1 && std::sscanf(argv[1], "%dx%d", &w, &h) != 2) {
        std::fprintf(stderr, "usage: stream_bench [WxH [FRAMES [ROUNDS]]]\n");
        return 2;
    }
    const int frames = argc > 2 ? std::atoi(argv[2]) : 300;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 50;
    const std::string tmp = "/tmp/orvane-stream-bench-" + std::to_string(getpid());
    setenv("ORVANE_HOST_CODEC_LOCK", (tmp + ".lock").c_str(), 1);
    setenv("ORVANE_HOST_DISPLAY", "headless", 1);
    setenv("ORVANE_HOST_HZ", "0", 1);
    setenv("ORVANE_HOST_FB", "1280x720", 1);
    for (const char* name : {"ORVANE_HOST_FRAMELOG", "ORVANE_HOST_SNAPSHOT", "ORVANE_HOST_FAULTS"})
        unsetenv(name);

    const Packets units = make_h264_clip(w, h, frames, 30, "testsrc2");
    Packets packets;
    size_t bytes = 0;
    std::ofstream clip(tmp + ".h264", std::ios::binary);
    for (size_t i = 0; i < units.size(); ++i) {
        packets.push_back(packet(i * 33333, units[i]));
        bytes += units[i].size();
        clip.write(reinterpret_cast<const char*>(units[i].data()), units[i].size());
    }
    clip.close();

    // The video path prints a few lines per stream: keep them out of the table.
    std::fflush(stdout);
    const int console = dup(1);
    if (freopen("/dev/null", "w", stdout) == nullptr)
        return 1;
    const double stream_s = run_stream(packets, 1, true, w, h);
    const auto ff_start = Clock::now();
    const int rc =
        std::system(("ffmpeg -nostdin -v error -threads 1 -i '" + tmp + ".h264' -f null - 2>&1").c_str());
    const double ffmpeg_s = seconds_since(ff_start);
    const double receive_s = run_stream(packets, rounds, false, w, h);
    const double bare_s = run_bare(packets, rounds);
    std::fflush(stdout);
    dup2(console, 1);
    unlink((tmp + ".h264").c_str());
    unlink((tmp + ".lock").c_str());
    if (units.empty() || stream_s <= 0 || rc != 0 || receive_s <= 0 || bare_s <= 0) {
        std::fprintf(stderr, "run failed (clip %zu frames, stream %.3f s, ffmpeg rc %d)\n", units.size(),
                     stream_s, rc);
        return 1;
    }

    const double n = units.size();
    std::printf("clip: %d frames %dx%d, %.2f MiB of H.264, headless, ORVANE_HOST_HZ=0\n", frames, w, h,
                bytes / 1048576.0);
    std::printf("%-44s %10s %10s %8s %8s\n", "path", "seconds", "fps", "ratio", "target");
    std::printf("%-44s %10.3f %10.1f\n", "ffmpeg -threads 1 -f null (baseline)", ffmpeg_s, n / ffmpeg_s);
    std::printf("%-44s %10.3f %10.1f %8.2f %8s\n", "stream thread: receive+decode+flip", stream_s,
                n / stream_s, ffmpeg_s / stream_s, ">=0.90");
    std::printf("%-44s %10.3f %10.1f\n", "bare loopback receive loop (baseline)", bare_s,
                n * rounds / bare_s);
    std::printf("%-44s %10.3f %10.1f %8.2f %8s\n", "stream thread: receive only (display closed)", receive_s,
                n * rounds / receive_s, bare_s / receive_s, ">=0.50");
    std::printf(
        "note: no vsync wait, so the 18 ms frame cap drops most decoded pictures; ffmpeg's time includes\n"
        "its process start; the receive rows carry %d rounds of the clip.\n",
        rounds);
    return 0;
}
