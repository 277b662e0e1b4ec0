// The HMI's touches and keys on a real service object, read back as bytes from the other end of
// the control socket.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "service/input.h"
#include "service/orvane_service.h"

namespace {

// Touch message as the phone expects it: type 2, action, pointer 1, x, y, width, height.
std::string touch(int action, int x, int y, int w = 1280, int h = 720)
{
    char buf[64];
    snprintf(buf, sizeof buf, "02%02x00000001%08x%08x%04x%04x", action, unsigned(x), unsigned(y), w, h);
    return buf;
}

// A 1024x600 picture at 0,0 showing 1280x720 video, on a running USB controller.
class Input : public ::testing::Test
{
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString&) {}); // key request lines
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
        svc_.wifiMode = false;
        svc_.controllerRunning = true;
        svc_.screen.x = svc_.screen.y = 0;
        svc_.screen.display_width = 1024;
        svc_.screen.display_height = 600;
        svc_.screen.frame_width = 1280;
        svc_.screen.frame_height = 720;
        ASSERT_TRUE(controller_init(&svc_.controller, fds_[0]));
        touchPressed = -1; // process-wide: every test starts from "never pressed"
    }
    void TearDown() override
    {
        controller_destroy(&svc_.controller);
        close(fds_[0]);
        close(fds_[1]);
    }

    // Everything the phone has been sent since the last call, as hex.
    std::string sent()
    {
        std::string out;
        unsigned char buf[256];
        char two[3];
        ssize_t n;
        while ((n = recv(fds_[1], buf, sizeof buf, MSG_DONTWAIT)) > 0)
            for (ssize_t i = 0; i < n; i++) {
                snprintf(two, sizeof two, "%02x", buf[i]);
                out += two;
            }
        return out;
    }

    OrvaneService svc_;
    int fds_[2];
};

} // namespace

TEST_F(Input, TouchesAreScaledFromThePictureToTheVideo)
{
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
        svc_.requestTouchAction(s.type, s.x, s.y);
        EXPECT_EQ(sent(), s.sent) << "step " << &s - steps;
    }
    EXPECT_EQ(touchPressed, 0);

    // A moved picture counts from its corner; a release uses the video size at the time.
    svc_.screen.x = 100;
    svc_.screen.y = 50;
    svc_.requestTouchAction(PRESS, 100, 300);
    svc_.requestTouchAction(PRESS, 101, 51);
    svc_.screen.frame_width = 720;
    svc_.screen.frame_height = 1280;
    svc_.requestTouchAction(RELEASE, 0, 0);
    EXPECT_EQ(sent(), touch(0, 1, 1) + touch(1, 1, 1, 720, 1280));
}

TEST_F(Input, KeysGoOutAsPressThenRelease)
{
    for (int key : {2, 7, 0, 1, 3})
        svc_.requestKeyValue(key);
    // Back, home and menu as keycodes 4, 3 and 82, each down then up; 7 and 0 are no keys.
    EXPECT_EQ(sent(), "00000000000400000000"
                      "00010000000400000000"
                      "00000000000300000000"
                      "00010000000300000000"
                      "00000000005200000000"
                      "00010000005200000000");
}

TEST_F(Input, NothingIsForwardedWithoutAUsbController)
{
    svc_.wifiMode = true;
    svc_.requestTouchAction(1, 512, 300);
    svc_.requestKeyValue(1);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, -1);

    svc_.wifiMode = false;
    svc_.controllerRunning = false;
    svc_.requestTouchAction(1, 512, 300);
    controller_stop(&svc_.controller); // keys rely on the controller's own refusal
    svc_.requestKeyValue(2);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, -1);
}
