// The host backend of the platform layer: emulated device files, the codec on libavcodec, and the
// video layer with its vsync, picture log, snapshots and fault switches.
#include "h264_clip.h"
#include "platform/codec.h"
#include "platform/device.h"
#include "platform/display.h"
#include "platform/host/host_platform.h"
#include "platform/memalloc.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <linux/fb.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {

struct decode_input {
    uint8_t* mapped_address;
    uint32_t physical_address;
    uint32_t length;
};

int count_dir(const char* path)
{
    int n = 0;
    DIR* d = opendir(path);
    while (d && readdir(d))
        ++n;
    if (d)
        closedir(d);
    return n;
}
int thread_count()
{
    return count_dir("/proc/self/task");
}
int fd_count()
{
    return count_dir("/proc/self/fd");
}

// A joined thread can linger in /proc for a moment after pthread_join returns.
int settled_thread_count(int expected)
{
    int n = thread_count();
    for (int i = 0; i < 200 && n != expected; ++i) {
        usleep(5000);
        n = thread_count();
    }
    return n;
}

// Sets variables for one test and puts the old values back.
class Env
{
public:
    void set(const char* name, const char* value)
    {
        const char* old = getenv(name);
        saved_.push_back({name, old ? old : "", old != nullptr});
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~Env()
    {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            if (it->had)
                setenv(it->name.c_str(), it->value.c_str(), 1);
            else
                unsetenv(it->name.c_str());
        }
    }

private:
    struct Saved {
        std::string name, value;
        bool had;
    };
    std::vector<Saved> saved_;
};

std::string temp_path(const char* stem)
{
    return std::string("/tmp/orvane-host-test-") + std::to_string(getpid()) + "-" + stem;
}

// One allocator area mapped through /dev/mem, the way the video buffer gets it.
struct MappedArea {
    int memalloc = -1;
    uint32_t physical = 0;
    uint8_t* mapped = nullptr;
    bool ok = false;

    MappedArea()
    {
        memalloc = platform_open(MEMALLOC_DEVICE, O_RDWR | O_SYNC);
        int mem = platform_open(MEM_DEVICE, O_RDWR | O_SYNC);
        if (memalloc < 0 || mem < 0)
            return;
        memalloc_request req{0, 0x100000};
        platform_ioctl(memalloc, MEMALLOC_IOCTL_ALLOC, &req);
        physical = req.physical_address;
        void* p = platform_mmap(nullptr, 0x100000, PROT_READ | PROT_WRITE, MAP_SHARED, mem, physical);
        platform_close(mem);
        ok = physical != 0 && p != MAP_FAILED;
        mapped = ok ? static_cast<uint8_t*>(p) : nullptr;
    }
    ~MappedArea()
    {
        if (memalloc >= 0 && physical)
            platform_ioctl(memalloc, MEMALLOC_IOCTL_FREE, &physical);
        if (memalloc >= 0)
            platform_close(memalloc);
        if (mapped)
            platform_munmap(mapped, 0x100000);
    }
    // Puts one access unit in the area and decodes it.
    decode_output decode(const std::vector<uint8_t>& unit, bool new_stream)
    {
        std::memcpy(mapped, unit.data(), unit.size());
        return decode_length(static_cast<uint32_t>(unit.size()), new_stream);
    }
    decode_output decode_length(uint32_t length, bool new_stream, uint32_t phys = 0)
    {
        decode_input in{mapped, phys ? phys : physical, length};
        decode_output out{};
        out.count = 7; // must be overwritten
        MFCDecode(&in, &out, new_stream ? 1 : 0, 360);
        return out;
    }
};

std::vector<std::string> read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream f(path);
    for (std::string line; std::getline(f, line);)
        lines.push_back(line);
    return lines;
}

