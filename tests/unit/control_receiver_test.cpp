// The controller and its receiver thread over real socket pairs, with a real application object
// whose event filter sees the frame-size events the receiver sends.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "control/controller.h"
#include "video/app_events.h"

namespace {

class StdoutCapture
{
public:
    StdoutCapture()
    {
        fflush(stdout);
        file_ = tmpfile();
        saved_ = dup(STDOUT_FILENO);
        dup2(fileno(file_), STDOUT_FILENO);
    }
    ~StdoutCapture() { finish(); }

    std::string finish()
    {
        if (file_ == nullptr)
            return text_;
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        rewind(file_);
        char chunk[4096];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, file_)) > 0)
            text_.append(chunk, n);
        fclose(file_);
        file_ = nullptr;
        return text_;
    }

private:
    FILE* file_;
    int saved_;
    std::string text_;
};

// Counts frame-size events reaching the application object and remembers the delivering thread.
class FrameSizeCounter : public QObject
{
public:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == EVENT_FRAME_SIZE_CHANGED) {
            count.fetch_add(1);
            thread.store(QThread::currentThread());
            spontaneous.store(event->spontaneous());
        }
        return QObject::eventFilter(watched, event);
    }

    std::atomic<int> count{0};
    std::atomic<QThread*> thread{nullptr};
    std::atomic<bool> spontaneous{false};
};

