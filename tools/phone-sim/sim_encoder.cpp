#include "sim_encoder.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace sim {

namespace {

struct Yuv {
    uint8_t y, u, v;
};

// BT.601 limited range, the range a decoder of the stream assumes by default.
constexpr Yuv kRed{81, 90, 240};
constexpr Yuv kGreen{145, 54, 34};
constexpr Yuv kBlue{41, 240, 110};
constexpr Yuv kBlack{16, 128, 128};
constexpr Yuv kWhite{235, 128, 128};

std::string av_error(int err)
{
    char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(err, buf, sizeof buf);
    return buf;
}

} // namespace

LiveEncoder::~LiveEncoder()
{
    close();
}

void LiveEncoder::close()
{
    sws_freeContext(sws_);
    sws_ = nullptr;
    av_packet_free(&packet_);
    av_frame_free(&frame_);
    avcodec_free_context(&ctx_);
}

bool LiveEncoder::open(int width, int height, int fps, int64_t bit_rate, std::string* error)
{
    close();
    width_ = width & ~1;
    height_ = height & ~1;
    if (width_ < 16 || height_ < 16) {
        *error = "picture size too small for the encoder";
        return false;
    }
    // The simulator shares the daemon's console; x264's banner and statistics do not belong there.
    av_log_set_level(AV_LOG_ERROR);
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr) {
        *error = "libavcodec has no libx264 encoder";
        return false;
    }
    ctx_ = avcodec_alloc_context3(codec);
    frame_ = av_frame_alloc();
    packet_ = av_packet_alloc();
    if (ctx_ == nullptr || frame_ == nullptr || packet_ == nullptr) {
        *error = "out of memory";
        return false;
    }
    ctx_->width = width_;
    ctx_->height = height_;
    ctx_->pix_fmt = AV_PIX_FMT_YUV420P;
    ctx_->time_base = AVRational{1, fps};
    ctx_->framerate = AVRational{fps, 1};
    ctx_->bit_rate = bit_rate > 0 ? bit_rate : 4000000;
    ctx_->gop_size = fps; // a joining decoder waits at most a second for a key frame
    ctx_->max_b_frames = 0;
    av_opt_set(ctx_->priv_data, "preset", "ultrafast", 0);
    av_opt_set(ctx_->priv_data, "tune", "zerolatency", 0);
    av_opt_set(ctx_->priv_data, "x264-params", "repeat-headers=1:annexb=1:aud=1", 0);
    int err = avcodec_open2(ctx_, codec, nullptr);
    if (err < 0) {
        *error = "cannot open libx264: " + av_error(err);
        return false;
    }
    frame_->format = AV_PIX_FMT_YUV420P;
    frame_->width = width_;
    frame_->height = height_;
    err = av_frame_get_buffer(frame_, 0);
    if (err < 0) {
        *error = "cannot allocate a picture: " + av_error(err);
        return false;
    }
    return true;
}

void LiveEncoder::draw(unsigned n)
{
    const int strip_top = height_ - height_ / 6;
    const int box = height_ / 6;
    const int travel = width_ > box ? width_ - box : 1;
    // One eighth of the width per second at 30 fps, wrapping.
    const int box_x = int((uint64_t(n) * uint64_t(width_) / 240) % uint64_t(travel));
    auto colour_at = [&](int x, int y) {
        if (y >= strip_top)
            return (x >= box_x && x < box_x + box) ? kWhite : kBlack;
        if (x < width_ / 3)
            return kRed;
        if (x < 2 * width_ / 3)
            return kGreen;
        return kBlue;
    };
    for (int y = 0; y < height_; ++y) {
        uint8_t* row = frame_->data[0] + y * frame_->linesize[0];
        for (int x = 0; x < width_; ++x)
            row[x] = colour_at(x, y).y;
    }
    for (int y = 0; y < height_ / 2; ++y) {
        uint8_t* u = frame_->data[1] + y * frame_->linesize[1];
        uint8_t* v = frame_->data[2] + y * frame_->linesize[2];
        for (int x = 0; x < width_ / 2; ++x) {
            const Yuv c = colour_at(2 * x, 2 * y);
            u[x] = c.u;
            v[x] = c.v;
        }
    }
}

bool LiveEncoder::writable(std::string* error)
{
    const int err = av_frame_make_writable(frame_);
    if (err < 0)
        *error = "picture not writable: " + av_error(err);
    return err >= 0;
}

bool LiveEncoder::encode(unsigned n, std::vector<uint8_t>* out, std::string* error)
{
    if (!writable(error))
        return false;
    draw(n);
    return encode_loaded(n, out, error);
}

bool LiveEncoder::load_argb(const uint8_t* pixels, int stride, std::string* error)
{
    if (!writable(error))
        return false;
    // RGB32 is libswscale's name for ARGB in native-endian words; the YUV side gets the BT.601
    // limited range the head unit's decoder assumes, like the pattern.
    sws_ = sws_getCachedContext(sws_, width_, height_, AV_PIX_FMT_RGB32, width_, height_, AV_PIX_FMT_YUV420P,
                                SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (sws_ == nullptr) {
        *error = "no colour conversion from ARGB";
        return false;
    }
    const uint8_t* src[1] = {pixels};
    const int src_stride[1] = {stride};
    sws_scale(sws_, src, src_stride, 0, height_, frame_->data, frame_->linesize);
    return true;
}

bool LiveEncoder::encode_loaded(unsigned n, std::vector<uint8_t>* out, std::string* error)
{
    frame_->pts = n;
    int err = avcodec_send_frame(ctx_, frame_);
    if (err < 0) {
        *error = "encode: " + av_error(err);
        return false;
    }
    err = avcodec_receive_packet(ctx_, packet_);
    if (err < 0) {
        // With zerolatency and no B-frames every picture comes straight out.
        *error = "encoder held the picture back: " + av_error(err);
        return false;
    }
    out->assign(packet_->data, packet_->data + packet_->size);
    av_packet_unref(packet_);
    return true;
}

} // namespace sim
