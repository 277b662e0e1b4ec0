// The link's live figures for integrators: a read-only object beside the HMI's on the same
// service name, with every figure as a property and all of them at once from GetStatistics. It
// only reads: the frame path counts on the stream thread (stream_stats), the service's flags give
// the state, and the hooks below mark a link's start, phone connections and end.
#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>
#include <atomic>
#include <string>

#include "video/stream_stats.h"

class OrvaneService;

constexpr const char* DIAGNOSTICS_PATH = "/com/quorva/mirror/diagnostics";

class Diagnostics : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.quorva.mirror.Diagnostics1")
    // The current or last link.
    Q_PROPERTY(int link_type READ linkType)
    Q_PROPERTY(QString state READ state)
    Q_PROPERTY(QString phone_name READ phoneName)
    Q_PROPERTY(QString picture_size READ pictureSize)
    Q_PROPERTY(QString layer READ layer)
    Q_PROPERTY(qulonglong frames_received READ framesReceived)
    Q_PROPERTY(qulonglong frames_decoded READ framesDecoded)
    Q_PROPERTY(qulonglong pictures_shown READ picturesShown)
    Q_PROPERTY(qulonglong frames_not_shown READ framesNotShown)
    Q_PROPERTY(qulonglong decode_errors READ decodeErrors)
    Q_PROPERTY(qulonglong bytes_received READ bytesReceived)
    Q_PROPERTY(uint bitrate_kbps READ bitrateKbps)
    Q_PROPERTY(double decode_ms_p50 READ decodeMsP50)
    Q_PROPERTY(double decode_ms_p99 READ decodeMsP99)
    Q_PROPERTY(qlonglong last_frame_age_ms READ lastFrameAgeMs)
    Q_PROPERTY(uint reconnects READ reconnects)
    Q_PROPERTY(double link_seconds READ linkSeconds)
    // The process.
    Q_PROPERTY(uint links_started READ linksStarted)
    Q_PROPERTY(uint links_failed READ linksFailed)
    Q_PROPERTY(QString last_failure READ lastFailure)
    Q_PROPERTY(qulonglong uptime_seconds READ uptimeSeconds)
    Q_PROPERTY(qulonglong rss_kb READ rssKb)

public:
    // Counts the service's failed starts and exports itself on the session bus.
    explicit Diagnostics(const OrvaneService* service);

    int linkType() const;
    QString state() const;
    QString phoneName() const;
    QString pictureSize() const;
    QString layer() const;
    qulonglong framesReceived() const;
    qulonglong framesDecoded() const;
    qulonglong picturesShown() const;
    qulonglong framesNotShown() const;
    qulonglong decodeErrors() const;
    qulonglong bytesReceived() const;
    uint bitrateKbps() const;
    double decodeMsP50() const;
    double decodeMsP99() const;
    qlonglong lastFrameAgeMs() const; // -1 before the link's first frame
    uint reconnects() const;
    double linkSeconds() const;
    uint linksStarted() const;
    uint linksFailed() const;
    QString lastFailure() const; // why the last failed start failed, "" when none has
    qulonglong uptimeSeconds() const;
    qulonglong rssKb() const;

public slots:
    // Every property above, by its name.
    QVariantMap GetStatistics() const;

private:
    // One of the frame path's figures, as the stream thread last wrote it.
    template <typename T> qlonglong counter(const std::atomic<T> stream_stats::*field) const;
    double decodeMs(bool p99) const;

    const OrvaneService* service_;
};

// Hooks of the service (main thread). A link of `type` begins: its figures start from zero.
void diagnostics_link_started(OrvaneService* service, int type);
// A phone's video connection is being adopted; on a link that already streamed, a reconnect.
void diagnostics_phone_connected(const OrvaneService* service);
// The link is torn down: its duration stops.
void diagnostics_link_ended();
// A start failed: its failing step's console line, with the reason line before it.
void diagnostics_link_failed(const std::string& why);
