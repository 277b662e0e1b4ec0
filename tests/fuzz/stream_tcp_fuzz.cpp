// The stream reader's TCP framing: the input is the byte stream a phone sends on a real socket pair
// before it closes. The screen is closed, so frames are received into the video buffer, not decoded.
#include <cstring>

#include "fuzz_support.h"
#include "video/app_events.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/stream.h"
#include "video/video_buffer.h"

static struct RotationCounter : QObject {
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        count += event->type() == EVENT_FRAME_SIZE_CHANGED;
        return QObject::eventFilter(watched, event);
    }
    std::atomic<long> count{0};
} rotations;
static screen scr;
static video_buffer buffer; // one for the whole run, as the service keeps one per link

// Frames received and rotations signalled before the stream ends (end of input, zero length, or a
// frame the buffer cannot hold). A read cut short by the close counts as complete: a short header
// reads as zeros where bytes are missing, a short payload as a whole frame.
static std::pair<long, long> expected(const uint8_t* data, size_t size)
{
    long frames = 0, turns = 0;
    for (size_t at = 0; at < size; ++frames) {
        uint8_t header[12] = {};
        memcpy(header, data + at, std::min(size - at, sizeof header));
        at += std::min(size - at, sizeof header);
        const uint32_t length = uint32_t(header[8]) << 24 | header[9] << 16 | header[10] << 8 | header[11];
        if (length == 0)
            return {frames, turns};
        turns += memcmp(header, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8) == 0;
        if (length > VIDEO_BUFFER_SIZE || at == size)
            return {frames, turns};
        at += std::min<size_t>(length, size - at);
    }
    return {frames, turns};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = [] {
        fuzz_setup()->installEventFilter(&rotations);
        screen_init(&scr);
        buffer.screen = &scr;
        video_buffer_init(&buffer, false, 1280, 720);
        return buffer.mapped_address != VIDEO_BUFFER_UNMAPPED;
    }();
    check(ready);
    decoder dec{&buffer};
    stream st;
    const uint32_t frames_before = stream_frame_counter();
    const long rotations_before = rotations.count;
    Phone phone(SOCK_STREAM, {{data, size}}); // then it closes: the reader must end by itself
    stream_init(&st, phone.fds[0], STREAM_SOCKET_TCP, &dec, false);
    stream_start(&st);
    check(st.thread->wait(10000));
    stream_join(&st);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
    const auto [frames, turns] = expected(data, size);
    check(long(stream_frame_counter() - frames_before) == frames &&
          rotations.count - rotations_before == turns);
    return 0;
}
