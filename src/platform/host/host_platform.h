// The host backend's internals: what the emulated device files, the codec and the display layer
// share with each other, and a few read-only views for tests. Nothing outside platform/host
// needs this header to run the daemon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct AVCodecContext;
struct display_input;
union SDL_Event;
struct AVFrame;
struct SwsContext;

namespace orvane_host {

// ORVANE_HOST_FAULTS is read on every call so that a test can change it between cases.
bool fault_active(const char* name);
// "name:N" in the list gives N; a bare "name" gives `bare`; absent gives -1.
long fault_number(const char* name, long bare);

std::string env_string(const char* name, const char* fallback);

// Visible resolution of the emulated /dev/fb4 (ORVANE_HOST_FB=WxH, default 1024x600).
void fb_resolution(int* width, int* height);

// One area of the emulated contiguous allocator. `view` is the allocator's own mapping of it,
// which is how the codec reads the bitstream by physical address; it lives as long as the last
// reference (allocation, or a bitstream buffer the decoder still holds).
struct Area {
    uint32_t physical = 0;
    size_t size = 0;     // as asked by the allocation request
    size_t capacity = 0; // page-rounded, with room for the decoder's input padding
    int memfd = -1;
    uint8_t* view = nullptr;
    ~Area();
};
std::shared_ptr<Area> area_find(uint32_t physical);

// Decoded pictures named by the first word of their address triple. A picture stays alive while
// anyone (the codec's last output, the layer's pending or latched slot, a snapshot) references it.
uint32_t picture_register(AVFrame* frame, uint32_t addr[3]); // takes a reference to frame; 1 ref
bool picture_retain(uint32_t a0);                            // false when no such picture
void picture_release(uint32_t a0);
AVFrame* picture_clone(uint32_t a0); // new reference or nullptr; caller frees with av_frame_free
bool picture_size(uint32_t a0, int* width, int* height);

// The codec's H.264 decoder, opened with the settings it decodes with (the benchmarks' baseline
// opens the same); nullptr after printing why it cannot be opened.
AVCodecContext* h264_decoder_open();

// The display layer's life follows the emulated /dev/fb4 descriptor.
bool display_open(int fd);
void display_close(int fd);

// The window's input, handed to the main thread (presenter thread; never blocks). Touches and keys
// are dropped here when ORVANE_HOST_INPUT=0; closing the window always counts.
bool input_pointer_enabled();
void input_push(const display_input& event);

} // namespace orvane_host

// Views for tests and tools.
extern "C" {
int host_memalloc_area_count(void);
// How many times the layer has been asked to wait for a vsync since the process started.
unsigned long host_vsync_wait_count(void);
}

namespace orvane_host {

// Where the layer's picture lands on the screen.
struct Placement {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// The composed screen as a PNG (fb size, black, the picture scaled into its place when shown),
// written to a temporary file and renamed over `path`. `picture` may be null.
bool snapshot_write(const std::string& path, int fb_width, int fb_height, const AVFrame* picture,
                    const Placement& place);

// Where a framebuffer of fb_width x fb_height lands in a window of the given size: scaled to fit,
// centred. Maps a point of the window to the framebuffer pixel under it (clamped to the
// framebuffer, so a finger on the black margin still has a position).
struct WindowView {
    double scale = 1.0;
    int x = 0; // the framebuffer's top-left corner in the window
    int y = 0;
    int fb_width = 0;
    int fb_height = 0;
};
WindowView window_view(int window_width, int window_height, int fb_width, int fb_height);
void window_to_fb(const WindowView& view, double wx, double wy, unsigned* fx, unsigned* fy);

// A desktop window (or KMS/DRM screen) showing the layer; present() returns after the display's
// refresh when the renderer is synchronised to it. The window is also a touchscreen: present()
// turns its pointer, finger and key events into display_input for the main thread.
class SdlWindow
{
public:
    bool open(int width, int height);
    // Draws black and, when `picture` is given, that picture in `place`; `changed` says the
    // picture differs from the last one presented (so it needs uploading).
    void present(const AVFrame* picture, bool changed, const Placement& place);
    int refresh_hz() const { return refresh_hz_; }
    void close();
    ~SdlWindow() { close(); }

    // The presenter thread, between refreshes: takes the window's input as it comes, for up to ms.
    void wait_events(int ms);
    // Any thread: ends a wait_events early (the layer is closing).
    static void wake();

private:
    void take_events();
    void handle(const ::SDL_Event& event);
    void touch(unsigned action, double wx, double wy);

    void* window_ = nullptr;
    void* renderer_ = nullptr;
    void* texture_ = nullptr;
    int texture_w_ = 0;
    int texture_h_ = 0;
    int refresh_hz_ = 60;
    int fb_width_ = 0;
    int fb_height_ = 0;
    bool pointer_ = false;  // touches and keys go to the phone
    bool pressed_ = false;  // the mouse's left button or the first finger is down
    long long finger_ = -1; // that finger's id, -1 for the mouse
    AVFrame* converted_ = nullptr;
    ::SwsContext* sws_ = nullptr;
};

} // namespace orvane_host
