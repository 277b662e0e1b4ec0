// The video layer of /dev/fb4: placement (fitted or full screen), vsync pacing of flips, the
// frame-rate cap, and revealing the layer only a few frames after a layout change.
#pragma once

#include <atomic>
#include <cstdint>

struct video_buffer;
struct stream_stats;

// The main thread opens and closes the screen while no stream runs; the stream thread lays out and
// shows pictures; the main thread (hide, touch mapping) and the thread of EVENT_FRAME_SIZE_CHANGED
// (stream or receiver) also use it while a stream runs. What more than one thread touches is atomic.
struct screen {
    // Read by the main thread (touch mapping) while the stream thread writes them.
    std::atomic<int> frame_width;
    std::atomic<int> frame_height;
    int screen_width;
    int screen_height;
    std::atomic<int> show_delay; // 0 idle; else displayed frames since a layout change
    bool spare;
    std::atomic<bool> hidden;         // the HMI asked to hide the video
    std::atomic<bool> show_requested; // last state passed to screen_show_window
    int fb;                           // -1 when closed
    uint32_t last_addr;               // first address word last handed to the layer
    // Where the picture lies on the screen: read by the main thread (touch mapping) too.
    std::atomic<int> x;
    std::atomic<int> y;
    float scale;
    std::atomic<int> display_width;
    std::atomic<int> display_height;
    bool fullscreen;
};

void screen_init(screen* s);
bool screen_init_rendering(screen* s);
void screen_close(screen* s);
void screen_show_window(screen* s, bool show);
void screen_set_hidden(screen* s, bool hide);
bool screen_reset_layout(screen* s, int width, int height);
// Decodes the buffer's frame and shows its picture; `stats`, when given, counts what happened.
int screen_render_frame(screen* s, video_buffer* buffer, stream_stats* stats = nullptr);
// The frame-rate cap's clock: monotonic milliseconds, wrapping. Not the wall clock, which jumps
// when the head unit learns the time from GPS or the network, and which a 32-bit C library cannot
// read after 2038-01-19. False, and `now` untouched, when the clock cannot be read.
bool get_time_ms(uint32_t* now);

// Pictures closer than this to the last shown one are dropped (about 55 per second at most).
constexpr uint32_t SCREEN_MIN_FRAME_MS = 17;
// Vsyncs waited for, at most, for the previous picture to be latched before the next decode.
constexpr int SCREEN_MAX_VSYNC_WAITS = 3;
// The smallest layer side the display takes (its sizes go in steps of 4).
constexpr int SCREEN_MIN_LAYER = 4;
// The frame-rate cap: true when a picture at `now` may be shown after one shown at `last`.
bool screen_frame_due(uint32_t now, uint32_t last);
