// The control connection: the receiver thread reading device messages over a real socket pair
// with a real application object, and the HMI's touches and keys on a real service object, read
// back as bytes at the phone's end.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "control/controller.h"
#include "service/input.h"
#include "service/orvane_service.h"
#include "unit_support.h"
#include "video/app_events.h"

using namespace std::string_literals;

namespace {

const std::string kCopied = "Device clipboard copied\n", kStopped = "Receiver stopped\n";

// A key's down and up messages as the phone expects them: type 0, action, keycode, meta state 0.
std::string key(int code)
{
    char buf[48];
    snprintf(buf, sizeof buf, "0000%08x000000000001%08x00000000", code, code);
    return buf;
}

// Touch message as the phone expects it: type 2, action, pointer 1, x, y, width, height.
std::string touch(int action, int x, int y, int w = 1280, int h = 720)
{
    char buf[64];
    snprintf(buf, sizeof buf, "02%02x00000001%08x%08x%04x%04x", action, unsigned(x), unsigned(y), w, h);
    return buf;
}

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
        // The two reserved types are read past without a word.
        {{"\3\0\0"s, "\0\0\0"s}, kCopied + kStopped, 0},
    };
    EventRecorder events;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.out);
        events.seen.clear();
        int fds[2]; // datagram-like, so that each send is one read for the receiver
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        Controller ctrl{};
        ASSERT_TRUE(controller_init(&ctrl, fds[0]));
        StdoutCapture out;
        ASSERT_TRUE(controller_start(&ctrl));
        QThread* receiver = ctrl.receiver.thread;
        for (const std::string& read : c.reads)
            send(fds[1], read.data(), read.size(), 0);
        shutdown(fds[1], SHUT_RDWR);
        const bool ended = receiver->wait(10000);
        controller_join(&ctrl);
        EXPECT_EQ(out.text(), "Starting controller thread\nStarting receiver thread" + c.out);
        ASSERT_TRUE(ended) << "the receiver did not end";
        EXPECT_EQ(events.count(EVENT_FRAME_SIZE_CHANGED), c.events);
        for (const auto& seen : events.seen)
            EXPECT_EQ(seen.second, receiver) << "sent from the receiver thread itself";
        controller_destroy(&ctrl);
        close(fds[0]);
        close(fds[1]);
    }
}

TEST(Input, TouchesAreScaledFromThePictureToTheVideoKeysPressedThenReleasedAndOnlyOverUsb)
{
    signal(SIGPIPE, SIG_IGN);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    // A 1024x600 picture at 0,0 showing 1280x720 video, on a running USB controller.
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    OrvaneService svc;
    svc.wifiMode = false;
    svc.controllerRunning = true;
    svc.screen.x = svc.screen.y = 0;
    svc.screen.display_width = 1024;
    svc.screen.display_height = 600;
    svc.screen.frame_width = 1280;
    svc.screen.frame_height = 720;
    ASSERT_TRUE(controller_init(&svc.controller, fds[0]));
    touchPressed = -1; // process-wide: "never pressed"
    // Everything the phone has been sent since the last look, as hex.
    const auto sent = [&] {
        std::string out;
        unsigned char buf[256];
        char two[3];
        for (ssize_t n; (n = recv(fds[1], buf, sizeof buf, MSG_DONTWAIT)) > 0;)
            for (ssize_t i = 0; i < n; i++)
                out += (snprintf(two, sizeof two, "%02x", buf[i]), two);
        return out;
    };
    enum { PRESS = 1, MOVE = 2, RELEASE = 3 };
    const struct {
        uint type, x, y;
        std::string sent;
    } steps[] = {
        {MOVE, 500, 300, ""}, // nothing before a press
        {RELEASE, 500, 300, ""},
        {PRESS, 0, 300, ""}, // the outermost columns and rows are outside
        {PRESS, 1023, 300, ""},
        {PRESS, 500, 599, ""},
        {PRESS, 512, 300, touch(0, 640, 360)},
        {MOVE, 256, 150, touch(2, 320, 180)},
        {MOVE, 2000, 300, ""},                     // off the picture: dropped
        {4, 256, 150, ""},                         // no such touch type
        {RELEASE, 5000, 5000, touch(1, 320, 180)}, // lifted off the picture: up at the last inside point
        {MOVE, 510, 300, ""},
        {PRESS, 1022, 598, touch(0, 1277, 717)}, // 1277.5 and 717.6 truncated
        {RELEASE, 1, 1, touch(1, 1, 1)},
    };
    for (const auto& s : steps) {
        svc.requestTouchAction(s.type, s.x, s.y);
        EXPECT_EQ(sent(), s.sent) << "step " << &s - steps;
    }
    // The press state outlives the link: a finger still down when the controller goes away leaves the
    // next one's first move forwarded without a press of its own.
    svc.requestTouchAction(PRESS, 512, 300);
    controller_stop(&svc.controller);
    controller_destroy(&svc.controller);
    ASSERT_TRUE(controller_init(&svc.controller, fds[0]));
    svc.requestTouchAction(MOVE, 512, 300);
    svc.requestTouchAction(RELEASE, 512, 300);
    EXPECT_EQ(sent(), touch(0, 640, 360) + touch(2, 640, 360) + touch(1, 640, 360));
    // A moved picture counts from its corner; a release uses the video size at the time.
    svc.screen.x = 100;
    svc.screen.y = 50;
    svc.requestTouchAction(PRESS, 100, 300);
    svc.requestTouchAction(PRESS, 101, 51);
    svc.screen.frame_width = 720;
    svc.screen.frame_height = 1280;
    svc.requestTouchAction(RELEASE, 0, 0);
    EXPECT_EQ(sent(), touch(0, 1, 1) + touch(1, 1, 1, 720, 1280));

    // Back, home and menu as keycodes 4, 3 and 82, each down then up; 7 and 0 are no keys.
    for (int key : {2, 7, 0, 1, 3})
        svc.requestKeyValue(key);
    EXPECT_EQ(sent(), key(4) + key(3) + key(82));
    // Nothing on a Wi-Fi link, nor once the controller is stopped.
    svc.wifiMode = true;
    svc.requestTouchAction(PRESS, 512, 300);
    svc.requestKeyValue(1);
    svc.wifiMode = false;
    svc.controllerRunning = false;
    svc.requestTouchAction(PRESS, 512, 300);
    controller_stop(&svc.controller); // keys rely on the controller's own refusal
    svc.requestKeyValue(2);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, 0);
    controller_destroy(&svc.controller);
    close(fds[0]);
    close(fds[1]);
}
