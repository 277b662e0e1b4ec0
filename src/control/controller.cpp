#include "control/controller.h"

#include <QMutex>
#include <QWaitCondition>
#include <cerrno>
#include <cstdio>
#include <sys/socket.h>
#include <sys/time.h>
#include <cstring>

#include "base/worker.h"
#include "net/sock.h"
#include "video/app_events.h"

bool receiver_init(Receiver* rcv, int control_socket)
{
    rcv->mutex = new QMutex();
    rcv->control_socket = control_socket;
    rcv->thread = nullptr;
    rcv->stopped.store(false, std::memory_order_relaxed);
    return true;
}

bool receiver_start(Receiver* rcv)
{
    // No line end: the console shows it in front of the next line (kept on purpose: docs/KEPT.md).
    printf("Starting receiver thread");
    rcv->stopped.store(false, std::memory_order_relaxed);
    rcv->thread = new ReceiverThread(rcv);
    if (!worker_start(rcv->thread, QThread::InheritPriority, "orvane-receiver")) {
        delete rcv->thread;
        rcv->thread = nullptr;
        return false;
    }
    return true;
}

void receiver_join(Receiver* rcv)
{
    if (rcv->thread == nullptr)
        return;
    rcv->thread->wait();
    rcv->thread->runReturned();
    // Links come and go for the daemon's whole life: the finished thread object is deleted here,
    // right after the wait, so that no thread object outlives its link.
    delete rcv->thread;
    rcv->thread = nullptr;
}

void receiver_destroy(Receiver* rcv)
{
    delete rcv->mutex;
    rcv->mutex = nullptr;
    // A thread that was never joined may still be blocked on the socket; it only reads the
    // receiver record, which lives as long as the service, so it is forgotten, not deleted.
    rcv->thread = nullptr;
}

bool controller_init(Controller* ctrl, int control_socket)
{
    ctrl->queue_write = 0;
    ctrl->queue_read = 0;
    receiver_init(&ctrl->receiver, control_socket);
    ctrl->mutex = new QMutex();
    ctrl->condition = new QWaitCondition();
    ctrl->control_socket = control_socket;
    ctrl->stopped.store(false, std::memory_order_relaxed);
    ctrl->send_stalled = false;
    // Touches are sent on the main thread: a phone that stops reading must not hold it, and with
    // it D-Bus and every stop request, once the connection's buffers are full.
    if (control_socket != -1) {
        const timeval timeout = {0, CONTROLLER_SEND_TIMEOUT_MS * 1000};
        setsockopt(control_socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        setsockopt(control_socket, SOL_SOCKET, SO_SNDBUF, &CONTROLLER_SEND_BUFFER,
                   sizeof CONTROLLER_SEND_BUFFER);
    }
    return true;
}

bool controller_start(Controller* ctrl)
{
    puts("Starting controller thread");
    const bool ok = receiver_start(&ctrl->receiver);
    if (!ok)
        ctrl->stopped.store(true, std::memory_order_relaxed);
    return ok;
}

bool controller_push_msg(Controller* ctrl, const ControlMessage* msg)
{
    if (ctrl->stopped.load(std::memory_order_relaxed))
        return false;
    uint8_t buf[CONTROL_MESSAGE_MAX_SIZE];
    const size_t len = control_message_serialize(msg, buf);
    if (len == 0)
        return false;
    if (ctrl->send_stalled)
        return false;
    // sock_send_all reports its last send's count, so a message that needed several sends is
    // counted as not sent (kept on purpose: docs/KEPT.md).
    const ssize_t sent = sock_send_all(ctrl->control_socket, buf, len);
    if (sent == -1 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        // The connection may now hold half a message; nothing more can be sent on it sensibly.
        puts("Control connection blocked: the phone stopped reading, input dropped");
        ctrl->send_stalled = true;
    }
    return sent == static_cast<ssize_t>(len);
}

void controller_stop(Controller* ctrl)
{
    // The receiver is left alone: it ends when the socket is shut down.
    ctrl->stopped.store(true, std::memory_order_relaxed);
}

void controller_join(Controller* ctrl)
{
    receiver_join(&ctrl->receiver);
}

void controller_destroy(Controller* ctrl)
{
    delete ctrl->condition;
    ctrl->condition = nullptr;
    delete ctrl->mutex;
    ctrl->mutex = nullptr;
    while (ctrl->queue_read != ctrl->queue_write) {
        control_message_destroy(&ctrl->queue[ctrl->queue_read]);
        ctrl->queue_read = (ctrl->queue_read + 1) % CONTROLLER_QUEUE_SLOTS;
    }
    receiver_destroy(&ctrl->receiver);
}

void ReceiverThread::run()
{
    loop();
    runReturned_.store(true, std::memory_order_release);
}

void ReceiverThread::loop()
{
    Receiver* rcv = receiver_;
    uint8_t buffer[RECEIVER_BUFFER_SIZE];
    size_t head = 0;
    // One record for the whole run; before the first parse it reads as an empty clipboard.
    DeviceMessage msg;
    msg.type = DEVICE_CLIPBOARD;
    msg.text = nullptr;

    for (;;) {
        if (rcv->stopped.load(std::memory_order_relaxed))
            return;
        for (;;) {
            size_t size = RECEIVER_BUFFER_SIZE - head;
            if (head >= RECEIVER_BUFFER_SIZE) {
                head = 0;
                size = RECEIVER_BUFFER_SIZE;
            }
            // Every read lands at the start of the buffer: bytes kept from the last pass are
            // overwritten, so a message split across reads is not put back together (kept on
            // purpose: docs/KEPT.md).
            const ssize_t r = sock_recv(rcv->control_socket, buffer, size);
            if (r <= 0) {
                puts("Receiver stopped");
                return;
            }
            const size_t got = static_cast<size_t>(r);
            size_t consumed = 0;
            for (;;) {
                const ssize_t n = device_message_parse(buffer + consumed, got - consumed, &msg);
                // Kept on purpose (docs/KEPT.md): an unknown message ends the receiver, not the link.
                if (n == -1)
                    return;
                // Acted on even when nothing was parsed: the record may still hold the type of
                // an earlier message (kept on purpose: docs/KEPT.md).
                if (msg.type == DEVICE_CLIPBOARD)
                    puts("Device clipboard copied");
                else if (msg.type == DEVICE_NOTIFY)
                    app_send_event(EVENT_FRAME_SIZE_CHANGED);
                if (n == 0)
                    break;
                consumed += static_cast<size_t>(n);
                device_message_destroy(&msg);
                if (consumed == got)
                    break;
            }
            if (consumed > 0) {
                head = got - consumed;
                memmove(buffer, buffer + consumed, head);
                break;
            }
            if (rcv->stopped.load(std::memory_order_relaxed))
                return;
        }
    }
}
