// UDP frame reassembly fed by a phone over a real datagram socket pair. The input is a list of
// datagrams, each a two-byte big-endian length (cut to 9000) and then its bytes.
#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "fuzz_support.h"
#include "video/stream.h"
#include "video/video_buffer.h"

namespace {

uint8_t* area; // exactly the physical area's size, so that a write past it is a heap overflow

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz_quiet();
    new QCoreApplication(*argc, *argv);
    area = static_cast<uint8_t*>(malloc(VIDEO_BUFFER_SIZE));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::pair<const uint8_t*, size_t>> datagrams;
    for (size_t i = 0; i + 2 <= size;) {
        const size_t len = std::min({size_t(data[i]) << 8 | data[i + 1], size_t(9000), size - i - 2});
        datagrams.emplace_back(data + i + 2, len);
        i += 2 + len;
    }
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, fds) != 0)
        abort();
    stream st;
    stream_init(&st, fds[0], STREAM_SOCKET_UDP, nullptr, false);

    // The phone sends everything, then the service stops the reader: the flag, and the socket
    // shut down so that the reader sees the end once the queued datagrams are read.
    std::atomic<bool> reader_done{false};
    std::thread phone([&] {
        for (const auto& d : datagrams)
            if (!phone_send(fds[1], d.first, d.second, [&] { return reader_done.load(); }))
                break;
        st.stop_requested.store(true);
        shutdown(fds[0], SHUT_RDWR);
    });
    // Each completed frame hands back its size in the one area; a frame takes at least a datagram.
    uint8_t* buffer = area;
    uint32_t length = 0;
    size_t frames = 0;
    while (stream_recv_udp_frame(&st, &buffer, &length))
        if (buffer != area || length == 0 || length > VIDEO_BUFFER_SIZE || ++frames > datagrams.size())
            abort();
    reader_done.store(true);
    phone.join();
    close(fds[0]);
    close(fds[1]);
    return 0;
}
