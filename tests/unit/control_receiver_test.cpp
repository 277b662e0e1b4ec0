// The controller and its receiver thread over real socket pairs, with a real application object
// whose event filter sees the frame-size events the receiver sends.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "control/controller.h"
#include "video/app_events.h"

using namespace std::string_literals;

namespace {

// Counts frame-size events reaching the application object and remembers the delivering thread.
struct FrameSizeCounter : QObject {
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == EVENT_FRAME_SIZE_CHANGED) {
            count++;
            thread = QThread::currentThread();
        }
        return QObject::eventFilter(watched, event);
    }
    std::atomic<int> count{0};
    std::atomic<QThread*> thread{nullptr};
};

// A control connection: the daemon's controller on fds[0], the phone on fds[1]. Datagram-like, so
// that each send is one read for the receiver.
struct Link {
    int fds[2] = {-1, -1};
    Controller ctrl{};
    Link()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        EXPECT_TRUE(controller_init(&ctrl, fds[0]));
    }
    ~Link()
    {
        controller_destroy(&ctrl);
        close(fds[0]);
        close(fds[1]);
    }
};

const std::string kCopied = "Device clipboard copied\n", kStopped = "Receiver stopped\n";
const std::string kStarted = "Starting controller thread\nStarting receiver thread";

} // namespace

TEST(ControlReceiver, ReadsAreParsedFromTheirOwnStartAndEndWithThePeer)
{
    // Each string is one read (octal escapes).
    const struct {
        std::vector<std::string> reads;
        std::string out;
        int events;
    } cases[] = {
        {{"\0\0\5hello"s}, kCopied + kStopped, 0},
        {{"\0\0\1a\0\0\2bc"s}, kCopied + kCopied + kStopped, 0},
        // A split clipboard is reported on its first read; the next read is a message of its own.
        {{"\0\0\6abc"s, "\0\0\0"s}, kCopied + kCopied + kStopped, 0},
        {{"\0\0\10he"s, "llo!"s, "\0\0\0"s}, kCopied + "Unknown device message type: 108\n", 0},
        {{"\0\0\1a\0\0\4x"s, "\1\0\0"s}, kCopied + kCopied + kStopped, 1},
        // A notify ends the parse of its read: the clipboard behind it is never seen.
        {{"\1\0\0\0\0\5hello"s}, kStopped, 1},
        // Reads too short to parse act on the record's last type: clipboard before any message.
        {{"\1\1"s}, kCopied + kStopped, 0},
        {{"\1\0\0"s, "\1"s, "\7\11"s}, kStopped, 3},
    };
    int argc = 1;
    char name[] = "control_receiver_test", *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    FrameSizeCounter events;
    app.installEventFilter(&events);
    for (const auto& c : cases) {
        const size_t i = &c - cases;
        events.count = 0;
        Link link;
        testing::internal::CaptureStdout();
        const bool started = controller_start(&link.ctrl);
        QThread* receiver = link.ctrl.receiver.thread;
        for (const std::string& read : c.reads)
            send(link.fds[1], read.data(), read.size(), 0);
        shutdown(link.fds[1], SHUT_RDWR);
        const bool ended = started && receiver->wait(10000);
        controller_join(&link.ctrl);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), kStarted + c.out) << "case " << i;
        ASSERT_TRUE(ended) << "receiver did not end, case " << i;
        EXPECT_EQ(events.count, c.events) << "case " << i;
        EXPECT_TRUE(c.events == 0 || events.thread == receiver)
            << "event off the receiver thread, case " << i;
    }
}

TEST(ControlReceiver, PushSendsWholeMessagesOnlyWhileRunning)
{
    signal(SIGPIPE, SIG_IGN); // as the daemon does
    Link link;
    ControlMessage key, bad;
    key.type = CONTROL_KEYCODE;
    key.keycode = {0, 4, 0};
    bad.type = static_cast<ControlMessageType>(10); // no wire form: not sent
    ASSERT_TRUE(controller_push_msg(&link.ctrl, &key));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(controller_push_msg(&link.ctrl, &bad));
    testing::internal::GetCapturedStdout();
    char got[64];
    ASSERT_EQ(recv(link.fds[1], got, sizeof got, MSG_DONTWAIT), 10);
    EXPECT_EQ(std::string(got, 10), "\0\0\0\0\0\4\0\0\0\0"s);

    controller_stop(&link.ctrl);
    EXPECT_FALSE(controller_push_msg(&link.ctrl, &key));
    EXPECT_EQ(recv(link.fds[1], got, sizeof got, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);

    Link gone; // the phone has closed: the push fails and the process lives on
    close(gone.fds[1]);
    gone.fds[1] = -1;
    EXPECT_FALSE(controller_push_msg(&gone.ctrl, &key));
}

TEST(ControlReceiver, TeardownEndsTheReceiverOfEveryLink)
{
    // The service's order: stop, shut the socket, join. The sanitizer build of this test also
    // sees any thread or text a link leaves behind.
    testing::internal::CaptureStdout();
    for (int i = 0; i < 100; i++) {
        Link link;
        ASSERT_TRUE(controller_start(&link.ctrl));
        ASSERT_EQ(send(link.fds[1], "\0\0\2hi\1\0\0", 8, 0), 8);
        controller_stop(&link.ctrl);
        shutdown(link.fds[0], SHUT_RDWR);
        controller_join(&link.ctrl);
        EXPECT_EQ(link.ctrl.receiver.thread, nullptr);
    }
    const std::string out = testing::internal::GetCapturedStdout();
    int stopped = 0;
    for (size_t at = out.find(kStopped); at != std::string::npos; at = out.find(kStopped, at + 1))
        stopped++;
    EXPECT_EQ(stopped, 100);
}
