// A phone on the Wi-Fi port as the service adopts it: the input is everything the phone sends on
// its connection (the 68-byte header with its magic, then the stream) before it closes. Each input
// is one link, torn down at its end. The screen stays closed, so nothing is decoded.
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <thread>

#include "fuzz_support.h"
#include "service/orvane_service.h"

namespace {

OrvaneService* service; // one for the whole run, as the daemon keeps one across links

bool closed(int fd)
{
    return fcntl(fd, F_GETFD) == -1 && errno == EBADF;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz_host_app(argc, argv);
    service = new OrvaneService; // no bus is needed to adopt a connection
    service->videoWidth = 1280;
    service->videoHeight = 720;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        abort();
    // A listening Wi-Fi link whose accept thread has just stored the phone's connection.
    service->wifiMode = true;
    service->serverStarted = true;
    service->server.video_socket = fds[0];
    std::atomic<bool> reader_gone{false};
    std::thread phone([&] {
        phone_send(fds[1], data, size, [&] { return reader_gone.load(); });
        shutdown(fds[1], SHUT_WR);
    });
    service->reconnectStream();

    // A header cut short by the close reads as complete, zeros for the missing bytes: only the
    // magic decides. A refused phone takes the whole link down with its connection.
    const bool header_ok = size >= 4 && memcmp(data, "AFFA", 4) == 0;
    if (header_ok != service->streamRunning)
        abort();
    if (!header_ok && (service->connected || service->serverStarted || service->server.video_socket != -1 ||
                       !closed(fds[0])))
        abort();
    if (header_ok && !service->stream.thread->wait(10000))
        abort(); // the phone has closed: the reader must end by itself
    reader_gone = true;
    phone.join();

    service->exitLink();
    if (service->streamRunning || service->videoBufferReady || service->server.video_socket != -1 ||
        !closed(fds[0]))
        abort();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
    close(fds[1]);
    return 0;
}
