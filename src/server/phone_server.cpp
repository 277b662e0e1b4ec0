#include "server/phone_server.h"
#include "base/clock.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/ending.h"
#include "base/fd.h"
#include "base/worker.h"
#include "command.h"
#include "net/sock.h"
#include "server/adb.h"
#include "server/net_accept_thread.h"

void phone_server_init(PhoneServer* server)
{
    server->serial = nullptr;
    server->process = -1;
    fd_store(&server->server_socket, -1);
    fd_store(&server->video_socket, -1);
    server->udp_socket = -1;
    server->control_socket = -1;
    server->local_port = 0;
    server->tunnel_enabled = false;
    server->tunnel_forward = false;
    server->accept_thread = nullptr;
}

void socket_close_guarded(int* fd)
{
    const int s = fd_load(fd);
    if (s == -1)
        return;
    // Shutting down first wakes any thread blocked in accept/recv on this descriptor.
    sock_shutdown(s, SHUT_RDWR);
    if (!sock_close(s)) {
        puts("Could not close socket");
        return;
    }
    fd_store(fd, -1);
}

bool phone_server_disable_tunnel(const char* serial, uint16_t local_port, bool forward)
{
    if (forward)
        return command_check_exit_within(adb_tunnel_forward_remove(serial, local_port),
                                         "adb forward --remove", adb_timeout_ms());
    return command_check_exit_within(adb_tunnel_reverse_remove(serial, PHONE_SERVER_SOCKET_NAME),
                                     "adb reverse --remove", adb_timeout_ms());
}

static void release_serial(PhoneServer* server)
{
    free(server->serial);
    server->serial = nullptr;
}

bool phone_server_start(PhoneServer* server, const char* serial, const ServerParams* params)
{
    const uint16_t port = params->local_port;
    server->local_port = port;
    if (serial != nullptr) {
        server->serial = strdup(serial);
        if (server->serial == nullptr)
            return false;
    }
    const char* sel = server->serial;

    if (!command_check_exit_within(adb_push_file(sel, PHONE_SERVER_JAR_LOCAL, PHONE_SERVER_JAR_REMOTE),
                                   "adb push", adb_timeout_ms())) {
        release_serial(server);
        return false;
    }

    if (!command_check_exit_within(adb_tunnel_reverse(sel, PHONE_SERVER_SOCKET_NAME, port), "adb reverse",
                                   adb_timeout_ms())) {
        puts("'adb reverse' failed, fallback to 'adb forward'");
        server->tunnel_forward = true;
        if (!command_check_exit_within(adb_tunnel_forward(sel, port, PHONE_SERVER_SOCKET_NAME), "adb forward",
                                       adb_timeout_ms())) {
            release_serial(server);
            return false;
        }
    }

    if (!server->tunnel_forward) {
        // Listen before the launch so the phone's first connect cannot arrive too early.
        const int s = sock_listen(SOCK_ADDR_LOOPBACK, port, 1);
        fd_store(&server->server_socket, s);
        if (s == -1) {
            printf("Could not listen on port %d\n", port);
            phone_server_disable_tunnel(sel, port, false);
            release_serial(server);
            return false;
        }
    }

    char bit_rate[11] = {0};
    snprintf(bit_rate, sizeof bit_rate, "%u", params->bit_rate);
    const char* const args[11] = {
        "shell",
        "CLASSPATH=/data/local/tmp/qvoalink-server.jar",
        "app_process",
        "/",
        PHONE_SERVER_CLASS,
        params->size_arg != nullptr ? params->size_arg : "-",
        bit_rate,
        server->tunnel_forward ? "true" : "false",
        params->option_arg != nullptr ? params->option_arg : "-",
        "true",
        params->option_flag ? "true" : "false",
    };
    server->process = adb_run(sel, args, 11);
    if (server->process == -1) {
        if (!server->tunnel_forward)
            socket_close_guarded(&server->server_socket);
        phone_server_disable_tunnel(sel, port, server->tunnel_forward);
        release_serial(server);
        return false;
    }

    // Only now does stop own the tunnel; the failure paths above removed it themselves.
    server->tunnel_enabled = true;
    return true;
}

