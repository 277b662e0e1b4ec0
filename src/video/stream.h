// The stream reader: one thread that receives each frame into the video buffer, has it decoded and
// shown, and reports the end of the stream and geometry changes to the service.
#pragma once

#include <QThread>
#include <atomic>
#include <cstdint>

#include "video/stream_stats.h"

struct decoder;

constexpr int STREAM_SOCKET_TCP = 1;
constexpr int STREAM_SOCKET_UDP = 2;
constexpr uint32_t STREAM_UDP_CHUNK = 8192;
constexpr uint32_t STREAM_UDP_RECV_BUFFER = 32000;
constexpr uint32_t STREAM_ACK_EVERY = 90;

class StreamThread;

struct stream {
    int socket;
    int type;
    StreamThread* thread;
    struct decoder* decoder;
    bool ack_enabled;
    std::atomic<bool> stop_requested;
    // Set last thing by the reader thread; stream_join reads it after the wait so that the join
    // is a visible hand-over of the record and the buffer (the wait itself is inside Qt).
    std::atomic<bool> finished;
    bool spare;
    // The link's figures; kept across the streams of one Wi-Fi link (stream_init leaves them).
    stream_stats stats;
};

// Runs the frame loop: receive, acknowledge, decode and show, every frame on this one thread. It
// posts EVENT_STREAM_STOPPED when its stream ends by itself and sends EVENT_FRAME_SIZE_CHANGED on a
// rotation (the service's filter then runs here, on this thread).
class StreamThread : public QThread
{
public:
    explicit StreamThread(stream* s) : stream_(s) {}
    ~StreamThread() override = default;

protected:
    void run() override;

private:
    stream* stream_;
};

// Main thread, while no stream thread runs.
void stream_init(stream* s, int socket, int type, decoder* dec, bool ack_enabled);
// Main thread: starts the stream thread (false, with a line, when the system refuses it). From here
// until stream_join the record's frame path belongs to that thread.
bool stream_start(stream* s);
// Main thread: asks the thread to end at its next frame; does not wait, and does not wake a thread
// blocked in a receive (shutting the socket down does that).
void stream_stop(stream* s);
// Main thread: waits for the thread without a limit; call it only once the socket is shut down.
void stream_join(stream* s);
// Stream thread.
bool stream_recv_udp_frame(stream* s, uint8_t** buffer, uint32_t* length);
// Frames counted towards the next acknowledge byte (shared by every stream of the process).
uint32_t stream_frame_counter();
