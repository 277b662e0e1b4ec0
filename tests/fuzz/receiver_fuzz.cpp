// The receiver thread fed by a phone over a real socket pair. The input is a list of reads: a
// length byte (below 0xF0: 1 to 240 bytes; from 0xF0: a 12-bit length with the next byte, up to
// 4096) and then that many bytes, each delivered as one read. It must neither crash, leak nor hang.
#include <algorithm>
#include <csignal>

#include "control/controller.h"
#include "fuzz_support.h"

namespace {

Controller controller; // one record serves every link, as in the service

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    signal(SIGPIPE, SIG_IGN);
    fuzz_host_app(argc, argv); // the frame-size events go to it
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
    for (size_t i = 0, len; i < size; i += len) {
        len = data[i++];
        if (len >= 0xF0 && i < size)
            len = ((len & 0x0F) << 8 | data[i++]) + 1;
        else
            len += 1;
        len = std::min(len, size - i);
        if (len == 0 || !phone_send(fds[1], data + i, len, [&] { return thread->isFinished(); }))
            break;
    }
    // The phone goes away, then the service's teardown: stop, shut the socket, join.
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
