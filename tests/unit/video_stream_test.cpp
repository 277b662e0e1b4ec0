// The stream reader thread over real sockets: TCP framing with the end of stream, rotation and
// the acknowledge byte, UDP reassembly, stop requests, and the guards that keep a hostile sender
// inside the 1 MiB video buffer.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>

#include "net/sock.h"
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

bool codec_free_for_others()
{
    const std::string cmd = std::string("flock -n '") + std::getenv("ORVANE_HOST_CODEC_LOCK") + "' true";
    return std::system(cmd.c_str()) == 0;
}

// A stream record over one end of a socket pair; the test plays the phone on the other end.
class TcpStream : public ::testing::Test
{
protected:
    void SetUp() override
    {
        app();
        use_private_codec_lock();
        unsetenv("ORVANE_HOST_FAULTS");
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
    }
    void TearDown() override
    {
        end();
        close(fds_[0]);
        close(fds_[1]);
        // Events of this test's streams must not be counted by the next one.
        QCoreApplication::sendPostedEvents();
    }
    void start(VideoRig& rig, bool ack, int type = STREAM_SOCKET_TCP)
    {
        stream_init(&st_, fds_[0], type, &rig.dec, ack);
        ASSERT_TRUE(stream_start(&st_));
    }
    // Joins the reader, then lets the event loop delete the thread object.
    void end()
    {
        if (!st_.thread)
            return;
        stream_join(&st_);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    int phone() const { return fds_[1]; }
    int fds_[2] = {-1, -1};
    stream st_;
};

TEST_F(TcpStream, FramesLandInTheBufferAndAZeroLengthEndsAndReportsTheStream)
{
    VideoRig rig(false, false);
    ASSERT_TRUE(rig.mapped());
    EventRecorder events;
    StdoutCapture out;
    start(rig, false);
    const std::vector<uint8_t> first = pattern(5000, 1), last = pattern(777, 2);
    ASSERT_TRUE(send_all(phone(), tcp_packet(1, first)));
    ASSERT_TRUE(send_all(phone(), tcp_packet(2, last)));
    ASSERT_TRUE(send_all(phone(), tcp_header(3, 0)));
    end();
    const std::string text = out.text();

    EXPECT_NE(
        text.find("stream_init socket:" + std::to_string(fds_[0]) + " type:1\nStarting stream thread\n"),
        std::string::npos)
        << text;
    EXPECT_NE(text.find("decoder_open, MFCTryLock:1\nrun stream thread:0\n"), std::string::npos) << text;
    EXPECT_EQ(count_of(text, "End of frames\n"), 1u) << text;
    EXPECT_EQ(rig.buffer.length, last.size());
    EXPECT_EQ(std::memcmp(rig.buffer.mapped_address, last.data(), last.size()), 0);
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1);
    EXPECT_TRUE(codec_free_for_others()) << "the codec is released when the stream ends";
}

TEST_F(TcpStream, PeerHangingUpEndsTheStreamLikeAZeroLength)
{
    VideoRig rig(false, false);
    EventRecorder events;
    StdoutCapture out;
    start(rig, false);
    ASSERT_TRUE(send_all(phone(), tcp_packet(1, pattern(100, 3))));
    shutdown(phone(), SHUT_WR);
    end();
    EXPECT_EQ(count_of(out.text(), "End of frames\n"), 1u);
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1);
}

TEST_F(TcpStream, RequestedStopEndsSilently)
{
    VideoRig rig(false, false);
    EventRecorder events;
    StdoutCapture out;

    // Without a running thread a stop request is not even recorded.
    stream_init(&st_, fds_[0], STREAM_SOCKET_TCP, &rig.dec, false);
    stream_stop(&st_);
    EXPECT_FALSE(st_.stop_requested.load());
    stream_join(&st_);

    ASSERT_TRUE(stream_start(&st_));
    const uint32_t before = stream_frame_counter();
    ASSERT_TRUE(send_all(phone(), tcp_packet(1, pattern(64, 4))));
    ASSERT_TRUE(wait_until([&] { return stream_frame_counter() != before; }, 5000));
    stream_stop(&st_);
    EXPECT_TRUE(st_.stop_requested.load());
    // The reader is blocked in the socket; the service shuts the socket down to release it.
    shutdown(fds_[0], SHUT_RDWR);
    end();
    EXPECT_EQ(count_of(out.text(), "End of frames\n"), 1u);
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 0);
}

