// The video layer of /dev/fb4 on a development machine. set_fb_addr makes a picture pending, the
// next vsync latches it (that is what get_fb_addr then reports), and wait_for_vsync blocks until a
// vsync. The vsync is a clock thread on an absolute monotonic schedule when headless, or the
// refresh of an SDL2 window. The layer's threads live exactly as long as the fb descriptor.
#include "base/worker.h"
#include "base/clock.h"
#include "platform/display.h"
#include "platform/host/host_platform.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include <pthread.h>
#include <time.h>

extern "C" {
#include <libavutil/frame.h>
}

namespace orvane_host {

namespace {

using Clock = std::chrono::steady_clock;

struct Triple {
    uint32_t a[3] = {0, 0, 0};
    bool held = false; // we hold a picture reference for a[0]
};

struct Layer {
    std::mutex mutex;
    std::condition_variable vsync_cv;    // waiters of wait_for_vsync
    std::condition_variable clock_cv;    // wakes the clock/presenter thread to end
    std::condition_variable snapshot_cv; // wakes the snapshot thread
    std::condition_variable idle_cv;     // a close has finished joining the threads

    std::set<int> fds;
    uint64_t generation = 0; // counts closes, so a waiter notices its layer went away
    bool closing = false;

    int fb_width = 0;
    int fb_height = 0;
    int hz = 60;
    bool sdl = false;

    Placement place;
    bool visible = false;

    Triple pending;
    bool has_pending = false;
    Triple latched;
    uint64_t vsync_seq = 0;

    FILE* framelog = nullptr;
    std::string snapshot_path;
    bool snapshot_forced = false;
    bool snapshot_dirty = false;
    Clock::time_point last_snapshot;
    // What was on screen when the layer last went dark, for the snapshot left at the close: the
    // screen hides the layer just before it closes it, and the file must keep the last picture.
    AVFrame* last_lit = nullptr;
    Placement last_lit_place;

