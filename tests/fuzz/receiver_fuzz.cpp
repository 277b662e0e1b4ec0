// The receiver thread fed by a phone over a real socket pair. The input is a list of reads: a
// length byte (below 0xF0: 1 to 240 bytes; from 0xF0: a 12-bit length with the next byte, up to
// 4096) and then that many bytes, each delivered as one read.
#include <QCoreApplication>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "control/controller.h"
#include "video/app_events.h"

namespace {

// The frame-size events arrive here on the receiver thread, as they do in the service's filter.
class EventSink : public QObject
{
public:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == EVENT_FRAME_SIZE_CHANGED)
            events.fetch_add(1, std::memory_order_relaxed);
        return QObject::eventFilter(watched, event);
    }
    std::atomic<long> events{0};
};

QCoreApplication* app;
EventSink* sink;
// Like the service's, one controller record serves every link.
Controller controller;

// Sends one read's bytes; gives up once the receiver has ended and stopped draining the socket.
bool send_read(int fd, const uint8_t* data, size_t len)
{
    for (int tries = 0; tries < 1000; tries++) {
        if (send(fd, data, len, MSG_DONTWAIT) == static_cast<ssize_t>(len))
            return true;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS)
            return false;
        if (controller.receiver.thread->isFinished())
            return false;
        pollfd p = {fd, POLLOUT, 0};
        poll(&p, 1, 10);
    }
    abort(); // the receiver neither reads nor ends: hung
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    signal(SIGPIPE, SIG_IGN);
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    app = new QCoreApplication(*argc, *argv);
    sink = new EventSink;
    app->installEventFilter(sink);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) != 0)
        abort();
    controller_init(&controller, fds[0]);
    if (!controller_start(&controller))
        abort();
    QThread* thread = controller.receiver.thread;

    size_t i = 0;
    while (i < size) {
        size_t len = data[i++];
        if (len >= 0xF0) {
            if (i >= size)
                break;
            len = ((len & 0x0F) << 8 | data[i++]) + 1;
        } else {
            len += 1;
        }
        if (len > size - i)
            len = size - i;
        if (len == 0 || !send_read(fds[1], data + i, len))
            break;
        i += len;
    }

    // The phone goes away, then the service's teardown order: stop, shut the socket, join.
    close(fds[1]);
    controller_stop(&controller);
    if (!thread->wait(10000))
        abort();
    shutdown(fds[0], SHUT_RDWR);
    controller_join(&controller);
    controller_destroy(&controller);
    close(fds[0]);
    return 0;
}
