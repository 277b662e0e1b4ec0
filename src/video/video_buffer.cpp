#include "video/video_buffer.h"

#include <QMutex>
#include <QWaitCondition>

#include <fcntl.h>
#include <sys/mman.h>

#include <cstdio>

#include "platform/device.h"
#include "platform/memalloc.h"

namespace {

// The codec writes its pictures here; there is one codec instance, so one record serves the process.
decode_output g_decode_output;

} // namespace

int video_buffer_memalloc(video_buffer* buffer, int frame_width, int frame_height)
{
    buffer->frame_width = frame_width;
    buffer->frame_height = frame_height;
    buffer->output = &g_decode_output;
    buffer->codec_locked = false;
    buffer->physical_address = 0;
    buffer->mapped_address = VIDEO_BUFFER_UNMAPPED;

    buffer->memalloc_fd = platform_open("/tmp/dev/memalloc", O_RDWR | O_SYNC);
    if (buffer->memalloc_fd == -1) {
        std::puts("open memalloc failed!");
        return -1;
    }
    const int mem = platform_open("/dev/mem", O_RDWR | O_SYNC);
    if (mem == -1) {
        platform_close(buffer->memalloc_fd);
        buffer->memalloc_fd = -1;
        std::printf("Failed to open: %s\n", "/dev/mem");
        return -1;
    }

    buffer->length = VIDEO_BUFFER_SIZE;
    memalloc_request request = {0, VIDEO_BUFFER_SIZE};
    // The driver's own return code says nothing useful; an address of 0 is its way to refuse.
    platform_ioctl(buffer->memalloc_fd, MEMALLOC_IOCTL_ALLOC, &request);
    if (request.physical_address == 0) {
        std::puts("Memalloc: get buffer failure");
        platform_close(mem);
        platform_close(buffer->memalloc_fd);
        buffer->memalloc_fd = -1;
        return -1;
    }

    buffer->physical_address = request.physical_address;
    void* mapped = platform_mmap(nullptr, buffer->length, PROT_READ | PROT_WRITE, MAP_SHARED, mem,
                                 static_cast<off_t>(buffer->physical_address));
    if (mapped == MAP_FAILED) {
        // Kept on purpose (docs/KEPT.md): the text as it has always been spelled; the area is not freed here.
        std::puts("Memalloc buffer mmap faile");
        platform_close(mem);
        platform_close(buffer->memalloc_fd);
        buffer->memalloc_fd = -1;
        return -1;
    }
    buffer->mapped_address = static_cast<uint8_t*>(mapped);
    // The mapping outlives the descriptor.
    platform_close(mem);
    return 0;
}

bool video_buffer_init(video_buffer* buffer, bool use_condition, int frame_width, int frame_height)
{
    const int result = video_buffer_memalloc(buffer, frame_width, frame_height);
    std::printf("init tez video buffer:%d\n", result);
    buffer->mutex = new QMutex();
    buffer->use_condition = use_condition;
    buffer->condition = nullptr;
    if (use_condition) {
        buffer->condition = new QWaitCondition();
        buffer->ready = false;
    }
    buffer->initialised = true;
    // A failed allocation is not reported here, only printed above (kept on purpose: docs/KEPT.md);
    // the service fails the link's start when the area is not mapped.
    return true;
}

void video_buffer_signal(video_buffer* buffer)
{
    if (!buffer->use_condition || !buffer->mutex || !buffer->condition)
        return;
    buffer->mutex->lock();
    buffer->ready = true;
    buffer->mutex->unlock();
    buffer->condition->wakeOne();
}

void video_buffer_destroy(video_buffer* buffer)
{
    if (buffer->use_condition && buffer->condition) {
        delete buffer->condition;
        buffer->condition = nullptr;
    }
    if (buffer->mutex) {
        delete buffer->mutex;
        buffer->mutex = nullptr;
    }
    if (buffer->memalloc_fd != -1 && buffer->physical_address != 0) {
        platform_ioctl(buffer->memalloc_fd, MEMALLOC_IOCTL_FREE, &buffer->physical_address);
        platform_close(buffer->memalloc_fd);
        buffer->memalloc_fd = -1;
    }
    if (buffer->mapped_address != VIDEO_BUFFER_UNMAPPED) {
        platform_munmap(buffer->mapped_address, VIDEO_BUFFER_SIZE);
        buffer->mapped_address = VIDEO_BUFFER_UNMAPPED;
    }
}
