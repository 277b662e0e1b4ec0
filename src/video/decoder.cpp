#include "video/decoder.h"

#include <unistd.h>

#include <cstdio>

#include "platform/codec.h"
#include "base/log_line.h"
#include "video/video_buffer.h"

namespace {

constexpr int LOCK_ATTEMPTS = 4;
constexpr useconds_t LOCK_RETRY_US = 250000;

} // namespace

bool decoder_open(decoder* dec, int flags)
{
    (void)flags;
    // The hardware codec is shared with other applications on the head unit: give its owner
    // about a second to let go before this stream gives up.
    int result = 0;
    for (int attempts = LOCK_ATTEMPTS;;) {
        result = MFCTryLock();
        std::printf("%s, MFCTryLock:%d\n", "decoder_open", result);
        if (result == 1)
            break;
        usleep(LOCK_RETRY_US);
        if (--attempts == 0) {
            std::printf("%s MFC Lock failed\n", "decoder_open");
            return false;
        }
    }
    if (dec && dec->video_buffer) {
        dec->video_buffer->new_stream = true;
        dec->video_buffer->codec_locked = true;
    }
    logLine() << "decoder_open"
              << "MFCLock:" << result;
    return true;
}

// Kept on purpose (docs/KEPT.md): the lock flag stays set until the next allocation.
void decoder_close(decoder* dec)
{
    if (!dec || !dec->video_buffer || !dec->video_buffer->codec_locked)
        return;
    MFCRelease(DECODER_INSTANCE);
    MFCUnlock();
}

void decoder_interrupt(decoder* dec)
{
    if (dec && dec->video_buffer)
        video_buffer_signal(dec->video_buffer);
}