TEST_F(TcpStream, RotationIsReportedOnTheStreamThreadAndThePacketIsStillDecoded)
{
    HostScreenEnv env("800x480", "0");
    VideoRig rig(true, false);
    ASSERT_TRUE(rig.screen_open && rig.mapped());
    const auto& frames = clip(320, 240, 30, "testsrc2");
    EventRecorder events;
    StdoutCapture out;
    start(rig, false);
    ASSERT_TRUE(send_all(phone(), tcp_packet(~uint64_t(0), frames[0])));
    ASSERT_TRUE(send_all(phone(), tcp_header(0, 0)));
    end();
    const std::string text = out.text();

    // No newline after the rotation line: the next thing printed is the decoded picture's layout.
    EXPECT_NE(text.find("detect screen rotated!new frame size:320,240\n"), std::string::npos) << text;
    const std::vector<EventRecorder::Seen> seen = events.take();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].type, EVENT_FRAME_SIZE_CHANGED);
    EXPECT_NE(seen[0].thread, QThread::currentThread()) << "sent synchronously from the stream thread";
    EXPECT_EQ(seen[1].type, EVENT_STREAM_STOPPED);
    EXPECT_EQ(seen[1].thread, QThread::currentThread()) << "posted, delivered on the main thread";
    const std::vector<Latched> shown = read_framelog(env.framelog);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].width, 320);
    EXPECT_EQ(shown[0].height, 240);
}

// One frame at a time, so that the process-wide counter is known after each one.
void send_counted(int fd, const std::vector<uint8_t>& packet)
{
    const uint32_t before = stream_frame_counter();
    ASSERT_TRUE(send_all(fd, packet));
    ASSERT_TRUE(wait_until([&] { return stream_frame_counter() != before; }, 5000));
}

TEST_F(TcpStream, AcknowledgeByteFollowsTheNinetiethFrameBeforeItIsShownAcrossStreams)
{
    const std::vector<uint8_t> junk = tcp_packet(1, pattern(32, 5));
    {
        // Bring the process-wide counter to a known state: an acknowledge resets it.
        VideoRig rig(false, false);
        StdoutCapture quiet;
        start(rig, true);
        int frames = 0;
        while (read_byte(phone(), 0) != 0x01) {
            ASSERT_LT(++frames, 200) << "no acknowledge within 200 frames";
            send_counted(phone(), junk);
        }
        EXPECT_EQ(stream_frame_counter(), 0u);
        for (uint32_t i = 1; i <= 88; ++i) {
            send_counted(phone(), junk);
            ASSERT_EQ(stream_frame_counter(), i);
        }
        ASSERT_TRUE(send_all(phone(), tcp_header(0, 0)));
        end();
        EXPECT_EQ(read_byte(phone(), 0), -1) << "nothing before the 90th frame";
    }
    {
        // A stream without acknowledges keeps counting for the next one.
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        VideoRig rig(false, false);
        StdoutCapture quiet;
        stream other;
        stream_init(&other, pair[0], STREAM_SOCKET_TCP, &rig.dec, false);
        stream_start(&other);
        send_counted(pair[1], junk);
        EXPECT_EQ(stream_frame_counter(), 89u);
        send_all(pair[1], tcp_header(0, 0));
        stream_join(&other);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        EXPECT_EQ(read_byte(pair[1], 0), -1);
        close(pair[0]);
        close(pair[1]);
    }
    {
        // The 90th frame is a real picture. The layer is made to look busy with a picture it
        // never latches, so showing waits three vsyncs at 2 Hz: over a second in which the
        // acknowledge must already have arrived.
        HostScreenEnv env("800x480", "2");
        VideoRig rig(true, false);
        ASSERT_TRUE(rig.screen_open);
        rig.scr.last_addr = 0x7FFFFFF0u;
        StdoutCapture quiet;
        start(rig, true);
        ASSERT_TRUE(send_all(phone(), tcp_packet(90, clip(320, 240, 30, "testsrc2")[0])));
        ASSERT_EQ(read_byte(phone(), 5000), 0x01);
        EXPECT_EQ(rig.scr.frame_width.load(), 0) << "the acknowledge came after the picture was shown";
        EXPECT_TRUE(wait_until([&] { return rig.scr.frame_width.load() == 320; }, 5000));
        EXPECT_EQ(stream_frame_counter(), 0u);
        ASSERT_TRUE(send_all(phone(), tcp_header(0, 0)));
        end();
    }
}

