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

bool controller_init(Controller* ctrl, int control_socket);
bool controller_start(Controller* ctrl);
bool controller_push_msg(Controller* ctrl, const ControlMessage* msg);
void controller_stop(Controller* ctrl);
void controller_join(Controller* ctrl);
void controller_destroy(Controller* ctrl);

bool receiver_init(Receiver* rcv, int control_socket);
bool receiver_start(Receiver* rcv);
void receiver_join(Receiver* rcv);
void receiver_destroy(Receiver* rcv);
