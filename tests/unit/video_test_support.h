// Shared pieces of the video path's tests: the application object, stdout capture, an event
// recorder, the phone's TCP packets, the host display's picture log and a wired video rig.
#pragma once

#include <QCoreApplication>
#include <QThread>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <thread>

#include <sys/socket.h>

#include "h264_clip.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/video_buffer.h"

namespace video_test {

// Also gives the process its own codec lock, so that other tests and daemons cannot make it busy.
inline QCoreApplication* app()
{
    static int argc = 1;
    static char* argv[] = {const_cast<char*>("video_test"), nullptr};
    static const std::string lock = "/tmp/orvane-video-test-" + std::to_string(getpid()) + ".lock";
    setenv("ORVANE_HOST_CODEC_LOCK", lock.c_str(), 1);
    static QCoreApplication* instance = new QCoreApplication(argc, argv);
    return instance;
}

// Everything printed to file descriptor 1 while it lives, released even when an assertion returns early.
class StdoutCapture
{
public:
    StdoutCapture() { testing::internal::CaptureStdout(); }
    ~StdoutCapture() { text(); }
    std::string text()
    {
        if (capturing_)
            text_ = testing::internal::GetCapturedStdout();
        capturing_ = false;
        return text_;
    }

private:
    bool capturing_ = true;
    std::string text_;
};

// The application events 2025..2028 with the thread each was delivered on; read them once the
// stream thread is joined and the posted ones are delivered.
class EventRecorder : public QObject
{
public:
    EventRecorder() { app()->installEventFilter(this); }
    ~EventRecorder() override { app()->removeEventFilter(this); }
    bool eventFilter(QObject*, QEvent* event) override
    {
        const int type = event->type();
        if (type >= 2025 && type <= 2028)
            seen.push_back({type, QThread::currentThread()});
        return type >= 2025 && type <= 2028;
    }
    long count(int type) const
    {
        return std::count_if(seen.begin(), seen.end(), [type](const auto& s) { return s.first == type; });
    }
    std::vector<std::pair<int, QThread*>> seen;
};

inline std::vector<uint8_t> be(uint64_t v, int bytes)
{
    std::vector<uint8_t> out(bytes);
    for (int i = bytes - 1; i >= 0; --i, v >>= 8)
        out[i] = static_cast<uint8_t>(v);
    return out;
}

inline std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> out;
    for (const auto& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// One TCP video packet: 8-byte PTS, 4-byte length, payload (or a header alone with any length).
inline std::vector<uint8_t> tcp_packet(uint64_t pts, const std::vector<uint8_t>& payload, int64_t length = -1)
{
    return cat({be(pts, 8), be(length < 0 ? payload.size() : uint64_t(length), 4), payload});
}

inline bool send_all(int fd, const std::vector<uint8_t>& data)
{
    return ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

template <typename F> bool wait_until(F done, int timeout_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return done();
}

// The host display's picture log: when each picture was latched and "WxH x,y,WxH visible" for it.
inline std::vector<std::pair<unsigned long long, std::string>> read_framelog(const std::string& path)
{
    std::vector<std::pair<unsigned long long, std::string>> out;
    std::ifstream f(path);
    for (std::string line; std::getline(f, line);)
        out.emplace_back(std::stoull(line), line.substr(line.find(' ') + 1));
    return out;
}

// The host display as the next fb open sees it: headless, this size and rate, logs at fresh paths.
struct HostScreenEnv {
    const std::string framelog, snapshot;
    HostScreenEnv(const char* fb, const char* hz, bool with_snapshot = false)
        : framelog("/tmp/orvane-video-" + std::to_string(getpid()) + "-" + fb + "-" + hz + ".log"),
          snapshot(with_snapshot ? framelog + ".png" : "")
    {
        app();
        setenv("ORVANE_HOST_DISPLAY", "headless", 1);
        setenv("ORVANE_HOST_FB", fb, 1);
        setenv("ORVANE_HOST_HZ", hz, 1);
        setenv("ORVANE_HOST_FRAMELOG", framelog.c_str(), 1);
        setenv("ORVANE_HOST_SNAPSHOT", snapshot.c_str(), 1);
        unsetenv("ORVANE_HOST_FAULTS");
    }
    ~HostScreenEnv()
    {
        unlink(framelog.c_str());
        unlink(snapshot.c_str());
    }
};

// 320x240 clips, encoded once per process.
inline const std::vector<std::vector<uint8_t>>& clip(int frames = 30, const std::string& source = "testsrc2")
{
    static std::map<std::string, std::vector<std::vector<uint8_t>>> cache;
    std::vector<std::vector<uint8_t>>& units = cache[std::to_string(frames) + source];
    if (units.empty())
        units = make_h264_clip(320, 240, frames, 30, source);
    return units;
}

// The screen, the video buffer and the decoder, wired as the service wires them.
struct VideoRig {
    screen scr;
    video_buffer buffer{};
    decoder dec{&buffer};
    bool screen_open = false;

    explicit VideoRig(bool open_screen = true)
    {
        app();
        screen_init(&scr);
        screen_open = open_screen && screen_init_rendering(&scr);
        buffer.screen = &scr;
        video_buffer_init(&buffer, false, 1280, 720);
        buffer.new_stream = true;
    }
    ~VideoRig()
    {
        video_buffer_destroy(&buffer);
        screen_close(&scr);
    }
    bool mapped() const { return buffer.mapped_address != VIDEO_BUFFER_UNMAPPED; }
    int render(const std::vector<uint8_t>& unit)
    {
        std::copy(unit.begin(), unit.end(), buffer.mapped_address);
        buffer.length = static_cast<uint32_t>(unit.size());
        return screen_render_frame(&scr, &buffer);
    }
};

} // namespace video_test
