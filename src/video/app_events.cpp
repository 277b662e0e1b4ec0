#include "video/app_events.h"

#include <atomic>

#include <QCoreApplication>
#include <cstdlib>

QUpdateFrameEvent::QUpdateFrameEvent(uint8_t* data, uint32_t size)
    : QEvent(static_cast<QEvent::Type>(EVENT_UPDATE_FRAME)), data_(data), size_(size)
{
}

QUpdateFrameEvent::~QUpdateFrameEvent()
{
    if (data_) {
        std::free(data_);
        data_ = nullptr;
        size_ = 0;
    }
}

namespace {
std::atomic<uint32_t> g_link_number{1};
}

uint32_t app_current_link()
{
    return g_link_number.load(std::memory_order_relaxed);
}

void app_end_link()
{
    g_link_number.fetch_add(1, std::memory_order_relaxed);
}

bool app_event_is_stale(const QEvent* event)
{
    const LinkEvent* link_event = dynamic_cast<const LinkEvent*>(event);
    return link_event != nullptr && link_event->link != app_current_link();
}

void app_post_event(int type, int retired)
{
    // The event loop takes ownership of a posted event and deletes it after delivery.
    if (QCoreApplication::instance())
        QCoreApplication::postEvent(QCoreApplication::instance(),
                                    new LinkEvent(type, app_current_link(), retired));
}

void app_send_event(int type)
{
    // Delivered synchronously, so the service's filter runs on the calling worker thread; a stack
    // event is enough because nobody keeps it after sendEvent returns.
    QCoreApplication* app = QCoreApplication::instance();
    if (!app)
        return;
    QEvent event(static_cast<QEvent::Type>(type));
    QCoreApplication::sendEvent(app, &event);
}
