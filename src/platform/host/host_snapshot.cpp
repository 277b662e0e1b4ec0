// Snapshots of the composed screen, for tests and for looking at a headless head unit: swscale
// places the layer's picture, FFmpeg's PNG encoder writes the file.
#include "platform/host/host_platform.h"

#include <cstdio>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace orvane_host {

namespace {

struct FrameGuard {
    AVFrame* f = av_frame_alloc();
    ~FrameGuard() { av_frame_free(&f); }
};

AVFrame* rgb_frame(int width, int height, FrameGuard& guard)
{
    AVFrame* f = guard.f;
    if (!f)
        return nullptr;
    f->format = AV_PIX_FMT_RGB24;
    f->width = width;
    f->height = height;
    if (av_frame_get_buffer(f, 0) < 0)
        return nullptr;
    for (int row = 0; row < height; ++row)
        std::memset(f->data[0] + row * f->linesize[0], 0, size_t(width) * 3);
    return f;
}

// Scales the picture to its on-screen size, then copies the part that falls inside the screen.
bool place_picture(AVFrame* screen, const AVFrame* picture, const Placement& place)
{
    const int x0 = place.x < 0 ? 0 : place.x;
    const int y0 = place.y < 0 ? 0 : place.y;
    const int x1 = place.x + place.width > screen->width ? screen->width : place.x + place.width;
    const int y1 = place.y + place.height > screen->height ? screen->height : place.y + place.height;
    if (x1 <= x0 || y1 <= y0 || picture->width <= 0 || picture->height <= 0)
        return true; // nothing of the layer on screen
    // A placement far larger than the screen is a caller's mistake, not something to allocate for.
    if (place.width > 4 * screen->width || place.height > 4 * screen->height)
        return false;
    FrameGuard scaled_guard;
    AVFrame* scaled = rgb_frame(place.width, place.height, scaled_guard);
    if (!scaled)
        return false;
    SwsContext* sws =
        sws_getContext(picture->width, picture->height, AVPixelFormat(picture->format), place.width,
                       place.height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!sws)
        return false;
    sws_scale(sws, picture->data, picture->linesize, 0, picture->height, scaled->data, scaled->linesize);
    sws_freeContext(sws);
    for (int row = y0; row < y1; ++row)
        std::memcpy(screen->data[0] + row * screen->linesize[0] + x0 * 3,
                    scaled->data[0] + (row - place.y) * scaled->linesize[0] + (x0 - place.x) * 3,
                    size_t(x1 - x0) * 3);
    return true;
}

bool encode_png(const AVFrame* screen, AVPacket* packet)
{
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (!codec)
        return false;
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    if (!ctx)
        return false;
    ctx->width = screen->width;
    ctx->height = screen->height;
    ctx->pix_fmt = AV_PIX_FMT_RGB24;
    ctx->time_base = AVRational{1, 1};
    bool ok = avcodec_open2(ctx, codec, nullptr) >= 0 && avcodec_send_frame(ctx, screen) >= 0 &&
              avcodec_receive_packet(ctx, packet) >= 0;
    avcodec_free_context(&ctx);
    return ok;
}

} // namespace

bool snapshot_write(const std::string& path, int fb_width, int fb_height, const AVFrame* picture,
                    const Placement& place)
{
    FrameGuard screen_guard;
    AVFrame* screen = rgb_frame(fb_width, fb_height, screen_guard);
    if (!screen) {
        printf("snapshot: out of memory\n");
        return false;
    }
    if (picture && !place_picture(screen, picture, place)) {
        printf("snapshot: cannot place a %dx%d picture at %d,%d,%dx%d\n", picture->width, picture->height,
               place.x, place.y, place.width, place.height);
        return false;
    }
    AVPacket* packet = av_packet_alloc();
    if (!packet || !encode_png(screen, packet)) {
        printf("snapshot: PNG encoding failed\n");
        av_packet_free(&packet);
        return false;
    }
    const std::string temp = path + ".tmp";
    FILE* f = std::fopen(temp.c_str(), "wbe");
    bool ok = f && std::fwrite(packet->data, 1, size_t(packet->size), f) == size_t(packet->size);
    if (f && std::fclose(f) != 0)
        ok = false;
    av_packet_free(&packet);
    if (!ok || std::rename(temp.c_str(), path.c_str()) != 0) {
        perror("snapshot");
        std::remove(temp.c_str());
        return false;
    }
    return true;
}

} // namespace orvane_host
