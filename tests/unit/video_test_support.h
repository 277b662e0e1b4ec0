// Shared pieces of the video path's unit tests: a Qt application object for the events, capture
// of the console (stdout and the service's log lines), an event recorder on the application
// object, and the wire format of the phone's video packets.
#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QThread>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace video_test {

inline QCoreApplication* app()
{
    static int argc = 1;
    static char name[] = "video_test";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* instance = new QCoreApplication(argc, argv);
    return instance;
}

// Each test process gets its own codec lock file, so that test binaries run in parallel do not
// take the emulated hardware codec from each other.
inline void use_private_codec_lock()
{
    static const std::string path = "/tmp/orvane-video-test-" + std::to_string(getpid()) + ".lock";
    setenv("ORVANE_HOST_CODEC_LOCK", path.c_str(), 1);
}

// Everything written to file descriptor 1 (printf, puts) between construction and text().
class StdoutCapture
{
public:
    StdoutCapture()
    {
        std::fflush(stdout);
        char path[] = "/tmp/orvane-video-out-XXXXXX";
        fd_ = mkstemp(path);
        unlink(path);
        saved_ = dup(1);
        dup2(fd_, 1);
    }
    ~StdoutCapture() { restore(); }
    std::string text()
    {
        restore();
        std::string out;
        lseek(fd_, 0, SEEK_SET);
        char buf[4096];
        ssize_t n;
        while ((n = read(fd_, buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    void restore()
    {
        if (saved_ < 0)
            return;
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
        saved_ = -1;
    }
    int fd_ = -1;
    int saved_ = -1;
};

inline size_t count_of(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + what.size()))
        ++n;
    return n;
}

// The service-layer log lines (Qt debug messages) written while it is alive.
class LogCapture
{
public:
    LogCapture()
    {
        std::lock_guard<std::mutex> lock(mutex());
        lines().clear();
        previous_ = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture() { qInstallMessageHandler(previous_); }
    std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> lock(mutex());
        return lines();
    }

private:
    static std::mutex& mutex()
    {
        static std::mutex m;
        return m;
    }
    static std::vector<std::string>& lines()
    {
        static std::vector<std::string> l;
        return l;
    }
    static void handler(QtMsgType, const QMessageLogContext&, const QString& text)
    {
        std::lock_guard<std::mutex> lock(mutex());
        lines().push_back(text.toStdString());
    }
    QtMessageHandler previous_ = nullptr;
};

// Records the application events 2025..2028 and the thread each one was delivered on.
class EventRecorder : public QObject
{
public:
    struct Seen {
        int type;
        QThread* thread;
    };
    EventRecorder() { app()->installEventFilter(this); }
    ~EventRecorder() override { app()->removeEventFilter(this); }
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        const int type = static_cast<int>(event->type());
        if (type >= 2025 && type <= 2028) {
            std::lock_guard<std::mutex> lock(mutex_);
            seen_.push_back({type, QThread::currentThread()});
            return true;
        }
        return QObject::eventFilter(watched, event);
    }
    // Delivers what was posted so far (the stream-stopped event) on this thread.
    std::vector<Seen> take()
    {
        QCoreApplication::sendPostedEvents();
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }
    int count(int type)
    {
        int n = 0;
        for (const Seen& s : take())
            n += s.type == type;
        return n;
    }

private:
    std::mutex mutex_;
    std::vector<Seen> seen_;
};

inline void put_be(uint8_t* p, uint64_t v, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i, v >>= 8)
        p[i] = static_cast<uint8_t>(v & 0xFF);
}

// One TCP video packet: 8-byte PTS, 4-byte length, payload.
inline std::vector<uint8_t> tcp_packet(uint64_t pts, const std::vector<uint8_t>& payload)
{
    std::vector<uint8_t> packet(12 + payload.size());
    put_be(packet.data(), pts, 8);
    put_be(packet.data() + 8, payload.size(), 4);
    std::copy(payload.begin(), payload.end(), packet.begin() + 12);
    return packet;
}

inline std::vector<uint8_t> tcp_header(uint64_t pts, uint32_t length)
{
    std::vector<uint8_t> header(12);
    put_be(header.data(), pts, 8);
    put_be(header.data() + 8, length, 4);
    return header;
}

