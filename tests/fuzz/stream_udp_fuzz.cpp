// UDP frame reassembly fed by a phone over a real datagram socket pair. The input is a list of
// datagrams, each a two-byte big-endian length (cut to 9000) and then its bytes.
#include <QCoreApplication>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "video/stream.h"
#include "video/video_buffer.h"

namespace {

QCoreApplication* app;
// Exactly the size of the physical area, so that a write past it is a heap overflow.
uint8_t* area;

constexpr size_t MAX_DATAGRAM = 9000;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    app = new QCoreApplication(*argc, *argv);
    area = static_cast<uint8_t*>(malloc(VIDEO_BUFFER_SIZE));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::pair<const uint8_t*, size_t>> datagrams;
    for (size_t i = 0; i + 2 <= size;) {
        size_t len = size_t(data[i]) << 8 | data[i + 1];
        i += 2;
        if (len > MAX_DATAGRAM)
            len = MAX_DATAGRAM;
        if (len > size - i)
            len = size - i;
        datagrams.emplace_back(data + i, len);
        i += len;
    }

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, fds) != 0)
        abort();
    stream st;
    stream_init(&st, fds[0], STREAM_SOCKET_UDP, nullptr, false);

    // The phone sends everything; then the service's stop: the flag, and the socket shut down,
    // which lets the reader see the end once the queued datagrams are read.
    // A reader that gave up stops draining the queue: the phone then stops sending.
    std::atomic<bool> reader_done{false};
    std::thread phone([&] {
        for (size_t k = 0; k < datagrams.size();) {
            const auto& d = datagrams[k];
            if (send(fds[1], d.first, d.second, MSG_NOSIGNAL | MSG_DONTWAIT) ==
                static_cast<ssize_t>(d.second)) {
                ++k;
                continue;
            }
            if ((errno != EAGAIN && errno != EWOULDBLOCK) || reader_done.load())
                break;
            pollfd p = {fds[1], POLLOUT, 0};
            poll(&p, 1, 10);
        }
        st.stop_requested.store(true);
        shutdown(fds[0], SHUT_RDWR);
    });

    // Each completed frame hands back its size; the reader then starts on the next one.
    uint8_t* buffer = area;
    uint32_t length = 0;
    size_t frames = 0;
    while (stream_recv_udp_frame(&st, &buffer, &length)) {
        if (buffer != area || length == 0 || length > VIDEO_BUFFER_SIZE)
            abort();
        // A frame needs at least one chunk datagram; more frames than datagrams is impossible.
        if (++frames > datagrams.size())
            abort();
    }
    reader_done.store(true);
    phone.join();
    close(fds[0]);
    close(fds[1]);
    return 0;
}
