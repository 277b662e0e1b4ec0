// Wi-Fi link start-up: listen for the phone's app, announce the service by DNS-SD, and wait.
#include <QString>
#include <cstdio>

#include "base/worker.h"
#include "service/diagnostics.h"
#include "base/log_line.h"
#include "service/orvane_service.h"

void OrvaneService::startWifiLink()
{
    if (!beginStart(LINK_TYPE_WIFI))
        return;
    serverStarted = startServerForWifi();
    if (!serverStarted) {
        failLink(LINK_TYPE_WIFI, "startServerForWifi failed!");
        return;
    }
    if (dnssdRef != nullptr) {
        emit onLinkStatusChange(LINK_TYPE_WIFI, LINK_STATUS_START);
        return;
    }

    // Without an identity nothing is announced; the listener stays up for a phone that knows us
    // (kept on purpose: docs/KEPT.md).
    const std::string mac = find_mac(true);
    if (mac.empty()) {
        const char* line = "No Wi-Fi interface address: nothing announced, the listener stays up";
        logLine() << line;
        diagnostics_link_failed(line);
        emit onLinkStatusChange(LINK_TYPE_WIFI, LINK_STATUS_FAILED);
        return;
    }
    int error = 0;
    dnssdRef = dnssd_create("Mirroring", 9, mac.c_str(), static_cast<uint32_t>(mac.size()), &error);
    if (error != 0) {
        failLink(LINK_TYPE_WIFI, "Could not initialize dnssd library!");
        return;
    }
    const QByteArray width = QString::number(screen.screen_width, 10).toLocal8Bit();
    const QByteArray height = QString::number(screen.screen_height, 10).toLocal8Bit();
    {
        // The DNS-SD library answers its daemon on a thread of its own: a worker, like ours.
        WorkerSignalMask mask;
        dnssd_register_mirroring(dnssdRef, PHONE_SERVER_PORT, width.constData(), height.constData(), "30");
    }
    puts("register qvo mirroring dnssd!");
    emit onLinkStatusChange(LINK_TYPE_WIFI, LINK_STATUS_START);
}

bool OrvaneService::startServerForWifi()
{
    phone_server_init(&server);
    return phone_server_start_wifi(&server);
}
