#include "service/input.h"

// Kept on purpose (docs/KEPT.md): process-wide, so a press outlives its link.
int touchPressed = -1;
int lastTouchX = 0;
int lastTouchY = 0;

bool build_key_message(int keyAction, int key, ControlMessage* msg)
{
    msg->type = CONTROL_KEYCODE;
    if (keyAction != 3 && keyAction != 4)
        return false;
    msg->keycode.action = keyAction == 3 ? 0 : 1;
    switch (key) {
    case 1:
        msg->keycode.keycode = 3; // home
        break;
    case 2:
        msg->keycode.keycode = 4; // back
        break;
    case 3:
        msg->keycode.keycode = 82; // menu
        break;
    default:
        return false;
    }
    msg->keycode.metastate = 0;
    return true;
}

bool build_touch_message(int code, int x, int y, int width, int height, ControlMessage* msg)
{
    uint8_t action;
    switch (code) {
    case TOUCH_CODE_PRESS:
        action = 0; // down
        break;
    case TOUCH_CODE_MOVE:
        action = 2; // move
        break;
    case TOUCH_CODE_RELEASE:
        action = 1; // up
        break;
    default:
        return false;
    }
    msg->type = CONTROL_TOUCH;
    msg->touch.action = action;
    msg->touch.pointer_id = 1;
    msg->touch.position.screen_width = static_cast<uint32_t>(width);
    msg->touch.position.screen_height = static_cast<uint32_t>(height);
    msg->touch.position.x = x;
    msg->touch.position.y = y;
    return true;
}
