// The few shell commands the service runs around a USB link (adb's device list before the server
// starts, the USB controller's OTG mode and adb's stand-down at teardown). Their defaults are the
// platform's (platform/defaults.h); each can be replaced through the environment. Main thread: a
// command blocks it for up to SHELL_COMMAND_TIMEOUT_MS (1 s once the daemon is ending).
#pragma once

// The variables that replace the platform's commands.
constexpr const char* ENV_ADB_DEVICES_COMMAND = "ORVANE_ADB_DEVICES_COMMAND";
constexpr const char* ENV_OTG_COMMAND = "ORVANE_OTG_COMMAND";
constexpr const char* ENV_ADB_KILL_COMMAND = "ORVANE_ADB_KILL_COMMAND";

// How long a shell command may block the main thread before it is killed.
constexpr int SHELL_COMMAND_TIMEOUT_MS = 10000;

// Runs the text through /bin/sh like system(), but ends it (and everything it started) after
// timeout_ms. Returns the shell's exit status, or -1 when it could not run or was killed. An empty
// text runs nothing and returns 0.
int shell_command_run(const char* text, int timeout_ms);
// The command for env_name (the variable's value when set, even empty, else default_text), run
// within SHELL_COMMAND_TIMEOUT_MS; returns as shell_command_run does.
int shell_command_run_configured(const char* env_name, const char* default_text);