// Decodes a PNG file with libavcodec into an RGB24 frame (or null).
AVFrame* decode_png(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (data.empty())
        return nullptr;
    data.resize(data.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_PNG);
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    pkt->data = data.data();
    pkt->size = static_cast<int>(data.size() - AV_INPUT_BUFFER_PADDING_SIZE);
    bool ok = avcodec_open2(ctx, codec, nullptr) >= 0 && avcodec_send_packet(ctx, pkt) >= 0 &&
              avcodec_receive_frame(ctx, frame) >= 0 && frame->format == AV_PIX_FMT_RGB24;
    av_packet_free(&pkt);
    avcodec_free_context(&ctx);
    if (!ok)
        av_frame_free(&frame);
    return frame;
}

const uint8_t* pixel(const AVFrame* f, int x, int y)
{
    return f->data[0] + y * f->linesize[0] + x * 3;
}

int open_fb()
{
    return platform_open(FB_DEVICE, O_RDWR | O_SYNC);
}

const std::vector<std::vector<uint8_t>>& clip_320x240()
{
    static const auto clip = make_h264_clip(320, 240, 30, 30);
    return clip;
}

} // namespace

TEST(HostAllocator, AreaIsTheSameMemoryThroughDevMemAndTheCodecView)
{
    const int fds_before = fd_count();
    {
        MappedArea a, b;
        ASSERT_TRUE(a.ok && b.ok);
        EXPECT_NE(a.physical, b.physical);
        EXPECT_EQ(a.physical % 4096, 0u);
        size_t capacity = 0;
        uint8_t* view = host_memalloc_view(a.physical, &capacity);
        ASSERT_NE(view, nullptr);
        EXPECT_GE(capacity, 0x100000u + AV_INPUT_BUFFER_PADDING_SIZE);
        for (size_t i = 0; i < 0x100000; i += 4093)
            a.mapped[i] = static_cast<uint8_t>(i * 7);
        a.mapped[0xFFFFF] = 0x5A;
        for (size_t i = 0; i < 0x100000; i += 4093)
            ASSERT_EQ(view[i], static_cast<uint8_t>(i * 7)) << i;
        EXPECT_EQ(view[0xFFFFF], 0x5A);
        view[12345] = 0xC3; // and back the other way
        EXPECT_EQ(a.mapped[12345], 0xC3);
        EXPECT_EQ(host_memalloc_view(b.physical, nullptr)[12345], 0);
    }
    EXPECT_EQ(host_memalloc_area_count(), 0);
    EXPECT_EQ(fd_count(), fds_before);
}

TEST(HostAllocator, FreeAndCloseReleaseAreasButKeepLiveMappings)
{
    int memalloc = platform_open(MEMALLOC_DEVICE, O_RDWR | O_SYNC);
    int mem = platform_open(MEM_DEVICE, O_RDWR | O_SYNC);
    ASSERT_GE(memalloc, 0);
    ASSERT_GE(mem, 0);
    memalloc_request r1{0, 0x100000}, r2{0, 0x100000};
    ASSERT_EQ(platform_ioctl(memalloc, MEMALLOC_IOCTL_ALLOC, &r1), 0);
    ASSERT_EQ(platform_ioctl(memalloc, MEMALLOC_IOCTL_ALLOC, &r2), 0);
    auto* m = static_cast<uint8_t*>(
        platform_mmap(nullptr, 0x100000, PROT_READ | PROT_WRITE, MAP_SHARED, mem, r1.physical_address));
    ASSERT_NE(m, MAP_FAILED);
    // Beyond the area, or where no area is, the mapping is refused.
    EXPECT_EQ(platform_mmap(nullptr, 0x400000, PROT_READ, MAP_SHARED, mem, r1.physical_address), MAP_FAILED);
    EXPECT_EQ(platform_mmap(nullptr, 4096, PROT_READ, MAP_SHARED, mem, 0x1000), MAP_FAILED);
    platform_close(mem);
    m[100] = 42;
    EXPECT_EQ(platform_ioctl(memalloc, MEMALLOC_IOCTL_FREE, &r1.physical_address), 0);
    EXPECT_EQ(host_memalloc_view(r1.physical_address, nullptr), nullptr);
    EXPECT_EQ(platform_ioctl(memalloc, MEMALLOC_IOCTL_FREE, &r1.physical_address), -1); // twice
    EXPECT_EQ(m[100], 42); // the mapping still owns the memory
    platform_munmap(m, 0x100000);
    EXPECT_EQ(host_memalloc_area_count(), 1);
    platform_close(memalloc); // r2 was never freed: closing the allocator returns it
    EXPECT_EQ(host_memalloc_area_count(), 0);
    EXPECT_EQ(host_memalloc_view(r2.physical_address, nullptr), nullptr);
}

