// Input that arrives through the display itself. On a PC the window that shows the layer is also
// the touchscreen: a click, a drag or a key in it is what the HMI's requestTouchAction and
// requestKeyValue carry. The head unit's display library has no input of its own, so the board
// backend leaves these functions undefined and the service finds no input source.
#pragma once

enum display_input_kind {
    DISPLAY_INPUT_TOUCH = 1, // action 1 press, 2 move, 3 release at x, y (framebuffer pixels)
    DISPLAY_INPUT_KEY = 2,   // key 1 home, 2 back, 3 menu
    DISPLAY_INPUT_CLOSE = 3, // the person closed the window
};

struct display_input {
    int kind;
    unsigned action;
    unsigned x;
    unsigned y;
    int key;
};

extern "C" {
// Any thread. A descriptor that becomes readable while input waits, or -1 when the display takes
// none; the same descriptor for the whole process.
int display_input_fd(void) __attribute__((weak));
// Main thread. Takes the oldest waiting input; false when none is left (the descriptor is then
// quiet again). Never blocks.
bool display_input_take(display_input* out) __attribute__((weak));
}
