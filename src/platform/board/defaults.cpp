// The head unit: its serial console, its USB controller's OTG switch, the adb server it runs for the
// phone alone, and its Wi-Fi interface.
#include "platform/defaults.h"

const platform_defaults& platform_default_settings()
{
    static const platform_defaults defaults = [] {
        platform_defaults d;
        d.console = "/dev/ttyS0";
        d.adb_devices_command = "adb devices";
        d.otg_command = "echo otg > /sys/devices/platform/musb-tez7300.0/musb-hdrc.0/mode";
        d.adb_kill_command = "pkill adb";
        d.wifi_interface = "wlan1";
        return d;
    }();
    return defaults;
}
