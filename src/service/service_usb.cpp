// USB link start-up: display, phone-side server through adb, video and control connections,
// video buffers, device information, stream reader and controller.
#include <cstring>

#include "command.h"
#include "net/sock.h"
#include "server/adb.h"
#include "service/diagnostics.h"
#include "base/console.h"
#include "base/log_line.h"
#include "service/orvane_service.h"
#include "platform/defaults.h"
#include "service/shell_command.h"
#include "video/device_info.h"

namespace {
constexpr int USB_DEVICE_INFO_TIMEOUT_MS = 3000;
}

void OrvaneService::startLink()
{
    if (!beginStart(LINK_TYPE_USB))
        return;

    const char* failure = nullptr;
    char name[128];
    int size[2];

    serverStarted = startServer();
    if (!serverStarted) {
        failure = "startServer failed!";
        goto fail;
    }
    if (!connectToServer()) {
        failure = "connectToServer failed!";
        goto fail;
    }
    if (!initVideoBuffer(videoWidth, videoHeight)) {
        failure = "initVideoBuffer failed!";
        goto fail;
    }

    memset(name, 0, sizeof name);
    size[0] = 1280;
    size[1] = 720;
    if (server.video_socket != -1) {
        // A server that connects and then says nothing must not hold the main thread: the record
        // gets a few seconds, the stream after it as long as the phone likes.
        sock_set_recv_timeout(server.video_socket, USB_DEVICE_INFO_TIMEOUT_MS);
        const bool read = device_read_info(server.video_socket, name, size);
        sock_set_recv_timeout(server.video_socket, 0);
        if (!read) {
            failure = "device_read_info failed!";
            goto fail;
        }
        // The phone's own size is only reported; the buffers keep the configured size.
        logLine() << "read device info:" << console_text(name) << size[0] << size[1];
    }

    setDecoderBuffers();
    if (!initStream()) {
        failure = "init stream failed!";
        goto fail;
    }
    // A link whose touches could never reach the phone is not reported as up.
    if (!startController()) {
        failure = "startController failed!";
        goto fail;
    }
    emit onLinkStatusChange(LINK_TYPE_USB, LINK_STATUS_STREAMING);
    return;

fail:
    failLink(LINK_TYPE_USB, failure);
}

bool OrvaneService::startServer()
{
    phone_server_init(&server);
    shell_command_run_configured(ENV_ADB_DEVICES_COMMAND, platform_default_settings().adb_devices_command);
    ServerParams params;
    params.option_arg = serverParams.optionArg;
    params.local_port = serverParams.localPort;
    params.size_arg = serverParams.sizeArg;
    params.bit_rate = serverParams.bitRate;
    params.option_flag = serverParams.optionFlag;
    return phone_server_start(&server, serverParams.serial, &params);
}

bool OrvaneService::connectToServer()
{
    connected = phone_server_connect(&server);
    return connected;
}

bool OrvaneService::initVideoBuffer(int width, int height)
{
    videoBuffers.screen = &screen;
    // The record is set up (and must be destroyed) even when its area could not be had; a link
    // without the area could never show a picture, so that is this step's failure.
    videoBufferReady = video_buffer_init(&videoBuffers, serverParams.videoBufferSync, width, height);
    return videoBufferReady && videoBuffers.mapped_address != VIDEO_BUFFER_UNMAPPED;
}

void OrvaneService::setDecoderBuffers()
{
    decoder.video_buffer = &videoBuffers;
}

bool OrvaneService::initStream()
{
    // On a Wi-Fi link the accept thread may write the video socket; read it once.
    const int video = phone_server_video_socket(&server);
    if (video != -1)
        stream_init(&stream, video, STREAM_SOCKET_TCP, &decoder, wifiMode);
    else if (server.udp_socket != -1)
        stream_init(&stream, server.udp_socket, STREAM_SOCKET_UDP, &decoder, false);
    else
        return false;
    streamRunning = stream_start(&stream);
    return streamRunning;
}

bool OrvaneService::startController()
{
    controllerRunning = controller_init(&controller, server.control_socket);
    if (!controllerRunning)
        return false;
    if (!controller_start(&controller)) {
        controllerRunning = false;
        controller_destroy(&controller);
    }
    return controllerRunning;
}

bool OrvaneService::setShowTouches(bool on)
{
    const char* args[] = {"shell", "settings", "put", "system", "show_touches", on ? "1" : "0"};
    return command_check_exit(adb_run(server.serial, args, 6), "show_touches");
}