inline bool send_all(int fd, const void* data, size_t size)
{
    const uint8_t* p = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const ssize_t n = ::send(fd, p, size, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

inline bool send_all(int fd, const std::vector<uint8_t>& data)
{
    return send_all(fd, data.data(), data.size());
}

// One byte within `timeout_ms`, or -1.
inline int read_byte(int fd, int timeout_ms)
{
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1)
        return -1;
    uint8_t b = 0;
    return ::recv(fd, &b, 1, 0) == 1 ? b : -1;
}

// Polls `done` every few milliseconds for at most `timeout_ms`.
template <typename F> bool wait_until(F done, int timeout_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// One line of the host display's picture log: a latched picture, its size, its placement and
// whether the layer was visible.
struct Latched {
    unsigned long long ns = 0;
    int width = 0, height = 0;
    int x = 0, y = 0, display_width = 0, display_height = 0;
    int visible = 0;
};

inline std::vector<Latched> read_framelog(const std::string& path)
{
    std::vector<Latched> out;
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f)
        return out;
    Latched l;
    while (std::fscanf(f, "%llu %dx%d %d,%d,%dx%d %d", &l.ns, &l.width, &l.height, &l.x, &l.y,
                       &l.display_width, &l.display_height, &l.visible) == 8)
        out.push_back(l);
    std::fclose(f);
    return out;
}

inline std::string temp_path(const char* what)
{
    static int serial = 0;
    return "/tmp/orvane-video-" + std::to_string(getpid()) + "-" + std::to_string(++serial) + "-" + what;
}

// The host display, headless, with the given screen size and vsync rate; the picture log (and
// optionally snapshots) at fresh paths. Read when the layer opens, so set before screen_init_rendering.
struct HostScreenEnv {
    std::string framelog = temp_path("frames.log");
    std::string snapshot;
    HostScreenEnv(const char* fb, const char* hz, bool with_snapshot = false)
    {
        use_private_codec_lock();
        setenv("ORVANE_HOST_DISPLAY", "headless", 1);
        setenv("ORVANE_HOST_FB", fb, 1);
        setenv("ORVANE_HOST_HZ", hz, 1);
        setenv("ORVANE_HOST_FRAMELOG", framelog.c_str(), 1);
        if (with_snapshot) {
            snapshot = temp_path("screen.png");
            setenv("ORVANE_HOST_SNAPSHOT", snapshot.c_str(), 1);
        } else {
            unsetenv("ORVANE_HOST_SNAPSHOT");
        }
        unsetenv("ORVANE_HOST_FAULTS");
    }
    ~HostScreenEnv()
    {
        unlink(framelog.c_str());
        if (!snapshot.empty())
            unlink(snapshot.c_str());
        unsetenv("ORVANE_HOST_FRAMELOG");
        unsetenv("ORVANE_HOST_SNAPSHOT");
    }
};

} // namespace video_test

#include "h264_clip.h"
#include "video/decoder.h"
#include "video/screen.h"
#include "video/video_buffer.h"

#include <cstring>
#include <map>

namespace video_test {

// Clips are encoded once per process.
inline const std::vector<std::vector<uint8_t>>& clip(int w, int h, int frames, const char* source)
{
    static std::map<std::string, std::vector<std::vector<uint8_t>>> cache;
    const std::string key =
        std::to_string(w) + "x" + std::to_string(h) + "/" + std::to_string(frames) + "/" + source;
    auto it = cache.find(key);
    if (it == cache.end())
        it = cache.emplace(key, make_h264_clip(w, h, frames, 30, source)).first;
    return it->second;
}

// The screen, the video buffer and the locked decoder, wired as the service wires them.
struct VideoRig {
    screen scr;
    video_buffer buffer{};
    decoder dec{};
    bool screen_open = false;
    bool decoder_locked = false;

    explicit VideoRig(bool open_screen = true, bool lock_decoder = true)
    {
        screen_init(&scr);
        if (open_screen)
            screen_open = screen_init_rendering(&scr);
        buffer.screen = &scr;
        buffer.memalloc_fd = -1;
        buffer.mapped_address = VIDEO_BUFFER_UNMAPPED;
        video_buffer_init(&buffer, false, 1280, 720);
        dec.video_buffer = &buffer;
        if (lock_decoder)
            decoder_locked = decoder_open(&dec, 0);
    }
    ~VideoRig()
    {
        if (decoder_locked)
            decoder_close(&dec);
        video_buffer_destroy(&buffer);
        screen_close(&scr);
    }
    bool mapped() const { return buffer.mapped_address != VIDEO_BUFFER_UNMAPPED; }
    // What the stream reader does for one received frame, minus the socket.
    int render(const std::vector<uint8_t>& unit)
    {
        std::memcpy(buffer.mapped_address, unit.data(), unit.size());
        buffer.length = static_cast<uint32_t>(unit.size());
        return screen_render_frame(&scr, &buffer);
    }
};

} // namespace video_test
