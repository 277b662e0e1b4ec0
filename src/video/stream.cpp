#include "video/stream.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/worker.h"
#include "net/sock.h"
#include "video/app_events.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/video_buffer.h"

namespace {

// Frames received by every stream of the process; the acknowledge rule counts across streams.
std::atomic<uint32_t> g_frame_counter{0};

constexpr uint64_t ROTATION_PTS = ~uint64_t(0);
constexpr size_t TCP_HEADER_SIZE = 12;
constexpr size_t UDP_HEADER_SIZE = 12;
constexpr uint16_t UDP_FRAME_START = 1;
constexpr uint16_t UDP_FRAME_CHUNK = 2;
constexpr uint16_t UDP_SIZE_CHANGE = 3;

uint64_t be64(const uint8_t* p)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = (v << 8) | p[i];
    return v;
}

uint32_t be32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

uint16_t be16(const uint8_t* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

bool stop_requested(const stream* s)
{
    return s->stop_requested.load(std::memory_order_relaxed);
}

// Reads one TCP packet into the video buffer; false ends the stream.
bool recv_tcp_frame(stream* s, video_buffer* vb)
{
    // Zeroed: a phone that closes mid-header gets its short read counted as a whole header, and
    // the missing bytes must not be whatever the stack held.
    uint8_t header[TCP_HEADER_SIZE] = {};
    if (sock_recv_all(s->socket, header, sizeof header) < static_cast<ssize_t>(sizeof header))
        return false;
    const uint32_t length = be32(header + 8);
    if (length == 0)
        return false; // the phone's end of stream
    if (be64(header) == ROTATION_PTS) {
        // Kept on purpose (docs/KEPT.md): no line end, and the packet is decoded as usual.
        std::printf("detect screen rotated!");
        app_send_event(EVENT_FRAME_SIZE_CHANGED);
    }
    // The Wi-Fi port is open to anything on the car's network: a length the area cannot hold
    // must not turn into a write past the physical buffer.
    if (length > VIDEO_BUFFER_SIZE) {
        std::printf("Frame length %u exceeds the video buffer, closing stream\n", length);
        return false;
    }
    if (vb->mapped_address == VIDEO_BUFFER_UNMAPPED) {
        std::puts("Video buffer is not mapped, closing stream");
        return false;
    }
    vb->length = length;
    return sock_recv_all(s->socket, vb->mapped_address, length) >= static_cast<ssize_t>(length);
}

} // namespace

uint32_t stream_frame_counter()
{
    return g_frame_counter.load(std::memory_order_relaxed);
}

void stream_init(stream* s, int socket, int type, decoder* dec, bool ack_enabled)
{
    s->socket = socket;
    s->type = type;
    s->decoder = dec;
    s->ack_enabled = ack_enabled;
    s->thread = nullptr;
    s->stop_requested.store(false, std::memory_order_relaxed);
    s->spare = false;
    s->finished.store(false, std::memory_order_relaxed);
    std::printf("%s socket:%d type:%d\n", "stream_init", socket, type);
}

bool stream_start(stream* s)
{
    std::puts("Starting stream thread");
    s->stop_requested.store(false, std::memory_order_relaxed);
    s->finished.store(false, std::memory_order_relaxed);
    s->thread = new StreamThread(s);
    if (!worker_start(s->thread, QThread::HighPriority, "orvane-stream")) {
        delete s->thread;
        s->thread = nullptr;
        return false;
    }
    return true;
}

void stream_stop(stream* s)
{
    if (!s->thread)
        return;
    s->stop_requested.store(true, std::memory_order_relaxed);
    if (s->decoder)
        decoder_interrupt(s->decoder);
}

void stream_join(stream* s)
{
    if (!s->thread)
        return;
    s->thread->wait();
    // QThread::wait() synchronises through a futex ThreadSanitizer cannot see; this acquire pairs
    // with the reader's last release store, so the hand-over is visible to it too.
    s->finished.load(std::memory_order_acquire);
    s->thread->deleteLater();
    s->thread = nullptr;
}

