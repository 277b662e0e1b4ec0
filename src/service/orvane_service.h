// The daemon's one service object: owns every record of a phone link, holds the link flags, and is
// the HMI's only way in (D-Bus slots) and out (onLinkStatusChange).
#pragma once

#include <QObject>
#include <QString>

#include "control/controller.h"
#include "dnssd.h"
#include "server/phone_server.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/stream.h"
#include "video/video_buffer.h"

class QTimerEvent;

constexpr int LINK_TYPE_USB = 2;
constexpr int LINK_TYPE_WIFI = 243;

enum LinkStatus {
    LINK_STATUS_START = 3, // HMI: start; service: setting up, waiting for the phone
    LINK_STATUS_STREAMING = 4,
    LINK_STATUS_FAILED = 5,
    LINK_STATUS_HIDE = 6, // HMI: hide; service: echoed after hiding
    LINK_STATUS_STOP = 7,
    LINK_STATUS_ENDED = 8,
    LINK_STATUS_STOP_ALT = 24,
};

// What the phone-side server is started with (fixed in init()).
struct LinkParams {
    const char* serial;
    const char* optionArg;
    int32_t unused1[2];
    const char* unusedText;
    int32_t unused2[2];
    uint16_t localPort;
    const char* sizeArg;
    uint32_t bitRate;
    bool flag1;
    bool flag2;
    bool flag3;
    bool optionFlag;
    bool flag5;
    bool flag6;
    bool videoBufferSync;
};

class OrvaneService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "Local.DbusServer.QVOMirror")

public:
    OrvaneService();
    ~OrvaneService() override;

    // Main thread, once, before the event loop.
    int init();

    // Main thread for posted events (2026, 2028); the sending worker's thread for 2027.
    bool eventFilter(QObject* watched, QEvent* event) override;

    // Link start-up and teardown (main thread only).
    void startLink();
    void startWifiLink();
    void exitLink();
    void reconnectStream();

    bool startServer();
    bool connectToServer();
    bool initVideoBuffer(int width, int height);
    void setDecoderBuffers();
    bool initStream();
    bool startController();
    bool setShowTouches(bool on);
    bool startServerForWifi();
    void stopRetryTimer();
    // Closes the Wi-Fi connection the accept thread replaced, once no stream reads it (main thread).
    void closeRetiredVideoSocket();
    // What both links' starts share (main thread): the answer to a start while the link is up or
    // being set up, then the link's figures from zero and the display. False when the start is over
    // (answered, or failed and reported).
    bool beginStart(int type);
    // A start step failed: its line (with the reason printed before it) for the diagnostics and
    // the console, the teardown, then (type, 5) for the HMI (main thread).
    void failLink(int type, const char* line);

    // The display's own touches and keys (a PC's window) reach the phone like the HMI's; main thread.
    void watchDisplayInput();
    // Tears the link down and leaves the event loop with `status` (end signals, the window closed,
    // the session bus gone); main thread.
    void endDaemon(const char* why, int status = 0);

    // Link state, public so that tests and the input path can read it. The main thread is the only
    // writer of the flags and reads them without a lock; EVENT_FRAME_SIZE_CHANGED, whose filter runs
    // on a worker, touches only the screen's visibility. The records below are the link's: their
    // headers say which parts a worker thread uses while it runs.
    bool connected;
    bool serverStarted;
    bool videoBufferReady;
    bool streamRunning;
    bool controllerRunning;
    bool wifiMode;
    LinkParams serverParams;
    PhoneServer server;
    struct screen screen;
    video_buffer videoBuffers;
    struct stream stream;
    struct decoder decoder;
    Controller controller;
    char* mirrorSizeText;
    int32_t videoWidth;
    int32_t videoHeight;
    dnssd* dnssdRef;
    int retryTimerId;
    unsigned long failureMark = 0; // the main thread's console lines before the current start
    int retiredVideoSocket = -1;   // a Wi-Fi connection the accept thread replaced, to be closed

signals:
    void onLinkStatusChange(int type, int status);

public slots:
    void requestLinkStatus(int type, int status);
    void requestTouchStatus(int deviceType, int touchType, QString touchPoint);
    void requestTouchAction(uint touchType, uint x, uint y);
    void requestKeyValue(int type);

protected:
    void timerEvent(QTimerEvent* event) override;

private slots:
    // Not on D-Bus (private): the session bus went away, and with it every HMI.
    void sessionBusLost();
};