int count_of(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

class ControlReceiver : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        signal(SIGPIPE, SIG_IGN);
        static int argc = 1;
        static char name[] = "control_receiver_test";
        static char* argv[] = {name, nullptr};
        app_ = new QCoreApplication(argc, argv);
    }
    static void TearDownTestSuite()
    {
        delete app_;
        app_ = nullptr;
    }

    void SetUp() override
    {
        app_->installEventFilter(&counter_);
        // Datagram-like pairs keep each send one read for the receiver, so read boundaries
        // are what the test says they are.
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds_), 0);
        ctrl_ = std::make_unique<Controller>();
        ASSERT_TRUE(controller_init(ctrl_.get(), fds_[0]));
    }

    void TearDown() override
    {
        app_->removeEventFilter(&counter_);
        controller_destroy(ctrl_.get());
        if (fds_[0] >= 0)
            close(fds_[0]);
        if (fds_[1] >= 0)
            close(fds_[1]);
    }

    void send_read(const std::vector<uint8_t>& bytes)
    {
        ASSERT_EQ(send(fds_[1], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    // Starts the receiver, feeds it the given reads, closes the phone's end and waits for the end.
    std::string run_reads(const std::vector<std::vector<uint8_t>>& reads)
    {
        StdoutCapture capture;
        EXPECT_TRUE(controller_start(ctrl_.get()));
        receiverThread_ = ctrl_->receiver.thread;
        for (const auto& bytes : reads)
            send_read(bytes);
        close(fds_[1]);
        fds_[1] = -1;
        EXPECT_TRUE(receiverThread_->wait(10000)) << "receiver did not end";
        controller_join(ctrl_.get());
        return capture.finish();
    }

    static QCoreApplication* app_;
    FrameSizeCounter counter_;
    int fds_[2] = {-1, -1};
    std::unique_ptr<Controller> ctrl_;
    QThread* receiverThread_ = nullptr;
};

QCoreApplication* ControlReceiver::app_ = nullptr;

const std::string kStarted = "Starting controller thread\nStarting receiver thread";

} // namespace

TEST_F(ControlReceiver, ClipboardsInOneReadAreEachReported)
{
    const std::string out = run_reads(
        {{0x00, 0x00, 0x05, 'h', 'e', 'l', 'l', 'o'}, {0x00, 0x00, 0x01, 'a', 0x00, 0x00, 0x02, 'b', 'c'}});
    // The start line has no line end, so the first report follows it on the same line.
    EXPECT_EQ(out, kStarted + "Device clipboard copied\nDevice clipboard copied\nDevice clipboard copied\n"
                              "Receiver stopped\n");
    EXPECT_EQ(counter_.count.load(), 0);
}

TEST_F(ControlReceiver, SplitClipboardIsReportedEarlyAndItsRestParsedAsNew)
{
    // The first read announces 6 bytes and holds 3: reported at once; the second read is parsed
    // from its own start, here as an empty clipboard.
    std::string out = run_reads({{0x00, 0x00, 0x06, 'a', 'b', 'c'}, {0x00, 0x00, 0x00}});
    EXPECT_EQ(out, kStarted + "Device clipboard copied\nDevice clipboard copied\nReceiver stopped\n");
}

TEST_F(ControlReceiver, KeptBytesAreOverwrittenByTheNextRead)
{
    // The partial clipboard left after a complete one is kept, but the next read lands on top of
    // it: the notify is seen as such, not as the tail of the clipboard.
    std::string out = run_reads({{0x00, 0x00, 0x01, 'a', 0x00, 0x00, 0x04, 'x'}, {0x01, 0x00, 0x00}});
    EXPECT_EQ(out, kStarted + "Device clipboard copied\nDevice clipboard copied\nReceiver stopped\n");
    EXPECT_EQ(counter_.count.load(), 1);
}

TEST_F(ControlReceiver, RestOfSplitClipboardThatLooksUnknownEndsTheReceiverSilently)
{
    std::string out =
        run_reads({{0x00, 0x00, 0x08, 'h', 'e'}, {'l', 'l', 'o', '!', '!', '!'}, {0x00, 0x00, 0x00}});
    // 'l' is no device type: the receiver ends without "Receiver stopped" and never sees the
    // clipboard after it.
    EXPECT_EQ(out, kStarted + "Device clipboard copied\nUnknown device message type: 108\n");
}

TEST_F(ControlReceiver, NotifyRaisesFrameSizeEventOnReceiverThread)
{
    // The clipboard behind the notify in the same read is never parsed.
    std::string out = run_reads({{0x01, 0x00, 0x00, 0x05, 'h', 'e', 'l', 'l', 'o'}});
    EXPECT_EQ(counter_.count.load(), 1);
    EXPECT_EQ(count_of(out, "Device clipboard copied"), 0);
    EXPECT_EQ(out, kStarted + "Receiver stopped\n");
    EXPECT_EQ(counter_.thread.load(), receiverThread_);
    EXPECT_NE(counter_.thread.load(), app_->thread());
    EXPECT_FALSE(counter_.spontaneous.load());
}

TEST_F(ControlReceiver, ShortReadsActOnTheStaleRecordType)
{
    // After a notify, reads too short to parse raise the event again whatever their bytes.
    run_reads({{0x01, 0x00, 0x00}, {0x01}, {0x07, 0x09}});
    EXPECT_EQ(counter_.count.load(), 3);
}

TEST_F(ControlReceiver, ShortFirstReadActsOnTheInitialClipboardRecord)
{
    std::string out = run_reads({{0x01, 0x01}});
    EXPECT_EQ(out, kStarted + "Device clipboard copied\nReceiver stopped\n");
    EXPECT_EQ(counter_.count.load(), 0);
}

TEST_F(ControlReceiver, TeardownShutdownReleasesTheBlockedReceiver)
{
    // The order the service tears down in: stop, shut the socket (server stop), join.
    StdoutCapture capture;
    ASSERT_TRUE(controller_start(ctrl_.get()));
    QThread* thread = ctrl_->receiver.thread;
    controller_stop(ctrl_.get());
    shutdown(fds_[0], SHUT_RDWR);
    EXPECT_TRUE(thread->wait(10000));
    controller_join(ctrl_.get());
    EXPECT_EQ(capture.finish(), kStarted + "Receiver stopped\n");
}

TEST_F(ControlReceiver, PushSendsWholeMessagesOnlyWhileRunning)
{
    ControlMessage key;
    key.type = CONTROL_KEYCODE;
    key.keycode = {0, 4, 0};
    ASSERT_TRUE(controller_push_msg(ctrl_.get(), &key));
    uint8_t got[64];
    ASSERT_EQ(recv(fds_[1], got, sizeof got, MSG_DONTWAIT), 10);
    EXPECT_EQ(memcmp(got, "\x00\x00\x00\x00\x00\x04\x00\x00\x00\x00", 10), 0);

    // A type with no wire form is not sent.
    ControlMessage bad;
    bad.type = static_cast<ControlMessageType>(10);
    StdoutCapture capture;
    EXPECT_FALSE(controller_push_msg(ctrl_.get(), &bad));
    capture.finish();
    EXPECT_EQ(recv(fds_[1], got, sizeof got, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);

    // After stop nothing reaches the socket.
    controller_stop(ctrl_.get());
    EXPECT_FALSE(controller_push_msg(ctrl_.get(), &key));
    EXPECT_EQ(recv(fds_[1], got, sizeof got, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ControlReceiver, PushToAVanishedPhoneFailsWithoutEndingTheProcess)
{
    close(fds_[1]);
    fds_[1] = -1;
    ControlMessage key;
    key.type = CONTROL_KEYCODE;
    key.keycode = {1, 3, 0};
    EXPECT_FALSE(controller_push_msg(ctrl_.get(), &key));
}

TEST_F(ControlReceiver, RepeatedLinksEachEndTheirReceiver)
{
    // The daemon reuses one controller record for every link; a sanitizer build of this test
    // also sees any thread object or text left behind by a link.
    StdoutCapture capture;
    for (int i = 0; i < 100; i++) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        Controller& c = *ctrl_;
        controller_destroy(&c);
        ASSERT_TRUE(controller_init(&c, pair[0]));
        ASSERT_TRUE(controller_start(&c));
        const uint8_t bytes[] = {0x00, 0x00, 0x02, 'h', 'i', 0x01, 0x00, 0x00};
        ASSERT_EQ(send(pair[1], bytes, sizeof bytes, 0), static_cast<ssize_t>(sizeof bytes));
        controller_stop(&c);
        shutdown(pair[0], SHUT_RDWR);
        controller_join(&c);
        EXPECT_EQ(c.receiver.thread, nullptr);
        close(pair[0]);
        close(pair[1]);
    }
    EXPECT_EQ(count_of(capture.finish(), "Receiver stopped\n"), 100);
}
