// The few shell commands the service runs around a USB link ("adb devices" before the server starts,
// the USB controller's OTG mode and "pkill adb" at teardown). Each can be replaced through the
// environment so a desktop or a test run need not touch /sys or a developer's own adb.
#pragma once

// Default texts of the three commands, and the variables that replace them.
constexpr const char* SHELL_ADB_DEVICES = "adb devices";
constexpr const char* SHELL_OTG_MODE = "echo otg > /sys/devices/platform/musb-tez7300.0/musb-hdrc.0/mode";
constexpr const char* SHELL_ADB_KILL = "pkill adb";
constexpr const char* ENV_ADB_DEVICES_COMMAND = "ORVANE_ADB_DEVICES_COMMAND";
constexpr const char* ENV_OTG_COMMAND = "ORVANE_OTG_COMMAND";
constexpr const char* ENV_ADB_KILL_COMMAND = "ORVANE_ADB_KILL_COMMAND";

// How long a shell command may block the main thread before it is killed.
constexpr int SHELL_COMMAND_TIMEOUT_MS = 10000;

// The command text: the variable's value when set, else the default.
const char* shell_command_text(const char* env_name, const char* default_text);
// Runs the text through /bin/sh like system(), but ends it (and everything it started) after
// timeout_ms. Returns the shell's exit status, or -1 when it could not run or was killed.
int shell_command_run(const char* text, int timeout_ms);
