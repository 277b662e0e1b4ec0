#include "video/stream_stats.h"
#include "base/clock.h"

#include <algorithm>

namespace {

constexpr auto RELAXED = std::memory_order_relaxed;

} // namespace

void stream_stats_frame(stream_stats* st, uint32_t bytes)
{
    const uint64_t now_ms = static_cast<uint64_t>(monotonic_ms());
    stream_stats_bump(st->frames_received);
    stream_stats_bump(st->bytes_received, bytes);
    st->last_frame_ms.store(now_ms, RELAXED);
    const uint64_t elapsed = now_ms - st->second_start_ms;
    if (elapsed >= 1000) {
        // The first frame of a link closes an empty bucket of unknown length: it says nothing.
        const uint64_t kbps = st->second_start_ms == 0 ? 0 : st->second_bytes * 8 / elapsed;
        st->bitrate_kbps.store(static_cast<uint32_t>(std::min<uint64_t>(kbps, UINT32_MAX)), RELAXED);
        st->second_start_ms = now_ms;
        st->second_bytes = 0;
    }
    st->second_bytes += bytes;
}

void stream_stats_decode(stream_stats* st, uint64_t us, int result, int pictures)
{
    const uint64_t n = st->decodes.load(RELAXED);
    st->decode_us[n % STREAM_STATS_DECODE_WINDOW].store(
        static_cast<uint32_t>(std::min<uint64_t>(us, UINT32_MAX)), RELAXED);
    st->decodes.store(n + 1, RELAXED);
    if (result < 0)
        stream_stats_bump(st->decode_errors);
    if (pictures > 0)
        stream_stats_bump(st->frames_decoded);
}

void stream_stats_layout(stream_stats* st, int width, int height, int x, int y, int w, int h)
{
    st->picture_width.store(width, RELAXED);
    st->picture_height.store(height, RELAXED);
    st->layer_x.store(x, RELAXED);
    st->layer_y.store(y, RELAXED);
    st->layer_width.store(w, RELAXED);
    st->layer_height.store(h, RELAXED);
}

void stream_stats_reset(stream_stats* st)
{
    for (auto* counter : {&st->frames_received, &st->bytes_received, &st->frames_decoded, &st->pictures_shown,
                          &st->frames_not_shown, &st->decode_errors, &st->last_frame_ms, &st->decodes})
        counter->store(0, RELAXED);
    st->bitrate_kbps.store(0, RELAXED);
    stream_stats_layout(st, 0, 0, 0, 0, 0, 0);
    st->second_start_ms = 0;
    st->second_bytes = 0;
}

void stream_stats_decode_ms(const stream_stats* st, double* p50, double* p99)
{
    const uint64_t n = std::min<uint64_t>(st->decodes.load(RELAXED), STREAM_STATS_DECODE_WINDOW);
    uint32_t window[STREAM_STATS_DECODE_WINDOW];
    for (uint64_t i = 0; i < n; ++i)
        window[i] = st->decode_us[i].load(RELAXED);
    std::sort(window, window + n);
    // Nearest rank: the smallest duration at or above the share asked for.
    const auto rank = [&](unsigned percent) {
        return n == 0 ? 0.0 : window[(n * percent + 99) / 100 - 1] / 1000.0;
    };
    *p50 = rank(50);
    *p99 = rank(99);
}

uint32_t stream_stats_bitrate_kbps(const stream_stats* st, uint64_t now_ms)
{
    const uint64_t last = st->last_frame_ms.load(RELAXED);
    return last == 0 || now_ms - last >= 1000 ? 0 : st->bitrate_kbps.load(RELAXED);
}
