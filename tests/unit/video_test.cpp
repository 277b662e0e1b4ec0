// The video path on the host platform with real H.264 pictures: codec lock, buffer allocation, layer
// placement and pacing, and the stream reader over real sockets with its guards against a hostile sender.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>

#include "h264_clip.h"
#include "platform/codec.h"
#include "platform/host/host_platform.h"
#include "unit_support.h"
#include "video/app_events.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/stream.h"
#include "video/video_buffer.h"

namespace {

std::vector<uint8_t> be(uint64_t v, int bytes)
{
    std::vector<uint8_t> out(bytes);
    for (int i = bytes - 1; i >= 0; --i, v >>= 8)
        out[i] = static_cast<uint8_t>(v);
    return out;
}

std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> out;
    for (const auto& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// One TCP video packet: 8-byte PTS, 4-byte length, payload (or a header alone with any length).
std::vector<uint8_t> tcp_packet(uint64_t pts, const std::vector<uint8_t>& payload, int64_t length = -1)
{
    return cat({be(pts, 8), be(length < 0 ? payload.size() : uint64_t(length), 4), payload});
}

bool send_all(int fd, const std::vector<uint8_t>& data)
{
    return ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

// The host display as the next fb open sees it: headless, this size and rate, a fresh picture log
// with "WxH x,y,WxH visible" for each latched picture.
struct HostScreenEnv {
    const std::string framelog;
    HostScreenEnv(const char* fb, const char* hz)
        : framelog("/tmp/orvane-video-" + std::to_string(getpid()) + "-" + fb + "-" + hz + ".log")
    {
        app();
        setenv("ORVANE_HOST_DISPLAY", "headless", 1);
        setenv("ORVANE_HOST_FB", fb, 1);
        setenv("ORVANE_HOST_HZ", hz, 1);
        setenv("ORVANE_HOST_FRAMELOG", framelog.c_str(), 1);
        unsetenv("ORVANE_HOST_FAULTS");
    }
    ~HostScreenEnv() { unlink(framelog.c_str()); }
    std::vector<std::string> shown() const
    {
        std::vector<std::string> out;
        std::ifstream f(framelog);
        for (std::string line; std::getline(f, line);)
            out.push_back(line.substr(line.find(' ') + 1));
        return out;
    }
};

// 320x240 clips, encoded once per process.
const std::vector<std::vector<uint8_t>>& clip()
{
    static const std::vector<std::vector<uint8_t>> units = make_h264_clip(320, 240, 30, 30);
    return units;
}

// The screen, the video buffer and the decoder, wired as the service wires them.
struct VideoRig {
    screen scr;
    video_buffer buffer{};
    decoder dec{&buffer};

    explicit VideoRig(bool open_screen = true)
    {
        app();
        screen_init(&scr);
        EXPECT_TRUE(!open_screen || screen_init_rendering(&scr));
        buffer.screen = &scr;
        video_buffer_init(&buffer, false, 1280, 720);
        buffer.new_stream = true;
    }
    ~VideoRig()
    {
        video_buffer_destroy(&buffer);
        screen_close(&scr);
    }
    int render(const std::vector<uint8_t>& unit)
    {
        std::copy(unit.begin(), unit.end(), buffer.mapped_address);
        buffer.length = static_cast<uint32_t>(unit.size());
        return screen_render_frame(&scr, &buffer);
    }
};

// The codec-busy fault counts lock attempts from the start of the process, so this test must take
// the lock before anything else in this file does. Giving up after four tries is a row of the
// stream table below.
TEST(DecoderLock, RetriesAQuarterSecondApart)
{
    app();
    setenv("ORVANE_HOST_FAULTS", "codec-busy:2", 1);
    video_buffer b{};
    decoder dec{&b};
    StdoutCapture out;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(decoder_open(&dec, 0));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(450));
    EXPECT_EQ(out.text(),
              "decoder_open, MFCTryLock:0\ndecoder_open, MFCTryLock:0\ndecoder_open, MFCTryLock:1\n");
    EXPECT_TRUE(b.codec_locked);
    decoder_close(&dec);
    unsetenv("ORVANE_HOST_FAULTS");
}

TEST(VideoBuffer, EachAllocationStepThatFailsPrintsItsLineAndLeavesNothingOpenOrMapped)
{
    const std::pair<const char*, std::string> rows[] = {{"memalloc-open", "open memalloc failed!\n"},
                                                        {"mem-open", "Failed to open: /dev/mem\n"},
                                                        {"memalloc-zero", "Memalloc: get buffer failure\n"},
                                                        {"mmap", "Memalloc buffer mmap faile\n"}};
    for (const auto& [fault, line] : rows) {
        setenv("ORVANE_HOST_FAULTS", fault, 1);
        video_buffer b{};
        StdoutCapture out;
        EXPECT_TRUE(video_buffer_init(&b, false, 1280, 720))
            << "the record reports success; the service checks the mapping";
        unsetenv("ORVANE_HOST_FAULTS");
        EXPECT_EQ(out.text(), line + "init tez video buffer:-1\n");
        EXPECT_TRUE(b.memalloc_fd == -1 && b.mapped_address == VIDEO_BUFFER_UNMAPPED) << fault;
        video_buffer_destroy(&b);
        EXPECT_EQ(host_memalloc_area_count(), 0) << fault;
    }
}

TEST(ScreenLayout, FitsCentredInMultiplesOfFourAndStretchesOnlyLandscapeInFullScreen)
{
    HostScreenEnv env("800x480", "0");
    const struct {
        bool full;
        int w, h, x, y, dw, dh;
    } rows[] = {{false, 1080, 1920, 266, 0, 268, 480}, {false, 640, 480, 80, 0, 640, 480},
                {true, 1280, 720, 0, 0, 800, 480},     {true, 720, 1280, 266, 0, 268, 480},
                {true, 600, 600, 160, 0, 480, 480},    {false, 333, 777, 298, 0, 204, 480},
                {false, 1366, 768, 0, 16, 800, 448},   {false, 16, 4096, 398, 0, 4, 480},
                {false, 4096, 16, 0, 238, 800, 4}}; // slivers keep a layer the display can show
    for (const auto& r : rows) {
        setenv("LINK_FULLSCREEN", r.full ? "1" : "0", 1);
        screen s;
        screen_init(&s);
        ASSERT_TRUE(screen_init_rendering(&s));
        StdoutCapture out;
        EXPECT_TRUE(screen_reset_layout(&s, r.w, r.h));
        EXPECT_FALSE(screen_reset_layout(&s, r.w, r.h)) << "the same size again changes nothing";
        const std::string size = std::to_string(r.w) + "x" + std::to_string(r.h);
        const bool thin = r.dw == SCREEN_MIN_LAYER || r.dh == SCREEN_MIN_LAYER;
        EXPECT_EQ(out.text(),
                  (thin ? "picture " + size + " too thin for the screen, layer kept at least 4 pixels\n"
                        : std::string()) +
                      "new frame size:" + std::to_string(r.w) + "," + std::to_string(r.h) +
                      "\nreset display pos:" + std::to_string(r.x) + "," + std::to_string(r.y) + "," +
                      std::to_string(r.dw) + "," + std::to_string(r.dh) + "\n");
        screen_close(&s);
    }
    unsetenv("LINK_FULLSCREEN");
}

TEST(ScreenFrameCap, SeventeenMillisecondsOrLessIsTooSoonAcrossTheClockWrap)
{
    const struct {
        uint32_t now, last;
        bool due;
    } rows[] = {{1017, 1000, false}, {1018, 1000, true}, {6, 0xFFFFFFF5u, false}, {7, 0xFFFFFFF5u, true}};
    for (const auto& r : rows)
        EXPECT_EQ(screen_frame_due(r.now, r.last), r.due) << r.now << " after " << r.last;
}

TEST(ScreenRender, RevealsOnTheFourthShownPictureAndAgainAfterUnhide)
{
    HostScreenEnv env("800x480", "0");
    VideoRig rig;
    const auto show = [&](int from, int to) {
        for (int i = from; i < to; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(25)); // past the frame-rate cap
            EXPECT_EQ(rig.render(clip()[i]), 1);
        }
    };
    show(0, 6);
    // Hidden by the HMI, pictures keep coming; unhidden, the layout and the reveal start over.
    screen_set_hidden(&rig.scr, true);
    show(6, 8);
    screen_set_hidden(&rig.scr, false);
    show(8, 13);
    std::vector<std::string> expected;
    for (int visible : {0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 1})
        expected.push_back("320x240 80,0,640x480 " + std::to_string(visible));
    EXPECT_EQ(env.shown(), expected);
}

std::vector<uint8_t> pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> v(size);
    for (size_t i = 0; i < size; ++i)
        v[i] = static_cast<uint8_t>(seed + i * 13 + (i >> 8));
    return v;
}

