#include "server/adb.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "command.h"

namespace {
constexpr int ADB_DEFAULT_TIMEOUT_MS = 15000;
}

const char* adb_tool_path()
{
    // Resolved once: the start-up sequence, the teardown and the show_touches toggle must all run
    // the same tool even if the environment changes under us. The copy keeps it valid after a
    // later setenv/unsetenv.
    static const char* const path = [] {
        const char* env = getenv("ADB");
        if (env == nullptr)
            return "adb";
        const char* copy = strdup(env);
        return copy != nullptr ? copy : "adb";
    }();
    return path;
}

int adb_timeout_ms()
{
    static const int timeout = [] {
        const char* env = getenv("ORVANE_ADB_TIMEOUT_MS");
        if (env == nullptr || *env == '\0')
            return ADB_DEFAULT_TIMEOUT_MS;
        char* end = nullptr;
        const long value = strtol(env, &end, 10);
        if (*end != '\0' || value < 1 || value > 3600000) {
            printf("ORVANE_ADB_TIMEOUT_MS=%s is not a number of milliseconds from 1 to 3600000, using %d\n",
                   env, ADB_DEFAULT_TIMEOUT_MS);
            return ADB_DEFAULT_TIMEOUT_MS;
        }
        return static_cast<int>(value);
    }();
    return timeout;
}

pid_t adb_run(const char* serial, const char* const* args, int n)
{
    if (n < 0)
        return -1;
    std::vector<const char*> argv;
    argv.reserve(static_cast<size_t>(n) + 4);
    argv.push_back(adb_tool_path());
    if (serial != nullptr) {
        argv.push_back("-s");
        argv.push_back(serial);
    }
    for (int i = 0; i < n; ++i)
        argv.push_back(args[i]);
    argv.push_back(nullptr);

    pid_t pid;
    const CommandResult result = command_spawn(argv[0], const_cast<char* const*>(argv.data()), &pid);
    if (result == COMMAND_OK)
        return pid;
    // The report shows the whole vector, tool path and selector included.
    command_report_failure(result, argv.data());
    return -1;
}

pid_t adb_tunnel_forward(const char* serial, uint16_t local_port, const char* socket_name)
{
    char local[12];
    char remote[123];
    snprintf(local, sizeof local, "tcp:%u", static_cast<unsigned>(local_port));
    snprintf(remote, sizeof remote, "localabstract:%s", socket_name);
    const char* const args[] = {"forward", local, remote};
    return adb_run(serial, args, 3);
}

pid_t adb_tunnel_forward_remove(const char* serial, uint16_t local_port)
{
    char local[12];
    snprintf(local, sizeof local, "tcp:%u", static_cast<unsigned>(local_port));
    const char* const args[] = {"forward", "--remove", local};
    return adb_run(serial, args, 3);
}

// The reverse tunnel runs from the phone to us, so the phone's socket comes first.
pid_t adb_tunnel_reverse(const char* serial, const char* socket_name, uint16_t local_port)
{
    char remote[123];
    char local[12];
    snprintf(remote, sizeof remote, "localabstract:%s", socket_name);
    snprintf(local, sizeof local, "tcp:%u", static_cast<unsigned>(local_port));
    const char* const args[] = {"reverse", remote, local};
    return adb_run(serial, args, 3);
}

pid_t adb_tunnel_reverse_remove(const char* serial, const char* socket_name)
{
    char remote[123];
    snprintf(remote, sizeof remote, "localabstract:%s", socket_name);
    const char* const args[] = {"reverse", "--remove", remote};
    return adb_run(serial, args, 3);
}

pid_t adb_push_file(const char* serial, const char* local, const char* remote)
{
    const char* const args[] = {"push", local, remote};
    return adb_run(serial, args, 3);
}

pid_t adb_install_package(const char* serial, const char* package)
{
    const char* const args[] = {"install", "-r", package};
    return adb_run(serial, args, 3);
}