TEST(HostFaults, EachFaultFailsItsStep)
{
    Env env;
    env.set("ORVANE_HOST_FAULTS", "fb-open");
    EXPECT_EQ(open_fb(), -1);

    env.set("ORVANE_HOST_FAULTS", "fb-info");
    int fb = open_fb();
    ASSERT_GE(fb, 0);
    fb_var_screeninfo info{};
    EXPECT_EQ(platform_ioctl(fb, FBIOGET_VSCREENINFO, &info), -1);
    env.set("ORVANE_HOST_FAULTS", nullptr);
    env.set("ORVANE_HOST_FB", "800x480");
    ASSERT_EQ(platform_ioctl(fb, FBIOGET_VSCREENINFO, &info), 0);
    EXPECT_EQ(info.xres, 800u);
    EXPECT_EQ(info.yres, 480u);
    platform_close(fb);

    env.set("ORVANE_HOST_FAULTS", "memalloc-open");
    EXPECT_EQ(platform_open(MEMALLOC_DEVICE, O_RDWR | O_SYNC), -1);
    env.set("ORVANE_HOST_FAULTS", "mem-open");
    EXPECT_EQ(platform_open(MEM_DEVICE, O_RDWR | O_SYNC), -1);

    env.set("ORVANE_HOST_FAULTS", "fb-info, memalloc-zero");
    int memalloc = platform_open(MEMALLOC_DEVICE, O_RDWR | O_SYNC);
    ASSERT_GE(memalloc, 0);
    memalloc_request req{0xFFFFFFFF, 0x100000};
    platform_ioctl(memalloc, MEMALLOC_IOCTL_ALLOC, &req);
    EXPECT_EQ(req.physical_address, 0u);

    env.set("ORVANE_HOST_FAULTS", "mmap");
    req = {0, 0x100000};
    ASSERT_EQ(platform_ioctl(memalloc, MEMALLOC_IOCTL_ALLOC, &req), 0);
    EXPECT_NE(req.physical_address, 0u);
    int mem = platform_open(MEM_DEVICE, O_RDWR | O_SYNC);
    ASSERT_GE(mem, 0);
    EXPECT_EQ(platform_mmap(nullptr, 0x100000, PROT_READ | PROT_WRITE, MAP_SHARED, mem, req.physical_address),
              MAP_FAILED);
    platform_close(mem);
    platform_close(memalloc);

    env.set("ORVANE_HOST_FAULTS", "codec-busy");
    env.set("ORVANE_HOST_CODEC_LOCK", temp_path("lock-faults").c_str());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(MFCTryLock(), 0);
    env.set("ORVANE_HOST_FAULTS", nullptr);
    EXPECT_EQ(MFCTryLock(), 1);
    MFCUnlock();
    unlink(temp_path("lock-faults").c_str());
}

// Started by CodecLock.BusyCountCountsThisProcessTries in a fresh process with codec-busy:2.
TEST(CodecLockFreshProcess, BusyOnFirstTwoTries)
{
    if (!getenv("HOST_PLATFORM_TEST_FRESH"))
        GTEST_SKIP() << "runs only in the fresh process started by CodecLock.BusyCountCountsThisProcessTries";
    EXPECT_EQ(MFCTryLock(), 0);
    EXPECT_EQ(MFCTryLock(), 0);
    EXPECT_EQ(MFCTryLock(), 1);
    MFCUnlock();
}

