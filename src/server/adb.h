// adb command lines: tool lookup ("ADB" or the PATH), device selector, one call per sub-command.
// Each returns the started child's pid, or -1 after the failure has been printed. Main thread.
#pragma once

#include <cstdint>
#include <sys/types.h>

// The tool path, resolved once on first use from the environment.
const char* adb_tool_path();
// How long one adb step may take before it is killed: ORVANE_ADB_TIMEOUT_MS, default 15000.
int adb_timeout_ms();

pid_t adb_run(const char* serial, const char* const* args, int n);
pid_t adb_tunnel_forward(const char* serial, uint16_t local_port, const char* socket_name);
pid_t adb_tunnel_forward_remove(const char* serial, uint16_t local_port);
pid_t adb_tunnel_reverse(const char* serial, const char* socket_name, uint16_t local_port);
pid_t adb_tunnel_reverse_remove(const char* serial, const char* socket_name);
pid_t adb_push_file(const char* serial, const char* local, const char* remote);
pid_t adb_install_package(const char* serial, const char* package);