    std::thread clock_thread;
    std::thread snapshot_thread;
};

// Never destroyed: the layer's threads may still run while the process exits.
Layer& g_layer = *new Layer;

bool valid_fb_locked(int fb)
{
    return g_layer.fds.count(fb) != 0 && !g_layer.closing;
}

void drop(Triple& t)
{
    if (t.held)
        picture_release(t.a[0]);
    t = Triple{};
}

int parse_hz()
{
    const char* v = std::getenv("ORVANE_HOST_HZ");
    if (!v || !*v)
        return 60;
    char* end = nullptr;
    long hz = std::strtol(v, &end, 10);
    if (*end != '\0' || hz < 0 || hz > 1000) {
        printf("ORVANE_HOST_HZ=%s is not 0..1000, using 60\n", v);
        return 60;
    }
    return static_cast<int>(hz);
}

bool want_sdl()
{
    const std::string mode = env_string("ORVANE_HOST_DISPLAY", "");
    if (mode == "sdl")
        return true;
    if (mode == "headless")
        return false;
    if (!mode.empty())
        printf("ORVANE_HOST_DISPLAY=%s is neither sdl nor headless\n", mode.c_str());
    return mode.empty() && (std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY"));
}

// Takes over the reference that `next` carries.
void latch_locked(const Triple& next)
{
    drop(g_layer.latched);
    g_layer.latched = next;
    if (g_layer.framelog) {
        int w = 0, h = 0;
        picture_size(next.a[0], &w, &h);
        const Placement& p = g_layer.place;
        fprintf(g_layer.framelog, "%llu %dx%d %d,%d,%dx%d %d\n",
                static_cast<unsigned long long>(monotonic_ns()), w, h, p.x, p.y, p.width, p.height,
                g_layer.visible ? 1 : 0);
        fflush(g_layer.framelog);
    }
    if (!g_layer.snapshot_path.empty()) {
        g_layer.snapshot_dirty = true;
        g_layer.snapshot_cv.notify_one();
    }
}

void vsync_locked()
{
    if (g_layer.has_pending) {
        latch_locked(g_layer.pending);
        g_layer.pending = Triple{};
        g_layer.has_pending = false;
    }
    ++g_layer.vsync_seq;
    g_layer.vsync_cv.notify_all();
}

void run_clock(std::unique_lock<std::mutex>& lock, int hz)
{
    const auto period = std::chrono::nanoseconds(1000000000LL / hz);
    auto next = Clock::now() + period;
    while (!g_layer.closing) {
        if (g_layer.clock_cv.wait_until(lock, next, [] { return g_layer.closing; }))
            break;
        vsync_locked();
        next += period;
        const auto now = Clock::now();
        if (next < now) // fell behind (suspended, overloaded): skip the lost ticks, no burst
            next = now + period;
    }
}

void run_sdl(std::unique_lock<std::mutex>& lock)
{
    SdlWindow window;
    const int w = g_layer.fb_width, h = g_layer.fb_height;
    lock.unlock();
    const bool opened = window.open(w, h);
    lock.lock();
    if (!opened) {
        if (g_layer.hz > 0)
            run_clock(lock, g_layer.hz);
        return;
    }
    const auto period = std::chrono::nanoseconds(1000000000LL / window.refresh_hz());
    auto next = Clock::now() + period;
    uint32_t shown = 0;
    while (!g_layer.closing) {
        if (g_layer.has_pending) {
            latch_locked(g_layer.pending);
            g_layer.pending = Triple{};
            g_layer.has_pending = false;
        }
        const bool show = g_layer.visible && g_layer.latched.held;
        AVFrame* picture = show ? picture_clone(g_layer.latched.a[0]) : nullptr;
        const bool changed = show && g_layer.latched.a[0] != shown;
        shown = show ? g_layer.latched.a[0] : 0;
        const Placement place = g_layer.place;
        lock.unlock();
        window.present(picture, changed, place);
        av_frame_free(&picture);
        lock.lock();
        // A renderer without vsync returns at once; keep the display's rate on the monotonic schedule,
        // taking the window's input as it comes until the next refresh rather than once a refresh
        // (display_close wakes the wait).
        const auto now = Clock::now();
        for (auto t = now; t < next && !g_layer.closing; t = Clock::now()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - t).count();
            lock.unlock();
            window.wait_events(static_cast<int>(left));
            lock.lock();
        }
        next = (next + period < now) ? now + period : next + period;
        ++g_layer.vsync_seq;
        g_layer.vsync_cv.notify_all();
    }
    lock.unlock();
    window.close();
    lock.lock();
}

void clock_main()
{
    pthread_setname_np(pthread_self(), g_layer.sdl ? "orvane-sdl" : "orvane-vsync");
    std::unique_lock<std::mutex> lock(g_layer.mutex);
    if (g_layer.sdl)
        run_sdl(lock);
    else
        run_clock(lock, g_layer.hz);
}

void snapshot_main()
{
    pthread_setname_np(pthread_self(), "orvane-snapshot");
    std::unique_lock<std::mutex> lock(g_layer.mutex);
    for (;;) {
        const auto due = g_layer.last_snapshot + std::chrono::seconds(1);
        const bool closing = g_layer.closing;
        const bool now_due =
            closing || g_layer.snapshot_forced || (g_layer.snapshot_dirty && Clock::now() >= due);
        if (!now_due) {
            if (g_layer.snapshot_dirty)
                g_layer.snapshot_cv.wait_until(lock, due);
            else
                g_layer.snapshot_cv.wait(lock);
            continue;
        }
        g_layer.snapshot_forced = g_layer.snapshot_dirty = false;
        const bool show = g_layer.visible && g_layer.latched.held;
        AVFrame* picture = show ? picture_clone(g_layer.latched.a[0]) : nullptr;
        Placement place = g_layer.place;
        if (!show && closing && g_layer.last_lit) {
            picture = av_frame_clone(g_layer.last_lit);
            place = g_layer.last_lit_place;
        }
        const std::string path = g_layer.snapshot_path;
        const int w = g_layer.fb_width, h = g_layer.fb_height;
        lock.unlock();
        snapshot_write(path, w, h, picture, place);
        av_frame_free(&picture);
        lock.lock();
        g_layer.last_snapshot = Clock::now();
        if (closing)
            break;
    }
}

} // namespace

bool display_open(int fd)
{
    std::unique_lock<std::mutex> lock(g_layer.mutex);
    // A close on another thread may still be joining the previous layer's threads.
    g_layer.idle_cv.wait(lock, [] { return !g_layer.closing; });
    g_layer.fds.insert(fd);
    if (g_layer.fds.size() > 1)
        return true; // the layer is already running for another descriptor
    fb_resolution(&g_layer.fb_width, &g_layer.fb_height);
    g_layer.hz = parse_hz();
    g_layer.sdl = want_sdl();
    g_layer.place = Placement{};
    g_layer.visible = false;
    const std::string framelog = env_string("ORVANE_HOST_FRAMELOG", "");
    if (!framelog.empty()) {
        g_layer.framelog = fopen(framelog.c_str(), "ae");
        if (!g_layer.framelog)
            perror("ORVANE_HOST_FRAMELOG");
    }
    g_layer.snapshot_path = env_string("ORVANE_HOST_SNAPSHOT", "");
    g_layer.snapshot_forced = g_layer.snapshot_dirty = false;
    g_layer.last_snapshot = Clock::now() - std::chrono::seconds(2);
    // The layer's threads are workers: the process's signals are not theirs. A thread the system
    // refuses means no layer, which the caller reports as a display that cannot be opened.
    try {
        WorkerSignalMask mask;
        if (g_layer.sdl || g_layer.hz > 0)
            g_layer.clock_thread = std::thread(clock_main);
        if (!g_layer.snapshot_path.empty())
            g_layer.snapshot_thread = std::thread(snapshot_main);
    } catch (const std::system_error& error) {
        printf("host display: cannot start the layer's threads (%s)\n", error.what());
        lock.unlock();
        display_close(fd);
        return false;
    }
    return true;
}

void display_close(int fd)
{
    {
        std::lock_guard<std::mutex> lock(g_layer.mutex);
        if (g_layer.fds.erase(fd) == 0 || !g_layer.fds.empty())
            return;
        g_layer.closing = true;
        ++g_layer.generation;
        g_layer.clock_cv.notify_all();
        if (g_layer.sdl)
            SdlWindow::wake();
        g_layer.snapshot_cv.notify_all();
        g_layer.vsync_cv.notify_all();
    }
    // The snapshot thread writes what is still due before it ends, so the file shows the last state.
    if (g_layer.clock_thread.joinable())
        g_layer.clock_thread.join();
    if (g_layer.snapshot_thread.joinable())
        g_layer.snapshot_thread.join();
    std::lock_guard<std::mutex> lock(g_layer.mutex);
    drop(g_layer.pending);
    g_layer.has_pending = false;
    drop(g_layer.latched);
    av_frame_free(&g_layer.last_lit);
    if (g_layer.framelog)
        fclose(g_layer.framelog);
    g_layer.framelog = nullptr;
    g_layer.snapshot_path.clear();
    g_layer.closing = false;
    g_layer.idle_cv.notify_all();
}

} // namespace orvane_host

