// The layer in an SDL2 window. SDL chooses X11, Wayland or KMS/DRM by itself; the renderer is
// synchronised to the display so that presenting paces the layer's vsync. The window may be resized:
// the framebuffer is scaled to fit it, and pointer positions are mapped back to framebuffer pixels.
#include "platform/host/host_platform.h"
#include "platform/input.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <SDL2/SDL.h>

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace orvane_host {

WindowView window_view(int window_width, int window_height, int fb_width, int fb_height)
{
    WindowView view;
    view.fb_width = fb_width;
    view.fb_height = fb_height;
    if (window_width <= 0 || window_height <= 0 || fb_width <= 0 || fb_height <= 0)
        return view;
    view.scale = std::min(double(window_width) / fb_width, double(window_height) / fb_height);
    view.x = int(std::lround((window_width - fb_width * view.scale) / 2));
    view.y = int(std::lround((window_height - fb_height * view.scale) / 2));
    return view;
}

void window_to_fb(const WindowView& view, double wx, double wy, unsigned* fx, unsigned* fy)
{
    const auto map = [&](double w, int origin, int size) {
        const double v = std::floor((w - origin) / view.scale);
        return unsigned(std::clamp(v, 0.0, double(size > 0 ? size - 1 : 0)));
    };
    *fx = map(wx, view.x, view.fb_width);
    *fy = map(wy, view.y, view.fb_height);
}

// SDL's video comes up once, with the first window, and stays up for the process: a window per link
// would otherwise load and unload the display's libraries every time (and leave behind what they
// allocated). Until a real display has answered, every window tries again.
static bool sdl_video_up()
{
    static std::mutex mutex;
    static bool up = false;
    std::lock_guard<std::mutex> lock(mutex);
    if (up)
        return true;
    // The daemon's own handlers decide what SIGINT and SIGTERM do.
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
        printf("host display: SDL video unavailable (%s), running headless\n", SDL_GetError());
        SDL_Quit(); // frees what the failed start left behind
        return false;
    }
    // SDL falls back to drivers that show nothing when no display answers; that is no window.
    const char* driver = SDL_GetCurrentVideoDriver();
    if (driver == nullptr || strcmp(driver, "offscreen") == 0 || strcmp(driver, "dummy") == 0) {
        printf("host display: no display to open a window on (SDL driver %s), running headless\n",
               driver ? driver : "none");
        SDL_QuitSubSystem(SDL_INIT_VIDEO);
        SDL_Quit();
        return false;
    }
    up = true;
    return true;
}

bool SdlWindow::open(int width, int height)
{
    if (!sdl_video_up())
        return false;
    const char* driver = SDL_GetCurrentVideoDriver();
    SDL_Window* window = SDL_CreateWindow("Orvane", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED, width,
                                          height, SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE);
    if (!window) {
        printf("host display: SDL window failed (%s), running headless\n", SDL_GetError());
        close();
        return false;
    }
    window_ = window;
    SDL_Renderer* renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_PRESENTVSYNC);
    if (!renderer)
        renderer = SDL_CreateRenderer(window, -1, 0);
    if (!renderer) {
        printf("host display: SDL renderer failed (%s), running headless\n", SDL_GetError());
        close();
        return false;
    }
    renderer_ = renderer;
    fb_width_ = width;
    fb_height_ = height;
    SDL_DisplayMode mode;
    if (SDL_GetWindowDisplayMode(window, &mode) == 0 && mode.refresh_rate > 0)
        refresh_hz_ = mode.refresh_rate;
    pointer_ = input_pointer_enabled();
    pressed_ = false;
    finger_ = -1;
    printf("host display: window %dx%d (%s, %d Hz)%s\n", width, height, driver, refresh_hz_,
           pointer_ ? ", a touchscreen for the phone" : ", input off");
    return true;
}

void SdlWindow::touch(unsigned action, double wx, double wy)
{
    int ww = 0, wh = 0;
    SDL_GetWindowSize(static_cast<SDL_Window*>(window_), &ww, &wh);
    display_input event{DISPLAY_INPUT_TOUCH, action, 0, 0, 0};
    window_to_fb(window_view(ww, wh, fb_width_, fb_height_), wx, wy, &event.x, &event.y);
    input_push(event);
}

// What the phone's keys are on a keyboard.
static int phone_key(const SDL_KeyboardEvent& key)
{
    switch (key.keysym.sym) {
    case SDLK_ESCAPE:
    case SDLK_BACKSPACE:
    case SDLK_AC_BACK:
        return 2;
    case SDLK_LEFT:
        return (key.keysym.mod & KMOD_ALT) != 0 ? 2 : 0;
    case SDLK_HOME:
    case SDLK_AC_HOME:
        return 1;
    case SDLK_MENU:
    case SDLK_APPLICATION:
    case SDLK_F2:
        return 3;
    default:
        return 0;
    }
}

void SdlWindow::take_events()
{
    SDL_Event event;
    while (SDL_PollEvent(&event))
        handle(event);
}

void SdlWindow::wait_events(int ms)
{
    SDL_Event event;
    if (SDL_WaitEventTimeout(&event, ms) == 1) {
        handle(event);
        take_events();
    }
}

void SdlWindow::wake()
{
    SDL_Event event = {};
    event.type = SDL_USEREVENT;
    SDL_PushEvent(&event);
}

