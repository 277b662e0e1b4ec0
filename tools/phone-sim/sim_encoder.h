// Live H.264 from a moving test pattern or from a picture drawn elsewhere (the simulated phone's
// screen), encoded with libavcodec's libx264 the way a phone-side server streams: no B-frames,
// Annex-B, headers repeated on every key frame, one access unit out for every picture in.
//
// Test pattern (so a snapshot of the head unit's screen can be recognised):
//   top five sixths: left third red (255,0,0), middle third green (0,255,0), right third blue (0,0,255)
//   bottom sixth: black, with a white square (height of the strip) moving left to right, one
//   eighth of the width per second at 30 fps
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

namespace sim {

class LiveEncoder
{
public:
    LiveEncoder() = default;
    ~LiveEncoder();
    LiveEncoder(const LiveEncoder&) = delete;
    LiveEncoder& operator=(const LiveEncoder&) = delete;

    // Width and height are rounded down to even values (4:2:0). False with *error on failure. Called
    // again it starts a new stream (at a new size), whose first picture is a key frame.
    bool open(int width, int height, int fps, int64_t bit_rate, std::string* error);
    // Encodes picture number n of the pattern; *out receives one access unit.
    bool encode(unsigned n, std::vector<uint8_t>* out, std::string* error);
    // Takes a picture of the encoder's size in cairo's ARGB32 layout (native-endian 32-bit words,
    // stride in bytes) as the next one to encode.
    bool load_argb(const uint8_t* pixels, int stride, std::string* error);
    // Encodes the picture last loaded, as number n.
    bool encode_loaded(unsigned n, std::vector<uint8_t>* out, std::string* error);

    int width() const { return width_; }
    int height() const { return height_; }

private:
    void close();
    bool writable(std::string* error);
    void draw(unsigned n);

    AVCodecContext* ctx_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    SwsContext* sws_ = nullptr;
    int width_ = 0;
    int height_ = 0;
};

} // namespace sim
