// The stream reader's TCP framing fed by a phone over a real socket pair: the input is the byte
// stream the phone sends before it closes. The screen is closed, so frames are received into the
// video buffer and not decoded.
#include <atomic>
#include <cstring>

#include "fuzz_support.h"
#include "video/app_events.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/stream.h"
#include "video/video_buffer.h"

namespace {

struct RotationCounter : QObject {
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == EVENT_FRAME_SIZE_CHANGED)
            count++;
        return QObject::eventFilter(watched, event);
    }
    std::atomic<long> count{0};
};

RotationCounter rotations;
screen scr;
video_buffer buffer; // one for the whole run, as the service keeps one per link

// Frames received and rotations signalled before the stream ends (end of input, zero length, or a
// frame the buffer cannot hold). A read cut short by the close counts as complete: a short header
// reads as zeros where bytes are missing, a short payload as a whole frame.
void expected(const uint8_t* data, size_t size, long* frames, long* turns)
{
    *frames = *turns = 0;
    for (size_t at = 0; at < size; ++*frames) {
        uint8_t header[12] = {};
        const size_t got = std::min(size - at, sizeof header);
        memcpy(header, data + at, got);
        at += got;
        const uint32_t length = uint32_t(header[8]) << 24 | header[9] << 16 | header[10] << 8 | header[11];
        if (length == 0)
            return;
        if (memcmp(header, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8) == 0)
            ++*turns;
        if (length > VIDEO_BUFFER_SIZE || at == size)
            return;
        at += std::min<size_t>(length, size - at);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz_host_app(argc, argv)->installEventFilter(&rotations);
    screen_init(&scr);
    buffer.screen = &scr;
    buffer.memalloc_fd = -1;
    buffer.mapped_address = VIDEO_BUFFER_UNMAPPED;
    video_buffer_init(&buffer, false, 1280, 720);
    if (buffer.mapped_address == VIDEO_BUFFER_UNMAPPED)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        abort();
    decoder dec{&buffer};
    stream st;
    stream_init(&st, fds[0], STREAM_SOCKET_TCP, &dec, false);
    const uint32_t frames_before = stream_frame_counter();
    const long rotations_before = rotations.count;
    stream_start(&st);
    phone_send(fds[1], data, size, [&] { return st.thread->isFinished(); });
    shutdown(fds[1], SHUT_WR); // the phone closes: the reader must end by itself
    if (!st.thread->wait(10000))
        abort();
    stream_join(&st);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();

    long frames, turns;
    expected(data, size, &frames, &turns);
    if (long(stream_frame_counter() - frames_before) != frames || rotations.count - rotations_before != turns)
        abort();
    close(fds[0]);
    close(fds[1]);
    return 0;
}