void StreamThread::run()
{
    stream* s = stream_;
    decoder* dec = s->decoder;
    if (dec && !decoder_open(dec, 0)) {
        std::puts("Could not open decoder");
        app_post_event(EVENT_STREAM_STOPPED);
        s->finished.store(true, std::memory_order_release);
        return;
    }
    std::printf("run stream thread:%d\n", stop_requested(s) ? 1 : 0);

    for (;;) {
        if (stop_requested(s))
            break;
        video_buffer* vb = dec ? dec->video_buffer : nullptr;
        if (!vb) {
            std::puts("Stream has no video buffer, closing stream");
            break;
        }
        if (s->type == STREAM_SOCKET_TCP) {
            if (!recv_tcp_frame(s, vb))
                break;
        } else if (s->type == STREAM_SOCKET_UDP) {
            if (!stream_recv_udp_frame(s, &vb->mapped_address, &vb->length))
                break;
        } else {
            // Kept on purpose (docs/KEPT.md): the text as it has always been spelled.
            std::puts("canot find stream socket type!");
            break;
        }

        stream_stats_frame(&s->stats, vb->length);

        // The phone paces itself on this byte: it is sent once the 90th frame is in, before that
        // frame is decoded.
        // Kept on purpose (docs/KEPT.md): one counter for every stream of the process.
        const uint32_t frames = g_frame_counter.fetch_add(1, std::memory_order_relaxed) + 1;
        if (s->ack_enabled && frames >= STREAM_ACK_EVERY) {
            const uint8_t ack = 0x01;
            const ssize_t written = write(s->socket, &ack, 1);
            g_frame_counter.store(0, std::memory_order_relaxed);
            if (written != 1)
                break;
        }

        screen_render_frame(vb->screen, vb, &s->stats);
    }

    std::puts("End of frames");
    if (dec)
        decoder_close(dec);
    if (!stop_requested(s))
        app_post_event(EVENT_STREAM_STOPPED);
    s->finished.store(true, std::memory_order_release);
}

bool stream_recv_udp_frame(stream* s, uint8_t** buffer, uint32_t* length)
{
    uint8_t datagram[STREAM_UDP_RECV_BUFFER];
    std::memset(datagram, 0, sizeof datagram);
    uint64_t frame_id = 0;
    uint32_t chunk_count = 0;
    uint32_t chunks_received = 0;
    uint32_t frame_size = 0;

    for (;;) {
        struct sockaddr_in source;
        socklen_t source_length = 4;
        const ssize_t received = recvfrom(s->socket, datagram, sizeof datagram, 0,
                                          reinterpret_cast<sockaddr*>(&source), &source_length);
        if (received < 0)
            return false;
        // A shut-down datagram socket reads as endless empty datagrams; only a stop request tells
        // that apart from an empty datagram of the phone, which is read like any other.
        if (received == 0 && stop_requested(s))
            return false;
        const uint16_t kind = be16(datagram);
        const uint64_t value = be64(datagram + 2);

        if (kind == UDP_FRAME_START) {
            const uint64_t id = be64(datagram + UDP_HEADER_SIZE);
            const uint32_t size = be32(datagram + UDP_HEADER_SIZE + 8);
            if (size == 0)
                return false;
            // Anyone on the car's network can reach this socket: a frame larger than the area
            // would have its chunks written past the physical buffer.
            if (size > VIDEO_BUFFER_SIZE) {
                std::printf("Frame size %u exceeds the video buffer, closing stream\n", size);
                return false;
            }
            *length = size;
            frame_size = size;
            chunk_count = (size >> 13) + ((size & (STREAM_UDP_CHUNK - 1)) != 0 ? 1 : 0);
            chunks_received = 0;
            frame_id = id;
        } else if (kind == UDP_FRAME_CHUNK) {
            // Kept on purpose (docs/KEPT.md): chunks are checked against the buffer only.
            if (chunk_count == 0 || value != frame_id)
                continue; // a late chunk of an earlier frame
            const uint32_t index = be16(datagram + 10);
            const uint32_t chunk_length = index == chunk_count - 1
                                              ? frame_size - (chunk_count - 1) * STREAM_UDP_CHUNK
                                              : STREAM_UDP_CHUNK;
            const uint64_t end = uint64_t(index) * STREAM_UDP_CHUNK + chunk_length;
            if (end > VIDEO_BUFFER_SIZE) {
                std::printf("Chunk %u of frame %llu lands outside the video buffer, closing stream\n", index,
                            static_cast<unsigned long long>(frame_id));
                return false;
            }
            if (*buffer == VIDEO_BUFFER_UNMAPPED) {
                std::puts("Video buffer is not mapped, closing stream");
                return false;
            }
            ++chunks_received;
            std::memcpy(*buffer + uint64_t(index) * STREAM_UDP_CHUNK, datagram + UDP_HEADER_SIZE,
                        chunk_length);
            if (chunks_received == chunk_count)
                return true;
        } else if (kind == UDP_SIZE_CHANGE) {
            const int width = static_cast<int>(value >> 16);
            const int height = static_cast<int>(value & 0xFFFF);
            std::printf("recv frame size change:%d,%d\n", width, height);
            app_send_event(EVENT_FRAME_SIZE_CHANGED);
            frame_id = 0;
            chunk_count = 0;
            frame_size = 0;
        }
    }
}
