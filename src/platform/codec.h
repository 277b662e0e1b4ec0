// The head unit's closed hardware codec library. It reads the bitstream by physical address and
// reports the decoded pictures as address triples the display layer can scan out.
#pragma once

#include <cstdint>

constexpr int DECODE_OUTPUT_MAX_PICTURES = 8;

// What MFCDecode writes: word 0 picture count (<= 0: none), word 1 width, word 2 height, then
// five words per picture whose first three are the address triple for tezapi_set_fb_addr.
struct decode_picture {
    uint32_t addr[3];
    uint32_t unused[2];
};
struct decode_output {
    int32_t count;
    int32_t width;
    int32_t height;
    decode_picture pictures[DECODE_OUTPUT_MAX_PICTURES];
};

// Stream thread, all four (the lock is taken and given back by the stream's own run).
extern "C" {
int MFCTryLock(void); // 1 = taken
int MFCDecode(const void* input, void* output, int new_stream,
              int instance); // input: {mapped, physical, length}
int MFCRelease(int instance);
int MFCUnlock(void);
}