// A TCP stream over a socket pair; the test plays the phone on fd[1].
struct Link {
    int fd[2] = {-1, -1};
    stream st{};
    Link(VideoRig& rig, bool ack)
    {
        socketpair(AF_UNIX, SOCK_STREAM, 0, fd);
        stream_init(&st, fd[0], STREAM_SOCKET_TCP, &rig.dec, ack);
        stream_start(&st);
    }
    ~Link()
    {
        shutdown(fd[1], SHUT_RDWR);
        end();
        close(fd[0]);
        close(fd[1]);
    }
    // Joins the reader, delivers its events and lets the event loop delete the thread object.
    void end()
    {
        stream_join(&st);
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    // One frame at a time, so that the process-wide counter is known after each one.
    void send_counted(const std::vector<uint8_t>& packet)
    {
        const uint32_t before = stream_frame_counter();
        ASSERT_TRUE(send_all(fd[1], packet));
        ASSERT_TRUE(wait_until([&] { return stream_frame_counter() != before; }, 5000));
    }
};

TEST(TcpStream, EndsOnZeroLengthHangUpStopOversizeUnmappedBufferAndBusyCodecAndReportsRotation)
{
    const std::vector<uint8_t> full = pattern(VIDEO_BUFFER_SIZE, 6), last = pattern(777, 2);
    const std::string end = "End of frames\n", over = " exceeds the video buffer, closing stream\n",
                      busy = "decoder_open, MFCTryLock:0\n";
    // A fault while the buffer is allocated (memalloc-open) or the stream runs, the phone's bytes
    // (it then hangs up, or the service stops the stream), what is printed, the rotations reported
    // and what the buffer holds afterwards.
    const struct {
        const char* fault;
        std::vector<uint8_t> sends;
        bool stop;
        std::string printed;
        int rotations;
        const std::vector<uint8_t>* area;
    } rows[] = {
        // clang-format off
        {"", cat({tcp_packet(1, pattern(5000, 1)), tcp_packet(2, last), tcp_packet(3, {})}), false, end, 0, &last},
        {"", tcp_packet(1, last), false, "run stream thread:0\n" + end, 0, &last},
        {"", tcp_packet(1, last), true, end, 0, &last},
        {"", cat({tcp_packet(~uint64_t(0), last), tcp_packet(0, {})}), false, "detect screen rotated!" + end, 1, &last},
        // Anything could sit on the Wi-Fi port: a length past the area, with bytes behind it.
        {"", cat({tcp_packet(1, full), tcp_packet(2, last, VIDEO_BUFFER_SIZE + 1)}), false,
         "Frame length 1048577" + over + end, 0, &full},
        {"", tcp_packet(3, {}, 0xFFFFFFFFu), false, "Frame length 4294967295" + over + end, 0, nullptr},
        {"memalloc-open", tcp_packet(1, last), false, "Video buffer is not mapped, closing stream\n" + end, 0, nullptr},
        {"codec-busy", {}, false, "Starting stream thread\n" + busy + busy + busy + busy + "decoder_open MFC Lock failed\nCould not open decoder\n", 0, nullptr},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.printed);
        setenv("ORVANE_HOST_FAULTS", row.fault, 1);
        VideoRig rig(false);
        if (std::string(row.fault) == "memalloc-open")
            unsetenv("ORVANE_HOST_FAULTS");
        EventRecorder events;
        StdoutCapture out;
        const uint32_t frames = stream_frame_counter();
        Link link(rig, false);
        ASSERT_TRUE(send_all(link.fd[1], row.sends));
        if (row.stop) {
            ASSERT_TRUE(wait_until([&] { return stream_frame_counter() != frames; }, 5000));
            stream_stop(&link.st);
        }
        shutdown(row.stop ? link.fd[0] : link.fd[1], SHUT_RDWR); // the service's way to release the reader
        link.end();
        unsetenv("ORVANE_HOST_FAULTS");
        const std::string text = out.text();
        EXPECT_NE(text.find(row.printed), std::string::npos) << text;
        EXPECT_EQ(text.find("End of frames"), text.rfind("End of frames")) << "ended once: " << text;
        EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), row.stop ? 0 : 1) << "a requested stop is not reported";
        // A rotation is sent from the stream thread itself, before its picture is decoded.
        EXPECT_EQ(events.count(EVENT_FRAME_SIZE_CHANGED), row.rotations);
        for (const auto& [type, thread] : events.seen)
            EXPECT_TRUE(type != EVENT_FRAME_SIZE_CHANGED || thread != QThread::currentThread());
        EXPECT_EQ(MFCTryLock(), 1) << "the codec is released when the stream ends";
        MFCUnlock();
        if (row.area) {
            ASSERT_EQ(rig.buffer.length, row.area->size());
            EXPECT_EQ(std::memcmp(rig.buffer.mapped_address, row.area->data(), row.area->size()), 0);
        }
    }
}

