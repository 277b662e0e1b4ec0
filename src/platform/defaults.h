// What differs between the head unit and a PC, decided by the backend: where the console is, the
// shell commands around a USB link, and which network interface identifies the head unit on Wi-Fi.
// The layers above read these and never ask which backend they run on; each has an environment
// variable that replaces it.
#pragma once

struct platform_defaults {
    const char* console;             // standard output and error; "-" keeps the inherited streams
    const char* adb_devices_command; // shell command run before a USB link's server starts
    const char* otg_command;         // shell command after a USB link's server stops; "" for none
    const char* adb_kill_command;    // shell command at the end of a USB teardown; "" for none
    const char* wifi_interface;      // its MAC address is the head unit's Wi-Fi identity; "" finds one
};

// Any thread; the same table for the whole process.
const platform_defaults& platform_default_settings();
