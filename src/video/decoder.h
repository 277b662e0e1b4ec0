// Adapter around the shared hardware codec: win its lock (with retries), release it at the end of
// a stream, and wake the video buffer's channel on stop.
#pragma once

struct video_buffer;

constexpr int DECODER_INSTANCE = 360;

struct decoder {
    struct video_buffer* video_buffer;
};

bool decoder_open(decoder* dec, int flags);
void decoder_close(decoder* dec);
void decoder_interrupt(decoder* dec);
