// Where the simulator's pictures come from, and when the next one is due: an Annex-B clip or the
// moving test pattern, paced at the frame rate; or the simulated phone's screen, which like a
// phone's own screen encoder sends a picture when the screen changed, at most at the frame rate.
//
// The phone also sends its picture at least kBurstFrames times at the frame rate after a connection
// is made and after each rotation, because the head unit lights its layer only after a few shown
// pictures; and, when repeat_ms is not 0, repeats the last picture after that long without change.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim_encoder.h"
#include "sim_phone.h"
#include "sim_wire.h"

namespace sim {

constexpr int kBurstFrames = 8;

enum class Screen { Phone, Pattern };

struct SourceConfig {
    std::string clip; // wins over screen
    Screen screen = Screen::Phone;
    int width = 1280, height = 720; // the size asked for: the pattern's picture, the phone's bounds
    int fps = 30;
    int64_t bit_rate = 8000000;
    int repeat_ms = 250;
};

struct Frame {
    std::vector<uint8_t> unit;
    uint64_t pts = 0;             // microseconds
    bool rotation = false;        // the first picture after a rotation
    const char* reason = nullptr; // the phone's: "changed", "burst" or "repeat"
};

class FrameSource
{
public:
    using Log = std::function<void(const std::string&)>;

    FrameSource(const SourceConfig& cfg, Log log);
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;

    // Reads the clip or opens the encoder. False with *error on failure.
    bool open(std::string* error);
    // The picture's size now, as the device information announces it.
    void size(int* width, int* height);
    const char* describe() const;

    // A new connection: the phone starts a new stream (a key frame first) and its burst.
    bool begin(std::string* error);
    // Blocks until the next picture is due; false once interrupt() was called.
    bool wait();
    // Picture number n of this connection.
    bool next(unsigned n, Frame* out, std::string* error);
    // A scripted rotation: the phone turns; the pattern or clip marks its next picture.
    void rotate();
    // A control message from the head unit (the control reader's thread).
    void control(const ControlRecord& rec);
    // Ends wait() for this connection (it ended, or the simulator is told to stop).
    void interrupt();

private:
    int64_t phone_due(int64_t now) const;

    SourceConfig cfg_;
    const int64_t period_ns_;
    std::vector<std::vector<uint8_t>> units_;
    LiveEncoder encoder_;

    std::mutex mutex_; // the phone's screen and the schedule, shared with the control reader
    std::condition_variable wake_;
    bool interrupted_ = false;
    std::unique_ptr<PhoneUi> ui_;
    bool rotate_pending_ = false;
    int64_t due_ns_ = 0;       // pattern and clip: the next picture
    int64_t start_ns_ = 0;     // the connection's start, for the phone's time stamps
    int64_t last_sent_ns_ = 0; // the phone's last picture
    unsigned encoded_ = 0;     // pictures since the encoder was opened
    int burst_left_ = 0;
    bool sent_any_ = false;
};

} // namespace sim
