// A phone on the Wi-Fi port, as the service adopts it: the input is everything the phone sends on
// its connection (the 68-byte header with its magic, then the stream) before it closes. The
// service checks the header, readies the video buffer, runs the reader, and is torn down after
// each input as at the end of a link. The screen stays closed, so nothing is decoded.
#include <QCoreApplication>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "service/orvane_service.h"

namespace {

QCoreApplication* app;
OrvaneService* service;

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
    // One service for the whole run, as the daemon keeps one across links; no bus is needed to
    // adopt a connection.
    service = new OrvaneService;
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
        size_t done = 0;
        while (done < size) {
            const ssize_t n = send(fds[1], data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                done += static_cast<size_t>(n);
                continue;
            }
            if ((errno != EAGAIN && errno != EWOULDBLOCK) || reader_gone.load())
                break;
            pollfd p = {fds[1], POLLOUT, 0};
            poll(&p, 1, 10);
        }
        shutdown(fds[1], SHUT_WR);
    });

    service->reconnectStream();

    // A header cut short by the close is read as complete (zeros for the missing bytes), so only
    // the magic decides.
    const bool header_ok = size >= 4 && memcmp(data, "AFFA", 4) == 0;
    if (header_ok != service->streamRunning)
        abort();
    if (!header_ok) {
        // Refused: the whole link is down and the phone's connection closed.
        if (service->connected || service->serverStarted || service->server.video_socket != -1)
            abort();
        if (fcntl(fds[0], F_GETFD) != -1 || errno != EBADF)
            abort();
    } else if (!service->stream.thread->wait(10000)) {
        abort(); // the phone has closed: the reader must end by itself
    }
    reader_gone.store(true);
    phone.join();

    service->exitLink();
    if (service->streamRunning || service->videoBufferReady || service->server.video_socket != -1)
        abort();
    if (fcntl(fds[0], F_GETFD) != -1 || errno != EBADF)
        abort();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
    close(fds[1]);
    return 0;
}
