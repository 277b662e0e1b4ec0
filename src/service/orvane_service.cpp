#include "service/orvane_service.h"

#include <QDBusConnection>
#include <QDBusError>
#include <cstdlib>
#include <cstring>

#include "base/log_line.h"

OrvaneService::OrvaneService()
    : QObject(nullptr), connected(false), serverStarted(false), videoBufferReady(false), streamRunning(false),
      controllerRunning(false), wifiMode(false), serverParams(), server(), videoBuffers(), stream(),
      decoder(), controller(), mirrorSizeText(nullptr), videoWidth(0), videoHeight(0), dnssdRef(nullptr),
      retryTimerId(0)
{
    phone_server_init(&server);
    screen_init(&screen);
    videoBuffers.memalloc_fd = -1;
    videoBuffers.mapped_address = VIDEO_BUFFER_UNMAPPED;
    stream.socket = -1;
    controller.control_socket = -1;
    controller.receiver.control_socket = -1;
}

// The service outlives every link, so it does not tear one down here; an end signal has done that.
OrvaneService::~OrvaneService()
{
    free(mirrorSizeText);
}

int OrvaneService::init()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    bool ok = bus.registerService("com.quorva.mirror");
    if (ok)
        ok = bus.registerObject("/com/quorva/mirror", this,
                                QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals);
    if (ok)
        ok = bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                         "Disconnected", this, SLOT(sessionBusLost()));
    logLine() << "OrvaneApp init dbus:" << ok;
    if (!ok) {
        // Qt 5 answers a taken name with false but no error of its own; say what happened.
        QString message = bus.lastError().message();
        if (message.isEmpty())
            message =
                QString("Name \"%1\" could not be registered on the session bus: it is already owned or "
                        "the bus is not reachable")
                    .arg("com.quorva.mirror");
        // Its own scope, so the line is out before the process ends.
        {
            LogLine line;
            line << message;
        }
        exit(1);
    }

    videoWidth = 1280;
    videoHeight = 720;
    static QString sizeText;
    sizeText = QString("%1:%2").arg(videoWidth).arg(videoHeight);
    const QByteArray local = sizeText.toLocal8Bit();
    mirrorSizeText = static_cast<char*>(calloc(local.size() + 1, 1));
    if (mirrorSizeText != nullptr)
        memcpy(mirrorSizeText, local.constData(), local.size());

    serverParams = LinkParams();
    serverParams.serial = nullptr;
    serverParams.optionArg = nullptr;
    serverParams.unusedText = "";
    serverParams.localPort = PHONE_SERVER_PORT;
    serverParams.sizeArg = mirrorSizeText;
    serverParams.bitRate = 8000000;
    serverParams.flag1 = false;
    serverParams.flag2 = true;
    serverParams.flag3 = false;
    serverParams.optionFlag = true;
    serverParams.flag5 = true;
    serverParams.flag6 = true;
    serverParams.videoBufferSync = false;
    connected = false;
    videoBufferReady = false;
    streamRunning = false;
    controllerRunning = false;

    screen_init(&screen);
    return 0;
}

void OrvaneService::requestLinkStatus(int type, int status)
{
    if (type != LINK_TYPE_USB && type != LINK_TYPE_WIFI)
        return;
    logLine() << "OrvaneApp::requestLinkStatus" << type << status;

    switch (status) {
    case LINK_STATUS_START:
        // Kept on purpose (docs/KEPT.md): only a start of the other link tears the running one down.
        if (type == LINK_TYPE_USB) {
            if (wifiMode && serverStarted) {
                exitLink();
                wifiMode = false;
            } else {
                wifiMode = false;
            }
            startLink();
        } else {
            if (!wifiMode && serverStarted)
                exitLink();
            wifiMode = true;
            startWifiLink();
        }
        break;
    case LINK_STATUS_HIDE:
        if (streamRunning)
            screen_set_hidden(&screen, true);
        emit onLinkStatusChange(type, LINK_STATUS_HIDE);
        break;
    case LINK_STATUS_STOP:
    case LINK_STATUS_STOP_ALT:
        exitLink();
        break;
    default:
        break;
    }
}
