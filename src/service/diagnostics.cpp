#include "service/diagnostics.h"
#include "base/clock.h"

#include <QDBusConnection>
#include <QMetaProperty>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "base/console.h"
#include "base/log_line.h"
#include "service/orvane_service.h"
#include "video/device_info.h"
#include "video/stream_stats.h"

namespace {

const auto g_process_start = std::chrono::steady_clock::now();

// What the stream's own record does not know about the link; main thread only.
struct LinkRecord {
    int type = 0;
    uint64_t started_ms = 0;
    uint64_t ended_ms = 0; // 0 while the link lasts
    unsigned reconnects = 0;
    uint64_t name_reads = 0; // device records read before the link began
    unsigned links_started = 0;
    unsigned links_failed = 0;
    std::string last_failure;
};
LinkRecord g_link;

uint64_t now_ms()
{
    return static_cast<uint64_t>(monotonic_ms());
}

} // namespace

void diagnostics_link_started(OrvaneService* service, int type)
{
    // No stream thread runs at a link's start, so the reset has no concurrent writer.
    stream_stats_reset(&service->stream.stats);
    g_link.type = type;
    g_link.started_ms = now_ms();
    g_link.ended_ms = 0;
    g_link.reconnects = 0;
    g_link.name_reads = device_info_last_name(nullptr, 0);
    ++g_link.links_started;
}

void diagnostics_phone_connected(const OrvaneService* service)
{
    if (service->streamRunning)
        ++g_link.reconnects;
}

void diagnostics_link_failed(const std::string& why)
{
    g_link.last_failure = why;
}

void diagnostics_link_ended()
{
    if (g_link.started_ms != 0 && g_link.ended_ms == 0)
        g_link.ended_ms = now_ms();
}

template <typename T> qlonglong Diagnostics::counter(const std::atomic<T> stream_stats::*field) const
{
    return static_cast<qlonglong>((service_->stream.stats.*field).load(std::memory_order_relaxed));
}

Diagnostics::Diagnostics(const OrvaneService* service) : QObject(nullptr), service_(service)
{
    connect(service, &OrvaneService::onLinkStatusChange, this, [](int, int status) {
        if (status == LINK_STATUS_FAILED)
            ++g_link.links_failed;
    });
    QDBusConnection::sessionBus().registerObject(
        DIAGNOSTICS_PATH, this, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties);
}

QVariantMap Diagnostics::GetStatistics() const
{
    QVariantMap figures;
    const QMetaObject* meta = metaObject();
    for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i)
        figures.insert(QString::fromLatin1(meta->property(i).name()), meta->property(i).read(this));
    return figures;
}

int Diagnostics::linkType() const
{
    return g_link.type;
}

QString Diagnostics::state() const
{
    const OrvaneService& s = *service_;
    if (s.streamRunning && s.connected)
        return "streaming";
    if (s.wifiMode && s.retryTimerId != 0)
        return "grace"; // the phone dropped; its link waits for it to come back
    if (s.wifiMode && s.serverStarted)
        return "waiting"; // listening and announced, no phone yet
    if (s.serverStarted || s.connected || s.streamRunning)
        return "starting";
    return "idle";
}

QString Diagnostics::phoneName() const
{
    char name[DEVICE_NAME_FIELD];
    if (device_info_last_name(name, sizeof name) == g_link.name_reads)
        return QString(); // no phone has introduced itself on this link
    // A Wi-Fi phone's record opens with its magic word.
    const bool magic = g_link.type == LINK_TYPE_WIFI && std::strncmp(name, "AFFA", 4) == 0;
    // The phone's bytes end up on an integrator's terminal: printable ASCII only, as on the console.
    return QString::fromStdString(console_text(magic ? name + 4 : name));
}

QString Diagnostics::pictureSize() const
{
    return QString("%1x%2")
        .arg(counter(&stream_stats::picture_width))
        .arg(counter(&stream_stats::picture_height));
}

QString Diagnostics::layer() const
{
    return QString("%1,%2,%3,%4")
        .arg(counter(&stream_stats::layer_x))
        .arg(counter(&stream_stats::layer_y))
        .arg(counter(&stream_stats::layer_width))
        .arg(counter(&stream_stats::layer_height));
}

qulonglong Diagnostics::framesReceived() const
{
    return counter(&stream_stats::frames_received);
}

qulonglong Diagnostics::framesDecoded() const
{
    return counter(&stream_stats::frames_decoded);
}

qulonglong Diagnostics::picturesShown() const
{
    return counter(&stream_stats::pictures_shown);
}

qulonglong Diagnostics::framesNotShown() const
{
    return counter(&stream_stats::frames_not_shown);
}

qulonglong Diagnostics::decodeErrors() const
{
    return counter(&stream_stats::decode_errors);
}

qulonglong Diagnostics::bytesReceived() const
{
    return counter(&stream_stats::bytes_received);
}

uint Diagnostics::bitrateKbps() const
{
    return stream_stats_bitrate_kbps(&service_->stream.stats, now_ms());
}

double Diagnostics::decodeMsP50() const
{
    return decodeMs(false);
}

double Diagnostics::decodeMsP99() const
{
    return decodeMs(true);
}

double Diagnostics::decodeMs(bool p99) const
{
    double percentiles[2] = {0, 0};
    stream_stats_decode_ms(&service_->stream.stats, &percentiles[0], &percentiles[1]);
    return percentiles[p99 ? 1 : 0];
}

qlonglong Diagnostics::lastFrameAgeMs() const
{
    const uint64_t last = service_->stream.stats.last_frame_ms.load(std::memory_order_relaxed);
    return last == 0 ? -1 : static_cast<qlonglong>(now_ms() - last);
}

uint Diagnostics::reconnects() const
{
    return g_link.reconnects;
}

double Diagnostics::linkSeconds() const
{
    if (g_link.started_ms == 0)
        return 0;
    return ((g_link.ended_ms != 0 ? g_link.ended_ms : now_ms()) - g_link.started_ms) / 1000.0;
}

uint Diagnostics::linksStarted() const
{
    return g_link.links_started;
}

QString Diagnostics::lastFailure() const
{
    return QString::fromStdString(g_link.last_failure);
}

uint Diagnostics::linksFailed() const
{
    return g_link.links_failed;
}

qulonglong Diagnostics::uptimeSeconds() const
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() -
                                                            g_process_start)
        .count();
}

qulonglong Diagnostics::rssKb() const
{
    unsigned long size = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "re");
    if (f == nullptr)
        return 0;
    const int read = std::fscanf(f, "%lu %lu", &size, &resident);
    std::fclose(f);
    return read == 2 ? resident * static_cast<qulonglong>(sysconf(_SC_PAGESIZE)) / 1024 : 0;
}
