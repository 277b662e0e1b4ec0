// Emulated device files of the video path. Each emulated descriptor is a real one (an empty
// memfd), so /proc shows honest descriptor counts and closing it is a real close. The allocator's
// "physical" areas are memfds too: the allocator keeps its own mapping of each (the codec's view,
// found by physical address) and "/dev/mem" maps the same memfd at the asked offset.
#include "platform/device.h"
#include "platform/host/host_platform.h"
#include "platform/memalloc.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace orvane_host {

namespace {

enum class Kind { fb, memalloc, mem };

struct Emulated {
    Kind kind;
    dev_t dev;
    ino_t ino;
};

struct Allocation {
    std::shared_ptr<Area> area;
    int owner; // allocator descriptor that asked for it
};

constexpr uint32_t PHYS_FIRST = 0x10000000u;
constexpr uint32_t PHYS_LIMIT = 0xF0000000u;
constexpr uint32_t PHYS_ALIGN = 0x100000u;
constexpr size_t AREA_MAX = 64u << 20;

std::mutex g_mutex;
// Never destroyed, like the layer and the codec that use them, so exit with a link up is clean.
std::map<int, Emulated>& g_fds = *new std::map<int, Emulated>;
std::map<uint32_t, Allocation>& g_areas = *new std::map<uint32_t, Allocation>; // keyed by physical start
uint32_t g_next_phys = PHYS_FIRST;

size_t page_round(size_t n)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (n + page - 1) / page * page;
}

// An emulated entry is trusted only while the number still names the same open file, so a
// descriptor closed behind our back and reused for a socket passes straight through.
bool lookup_locked(int fd, Kind* kind)
{
    auto it = g_fds.find(fd);
    if (it == g_fds.end())
        return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_dev != it->second.dev || st.st_ino != it->second.ino) {
        g_fds.erase(it);
        return false;
    }
    *kind = it->second.kind;
    return true;
}

bool lookup(int fd, Kind* kind)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return lookup_locked(fd, kind);
}

int open_emulated(const char* name, Kind kind)
{
    // Close-on-exec: an adb child must not keep the layer or an allocator alive.
    int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    g_fds[fd] = Emulated{kind, st.st_dev, st.st_ino};
    return fd;
}

std::shared_ptr<Area> find_containing_locked(uint32_t physical)
{
    auto it = g_areas.upper_bound(physical);
    if (it == g_areas.begin())
        return nullptr;
    --it;
    const Area& a = *it->second.area;
    if (physical - a.physical < a.capacity)
        return it->second.area;
    return nullptr;
}

bool overlaps_locked(uint32_t start, uint32_t span)
{
    for (const auto& entry : g_areas) {
        const Area& a = *entry.second.area;
        const uint64_t a_end = uint64_t(a.physical) + a.capacity;
        if (uint64_t(start) < a_end && uint64_t(a.physical) < uint64_t(start) + span)
            return true;
    }
    return false;
}

// Non-zero, page-aligned, distinct from every live area, with a gap after each area.
uint32_t assign_physical_locked(size_t capacity)
{
    const uint32_t span =
        static_cast<uint32_t>((capacity + PHYS_ALIGN - 1) / PHYS_ALIGN * PHYS_ALIGN + PHYS_ALIGN);
    for (size_t tries = 0; tries <= g_areas.size() + 1; ++tries) {
        if (uint64_t(g_next_phys) + span > PHYS_LIMIT)
            g_next_phys = PHYS_FIRST;
        const uint32_t candidate = g_next_phys;
        g_next_phys += span;
        if (!overlaps_locked(candidate, span))
            return candidate;
    }
    return 0;
}

int memalloc_alloc(int fd, memalloc_request* request)
{
    request->physical_address = 0;
    if (fault_active("memalloc-zero")) {
        errno = ENOMEM;
        return -1;
    }
    if (request->size == 0 || request->size > AREA_MAX) {
        errno = ENOMEM;
        return -1;
    }
    auto area = std::make_shared<Area>();
    area->size = request->size;
    area->capacity = page_round(size_t(request->size) + AV_INPUT_BUFFER_PADDING_SIZE);
    area->memfd = memfd_create("orvane-memalloc-area", MFD_CLOEXEC);
    if (area->memfd < 0 || ftruncate(area->memfd, static_cast<off_t>(area->capacity)) != 0) {
        perror("memalloc area");
        errno = ENOMEM;
        return -1;
    }
    void* view = mmap(nullptr, area->capacity, PROT_READ | PROT_WRITE, MAP_SHARED, area->memfd, 0);
    if (view == MAP_FAILED) {
        perror("memalloc area mmap");
        errno = ENOMEM;
        return -1;
    }
    area->view = static_cast<uint8_t*>(view);

    std::lock_guard<std::mutex> lock(g_mutex);
    area->physical = assign_physical_locked(area->capacity);
    if (area->physical == 0) {
        errno = ENOMEM;
        return -1;
    }
    g_areas[area->physical] = Allocation{area, fd};
    request->physical_address = area->physical;
    return 0;
}

