// The host backend of the platform layer: emulated device files, the codec on libavcodec, and the
// video layer with its vsync, picture log, snapshots and fault switches.
#include "platform/codec.h"
#include "platform/device.h"
#include "platform/display.h"
#include "platform/host/host_platform.h"
#include "platform/memalloc.h"
#include "video_test_support.h"

#include <gtest/gtest.h>

#include <thread>

#include <filesystem>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>

namespace {

using namespace video_test;

long entries(const char* dir)
{
    return std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator());
}

// A 1 MiB allocator area mapped through /dev/mem, as the video buffer gets it.
struct Area : video_buffer {
    Area() : video_buffer{} { video_buffer_memalloc(this, 320, 240); }
    ~Area() { video_buffer_destroy(this); }
    decode_output decode(const std::vector<uint8_t>& unit, bool new_stream)
    {
        std::copy(unit.begin(), unit.end(), mapped_address);
        length = static_cast<uint32_t>(unit.size());
        decode_output out{};
        out.count = 7; // must be overwritten
        MFCDecode(&mapped_address, &out, new_stream, 360);
        return out;
    }
};

TEST(HostAllocator, AreaIsTheSameMemoryThroughDevMemAndTheCodecViewUntilFreed)
{
    const long fds = entries("/proc/self/fd");
    {
        Area a, b;
        ASSERT_TRUE(a.mapped_address != VIDEO_BUFFER_UNMAPPED && b.mapped_address != VIDEO_BUFFER_UNMAPPED);
        uint8_t* view = host_memalloc_view(a.physical_address, nullptr);
        ASSERT_NE(view, nullptr);
        a.mapped_address[0xFFFFF] = 0x5A;
        view[12345] = 0xC3;
        EXPECT_TRUE(view[0xFFFFF] == 0x5A && a.mapped_address[12345] == 0xC3 && b.mapped_address[12345] == 0);
        const int mem = platform_open(MEM_DEVICE, O_RDWR); // no mapping past an area or where none is
        EXPECT_EQ(platform_mmap(nullptr, 0x400000, PROT_READ, MAP_SHARED, mem, a.physical_address),
                  MAP_FAILED);
        EXPECT_EQ(platform_mmap(nullptr, 4096, PROT_READ, MAP_SHARED, mem, 0x1000), MAP_FAILED);
        platform_close(mem);
        // Freed, the area is gone for the codec but the mapping keeps its memory.
        EXPECT_EQ(platform_ioctl(a.memalloc_fd, MEMALLOC_IOCTL_FREE, &a.physical_address), 0);
        EXPECT_EQ(host_memalloc_view(a.physical_address, nullptr), nullptr);
        EXPECT_EQ(a.mapped_address[0xFFFFF], 0x5A);
        memalloc_request unfreed{0, 4096};
        ASSERT_EQ(platform_ioctl(b.memalloc_fd, MEMALLOC_IOCTL_ALLOC, &unfreed), 0);
    }
    EXPECT_EQ(host_memalloc_area_count(), 0) << "closing the allocator returns what it still held";
    EXPECT_EQ(entries("/proc/self/fd"), fds);
}

TEST(HostFaults, EachSwitchFailsItsStepAlone)
{
    HostScreenEnv env("800x480", "0");
    // Which of the three steps work: the screen, the video buffer, the codec lock.
    const auto steps = [] {
        screen s;
        screen_init(&s);
        const bool shown = screen_init_rendering(&s);
        screen_close(&s);
        const bool mapped = Area().mapped_address != VIDEO_BUFFER_UNMAPPED;
        const bool locked = MFCTryLock() == 1;
        MFCUnlock();
        return std::vector<bool>{shown, mapped, locked};
    };
    // clang-format off
    const std::pair<const char*, std::vector<bool>> rows[] = {
        {"", {1, 1, 1}}, {"fb-open", {0, 1, 1}}, {"fb-info", {0, 1, 1}}, {"memalloc-open", {1, 0, 1}},
        {"mem-open", {1, 0, 1}}, {"mmap", {1, 0, 1}}, {"memalloc-zero", {1, 0, 1}}, {"codec-busy", {1, 1, 0}}};
    // clang-format on
    for (const auto& [fault, works] : rows) {
        setenv("ORVANE_HOST_FAULTS", fault, 1);
        EXPECT_EQ(steps(), works) << fault;
    }
    unsetenv("ORVANE_HOST_FAULTS");
}

TEST(HostCodecLock, BusyWhileAnotherProcessHoldsIt)
{
    app();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    char c = 0;
    if (fork() == 0) {
        close(pair[0]);
        c = static_cast<char>('0' + MFCTryLock());
        (void)!write(pair[1], &c, 1);
        (void)!read(pair[1], &c, 1); // holds the lock until the parent hangs up
        _exit(0);
    }
    close(pair[1]);
    ASSERT_EQ(read(pair[0], &c, 1), 1);
    EXPECT_EQ(c, '1');
    EXPECT_EQ(MFCTryLock(), 0);
    close(pair[0]);
    wait(nullptr);
    EXPECT_EQ(MFCTryLock(), 1);
    EXPECT_EQ(MFCTryLock(), 0) << "a second taker in this process is refused too";
    MFCUnlock();
}