TEST_F(TcpStream, AFrameFillingTheBufferIsTakenAndALongerOneEndsTheStream)
{
    VideoRig rig(false, false);
    ASSERT_TRUE(rig.mapped());
    EventRecorder events;
    StdoutCapture out;
    start(rig, false);
    const std::vector<uint8_t> full = pattern(VIDEO_BUFFER_SIZE, 6);
    ASSERT_TRUE(send_all(phone(), tcp_packet(1, full)));
    // Anything could sit on the Wi-Fi port: a length past the area, with bytes behind it.
    ASSERT_TRUE(send_all(phone(), tcp_header(2, VIDEO_BUFFER_SIZE + 1)));
    ASSERT_TRUE(send_all(phone(), pattern(4096, 7)));
    end();
    const std::string text = out.text();
    EXPECT_NE(text.find("Frame length 1048577 exceeds the video buffer, closing stream\nEnd of frames\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(rig.buffer.length, VIDEO_BUFFER_SIZE);
    EXPECT_EQ(std::memcmp(rig.buffer.mapped_address, full.data(), full.size()), 0)
        << "the area is left as it was";
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1);

    // The largest length there is.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    StdoutCapture out2;
    stream huge;
    stream_init(&huge, pair[0], STREAM_SOCKET_TCP, &rig.dec, false);
    stream_start(&huge);
    send_all(pair[1], tcp_header(3, 0xFFFFFFFFu));
    stream_join(&huge);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_NE(out2.text().find("Frame length 4294967295 exceeds the video buffer, closing stream\n"),
              std::string::npos);
    close(pair[0]);
    close(pair[1]);
}

TEST_F(TcpStream, UnmappedBufferIsNeverReceivedInto)
{
    setenv("ORVANE_HOST_FAULTS", "memalloc-open", 1);
    std::unique_ptr<VideoRig> rig;
    {
        StdoutCapture quiet;
        rig.reset(new VideoRig(false, false));
    }
    unsetenv("ORVANE_HOST_FAULTS");
    ASSERT_FALSE(rig->mapped());
    EventRecorder events;
    StdoutCapture out;
    start(*rig, false);
    ASSERT_TRUE(send_all(phone(), tcp_packet(1, pattern(100, 8))));
    end();
    EXPECT_NE(out.text().find("Video buffer is not mapped, closing stream\nEnd of frames\n"),
              std::string::npos);
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1);
}

TEST_F(TcpStream, UnknownTypeAndBusyCodecEndTheStreamWithTheirLines)
{
    VideoRig rig(false, false);
    EventRecorder events;
    {
        StdoutCapture out;
        start(rig, false, 3);
        end();
        EXPECT_NE(out.text().find("canot find stream socket type!\nEnd of frames\n"), std::string::npos);
        EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1);
    }
    {
        setenv("ORVANE_HOST_FAULTS", "codec-busy", 1);
        StdoutCapture out;
        start(rig, false);
        end();
        unsetenv("ORVANE_HOST_FAULTS");
        const std::string text = out.text();
        EXPECT_NE(text.find("decoder_open MFC Lock failed\nCould not open decoder\n"), std::string::npos)
            << text;
        EXPECT_EQ(text.find("run stream thread"), std::string::npos);
        EXPECT_EQ(text.find("End of frames"), std::string::npos);
        EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 2);
    }
}