TEST(CodecLock, BusyCountCountsThisProcessTries)
{
    const std::string lock = temp_path("lock-count");
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("HOST_PLATFORM_TEST_FRESH", "1", 1);
        setenv("ORVANE_HOST_FAULTS", "codec-busy:2", 1);
        setenv("ORVANE_HOST_CODEC_LOCK", lock.c_str(), 1);
        execl("/proc/self/exe", "host_platform_test", "--gtest_filter=CodecLockFreshProcess.*",
              "--gtest_brief=1", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "fresh process status " << status;
    unlink(lock.c_str());
}

TEST(CodecLock, BusyWhileAnotherProcessHoldsItFreeAfter)
{
    Env env;
    const std::string lock = temp_path("lock-fork");
    env.set("ORVANE_HOST_CODEC_LOCK", lock.c_str());
    env.set("ORVANE_HOST_FAULTS", nullptr);
    int taken[2], release[2];
    ASSERT_EQ(pipe(taken), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char c = static_cast<char>('0' + MFCTryLock());
        (void)!write(taken[1], &c, 1);
        (void)!read(release[0], &c, 1);
        MFCUnlock();
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(taken[0], &c, 1), 1);
    EXPECT_EQ(c, '1');
    EXPECT_EQ(MFCTryLock(), 0);
    EXPECT_EQ(MFCTryLock(), 0);
    (void)!write(release[1], "x", 1);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(MFCTryLock(), 1);
    EXPECT_EQ(MFCTryLock(), 0); // a second taker in this process is refused too
    MFCUnlock();
    EXPECT_EQ(MFCTryLock(), 1); // and it can be taken again after unlocking
    MFCUnlock();
    for (int fd : {taken[0], taken[1], release[0], release[1]})
        close(fd);
    unlink(lock.c_str());
}

TEST(HostCodec, EveryFrameOfAClipGivesItsPicture)
{
    const auto& clip = clip_320x240();
    MappedArea area;
    ASSERT_TRUE(area.ok);
    for (size_t i = 0; i < clip.size(); ++i) {
        decode_output out = area.decode(clip[i], i == 0);
        ASSERT_EQ(out.count, 1) << "frame " << i;
        EXPECT_EQ(out.width, 320);
        EXPECT_EQ(out.height, 240);
        EXPECT_NE(out.pictures[0].addr[0], 0u);
    }
    // Only the last output is held by the codec; releasing it frees every picture.
    EXPECT_EQ(host_picture_count(), 1);
    MFCRelease(360);
    EXPECT_EQ(host_picture_count(), 0);
}

TEST(HostCodec, BadInputGivesNoPictureAndTheNextStreamStillDecodes)
{
    const auto& clip = clip_320x240();
    MappedArea area;
    ASSERT_TRUE(area.ok);
    EXPECT_EQ(area.decode_length(0x100001, true).count, 0);         // beyond the area
    EXPECT_EQ(area.decode_length(0xFFFFFFFF, false).count, 0);      // far beyond
    EXPECT_EQ(area.decode_length(100, false, 0x00001000).count, 0); // no area there
    std::vector<uint8_t> garbage(5000);
    for (size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = static_cast<uint8_t>((i * 2654435761u) >> 13);
    garbage[0] = garbage[1] = garbage[2] = 0;
    garbage[3] = 1;
    EXPECT_EQ(area.decode(garbage, false).count, 0);
    std::vector<uint8_t> truncated(clip[0].begin(), clip[0].begin() + clip[0].size() / 3);
    area.decode(truncated, false); // may conceal; must not crash
    // A full area of a valid frame followed by stale bytes decodes: the padding is ours to zero.
    std::memset(area.mapped, 0xFF, 0x100000);
    decode_output out = area.decode(clip[0], true);
    EXPECT_EQ(out.count, 1);
    EXPECT_EQ(out.width, 320);
    MFCRelease(360);
    EXPECT_EQ(host_picture_count(), 0);
}

TEST(HostDisplay, ImmediateLatchLogsEachPictureWithItsPlacement)
{
    Env env;
    const std::string log = temp_path("framelog");
    unlink(log.c_str());
    env.set("ORVANE_HOST_HZ", "0");
    env.set("ORVANE_HOST_DISPLAY", "headless");
    env.set("ORVANE_HOST_FRAMELOG", log.c_str());
    env.set("ORVANE_HOST_SNAPSHOT", nullptr);
    env.set("ORVANE_HOST_FB", "640x360");
    const auto& clip = clip_320x240();
    MappedArea area;
    ASSERT_TRUE(area.ok);
    tezapi_set_display_mode(1);
    int fb = open_fb();
    ASSERT_GE(fb, 0);
    unsigned a0 = 1, a1 = 1, a2 = 1;
    ASSERT_EQ(tezapi_get_fb_addr(fb, &a0, &a1, &a2), 0);
    EXPECT_EQ(a0 | a1 | a2, 0u);
    tezapi_init_fb_display(fb, 320, 240, 80, 0, 480, 360, 0, 0, 0, 0, 17, 0, 1);
    tezapi_show_fb(fb, 1);
    decode_output out{};
    for (int i = 0; i < 10; ++i) {
        out = area.decode(clip[i], i == 0);
        ASSERT_EQ(out.count, 1);
        const uint32_t* t = out.pictures[0].addr;
        tezapi_set_fb_addr(fb, t[0], t[1], t[2], 0);
        EXPECT_EQ(tezapi_wait_for_vsync(fb), 0);
        tezapi_get_fb_addr(fb, &a0, &a1, &a2);
        EXPECT_EQ(a0, t[0]);
        EXPECT_EQ(a2, t[2]);
        if (i == 7)
            tezapi_show_fb(fb, 0);
    }
    // The layer keeps the latched picture after the codec lets go of it.
    MFCRelease(360);
    EXPECT_EQ(host_picture_count(), 1);
    platform_close(fb);
    EXPECT_EQ(host_picture_count(), 0);
    EXPECT_EQ(tezapi_set_fb_addr(fb, 1, 2, 3, 0), -1); // closed

    auto lines = read_lines(log);
    ASSERT_EQ(lines.size(), 10u);
    unsigned long long previous = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        std::istringstream in(lines[i]);
        unsigned long long ns = 0;
        std::string size, place, visible, extra;
        in >> ns >> size >> place >> visible;
        EXPECT_FALSE(in >> extra);
        EXPECT_GE(ns, previous);
        previous = ns;
        EXPECT_EQ(size, "320x240");
        EXPECT_EQ(place, "80,0,480x360");
        EXPECT_EQ(visible, i >= 8 ? "0" : "1") << lines[i];
    }
    unlink(log.c_str());
}

TEST(HostDisplay, VsyncClockPacesAndLatchesAtTheNextTick)
{
    Env env;
    env.set("ORVANE_HOST_HZ", "100");
    env.set("ORVANE_HOST_DISPLAY", "headless");
    env.set("ORVANE_HOST_FRAMELOG", nullptr);
    env.set("ORVANE_HOST_SNAPSHOT", nullptr);
    const auto& clip = clip_320x240();
    MappedArea area;
    ASSERT_TRUE(area.ok);
    int fb = open_fb();
    ASSERT_GE(fb, 0);
    decode_output out = area.decode(clip[0], true);
    ASSERT_EQ(out.count, 1);
    tezapi_set_fb_addr(fb, out.pictures[0].addr[0], out.pictures[0].addr[1], out.pictures[0].addr[2], 0);
    ASSERT_EQ(tezapi_wait_for_vsync(fb), 0);
    unsigned a0 = 0, a1 = 0, a2 = 0;
    tezapi_get_fb_addr(fb, &a0, &a1, &a2);
    EXPECT_EQ(a0, out.pictures[0].addr[0]);

    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 30; ++i)
        ASSERT_EQ(tezapi_wait_for_vsync(fb), 0);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    EXPECT_GE(ms, 280); // 30 ticks of 10 ms
    EXPECT_LT(ms, 1500);
    platform_close(fb);
    MFCRelease(360);
}

