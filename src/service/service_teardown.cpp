// The reacting half of a link: teardown, the worker threads' events, the Wi-Fi reconnect grace
// period and adopting a phone's (new) Wi-Fi connection.
#include <QCoreApplication>
#include <QTimerEvent>
#include <cstdio>
#include <cstring>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "base/console.h"
#include "net/sock.h"
#include "service/diagnostics.h"
#include "base/log_line.h"
#include "service/orvane_service.h"
#include "platform/defaults.h"
#include "service/shell_command.h"
#include "video/app_events.h"
#include "video/device_info.h"

namespace {
constexpr int WIFI_RETRY_MS = 3000;
constexpr int WIFI_HEADER_TIMEOUT_MS = 10000;
} // namespace

void OrvaneService::exitLink()
{
    logLine() << "exit Mirror link!" << connected << serverStarted;
    diagnostics_link_ended();

    // A grace period belongs to the link that started it: left running, it would end the next one.
    stopRetryTimer();

    // The announcement goes first, so no phone finds a server that is about to close.
    if (dnssdRef != nullptr) {
        dnssd_destroy(dnssdRef);
        dnssdRef = nullptr;
    }
    // Both stop requests before the sockets are shut, and the joins only after that: shutting
    // the sockets is what releases the reader threads from their blocking receives.
    if (controllerRunning)
        controller_stop(&controller);
    if (streamRunning)
        stream_stop(&stream);
    if (connected || serverStarted) {
        phone_server_stop(&server);
        connected = false;
        serverStarted = false;
        if (!wifiMode)
            shell_command_run_configured(ENV_OTG_COMMAND, platform_default_settings().otg_command);
    }
    // Kept on purpose (docs/KEPT.md): the step lines' spelling and leading space; no status without a stream.
    if (streamRunning) {
        streamRunning = false;
        stream_join(&stream);
        emit onLinkStatusChange(wifiMode ? LINK_TYPE_WIFI : LINK_TYPE_USB, LINK_STATUS_ENDED);
        logLine() << "exitLink"
                  << " stream stoped";
    }
    if (controllerRunning) {
        controllerRunning = false;
        controller_join(&controller);
        controller_destroy(&controller);
        logLine() << "exitLink"
                  << " controller stoped";
    }
    // Nothing reads the connections any more: they can be closed.
    phone_server_close(&server);
    closeRetiredVideoSocket();
    if (videoBufferReady) {
        videoBufferReady = false;
        video_buffer_destroy(&videoBuffers);
        logLine() << "exitLink"
                  << " video buffer stoped";
    }
    screen_close(&screen);
    if (!wifiMode)
        shell_command_run_configured(ENV_ADB_KILL_COMMAND, platform_default_settings().adb_kill_command);
    logLine() << "exitLink"
              << " screen stoped";
    // Every worker of this link has been joined: what it posted and is still queued is stale now.
    app_end_link();
#ifdef __GLIBC__
    // The decoder's and the threads' memory was freed with the link; hand it back to the system so
    // that hundreds of links do not leave the daemon holding it.
    malloc_trim(0);
#endif
}

bool OrvaneService::beginStart(int type)
{
    // Kept on purpose (docs/KEPT.md): both links log under the USB start's name.
    logLine() << "OrvaneApp::startLink";
    // Kept on purpose (docs/KEPT.md): during a Wi-Fi grace period this answers 4.
    if (streamRunning) {
        // Already mirroring: only bring back a picture the HMI had hidden.
        screen_set_hidden(&screen, false);
        emit onLinkStatusChange(type, LINK_STATUS_STREAMING);
        return false;
    }
    if (serverStarted) {
        // Set up and waiting (USB: a start under way; Wi-Fi: listening for the phone).
        if (type == LINK_TYPE_USB)
            logLine() << "orvane is starting!";
        else
            puts("mirroring server is started!");
        emit onLinkStatusChange(type, LINK_STATUS_START);
        return false;
    }
    diagnostics_link_started(this, type);
    failureMark = console_line_count();
    screen_init(&screen);
    if (!screen_init_rendering(&screen)) {
        failLink(type, "screen_init_rendering failed!");
        return false;
    }
    return true;
}

void OrvaneService::failLink(int type, const char* line)
{
    // The failing step's own line, and the reason its lower layer printed just before it.
    const std::string reason = console_last_line(failureMark);
    diagnostics_link_failed(reason.empty() ? line : reason + "\n" + line);
    logLine() << line;
    exitLink();
    emit onLinkStatusChange(type, LINK_STATUS_FAILED);
}

