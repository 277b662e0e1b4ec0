#include "video/screen.h"
#include "base/clock.h"

#include <fcntl.h>
#include <linux/fb.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "platform/codec.h"
#include "platform/device.h"
#include "platform/display.h"
#include "base/log_line.h"
#include "video/decoder.h"
#include "video/stream_stats.h"
#include "video/video_buffer.h"

namespace {

// When a picture was last handed to the layer, if the clock could be read then; shared by every
// screen of the process, as there is only one video layer.
uint32_t last_show_ms = 0;
bool last_show_known = false;

} // namespace

void screen_init(screen* s)
{
    s->frame_width.store(0, std::memory_order_relaxed);
    s->frame_height.store(0, std::memory_order_relaxed);
    s->screen_width = 0;
    s->screen_height = 0;
    s->show_delay.store(0, std::memory_order_relaxed);
    s->spare = false;
    s->hidden.store(false, std::memory_order_relaxed);
    s->show_requested.store(false, std::memory_order_relaxed);
    s->fb = -1;
    s->last_addr = 0;
    s->x.store(0, std::memory_order_relaxed);
    s->y.store(0, std::memory_order_relaxed);
    s->scale = 0.0f;
    s->display_width.store(0, std::memory_order_relaxed);
    s->display_height.store(0, std::memory_order_relaxed);
    // Only the first character counts: "10" still means full screen, "" and "0" do not (kept on
    // purpose: docs/KEPT.md).
    const char* full = std::getenv("LINK_FULLSCREEN");
    s->fullscreen = full != nullptr && full[0] == '1';
}

bool screen_init_rendering(screen* s)
{
    tezapi_set_display_mode(1);
    s->fb = platform_open("/dev/fb4", O_RDWR | O_SYNC);
    if (s->fb < 0) {
        std::printf("\n\n\n-----------------open fb4 fail.----------------------\n\n");
        return false;
    }
    struct fb_var_screeninfo info = {};
    if (platform_ioctl(s->fb, FBIOGET_VSCREENINFO, &info) < 0) {
        std::puts("get screen info fail.");
        return false;
    }
    s->screen_width = static_cast<int>(info.xres);
    s->screen_height = static_cast<int>(info.yres);
    return true;
}

void screen_close(screen* s)
{
    if (s->fb == -1)
        return;
    tezapi_show_fb(s->fb, 0);
    platform_close(s->fb);
    s->fb = -1;
}

void screen_show_window(screen* s, bool show)
{
    const bool hidden = s->hidden.load(std::memory_order_relaxed);
    logLine() << "screen_show_window" << show << hidden;
    s->show_requested.store(show, std::memory_order_relaxed);
    if (s->fb == -1)
        return;
    tezapi_show_fb(s->fb, show && !hidden ? 1 : 0);
}

void screen_set_hidden(screen* s, bool hide)
{
    // Unhiding forgets the configured size, so the next decoded picture goes through the layout
    // again and the layer stays dark until the reveal delay has run out.
    if (!hide && s->hidden.load(std::memory_order_relaxed) &&
        s->frame_width.load(std::memory_order_relaxed) + s->frame_height.load(std::memory_order_relaxed) >
            0) {
        s->frame_width.store(0, std::memory_order_relaxed);
        s->frame_height.store(0, std::memory_order_relaxed);
        s->show_delay.store(1, std::memory_order_relaxed);
        screen_show_window(s, false);
    }
    s->hidden.store(hide, std::memory_order_relaxed);
    screen_show_window(s, s->show_requested.load(std::memory_order_relaxed));
}

bool screen_reset_layout(screen* s, int width, int height)
{
    if (width == s->frame_width.load(std::memory_order_relaxed) &&
        height == s->frame_height.load(std::memory_order_relaxed))
        return false;
    s->show_delay.store(1, std::memory_order_relaxed);
    s->frame_width.store(width, std::memory_order_relaxed);
    s->frame_height.store(height, std::memory_order_relaxed);
    screen_show_window(s, false);

    int x = 0, y = 0, w = s->screen_width, h = s->screen_height;
    if (s->fullscreen && width > height) {
        // Landscape pictures may be stretched over the whole screen; portrait ones never are.
        s->scale = 0.0f;
    } else {
        // Single precision on purpose: the layer's placement has always been computed this way
        // (kept on purpose: docs/KEPT.md).
        const float sx = static_cast<float>(s->screen_width) / static_cast<float>(width);
        const float sy = static_cast<float>(s->screen_height) / static_cast<float>(height);
        const float scale = sx <= sy ? sx : sy;
        s->scale = scale;
        // The layer wants sizes in multiples of 4.
        w = static_cast<int>(scale * static_cast<float>(width)) & ~3;
        h = static_cast<int>(scale * static_cast<float>(height)) & ~3;
        // A sliver of a picture (16x4096 on 800x480) would round to a layer 0 pixels wide, which
        // the display cannot take: keep the smallest layer it can show.
        if (w < SCREEN_MIN_LAYER || h < SCREEN_MIN_LAYER) {
            std::printf("picture %dx%d too thin for the screen, layer kept at least %d pixels\n", width,
                        height, SCREEN_MIN_LAYER);
            w = w < SCREEN_MIN_LAYER ? SCREEN_MIN_LAYER : w;
            h = h < SCREEN_MIN_LAYER ? SCREEN_MIN_LAYER : h;
        }
        x = (s->screen_width - w) >> 1;
        y = (s->screen_height - h) >> 1;
    }
    // The main thread reads the placement for its touches while this thread sets it.
    s->x.store(x, std::memory_order_relaxed);
    s->y.store(y, std::memory_order_relaxed);
    s->display_width.store(w, std::memory_order_relaxed);
    s->display_height.store(h, std::memory_order_relaxed);
    std::printf("new frame size:%d,%d\n", width, height);
    std::printf("reset display pos:%d,%d,%d,%d\n", x, y, w, h);
    tezapi_init_fb_display(s->fb, width, height, x, y, w, h, 0, 0, 0, 0, 17, 0, 1);
    return true;
}

