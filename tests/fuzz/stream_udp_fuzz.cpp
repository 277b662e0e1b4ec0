// UDP frame reassembly fed by a phone over a real datagram socket pair. The input is a list of
// datagrams, each a two-byte big-endian length (cut to 9000) and then its bytes.
#include <algorithm>

#include "fuzz_support.h"
#include "video/stream.h"
#include "video/video_buffer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_setup();
    // Exactly the physical area's size, so that a write past it is a heap overflow.
    static uint8_t* const area = static_cast<uint8_t*>(malloc(VIDEO_BUFFER_SIZE));
    std::vector<std::pair<const uint8_t*, size_t>> datagrams;
    for (size_t i = 0; i + 2 <= size; i += 2 + datagrams.back().second)
        datagrams.emplace_back(data + i + 2,
                               std::min({size_t(data[i]) << 8 | data[i + 1], size_t(9000), size - i - 2}));
    stream st; // outlives the phone, whose thread stops it
    Phone phone(SOCK_DGRAM);
    stream_init(&st, phone.fds[0], STREAM_SOCKET_UDP, nullptr, false);
    // The phone sends everything, then the service stops the reader: the flag, and the socket
    // shut down so that the reader sees the end once the queued datagrams are read.
    phone.thread = std::thread([&] {
        for (size_t i = 0; i < datagrams.size() && phone.send(datagrams[i].first, datagrams[i].second); ++i) {
        }
        st.stop_requested.store(true);
        shutdown(phone.fds[0], SHUT_RDWR);
    });
    // Each completed frame hands back its size in the one area; a frame takes at least a datagram.
    uint8_t* buffer = area;
    uint32_t length = 0;
    size_t frames = 0;
    while (stream_recv_udp_frame(&st, &buffer, &length))
        check(buffer == area && length > 0 && length <= VIDEO_BUFFER_SIZE && ++frames <= datagrams.size());
    return 0;
}
