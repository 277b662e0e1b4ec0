// Events that worker threads deliver to the application object; the service sees them through
// its event filter. The numbers form one fixed range.
#pragma once

#include <QEvent>
#include <cstdint>

constexpr int EVENT_UPDATE_FRAME = 2025;       // QUpdateFrameEvent: defined, never sent
constexpr int EVENT_STREAM_STOPPED = 2026;     // posted by the stream reader
constexpr int EVENT_FRAME_SIZE_CHANGED = 2027; // sent synchronously (stream reader, receiver)
constexpr int EVENT_CLIENT_CONNECTED = 2028;   // posted by the Wi-Fi accept thread

// Carrier of an owned malloc'd byte buffer.
class QUpdateFrameEvent : public QEvent
{
public:
    QUpdateFrameEvent(uint8_t* data, uint32_t size);
    ~QUpdateFrameEvent() override;
    QUpdateFrameEvent(const QUpdateFrameEvent&) = delete;
    QUpdateFrameEvent& operator=(const QUpdateFrameEvent&) = delete;

    uint8_t* data() const { return data_; }
    uint32_t size() const { return size_; }

private:
    uint8_t* data_;
    uint32_t size_;
};

// Posts a plain event of the given type to the application object, if there is one.
void app_post_event(int type);
// Sends a plain event of the given type synchronously to the application object, if there is one.
void app_send_event(int type);
