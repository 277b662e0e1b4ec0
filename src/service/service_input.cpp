// The HMI's touches and keys, forwarded to the phone on the control connection (USB link only).
#include <QPoint>
#include <QRect>

#include "service/input.h"
#include "base/log_line.h"
#include "service/orvane_service.h"

namespace {

// HMI touch type to internal code; -1 for types the phone is never told about.
int touch_code(uint touchType)
{
    switch (touchType) {
    case 1:
        return TOUCH_CODE_PRESS;
    case 2:
        return TOUCH_CODE_MOVE;
    case 3:
        return TOUCH_CODE_RELEASE;
    default:
        return -1;
    }
}

} // namespace

// Kept on purpose (docs/KEPT.md): accepted and ignored.
void OrvaneService::requestTouchStatus(int, int, QString)
{
    // The HMI sends these too; the picture's touches arrive through requestTouchAction.
}

void OrvaneService::requestTouchAction(uint touchType, uint x, uint y)
{
    if (wifiMode)
        return;
    static bool firstCall = true;
    if (firstCall) {
        firstCall = false;
        lastTouchX = 0;
        lastTouchY = 0;
    }
    if (!controllerRunning)
        return;

    // One reading of the placement the stream thread keeps up to date.
    const int frameWidth = screen.frame_width.load(std::memory_order_relaxed);
    const int frameHeight = screen.frame_height.load(std::memory_order_relaxed);
    const int left = screen.x.load(std::memory_order_relaxed);
    const int top = screen.y.load(std::memory_order_relaxed);
    const int displayWidth = screen.display_width.load(std::memory_order_relaxed);
    const int displayHeight = screen.display_height.load(std::memory_order_relaxed);
    const QRect picture(left, top, displayWidth, displayHeight);
    // The strict test leaves the picture's outermost rows and columns outside.
    const QPoint point(static_cast<int>(x), static_cast<int>(y));
    ControlMessage msg;

    // Kept on purpose (docs/KEPT.md): the strict edge, single precision, and the press state across links.
    if (picture.contains(point, true) && displayWidth > 0 && displayHeight > 0) {
        const int code = touch_code(touchType);
        if (code < 0)
            return;
        if (code == TOUCH_CODE_PRESS)
            touchPressed = 1;
        // A move or release without a forwarded press before it means nothing to the phone.
        if (touchPressed != 1)
            return;
        const int32_t dx = static_cast<int32_t>(x - static_cast<uint>(left));
        const int32_t dy = static_cast<int32_t>(y - static_cast<uint>(top));
        const int phoneX = static_cast<int>(
            static_cast<float>(dx) * (static_cast<float>(frameWidth) / static_cast<float>(displayWidth)));
        const int phoneY = static_cast<int>(
            static_cast<float>(dy) * (static_cast<float>(frameHeight) / static_cast<float>(displayHeight)));
        if (!build_touch_message(code, phoneX, phoneY, frameWidth, frameHeight, &msg))
            return;
        lastTouchX = phoneX;
        lastTouchY = phoneY;
        controller_push_msg(&controller, &msg);
        if (code == TOUCH_CODE_RELEASE)
            touchPressed = 0;
        return;
    }

    // Off the picture only the lift of a finger that went down on it matters: the phone gets the
    // up at the last position that was on the picture.
    if (touch_code(touchType) == TOUCH_CODE_RELEASE && touchPressed == 1) {
        if (!build_touch_message(TOUCH_CODE_RELEASE, lastTouchX, lastTouchY, frameWidth, frameHeight, &msg))
            return;
        controller_push_msg(&controller, &msg);
        touchPressed = 0;
    }
}

void OrvaneService::requestKeyValue(int type)
{
    // Kept on purpose (docs/KEPT.md): logged before anything is checked.
    logLine() << "requestKeyValue" << type;
    if (wifiMode)
        return;
    ControlMessage down;
    ControlMessage up;
    if (!build_key_message(3, type, &down) || !build_key_message(4, type, &up))
        return;
    // controller_push_msg itself refuses while the controller is stopped.
    controller_push_msg(&controller, &down);
    controller_push_msg(&controller, &up);
}