int memalloc_free(int fd, const uint32_t* physical)
{
    std::shared_ptr<Area> released; // dropped after the lock, outside the registry
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_areas.find(*physical);
    if (it == g_areas.end() || it->second.owner != fd) {
        errno = EINVAL;
        return -1;
    }
    released = std::move(it->second.area);
    g_areas.erase(it);
    return 0;
}

std::vector<std::shared_ptr<Area>> take_areas_of_locked(int fd)
{
    std::vector<std::shared_ptr<Area>> taken;
    for (auto it = g_areas.begin(); it != g_areas.end();) {
        if (it->second.owner == fd) {
            taken.push_back(std::move(it->second.area));
            it = g_areas.erase(it);
        } else {
            ++it;
        }
    }
    return taken;
}

} // namespace

Area::~Area()
{
    if (view)
        munmap(view, capacity);
    if (memfd >= 0)
        ::close(memfd);
}

std::shared_ptr<Area> area_find(uint32_t physical)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return find_containing_locked(physical);
}

} // namespace orvane_host

using namespace orvane_host;

int platform_open(const char* path, int flags)
{
    if (path && std::strcmp(path, FB_DEVICE) == 0) {
        if (fault_active("fb-open")) {
            errno = ENOENT;
            return -1;
        }
        int fd = open_emulated("orvane-fb4", Kind::fb);
        if (fd >= 0 && !display_open(fd)) {
            platform_close(fd);
            errno = EIO;
            return -1;
        }
        return fd;
    }
    if (path && std::strcmp(path, MEMALLOC_DEVICE) == 0) {
        if (fault_active("memalloc-open")) {
            errno = ENOENT;
            return -1;
        }
        return open_emulated("orvane-memalloc", Kind::memalloc);
    }
    if (path && std::strcmp(path, MEM_DEVICE) == 0) {
        if (fault_active("mem-open")) {
            errno = EACCES;
            return -1;
        }
        return open_emulated("orvane-mem", Kind::mem);
    }
    return (flags & O_CREAT) ? ::open(path, flags, 0666) : ::open(path, flags);
}

int platform_ioctl(int fd, unsigned long request, void* arg)
{
    Kind kind;
    if (!lookup(fd, &kind))
        return ::ioctl(fd, request, arg);
    if (!arg) {
        errno = EFAULT;
        return -1;
    }
    if (kind == Kind::fb && request == FBIOGET_VSCREENINFO) {
        if (fault_active("fb-info")) {
            errno = EIO;
            return -1;
        }
        int w, h;
        fb_resolution(&w, &h);
        auto* info = static_cast<fb_var_screeninfo*>(arg);
        std::memset(info, 0, sizeof *info);
        info->xres = info->xres_virtual = static_cast<uint32_t>(w);
        info->yres = info->yres_virtual = static_cast<uint32_t>(h);
        info->bits_per_pixel = 32;
        return 0;
    }
    if (kind == Kind::memalloc && request == MEMALLOC_IOCTL_ALLOC)
        return memalloc_alloc(fd, static_cast<memalloc_request*>(arg));
    if (kind == Kind::memalloc && request == MEMALLOC_IOCTL_FREE)
        return memalloc_free(fd, static_cast<const uint32_t*>(arg));
    errno = ENOTTY;
    return -1;
}

void* platform_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    Kind kind;
    if (!lookup(fd, &kind))
        return ::mmap(addr, length, prot, flags, fd, offset);
    if (kind != Kind::mem) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    if (fault_active("mmap")) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    if (offset < 0 || uint64_t(offset) > UINT32_MAX || length == 0) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    std::shared_ptr<Area> area = area_find(static_cast<uint32_t>(offset));
    if (!area) {
        errno = ENXIO;
        return MAP_FAILED;
    }
    const size_t inside = static_cast<size_t>(offset) - area->physical;
    if (length > area->capacity - inside) {
        errno = ENXIO;
        return MAP_FAILED;
    }
    return ::mmap(addr, length, prot, flags, area->memfd, static_cast<off_t>(inside));
}

int platform_munmap(void* addr, size_t length)
{
    return ::munmap(addr, length);
}

int platform_close(int fd)
{
    Kind kind;
    bool ours;
    std::vector<std::shared_ptr<Area>> released;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        ours = lookup_locked(fd, &kind);
        if (ours) {
            g_fds.erase(fd);
            if (kind == Kind::memalloc)
                released = take_areas_of_locked(fd);
        }
    }
    if (ours && kind == Kind::fb)
        display_close(fd); // the layer's threads end before the descriptor does
    released.clear();
    return ::close(fd);
}

extern "C" int host_memalloc_area_count(void)
{
    std::lock_guard<std::mutex> lock(orvane_host::g_mutex);
    return static_cast<int>(orvane_host::g_areas.size());
}
