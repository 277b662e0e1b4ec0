// The HMI's touches and keys on a real service object, read back as bytes from the other end of
// the control socket.
#include <gtest/gtest.h>

#include <QtGlobal>
#include <cerrno>
#include <csignal>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "service/input.h"
#include "service/orvane_service.h"

namespace {

std::vector<std::string> logMessages;

void keep_message(QtMsgType, const QMessageLogContext&, const QString& text)
{
    logMessages.push_back(text.toStdString());
}

bool ends_with(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string hex(const std::vector<uint8_t>& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

// Touch message as the phone expects it: type 2, action, pointer 1, x, y, width, height.
std::string touch(int action, int x, int y, int w = 1280, int h = 720)
{
    char buf[64];
    snprintf(buf, sizeof buf, "02%02x00000001%08x%08x%04x%04x", action, static_cast<unsigned>(x),
             static_cast<unsigned>(y), w, h);
    return buf;
}

class Input : public ::testing::Test
{
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
        svc_.wifiMode = false;
        svc_.controllerRunning = true;
        svc_.screen.x = 0;
        svc_.screen.y = 0;
        svc_.screen.display_width = 1024;
        svc_.screen.display_height = 600;
        svc_.screen.frame_width = 1280;
        svc_.screen.frame_height = 720;
        ASSERT_TRUE(controller_init(&svc_.controller, fds_[0]));
        // The press state is process-wide; every test starts from "never pressed".
        touchPressed = -1;
        lastTouchX = 0;
        lastTouchY = 0;
        logMessages.clear();
        previousHandler_ = qInstallMessageHandler(keep_message);
    }

    void TearDown() override
    {
        qInstallMessageHandler(previousHandler_);
        controller_destroy(&svc_.controller);
        close(fds_[0]);
        close(fds_[1]);
    }

    // Everything the phone has been sent since the last call, as hex.
    std::string sent()
    {
        std::vector<uint8_t> bytes;
        uint8_t buf[256];
        ssize_t n;
        while ((n = recv(fds_[1], buf, sizeof buf, MSG_DONTWAIT)) > 0)
            bytes.insert(bytes.end(), buf, buf + n);
        return hex(bytes);
    }

    void press(uint x, uint y) { svc_.requestTouchAction(1, x, y); }
    void move(uint x, uint y) { svc_.requestTouchAction(2, x, y); }
    void release(uint x, uint y) { svc_.requestTouchAction(3, x, y); }

    OrvaneService svc_;
    int fds_[2];
    QtMessageHandler previousHandler_ = nullptr;
};

} // namespace

TEST_F(Input, TouchesOnThePictureAreScaledToTheVideo)
{
    press(512, 300);
    EXPECT_EQ(sent(), touch(0, 640, 360));
    EXPECT_EQ(touchPressed, 1);
    move(256, 150);
    EXPECT_EQ(sent(), touch(2, 320, 180));
    // 1022 * 1.25 = 1277.5 and 598 * 1.2 = 717.6: truncated toward zero.
    release(1022, 598);
    EXPECT_EQ(sent(), touch(1, 1277, 717));
    EXPECT_EQ(touchPressed, 0);
}

TEST_F(Input, PictureEdgesAndOffsetsCountFromTheScreenPosition)
{
    svc_.screen.x = 100;
    svc_.screen.y = 50;
    // The outermost columns and rows are outside: x 100 and 1123, y 50 and 649.
    press(100, 300);
    press(1123, 300);
    press(500, 50);
    press(500, 649);
    press(99, 300);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, -1);
    // The first pixel inside maps from its distance to the picture's corner.
    press(101, 51);
    EXPECT_EQ(sent(), touch(0, 1, 1));
    press(1122, 648);
    EXPECT_EQ(sent(), touch(0, 1277, 717));

    // A picture with no size takes no touches.
    touchPressed = -1;
    svc_.screen.display_width = 0;
    press(101, 51);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, -1);
}