void OrvaneService::closeRetiredVideoSocket()
{
    if (retiredVideoSocket != -1)
        sock_close(retiredVideoSocket);
    retiredVideoSocket = -1;
}

void OrvaneService::stopRetryTimer()
{
    if (retryTimerId != 0) {
        killTimer(retryTimerId);
        retryTimerId = 0;
    }
}

bool OrvaneService::eventFilter(QObject* watched, QEvent* event)
{
    if (app_event_is_stale(event)) {
        // Posted by a worker of a link that has been torn down since (a phone that connected just
        // before a stop): it must not touch whatever runs now. Nothing reads what it retired.
        printf("event %d of an ended link ignored\n", static_cast<int>(event->type()));
        retiredVideoSocket = static_cast<const LinkEvent*>(event)->retired;
        closeRetiredVideoSocket();
        return true;
    }
    switch (static_cast<int>(event->type())) {
    case EVENT_UPDATE_FRAME:
        return true;
    case EVENT_STREAM_STOPPED:
        // Kept on purpose (docs/KEPT.md): a replaced connection's late end still starts a grace period.
        puts("Video stream stopped");
        if (!wifiMode) {
            exitLink();
            return true;
        }
        // Give the phone a moment to come back on the same announcement before the link ends.
        connected = false;
        // One grace period at a time, timed to the millisecond rather than Qt's coarse 5 %.
        stopRetryTimer();
        retryTimerId = startTimer(WIFI_RETRY_MS, Qt::PreciseTimer);
        return wifiMode;
    case EVENT_FRAME_SIZE_CHANGED:
        // Runs on the sending thread (stream reader or receiver): it touches only the layer.
        screen_show_window(&screen, false);
        screen.show_delay.store(1, std::memory_order_relaxed);
        logLine() << "recv frame size change event!";
        return true;
    case EVENT_CLIENT_CONNECTED:
        // A connection it replaced is closed once the stream that read it is joined.
        if (const auto* connected = dynamic_cast<const LinkEvent*>(event))
            retiredVideoSocket = connected->retired;
        reconnectStream();
        return true;
    default:
        return QObject::eventFilter(watched, event);
    }
}

void OrvaneService::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != retryTimerId)
        return;
    stopRetryTimer();
    if (wifiMode && !connected) {
        puts("wait client retry connect timeout, exit link!");
        exitLink();
    }
}

void OrvaneService::reconnectStream()
{
    diagnostics_phone_connected(this);
    failureMark = console_line_count();
    stopRetryTimer();
    connected = true;

    char name[128];
    memset(name, 0, sizeof name);
    int size[2] = {1280, 720};

    // The accept thread may replace the connection at any time; take one consistent reading.
    const int sock = phone_server_video_socket(&server);
    if (sock != -1) {
        // A phone that connects and then sends nothing must not hold the main thread for long.
        struct timeval send_timeout = {5, 0};
        int nodelay = 1;
        sock_set_recv_timeout(sock, WIFI_HEADER_TIMEOUT_MS);
        setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
        setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);

        if (!device_read_info(sock, name, size)) {
            failLink(LINK_TYPE_WIFI, "device_read_info failed!");
            return;
        }
        if (memcmp(name, "AFFA", 4) != 0) {
            failLink(LINK_TYPE_WIFI, "device_read_info error!");
            return;
        }
        logLine() << "read device info:" << console_char(name[4]) << size[0] << size[1];
        // The 10 s limit was for the header. A phone on a still screen sends nothing for as long as
        // it likes; a phone that is gone is found by TCP itself.
        sock_set_recv_timeout(sock, 0);
        sock_set_liveness(sock);
    }

    if (videoBufferReady) {
        screen.show_delay.store(1, std::memory_order_relaxed);
    } else if (initVideoBuffer(videoWidth, videoHeight)) {
        setDecoderBuffers();
    } else {
        failLink(LINK_TYPE_WIFI, "initVideoBuffer failed!");
        return;
    }

    if (streamRunning) {
        streamRunning = false;
        stream_stop(&stream);
        stream_join(&stream);
    }
    closeRetiredVideoSocket();
    if (initStream()) {
        emit onLinkStatusChange(LINK_TYPE_WIFI, LINK_STATUS_STREAMING);
        return;
    }
    failLink(LINK_TYPE_WIFI, "init stream failed!");
}
