// Link operations whose lower layers are not in yet. They do nothing and report nothing: a start
// request gets no status, so the HMI never sees a link that did not happen.
#include "service/orvane_service.h"
#include "service/log_line.h"

void OrvaneService::startLink() { logLine() << "OrvaneApp::startLink"; }
void OrvaneService::startWifiLink() { logLine() << "OrvaneApp::startLink"; }
void OrvaneService::exitLink() { logLine() << "exit Mirror link!" << connected << serverStarted; }
void OrvaneService::reconnectStream() {}
bool OrvaneService::startServer() { return false; }
bool OrvaneService::connectToServer() { return false; }
bool OrvaneService::initVideoBuffer(int, int) { return false; }
void OrvaneService::setDecoderBuffers() { decoder.video_buffer = &videoBuffers; }
bool OrvaneService::initStream() { return false; }
bool OrvaneService::startController() { return false; }
bool OrvaneService::setShowTouches(bool) { return false; }
bool OrvaneService::startServerForWifi() { return false; }
bool OrvaneService::eventFilter(QObject* watched, QEvent* event) { return QObject::eventFilter(watched, event); }
void OrvaneService::timerEvent(QTimerEvent*) {}
void OrvaneService::requestTouchStatus(int, int, QString) {}
void OrvaneService::requestTouchAction(uint, uint, uint) {}
void OrvaneService::requestKeyValue(int type) { logLine() << "requestKeyValue" << type; }