TEST(HostCodec, DecodesEveryFrameAndRefusesInputOutsideItsArea)
{
    Area area;
    for (size_t i = 0; i < clip().size(); ++i) {
        const decode_output out = area.decode(clip()[i], i == 0);
        ASSERT_EQ(out.count, 1) << "frame " << i;
        EXPECT_TRUE(out.width == 320 && out.height == 240 && out.pictures[0].addr[0] != 0);
    }
    EXPECT_EQ(host_picture_count(), 1) << "only the last output is held";
    const struct {
        uint8_t* mapped;
        uint32_t physical, length;
    } outside[] = {{area.mapped_address, area.physical_address, VIDEO_BUFFER_SIZE + 1},
                   {area.mapped_address, area.physical_address, 0xFFFFFFFF},
                   {area.mapped_address, 0x1000, 100}};
    for (const auto& in : outside) {
        decode_output out{};
        EXPECT_EQ(MFCDecode(&in, &out, 0, 360), -1);
        EXPECT_EQ(out.count, 0);
    }
    // A valid frame with stale bytes behind it still decodes: the padding is the codec's to zero.
    std::memset(area.mapped_address, 0xFF, VIDEO_BUFFER_SIZE);
    EXPECT_EQ(area.decode(clip()[0], true).count, 1);
    MFCRelease(360);
    EXPECT_EQ(host_picture_count(), 0);
}

TEST(HostDisplay, LogsEachLatchedPictureWithItsPlacementAndSnapshotsTheScreen)
{
    HostScreenEnv env("320x180", "0", true);
    const auto red = make_h264_clip(160, 120, 3, 30, "color=c=red");
    Area area;
    int fb = -1;
    for (int i = 0; i < 3; ++i) {
        if (fb < 0) {
            fb = platform_open(FB_DEVICE, O_RDWR);
            tezapi_init_fb_display(fb, 160, 120, 100, 30, 120, 88, 0, 0, 0, 0, 17, 0, 1);
        }
        tezapi_show_fb(fb, i < 2);
        const decode_output out = area.decode(red[i], i == 0);
        const uint32_t* t = out.pictures[0].addr;
        ASSERT_EQ(tezapi_set_fb_addr(fb, t[0], t[1], t[2], 0), 0); // latched at once without a vsync clock
        if (i != 1)
            continue;
        platform_close(fb); // writes the snapshot still due
        fb = -1;
        const std::vector<uint8_t> rgb = png_rgb24(env.snapshot);
        ASSERT_EQ(rgb.size(), 320u * 180 * 3);
        const auto px = [&](int x, int y) { return &rgb[(y * 320 + x) * 3]; };
        for (auto [x, y] : {std::pair{160, 74}, {103, 33}, {216, 114}})
            EXPECT_TRUE(px(x, y)[0] > 200 && px(x, y)[1] < 40 && px(x, y)[2] < 40)
                << "red at " << x << "," << y;
        for (auto [x, y] : {std::pair{99, 74}, {220, 74}, {160, 29}, {160, 118}, {0, 0}, {319, 179}})
            EXPECT_TRUE((px(x, y)[0] | px(x, y)[1] | px(x, y)[2]) == 0) << "black at " << x << "," << y;
    }
    MFCRelease(360);
    EXPECT_EQ(host_picture_count(), 1) << "the layer keeps its latched picture";
    platform_close(fb);
    EXPECT_EQ(host_picture_count(), 0);
    const std::vector<uint8_t> rgb = png_rgb24(env.snapshot);
    EXPECT_TRUE(rgb.size() == 320u * 180 * 3 && *std::max_element(rgb.begin(), rgb.end()) == 0)
        << "all black when hidden";
    const auto shown = read_framelog(env.framelog);
    ASSERT_EQ(shown.size(), 3u);
    for (size_t i = 0; i < shown.size(); ++i)
        EXPECT_EQ(shown[i].second, i < 2 ? "160x120 100,30,120x88 1" : "160x120 100,30,120x88 0");
}

TEST(HostDisplay, VsyncClockLatchesAtTheNextTickAndClosingTheFbEndsEveryThreadItStarted)
{
    HostScreenEnv env("320x180", "100", true);
    Area area;
    // A sanitizer runtime starts its own helper thread with the first thread; let it do so first.
    std::thread([] {}).join();
    const long threads = entries("/proc/self/task");
    // Headless; SDL with no usable video driver (falls back to the headless clock); SDL's dummy driver.
    for (const auto& [display, driver] :
         {std::pair{"headless", ""}, {"sdl", "orvane-no-such-driver"}, {"sdl", "dummy"}}) {
        setenv("ORVANE_HOST_DISPLAY", display, 1);
        setenv("SDL_VIDEODRIVER", driver, 1);
        for (int cycle = 0; cycle < 5; ++cycle) {
            const int fb = platform_open(FB_DEVICE, O_RDWR);
            EXPECT_EQ(entries("/proc/self/task"), threads + 2)
                << display << ": the clock and the snapshot writer";
            const decode_output out = area.decode(clip()[0], true);
            const uint32_t* t = out.pictures[0].addr;
            tezapi_set_fb_addr(fb, t[0], t[1], t[2], 0);
            const auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(tezapi_wait_for_vsync(fb) == 0 && tezapi_wait_for_vsync(fb) == 0) << display;
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(8)) << display;
            unsigned a[3] = {0, 0, 0};
            tezapi_get_fb_addr(fb, &a[0], &a[1], &a[2]);
            EXPECT_EQ(a[0], t[0]) << display;
            tezapi_show_fb(fb, cycle & 1);
            platform_close(fb);
            // A joined thread can linger in /proc for a moment.
            EXPECT_TRUE(wait_until([&] { return entries("/proc/self/task") == threads; }, 1000)) << display;
        }
    }
    unsetenv("SDL_VIDEODRIVER");
    MFCRelease(360);
}

} // namespace
