// The receiver thread fed by a phone over a real socket pair. The input is a list of reads: a
// length byte (below 0xF0: 1 to 240 bytes; from 0xF0: a 12-bit length with the next byte, up to
// 4096) and then that many bytes, each delivered as one read. It must neither crash, leak nor hang.
#include <algorithm>

#include "control/controller.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_setup();                 // the frame-size events go to its application object
    static Controller controller; // one record serves every link, as in the service
    std::vector<std::pair<const uint8_t*, size_t>> reads;
    for (size_t i = 0, len; i < size; i += len) {
        len = data[i++];
        if (len >= 0xF0 && i < size)
            len = (len & 0x0F) << 8 | data[i++];
        len = std::min(len + 1, size - i);
        if (len > 0)
            reads.emplace_back(data + i, len);
    }
    // The phone sends its reads and goes away; then the service's teardown: stop, shut the socket, join.
    Phone phone(SOCK_SEQPACKET, reads);
    controller_init(&controller, phone.fds[0]);
    check(controller_start(&controller));
    check(controller.receiver.thread->wait(10000));
    controller_stop(&controller);
    shutdown(phone.fds[0], SHUT_RDWR);
    controller_join(&controller);
    controller_destroy(&controller);
    return 0;
}