TEST(TcpStream, AcknowledgeByteFollowsTheNinetiethFrameOfAnyStreamBeforeItIsShown)
{
    VideoRig plain(false);
    const std::vector<uint8_t> junk = tcp_packet(1, pattern(32, 5));
    uint8_t byte = 0;
    {
        // An acknowledge resets the process-wide counter: bring it to a known state.
        Link link(plain, true);
        for (int frames = 0; recv(link.fd[1], &byte, 1, MSG_DONTWAIT) != 1; ++frames) {
            ASSERT_LT(frames, 200) << "no acknowledge within 200 frames";
            link.send_counted(junk);
            ASSERT_TRUE(wait_until([] { return stream_frame_counter() < STREAM_ACK_EVERY; }, 5000));
        }
        for (int i = 0; i < 88; ++i)
            link.send_counted(junk);
        EXPECT_EQ(recv(link.fd[1], &byte, 1, MSG_DONTWAIT), -1) << "nothing before the 90th frame";
    }
    Link(plain, false).send_counted(junk); // a stream without acknowledges counts too
    ASSERT_EQ(stream_frame_counter(), 89u);
    // The 90th frame is a real picture. The layer looks busy with a picture it never latches, so
    // showing waits three vsyncs (no more) at 2 Hz: over a second in which the acknowledge must arrive.
    HostScreenEnv env("800x480", "2");
    VideoRig rig;
    rig.scr.last_addr = 0x7FFFFFF0u;
    Link link(rig, true);
    const unsigned long waits = host_vsync_wait_count();
    ASSERT_TRUE(send_all(link.fd[1], tcp_packet(90, clip()[0])));
    pollfd readable = {link.fd[1], POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 5000), 1);
    ASSERT_EQ(recv(link.fd[1], &byte, 1, 0), 1);
    EXPECT_EQ(byte, 0x01);
    EXPECT_EQ(rig.scr.frame_width.load(), 0) << "the acknowledge came before the picture was shown";
    EXPECT_TRUE(wait_until([&] { return rig.scr.frame_width.load() == 320; }, 5000));
    EXPECT_EQ(host_vsync_wait_count() - waits, 3u) << "at most three waits (the reveal is still counting)";
    EXPECT_EQ(stream_frame_counter(), 0u);
}

