// The control connection: the controller sends control messages on the caller's thread; its
// receiver thread reads the phone's device messages.
#pragma once

#include <QThread>
#include <atomic>

#include "control/control_message.h"

class QMutex;
class QWaitCondition;
class ReceiverThread;

constexpr unsigned CONTROLLER_QUEUE_SLOTS = 65;
constexpr size_t RECEIVER_BUFFER_SIZE = 4096;

struct Receiver {
    int control_socket; // not owned
    ReceiverThread* thread;
    QMutex* mutex;
    std::atomic<bool> stopped;
};

// Reads the phone's device messages until the socket ends; sends EVENT_FRAME_SIZE_CHANGED for a
// notify (the service's filter then runs here, on this thread).
class ReceiverThread : public QThread
{
public:
    explicit ReceiverThread(Receiver* receiver) : receiver_(receiver) {}
    ~ReceiverThread() override = default;

    // True once run() has returned. Read with acquire after wait(): QThread::wait synchronises
    // through Qt's own futex, which ThreadSanitizer cannot see, so this makes the hand-over of
    // everything run() touched explicit before the object is deleted.
    bool runReturned() const { return runReturned_.load(std::memory_order_acquire); }

protected:
    void run() override;

private:
    void loop();

    Receiver* receiver_;
    std::atomic<bool> runReturned_{false};
};

struct Controller {
    int control_socket; // not owned
    QMutex* mutex;
    QWaitCondition* condition;
    std::atomic<bool> stopped;
    bool send_stalled; // the phone stopped reading: input is dropped until the next link
    ControlMessage queue[CONTROLLER_QUEUE_SLOTS];
    unsigned queue_write;
    unsigned queue_read;
    Receiver receiver;
};

// A send waits at most this long for room in the connection (twice, for a message split in two).
constexpr int CONTROLLER_SEND_TIMEOUT_MS = 500;
// Room for input the phone has not read yet: thousands of touches, and a bound on what a phone that
// stopped reading can make the head unit hold.
constexpr int CONTROLLER_SEND_BUFFER = 64 * 1024;

// All of these run on the main thread. The control socket is used by two threads at once, which
// it takes without a lock: the main thread sends, the receiver thread reads.
bool controller_init(Controller* ctrl, int control_socket);
// Starts the receiver thread; false (with a line) when the system refuses it.
bool controller_start(Controller* ctrl);
// Sends at once on the calling thread; blocks up to CONTROLLER_SEND_TIMEOUT_MS a send while the
// phone does not read.
bool controller_push_msg(Controller* ctrl, const ControlMessage* msg);
// Refuses later sends; does not wake the receiver (shutting the socket down does that).
void controller_stop(Controller* ctrl);
// Waits for the receiver without a limit; call it only once the socket is shut down.
void controller_join(Controller* ctrl);
void controller_destroy(Controller* ctrl);

bool receiver_init(Receiver* rcv, int control_socket);
bool receiver_start(Receiver* rcv);
void receiver_join(Receiver* rcv);
void receiver_destroy(Receiver* rcv);
