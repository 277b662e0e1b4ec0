// Turning the HMI's touches and keys into control messages for the phone. Main thread: the press
// state below is read and written there only (the window's input reaches it through the main
// thread too).
#pragma once

#include "control/control_message.h"

// Internal touch codes (what the HMI's touch types map to).
constexpr int TOUCH_CODE_RELEASE = 0;
constexpr int TOUCH_CODE_PRESS = 1;
constexpr int TOUCH_CODE_MOVE = 2;

// keyAction 3 = press, 4 = release; key 1 home, 2 back, 3 menu.
bool build_key_message(int keyAction, int key, ControlMessage* msg);
bool build_touch_message(int code, int x, int y, int width, int height, ControlMessage* msg);

// Process-wide press state, kept across calls and across links.
extern int touchPressed;
extern int lastTouchX;
extern int lastTouchY;
