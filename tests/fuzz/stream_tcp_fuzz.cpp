// The stream reader's TCP framing fed by a phone over a real socket pair: the input is the byte
// stream the phone sends, then it closes. The decoder and the video buffer are in place but the
// screen is closed, so frames are received into the buffer and not decoded.
#include <QCoreApplication>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "video/app_events.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/stream.h"
#include "video/video_buffer.h"

namespace {

class EventSink : public QObject
{
public:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == EVENT_FRAME_SIZE_CHANGED)
            rotations.fetch_add(1, std::memory_order_relaxed);
        return QObject::eventFilter(watched, event);
    }
    std::atomic<long> rotations{0};
};

QCoreApplication* app;
EventSink* sink;
screen scr;
video_buffer buffer;

uint32_t be32(const uint8_t* p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// What the reader makes of the bytes: frames received and rotations signalled before the stream
// ends (end of input, zero length, or a frame the buffer cannot hold). A read cut short by the
// phone's close counts as complete, as the socket layer has it: a short header reads as zeros
// where bytes are missing, a short payload as a whole frame.
void expected(const uint8_t* data, size_t size, long* frames, long* rotations)
{
    size_t at = 0;
    *frames = 0;
    *rotations = 0;
    while (at < size) {
        uint8_t header[12] = {};
        const size_t got = size - at < 12 ? size - at : 12;
        memcpy(header, data + at, got);
        at += got;
        const uint32_t length = be32(header + 8);
        if (length == 0)
            return;
        bool all_ones = true;
        for (int i = 0; i < 8; ++i)
            all_ones = all_ones && header[i] == 0xFF;
        if (all_ones)
            ++*rotations;
        if (length > VIDEO_BUFFER_SIZE || at == size)
            return;
        at += length < size - at ? length : size - at;
        ++*frames;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const std::string lock = "/tmp/orvane-fuzz-codec-" + std::to_string(getpid()) + ".lock";
    setenv("ORVANE_HOST_CODEC_LOCK", lock.c_str(), 1);
    setenv("ORVANE_HOST_DISPLAY", "headless", 1);
    unsetenv("ORVANE_HOST_FAULTS");
    app = new QCoreApplication(*argc, *argv);
    sink = new EventSink;
    app->installEventFilter(sink);
    // One buffer for the whole run, as the service keeps one per link.
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
    const long rotations_before = sink->rotations.load();
    stream_start(&st);

    // A reader that ended early stops draining its socket: stop sending once it has finished.
    size_t done = 0;
    while (done < size) {
        const ssize_t n = send(fds[1], data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            break;
        if (st.thread->isFinished())
            break;
        pollfd p = {fds[1], POLLOUT, 0};
        poll(&p, 1, 10);
    }
    // The phone closes its end: the reader must end by itself.
    shutdown(fds[1], SHUT_WR);
    if (!st.thread->wait(10000))
        abort();
    stream_join(&st);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();

    long frames = 0, rotations = 0;
    expected(data, size, &frames, &rotations);
    if (long(stream_frame_counter() - frames_before) != frames)
        abort();
    if (sink->rotations.load() - rotations_before != rotations)
        abort();
    close(fds[0]);
    close(fds[1]);
    return 0;
}
