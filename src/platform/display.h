// The head unit's closed display library (libtezcmn): the framebuffer video layer.
#pragma once

extern "C" {
// Main thread, while no stream runs (link start).
int tezapi_set_display_mode(int mode);
// Stream thread (a new layout).
int tezapi_init_fb_display(int fb, int src_width, int src_height, int x, int y, int display_width,
                           int display_height, int a0, int a1, int a2, int a3, int a4, int a5, int a6);
// Any thread: the main thread (hide, teardown), the stream thread (reveal) and, through
// EVENT_FRAME_SIZE_CHANGED, the receiver. Returns at once.
int tezapi_show_fb(int fb, int on);
// Stream thread, all three: the latched picture, the next one, and a wait for the next vsync (the
// host's gives up after a second).
int tezapi_get_fb_addr(int fb, unsigned* a0, unsigned* a1, unsigned* a2);
int tezapi_set_fb_addr(int fb, unsigned a0, unsigned a1, unsigned a2, int flag);
int tezapi_wait_for_vsync(int fb);
}
