// The whole video path as the daemon runs it: a real H.264 clip sent by a "phone" over a loopback
// TCP connection, read by the stream thread straight into the video buffer, decoded by the host
// codec and put on the headless host display, whose picture log and PNG snapshot are checked.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <netinet/in.h>
#include <sys/stat.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include "net/sock.h"
#include "video/app_events.h"
#include "video/stream.h"
#include "video_test_support.h"

namespace {

using namespace video_test;

struct Rgb {
    int r, g, b;
};

// The snapshot decoded with libavcodec's PNG decoder.
struct Picture {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
    Rgb at(int x, int y) const
    {
        const uint8_t* p = &rgb[(size_t(y) * width + x) * 3];
        return {p[0], p[1], p[2]};
    }
};

bool decode_png(const std::string& path, Picture* out)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    std::vector<uint8_t> data;
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    std::fclose(f);
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_PNG);
    AVCodecContext* ctx = codec ? avcodec_alloc_context3(codec) : nullptr;
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    bool ok = ctx && pkt && frame && avcodec_open2(ctx, codec, nullptr) >= 0;
    if (ok) {
        data.resize(data.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        pkt->data = data.data();
        pkt->size = static_cast<int>(data.size() - AV_INPUT_BUFFER_PADDING_SIZE);
        ok = avcodec_send_packet(ctx, pkt) >= 0 && avcodec_receive_frame(ctx, frame) >= 0 &&
             frame->format == AV_PIX_FMT_RGB24;
    }
    if (ok) {
        out->width = frame->width;
        out->height = frame->height;
        out->rgb.resize(size_t(frame->width) * frame->height * 3);
        for (int y = 0; y < frame->height; ++y)
            std::memcpy(&out->rgb[size_t(y) * frame->width * 3], frame->data[0] + y * frame->linesize[0],
                        size_t(frame->width) * 3);
    }
    pkt->data = nullptr;
    pkt->size = 0;
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&ctx);
    return ok;
}

bool near(const Rgb& c, int r, int g, int b, int tolerance)
{
    return std::abs(c.r - r) <= tolerance && std::abs(c.g - g) <= tolerance && std::abs(c.b - b) <= tolerance;
}

std::string show(const Rgb& c)
{
    return "(" + std::to_string(c.r) + "," + std::to_string(c.g) + "," + std::to_string(c.b) + ")";
}

TEST(VideoComponent, PhoneClipOverLoopbackTcpIsShownFramePerFrameWhereTheLayoutPutsIt)
{
    app();
    constexpr int kFrames = 45;
    const auto& clip_units = clip(320, 240, kFrames, "smptebars");
    HostScreenEnv env("800x480", "60", true);

    VideoRig rig(true, false);
    ASSERT_TRUE(rig.screen_open && rig.mapped());
    const int listener = sock_listen(SOCK_ADDR_LOOPBACK, 0, 1);
    ASSERT_GE(listener, 0);
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    const uint16_t port = ntohs(addr.sin_port);

    // The phone: 12-byte header and access unit per frame at about 30 fps. A picture closer than
    // 18 ms to the last shown one would be dropped by the screen's frame cap, and on a loaded
    // machine two frames can bunch up in the socket; so the phone also waits for each picture to
    // be latched and keeps 20 ms after it, and then every one of them must be shown.
    std::thread phone([&] {
        const int fd = sock_connect(SOCK_ADDR_LOOPBACK, port);
        if (fd < 0)
            return;
        for (int i = 0; i < kFrames; ++i) {
            const auto sent = std::chrono::steady_clock::now();
            if (!send_all(fd, tcp_packet(uint64_t(i) * 33333, clip_units[i])))
                break;
            wait_until([&] { return read_framelog(env.framelog).size() > size_t(i); }, 2000);
            std::this_thread::sleep_until(
                std::max(sent + std::chrono::microseconds(33333),
                         std::chrono::steady_clock::now() + std::chrono::milliseconds(20)));
        }
        send_all(fd, tcp_header(0, 0));
        close(fd);
    });
    const int video = sock_accept(listener);
    ASSERT_GE(video, 0);

    EventRecorder events;
    StdoutCapture out;
    stream st;
    stream_init(&st, video, STREAM_SOCKET_TCP, &rig.dec, false);
    ASSERT_TRUE(stream_start(&st));
    phone.join();
    stream_join(&st);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const std::string text = out.text();
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1);
    EXPECT_EQ(count_of(text, "new frame size:320,240\nreset display pos:80,0,640,480\n"), 1u) << text;
    EXPECT_EQ(text.find("MFCDecode:"), std::string::npos) << "no decode errors: " << text;

    // Every picture latched by a vsync (the last one at most one refresh after the stream ended),
    // in order, with the fitted placement; the layer revealed from the fifth on.
    wait_until([&] { return read_framelog(env.framelog).size() >= size_t(kFrames); }, 3000);
    const std::vector<Latched> shown = read_framelog(env.framelog);
    std::string gaps;
    for (size_t i = 1; i < shown.size(); ++i)
        gaps += std::to_string((shown[i].ns - shown[i - 1].ns) / 1000000) + " ";
    ASSERT_EQ(shown.size(), size_t(kFrames)) << "ms between latched pictures: " << gaps;
    for (int i = 0; i < kFrames; ++i) {
        SCOPED_TRACE("picture " + std::to_string(i));
        EXPECT_EQ(shown[i].width, 320);
        EXPECT_EQ(shown[i].height, 240);
        EXPECT_EQ(shown[i].x, 80);
        EXPECT_EQ(shown[i].y, 0);
        EXPECT_EQ(shown[i].display_width, 640);
        EXPECT_EQ(shown[i].display_height, 480);
        EXPECT_EQ(shown[i].visible, i >= 4 ? 1 : 0);
        if (i > 0) {
            EXPECT_GT(shown[i].ns, shown[i - 1].ns);
        }
    }

    // The screen as a viewer sees it: the bars scaled into 640x480 at x 80, black on both sides.
    Picture screen;
    ASSERT_TRUE(wait_until(
        [&] {
            return decode_png(env.snapshot, &screen) && screen.width == 800 &&
                   !near(screen.at(400, 100), 0, 0, 0, 8);
        },
        5000))
        << "no snapshot with the picture in it";
    ASSERT_EQ(screen.height, 480);
    const struct {
        const char* name;
        int r, g, b;
    } bars[] = {{"grey", 191, 191, 191}, {"yellow", 191, 191, 0},  {"cyan", 0, 191, 191},
                {"green", 0, 191, 0},    {"magenta", 191, 0, 191}, {"red", 191, 0, 0},
                {"blue", 0, 0, 191}};
    for (int i = 0; i < 7; ++i) {
        const int x = 80 + (2 * i + 1) * 640 / 14;
        const Rgb c = screen.at(x, 100);
        EXPECT_TRUE(near(c, bars[i].r, bars[i].g, bars[i].b, 48))
            << bars[i].name << " bar at x " << x << " is " << show(c);
    }
    for (const int y : {0, 100, 240, 479}) {
        for (const int x : {0, 40, 76, 724, 760, 799}) {
            const Rgb c = screen.at(x, y);
            EXPECT_TRUE(near(c, 0, 0, 0, 4))
                << "outside the picture at " << x << "," << y << " is " << show(c);
        }
    }
    close(video);
    close(listener);
}

} // namespace
