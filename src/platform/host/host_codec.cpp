// The shared hardware codec, on a development machine: the codec's lock is an flock on a lock
// file (so "busy" is a real state between processes), and decoding is libavcodec's H.264 decoder
// reading the bitstream in place, by physical address, from the allocator's area.
#include "platform/codec.h"
#include "platform/host/host_platform.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {

// What the caller hands in: the video buffer's three adjacent words.
struct decode_input {
    uint8_t* mapped_address;
    uint32_t physical_address;
    uint32_t length;
};

struct CodecState {
    std::mutex mutex;
    AVCodecContext* context = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    std::vector<uint32_t> last_output; // pictures of the last decode, held until the next one
    int lock_fd = -1;
    long tries = 0;
};

// Never destroyed: the stream thread may be decoding while the process exits.
CodecState& g_codec = *new CodecState;

void print_av_error(const char* what, int err)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(err, text, sizeof text);
    printf("MFCDecode: %s: %s\n", what, text);
}

void release_last_output_locked()
{
    for (uint32_t name : g_codec.last_output)
        orvane_host::picture_release(name);
    g_codec.last_output.clear();
}

void free_context_locked()
{
    avcodec_free_context(&g_codec.context);
    av_packet_free(&g_codec.packet);
    av_frame_free(&g_codec.frame);
}

bool open_context_locked()
{
    g_codec.context = orvane_host::h264_decoder_open();
    g_codec.packet = av_packet_alloc();
    g_codec.frame = av_frame_alloc();
    if (!g_codec.context || !g_codec.packet || !g_codec.frame) {
        if (g_codec.context)
            printf("MFCDecode: out of memory\n");
        free_context_locked();
        return false;
    }
    return true;
}

// The packet borrows the area's memory; the decoder's reference keeps the area mapped even if the
// allocator frees it meanwhile.
void release_area_ref(void* opaque, uint8_t*)
{
    delete static_cast<std::shared_ptr<orvane_host::Area>*>(opaque);
}

int decode_locked(const decode_input& in, decode_output* out)
{
    std::shared_ptr<orvane_host::Area> area = orvane_host::area_find(in.physical_address);
    if (!area) {
        printf("MFCDecode: no memory at physical address 0x%08x\n", in.physical_address);
        return -1;
    }
    const size_t inside = in.physical_address - area->physical;
    const size_t available = area->size > inside ? area->size - inside : 0;
    if (in.length == 0)
        return 0;
    if (in.length > available) {
        printf("MFCDecode: frame of %u bytes overruns the %zu bytes of its area\n", in.length, available);
        return -1;
    }
    uint8_t* data = area->view + inside;
    // The capacity leaves room for this past the largest frame the area can hold.
    std::memset(data + in.length, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    auto* holder = new std::shared_ptr<orvane_host::Area>(area);
    AVBufferRef* buf = av_buffer_create(data, in.length + AV_INPUT_BUFFER_PADDING_SIZE, release_area_ref,
                                        holder, AV_BUFFER_FLAG_READONLY);
    if (!buf) {
        delete holder;
        printf("MFCDecode: out of memory\n");
        return -1;
    }
    AVPacket* pkt = g_codec.packet;
    pkt->buf = buf;
    pkt->data = data;
    pkt->size = static_cast<int>(in.length);
    int err = avcodec_send_packet(g_codec.context, pkt);
    av_packet_unref(pkt);
    if (err < 0 && err != AVERROR(EAGAIN)) {
        print_av_error("bad frame", err);
        return -1;
    }
    int count = 0;
    for (;;) {
        err = avcodec_receive_frame(g_codec.context, g_codec.frame);
        if (err == AVERROR(EAGAIN) || err == AVERROR_EOF)
            break;
        if (err < 0) {
            print_av_error("bad frame", err);
            break;
        }
        if (count < DECODE_OUTPUT_MAX_PICTURES) {
            decode_picture& p = out->pictures[count];
            if (orvane_host::picture_register(g_codec.frame, p.addr) != 0) {
                p.unused[0] = p.unused[1] = 0;
                g_codec.last_output.push_back(p.addr[0]);
                out->width = g_codec.frame->width;
                out->height = g_codec.frame->height;
                ++count;
            }
        }
        av_frame_unref(g_codec.frame);
    }
    out->count = count;
    return 0;
}

} // namespace

AVCodecContext* orvane_host::h264_decoder_open()
{
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    if (!codec) {
        printf("MFCDecode: no H.264 decoder in libavcodec\n");
        return nullptr;
    }
    AVCodecContext* context = avcodec_alloc_context3(codec);
    if (!context) {
        printf("MFCDecode: out of memory\n");
        return nullptr;
    }
    // One access unit in, its picture out, on the calling thread: no frame threads, no reordering delay.
    context->thread_count = 1;
    context->flags |= AV_CODEC_FLAG_LOW_DELAY;
    const int err = avcodec_open2(context, codec, nullptr);
    if (err < 0) {
        print_av_error("cannot open the H.264 decoder", err);
        avcodec_free_context(&context);
    }
    return context;
}

extern "C" int MFCTryLock(void)
{
    std::lock_guard<std::mutex> lock(g_codec.mutex);
    ++g_codec.tries;
    const long busy_tries = orvane_host::fault_number("codec-busy", LONG_MAX);
    if (busy_tries >= 0 && g_codec.tries <= busy_tries)
        return 0;
    if (g_codec.lock_fd >= 0)
        return 0; // held already: a second taker is refused like any other
    const std::string path = orvane_host::env_string("ORVANE_HOST_CODEC_LOCK", "/tmp/orvane-codec.lock");
    // Close-on-exec: a child must not go on holding the codec after MFCUnlock.
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        perror("MFCTryLock");
        return 0;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK)
            perror("MFCTryLock");
        close(fd);
        return 0;
    }
    g_codec.lock_fd = fd;
    return 1;
}

extern "C" int MFCDecode(const void* input, void* output, int new_stream, int instance)
{
    (void)instance; // one instance on this codec
    if (!input || !output)
        return -1;
    decode_input in;
    std::memcpy(&in, input, sizeof in);
    auto* out = static_cast<decode_output*>(output);
    out->count = 0;

    std::lock_guard<std::mutex> lock(g_codec.mutex);
    release_last_output_locked();
    if (new_stream && g_codec.context)
        free_context_locked();
    if (!g_codec.context && !open_context_locked())
        return -1;
    return decode_locked(in, out);
}

extern "C" int MFCRelease(int instance)
{
    (void)instance;
    std::lock_guard<std::mutex> lock(g_codec.mutex);
    release_last_output_locked();
    free_context_locked();
    return 0;
}

extern "C" int MFCUnlock(void)
{
    std::lock_guard<std::mutex> lock(g_codec.mutex);
    if (g_codec.lock_fd < 0)
        return -1;
    close(g_codec.lock_fd);
    g_codec.lock_fd = -1;
    return 0;
}
