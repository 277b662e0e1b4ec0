// The layer in an SDL2 window. SDL chooses X11, Wayland or KMS/DRM by itself; the renderer is
// synchronised to the display so that presenting paces the layer's vsync.
#include "platform/host/host_platform.h"

#include <cstdio>

#include <SDL2/SDL.h>

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace orvane_host {

bool SdlWindow::open(int width, int height)
{
    if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
        printf("host display: SDL video unavailable (%s), running headless\n", SDL_GetError());
        SDL_Quit(); // frees what the failed start left behind
        return false;
    }
    inited_ = true;
    SDL_Window* window = SDL_CreateWindow("Orvane", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED, width,
                                          height, SDL_WINDOW_SHOWN);
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
    SDL_RenderSetLogicalSize(renderer, width, height);
    SDL_DisplayMode mode;
    if (SDL_GetWindowDisplayMode(window, &mode) == 0 && mode.refresh_rate > 0)
        refresh_hz_ = mode.refresh_rate;
    return true;
}

void SdlWindow::present(const AVFrame* picture, bool changed, const Placement& place)
{
    auto* renderer = static_cast<SDL_Renderer*>(renderer_);
    SDL_Event event;
    while (SDL_PollEvent(&event)) {
        // The daemon decides when the layer goes away; closing the window is not a way to stop it.
    }
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
            SDL_Rect rect{place.x, place.y, place.width, place.height};
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
    if (inited_) {
        SDL_QuitSubSystem(SDL_INIT_VIDEO);
        SDL_Quit();
        inited_ = false;
    }
}

} // namespace orvane_host
