// Figures of one link's frame path, for the diagnostics object. The stream thread is the only
// writer while it runs; the main thread reads at any time and resets the record only between
// links, when no stream thread exists. One writer, so a relaxed load and store replace a
// read-modify-write, and the frame path pays a clock read and a few plain stores per frame.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

constexpr int STREAM_STATS_DECODE_WINDOW = 128;

struct stream_stats {
    std::atomic<uint64_t> frames_received{0};
    std::atomic<uint64_t> bytes_received{0};   // H.264 bytes, without the phone's framing
    std::atomic<uint64_t> frames_decoded{0};   // decodes that gave a picture
    std::atomic<uint64_t> pictures_shown{0};   // put on the layer while it is revealed
    std::atomic<uint64_t> frames_not_shown{0}; // dropped by the frame-rate cap or put on a dark layer
    std::atomic<uint64_t> decode_errors{0};
    std::atomic<uint64_t> last_frame_ms{0}; // monotonic; 0 before the first frame
    std::atomic<uint32_t> bitrate_kbps{0};  // over the last whole second
    std::atomic<int> picture_width{0};
    std::atomic<int> picture_height{0};
    std::atomic<int> layer_x{0};
    std::atomic<int> layer_y{0};
    std::atomic<int> layer_width{0};
    std::atomic<int> layer_height{0};
    // Decode durations in microseconds, the newest at (decodes - 1) % window.
    std::atomic<uint64_t> decodes{0};
    std::atomic<uint32_t> decode_us[STREAM_STATS_DECODE_WINDOW]{};
    // The stream thread's own bucket for the bit rate; never read elsewhere.
    uint64_t second_start_ms = 0;
    uint64_t second_bytes = 0;
};

inline void stream_stats_bump(std::atomic<uint64_t>& counter, uint64_t by = 1)
{
    counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

// Stream thread: a frame of `bytes` is in the video buffer.
void stream_stats_frame(stream_stats* st, uint32_t bytes);
// Stream thread: one decode took `us`; result < 0 is the codec's error, pictures what it gave.
void stream_stats_decode(stream_stats* st, uint64_t us, int result, int pictures);
// Stream thread: a new layout for a picture of width x height.
void stream_stats_layout(stream_stats* st, int width, int height, int x, int y, int w, int h);

// Main thread, between links.
void stream_stats_reset(stream_stats* st);
// Main thread: the median and 99th percentile of the decode window in ms (0 when empty).
void stream_stats_decode_ms(const stream_stats* st, double* p50, double* p99);
// Main thread: the bit rate of the last second, 0 once no frame came for a second.
uint32_t stream_stats_bitrate_kbps(const stream_stats* st, uint64_t now_ms);