TEST(HostDisplay, SnapshotShowsThePictureInItsRectangleAndBlackWhenHidden)
{
    Env env;
    const std::string png = temp_path("snapshot.png");
    unlink(png.c_str());
    env.set("ORVANE_HOST_HZ", "0");
    env.set("ORVANE_HOST_DISPLAY", "headless");
    env.set("ORVANE_HOST_FRAMELOG", nullptr);
    env.set("ORVANE_HOST_SNAPSHOT", png.c_str());
    env.set("ORVANE_HOST_FB", "320x180");
    const auto red = make_h264_clip(160, 120, 2, 30, "color=c=red");
    MappedArea area;
    ASSERT_TRUE(area.ok);

    int fb = open_fb();
    ASSERT_GE(fb, 0);
    tezapi_init_fb_display(fb, 160, 120, 100, 30, 120, 88, 0, 0, 0, 0, 17, 0, 1);
    tezapi_show_fb(fb, 1);
    decode_output out = area.decode(red[0], true);
    ASSERT_EQ(out.count, 1);
    tezapi_set_fb_addr(fb, out.pictures[0].addr[0], out.pictures[0].addr[1], out.pictures[0].addr[2], 0);
    platform_close(fb); // writes what is still due
    AVFrame* shot = decode_png(png);
    ASSERT_NE(shot, nullptr);
    EXPECT_EQ(shot->width, 320);
    EXPECT_EQ(shot->height, 180);
    for (auto [x, y] : {std::pair{160, 74}, std::pair{103, 33}, std::pair{216, 114}}) {
        const uint8_t* p = pixel(shot, x, y);
        EXPECT_GT(p[0], 200) << x << "," << y;
        EXPECT_LT(p[1], 40);
        EXPECT_LT(p[2], 40);
    }
    for (auto [x, y] : {std::pair{99, 74}, std::pair{220, 74}, std::pair{160, 29}, std::pair{160, 118},
                        std::pair{0, 0}, std::pair{319, 179}}) {
        const uint8_t* p = pixel(shot, x, y);
        EXPECT_EQ(p[0] | p[1] | p[2], 0) << x << "," << y;
    }
    av_frame_free(&shot);

    fb = open_fb();
    ASSERT_GE(fb, 0);
    tezapi_init_fb_display(fb, 160, 120, 100, 30, 120, 88, 0, 0, 0, 0, 17, 0, 1);
    tezapi_show_fb(fb, 1);
    out = area.decode(red[1], false);
    ASSERT_EQ(out.count, 1);
    tezapi_set_fb_addr(fb, out.pictures[0].addr[0], out.pictures[0].addr[1], out.pictures[0].addr[2], 0);
    tezapi_show_fb(fb, 0);
    platform_close(fb);
    shot = decode_png(png);
    ASSERT_NE(shot, nullptr);
    int brightest = 0;
    for (int y = 0; y < shot->height; ++y)
        for (int x = 0; x < shot->width * 3; ++x)
            brightest = std::max<int>(brightest, shot->data[0][y * shot->linesize[0] + x]);
    EXPECT_EQ(brightest, 0);
    av_frame_free(&shot);
    MFCRelease(360);
    unlink(png.c_str());
}

