// The display's own input (on a PC, the window that shows the phone), taken on the main thread and
// put through the same slots as the HMI's D-Bus calls, log lines and press state included; and the
// orderly end of the daemon that closing the window, like an end signal or the loss of the session
// bus, asks for.
#include <QCoreApplication>
#include <QSocketNotifier>
#include <cstdio>

#include "platform/input.h"
#include "service/orvane_service.h"

void OrvaneService::watchDisplayInput()
{
    // The head unit's display has no input of its own: its backend does not define these.
    if (display_input_fd == nullptr || display_input_take == nullptr)
        return;
    const int fd = display_input_fd();
    if (fd < 0)
        return;
    auto* notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        display_input input;
        while (display_input_take(&input)) {
            switch (input.kind) {
            case DISPLAY_INPUT_TOUCH:
                requestTouchAction(input.action, input.x, input.y);
                break;
            case DISPLAY_INPUT_KEY:
                requestKeyValue(input.key);
                break;
            case DISPLAY_INPUT_CLOSE:
                endDaemon("Window closed");
                return;
            default:
                break;
            }
        }
    });
}

void OrvaneService::endDaemon(const char* why, int status)
{
    printf("%s: ending the link and the daemon\n", why);
    exitLink();
    QCoreApplication::exit(status);
}

void OrvaneService::sessionBusLost()
{
    // Unreachable, the daemon would hold the phone's server, the codec and the layer for nothing; a
    // status that is not 0 lets its supervisor start it again on the new bus.
    endDaemon("Session bus lost", 1);
}
