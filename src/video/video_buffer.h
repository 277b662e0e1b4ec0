// The physically contiguous 1 MiB bitstream area the codec reads by physical address, obtained
// from the allocator device and mapped through /dev/mem, with the decoder's output record. The main
// thread sets it up and takes it down while no stream runs; in between only the stream thread
// touches the area, the frame length and the output record.
#pragma once

#include <cstdint>

#include "platform/codec.h"

class QMutex;
class QWaitCondition;
struct screen;

constexpr uint32_t VIDEO_BUFFER_SIZE = 0x100000;

struct video_buffer {
    struct screen* screen; // where frames are shown; set before video_buffer_init
    int memalloc_fd;       // allocator device, -1 when closed
    decode_output* output; // filled by the codec on each decode
    // Input descriptor handed to the codec by address: keep these three adjacent, in this order.
    uint8_t* mapped_address;   // (uint8_t*)-1 when not mapped
    uint32_t physical_address; // 0 when none
    uint32_t length;           // area size when mapped, then the current frame's byte length
    bool new_stream;
    bool codec_locked;
    int frame_width;
    int frame_height;
    QMutex* mutex;
    bool use_condition;
    bool ready;
    QWaitCondition* condition;
    bool initialised;
};

#define VIDEO_BUFFER_UNMAPPED (reinterpret_cast<uint8_t*>(~uintptr_t(0)))

// Main thread, while no stream runs: the record, its area and its mutex (and condition). True even
// when the area could not be had (mapped_address then stays VIDEO_BUFFER_UNMAPPED).
bool video_buffer_init(video_buffer* buffer, bool use_condition, int frame_width, int frame_height);
int video_buffer_memalloc(video_buffer* buffer, int frame_width, int frame_height);
// Main thread: wakes a consumer waiting on the buffer (none does today); takes the mutex briefly.
void video_buffer_signal(video_buffer* buffer);
// Main thread, once the stream is joined.
void video_buffer_destroy(video_buffer* buffer);
