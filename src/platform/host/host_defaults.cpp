// A PC: the console is wherever the daemon was started from (a terminal, or the journal under
// systemd); the adb in use (ADB, else the one on the PATH) is asked to stand down rather than every
// process with "adb" in its name; there is no OTG switch; the Wi-Fi interface is found.
#include "platform/defaults.h"

const platform_defaults& platform_default_settings()
{
    static const platform_defaults defaults = [] {
        platform_defaults d;
        d.console = "-";
        d.adb_devices_command = "\"${ADB:-adb}\" devices";
        d.otg_command = "";
        d.adb_kill_command = "\"${ADB:-adb}\" kill-server";
        d.wifi_interface = "";
        return d;
    }();
    return defaults;
}