using namespace orvane_host;

extern "C" int tezapi_set_display_mode(int)
{
    return 0; // the emulated display has the one mode that shows the video layer
}

extern "C" int tezapi_init_fb_display(int fb, int, int, int x, int y, int display_width, int display_height,
                                      int, int, int, int, int, int, int)
{
    std::lock_guard<std::mutex> lock(g_layer.mutex);
    if (!valid_fb_locked(fb))
        return -1;
    g_layer.place = Placement{x, y, display_width, display_height};
    return 0;
}

extern "C" int tezapi_show_fb(int fb, int on)
{
    std::lock_guard<std::mutex> lock(g_layer.mutex);
    if (!valid_fb_locked(fb))
        return -1;
    if (!g_layer.snapshot_path.empty() && g_layer.visible && !on && g_layer.latched.held) {
        av_frame_free(&g_layer.last_lit);
        g_layer.last_lit = picture_clone(g_layer.latched.a[0]);
        g_layer.last_lit_place = g_layer.place;
    }
    g_layer.visible = on != 0;
    if (!g_layer.snapshot_path.empty()) {
        g_layer.snapshot_forced = true;
        g_layer.snapshot_cv.notify_one();
    }
    return 0;
}

extern "C" int tezapi_get_fb_addr(int fb, unsigned* a0, unsigned* a1, unsigned* a2)
{
    std::lock_guard<std::mutex> lock(g_layer.mutex);
    if (!valid_fb_locked(fb) || !a0 || !a1 || !a2)
        return -1;
    *a0 = g_layer.latched.a[0];
    *a1 = g_layer.latched.a[1];
    *a2 = g_layer.latched.a[2];
    return 0;
}

extern "C" int tezapi_set_fb_addr(int fb, unsigned a0, unsigned a1, unsigned a2, int)
{
    std::lock_guard<std::mutex> lock(g_layer.mutex);
    if (!valid_fb_locked(fb))
        return -1;
    Triple next;
    next.a[0] = a0;
    next.a[1] = a1;
    next.a[2] = a2;
    next.held = picture_retain(a0);
    if (g_layer.hz == 0) {
        latch_locked(next); // no clock: the layer takes the picture at once
        return 0;
    }
    drop(g_layer.pending); // replaced before it was ever scanned out
    g_layer.pending = next;
    g_layer.has_pending = true;
    return 0;
}

static std::atomic<unsigned long> g_vsync_waits{0};

extern "C" unsigned long host_vsync_wait_count(void)
{
    return g_vsync_waits.load(std::memory_order_relaxed);
}

extern "C" int tezapi_wait_for_vsync(int fb)
{
    g_vsync_waits.fetch_add(1, std::memory_order_relaxed);
    std::unique_lock<std::mutex> lock(g_layer.mutex);
    if (!valid_fb_locked(fb))
        return -1;
    if (g_layer.hz == 0)
        return 0;
    const uint64_t seq = g_layer.vsync_seq;
    const uint64_t generation = g_layer.generation;
    // Bounded so that a stalled presenter cannot hang the stream thread.
    const bool ticked = g_layer.vsync_cv.wait_for(lock, std::chrono::seconds(1), [&] {
        return g_layer.vsync_seq != seq || g_layer.generation != generation;
    });
    return ticked && g_layer.generation == generation ? 0 : -1;
}