// Datagrams from a sender socket to the reader's bound socket on the loopback interface.
class UdpStream : public ::testing::Test
{
protected:
    void SetUp() override
    {
        app();
        use_private_codec_lock();
        {
            StdoutCapture quiet;
            rig_.reset(new VideoRig(false, false));
        }
        ASSERT_TRUE(rig_->mapped());
        reader_ = sock_bind_udp(SOCK_ADDR_LOOPBACK, 0);
        ASSERT_GE(reader_, 0);
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        ASSERT_EQ(getsockname(reader_, reinterpret_cast<sockaddr*>(&addr), &len), 0);
        sender_ = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_EQ(connect(sender_, reinterpret_cast<sockaddr*>(&addr), len), 0);
        st_.socket = reader_;
        st_.type = STREAM_SOCKET_UDP;
        st_.thread = nullptr;
        st_.decoder = &rig_->dec;
        st_.ack_enabled = false;
        st_.stop_requested = false;
    }
    void TearDown() override
    {
        if (st_.thread) {
            stream_join(&st_);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
        close(sender_);
        close(reader_);
        rig_.reset();
        QCoreApplication::sendPostedEvents();
    }
    void datagram(uint16_t kind, uint64_t value, uint16_t index, const std::vector<uint8_t>& body = {})
    {
        std::vector<uint8_t> d(12 + body.size());
        put_be(d.data(), kind, 2);
        put_be(d.data() + 2, value, 8);
        put_be(d.data() + 10, index, 2);
        std::copy(body.begin(), body.end(), d.begin() + 12);
        ASSERT_EQ(send(sender_, d.data(), d.size(), 0), static_cast<ssize_t>(d.size()));
    }
    void frame_start(uint64_t id, uint32_t size)
    {
        std::vector<uint8_t> body(12);
        put_be(body.data(), id, 8);
        put_be(body.data() + 8, size, 4);
        datagram(1, 0, 0, body);
    }
    bool receive()
    {
        length_ = 0;
        return stream_recv_udp_frame(&st_, &rig_->buffer.mapped_address, &length_);
    }
    uint8_t* area() { return rig_->buffer.mapped_address; }
    std::unique_ptr<VideoRig> rig_;
    int reader_ = -1, sender_ = -1;
    stream st_;
    uint32_t length_ = 0;
};

TEST_F(UdpStream, FramesAreReassembledFromChunksOfEightKibibytes)
{
    // 8192 bytes: one full chunk. A chunk before any frame start is ignored.
    const std::vector<uint8_t> a = pattern(8192, 10);
    datagram(2, 0, 0, pattern(8192, 99));
    frame_start(5, 8192);
    datagram(2, 5, 0, a);
    ASSERT_TRUE(receive());
    EXPECT_EQ(length_, 8192u);
    EXPECT_EQ(std::memcmp(area(), a.data(), a.size()), 0);

    // 8193 bytes: two chunks, the second carrying one byte, in any order; a chunk of another
    // frame id is ignored.
    const std::vector<uint8_t> b = pattern(8193, 20);
    std::memset(area(), 0, 3 * 8192);
    frame_start(6, 8193);
    datagram(2, 6, 1, std::vector<uint8_t>(b.begin() + 8192, b.end()));
    datagram(2, 5, 0, pattern(8192, 77));
    datagram(2, 6, 0, std::vector<uint8_t>(b.begin(), b.begin() + 8192));
    ASSERT_TRUE(receive());
    EXPECT_EQ(length_, 8193u);
    EXPECT_EQ(std::memcmp(area(), b.data(), b.size()), 0);
    EXPECT_EQ(area()[8193], 0) << "the last chunk is cut to the frame's size";

    // Unknown kinds are ignored; a frame start of size 0 ends the stream.
    datagram(9, 0, 0, pattern(100, 1));
    frame_start(7, 0);
    EXPECT_FALSE(receive());
}

TEST_F(UdpStream, SizeChangeIsReportedAndRestartsReassembly)
{
    EventRecorder events;
    StdoutCapture out;
    frame_start(7, 16384);
    datagram(2, 7, 0, pattern(8192, 30));
    datagram(3, (uint64_t(1080) << 16) | 1920, 0);
    datagram(2, 7, 1, pattern(8192, 31)); // belongs to the abandoned frame
    const std::vector<uint8_t> c = pattern(10, 32);
    frame_start(8, 10);
    datagram(2, 8, 0, c);
    ASSERT_TRUE(receive());
    EXPECT_EQ(length_, 10u);
    EXPECT_EQ(std::memcmp(area(), c.data(), c.size()), 0);
    EXPECT_NE(out.text().find("recv frame size change:1080,1920\n"), std::string::npos);
    const std::vector<EventRecorder::Seen> seen = events.take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].type, EVENT_FRAME_SIZE_CHANGED);
}

