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
// Kept on purpose (docs/KEPT.md): nothing sends it; the filter consumes 2025.
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

// A posted event, marked with the link it belongs to: it may be handled after that link has been
// torn down, and must then act on nothing. A connection the Wi-Fi accept thread replaced travels
// with its EVENT_CLIENT_CONNECTED, to be closed on the main thread once nothing reads it.
class LinkEvent : public QEvent
{
public:
    LinkEvent(int type, uint32_t link, int retired)
        : QEvent(static_cast<QEvent::Type>(type)), link(link), retired(retired)
    {
    }
    const uint32_t link;
    const int retired; // -1 for none
};

// Any thread: posts a LinkEvent of the given type, marked with the current link, to the application
// object, if there is one. Takes Qt's event queue lock, nothing else.
void app_post_event(int type, int retired = -1);
// The current link's number (any thread), and the end of that link (main thread): events posted
// before app_end_link() are stale afterwards.
uint32_t app_current_link();
void app_end_link();
// Whether a posted event belongs to a link that has since been torn down.
bool app_event_is_stale(const QEvent* event);
// Any worker thread: sends a plain event of the given type synchronously to the application object,
// if there is one. The service's filter runs on the calling thread, so it may touch only what is
// safe from there (the layer's visibility), never the link flags.
void app_send_event(int type);
