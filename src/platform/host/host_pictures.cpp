// Decoded pictures by the address triple the codec reports for them. The display layer only ever
// sees the triple, as on the board; here the triple's first word is the key of a refcounted
// AVFrame, so a picture lives exactly as long as the codec's output or the layer refers to it.
#include "platform/host/host_platform.h"

#include <map>
#include <mutex>

extern "C" {
#include <libavutil/frame.h>
}

namespace orvane_host {

namespace {

struct Picture {
    AVFrame* frame;
    int refs;
};

// Picture names live in their own range, apart from the allocator's physical areas.
constexpr uint32_t NAME_FIRST = 0x80000000u;
constexpr uint32_t NAME_STEP = 0x10u;

std::mutex g_mutex;
// Never destroyed: a layer thread may still hold pictures while the process exits.
std::map<uint32_t, Picture>& g_pictures = *new std::map<uint32_t, Picture>;
uint32_t g_next = NAME_FIRST;

} // namespace

uint32_t picture_register(AVFrame* frame, uint32_t addr[3])
{
    AVFrame* ref = av_frame_clone(frame);
    if (!ref)
        return 0;
    std::lock_guard<std::mutex> lock(g_mutex);
    uint32_t name = 0;
    for (size_t tries = 0; tries <= g_pictures.size(); ++tries) {
        if (g_next < NAME_FIRST)
            g_next = NAME_FIRST; // wrapped
        const uint32_t candidate = g_next;
        g_next += NAME_STEP;
        if (g_pictures.count(candidate) == 0) {
            name = candidate;
            break;
        }
    }
    if (name == 0) {
        av_frame_free(&ref);
        return 0;
    }
    g_pictures[name] = Picture{ref, 1};
    // Luma, then the two chroma planes, like the plane addresses of a scan-out buffer.
    addr[0] = name;
    addr[1] = name + 4;
    addr[2] = name + 8;
    return name;
}

bool picture_retain(uint32_t a0)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_pictures.find(a0);
    if (it == g_pictures.end())
        return false;
    ++it->second.refs;
    return true;
}

void picture_release(uint32_t a0)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_pictures.find(a0);
    if (it == g_pictures.end())
        return;
    if (--it->second.refs <= 0) {
        av_frame_free(&it->second.frame);
        g_pictures.erase(it);
    }
}

AVFrame* picture_clone(uint32_t a0)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_pictures.find(a0);
    return it == g_pictures.end() ? nullptr : av_frame_clone(it->second.frame);
}

bool picture_size(uint32_t a0, int* width, int* height)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_pictures.find(a0);
    if (it == g_pictures.end())
        return false;
    *width = it->second.frame->width;
    *height = it->second.frame->height;
    return true;
}

} // namespace orvane_host