TEST_F(UdpStream, FramesAndChunksOutsideTheBufferEndTheStream)
{
    StdoutCapture out;
    // The last chunk of a frame that fills the area exactly lands at its very end.
    const std::vector<uint8_t> tail = pattern(8192, 40);
    frame_start(9, VIDEO_BUFFER_SIZE);
    datagram(2, 9, 127, tail);
    // An index past the frame's chunks that would land behind the area.
    datagram(2, 9, 128, pattern(8192, 41));
    EXPECT_FALSE(receive());
    EXPECT_EQ(std::memcmp(area() + VIDEO_BUFFER_SIZE - 8192, tail.data(), tail.size()), 0);

    frame_start(10, VIDEO_BUFFER_SIZE + 1);
    EXPECT_FALSE(receive());

    frame_start(11, 100);
    datagram(2, 11, 0xFFFF, pattern(8192, 42));
    EXPECT_FALSE(receive());
    const std::string text = out.text();
    EXPECT_NE(text.find("Chunk 128 of frame 9 lands outside the video buffer, closing stream\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("Frame size 1048577 exceeds the video buffer, closing stream\n"), std::string::npos);
    EXPECT_NE(text.find("Chunk 65535 of frame 11 lands outside the video buffer, closing stream\n"),
              std::string::npos);
}

TEST_F(UdpStream, ReaderThreadRunsFramesAndEndsOnAStopOrAnEmptyFrame)
{
    EventRecorder events;
    StdoutCapture out;
    stream_init(&st_, reader_, STREAM_SOCKET_UDP, &rig_->dec, false);
    ASSERT_TRUE(stream_start(&st_));
    const uint32_t before = stream_frame_counter();
    frame_start(1, 300);
    datagram(2, 1, 0, pattern(300, 50));
    ASSERT_TRUE(wait_until([&] { return stream_frame_counter() != before; }, 5000));
    frame_start(2, 0);
    stream_join(&st_);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1);
    EXPECT_EQ(rig_->buffer.length, 300u);

    // A stop while the reader waits for a datagram: the service shuts the socket down.
    stream_init(&st_, reader_, STREAM_SOCKET_UDP, &rig_->dec, false);
    ASSERT_TRUE(stream_start(&st_));
    stream_stop(&st_);
    shutdown(reader_, SHUT_RDWR);
    stream_join(&st_);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(events.count(EVENT_STREAM_STOPPED), 1) << "a requested stop is not reported";
    EXPECT_EQ(count_of(out.text(), "End of frames\n"), 2u);
}

} // namespace
