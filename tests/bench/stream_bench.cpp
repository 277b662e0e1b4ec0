// Throughput of the video path on the headless host platform, each figure against a baseline from
// the same run: the stream thread receiving, decoding and flipping a clip against the host codec's
// own H.264 decoder (same settings, same access units, in this process, no socket and no display:
// the time the decoder alone needs); and the stream thread with the display closed (frames received
// into the video buffer only) against the same bytes drained from the socket. Each
// try runs a path and its baseline back to back; a ratio is the median of the tries' ratios, so
// load from elsewhere hits both sides alike. Prints `ratio NAME VALUE` lines (baseline time over
// path time, at most 1 but for noise); asserts nothing.
//   stream_bench WxH...                       a table per size; the receive rows on the first size
//   stream_bench --clip WxH FRAMES FPS PATH   writes a phone's clip to PATH and prints the decoder's
//                                             wall and CPU milliseconds per frame for it
#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "../unit/h264_clip.h"
#include "net/sock.h"
#include "platform/host/host_platform.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/stream.h"
#include "video/video_buffer.h"

namespace {

using Packets = std::vector<std::vector<uint8_t>>;

constexpr int TRIES = 7;

double clock_s(clockid_t id)
{
    timespec ts;
    clock_gettime(id, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
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

struct Cost {
    double wall_s = 1e9;
    double cpu_s = 1e9;
    void keep_best(const Cost& c)
    {
        wall_s = std::min(wall_s, c.wall_s);
        cpu_s = std::min(cpu_s, c.cpu_s);
    }
    // The baseline's time over this one, by the clock or by CPU time, whichever is lower: a wait
    // shows on the clock, and load from elsewhere that slowed the baseline does not show on CPU time.
    double ratio(const Cost& baseline) const
    {
        return std::min(baseline.wall_s / wall_s, baseline.cpu_s / cpu_s);
    }
};

// Wall time and this process's CPU time from construction; the CPU time of a phone sender thread
// is not the path's and is taken off.
struct Meter {
    double wall0 = clock_s(CLOCK_MONOTONIC);
    double cpu0 = clock_s(CLOCK_PROCESS_CPUTIME_ID);
    Cost stop(double sender_cpu_s = 0) const
    {
        return Cost{clock_s(CLOCK_MONOTONIC) - wall0,
                    clock_s(CLOCK_PROCESS_CPUTIME_ID) - cpu0 - sender_cpu_s};
    }
};

// The units through the decoder the host codec opens, fed as MFCDecode feeds it (a packet that
// borrows the padded bytes in place, every picture received and let go), opening included as on a
// stream's first frame. At `fps` (0: back to back) each unit waits for its turn, as a phone's frames
// come: a decoder that sleeps between frames starts each from colder caches and a slower core.
Cost decode(const Packets& units, int fps = 0)
{
    Packets padded = units; // the daemon's units already sit in its buffer, with room for padding
    for (auto& u : padded)
        u.resize(u.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const Meter meter;
    AVCodecContext* context = orvane_host::h264_decoder_open();
    const double period_s = fps > 0 ? 1.0 / fps : 0;
    for (size_t i = 0; context && i < units.size(); ++i) {
        const double due = meter.wall0 + i * period_s;
        for (double now = clock_s(CLOCK_MONOTONIC); now < due; now = clock_s(CLOCK_MONOTONIC))
            std::this_thread::sleep_for(std::chrono::duration<double>(due - now));
        pkt->buf = av_buffer_create(
            padded[i].data(), int(padded[i].size()), [](void*, uint8_t*) {}, nullptr,
            AV_BUFFER_FLAG_READONLY);
        pkt->data = padded[i].data();
        pkt->size = int(units[i].size());
        avcodec_send_packet(context, pkt);
        av_packet_unref(pkt);
        while (avcodec_receive_frame(context, frame) == 0)
            av_frame_unref(frame);
    }
    Cost cost;
    if (context)
        cost = meter.stop();
    avcodec_free_context(&context);
    av_frame_free(&frame);
    av_packet_free(&pkt);
    return cost;
}

// A loopback TCP connection whose phone side sends the packets `rounds` times, then the zero-length
// end of stream; returns the reader side and leaves the sender running, to leave its CPU time in
// *sender_cpu_s.
int connect_phone(const Packets& packets, int rounds, std::thread* sender, double* sender_cpu_s)
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
        *sender_cpu_s = clock_s(CLOCK_THREAD_CPUTIME_ID);
    });
    return reader;
}

// The stream thread over a fresh connection, from start to join.
Cost run_stream(const Packets& packets, int rounds, bool decode, int w, int h)
{
    screen scr;
    screen_init(&scr);
    if (decode && !screen_init_rendering(&scr))
        return Cost{};
    video_buffer buffer{};
    buffer.screen = &scr;
    buffer.memalloc_fd = -1;
    buffer.mapped_address = VIDEO_BUFFER_UNMAPPED;
    video_buffer_init(&buffer, false, w, h);
    decoder dec{&buffer};
    std::thread sender;
    double sender_cpu_s = 0;
    const Meter meter;
    const int reader = connect_phone(packets, rounds, &sender, &sender_cpu_s);
    stream st;
    stream_init(&st, reader, STREAM_SOCKET_TCP, &dec, false);
    stream_start(&st);
    sender.join();
    stream_join(&st);
    const Cost cost = meter.stop(sender_cpu_s);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
    close(reader);
    video_buffer_destroy(&buffer);
    screen_close(&scr);
    return cost;
}

// The same bytes drained from the socket as fast as loopback delivers them, a video buffer's
// worth per read, framing ignored: what receiving them cannot beat.
Cost run_bare(const Packets& packets, int rounds)
{
    std::vector<uint8_t> area(VIDEO_BUFFER_SIZE);
    std::thread sender;
    double sender_cpu_s = 0;
    const Meter meter;
    const int reader = connect_phone(packets, rounds, &sender, &sender_cpu_s);
    while (recv(reader, area.data(), area.size(), 0) > 0) {
    }
    sender.join();
    const Cost cost = meter.stop(sender_cpu_s);
    close(reader);
    return cost;
}

// The median of the tries' ratios, printed with their spread.
double median_of(std::vector<double> ratios)
{
    std::sort(ratios.begin(), ratios.end());
    const double median = ratios[ratios.size() / 2];
    std::printf("  ratio of each try: median %.2f (lowest %.2f, highest %.2f)\n", median, ratios.front(),
                ratios.back());
    return median;
}

// A phone's clip: distinct pictures at the phone's own size and rate.
Packets clip(int w, int h, int frames, int fps)
{
    const std::string size = std::to_string(w) + "x" + std::to_string(h);
    return make_h264_clip(w, h, frames, fps, "testsrc2=size=" + size + ":rate=" + std::to_string(fps));
}

void row(const char* path, const Cost& cost, double frames, const Cost* baseline = nullptr)
{
    std::printf("%-50s %10.1f %7.3f %7.3f", path, frames / cost.wall_s, cost.wall_s, cost.cpu_s);
    if (baseline)
        std::printf(" %7.2f %7.2f %7.2f", baseline->wall_s / cost.wall_s, baseline->cpu_s / cost.cpu_s,
                    cost.ratio(*baseline));
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    std::vector<std::pair<int, int>> sizes;
    const bool clip_mode = argc == 6 && std::string(argv[1]) == "--clip";
    for (int i = clip_mode ? 2 : 1; i < (clip_mode ? 3 : argc); ++i) {
        sizes.emplace_back();
        if (std::sscanf(argv[i], "%dx%d", &sizes.back().first, &sizes.back().second) != 2)
            sizes.clear();
    }
    if (sizes.empty()) {
        std::fprintf(stderr, "usage: stream_bench WxH... | stream_bench --clip WxH FRAMES FPS PATH\n");
        return 2;
    }
    if (clip_mode) {
        const Packets units = clip(sizes[0].first, sizes[0].second, std::atoi(argv[3]), std::atoi(argv[4]));
        std::ofstream out(argv[5], std::ios::binary);
        for (const auto& u : units)
            out.write(reinterpret_cast<const char*>(u.data()), u.size());
        Cost cost, paced;
        for (int t = 0; t < TRIES; ++t)
            cost.keep_best(decode(units));
        // At the phone's own pace, as the daemon decodes them: its CPU time is the comparable one.
        paced.keep_best(decode(units, std::atoi(argv[4])));
        std::printf("decode ms/frame: wall %.3f cpu %.3f paced cpu %.3f\n", cost.wall_s * 1e3 / units.size(),
                    cost.cpu_s * 1e3 / units.size(), paced.cpu_s * 1e3 / units.size());
        return out && cost.wall_s < 1e9 ? 0 : 1;
    }

    const std::string tmp = "/tmp/orvane-stream-bench-" + std::to_string(getpid());
    setenv("ORVANE_HOST_CODEC_LOCK", (tmp + ".lock").c_str(), 1);
    setenv("ORVANE_HOST_DISPLAY", "headless", 1);
    setenv("ORVANE_HOST_HZ", "0", 1);
    setenv("ORVANE_HOST_FB", "1280x720", 1);
    for (const char* name : {"ORVANE_HOST_FRAMELOG", "ORVANE_HOST_SNAPSHOT", "ORVANE_HOST_FAULTS"})
        unsetenv(name);
    const int frames = 300, rounds = 150;
    const int console = dup(1);
    std::vector<std::pair<std::string, double>> ratios;
    for (size_t s = 0; s < sizes.size(); ++s) {
        const auto [w, h] = sizes[s];
        const Packets units = clip(w, h, frames, 60);
        Packets packets;
        size_t bytes = 0;
        for (size_t i = 0; i < units.size(); ++i) {
            packets.push_back(packet(i * 16667, units[i]));
            bytes += units[i].size();
        }
        // The video path prints a few lines per stream: keep them out of the table.
        std::fflush(stdout);
        if (freopen("/dev/null", "w", stdout) == nullptr)
            return 1;
        // Each try measures a path and its baseline one after the other; the ratio reported is the
        // median of the tries' own ratios, so load that comes and goes between tries cancels out.
        Cost dec, stream, receive, bare;
        std::vector<double> stream_ratios, receive_ratios;
        for (int t = 0; t < TRIES; ++t) {
            const Cost d = decode(units), st = run_stream(packets, 1, true, w, h);
            dec.keep_best(d);
            stream.keep_best(st);
            stream_ratios.push_back(st.ratio(d));
            if (s == 0) {
                const Cost r = run_stream(packets, rounds, false, w, h), b = run_bare(packets, rounds);
                receive.keep_best(r);
                bare.keep_best(b);
                receive_ratios.push_back(r.ratio(b));
            }
        }
        std::fflush(stdout);
        dup2(console, 1);
        if (dec.wall_s >= 1e9 || stream.wall_s >= 1e9) {
            std::fprintf(stderr, "stream_bench: the %dx%d run failed\n", w, h);
            return 1;
        }
        const std::string name = std::to_string(w) + "x" + std::to_string(h);
        std::printf("clip %s: %d frames, %.2f MiB of H.264; headless, ORVANE_HOST_HZ=0; best of %d tries\n",
                    name.c_str(), frames, bytes / 1048576.0, TRIES);
        std::printf("%-50s %10s %7s %7s %7s %7s %7s\n", "path", "fps", "wall s", "CPU s", "wall r", "CPU r",
                    "ratio");
        row("host codec's decoder alone, in process (baseline)", dec, frames);
        row("stream thread: receive+decode+flip", stream, frames, &dec);
        ratios.emplace_back("stream_vs_decode_" + name, median_of(stream_ratios));
        if (s == 0) {
            row("socket drained, framing ignored (baseline)", bare, frames * rounds);
            row("stream thread: receive only (display closed)", receive, frames * rounds, &bare);
            ratios.emplace_back("receive_vs_loopback", median_of(receive_ratios));
        }
        std::printf("\n");
    }
    unlink((tmp + ".lock").c_str());
    std::printf("no vsync wait, so the 18 ms frame cap drops most decoded pictures; the receive rows carry\n"
                "%d rounds of the clip\n",
                rounds);
    for (const auto& [name, value] : ratios)
        std::printf("ratio %s %.3f\n", name.c_str(), value);
    return 0;
}