TEST_F(Input, MovesAndReleasesNeedAForwardedPress)
{
    move(500, 300);
    release(500, 300);
    EXPECT_EQ(sent(), "");
    press(500, 300);
    release(500, 300);
    EXPECT_EQ(sent(), touch(0, 625, 360) + touch(1, 625, 360));
    move(510, 300);
    release(510, 300);
    // Unknown touch types neither send nor press.
    svc_.requestTouchAction(4, 500, 300);
    svc_.requestTouchAction(0, 500, 300);
    move(500, 300);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, 0);
}

TEST_F(Input, ReleaseOffThePictureGoesOutAtTheLastInsidePosition)
{
    press(512, 300);
    move(800, 500);
    move(2000, 300); // off the picture: dropped
    press(2000, 300);
    release(5000, 5000);
    EXPECT_EQ(sent(), touch(0, 640, 360) + touch(2, 1000, 600) + touch(1, 1000, 600));
    EXPECT_EQ(touchPressed, 0);
    release(5000, 5000);
    EXPECT_EQ(sent(), "");

    // The frame size of the release is the one current when the finger is lifted.
    press(512, 300);
    svc_.screen.frame_width = 720;
    svc_.screen.frame_height = 1280;
    release(1024, 300);
    EXPECT_EQ(sent(), touch(0, 640, 360) + touch(1, 640, 360, 720, 1280));
}

TEST_F(Input, PressStateOutlivesTheLink)
{
    press(512, 300);
    sent();
    // The link ends with the finger down and a new one comes up: its first move goes out.
    controller_stop(&svc_.controller);
    controller_destroy(&svc_.controller);
    ASSERT_TRUE(controller_init(&svc_.controller, fds_[0]));
    move(512, 300);
    EXPECT_EQ(sent(), touch(2, 640, 360));
}

TEST_F(Input, NothingIsForwardedWithoutAUsbController)
{
    svc_.wifiMode = true;
    press(512, 300);
    svc_.requestKeyValue(1);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, -1);

    svc_.wifiMode = false;
    svc_.controllerRunning = false;
    press(512, 300);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(touchPressed, -1);

    // Keys do not look at controllerRunning; a stopped controller refuses them itself.
    controller_stop(&svc_.controller);
    svc_.requestKeyValue(2);
    EXPECT_EQ(sent(), "");

    // Every key request is logged, also the ignored ones; touches never are.
    ASSERT_EQ(logMessages.size(), 2u);
    EXPECT_TRUE(ends_with(logMessages[0], " requestKeyValue 1 ")) << logMessages[0];
    EXPECT_TRUE(ends_with(logMessages[1], " requestKeyValue 2 ")) << logMessages[1];
}

TEST_F(Input, KeysGoOutAsPressThenRelease)
{
    svc_.requestKeyValue(2);
    EXPECT_EQ(sent(), "00000000000400000000"
                      "00010000000400000000");
    svc_.requestKeyValue(1);
    svc_.requestKeyValue(3);
    EXPECT_EQ(sent(), "00000000000300000000"
                      "00010000000300000000"
                      "00000000005200000000"
                      "00010000005200000000");
    svc_.requestKeyValue(7);
    svc_.requestKeyValue(0);
    EXPECT_EQ(sent(), "");
    ASSERT_EQ(logMessages.size(), 5u);
    EXPECT_TRUE(ends_with(logMessages[3], " requestKeyValue 7 ")) << logMessages[3];
    // Touch status requests are accepted and change nothing.
    svc_.requestTouchStatus(1, 1, "512,300");
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(logMessages.size(), 5u);
}

TEST(InputMessages, BuildersFollowTheTables)
{
    ControlMessage msg;
    msg.type = CONTROL_TEXT;
    // A bad key action still marks the message as a key.
    EXPECT_FALSE(build_key_message(5, 1, &msg));
    EXPECT_EQ(msg.type, CONTROL_KEYCODE);
    EXPECT_FALSE(build_key_message(4, 9, &msg));
    EXPECT_EQ(msg.keycode.action, 1);

    msg.type = CONTROL_TEXT;
    EXPECT_FALSE(build_touch_message(3, 1, 2, 3, 4, &msg));
    EXPECT_EQ(msg.type, CONTROL_TEXT); // untouched
}