// Datagrams to the reader over a datagram socket pair.
struct Udp {
    VideoRig rig{false};
    int fd[2] = {-1, -1};
    stream st{};
    uint32_t length = 0;
    Udp() { st.socket = socketpair(AF_UNIX, SOCK_DGRAM, 0, fd) == 0 ? fd[0] : -1; }
    ~Udp()
    {
        close(fd[0]);
        close(fd[1]);
    }
    void send(uint16_t kind, uint64_t value, uint16_t index, const std::vector<uint8_t>& body = {})
    {
        ASSERT_TRUE(send_all(fd[1], cat({be(kind, 2), be(value, 8), be(index, 2), body})));
    }
    void frame_start(uint64_t id, uint32_t size) { send(1, 0, 0, cat({be(id, 8), be(size, 4)})); }
    bool receive() { return stream_recv_udp_frame(&st, &rig.buffer.mapped_address, &length); }
    bool holds(const std::vector<uint8_t>& v, size_t at = 0)
    {
        return std::equal(v.begin(), v.end(), rig.buffer.mapped_address + at);
    }
};

TEST(UdpStream, ReassemblesEightKibibyteChunksOfTheCurrentFrameInsideTheBuffer)
{
    Udp udp;
    EventRecorder events;
    StdoutCapture out;
    const std::vector<uint8_t> a = pattern(8192, 10), b = pattern(8193, 20), c = pattern(10, 32);
    udp.send(2, 0, 0, pattern(8192, 99)); // before any frame start: ignored
    udp.frame_start(5, 8192);
    udp.send(2, 5, 0, a);
    EXPECT_TRUE(udp.receive() && udp.length == 8192 && udp.holds(a));
    // Two chunks in any order, the second cut to one byte; a chunk of another frame is ignored.
    std::memset(udp.rig.buffer.mapped_address, 0, 2 * 8192);
    udp.frame_start(6, 8193);
    udp.send(2, 6, 1, std::vector<uint8_t>(b.begin() + 8192, b.end()));
    udp.send(2, 5, 0, pattern(8192, 77));
    udp.send(2, 6, 0, std::vector<uint8_t>(b.begin(), b.begin() + 8192));
    EXPECT_TRUE(udp.receive() && udp.length == 8193 && udp.holds(b) &&
                udp.holds(std::vector<uint8_t>(8191, 0), 8193));
    // A size change is reported and abandons the frame in progress.
    udp.frame_start(7, 16384);
    udp.send(2, 7, 0, pattern(8192, 30));
    udp.send(3, (uint64_t(1080) << 16) | 1920, 0);
    udp.send(2, 7, 1, pattern(8192, 31));
    udp.frame_start(8, 10);
    udp.send(2, 8, 0, c);
    EXPECT_TRUE(udp.receive() && udp.length == 10 && udp.holds(c));
    EXPECT_EQ(events.count(EVENT_FRAME_SIZE_CHANGED), 1);
    // Unknown kinds are ignored; a frame of size 0 ends the stream, as do frames and chunks that
    // would not fit. The last chunk of a frame filling the area lands at its very end.
    udp.send(9, 0, 0, pattern(100, 1));
    udp.frame_start(9, 0);
    EXPECT_FALSE(udp.receive());
    udp.frame_start(9, VIDEO_BUFFER_SIZE);
    udp.send(2, 9, 127, a);
    udp.send(2, 9, 128, pattern(8192, 41));
    EXPECT_FALSE(udp.receive());
    EXPECT_TRUE(udp.holds(a, VIDEO_BUFFER_SIZE - 8192));
    udp.frame_start(10, VIDEO_BUFFER_SIZE + 1);
    EXPECT_FALSE(udp.receive());
    udp.frame_start(11, 100);
    udp.send(2, 11, 0xFFFF, a);
    EXPECT_FALSE(udp.receive());
    EXPECT_EQ(out.text(), "recv frame size change:1080,1920\n"
                          "Chunk 128 of frame 9 lands outside the video buffer, closing stream\n"
                          "Frame size 1048577 exceeds the video buffer, closing stream\n"
                          "Chunk 65535 of frame 11 lands outside the video buffer, closing stream\n");
}

} // namespace
