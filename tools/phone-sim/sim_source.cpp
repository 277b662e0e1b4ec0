#include "sim_source.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace sim {

namespace {

int64_t clock_ns(clockid_t id)
{
    timespec ts;
    clock_gettime(id, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t monotonic_ns()
{
    return clock_ns(CLOCK_MONOTONIC);
}

// Until the status bar's clock shows the next minute (time zones differ from UTC in whole minutes).
int64_t to_next_minute_ns()
{
    constexpr int64_t minute = 60000000000;
    return minute - clock_ns(CLOCK_REALTIME) % minute + 1000000;
}

} // namespace

FrameSource::FrameSource(const SourceConfig& cfg, Log log) : cfg_(cfg), period_ns_(1000000000 / cfg.fps)
{
    if (cfg_.clip.empty() && cfg_.screen == Screen::Phone)
        ui_ = std::make_unique<PhoneUi>(cfg_.width, cfg_.height, std::move(log));
}

const char* FrameSource::describe() const
{
    return !cfg_.clip.empty() ? cfg_.clip.c_str() : ui_ ? "phone screen" : "live pattern";
}

bool FrameSource::open(std::string* error)
{
    if (ui_)
        return encoder_.open(ui_->width(), ui_->height(), cfg_.fps, cfg_.bit_rate, error);
    if (cfg_.clip.empty())
        return encoder_.open(cfg_.width, cfg_.height, cfg_.fps, cfg_.bit_rate, error);
    FILE* f = fopen(cfg_.clip.c_str(), "rb");
    if (f == nullptr) {
        *error = "cannot open " + cfg_.clip + ": " + strerror(errno);
        return false;
    }
    std::vector<uint8_t> data;
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    fclose(f);
    units_ = split_access_units(data);
    if (units_.empty()) {
        *error = cfg_.clip + " holds no H.264 access units";
        return false;
    }
    return true;
}

void FrameSource::size(int* width, int* height)
{
    std::lock_guard<std::mutex> lock(mutex_);
    *width = ui_ ? ui_->width() : cfg_.width;
    *height = ui_ ? ui_->height() : cfg_.height;
}

bool FrameSource::begin(std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = false;
    start_ns_ = due_ns_ = monotonic_ns();
    if (!ui_)
        return true;
    // A decoder that joins a stream half-way waits for its next key frame, which a still screen
    // may not send for minutes: every connection gets a stream of its own.
    if (encoded_ > 0 || encoder_.width() != ui_->width() || encoder_.height() != ui_->height()) {
        if (!encoder_.open(ui_->width(), ui_->height(), cfg_.fps, cfg_.bit_rate, error))
            return false;
        encoded_ = 0;
    }
    burst_left_ = kBurstFrames;
    sent_any_ = false;
    return true;
}

int64_t FrameSource::phone_due(int64_t now) const
{
    const int64_t earliest = sent_any_ ? last_sent_ns_ + period_ns_ : now;
    if (burst_left_ > 0 || ui_->changed() || ui_->animating() || ui_->width() != encoder_.width() ||
        ui_->height() != encoder_.height())
        return earliest;
    if (cfg_.repeat_ms > 0)
        return last_sent_ns_ + int64_t(cfg_.repeat_ms) * 1000000;
    return INT64_MAX;
}

bool FrameSource::wait()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (interrupted_)
            return false;
        const int64_t now = monotonic_ns();
        int64_t due;
        if (ui_) {
            ui_->update(now);
            due = phone_due(now);
        } else {
            due_ns_ = std::max(due_ns_, now); // fell behind (slow encoder or a full socket): no catching up
            due = due_ns_;
        }
        if (due <= now)
            return true;
        const int64_t sleep = ui_ ? std::min(due - now, to_next_minute_ns()) : due - now;
        wake_.wait_for(lock, std::chrono::nanoseconds(sleep));
    }
}

bool FrameSource::next(unsigned n, Frame* out, std::string* error)
{
    if (!ui_) {
        out->rotation = rotate_pending_;
        rotate_pending_ = false;
        out->pts = uint64_t(n) * 1000000 / unsigned(cfg_.fps);
        due_ns_ += period_ns_;
        if (!units_.empty()) {
            out->unit = units_[n % units_.size()];
            return true;
        }
        return encoder_.encode(n, &out->unit, error);
    }
    int64_t now;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        now = monotonic_ns();
        ui_->update(now);
        out->rotation = ui_->width() != encoder_.width() || ui_->height() != encoder_.height();
        if (out->rotation) {
            if (!encoder_.open(ui_->width(), ui_->height(), cfg_.fps, cfg_.bit_rate, error))
                return false;
            encoded_ = 0;
            burst_left_ = kBurstFrames;
        }
        out->reason = out->rotation || !sent_any_ || ui_->changed() || ui_->animating() ? "changed"
                      : burst_left_ > 0                                                 ? "burst"
                                                                                        : "repeat";
        int stride = 0;
        const uint8_t* pixels = ui_->render(&stride);
        if (!encoder_.load_argb(pixels, stride, error))
            return false;
        sent_any_ = true;
        last_sent_ns_ = now;
        burst_left_ = std::max(0, burst_left_ - 1);
    }
    out->pts = uint64_t(now - start_ns_) / 1000;
    return encoder_.encode_loaded(encoded_++, &out->unit, error);
}

void FrameSource::rotate()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (ui_)
        ui_->rotate();
    else
        rotate_pending_ = true;
}

void FrameSource::control(const ControlRecord& rec)
{
    if (!ui_)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (rec.type == 2)
        ui_->touch(rec.action, rec.pointer_id, rec.x, rec.y, rec.width, rec.height, monotonic_ns());
    else if (rec.type == 0)
        ui_->key(rec.action, rec.keycode);
    else
        return;
    wake_.notify_all();
}

void FrameSource::interrupt()
{
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = true;
    wake_.notify_all();
}

} // namespace sim
