// A phone on the Wi-Fi port as the service adopts it: the input is all it sends (header, then stream)
// before it closes; each input is one link, torn down at its end. The screen stays closed.
#include <cstring>
#include <fcntl.h>

#include "fuzz_support.h"
#include "service/orvane_service.h"
#include "video/device_info.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_setup();
    // One for the whole run, as the daemon keeps one across links; no bus is needed to adopt a phone.
    static OrvaneService* const service = [] {
        auto* s = new OrvaneService;
        s->videoWidth = 1280;
        s->videoHeight = 720;
        return s;
    }();
    Phone phone(SOCK_STREAM, {{data, size}});
    // A listening Wi-Fi link whose accept thread has just stored the phone's connection.
    service->wifiMode = service->serverStarted = true;
    service->server.video_socket = phone.fds[0];
    service->reconnectStream();
    // The whole header with the magic, or the whole link goes down with the phone's connection.
    const bool header_ok = size >= DEVICE_INFO_SIZE && memcmp(data, "AFFA", 4) == 0;
    const auto closed = [&] { return fcntl(phone.fds[0], F_GETFD) == -1; };
    check(header_ok == service->streamRunning);
    check(header_ok ||
          (!service->connected && !service->serverStarted && service->server.video_socket == -1 && closed()));
    check(!header_ok ||
          service->stream.thread->wait(10000)); // the phone has closed: the reader ends by itself
    service->exitLink();
    check(!service->streamRunning && !service->videoBufferReady && service->server.video_socket == -1 &&
          closed());
    phone.fds[0] = -1; // the service closed it
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
    return 0;
}
