// Adapter around the shared hardware codec: win its lock (with retries), release it at the end of
// a stream, and wake the video buffer's channel on stop.
#pragma once

struct video_buffer;

constexpr int DECODER_INSTANCE = 360;

struct decoder {
    struct video_buffer* video_buffer;
};

// Stream thread, at the start of its run: takes the codec's lock; may wait about a second for it
// while another application holds the codec.
bool decoder_open(decoder* dec, int flags);
// Stream thread, at the end of its run: releases the codec if this process holds it.
void decoder_close(decoder* dec);
// Main thread (stream_stop): wakes the video buffer's channel; takes its mutex briefly.
void decoder_interrupt(decoder* dec);