// A server that ended (crashed at launch, refused its arguments) will never connect: it is reaped
// here, its tunnel removed, and the start can fail at once instead of waiting out its time.
static bool server_has_exited(PhoneServer* server)
{
    int status = 0;
    if (server->process == -1 || waitpid(server->process, &status, WNOHANG) != server->process)
        return false;
    printf("Server exited before connecting (%s %d)\n", WIFSIGNALED(status) ? "signal" : "exit status",
           WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    server->process = -1;
    if (server->tunnel_enabled)
        phone_server_disable_tunnel(server->serial, server->local_port, server->tunnel_forward);
    server->tunnel_enabled = false;
    return true;
}

// Waits until fd is readable (a connection to accept, the server's first byte) before deadline,
// watching the server process meanwhile. The main thread, and with it D-Bus, waits here.
static bool wait_for_server(PhoneServer* server, int fd, int64_t deadline)
{
    for (;;) {
        if (server_has_exited(server))
            return false;
        if (daemon_ending()) {
            puts("The daemon is ending: the server's connection is not waited for");
            return false;
        }
        const int64_t left = deadline - monotonic_ms();
        if (left <= 0) {
            printf("Server did not connect within %d ms\n", PHONE_SERVER_CONNECT_MS);
            return false;
        }
        pollfd pfd = {fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left < 50 ? left : 50));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

static bool connect_forward(PhoneServer* server, int64_t deadline)
{
    const int attempts = 100;
    for (int left = attempts; left > 0; --left) {
        printf("Remaining connection attempts: %d\n", left);
        const int s = sock_connect(SOCK_ADDR_LOOPBACK, server->local_port);
        if (s != -1) {
            // adb accepts the tunnel connection even when nothing listens on the phone; only the
            // server's first byte proves that the server itself is there.
            char byte;
            const bool ready = wait_for_server(server, s, deadline);
            if (ready && sock_recv(s, &byte, 1) == 1) {
                fd_store(&server->video_socket, s);
                return true;
            }
            sock_close(s);
            if (!ready)
                break;
        } else if (server_has_exited(server)) {
            break;
        }
        usleep(100000);
    }
    fd_store(&server->video_socket, -1);
    return false;
}

bool phone_server_connect(PhoneServer* server)
{
    const int64_t deadline = monotonic_ms() + PHONE_SERVER_CONNECT_MS;
    if (!server->tunnel_forward) {
        const int listener = fd_load(&server->server_socket);
        const int video = wait_for_server(server, listener, deadline) ? sock_accept(listener) : -1;
        fd_store(&server->video_socket, video);
        if (video == -1)
            return false;
        server->control_socket = wait_for_server(server, listener, deadline) ? sock_accept(listener) : -1;
        if (server->control_socket == -1)
            return false;
        // Two connections are all the server makes; nobody else gets in.
        socket_close_guarded(&server->server_socket);
    } else {
        if (!connect_forward(server, deadline))
            return false;
        server->control_socket = sock_connect(SOCK_ADDR_LOOPBACK, server->local_port);
        if (server->control_socket == -1)
            return false;
    }

    phone_server_disable_tunnel(server->serial, server->local_port, server->tunnel_forward);
    server->tunnel_enabled = false;
    return true;
}

void phone_server_stop(PhoneServer* server)
{
    if (fd_load(&server->server_socket) != -1) {
        socket_close_guarded(&server->server_socket);
        fd_store(&server->server_socket, -1);
        if (server->accept_thread != nullptr) {
            // Closing the listener ends its accept at once; a thread still running after the second
            // would be destroyed while it runs, so it is waited for to the end.
            if (!server->accept_thread->wait(1000))
                server->accept_thread->wait();
            server->accept_thread->deleteLater();
            server->accept_thread = nullptr;
        }
    }

    // Shutting the connections down before the server goes releases the stream and receiver threads.
    // They are closed only once those threads are joined (phone_server_close): a number closed
    // under a reader could be handed to another file before the reader notices.
    for (const int fd : {server->udp_socket, fd_load(&server->video_socket), server->control_socket})
        if (fd != -1)
            sock_shutdown(fd, SHUT_RDWR);

    if (server->process != -1) {
        if (!command_kill(server->process))
            puts("Could not terminate server");
        // A server that ignores the request must not hold the teardown: it is killed after the limit.
        bool timed_out;
        command_wait_within(server->process, nullptr, adb_timeout_ms(), &timed_out);
        puts("Server terminated");
        server->process = -1;
        if (server->tunnel_enabled)
            phone_server_disable_tunnel(server->serial, server->local_port, server->tunnel_forward);
    }

    release_serial(server);
}

int phone_server_video_socket(const PhoneServer* server)
{
    return fd_load(&server->video_socket);
}

void phone_server_close(PhoneServer* server)
{
    socket_close_guarded(&server->udp_socket);
    socket_close_guarded(&server->video_socket);
    socket_close_guarded(&server->control_socket);
}

bool phone_server_start_wifi(PhoneServer* server)
{
    server->local_port = PHONE_SERVER_PORT;
    server->tunnel_forward = false;
    const int s = sock_listen(SOCK_ADDR_ANY, PHONE_SERVER_PORT, 1);
    fd_store(&server->server_socket, s);
    if (s == -1) {
        printf("Could not listen on port %d\n", server->local_port);
        return false;
    }
    server->accept_thread = new NetAcceptThread(server);
    if (!worker_start(server->accept_thread, QThread::InheritPriority, "orvane-accept")) {
        // Nobody would take the phone's connection: the start fails rather than wait forever.
        delete server->accept_thread;
        server->accept_thread = nullptr;
        socket_close_guarded(&server->server_socket);
        return false;
    }
    return true;
}

bool phone_server_open_udp(PhoneServer* server)
{
    server->local_port = PHONE_SERVER_PORT;
    server->tunnel_forward = false;
    server->udp_socket = sock_bind_udp(SOCK_ADDR_ANY, PHONE_SERVER_PORT + 1);
    if (server->udp_socket == -1) {
        printf("Could not listen udp on port %d\n", server->local_port + 1);
        return false;
    }
    int size = 0;
    socklen_t len = sizeof size;
    getsockopt(server->udp_socket, SOL_SOCKET, SO_RCVBUF, &size, &len);
    printf("\nget udp default recv buffer size:%d\n", size);
    const int wanted = 0x100000;
    setsockopt(server->udp_socket, SOL_SOCKET, SO_RCVBUF, &wanted, len);
    return true;
}