void SdlWindow::handle(const SDL_Event& event)
{
    // SDL's quit event follows the close of its last window; the close alone is the person's act.
    if (event.type == SDL_WINDOWEVENT && event.window.event == SDL_WINDOWEVENT_CLOSE) {
        input_push(display_input{DISPLAY_INPUT_CLOSE, 0, 0, 0, 0});
        return;
    }
    if (!pointer_)
        return;
    int ww = 0, wh = 0;
    SDL_GetWindowSize(static_cast<SDL_Window*>(window_), &ww, &wh);
    switch (event.type) {
    case SDL_MOUSEBUTTONDOWN:
        // Fingers come as their own events; SDL's mouse copies of them are not a second pointer.
        if (event.button.which != SDL_TOUCH_MOUSEID && event.button.button == SDL_BUTTON_LEFT && !pressed_) {
            pressed_ = true;
            finger_ = -1;
            touch(1, event.button.x, event.button.y);
        }
        break;
    case SDL_MOUSEMOTION:
        if (event.motion.which != SDL_TOUCH_MOUSEID && pressed_ && finger_ == -1)
            touch(2, event.motion.x, event.motion.y);
        break;
    case SDL_MOUSEBUTTONUP:
        if (event.button.which != SDL_TOUCH_MOUSEID && event.button.button == SDL_BUTTON_LEFT && pressed_ &&
            finger_ == -1) {
            pressed_ = false;
            touch(3, event.button.x, event.button.y);
        }
        break;
    // The phone has one pointer: the first finger down is it until it lifts.
    case SDL_FINGERDOWN:
        if (!pressed_) {
            pressed_ = true;
            finger_ = event.tfinger.fingerId;
            touch(1, event.tfinger.x * ww, event.tfinger.y * wh);
        }
        break;
    case SDL_FINGERMOTION:
        if (pressed_ && finger_ == event.tfinger.fingerId)
            touch(2, event.tfinger.x * ww, event.tfinger.y * wh);
        break;
    case SDL_FINGERUP:
        if (pressed_ && finger_ == event.tfinger.fingerId) {
            pressed_ = false;
            finger_ = -1;
            touch(3, event.tfinger.x * ww, event.tfinger.y * wh);
        }
        break;
    case SDL_KEYDOWN:
        if (event.key.repeat == 0 && phone_key(event.key) != 0)
            input_push(display_input{DISPLAY_INPUT_KEY, 0, 0, 0, phone_key(event.key)});
        break;
    default:
        break;
    }
}

void SdlWindow::present(const AVFrame* picture, bool changed, const Placement& place)
{
    auto* renderer = static_cast<SDL_Renderer*>(renderer_);
    take_events();
    SDL_SetRenderDrawColor(renderer, 0, 0, 0, 255);
    SDL_RenderClear(renderer);
    if (picture && picture->width > 0 && picture->height > 0) {
        if (!texture_ || texture_w_ != picture->width || texture_h_ != picture->height) {
            if (texture_)
                SDL_DestroyTexture(static_cast<SDL_Texture*>(texture_));
            texture_ = SDL_CreateTexture(renderer, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING,
                                         picture->width, picture->height);
            texture_w_ = picture->width;
            texture_h_ = picture->height;
            changed = true;
        }
        auto* texture = static_cast<SDL_Texture*>(texture_);
        if (texture && changed) {
            const AVFrame* planar = picture;
            if (picture->format != AV_PIX_FMT_YUV420P && picture->format != AV_PIX_FMT_YUVJ420P) {
                // Other decoder outputs (4:2:2, high bit depth) are converted for the texture.
                if (!converted_ || converted_->width != picture->width ||
                    converted_->height != picture->height) {
                    av_frame_free(&converted_);
                    converted_ = av_frame_alloc();
                    if (converted_) {
                        converted_->format = AV_PIX_FMT_YUV420P;
                        converted_->width = picture->width;
                        converted_->height = picture->height;
                        if (av_frame_get_buffer(converted_, 0) < 0)
                            av_frame_free(&converted_);
                    }
                }
                sws_ = sws_getCachedContext(sws_, picture->width, picture->height,
                                            AVPixelFormat(picture->format), picture->width, picture->height,
                                            AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
                planar = nullptr;
                if (converted_ && sws_) {
                    sws_scale(sws_, picture->data, picture->linesize, 0, picture->height, converted_->data,
                              converted_->linesize);
                    planar = converted_;
                }
            }
            if (planar)
                SDL_UpdateYUVTexture(texture, nullptr, planar->data[0], planar->linesize[0], planar->data[1],
                                     planar->linesize[1], planar->data[2], planar->linesize[2]);
        }
        if (texture) {
            // The framebuffer scaled into the window as it is now; the layer's place inside it.
            int ow = 0, oh = 0;
            SDL_GetRendererOutputSize(renderer, &ow, &oh);
            const WindowView view = window_view(ow, oh, fb_width_, fb_height_);
            const auto at = [&](int v, int origin) { return origin + int(std::lround(v * view.scale)); };
            const int left = at(place.x, view.x), top = at(place.y, view.y);
            SDL_Rect rect{left, top, at(place.x + place.width, view.x) - left,
                          at(place.y + place.height, view.y) - top};
            SDL_RenderCopy(renderer, texture, nullptr, &rect);
        }
    }
    SDL_RenderPresent(renderer);
}

void SdlWindow::close()
{
    if (texture_)
        SDL_DestroyTexture(static_cast<SDL_Texture*>(texture_));
    if (renderer_)
        SDL_DestroyRenderer(static_cast<SDL_Renderer*>(renderer_));
    if (window_)
        SDL_DestroyWindow(static_cast<SDL_Window*>(window_));
    texture_ = renderer_ = window_ = nullptr;
    texture_w_ = texture_h_ = 0;
    av_frame_free(&converted_);
    sws_freeContext(sws_);
    sws_ = nullptr;
    // SDL keeps per-thread data (its error text) that only its own threads give back; the
    // presenter thread ends with its link, so it hands its share back here.
    SDL_TLSCleanup();
}

} // namespace orvane_host
