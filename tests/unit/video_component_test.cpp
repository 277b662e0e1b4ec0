// The whole video path as the daemon runs it: a real H.264 clip sent by a "phone" over loopback
// TCP, read by the stream thread into the video buffer, decoded by the host codec and shown on the
// headless host display, whose picture log and PNG snapshot are checked.
#include <gtest/gtest.h>

#include <netinet/in.h>

#include "net/sock.h"
#include "video/stream.h"
#include "video_test_support.h"

namespace {

using namespace video_test;

TEST(VideoComponent, PhoneClipOverLoopbackTcpIsShownFramePerFrameWhereTheLayoutPutsIt)
{
    constexpr int kFrames = 45;
    const auto& units = clip(kFrames, "smptebars");
    HostScreenEnv env("800x480", "60", true);
    VideoRig rig;
    ASSERT_TRUE(rig.screen_open && rig.mapped());
    const int listener = sock_listen(SOCK_ADDR_LOOPBACK, 0, 1);
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);

    // The phone sends a frame about every 33 ms. A picture within 18 ms of the last shown one would
    // be dropped by the frame cap, so on a loaded machine it waits for each picture to be latched
    // and keeps 20 ms after that; then every picture must be shown.
    std::thread phone([&] {
        const int fd = sock_connect(SOCK_ADDR_LOOPBACK, ntohs(addr.sin_port));
        for (int i = 0; i < kFrames && send_all(fd, tcp_packet(i * 33333, units[i])); ++i) {
            const auto next = std::chrono::steady_clock::now() + std::chrono::microseconds(33333);
            wait_until([&] { return read_framelog(env.framelog).size() > size_t(i); }, 2000);
            std::this_thread::sleep_until(
                std::max(next, std::chrono::steady_clock::now() + std::chrono::milliseconds(20)));
        }
        send_all(fd, tcp_packet(0, {}));
        close(fd);
    });
    const int video = sock_accept(listener);
    StdoutCapture out;
    stream st;
    stream_init(&st, video, STREAM_SOCKET_TCP, &rig.dec, false);
    stream_start(&st);
    phone.join();
    stream_join(&st);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const std::string text = out.text();
    EXPECT_NE(text.find("new frame size:320,240\nreset display pos:80,0,640,480\n"), std::string::npos)
        << text;
    EXPECT_EQ(text.find("MFCDecode:"), std::string::npos) << "no decode errors: " << text;

    // Every picture latched (the last within a refresh of the end), in order, where the layout put
    // it; the layer revealed from the fifth on.
    wait_until([&] { return read_framelog(env.framelog).size() >= size_t(kFrames); }, 3000);
    const auto shown = read_framelog(env.framelog);
    ASSERT_EQ(shown.size(), size_t(kFrames));
    for (int i = 0; i < kFrames; ++i) {
        EXPECT_EQ(shown[i].second, i < 4 ? "320x240 80,0,640x480 0" : "320x240 80,0,640x480 1") << i;
        EXPECT_TRUE(i == 0 || shown[i].first > shown[i - 1].first) << "picture " << i;
    }

    // The screen as a viewer sees it: the bars scaled into 640x480 at x 80, black on both sides.
    std::vector<uint8_t> rgb;
    const auto px = [&](int x, int y, int c) { return int(rgb[(y * 800 + x) * 3 + c]); };
    const auto shows_picture = [&] {
        rgb = png_rgb24(env.snapshot);
        return rgb.size() == 800 * 480 * 3 && px(400, 100, 1) > 100; // in the green bar
    };
    ASSERT_TRUE(wait_until(shows_picture, 5000)) << "no 800x480 snapshot with the picture in it";
    const int bars[7][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                            {191, 0, 191},   {191, 0, 0},   {0, 0, 191}}; // grey, yellow, cyan .. blue
    for (int i = 0; i < 7; ++i)
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(px(80 + (2 * i + 1) * 640 / 14, 100, c), bars[i][c], 48) << "bar " << i;
    for (const int y : {0, 100, 240, 479})
        for (const int x : {0, 40, 76, 724, 760, 799})
            for (int c = 0; c < 3; ++c)
                EXPECT_LE(px(x, y, c), 4) << "outside the picture at " << x << "," << y;
    close(video);
    close(listener);
}

} // namespace
