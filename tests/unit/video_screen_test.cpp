// The video layer: placement, the full-screen rule, the delayed reveal, the frame-rate cap and the
// vsync pacing, on the headless host display with real H.264 pictures.
#include <gtest/gtest.h>

#include "platform/host/host_platform.h"
#include "video_test_support.h"

namespace {

using namespace video_test;

TEST(ScreenLayout, FitsCentredInMultiplesOfFourAndStretchesOnlyLandscapeInFullScreen)
{
    HostScreenEnv env("800x480", "0");
    const struct {
        bool full;
        int w, h, x, y, dw, dh;
    } rows[] = {{false, 1080, 1920, 266, 0, 268, 480}, {false, 640, 480, 80, 0, 640, 480},
                {true, 1280, 720, 0, 0, 800, 480},     {true, 720, 1280, 266, 0, 268, 480},
                {true, 600, 600, 160, 0, 480, 480},    {false, 333, 777, 298, 0, 204, 480},
                {false, 1366, 768, 0, 16, 800, 448}};
    for (const auto& r : rows) {
        setenv("LINK_FULLSCREEN", r.full ? "1" : "0", 1);
        screen s;
        screen_init(&s);
        ASSERT_TRUE(screen_init_rendering(&s));
        StdoutCapture out;
        EXPECT_TRUE(screen_reset_layout(&s, r.w, r.h));
        EXPECT_EQ(s.show_delay.load(), 1);
        s.show_delay = 0;
        EXPECT_FALSE(screen_reset_layout(&s, r.w, r.h)) << "the same size again changes nothing";
        EXPECT_EQ(s.show_delay.load(), 0);
        const std::string place = std::to_string(r.x) + "," + std::to_string(r.y) + "," +
                                  std::to_string(r.dw) + "," + std::to_string(r.dh);
        EXPECT_EQ(out.text(), "new frame size:" + std::to_string(r.w) + "," + std::to_string(r.h) +
                                  "\nreset display pos:" + place + "\n");
        screen_close(&s);
    }
    // Only the first character of the variable counts.
    for (const auto& [value, full] : {std::pair{"10", true}, {"1abc", true}, {"01", false}, {"", false}}) {
        setenv("LINK_FULLSCREEN", value, 1);
        screen s;
        screen_init(&s);
        EXPECT_EQ(s.fullscreen, full) << value;
    }
    unsetenv("LINK_FULLSCREEN");
}

TEST(ScreenFrameCap, SeventeenMillisecondsOrLessIsTooSoonAcrossTheClockWrap)
{
    const struct {
        uint32_t now, last;
        bool due;
    } rows[] = {{1017, 1000, false}, {1018, 1000, true}, {6, 0xFFFFFFF5u, false}, {7, 0xFFFFFFF5u, true}};
    for (const auto& r : rows)
        EXPECT_EQ(screen_frame_due(r.now, r.last), r.due) << r.now << " after " << r.last;
}

TEST(ScreenRender, RevealsOnTheFourthShownPictureAndAgainAfterUnhide)
{
    HostScreenEnv env("800x480", "0");
    VideoRig rig;
    ASSERT_TRUE(rig.screen_open && rig.mapped());
    const auto show = [&](int from, int to) {
        for (int i = from; i < to; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(25)); // past the frame-rate cap
            EXPECT_EQ(rig.render(clip()[i]), 1);
        }
    };
    show(0, 6);
    // Hidden by the HMI, pictures keep coming; unhidden, the layout and the reveal start over.
    screen_set_hidden(&rig.scr, true);
    show(6, 8);
    screen_set_hidden(&rig.scr, false);
    show(8, 13);
    std::vector<std::string> shown;
    for (const auto& latched : read_framelog(env.framelog))
        shown.push_back(latched.second);
    std::vector<std::string> expected;
    for (int visible : {0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 1})
        expected.push_back("320x240 80,0,640x480 " + std::to_string(visible));
    EXPECT_EQ(shown, expected);
}

TEST(ScreenRender, WaitsAtMostThreeVsyncsForThePreviousPictureToBeLatched)
{
    HostScreenEnv env("800x480", "20"); // a vsync every 50 ms
    VideoRig rig;
    ASSERT_TRUE(rig.screen_open && rig.mapped());
    rig.scr.last_addr = 0x7FFFFFF0u; // a previous picture the layer never reports as latched
    const unsigned long waits_before = host_vsync_wait_count();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(rig.render(clip()[0]), 1);
    // Three waits (the reveal is still counting, so no fourth), and real ones: at least two periods.
    EXPECT_EQ(host_vsync_wait_count() - waits_before, 3u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
    EXPECT_GT(rig.buffer.output->count, 0) << "the decode happened after the waits";

    // With the display closed nothing is decoded.
    screen_close(&rig.scr);
    rig.buffer.output->count = 7;
    EXPECT_EQ(rig.render(clip()[1]), 0);
    EXPECT_EQ(rig.buffer.output->count, 7);
}

} // namespace