TEST(HostDisplay, ClosingTheFbEndsEveryThreadItStarted)
{
    Env env;
    const std::string png = temp_path("threads.png");
    env.set("ORVANE_HOST_HZ", "60");
    env.set("ORVANE_HOST_FRAMELOG", nullptr);
    env.set("ORVANE_HOST_SNAPSHOT", png.c_str());
    const int threads = thread_count();
    const int fds = fd_count();
    // Headless; SDL with no usable video driver (falls back to the headless clock); SDL's dummy driver.
    const std::pair<const char*, const char*> configs[] = {
        {"headless", nullptr}, {"sdl", "orvane-no-such-driver"}, {"sdl", "dummy"}};
    for (auto [display, driver] : configs) {
        env.set("ORVANE_HOST_DISPLAY", display);
        env.set("SDL_VIDEODRIVER", driver);
        for (int cycle = 0; cycle < 10; ++cycle) {
            int fb = open_fb();
            ASSERT_GE(fb, 0);
            EXPECT_EQ(thread_count(), threads + 2) << display; // vsync (or presenter) and snapshot
            EXPECT_EQ(tezapi_wait_for_vsync(fb), 0) << display;
            tezapi_show_fb(fb, cycle & 1);
            platform_close(fb);
            EXPECT_EQ(settled_thread_count(threads), threads) << display << " cycle " << cycle;
        }
    }
    EXPECT_EQ(fd_count(), fds);
    unlink(png.c_str());
}
