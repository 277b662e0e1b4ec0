// The stream reader thread over real sockets: how a TCP stream ends, rotation, the acknowledge
// byte, UDP reassembly, and the guards that keep a hostile sender inside the 1 MiB video buffer.
#include <gtest/gtest.h>

#include <poll.h>

#include "platform/codec.h"
#include "video/app_events.h"
#include "video/stream.h"
#include "video_test_support.h"

namespace {

using namespace video_test;

std::vector<uint8_t> pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> v(size);
    for (size_t i = 0; i < size; ++i)
        v[i] = static_cast<uint8_t>(seed + i * 13 + (i >> 8));
    return v;
}

// A stream over a socket pair; the test plays the phone on fd[1].
struct Link {
    int fd[2] = {-1, -1};
    stream st{};
    Link(VideoRig& rig, bool ack, int type = STREAM_SOCKET_TCP)
    {
        socketpair(AF_UNIX, SOCK_STREAM, 0, fd);
        stream_init(&st, fd[0], type, &rig.dec, ack);
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

TEST(TcpStream, EndsOnZeroLengthHangUpStopOversizeUnmappedBufferUnknownTypeAndBusyCodec)
{
    const std::vector<uint8_t> full = pattern(VIDEO_BUFFER_SIZE, 6), last = pattern(777, 2);
    const std::string end = "End of frames\n", over = " exceeds the video buffer, closing stream\n";
    // A fault while the buffer is allocated (memalloc-open) or the stream runs, the socket type, the
    // phone's bytes (it then hangs up, or the service stops the stream), what is printed and what
    // the buffer holds afterwards.
    const struct {
        const char* fault;
        int type;
        std::vector<uint8_t> sends;
        bool stop;
        std::string printed;
        const std::vector<uint8_t>* area;
    } rows[] = {
        // clang-format off
        {"", 1, cat({tcp_packet(1, pattern(5000, 1)), tcp_packet(2, last), tcp_packet(3, {})}), false, end, &last},
        {"", 1, tcp_packet(1, last), false, "run stream thread:0\n" + end, &last},
        {"", 1, tcp_packet(1, last), true, end, &last},
        // Anything could sit on the Wi-Fi port: a length past the area, with bytes behind it.
        {"", 1, cat({tcp_packet(1, full), tcp_packet(2, last, VIDEO_BUFFER_SIZE + 1)}), false,
         "Frame length 1048577" + over + end, &full},
        {"", 1, tcp_packet(3, {}, 0xFFFFFFFFu), false, "Frame length 4294967295" + over + end, nullptr},
        {"memalloc-open", 1, tcp_packet(1, last), false, "Video buffer is not mapped, closing stream\n" + end, nullptr},
        {"", 3, {}, false, "canot find stream socket type!\n" + end, nullptr},
        {"codec-busy", 1, {}, false, "decoder_open MFC Lock failed\nCould not open decoder\n", nullptr},
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
        Link link(rig, false, row.type);
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
        EXPECT_EQ(MFCTryLock(), 1) << "the codec is released when the stream ends";
        MFCUnlock();
        if (row.area) {
            ASSERT_EQ(rig.buffer.length, row.area->size());
            EXPECT_EQ(std::memcmp(rig.buffer.mapped_address, row.area->data(), row.area->size()), 0);
        }
    }
}

TEST(TcpStream, RotationIsReportedOnTheStreamThreadThenThePacketIsDecoded)
{
    HostScreenEnv env("800x480", "0");
    VideoRig rig;
    EventRecorder events;
    StdoutCapture out;
    Link link(rig, false);
    ASSERT_TRUE(send_all(link.fd[1], cat({tcp_packet(~uint64_t(0), clip()[0]), tcp_packet(0, {})})));
    link.end();
    // No newline after the rotation line: the next thing printed is the decoded picture's layout.
    EXPECT_NE(out.text().find("detect screen rotated!new frame size:320,240\n"), std::string::npos);
    ASSERT_EQ(events.seen.size(), 2u);
    EXPECT_EQ(events.seen[0].first, EVENT_FRAME_SIZE_CHANGED);
    EXPECT_NE(events.seen[0].second, QThread::currentThread()) << "sent synchronously from the stream thread";
    EXPECT_EQ(events.seen[1], std::make_pair(EVENT_STREAM_STOPPED, QThread::currentThread()));
    ASSERT_EQ(read_framelog(env.framelog).size(), 1u);
    EXPECT_EQ(read_framelog(env.framelog)[0].second, "320x240 80,0,640x480 0");
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
    // showing waits three vsyncs at 2 Hz: over a second in which the acknowledge must arrive.
    HostScreenEnv env("800x480", "2");
    VideoRig rig;
    rig.scr.last_addr = 0x7FFFFFF0u;
    Link link(rig, true);
    ASSERT_TRUE(send_all(link.fd[1], tcp_packet(90, clip()[0])));
    pollfd readable = {link.fd[1], POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 5000), 1);
    ASSERT_EQ(recv(link.fd[1], &byte, 1, 0), 1);
    EXPECT_EQ(byte, 0x01);
    EXPECT_EQ(rig.scr.frame_width.load(), 0) << "the acknowledge came before the picture was shown";
    EXPECT_TRUE(wait_until([&] { return rig.scr.frame_width.load() == 320; }, 5000));
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