// Kept on purpose (docs/KEPT.md): 17 ms or less after the last picture is too soon.
bool screen_frame_due(uint32_t now, uint32_t last)
{
    // Unsigned difference, so the cap keeps working when the millisecond clock wraps.
    return now - last > SCREEN_MIN_FRAME_MS;
}

int screen_render_frame(screen* s, video_buffer* buffer, stream_stats* stats)
{
    if (s->fb == -1)
        return 0;

    // The decoder may only overwrite a picture after the display has latched the previous one.
    if (s->last_addr != 0) {
        unsigned a0 = 0, a1 = 0, a2 = 0;
        tezapi_get_fb_addr(s->fb, &a0, &a1, &a2);
        for (int waits = 0; a0 != s->last_addr && waits < SCREEN_MAX_VSYNC_WAITS; ++waits) {
            tezapi_wait_for_vsync(s->fb);
            a0 = a1 = a2 = 0;
            tezapi_get_fb_addr(s->fb, &a0, &a1, &a2);
        }
    }

    decode_output* out = buffer->output;
    out->count = 0;
    const uint64_t decode_start = stats ? static_cast<uint64_t>(monotonic_us()) : 0;
    const int result = MFCDecode(&buffer->mapped_address, out, buffer->new_stream ? 1 : 0, DECODER_INSTANCE);
    if (stats)
        stream_stats_decode(stats, static_cast<uint64_t>(monotonic_us()) - decode_start, result, out->count);
    if (buffer->new_stream)
        buffer->new_stream = false;
    if (out->count <= 0)
        return 1;

    const bool changed = screen_reset_layout(s, out->width, out->height);
    if (changed && stats)
        stream_stats_layout(stats, out->width, out->height, s->x.load(std::memory_order_relaxed),
                            s->y.load(std::memory_order_relaxed),
                            s->display_width.load(std::memory_order_relaxed),
                            s->display_height.load(std::memory_order_relaxed));
    // Without a clock reading nothing is held back: the wait for the latch above still paces the
    // layer, where a guessed time could hold every picture back or let all through.
    uint32_t now = 0;
    const bool timed = get_time_ms(&now) && last_show_known;
    if (!changed && timed && !screen_frame_due(now, last_show_ms)) {
        if (stats)
            stream_stats_bump(stats->frames_not_shown);
        return 1;
    }

    const int count = out->count < DECODE_OUTPUT_MAX_PICTURES ? out->count : DECODE_OUTPUT_MAX_PICTURES;
    for (int i = 0; i < count; ++i) {
        const decode_picture& p = out->pictures[i];
        tezapi_set_fb_addr(s->fb, p.addr[0], p.addr[1], p.addr[2], 0);
        s->last_addr = p.addr[0];
    }

    // Reveal the layer on the fourth shown picture after a layout change, on a vsync, so a
    // half-configured layer is never seen.
    const int delay = s->show_delay.load(std::memory_order_relaxed);
    if (delay > 0) {
        if (delay <= 3) {
            s->show_delay.store(delay + 1, std::memory_order_relaxed);
        } else {
            s->show_delay.store(0, std::memory_order_relaxed);
            tezapi_wait_for_vsync(s->fb);
            screen_show_window(s, true);
        }
    }
    last_show_known = get_time_ms(&last_show_ms);
    if (stats) {
        // Dark while the reveal delay runs or the HMI has hidden the video.
        const bool lit =
            s->show_requested.load(std::memory_order_relaxed) && !s->hidden.load(std::memory_order_relaxed);
        stream_stats_bump(lit ? stats->pictures_shown : stats->frames_not_shown);
    }
    return 1;
}

bool get_time_ms(uint32_t* now)
{
    timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return false;
    *now = static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                                 static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
    return true;
}
