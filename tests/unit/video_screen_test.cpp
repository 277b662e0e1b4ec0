// The video layer: placement, the full-screen rule, the delayed reveal, the frame-rate cap and the
// vsync pacing, on the host display (headless) with real H.264 pictures.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/display.h"
#include "platform/host/host_platform.h"
#include "video_test_support.h"

namespace {

using namespace video_test;

void pause_past_frame_cap()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
}

class ScreenLayout : public ::testing::Test
{
protected:
    void SetUp() override
    {
        app();
        unsetenv("LINK_FULLSCREEN");
    }
    void TearDown() override { unsetenv("LINK_FULLSCREEN"); }
    // A screen open on an emulated framebuffer of the given size.
    void open(const char* fb)
    {
        env_.reset(new HostScreenEnv(fb, "0"));
        screen_init(&s_);
        ASSERT_TRUE(screen_init_rendering(&s_));
    }
    void close() { screen_close(&s_); }
    std::unique_ptr<HostScreenEnv> env_;
    screen s_;
};

TEST_F(ScreenLayout, FitsPicturesCentredWithSizesInMultiplesOfFour)
{
    open("800x480");
    EXPECT_EQ(s_.screen_width, 800);
    EXPECT_EQ(s_.screen_height, 480);

    StdoutCapture out;
    EXPECT_TRUE(screen_reset_layout(&s_, 1080, 1920));
    EXPECT_FLOAT_EQ(s_.scale, 0.25f);
    EXPECT_EQ(s_.display_width, 268); // 270 rounded down
    EXPECT_EQ(s_.display_height, 480);
    EXPECT_EQ(s_.x, 266);
    EXPECT_EQ(s_.y, 0);
    EXPECT_EQ(s_.show_delay.load(), 1);

    EXPECT_TRUE(screen_reset_layout(&s_, 640, 480));
    EXPECT_EQ(s_.display_width, 640);
    EXPECT_EQ(s_.display_height, 480);
    EXPECT_EQ(s_.x, 80);
    EXPECT_EQ(s_.y, 0);
    const std::string text = out.text();
    EXPECT_NE(text.find("new frame size:1080,1920\nreset display pos:266,0,268,480\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("new frame size:640,480\nreset display pos:80,0,640,480\n"), std::string::npos)
        << text;

    // Whatever the picture, the placement is inside the screen, centred, and in multiples of 4.
    const int sizes[][2] = {{1080, 2340}, {2400, 1080}, {1366, 768}, {333, 777},
                            {1, 1},       {4096, 17},   {720, 1280}};
    for (const auto& wh : sizes) {
        StdoutCapture quiet;
        screen_reset_layout(&s_, wh[0], wh[1]);
        SCOPED_TRACE(std::to_string(wh[0]) + "x" + std::to_string(wh[1]));
        EXPECT_EQ(s_.display_width % 4, 0);
        EXPECT_EQ(s_.display_height % 4, 0);
        EXPECT_LE(s_.display_width, 800);
        EXPECT_LE(s_.display_height, 480);
        EXPECT_EQ(s_.x, (800 - s_.display_width) / 2);
        EXPECT_EQ(s_.y, (480 - s_.display_height) / 2);
        // One side fills the screen up to the rounding.
        EXPECT_TRUE(s_.display_width > 800 - 4 - 1 || s_.display_height > 480 - 4 - 1);
    }
    close();
}

TEST_F(ScreenLayout, FullScreenStretchesLandscapeOnlyAndIsSelectedByALeadingOne)
{
    setenv("LINK_FULLSCREEN", "1", 1);
    open("800x480");
    ASSERT_TRUE(s_.fullscreen);
    StdoutCapture out;
    EXPECT_TRUE(screen_reset_layout(&s_, 1280, 720));
    EXPECT_EQ(s_.x, 0);
    EXPECT_EQ(s_.y, 0);
    EXPECT_EQ(s_.display_width, 800);
    EXPECT_EQ(s_.display_height, 480);
    EXPECT_EQ(s_.scale, 0.0f);

    EXPECT_TRUE(screen_reset_layout(&s_, 720, 1280)); // portrait: fitted even in full screen
    EXPECT_FLOAT_EQ(s_.scale, 0.375f);
    EXPECT_EQ(s_.display_width, 268);
    EXPECT_EQ(s_.display_height, 480);
    EXPECT_EQ(s_.x, 266);
    EXPECT_TRUE(screen_reset_layout(&s_, 600, 600)); // square: fitted too
    EXPECT_EQ(s_.display_width, 480);
    EXPECT_EQ(s_.x, 160);
    out.text();
    close();

    const struct {
        const char* value;
        bool full;
    } values[] = {{"10", true}, {"1abc", true}, {"0", false}, {"", false}, {"01", false}, {"true", false}};
    for (const auto& v : values) {
        setenv("LINK_FULLSCREEN", v.value, 1);
        screen_init(&s_);
        EXPECT_EQ(s_.fullscreen, v.full) << "LINK_FULLSCREEN=\"" << v.value << "\"";
    }
    unsetenv("LINK_FULLSCREEN");
    screen_init(&s_);
    EXPECT_FALSE(s_.fullscreen);
}

TEST_F(ScreenLayout, SameSizeTwiceNeitherReconfiguresNorHides)
{
    open("1024x600");
    {
        StdoutCapture quiet;
        ASSERT_TRUE(screen_reset_layout(&s_, 1280, 720));
    }
    s_.show_delay.store(0);
    LogCapture log;
    StdoutCapture out;
    EXPECT_FALSE(screen_reset_layout(&s_, 1280, 720));
    EXPECT_EQ(out.text(), "");
    EXPECT_TRUE(log.take().empty()) << "no screen_show_window for an unchanged size";
    EXPECT_EQ(s_.show_delay.load(), 0);
    close();
}

TEST_F(ScreenLayout, OpenFailuresPrintTheirLines)
{
    env_.reset(new HostScreenEnv("800x480", "0"));
    setenv("ORVANE_HOST_FAULTS", "fb-open", 1);
    screen_init(&s_);
    {
        StdoutCapture out;
        EXPECT_FALSE(screen_init_rendering(&s_));
        EXPECT_EQ(out.text(), "\n\n\n-----------------open fb4 fail.----------------------\n\n");
        EXPECT_LT(s_.fb, 0);
    }
    setenv("ORVANE_HOST_FAULTS", "fb-info", 1);
    screen_init(&s_);
    {
        StdoutCapture out;
        EXPECT_FALSE(screen_init_rendering(&s_));
        EXPECT_EQ(out.text(), "get screen info fail.\n");
        EXPECT_GE(s_.fb, 0) << "the descriptor stays open";
    }
    unsetenv("ORVANE_HOST_FAULTS");
    screen_close(&s_);
    EXPECT_EQ(s_.fb, -1);
    screen_close(&s_); // closing a closed screen is nothing
    EXPECT_EQ(s_.fb, -1);
}

TEST(ScreenFrameCap, SeventeenMillisecondsOrLessIsTooSoonAcrossTheClockWrap)
{
    EXPECT_FALSE(screen_frame_due(1000, 1000));
    EXPECT_FALSE(screen_frame_due(1017, 1000));
    EXPECT_TRUE(screen_frame_due(1018, 1000));
    // The millisecond clock wraps at 2^32: the unsigned difference still counts forwards.
    EXPECT_FALSE(screen_frame_due(0x00000005u, 0xFFFFFFF5u)); // 16 ms later
    EXPECT_FALSE(screen_frame_due(0x00000006u, 0xFFFFFFF5u)); // 17 ms later
    EXPECT_TRUE(screen_frame_due(0x00000007u, 0xFFFFFFF5u));  // 18 ms later
    EXPECT_TRUE(screen_frame_due(0x00001000u, 0xFFFFF000u));
    // The clock itself is milliseconds of the wall clock, truncated to 32 bits.
    const uint32_t a = get_time_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const uint32_t b = get_time_ms();
    EXPECT_GE(b - a, 29u);
    EXPECT_LT(b - a, 60000u);
}

// Real pictures through the decoder onto the layer.
class ScreenRender : public ::testing::Test
{
protected:
    void SetUp() override
    {
        app();
        unsetenv("LINK_FULLSCREEN");
    }
    const std::vector<std::vector<uint8_t>>& frames() { return clip(320, 240, 30, "testsrc2"); }
    std::vector<int> visibility(const std::string& log)
    {
        std::vector<int> v;
        for (const Latched& l : read_framelog(log))
            v.push_back(l.visible);
        return v;
    }
};

TEST_F(ScreenRender, LayerIsRevealedOnTheFourthShownPictureAndAgainAfterUnhide)
{
    HostScreenEnv env("800x480", "0");
    VideoRig rig;
    ASSERT_TRUE(rig.screen_open);
    ASSERT_TRUE(rig.decoder_locked);
    ASSERT_TRUE(rig.mapped());

    LogCapture log;
    {
        StdoutCapture out;
        for (int i = 0; i < 6; ++i) {
            pause_past_frame_cap();
            EXPECT_EQ(rig.render(frames()[i]), 1);
        }
        EXPECT_EQ(count_of(out.text(), "new frame size:320,240\n"), 1u);
    }
    std::vector<Latched> shown = read_framelog(env.framelog);
    ASSERT_EQ(shown.size(), 6u);
    for (const Latched& l : shown) {
        EXPECT_EQ(l.width, 320);
        EXPECT_EQ(l.height, 240);
        EXPECT_EQ(l.x, 80);
        EXPECT_EQ(l.y, 0);
        EXPECT_EQ(l.display_width, 640);
        EXPECT_EQ(l.display_height, 480);
    }
    EXPECT_EQ(visibility(env.framelog), (std::vector<int>{0, 0, 0, 0, 1, 1}));
    EXPECT_EQ(rig.scr.show_delay.load(), 0);
    EXPECT_TRUE(rig.scr.show_requested.load());
    std::vector<std::string> lines = log.take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(" screen_show_window false false "), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" screen_show_window true false "), std::string::npos) << lines[1];

    // Hidden by the HMI: pictures keep coming but the layer stays dark.
    screen_set_hidden(&rig.scr, true);
    for (int i = 6; i < 8; ++i) {
        pause_past_frame_cap();
        rig.render(frames()[i]);
    }
    // Unhidden: the same size goes through the layout again and the reveal starts over.
    screen_set_hidden(&rig.scr, false);
    EXPECT_EQ(rig.scr.frame_width.load(), 0);
    EXPECT_EQ(rig.scr.show_delay.load(), 1);
    {
        StdoutCapture out;
        for (int i = 8; i < 13; ++i) {
            pause_past_frame_cap();
            rig.render(frames()[i]);
        }
        EXPECT_EQ(count_of(out.text(), "new frame size:320,240\n"), 1u);
    }
    EXPECT_EQ(visibility(env.framelog), (std::vector<int>{0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(rig.scr.frame_width.load(), 320);
}

TEST_F(ScreenRender, PicturesWithinSeventeenMillisecondsAreDecodedButNotShownUnlessTheLayoutChanged)
{
    HostScreenEnv env("800x480", "0");
    VideoRig rig;
    ASSERT_TRUE(rig.screen_open && rig.decoder_locked && rig.mapped());
    StdoutCapture quiet;
    pause_past_frame_cap();
    rig.render(frames()[0]);
    const uint32_t shown_at = get_time_ms();
    rig.render(frames()[1]);
    const bool in_time = get_time_ms() - shown_at <= 10;
    ASSERT_GT(rig.buffer.output->count, 0) << "the second picture was decoded";
    if (in_time) {
        EXPECT_EQ(read_framelog(env.framelog).size(), 1u) << "and dropped";
    }

    // A new layout is shown at once, however soon.
    screen_set_hidden(&rig.scr, true);
    screen_set_hidden(&rig.scr, false);
    const uint32_t before = get_time_ms();
    rig.render(frames()[2]);
    if (get_time_ms() - before <= 10) {
        EXPECT_EQ(read_framelog(env.framelog).size(), in_time ? 2u : 3u);
    }
    if (!in_time)
        GTEST_SKIP() << "the machine was too slow to put two pictures within 17 ms";
}

TEST_F(ScreenRender, ClosedDisplayDecodesNothing)
{
    HostScreenEnv env("800x480", "0");
    VideoRig rig(false);
    ASSERT_TRUE(rig.decoder_locked && rig.mapped());
    rig.buffer.output->count = 7;
    EXPECT_EQ(rig.render(frames()[0]), 0);
    EXPECT_EQ(rig.buffer.output->count, 7);
    EXPECT_TRUE(rig.buffer.new_stream) << "the first decode of the session has not happened";
}

TEST_F(ScreenRender, WaitsAtMostThreeVsyncsForThePreviousPictureToBeLatched)
{
    HostScreenEnv env("800x480", "20"); // a vsync every 50 ms
    VideoRig rig;
    ASSERT_TRUE(rig.screen_open && rig.decoder_locked && rig.mapped());
    StdoutCapture quiet;
    // A previous picture the layer will never report as latched.
    rig.scr.last_addr = 0x7FFFFFF0u;

    const unsigned long waits_before = host_vsync_wait_count();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(rig.render(frames()[0]), 1);
    const auto waited = std::chrono::steady_clock::now() - start;

    // Exactly three waits (the first frame's reveal is still counting, so no fourth one), and they
    // were real: three ticks span at least two full periods.
    EXPECT_EQ(host_vsync_wait_count() - waits_before, 3u);
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(waited).count(), 95);
    EXPECT_GT(rig.buffer.output->count, 0) << "the decode happened after the waits";
}

} // namespace
